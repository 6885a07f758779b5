#include "ui/base/CVDarkLook.h"

#include "ui/base/CVTheme.h"

#include <QApplication>
#include <QPainter>
#include <QProxyStyle>
#include <QStyleFactory>
#include <QStyleOption>

using namespace Qt::StringLiterals;

namespace {

constexpr double boxRadius = 2;

/// Fusion draws the edges of boxes darker than the window, which nobody sees in a dark one.
class LightEdges final : public QProxyStyle
{
public:
    LightEdges()
        : QProxyStyle(QStyleFactory::create(u"fusion"_s))
    {}

    void drawPrimitive(PrimitiveElement element, const QStyleOption *option, QPainter *painter,
                       const QWidget *widget) const override
    {
        QProxyStyle::drawPrimitive(element, option, painter, widget);
        if (element != PE_IndicatorCheckBox && element != PE_IndicatorRadioButton &&
            element != PE_IndicatorItemViewItemCheck)
            return;
        painter->save();
        painter->setRenderHint(QPainter::Antialiasing);
        const QPalette::ColorGroup group =
            option->state.testFlag(State_Enabled) ? QPalette::Active : QPalette::Disabled;
        QColor edge = option->palette.color(group, QPalette::WindowText);
        edge.setAlphaF(0.45F);
        painter->setPen(edge);
        painter->setBrush(Qt::NoBrush);
        const QRectF box = QRectF(option->rect).adjusted(0.5, 0.5, -0.5, -0.5);
        if (element == PE_IndicatorRadioButton)
            painter->drawEllipse(box);
        else
            painter->drawRoundedRect(box, boxRadius, boxRadius);
        painter->restore();
    }
};

} // namespace

void CVDarkLook::setActive(bool active)
{
    static bool isActive = false;
    static QString usualStyle;
    if (isActive == active)
        return;
    isActive = active;
    if (active) {
        usualStyle = QApplication::style()->name();
        QApplication::setStyle(new LightEdges);
        QApplication::setPalette(CVTheme::darkPalette());
    } else {
        QApplication::setPalette(QPalette());
        QApplication::setStyle(usualStyle);
    }
}
