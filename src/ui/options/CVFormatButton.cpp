#include "ui/options/CVFormatButton.h"

#include "ui/base/CVTheme.h"

#include <QKeyEvent>
#include <QPainter>

#include <algorithm>

namespace {

constexpr int usualIconSize = 48;
constexpr int padding = CVTheme::unit - 2;
constexpr double radius = CVTheme::unit;

QFont nameFont(bool selected)
{
    QFont font = CVTheme::smallFont();
    if (selected)
        font.setWeight(QFont::DemiBold);
    return font;
}

} // namespace

CVFormatButton::CVFormatButton(int identifier, const QIcon &image, const QString &name, QWidget *parent)
    : QRadioButton(name, parent)
    , m_identifier(identifier)
{
    setIcon(image);
    setAttribute(Qt::WA_Hover);
    setFocusPolicy(Qt::ClickFocus);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void CVFormatButton::setSelected(bool selected)
{
    // Of such a row one is always checked otherwise; but without it, it does not read as one of several.
    setAutoExclusive(false);
    setChecked(selected);
    setAutoExclusive(true);
    setFocusPolicy(selected ? Qt::StrongFocus : Qt::ClickFocus);
}

QSize CVFormatButton::sizeHint() const
{
    const QFontMetrics metrics(nameFont(true));
    const int icon = CVTheme::scaled(usualIconSize);
    return {std::max(icon + 2 * CVTheme::unit, metrics.horizontalAdvance(text()) + CVTheme::unit),
            padding + icon + padding / 2 + metrics.height() + padding};
}

void CVFormatButton::keyPressEvent(QKeyEvent *event)
{
    switch (event->key()) {
    case Qt::Key_Left:
    case Qt::Key_Right:
    case Qt::Key_Up:
    case Qt::Key_Down:
        event->ignore();
        return;
    default:
        QRadioButton::keyPressEvent(event);
    }
}

void CVFormatButton::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const bool hovered = underMouse() && isEnabled();
    if (isSelected() || hovered || hasFocus()) {
        const double width = hasFocus() ? 2.5 : 1.5;
        QColor fill = isSelected() ? CVTheme::accentColor(palette()) : palette().color(QPalette::WindowText);
        fill.setAlphaF(isSelected() ? (CVTheme::isDark(palette()) ? 0.3F : 0.15F) : (hovered ? 0.07F : 0.0F));
        painter.setBrush(fill);
        painter.setPen(isSelected() || hasFocus() ? QPen(CVTheme::accentColor(palette()), width)
                                                  : QPen(Qt::NoPen));
        const double inset = width / 2;
        painter.drawRoundedRect(QRectF(rect()).adjusted(inset, inset, -inset, -inset), radius, radius);
    }
    const int icon = CVTheme::scaled(usualIconSize);
    const QRect picture((this->width() - icon) / 2, padding + (isDown() ? 1 : 0), icon, icon);
    // A pixmap, as it is kept; drawing the picture anew at every step of a slide takes longer than the step.
    painter.drawPixmap(picture, this->icon().pixmap(picture.size(), devicePixelRatioF(),
                                                    isEnabled() ? QIcon::Normal : QIcon::Disabled));
    painter.setFont(nameFont(isSelected()));
    painter.setPen(
        palette().color(isEnabled() ? QPalette::Normal : QPalette::Disabled, QPalette::WindowText));
    painter.drawText(
        QRect(0, picture.bottom() + 1, this->width(), height() - picture.bottom() - 1 - padding / 2),
        Qt::AlignCenter | Qt::TextSingleLine | Qt::TextForceLeftToRight, text());
}
