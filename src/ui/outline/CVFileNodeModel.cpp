#include "ui/outline/CVFileNodeModel.h"

#include "platform/desktop/LXFileIcons.h"
#include "ui/outline/CVFileKinds.h"
#include "ui/outline/CVLatestTask.h"
#include "util/LXBytesValueTransformer.h"
#include "util/LXDisplay.h"
#include "util/LXReleaseInBackground.h"

#include <algorithm>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

// Up to this many, making rows takes less than a frame.
constexpr std::size_t mostAtOnce = 400;
// A look along the rows for a typed letter ends here.
constexpr int mostCompared = 20000;

} // namespace

CVFileNodeModel::CVFileNodeModel(QObject *parent)
    : QAbstractTableModel(parent)
    , m_worker(std::make_unique<CVLatestTask>())
    , m_counter(std::make_unique<CVLatestTask>())
{
    CVFileKinds::prepare();
}

CVFileNodeModel::~CVFileNodeModel()
{
    m_worker.reset();
    m_counter.reset();
    releaseInBackground(std::move(m_root));
    releaseInBackground(std::move(m_topLevel));
}

void CVFileNodeModel::setRoot(CVFileNode::Pointer root, Tree tree)
{
    m_worker->cancel();
    m_counter->cancel();
    beginResetModel();
    m_rows = {};
    m_treeRows = {};
    m_treeRowsOrder.reset();
    m_shownTreeOrder.reset();
    if (root != m_root)
        m_expanded.clear();
    // Folders that were taken out of a live tree are gone.
    std::erase_if(m_expanded, [](const auto &folder) { return folder.second.expired(); });
    releaseInBackground(std::exchange(m_root, std::move(root)));
    releaseInBackground(std::exchange(m_topLevel, nullptr));
    m_tree = tree;
    if (m_root && tree == Tree::Live)
        m_topLevel = std::make_shared<const CVFileNode::List>(m_root->children());
    m_totalCount.reset();
    endResetModel();
    rebuild();
    countAll();
}

void CVFileNodeModel::setBundlesAsFiles(bool asFiles)
{
    if (asFiles == m_areBundlesFiles)
        return;
    m_areBundlesFiles = asFiles;
    if (asFiles)
        m_expanded.clear();
    m_treeRowsOrder.reset();
    m_shownTreeOrder.reset();
    rebuild();
}

void CVFileNodeModel::stopWork()
{
    m_worker->cancelAndWait();
    m_counter->cancelAndWait();
}

void CVFileNodeModel::setSearchText(const QString &text)
{
    if (text == m_searchText)
        return;
    m_searchText = text;
    if (isSearching() || m_treeRowsOrder != m_order) {
        rebuild();
        return;
    }
    m_worker->cancel();
    takeRows(std::exchange(m_treeRows, {}), m_order);
}

void CVFileNodeModel::sort(int column, Qt::SortOrder order)
{
    const CVFileRows::Order wanted{static_cast<Column>(std::max(column, 0)), order == Qt::DescendingOrder};
    if (wanted == m_order)
        return;
    m_order = wanted;
    rebuild();
}

void CVFileNodeModel::rebuild()
{
    m_worker->cancel();
    if (!m_root) {
        takeRows({}, m_order);
        return;
    }
    const std::size_t topCount = m_topLevel ? m_topLevel->size() : m_root->mutableChildrenArray().size();
    if (!isSearching() && topCount + nodesInOpenFolders() <= mostAtOnce) {
        takeRows(CVFileRows::below(*m_root, m_topLevel.get(), 0, openFolders(), m_order, {})
                     .value_or(CVFileRows::Rows()),
                 m_order);
        return;
    }
    setBusy(true);
    m_worker->start([this, root = m_root, topLevel = m_topLevel, expanded = openFolders(), order = m_order,
                     text = m_searchText](const std::stop_token &stop) -> CVLatestTask::Done {
        auto rows = text.isEmpty() ? CVFileRows::below(*root, topLevel.get(), 0, expanded, order, stop)
                                   : CVFileRows::search(*root, topLevel.get(), text, order, stop);
        if (!rows)
            return {};
        return [this, order, made = std::make_shared<CVFileRows::Rows>(std::move(*rows))] {
            takeRows(std::move(*made), order);
        };
    });
}

void CVFileNodeModel::takeRows(CVFileRows::Rows rows, CVFileRows::Order order)
{
    beginResetModel();
    auto before = std::make_shared<CVFileRows::Rows>(std::exchange(m_rows, std::move(rows)));
    endResetModel();
    if (isSearching() && m_shownTreeOrder) {
        m_treeRows = std::move(*before);
        m_treeRowsOrder = std::exchange(m_shownTreeOrder, std::nullopt);
    } else if (!isSearching()) {
        m_shownTreeOrder = order;
        m_treeRowsOrder.reset();
    }
    if (before->size() > mostAtOnce)
        releaseInBackground(std::move(before));
    setBusy(false);
}

void CVFileNodeModel::countAll()
{
    if (!m_root) {
        Q_EMIT totalCountChanged();
        return;
    }
    m_counter->start(
        [this, root = m_root, topLevel = m_topLevel](const std::stop_token &stop) -> CVLatestTask::Done {
            const auto total = CVFileRows::count(*root, topLevel.get(), stop);
            if (!total)
                return {};
            return [this, total] {
                m_totalCount = total;
                Q_EMIT totalCountChanged();
            };
        });
}

void CVFileNodeModel::setBusy(bool busy)
{
    if (busy == m_isBusy)
        return;
    m_isBusy = busy;
    Q_EMIT busyChanged(busy);
}

void CVFileNodeModel::setExpanded(int row, bool expanded)
{
    if (row < 0 || row >= rowCount() || isSearching() || isExpanded(row) == expanded)
        return;
    if (!expanded)
        collapse(row);
    else if (isExpandable(row))
        expand(row);
}

void CVFileNodeModel::expand(int row)
{
    const CVFileNode *node = nodeAt(row);
    const std::size_t work = node->mutableChildrenArray().size() + nodesInOpenFolders();
    m_expanded.emplace(node, node->weak_from_this());
    if (m_isBusy) {
        // What is being made does not know of it.
        rebuild();
        return;
    }
    const std::uint32_t depth = m_rows[static_cast<std::size_t>(row)].depth + 1;
    if (work <= mostAtOnce) {
        if (const auto rows = CVFileRows::below(*node, nullptr, depth, openFolders(), m_order, {}))
            insertBelow(node, *rows);
        return;
    }
    setBusy(true);
    m_worker->start([this, root = m_root, topLevel = m_topLevel, node, depth, expanded = openFolders(),
                     order = m_order](const std::stop_token &stop) -> CVLatestTask::Done {
        auto rows = CVFileRows::below(*node, nullptr, depth, expanded, order, stop);
        if (!rows)
            return {};
        return [this, node, made = std::make_shared<CVFileRows::Rows>(std::move(*rows))] {
            insertBelow(node, *made);
            setBusy(false);
        };
    });
}

CVFileRows::Expanded CVFileNodeModel::openFolders() const
{
    CVFileRows::Expanded folders;
    for (const auto &[folder, held] : m_expanded) {
        if (!held.expired())
            folders.insert(folder);
    }
    return folders;
}

std::size_t CVFileNodeModel::nodesInOpenFolders() const
{
    if (m_expanded.size() > mostAtOnce)
        return m_expanded.size();
    std::size_t nodes = 0;
    for (const auto &[folder, held] : m_expanded) {
        if (const auto alive = held.lock())
            nodes += alive->mutableChildrenArray().size();
    }
    return nodes;
}

void CVFileNodeModel::insertBelow(const CVFileNode *node, const CVFileRows::Rows &rows)
{
    const int row = rowOf(node);
    if (row < 0 || !m_expanded.contains(node) || isExpanded(row))
        return;
    m_rows[static_cast<std::size_t>(row)].isExpanded = true;
    if (!rows.empty()) {
        beginInsertRows({}, row + 1, row + static_cast<int>(rows.size()));
        m_rows.insert(m_rows.begin() + row + 1, rows.begin(), rows.end());
        endInsertRows();
    }
    Q_EMIT dataChanged(index(row, 0), index(row, 0));
}

void CVFileNodeModel::collapse(int row)
{
    const auto first = m_rows.begin() + row;
    m_expanded.erase(first->node);
    first->isExpanded = false;
    const auto end = std::find_if(first + 1, m_rows.end(),
                                  [first](const auto &other) { return other.depth <= first->depth; });
    if (end != first + 1) {
        beginRemoveRows({}, row + 1, static_cast<int>(end - m_rows.begin()) - 1);
        m_rows.erase(first + 1, end);
        endRemoveRows();
    }
    if (m_isBusy)
        rebuild();
    Q_EMIT dataChanged(index(row, 0), index(row, 0));
}

bool CVFileNodeModel::isExpanded(int row) const
{
    return m_rows[static_cast<std::size_t>(row)].isExpanded;
}

bool CVFileNodeModel::isExpandable(int row) const
{
    const CVFileNode &node = *nodeAt(row);
    return !isSearching() && isExpandableNode(node) && !(m_areBundlesFiles && node.isPackage());
}

int CVFileNodeModel::parentRow(int row) const
{
    const auto depth = m_rows[static_cast<std::size_t>(row)].depth;
    if (depth == 0)
        return -1;
    while (--row >= 0 && m_rows[static_cast<std::size_t>(row)].depth >= depth) {
    }
    return row;
}

const CVFileNode *CVFileNodeModel::nodeAt(int row) const
{
    return m_rows[static_cast<std::size_t>(row)].node;
}

CVFileNode::Pointer CVFileNodeModel::node(int row) const
{
    if (row < 0 || row >= rowCount())
        return nullptr;
    // The nodes are other people's to change; rows only point to them.
    return const_cast<CVFileNode *>(nodeAt(row))->shared_from_this();
}

int CVFileNodeModel::rowOf(const CVFileNode *node) const
{
    const auto found = std::ranges::find(m_rows, node, &CVFileRows::Row::node);
    return found == m_rows.end() ? -1 : static_cast<int>(found - m_rows.begin());
}

int CVFileNodeModel::rowBeginningWith(const QString &text, int from) const
{
    const int count = rowCount();
    for (int i = 0; i < std::min(count, mostCompared); ++i) {
        const int row = (from + i) % count;
        if (fileNodeName(*nodeAt(row)).startsWith(text, Qt::CaseInsensitive))
            return row;
    }
    return -1;
}

int CVFileNodeModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(m_rows.size());
}

int CVFileNodeModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : 4;
}

QString CVFileNodeModel::text(const CVFileNode &node, Column column) const
{
    switch (column) {
    case Column::Name:
        return LXDisplay::displayEscaped(fileNodeName(node));
    case Column::Size: {
        const auto size = fileNodeSize(node);
        return size ? LXBytesValueTransformer::formatBytes(*size) : u"–"_s;
    }
    case Column::Kind:
        return CVFileKinds::kind(fileNodeName(node), isFolderNode(node));
    case Column::Folder: {
        const CVFileNode::Pointer above = node.parent();
        return above ? LXDisplay::displayEscaped(above->path()) : QString();
    }
    }
    return {};
}

QVariant CVFileNodeModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= rowCount())
        return {};
    const CVFileRows::Row &row = m_rows[static_cast<std::size_t>(index.row())];
    const CVFileNode &node = *row.node;
    const auto column = static_cast<Column>(index.column());
    switch (role) {
    case Qt::DisplayRole:
        return text(node, column);
    case Qt::ToolTipRole:
        return column == Column::Name ? text(node, column).toHtmlEscaped() : QVariant();
    case Qt::AccessibleTextRole:
        if (column != Column::Name)
            return text(node, column);
        return !isExpandable(index.row()) ? text(node, column)
               : row.isExpanded           ? tr("%1, open").arg(text(node, column))
                                          : tr("%1, closed").arg(text(node, column));
    case Qt::TextAlignmentRole:
        return column == Column::Size ? QVariant(Qt::AlignTrailing | Qt::AlignVCenter) : QVariant();
    case Qt::DecorationRole:
        return column == Column::Name
                   ? QVariant(LXFileIcons::iconForName(fileNodeName(node).toString(), isFolderNode(node)))
                   : QVariant();
    case NodeRole:
        return QVariant::fromValue(reinterpret_cast<quintptr>(&node));
    case DepthRole:
        return static_cast<uint>(row.depth);
    case IsExpandableRole:
        return isExpandable(index.row());
    case IsExpandedRole:
        return static_cast<bool>(row.isExpanded);
    case IsEncryptedRole:
        return node.isEncryptedArchive();
    case IsFolderRole:
        return isFolderNode(node);
    default:
        return {};
    }
}

QVariant CVFileNodeModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal)
        return {};
    if (role == Qt::TextAlignmentRole)
        return QVariant(
            (static_cast<Column>(section) == Column::Size ? Qt::AlignTrailing : Qt::AlignLeading) |
            Qt::AlignVCenter);
    if (role != Qt::DisplayRole)
        return {};
    switch (static_cast<Column>(section)) {
    case Column::Name:
        return tr("Name");
    case Column::Size:
        return tr("Size");
    case Column::Kind:
        return tr("Kind");
    case Column::Folder:
        return tr("Folder");
    }
    return {};
}

Qt::ItemFlags CVFileNodeModel::flags(const QModelIndex &index) const
{
    if (!index.isValid())
        return Qt::NoItemFlags;
    return Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsDragEnabled | Qt::ItemNeverHasChildren;
}

QStringList CVFileNodeModel::mimeTypes() const
{
    return {u"text/uri-list"_s};
}
