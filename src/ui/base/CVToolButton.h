#pragma once

#include <QToolButton>

/// One item of the tool bar: picture above word. The one to press is drawn in the palette's accent colour.
/// Tab reaches it; Space and Return press it. Main thread.
class CVToolButton final : public QToolButton
{
    Q_OBJECT

public:
    /// The action stays its owner's.
    CVToolButton(QAction *action, bool isPrimary, QWidget *parent = nullptr);

    bool isPrimary() const { return m_isPrimary; }
    /// Of every button with the desktop's font.
    static int usualHeight();
    QSize sizeHint() const override;
    QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    bool event(QEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    void describe();
    QString shownText() const;

    const bool m_isPrimary;
};
