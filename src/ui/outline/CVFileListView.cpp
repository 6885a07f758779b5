#include "ui/outline/CVFileListView.h"

#include "ui/base/CVTheme.h"
#include "ui/outline/CVFileDelegate.h"
#include "ui/outline/CVFileNodeModel.h"

#include <QAccessible>
#include <QDateTime>
#include <QHeaderView>
#include <QItemSelectionModel>
#include <QKeyEvent>
#include <QProxyStyle>

#include <algorithm>

namespace {

/// Titles stand where the texts below them do, not at the edge of their columns.
class HeaderStyle final : public QProxyStyle
{
public:
    void drawControl(ControlElement element, const QStyleOption *option, QPainter *painter,
                     const QWidget *widget) const override
    {
        const auto *header = qstyleoption_cast<const QStyleOptionHeader *>(option);
        if (element != CE_HeaderLabel || !header) {
            QProxyStyle::drawControl(element, option, painter, widget);
            return;
        }
        QStyleOptionHeader inset(*header);
        const int more = std::max(0, CVTheme::unit - pixelMetric(PM_HeaderMargin, option, widget));
        inset.rect.adjust(more, 0, -more, 0);
        QProxyStyle::drawControl(element, &inset, painter, widget);
    }
};

} // namespace

CVFileListView::CVFileListView(CVFileNodeModel &model, QWidget *parent)
    : QTableView(parent)
    , m_model(model)
{
    setItemDelegate(new CVFileListDelegate(this));
    setModel(&model);
    setFrameShape(QFrame::NoFrame);
    setShowGrid(false);
    setWordWrap(false);
    setCornerButtonEnabled(false);
    setTabKeyNavigation(false);
    setSelectionBehavior(SelectRows);
    setSelectionMode(ExtendedSelection);
    setEditTriggers(NoEditTriggers);
    setVerticalScrollMode(ScrollPerPixel);
    setHorizontalScrollMode(ScrollPerPixel);
    setDragEnabled(true);
    setDragDropMode(DragOnly);
    // Rows of one height are what keeps a million of them cheap: no row is ever asked for its size.
    verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    verticalHeader()->setMinimumSectionSize(1);
    verticalHeader()->hide();
    // Headers draw whether all of a row or column is selected, and look at each of a million items for that.
    auto *nothing = new QItemSelectionModel(&model, this);
    verticalHeader()->setSelectionModel(nothing);
    horizontalHeader()->setSelectionModel(nothing);
    QHeaderView *columns = horizontalHeader();
    auto *style = new HeaderStyle;
    style->setParent(columns);
    columns->setStyle(style);
    columns->setHighlightSections(false);
    columns->setSectionResizeMode(QHeaderView::Interactive);
    columns->setSectionResizeMode(static_cast<int>(CVFileNodeModel::Column::Name), QHeaderView::Stretch);
    columns->setSortIndicator(0, Qt::AscendingOrder);
    setSortingEnabled(true);
    setFolderColumnShown(false);
    measure();
}

int CVFileListView::iconSize()
{
    return CVTheme::scaled(2 * CVTheme::unit);
}

int CVFileListView::indentation()
{
    return iconSize() + CVTheme::unit / 2;
}

void CVFileListView::measure()
{
    verticalHeader()->setDefaultSectionSize(std::max(fontMetrics().height(), iconSize()) + CVTheme::unit);
    QHeaderView *columns = horizontalHeader();
    columns->resizeSection(static_cast<int>(CVFileNodeModel::Column::Size),
                           fontMetrics().horizontalAdvance(QStringLiteral("8888.8 MB")) + 4 * CVTheme::unit);
    const int wide = fontMetrics().averageCharWidth() * 20;
    columns->resizeSection(static_cast<int>(CVFileNodeModel::Column::Kind), wide);
    columns->resizeSection(static_cast<int>(CVFileNodeModel::Column::Folder), wide);
    columns->setMinimumSectionSize(fontMetrics().averageCharWidth() * 6);
}

void CVFileListView::changeEvent(QEvent *event)
{
    QTableView::changeEvent(event);
    if (event->type() == QEvent::FontChange || event->type() == QEvent::StyleChange)
        measure();
}

void CVFileListView::setFolderColumnShown(bool shown)
{
    // Where something is matters more than what it is, and there is not always room for both.
    setColumnHidden(static_cast<int>(CVFileNodeModel::Column::Kind), shown);
    setColumnHidden(static_cast<int>(CVFileNodeModel::Column::Folder), !shown);
}

QRect CVFileListView::triangleRect(const QModelIndex &index) const
{
    if (index.column() != 0 || !m_model.isExpandable(index.row()))
        return {};
    const QRect cell = visualRect(index);
    const int depth = index.data(CVFileNodeModel::DepthRole).toInt();
    const QRect logical(cell.left() + depth * indentation(), cell.top(), indentation(), cell.height());
    return QStyle::visualRect(layoutDirection(), cell, logical);
}

void CVFileListView::keyPressEvent(QKeyEvent *event)
{
    const QModelIndex current = currentIndex();
    const bool isMirrored = layoutDirection() == Qt::RightToLeft;
    const int opening = isMirrored ? Qt::Key_Left : Qt::Key_Right;
    const int closing = isMirrored ? Qt::Key_Right : Qt::Key_Left;
    const bool isPlain = !(event->modifiers() & (Qt::ControlModifier | Qt::AltModifier | Qt::ShiftModifier));
    if (isPlain && current.isValid() && (event->key() == opening || event->key() == closing)) {
        const int row = current.row();
        if (event->key() == opening) {
            if (!m_model.isExpandable(row))
                return;
            if (!m_model.isExpanded(row))
                m_model.setExpanded(row, true);
            else if (row + 1 < m_model.rowCount() && m_model.parentRow(row + 1) == row)
                setCurrentIndex(m_model.index(row + 1, 0));
        } else if (m_model.isExpanded(row)) {
            m_model.setExpanded(row, false);
        } else if (const int above = m_model.parentRow(row); above >= 0) {
            setCurrentIndex(m_model.index(above, 0));
        }
        return;
    }
    if (isPlain && event->key() == Qt::Key_Space && current.isValid()) {
        Q_EMIT previewRequested(current);
        return;
    }
    if (event->modifiers() == Qt::ControlModifier &&
        (event->key() == Qt::Key_Down || event->key() == Qt::Key_O)) {
        if (current.isValid())
            Q_EMIT openRequested(current);
        return;
    }
    if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter || event->key() == Qt::Key_Escape) {
        event->ignore();
        return;
    }
    QTableView::keyPressEvent(event);
}

QModelIndex CVFileListView::moveCursor(CursorAction action, Qt::KeyboardModifiers modifiers)
{
    const int last = m_model.rowCount() - 1;
    if (last < 0)
        return {};
    switch (action) {
    case MoveHome:
        return m_model.index(0, 0);
    case MoveEnd:
        return m_model.index(last, 0);
    case MoveLeft:
    case MoveRight:
        return currentIndex();
    default:
        return QTableView::moveCursor(action, modifiers).siblingAtColumn(0);
    }
}

void CVFileListView::keyboardSearch(const QString &text)
{
    // Qt's own would go through all rows in search of what no row begins with.
    constexpr qint64 pause = 1000;
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    const bool goesOn = now - m_lastTyped < pause && !m_typed.isEmpty();
    m_lastTyped = now;
    m_typed = goesOn ? m_typed + text : text;
    const int row = std::max(currentIndex().row(), 0);
    const int found = m_model.rowCount() > 0 ? m_model.rowBeginningWith(m_typed, goesOn ? row : row + 1) : -1;
    if (found >= 0)
        setCurrentIndex(m_model.index(found, 0));
}

void CVFileListView::mousePressEvent(QMouseEvent *event)
{
    const QModelIndex index = indexAt(event->position().toPoint());
    if (index.isValid() && event->button() == Qt::LeftButton &&
        triangleRect(index).contains(event->position().toPoint())) {
        m_model.setExpanded(index.row(), !m_model.isExpanded(index.row()));
        return;
    }
    m_typed.clear();
    if (!index.isValid() && event->button() == Qt::LeftButton)
        clearSelection();
    QTableView::mousePressEvent(event);
}

void CVFileListView::mouseDoubleClickEvent(QMouseEvent *event)
{
    const QModelIndex index = indexAt(event->position().toPoint());
    if (event->button() != Qt::LeftButton || !index.isValid())
        return;
    if (triangleRect(index).contains(event->position().toPoint()))
        m_model.setExpanded(index.row(), !m_model.isExpanded(index.row()));
    else
        Q_EMIT openRequested(index.siblingAtColumn(0));
}

void CVFileListView::startDrag(Qt::DropActions)
{
    Q_EMIT dragRequested();
}

void CVFileListView::currentChanged(const QModelIndex &current, const QModelIndex &previous)
{
    QTableView::currentChanged(current, previous);
    // The frame of the current row spans the columns, which Qt does not draw again by itself.
    for (const QModelIndex &index : {current, previous}) {
        if (index.isValid())
            viewport()->update(0, rowViewportPosition(index.row()) - 1, viewport()->width(),
                               rowHeight(index.row()) + 2); // at 135 % an edge is shared by two rows
    }
}

void CVFileListView::selectionChanged(const QItemSelection &selected, const QItemSelection &deselected)
{
    // QTableView's own lists every selected item to find the first one for assistive programs.
    QAbstractItemView::selectionChanged(selected, deselected);
    if (!QAccessible::isActive() || selected.isEmpty())
        return;
    const QModelIndex index = selected.constFirst().topLeft();
    QAccessibleEvent event(this, QAccessible::Selection);
    event.setChild((index.row() + 1) * (m_model.columnCount() + 1) + index.column() + 1);
    QAccessible::updateAccessibility(&event);
}
