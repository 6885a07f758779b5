#include "ui/window/CVSpinner.h"

#include "ui/base/CVTheme.h"

#include <QPainter>

#include <cmath>
#include <numbers>

namespace {

constexpr int usualLength = 48;
constexpr int spokes = 12;
constexpr int turnMilliseconds = 1000;

} // namespace

CVSpinner::CVSpinner(QWidget *parent)
    : QWidget(parent)
{
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    m_turn.setStartValue(0);
    m_turn.setEndValue(spokes);
    m_turn.setDuration(turnMilliseconds);
    m_turn.setLoopCount(-1);
    connect(&m_turn, &QVariantAnimation::valueChanged, this,
            [this, shown = -1](const QVariant &turn) mutable {
                if (turn.toInt() != shown)
                    update();
                shown = turn.toInt();
            });
    // Its place stays when it is hidden, so that the words below do not move.
    QSizePolicy policy = sizePolicy();
    policy.setRetainSizeWhenHidden(true);
    setSizePolicy(policy);
    hide();
}

void CVSpinner::startAnimating()
{
    m_isAnimating = true;
    show();
}

void CVSpinner::stopAnimating()
{
    m_isAnimating = false;
    hide();
}

QSize CVSpinner::sizeHint() const
{
    return {CVTheme::scaled(usualLength), CVTheme::scaled(usualLength)};
}

void CVSpinner::showEvent(QShowEvent *)
{
    if (!CVTheme::reducedMotion())
        m_turn.start();
}

void CVSpinner::hideEvent(QHideEvent *)
{
    m_turn.stop();
}

void CVSpinner::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(width() / 2.0, height() / 2.0);
    const double length = std::min(width(), height()) / 2.0;
    const int first = m_turn.currentValue().toInt() % spokes;
    for (int i = 0; i < spokes; ++i) {
        const int age = (first - i + spokes) % spokes;
        QColor color = palette().color(QPalette::WindowText);
        color.setAlphaF(static_cast<float>(std::max(0.12, 1.0 - age / (spokes - 2.0))));
        painter.setPen(QPen(color, length / 7, Qt::SolidLine, Qt::RoundCap));
        const double angle = 2 * std::numbers::pi * i / spokes;
        const QPointF direction(std::sin(angle), -std::cos(angle));
        painter.drawLine(direction * (length * 0.5), direction * (length * 0.9));
    }
}
