#include "ui/base/CVFileWell.h"

#include "platform/LXFileUri.h"
#include "ui/base/CVTheme.h"

#include <QApplication>
#include <QDrag>
#include <QDragEnterEvent>
#include <QKeyEvent>
#include <QMimeData>
#include <QMouseEvent>
#include <QPainter>

namespace {

constexpr double dragImageOpacity = 0.6;
const QString uriListType = QStringLiteral("text/uri-list");

QStringList pathsIn(const QMimeData &data)
{
    QStringList paths;
    for (const QByteArray &line : data.data(uriListType).split('\n')) {
        if (const auto path = LXFileUri::pathOfUri(QString::fromUtf8(line.trimmed())))
            paths.append(*path);
    }
    return paths;
}

} // namespace

CVFileWell::CVFileWell(QWidget *parent)
    : QWidget(parent)
{
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    setAttribute(Qt::WA_Hover);
}

void CVFileWell::setPicture(const QIcon &icon, int size, bool multiple)
{
    m_icon = icon;
    m_pictureSize = size;
    m_multiple = multiple;
    updateGeometry();
    update();
}

void CVFileWell::setPaths(const QStringList &paths)
{
    m_paths = paths;
}

void CVFileWell::setDragOutAllowed(bool allowed)
{
    m_dragOutAllowed = allowed;
    setCursor(allowed ? Qt::OpenHandCursor : Qt::ArrowCursor);
    setFocusPolicy(allowed ? Qt::TabFocus : Qt::NoFocus);
}

void CVFileWell::setDropAllowed(bool allowed)
{
    setAcceptDrops(allowed);
    if (!allowed) {
        m_isHovered = false;
        update();
    }
}

void CVFileWell::setFieldVisible(bool visible)
{
    m_isFieldVisible = visible;
    update();
}

QSize CVFileWell::sizeHint() const
{
    const int side = CVTheme::scaled(m_pictureSize) + 2 * CVTheme::margin;
    return {side, side};
}

void CVFileWell::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const bool isMarked = m_isHovered || hasFocus();
    if (m_isFieldVisible || isMarked) {
        QColor fill = palette().color(QPalette::Base);
        if (m_isHovered) {
            fill = CVTheme::accentColor(palette());
            fill.setAlphaF(0.15F);
        }
        const double width = isMarked ? 2 : 1;
        painter.setPen(
            QPen(isMarked ? CVTheme::accentColor(palette()) : CVTheme::lineColor(palette()), width));
        painter.setBrush(fill);
        const double radius = 1.5 * CVTheme::unit;
        painter.drawRoundedRect(QRectF(rect()).adjusted(width / 2, width / 2, -width / 2, -width / 2), radius,
                                radius);
    }
    const QPixmap pixmap = picture();
    const QSizeF size = pixmap.deviceIndependentSize();
    painter.drawPixmap(QPointF((width() - size.width()) / 2, (height() - size.height()) / 2), pixmap);
}

/// Several files are three pictures behind each other.
QPixmap CVFileWell::picture() const
{
    const int side = CVTheme::scaled(m_pictureSize);
    const double ratio = devicePixelRatioF();
    QPixmap pixmap(QSize(side, side) * ratio);
    pixmap.setDevicePixelRatio(ratio);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    const int copies = m_multiple ? 3 : 1;
    const int step = m_multiple ? side / 10 : 0;
    const int single = side - step * (copies - 1);
    for (int i = 0; i < copies; ++i) {
        painter.setOpacity(i + 1 == copies ? 1 : 0.4 + 0.2 * i);
        const QRect place(step * (copies - 1 - i), step * i, single, single);
        m_icon.paint(&painter, place);
    }
    return pixmap;
}

void CVFileWell::mousePressEvent(QMouseEvent *event)
{
    m_mayDrag = m_dragOutAllowed && event->button() == Qt::LeftButton && !m_paths.isEmpty();
    m_pressed = event->position().toPoint();
}

void CVFileWell::mouseMoveEvent(QMouseEvent *event)
{
    if (!m_mayDrag ||
        (event->position().toPoint() - m_pressed).manhattanLength() < QApplication::startDragDistance())
        return;
    m_mayDrag = false;
    startDrag();
}

void CVFileWell::startDrag()
{
    QByteArray uris;
    for (const QString &path : m_paths)
        uris += LXFileUri::uriOfPath(path) + "\r\n";
    auto *offer = new QMimeData;
    offer->setData(uriListType, uris);

    QPixmap image = picture();
    QPixmap faint(image.size());
    faint.setDevicePixelRatio(image.devicePixelRatio());
    faint.fill(Qt::transparent);
    {
        QPainter painter(&faint);
        painter.setOpacity(dragImageOpacity);
        painter.drawPixmap(0, 0, image);
    }
    // Belongs to Qt from here on.
    auto *drag = new QDrag(this);
    drag->setMimeData(offer);
    drag->setPixmap(faint);
    const QSizeF size = faint.deviceIndependentSize();
    drag->setHotSpot(QPoint(static_cast<int>(size.width() / 2), static_cast<int>(size.height() / 2)));
    drag->exec(Qt::CopyAction);
}

void CVFileWell::mouseDoubleClickEvent(QMouseEvent *event)
{
    m_mayDrag = false;
    if (event->button() == Qt::LeftButton)
        Q_EMIT activated();
}

void CVFileWell::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Space && m_dragOutAllowed)
        Q_EMIT activated();
    else
        QWidget::keyPressEvent(event);
}

void CVFileWell::dragEnterEvent(QDragEnterEvent *event)
{
    // A drag that began here has nothing to look for here.
    if (event->source() == this || !event->mimeData()->hasFormat(uriListType))
        return;
    event->setDropAction(Qt::CopyAction);
    event->accept();
    m_isHovered = true;
    update();
}

void CVFileWell::dragLeaveEvent(QDragLeaveEvent *)
{
    m_isHovered = false;
    update();
}

void CVFileWell::dropEvent(QDropEvent *event)
{
    m_isHovered = false;
    update();
    const QStringList paths = pathsIn(*event->mimeData());
    if (paths.isEmpty())
        return;
    // Whatever the sender suggests: the files stay where they are.
    event->setDropAction(Qt::CopyAction);
    event->accept();
    Q_EMIT filesDropped(paths);
}
