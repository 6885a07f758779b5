#include "ui/base/CVElidedLabel.h"

#include <QEvent>
#include <QFontMetrics>
#include <QHelpEvent>
#include <QPainter>
#include <QStyle>
#include <QTextDocument>
#include <QToolTip>

CVElidedLabel::CVElidedLabel(QWidget *parent)
    : QWidget(parent)
{
    setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
}

void CVElidedLabel::setText(const QString &text)
{
    if (text == m_text)
        return;
    m_text = text;
    setAccessibleName(text);
    update();
}

void CVElidedLabel::setAlignment(Qt::Alignment alignment)
{
    m_alignment = alignment;
    update();
}

QSize CVElidedLabel::sizeHint() const
{
    const QFontMetrics metrics(font());
    return {metrics.horizontalAdvance(m_text) + 2, metrics.height()};
}

QSize CVElidedLabel::minimumSizeHint() const
{
    return {0, QFontMetrics(font()).height()};
}

void CVElidedLabel::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setFont(font());
    painter.setPen(palette().color(foregroundRole()));
    const Qt::Alignment alignment = QStyle::visualAlignment(layoutDirection(), m_alignment);
    painter.drawText(rect(), static_cast<int>(alignment) | Qt::TextSingleLine,
                     fontMetrics().elidedText(m_text, Qt::ElideMiddle, width()));
}

bool CVElidedLabel::event(QEvent *event)
{
    if (event->type() != QEvent::ToolTip)
        return QWidget::event(event);
    // Markup in a name is text like any other.
    const bool isCut = fontMetrics().horizontalAdvance(m_text) > width();
    QToolTip::showText(static_cast<QHelpEvent *>(event)->globalPos(),
                       isCut ? Qt::convertFromPlainText(m_text) : QString(), this);
    return true;
}
