#pragma once

#include <QStringList>
#include <QWidget>

class CVDropBoxPicture;
class QLabel;
class QMimeData;
class QPushButton;

/// The file well of the first screen: takes any local files that are dropped on it, and lists none of them.
/// Main thread.
class CVDropBoxView final : public QWidget
{
    Q_OBJECT

public:
    explicit CVDropBoxView(QWidget *parent = nullptr);

    void reset();

    /// The local files of a text/uri-list, with the bytes that their names have; remote ones are left out.
    static QStringList localFiles(const QMimeData *data);

Q_SIGNALS:
    void filesDropped(const QStringList &paths);
    void chooseFiles();

protected:
    void dragEnterEvent(QDragEnterEvent *event) override;
    void dragMoveEvent(QDragMoveEvent *event) override;
    void dragLeaveEvent(QDragLeaveEvent *event) override;
    void dropEvent(QDropEvent *event) override;
    void paintEvent(QPaintEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    void setDraggedOver(bool over);
    void applyTheme();

    CVDropBoxPicture *m_picture;
    QLabel *m_title;
    QLabel *m_subtitle;
    QPushButton *m_button;
    bool m_isDraggedOver = false;
};
