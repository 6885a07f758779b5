#include "ui/outline/CVFileGridView.h"

#include "ui/base/CVTheme.h"
#include "ui/outline/CVFileDelegate.h"
#include "ui/outline/CVFileNodeModel.h"

#include <QAccessible>
#include <QDateTime>
#include <QKeyEvent>
#include <QPaintEvent>
#include <QPainter>
#include <QScrollBar>

#include <algorithm>

namespace {

constexpr int mostLinesApart = 300;

} // namespace

CVFileGridView::CVFileGridView(CVFileNodeModel &model, QWidget *parent)
    : QListView(parent)
    , m_model(model)
{
    setItemDelegate(new CVFileGridDelegate(this));
    setModel(&model);
    setFrameShape(QFrame::NoFrame);
    setSelectionMode(ExtendedSelection);
    setEditTriggers(NoEditTriggers);
    setDragEnabled(true);
    setDragDropMode(DragOnly);
    setVerticalScrollMode(ScrollPerPixel);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setMouseTracking(true);
    viewport()->setAttribute(Qt::WA_Hover);
}

QSize CVFileGridView::cellSize() const
{
    QStyleOptionViewItem option;
    initViewItemOption(&option);
    const int width = itemDelegate()->sizeHint(option, {}).width();
    const int room = viewport()->width() - CVTheme::unit;
    return {room / std::max(room / width, 1), itemDelegate()->sizeHint(option, {}).height()};
}

int CVFileGridView::columns() const
{
    return std::max((viewport()->width() - CVTheme::unit) / std::max(cellSize().width(), 1), 1);
}

QRect CVFileGridView::cellRect(int row) const
{
    const QSize cell = cellSize();
    const int across = columns();
    const QRect logical(CVTheme::unit / 2 + row % across * cell.width(),
                        CVTheme::unit / 2 + row / across * cell.height(), cell.width(), cell.height());
    return QStyle::visualRect(layoutDirection(), QRect(0, 0, viewport()->width(), 1), logical);
}

QModelIndex CVFileGridView::modelIndex(int row) const
{
    return m_model.index(row, 0);
}

QRect CVFileGridView::visualRect(const QModelIndex &index) const
{
    return index.isValid() ? cellRect(index.row()).translated(0, -verticalOffset()) : QRect();
}

QModelIndex CVFileGridView::indexAt(const QPoint &point) const
{
    const QSize cell = cellSize();
    const int across = columns();
    const int x = layoutDirection() == Qt::RightToLeft ? viewport()->width() - 1 - point.x() : point.x();
    const int column = (x - CVTheme::unit / 2) / cell.width();
    const int line = (point.y() + verticalOffset() - CVTheme::unit / 2) / cell.height();
    if (x < CVTheme::unit / 2 || column >= across || line < 0)
        return {};
    const int row = line * across + column;
    return row < m_model.rowCount() && visualRect(modelIndex(row)).contains(point) ? modelIndex(row)
                                                                                   : QModelIndex();
}

void CVFileGridView::scrollTo(const QModelIndex &index, ScrollHint hint)
{
    if (!index.isValid())
        return;
    const QRect cell = cellRect(index.row());
    const int height = viewport()->height();
    const int top = verticalOffset();
    int wanted = top;
    if (hint == PositionAtTop || (hint == EnsureVisible && cell.top() < top))
        wanted = cell.top();
    else if (hint == PositionAtBottom || (hint == EnsureVisible && cell.bottom() > top + height))
        wanted = cell.bottom() - height + 1;
    else if (hint == PositionAtCenter)
        wanted = cell.center().y() - height / 2;
    verticalScrollBar()->setValue(wanted);
}

void CVFileGridView::doItemsLayout()
{
    QAbstractItemView::doItemsLayout();
}

void CVFileGridView::reset()
{
    QAbstractItemView::reset();
    verticalScrollBar()->setValue(0);
}

void CVFileGridView::selectAll()
{
    // QListView asks each item whether it is hidden.
    if (const int count = m_model.rowCount())
        selectionModel()->select(QItemSelection(modelIndex(0), modelIndex(count - 1)),
                                 QItemSelectionModel::ClearAndSelect);
}

void CVFileGridView::updateGeometries()
{
    const int across = columns();
    const int lines = (m_model.rowCount() + across - 1) / across;
    const int height = lines * cellSize().height() + CVTheme::unit;
    verticalScrollBar()->setPageStep(viewport()->height());
    verticalScrollBar()->setSingleStep(cellSize().height() / 3);
    verticalScrollBar()->setRange(0, std::max(0, height - viewport()->height()));
    QAbstractItemView::updateGeometries();
}

void CVFileGridView::resizeEvent(QResizeEvent *event)
{
    QAbstractItemView::resizeEvent(event);
    updateGeometries();
}

void CVFileGridView::rowsInserted(const QModelIndex &parent, int first, int last)
{
    QAbstractItemView::rowsInserted(parent, first, last);
    scheduleDelayedItemsLayout();
}

void CVFileGridView::rowsAboutToBeRemoved(const QModelIndex &parent, int first, int last)
{
    QAbstractItemView::rowsAboutToBeRemoved(parent, first, last);
    scheduleDelayedItemsLayout();
}

void CVFileGridView::dataChanged(const QModelIndex &topLeft, const QModelIndex &bottomRight,
                                 const QList<int> &roles)
{
    QAbstractItemView::dataChanged(topLeft, bottomRight, roles);
}

int CVFileGridView::horizontalOffset() const
{
    return 0;
}

int CVFileGridView::verticalOffset() const
{
    return verticalScrollBar()->value();
}

void CVFileGridView::paintEvent(QPaintEvent *event)
{
    QPainter painter(viewport());
    QStyleOptionViewItem option;
    initViewItemOption(&option);
    const int height = cellSize().height();
    const int across = columns();
    const QRect exposed = event->rect().translated(0, verticalOffset());
    const int firstLine = std::max((exposed.top() - CVTheme::unit / 2) / height, 0);
    const int last = std::min((exposed.bottom() / height + 1) * across, m_model.rowCount());
    const QPoint mouse = viewport()->mapFromGlobal(QCursor::pos());
    for (int row = firstLine * across; row < last; ++row) {
        const QModelIndex index = modelIndex(row);
        QStyleOptionViewItem cell = option;
        cell.rect = visualRect(index);
        if (selectionModel()->isSelected(index))
            cell.state |= QStyle::State_Selected;
        if (hasFocus() && index == currentIndex())
            cell.state |= QStyle::State_HasFocus;
        if (viewport()->underMouse() && cell.rect.contains(mouse))
            cell.state |= QStyle::State_MouseOver;
        itemDelegate()->paint(&painter, cell, index);
    }
}

void CVFileGridView::setSelection(const QRect &rect, QItemSelectionModel::SelectionFlags command)
{
    const int count = m_model.rowCount();
    QItemSelection selection;
    if (state() != DragSelectingState) {
        // From one item to another, as the keys and clicks ask for it: all in between in the order of
        // reading.
        const QModelIndex from = indexAt(rect.topLeft());
        const QModelIndex to = indexAt(rect.bottomRight());
        if (from.isValid() && to.isValid())
            selection.select(std::min(from, to), std::max(from, to));
        selectionModel()->select(selection, command);
        return;
    }
    const QSize cell = cellSize();
    const int across = columns();
    const QRect area = QStyle::visualRect(layoutDirection(), QRect(0, 0, viewport()->width(), 1), rect)
                           .translated(-CVTheme::unit / 2, verticalOffset() - CVTheme::unit / 2);
    const int left = std::clamp(area.left() / cell.width(), 0, across - 1);
    const int right = std::clamp(area.right() / cell.width(), 0, across - 1);
    const int top = std::max(area.top() / cell.height(), 0);
    const int bottom = std::min(area.bottom() / cell.height(), (count - 1) / across);
    // Selections are compared range by range, so a rubber band over very many lines takes whole lines.
    if ((left == 0 && right == across - 1) || bottom - top > mostLinesApart) {
        if (count > 0 && top <= bottom)
            selection.select(modelIndex(top * across),
                             modelIndex(std::min(bottom * across + across, count) - 1));
        selectionModel()->select(selection, command);
        return;
    }
    for (int line = top; count > 0 && line <= bottom; ++line) {
        const int first = line * across + left;
        const int last = std::min(line * across + right, count - 1);
        if (first <= last)
            selection.append(QItemSelectionRange(modelIndex(first), modelIndex(last)));
    }
    selectionModel()->select(selection, command);
}

QRegion CVFileGridView::visualRegionForSelection(const QItemSelection &selection) const
{
    const int across = columns();
    const int height = cellSize().height();
    const int firstShown = std::max(verticalOffset() / height, 0) * across;
    const int lastShown = ((verticalOffset() + viewport()->height()) / height + 1) * across;
    QRegion region;
    for (const QItemSelectionRange &range : selection) {
        for (int row = std::max(range.top(), firstShown); row <= std::min(range.bottom(), lastShown); ++row)
            region += visualRect(modelIndex(row));
    }
    return region;
}

QModelIndex CVFileGridView::moveCursor(CursorAction action, Qt::KeyboardModifiers)
{
    const int last = m_model.rowCount() - 1;
    if (last < 0)
        return {};
    if (!currentIndex().isValid() && action != MoveEnd)
        return modelIndex(0);
    const int across = columns();
    const int page = std::max(viewport()->height() / cellSize().height(), 1) * across;
    const int forwards = layoutDirection() == Qt::RightToLeft ? -1 : 1;
    int row = currentIndex().row();
    switch (action) {
    case MoveUp:
        row = row < across ? row : row - across;
        break;
    case MoveDown:
        row = row + across <= last ? row + across : row / across < last / across ? last : row;
        break;
    case MoveLeft:
        row -= forwards;
        break;
    case MoveRight:
        row += forwards;
        break;
    case MoveHome:
        row = 0;
        break;
    case MoveEnd:
        row = last;
        break;
    case MovePageUp:
        row -= page;
        break;
    case MovePageDown:
        row += page;
        break;
    case MoveNext:
        ++row;
        break;
    case MovePrevious:
        --row;
        break;
    }
    return modelIndex(std::clamp(row, 0, last));
}

void CVFileGridView::keyPressEvent(QKeyEvent *event)
{
    const bool isPlain = !(event->modifiers() & (Qt::ControlModifier | Qt::AltModifier | Qt::ShiftModifier));
    if (isPlain && event->key() == Qt::Key_Space && currentIndex().isValid()) {
        Q_EMIT previewRequested(currentIndex());
    } else if (event->modifiers() == Qt::ControlModifier &&
               (event->key() == Qt::Key_Down || event->key() == Qt::Key_O)) {
        if (currentIndex().isValid())
            Q_EMIT openRequested(currentIndex());
    } else if ((isPlain && event->key() == Qt::Key_Backspace) ||
               (event->key() == Qt::Key_Up && event->modifiers() & (Qt::AltModifier | Qt::ControlModifier))) {
        Q_EMIT upRequested();
    } else if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter ||
               event->key() == Qt::Key_Escape) {
        event->ignore();
    } else {
        QAbstractItemView::keyPressEvent(event);
    }
}

void CVFileGridView::keyboardSearch(const QString &text)
{
    constexpr qint64 pause = 1000;
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    const bool goesOn = now - m_lastTyped < pause;
    m_lastTyped = now;
    m_typed = goesOn ? m_typed + text : text;
    const int row = std::max(currentIndex().row(), 0);
    const int found = m_model.rowCount() > 0 ? m_model.rowBeginningWith(m_typed, goesOn ? row : row + 1) : -1;
    if (found >= 0)
        setCurrentIndex(modelIndex(found));
}

void CVFileGridView::mouseDoubleClickEvent(QMouseEvent *event)
{
    const QModelIndex index = indexAt(event->position().toPoint());
    if (event->button() == Qt::LeftButton && index.isValid())
        Q_EMIT openRequested(index);
}

void CVFileGridView::startDrag(Qt::DropActions)
{
    Q_EMIT dragRequested();
}

void CVFileGridView::selectionChanged(const QItemSelection &selected, const QItemSelection &deselected)
{
    // QListView's own lists every selected item to find the first one for assistive programs.
    QAbstractItemView::selectionChanged(selected, deselected);
    if (!QAccessible::isActive() || selected.isEmpty())
        return;
    const QModelIndex index = selected.constFirst().topLeft();
    QAccessibleEvent event(this, QAccessible::Selection);
    event.setChild(index.row());
    QAccessible::updateAccessibility(&event);
}
