#include "ui/base/CVTheme.h"

#include <QFile>
#include <QFontMetrics>
#include <QGuiApplication>
#include <QHash>
#include <QIconEngine>
#include <QLoggingCategory>
#include <QPainter>
#include <QPixmapCache>
#include <QSvgRenderer>

#include <algorithm>
#include <atomic>
#include <cmath>

using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(log, "corvane.ui")

constexpr int usualLineHeight = 16;
constexpr QSize usualInitialSize(460, 300);

std::atomic<bool> motionReduced = false;

QColor mixed(const QColor &a, const QColor &b, double share)
{
    const auto mix = [share](int x, int y) { return static_cast<int>(std::lround(x + (y - x) * share)); };
    return QColor(mix(a.red(), b.red()), mix(a.green(), b.green()), mix(a.blue(), b.blue()));
}

/// Draws an SVG in the colours that the palette has when it is drawn, so a change of theme needs no new
/// icons.
class ThemedSvg final : public QIconEngine
{
public:
    explicit ThemedSvg(QByteArray svg)
        : m_svg(std::move(svg))
        , m_isTinted(m_svg.contains("currentColor"))
    {}

    void paint(QPainter *painter, const QRect &rect, QIcon::Mode mode, QIcon::State) override
    {
        QByteArray svg = m_svg;
        if (m_isTinted)
            svg.replace("currentColor", tint(mode).name().toLatin1());
        else if (mode == QIcon::Disabled)
            painter->setOpacity(painter->opacity() * 0.4);
        QSvgRenderer renderer(svg);
        renderer.setAspectRatioMode(Qt::KeepAspectRatio);
        renderer.render(painter, rect);
    }

    QPixmap pixmap(const QSize &size, QIcon::Mode mode, QIcon::State state) override
    {
        return scaledPixmap(size, mode, state, 1.0);
    }

    // Qt asks in device pixels and sets the ratio itself.
    QPixmap scaledPixmap(const QSize &size, QIcon::Mode mode, QIcon::State state, qreal) override
    {
        const QString key =
            u"%1/%2x%3/%4"_s.arg(qHash(m_svg))
                .arg(size.width())
                .arg(size.height())
                .arg(m_isTinted ? tint(mode).name() : QString::number(mode == QIcon::Disabled));
        QPixmap pixmap;
        if (QPixmapCache::find(key, &pixmap))
            return pixmap;
        pixmap = QPixmap(size);
        pixmap.fill(Qt::transparent);
        {
            QPainter painter(&pixmap);
            painter.setRenderHint(QPainter::Antialiasing);
            paint(&painter, QRect(QPoint(), size), mode, state);
        }
        QPixmapCache::insert(key, pixmap);
        return pixmap;
    }

    QIconEngine *clone() const override { return new ThemedSvg(m_svg); }

private:
    static QColor tint(QIcon::Mode mode)
    {
        const QPalette palette = QGuiApplication::palette();
        switch (mode) {
        case QIcon::Disabled:
            return mixed(palette.color(QPalette::ButtonText), palette.color(QPalette::Window), 0.65);
        case QIcon::Selected:
            return palette.color(QPalette::HighlightedText);
        case QIcon::Normal:
        case QIcon::Active:
            break;
        }
        return palette.color(QPalette::ButtonText);
    }

    const QByteArray m_svg;
    const bool m_isTinted;
};

} // namespace

QSize CVTheme::initialSize()
{
    return {scaled(usualInitialSize.width()), scaled(usualInitialSize.height())};
}

int CVTheme::scaled(int length)
{
    const int line = QFontMetrics(QGuiApplication::font()).height();
    return line <= usualLineHeight + 3 ? length : length * line / usualLineHeight;
}

QFont CVTheme::titleFont()
{
    QFont font = QGuiApplication::font();
    font.setPointSizeF(font.pointSizeF() * 1.25);
    font.setWeight(QFont::DemiBold);
    return font;
}

QFont CVTheme::smallFont()
{
    QFont font = QGuiApplication::font();
    font.setPointSizeF(font.pointSizeF() * 0.9);
    return font;
}

QColor CVTheme::subtitleColor(const QPalette &palette)
{
    return mixed(palette.color(QPalette::WindowText), palette.color(QPalette::Window), 0.35);
}

QColor CVTheme::lineColor(const QPalette &palette)
{
    return mixed(palette.color(QPalette::WindowText), palette.color(QPalette::Window), 0.8);
}

QColor CVTheme::accentColor(const QPalette &palette)
{
    return palette.color(QPalette::Highlight);
}

QColor CVTheme::errorColor(const QPalette &palette)
{
    return isDark(palette) ? QColor(0xff, 0x8a, 0x80) : QColor(0xb0, 0x1c, 0x1c);
}

bool CVTheme::isDark(const QPalette &palette)
{
    return palette.color(QPalette::Window).lightness() < palette.color(QPalette::WindowText).lightness();
}

QPalette CVTheme::darkPalette()
{
    const QColor window(0x2a, 0x2b, 0x2e);
    const QColor base(0x1e, 0x1f, 0x22);
    const QColor text(0xee, 0xef, 0xf1);
    const QColor dimmed(0x8d, 0x90, 0x96);
    const QColor accent(0x3d, 0x7f, 0xd9);
    QPalette palette(QColor(0x3a, 0x3c, 0x40), window);
    for (const QPalette::ColorRole role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText,
                                           QPalette::BrightText, QPalette::ToolTipText})
        palette.setColor(role, text);
    for (const QPalette::ColorRole role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        palette.setColor(QPalette::Disabled, role, dimmed);
    palette.setColor(QPalette::Base, base);
    palette.setColor(QPalette::AlternateBase, QColor(0x25, 0x26, 0x2a));
    palette.setColor(QPalette::ToolTipBase, QColor(0x3a, 0x3c, 0x40));
    palette.setColor(QPalette::PlaceholderText, dimmed);
    palette.setColor(QPalette::Highlight, accent);
    palette.setColor(QPalette::HighlightedText, Qt::white);
    palette.setColor(QPalette::Disabled, QPalette::Highlight, QColor(0x4a, 0x4d, 0x52));
    palette.setColor(QPalette::Link, QColor(0x7f, 0xb3, 0xff));
    palette.setColor(QPalette::LinkVisited, QColor(0xc3, 0xa0, 0xff));
    return palette;
}

QIcon CVTheme::icon(const QString &name)
{
    static QHash<QString, QIcon> icons;
    if (const auto known = icons.constFind(name); known != icons.cend())
        return *known;
    QFile file(u":/icons/%1.svg"_s.arg(name));
    QIcon icon;
    if (file.open(QIODevice::ReadOnly))
        icon = QIcon(new ThemedSvg(file.readAll()));
    else
        qCWarning(log) << "no icon named" << name;
    return *icons.insert(name, icon);
}

bool CVTheme::reducedMotion()
{
    return motionReduced.load();
}

void CVTheme::setReducedMotion(bool reduced)
{
    motionReduced = reduced;
}
