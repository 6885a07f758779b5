#include "ui/base/CVToolButton.h"

#include "ui/base/CVTheme.h"

#include <QAction>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QPainter>

#include <algorithm>

namespace {

constexpr int usualIconSize = 24;
constexpr int gap = CVTheme::unit / 4;
constexpr double radius = 0.75 * CVTheme::unit;

int iconLength()
{
    return CVTheme::scaled(usualIconSize);
}

bool isReturn(const QKeyEvent &key)
{
    return (key.key() == Qt::Key_Return || key.key() == Qt::Key_Enter) &&
           !(key.modifiers() & ~Qt::KeypadModifier);
}

} // namespace

CVToolButton::CVToolButton(QAction *action, bool isPrimary, QWidget *parent)
    : QToolButton(parent)
    , m_isPrimary(isPrimary)
{
    setDefaultAction(action);
    setFocusPolicy(Qt::TabFocus);
    setToolButtonStyle(Qt::ToolButtonTextUnderIcon);
    setAttribute(Qt::WA_Hover);
    describe();
    connect(action, &QAction::changed, this, [this] {
        describe();
        updateGeometry();
        update();
    });
}

void CVToolButton::describe()
{
    const QString key = defaultAction()->shortcut().toString(QKeySequence::NativeText);
    const QString shown = shownText();
    setObjectName(defaultAction()->objectName());
    setAccessibleName(shown);
    setAccessibleDescription(key);
    setToolTip(key.isEmpty() ? shown : tr("%1 (%2)").arg(shown, key));
}

QString CVToolButton::shownText() const
{
    QString text = defaultAction()->iconText();
    if (text.endsWith(QChar(0x2026)))
        text.chop(1);
    return text;
}

int CVToolButton::usualHeight()
{
    return CVTheme::unit + iconLength() + gap + QFontMetrics(QGuiApplication::font()).height();
}

QSize CVToolButton::sizeHint() const
{
    const QFontMetrics metrics(font());
    const int width = std::max(iconLength(), metrics.horizontalAdvance(shownText())) + 2 * CVTheme::unit;
    return {std::max(width, CVTheme::scaled(7 * CVTheme::unit)), usualHeight()};
}

bool CVToolButton::event(QEvent *event)
{
    // Where the focus is on this button, Return means this button and not the one to press.
    if (event->type() == QEvent::ShortcutOverride && isReturn(*static_cast<QKeyEvent *>(event))) {
        event->accept();
        return true;
    }
    if (event->type() == QEvent::KeyPress && isReturn(*static_cast<QKeyEvent *>(event))) {
        click();
        return true;
    }
    if (event->type() == QEvent::FontChange)
        updateGeometry();
    return QToolButton::event(event);
}

void CVToolButton::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QPalette colors = palette();
    const bool isFilled = m_isPrimary && isEnabled();
    const QRectF box = QRectF(rect()).adjusted(1, 1, -1, -1);

    QColor fill = Qt::transparent;
    if (isFilled) {
        fill = CVTheme::accentColor(colors);
        if (isDown())
            fill = fill.darker(120);
        else if (underMouse())
            fill = fill.lighter(112);
    } else if (isEnabled() && (isDown() || underMouse())) {
        fill = colors.color(QPalette::WindowText);
        fill.setAlphaF(isDown() ? 0.16F : 0.08F);
    }
    painter.setPen(Qt::NoPen);
    painter.setBrush(fill);
    painter.drawRoundedRect(box, radius, radius);

    if (hasFocus()) {
        QColor ring = isFilled ? colors.color(QPalette::HighlightedText) : CVTheme::accentColor(colors);
        painter.setPen(QPen(ring, 2));
        painter.setBrush(Qt::NoBrush);
        const double inset = isFilled ? 3 : 1;
        painter.drawRoundedRect(box.adjusted(inset, inset, -inset, -inset), radius - 1, radius - 1);
    }

    const QIcon::Mode mode = !isEnabled() ? QIcon::Disabled : isFilled ? QIcon::Selected : QIcon::Normal;
    const int icon = iconLength();
    const QRect picture((width() - icon) / 2, CVTheme::unit / 2, icon, icon);
    defaultAction()->icon().paint(&painter, picture, Qt::AlignCenter, mode);
    const QRect word(0, picture.bottom() + 1 + gap, width(), QFontMetrics(font()).height());
    painter.setPen(colors.color(isEnabled() ? QPalette::Active : QPalette::Disabled,
                                isFilled ? QPalette::HighlightedText : QPalette::WindowText));
    painter.drawText(word, Qt::AlignCenter | Qt::TextSingleLine, shownText());
}
