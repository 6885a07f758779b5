#pragma once

#include "ui/outline/CVFileRows.h"

#include <QAbstractTableModel>

#include <functional>
#include <memory>
#include <unordered_map>

class CVLatestTask;

/// A tree of file nodes as rows: open folders are laid out one below the other, so a row is found at once at
/// any size of the tree, and both the list and the grid can show it.
///
/// Making, sorting and searching rows is a worker's; the rows made last replace those shown, and what was
/// asked before is cancelled. Only folders of a few hundred things are made at once. Nothing here ever goes
/// through all rows on the main thread but moves of memory. Main thread. Holds the tree; lets go of it on
/// another thread.
class CVFileNodeModel final : public QAbstractTableModel
{
    Q_OBJECT

public:
    using Column = CVFileRows::Column;

    enum Role {
        NodeRole = Qt::UserRole, ///< const CVFileNode * as quintptr
        DepthRole,
        IsExpandableRole,
        IsExpandedRole,
        IsEncryptedRole,
        IsFolderRole,
    };

    enum class Tree {
        Frozen, ///< does not change as long as this holds it
        Live,   ///< its top level changes; setRoot() is called after that
    };

    explicit CVFileNodeModel(QObject *parent = nullptr);
    ~CVFileNodeModel() override;

    /// Shows what is below the node, with all folders closed. Null empties.
    void setRoot(CVFileNode::Pointer root, Tree tree);
    const CVFileNode::Pointer &root() const { return m_root; }

    /// Searches all of the tree; an empty text goes back to the tree.
    void setSearchText(const QString &text);
    const QString &searchText() const { return m_searchText; }
    bool isSearching() const { return !m_searchText.isEmpty(); }

    /// Application bundles on disk do not open.
    void setBundlesAsFiles(bool asFiles);
    /// Waits for the worker, which takes no longer than it looks at some thousand nodes. To be called before
    /// nodes of a live tree change; setRoot() goes on.
    void stopWork();

    void setExpanded(int row, bool expanded);
    bool isExpanded(int row) const;
    bool isExpandable(int row) const;
    /// The row of the folder that this one is in; -1 at the top.
    int parentRow(int row) const;

    /// Rows are being made.
    bool isBusy() const { return m_isBusy; }
    /// Nodes below the root at all depths; nothing until they are counted.
    std::optional<qint64> totalCount() const { return m_totalCount; }

    CVFileNode::Pointer node(int row) const;
    const CVFileNode *nodeAt(int row) const;
    /// -1 when it is not shown.
    int rowOf(const CVFileNode *node) const;
    /// The first row at or after `from`, going round, whose name begins with the text; -1 for none. Looks at
    /// some thousand rows at most.
    int rowBeginningWith(const QString &text, int from) const;

    CVFileRows::Order order() const { return m_order; }

    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;
    Qt::ItemFlags flags(const QModelIndex &index) const override;
    void sort(int column, Qt::SortOrder order) override;
    QStringList mimeTypes() const override;
    Qt::DropActions supportedDragActions() const override { return Qt::CopyAction; }

Q_SIGNALS:
    void busyChanged(bool isBusy);
    void totalCountChanged();

private:
    void rebuild();
    void expand(int row);
    void collapse(int row);
    void takeRows(CVFileRows::Rows rows, CVFileRows::Order order);
    CVFileRows::Expanded openFolders() const;
    /// An upper bound of what open folders add to the work.
    std::size_t nodesInOpenFolders() const;
    void insertBelow(const CVFileNode *node, const CVFileRows::Rows &rows);
    void setBusy(bool busy);
    void countAll();
    QString text(const CVFileNode &node, Column column) const;

    CVFileNode::Pointer m_root;
    Tree m_tree = Tree::Frozen;
    /// Of a live tree: keeps alive what the rows point to.
    std::shared_ptr<const CVFileNode::List> m_topLevel;
    CVFileRows::Rows m_rows;
    /// The rows of the tree while results of a search are shown, for the way back.
    CVFileRows::Rows m_treeRows;
    std::optional<CVFileRows::Order> m_treeRowsOrder;  ///< nothing while there are none
    std::optional<CVFileRows::Order> m_shownTreeOrder; ///< nothing while results are shown
    std::unordered_map<const CVFileNode *, std::weak_ptr<const CVFileNode>> m_expanded;
    CVFileRows::Order m_order;
    QString m_searchText;
    std::optional<qint64> m_totalCount;
    bool m_areBundlesFiles = false;
    bool m_isBusy = false;
    std::unique_ptr<CVLatestTask> m_worker;
    std::unique_ptr<CVLatestTask> m_counter;
};
