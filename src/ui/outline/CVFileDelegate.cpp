#include "ui/outline/CVFileDelegate.h"

#include "ui/base/CVTheme.h"
#include "ui/outline/CVFileListView.h"
#include "ui/outline/CVFileNodeModel.h"

#include <QApplication>
#include <QHeaderView>
#include <QPainter>
#include <QTextLayout>

using namespace Qt::StringLiterals;

namespace {

QIcon::Mode iconMode(const QStyleOptionViewItem &option)
{
    if (!(option.state & QStyle::State_Enabled))
        return QIcon::Disabled;
    return option.state & QStyle::State_Selected ? QIcon::Selected : QIcon::Normal;
}

/// Pictures in colour keep it: tinted in the colour of the selection, they would vanish in it.
QIcon::Mode fileIconMode(const QStyleOptionViewItem &option)
{
    return option.state & QStyle::State_Enabled ? QIcon::Normal : QIcon::Disabled;
}

QPalette::ColorGroup colorGroup(const QStyleOptionViewItem &option)
{
    if (!(option.state & QStyle::State_Enabled))
        return QPalette::Disabled;
    return option.state & QStyle::State_Active ? QPalette::Normal : QPalette::Inactive;
}

QColor textColor(const QStyleOptionViewItem &option)
{
    return option.palette.color(colorGroup(option), option.state & QStyle::State_Selected
                                                        ? QPalette::HighlightedText
                                                        : QPalette::Text);
}

void drawTriangle(QPainter *painter, const QRect &rect, bool isOpen, bool isMirrored, const QColor &color)
{
    const double reach = rect.height() / 6.0;
    const QPointF centre = QRectF(rect).center();
    QPolygonF line{QPointF(-reach / 2, -reach), QPointF(reach / 2, 0), QPointF(-reach / 2, reach)};
    QTransform turn;
    turn.translate(centre.x(), centre.y());
    if (isOpen)
        turn.rotate(90);
    else if (isMirrored)
        turn.scale(-1, 1);
    painter->save();
    painter->setRenderHint(QPainter::Antialiasing);
    painter->setPen(QPen(color, rect.height() / 16.0, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    painter->drawPolyline(turn.map(line));
    painter->restore();
}

// A folder in the colour of the selection would be lost in it.
void drawEdge(QPainter *painter, const QRect &rect, const QIcon &icon, const QColor &color)
{
    QPixmap shape = icon.pixmap(rect.size(), painter->device()->devicePixelRatioF());
    if (shape.isNull())
        return;
    {
        QPainter fill(&shape);
        fill.setCompositionMode(QPainter::CompositionMode_SourceIn);
        fill.fillRect(QRect(QPoint(), rect.size()), color);
    }
    const QSizeF size = shape.deviceIndependentSize();
    const QPointF corner = QRectF(rect).center() - QPointF(size.width() / 2, size.height() / 2);
    for (const QPointF offset : {QPointF(-1, 0), QPointF(1, 0), QPointF(0, -1), QPointF(0, 1)})
        painter->drawPixmap(corner + offset, shape);
}

// In two lines at most, the second cut in the middle, so that endings stay in sight.
void drawName(QPainter *painter, const QRect &rect, const QString &name, const QFont &font,
              Qt::LayoutDirection direction)
{
    const QFontMetrics metrics(font);
    QTextOption option(Qt::AlignHCenter);
    option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    option.setTextDirection(direction);
    QTextLayout layout(name, font);
    layout.setTextOption(option);
    layout.beginLayout();
    QTextLine first = layout.createLine();
    if (first.isValid())
        first.setLineWidth(rect.width());
    layout.endLayout();
    const auto end = first.isValid() ? first.textLength() : 0;
    const int flags = Qt::AlignHCenter | Qt::AlignTop | Qt::TextSingleLine;
    painter->drawText(QRect(rect.topLeft(), QSize(rect.width(), metrics.height())), flags,
                      metrics.elidedText(name.first(end).trimmed(), Qt::ElideMiddle, rect.width()));
    if (end < name.size())
        painter->drawText(
            QRect(rect.left(), rect.top() + metrics.lineSpacing(), rect.width(), metrics.height()), flags,
            metrics.elidedText(name.sliced(end), Qt::ElideMiddle, rect.width()));
}

} // namespace

CVFileListDelegate::CVFileListDelegate(CVFileListView *view)
    : QStyledItemDelegate(view)
    , m_view(*view)
{}

void CVFileListDelegate::paint(QPainter *painter, const QStyleOptionViewItem &given,
                               const QModelIndex &index) const
{
    QStyleOptionViewItem option = given;
    initStyleOption(&option, index);
    const bool hasFocus = m_view.hasFocus() && m_view.currentIndex().row() == index.row();
    option.state &= ~QStyle::State_HasFocus;
    const QStyle *style = m_view.style();
    style->drawPrimitive(QStyle::PE_PanelItemViewItem, &option, painter, &m_view);

    const bool isName = index.column() == static_cast<int>(CVFileNodeModel::Column::Name);
    const int gap = CVTheme::unit / 2;
    const int side = isName ? gap : CVTheme::unit;
    QRect rest = option.rect.adjusted(side, 0, -side, 0);
    painter->save();
    const QColor color = textColor(option);
    if (isName) {
        if (const QRect triangle = m_view.triangleRect(index); !triangle.isEmpty())
            drawTriangle(painter, triangle, index.data(CVFileNodeModel::IsExpandedRole).toBool(),
                         option.direction == Qt::RightToLeft, color);
        const int icon = CVFileListView::iconSize();
        const int indent =
            CVFileListView::indentation() * (index.data(CVFileNodeModel::DepthRole).toInt() + 1);
        const auto take = [&](int width) {
            const QRect taken = QStyle::visualRect(option.direction, rest,
                                                   QRect(rest.left(), rest.top(), width, rest.height()));
            rest = option.direction == Qt::RightToLeft ? rest.adjusted(0, 0, -width, 0)
                                                       : rest.adjusted(width, 0, 0, 0);
            return taken;
        };
        take(indent - gap);
        const QRect place = take(icon);
        const QRect picture(place.left(), place.center().y() - icon / 2, icon, icon);
        if (option.state & QStyle::State_Selected)
            drawEdge(painter, picture, option.icon, color);
        option.icon.paint(painter, picture, Qt::AlignCenter, fileIconMode(option));
        take(CVTheme::unit);
        if (index.data(CVFileNodeModel::IsEncryptedRole).toBool()) {
            const int size = icon * 3 / 4;
            const QRect mark = take(size);
            CVTheme::icon(u"tool/lock"_s)
                .paint(painter, QRect(mark.left(), mark.center().y() - size / 2, size, size), Qt::AlignCenter,
                       iconMode(option));
            take(gap);
        }
    }
    const bool isSecond = !isName && !(option.state & QStyle::State_Selected);
    painter->setPen(isSecond ? CVTheme::subtitleColor(option.palette) : color);
    painter->setFont(option.font);
    const auto alignment =
        QStyle::visualAlignment(option.direction, option.displayAlignment) | Qt::AlignVCenter;
    painter->drawText(rest, static_cast<int>(alignment) | Qt::TextSingleLine,
                      option.fontMetrics.elidedText(option.text, Qt::ElideMiddle, rest.width()));
    if (hasFocus && !(option.state & QStyle::State_Selected)) {
        // Each cell draws its piece of the frame around the row.
        const QRectF row(-m_view.horizontalHeader()->offset(), option.rect.top(),
                         m_view.horizontalHeader()->length(), option.rect.height());
        painter->setClipRect(option.rect);
        painter->setRenderHint(QPainter::Antialiasing);
        painter->setPen(QPen(CVTheme::accentColor(option.palette), 1.5));
        painter->setBrush(Qt::NoBrush);
        painter->drawRoundedRect(row.adjusted(1.5, 1.5, -1.5, -1.5), gap, gap);
    }
    painter->restore();
}

int CVFileGridDelegate::iconSize()
{
    return CVTheme::scaled(6 * CVTheme::unit);
}

QSize CVFileGridDelegate::sizeHint(const QStyleOptionViewItem &option, const QModelIndex &) const
{
    return {CVTheme::scaled(13 * CVTheme::unit),
            iconSize() + 2 * option.fontMetrics.lineSpacing() + 3 * CVTheme::unit};
}

void CVFileGridDelegate::paint(QPainter *painter, const QStyleOptionViewItem &given,
                               const QModelIndex &index) const
{
    QStyleOptionViewItem option = given;
    initStyleOption(&option, index);
    const bool isSelected = option.state & QStyle::State_Selected;
    const QRect cell = option.rect.adjusted(2, 2, -2, -2);
    painter->save();
    painter->setRenderHint(QPainter::Antialiasing);
    const double radius = CVTheme::unit * 0.75;
    // A tint and a frame leave the picture its colours.
    const QColor highlight = option.palette.color(colorGroup(option), QPalette::Highlight);
    if (isSelected || option.state & QStyle::State_MouseOver) {
        QColor fill = highlight;
        fill.setAlphaF(isSelected ? 0.25F : 0.1F);
        painter->setPen(Qt::NoPen);
        painter->setBrush(fill);
        painter->drawRoundedRect(cell, radius, radius);
    }
    if (isSelected || option.state & QStyle::State_HasFocus) {
        painter->setBrush(Qt::NoBrush);
        painter->setPen(QPen(highlight, isSelected && option.state & QStyle::State_HasFocus ? 2.5 : 1.5));
        painter->drawRoundedRect(QRectF(cell).adjusted(0.75, 0.75, -0.75, -0.75), radius, radius);
    }
    const int icon = iconSize();
    const QRect place(cell.center().x() - icon / 2, cell.top() + CVTheme::unit, icon, icon);
    option.icon.paint(painter, place, Qt::AlignCenter, fileIconMode(option));
    if (index.data(CVFileNodeModel::IsEncryptedRole).toBool()) {
        const QRect mark(place.right() - icon / 3, place.bottom() - icon / 3, icon * 3 / 8, icon * 3 / 8);
        painter->setPen(Qt::NoPen);
        painter->setBrush(option.palette.color(QPalette::Base));
        painter->drawEllipse(mark.adjusted(-3, -3, 3, 3));
        CVTheme::icon(u"tool/lock"_s).paint(painter, mark, Qt::AlignCenter, fileIconMode(option));
    }
    painter->setPen(option.palette.color(colorGroup(option), QPalette::Text));
    painter->setFont(option.font);
    const QRect words(cell.left() + 4, place.bottom() + CVTheme::unit / 2, cell.width() - 8,
                      cell.bottom() - place.bottom() - CVTheme::unit / 2);
    drawName(painter, words, option.text, option.font, option.direction);
    painter->restore();
}
