#pragma once

#include "ui/outline/CVPrivateExtraction.h"
#include "ui/outline/CVQuickLookContents.h"

#include <QDialog>

#include <stop_token>

class CVFileNode;
class QLabel;
class QPlainTextEdit;
class QStackedWidget;

/// A look at one entry of an archive: its text, its picture, or what kind of file it is. It closes with
/// Escape or Space, and the arrow keys go to the entries before and after. Nothing of the entry is ever run.
/// Main thread.
class CVQuickLookPanel final : public QDialog
{
    Q_OBJECT

public:
    CVQuickLookPanel(const CVArchivePreviewServices &services, QWidget *parent);
    ~CVQuickLookPanel() override;

    /// Extracts the entry and shows it when it is there; what was shown before goes.
    void showEntry(const CVFileNode &node, const QString &entryPath, const QString &archivePath);
    /// What is on show is complete: contents, or words that say why there are none.
    bool isSettled() const { return m_isSettled; }

Q_SIGNALS:
    /// -1 or 1.
    void moveRequested(int by);
    void settled();

protected:
    void keyPressEvent(QKeyEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void done(int result) override;

private:
    void load(const QString &path);
    void take(const CVQuickLookContents &contents);
    void showWords(const QString &words, bool isFinal);
    void fitPicture();
    bool takesKey(int key, Qt::KeyboardModifiers modifiers);
    void drop();

    const CVArchivePreviewServices &m_services;
    std::shared_ptr<CVPrivateExtraction> m_extraction;
    std::stop_source m_stop;
    QImage m_image;
    QString m_kind;
    QLabel *m_name;
    QLabel *m_facts;
    QStackedWidget *m_pages;
    QPlainTextEdit *m_text;
    QLabel *m_picture;
    QLabel *m_words;
    bool m_isSettled = true;
};
