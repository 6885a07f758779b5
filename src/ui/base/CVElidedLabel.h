#pragma once

#include <QWidget>

/// One line of plain text that is cut in the middle where it does not fit, so that both the beginning of a
/// name and its extension stay in sight; the whole text is its tool tip then. Never asks for more width than
/// it gets, so a long name cannot stretch a window. Main thread.
class CVElidedLabel final : public QWidget
{
    Q_OBJECT

public:
    explicit CVElidedLabel(QWidget *parent = nullptr);

    QString text() const { return m_text; }
    /// Shown as it stands: harmful characters of names are to be escaped before (LXDisplay).
    void setText(const QString &text);
    void setAlignment(Qt::Alignment alignment);

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent *event) override;
    bool event(QEvent *event) override;

private:
    QString m_text;
    Qt::Alignment m_alignment = Qt::AlignCenter;
};
