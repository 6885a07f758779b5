#pragma once

#include <QIcon>
#include <QPoint>
#include <QStringList>
#include <QWidget>

/// A file as a picture on a rounded field: what files can be dropped on, dragged out of, or just seen in.
/// Files dragged out are offered as text/uri-list, to be copied. Main thread.
class CVFileWell final : public QWidget
{
    Q_OBJECT

public:
    explicit CVFileWell(QWidget *parent = nullptr);

    /// Device-independent pixels for a usual font.
    void setPicture(const QIcon &icon, int size, bool multiple = false);

    /// What is dragged out. Absolute, names as of LXFileName.
    void setPaths(const QStringList &paths);
    QStringList paths() const { return m_paths; }

    /// Neither is by default.
    void setDragOutAllowed(bool allowed);
    void setDropAllowed(bool allowed);
    /// The rounded field is drawn even when nothing hovers over it.
    void setFieldVisible(bool visible);

    QSize sizeHint() const override;

Q_SIGNALS:
    /// Never empty.
    void filesDropped(const QStringList &paths);
    /// Space or a double click on it.
    void activated();

protected:
    void paintEvent(QPaintEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void dragEnterEvent(QDragEnterEvent *event) override;
    void dragLeaveEvent(QDragLeaveEvent *event) override;
    void dropEvent(QDropEvent *event) override;

private:
    void startDrag();
    QPixmap picture() const;

    QIcon m_icon;
    QStringList m_paths;
    QPoint m_pressed;
    int m_pictureSize = 110;
    bool m_multiple = false;
    bool m_dragOutAllowed = false;
    bool m_mayDrag = false;
    bool m_isFieldVisible = false;
    bool m_isHovered = false; ///< files are held over it
};
