#include "ui/window/CVDropBoxPicture.h"

#include "ui/base/CVTheme.h"

#include <QPainter>

using namespace Qt::StringLiterals;

namespace {

constexpr int usualLength = 136;
constexpr int bobMilliseconds = 1100;
constexpr int settleMilliseconds = 220;
/// Shares of the picture's height.
constexpr double lift = -0.09;
constexpr double wholeWay = 0.46;

} // namespace

CVDropBoxPicture::CVDropBoxPicture(QWidget *parent)
    : QWidget(parent)
{
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    m_bobbing.setDuration(bobMilliseconds);
    m_bobbing.setLoopCount(-1);
    m_bobbing.setKeyValueAt(0, 0.0);
    m_bobbing.setKeyValueAt(0.5, 1.0);
    m_bobbing.setKeyValueAt(1, 0.0);
    m_bobbing.setEasingCurve(QEasingCurve::Linear);
    connect(&m_bobbing, &QVariantAnimation::valueChanged, this, [this](const QVariant &value) {
        static const QEasingCurve smooth(QEasingCurve::InOutSine);
        m_depth = lift + (0.5 * wholeWay - lift) * smooth.valueForProgress(value.toDouble());
        update();
    });
    m_settling.setDuration(settleMilliseconds);
    m_settling.setEasingCurve(QEasingCurve::OutCubic);
    connect(&m_settling, &QVariantAnimation::valueChanged, this, [this](const QVariant &value) {
        m_depth = value.toDouble();
        update();
    });
}

QSize CVDropBoxPicture::sizeHint() const
{
    return {CVTheme::scaled(usualLength), CVTheme::scaled(usualLength)};
}

void CVDropBoxPicture::startAnimation()
{
    m_settling.stop();
    if (CVTheme::reducedMotion()) {
        m_depth = 0.25 * wholeWay;
        update();
    } else if (m_bobbing.state() != QAbstractAnimation::Running) {
        m_bobbing.start();
    }
}

void CVDropBoxPicture::stopAnimation()
{
    m_bobbing.stop();
    moveTo(0, settleMilliseconds);
}

void CVDropBoxPicture::sink()
{
    m_bobbing.stop();
    moveTo(wholeWay, settleMilliseconds);
}

void CVDropBoxPicture::reset()
{
    m_bobbing.stop();
    m_settling.stop();
    m_depth = 0;
    update();
}

void CVDropBoxPicture::moveTo(double depth, int milliseconds)
{
    m_settling.stop();
    if (CVTheme::reducedMotion() || !isVisible()) {
        m_depth = depth;
        update();
        return;
    }
    m_settling.setDuration(milliseconds);
    m_settling.setStartValue(m_depth);
    m_settling.setEndValue(depth);
    m_settling.start();
}

void CVDropBoxPicture::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    const auto layer = [this](const QString &name) {
        return CVTheme::icon(name).pixmap(size(), devicePixelRatioF());
    };
    painter.drawPixmap(QPointF(0, 0), layer(u"drop/back"_s));
    painter.save();
    // The papers are seen above the front of the box only; below it they would shine through its edge.
    painter.setClipRect(QRectF(0, 0, width(), 0.9 * height()));
    painter.drawPixmap(QPointF(0, m_depth * height()), layer(u"drop/sheets"_s));
    painter.restore();
    painter.drawPixmap(QPointF(0, 0), layer(u"drop/front"_s));
}
