#pragma once

#include "filetree/CVFileNode.h"

#include <QString>
#include <QStringView>

#include <cstdint>
#include <optional>
#include <stop_token>
#include <unordered_set>
#include <vector>

/// The rows that a tree gives on the screen: made, sorted and searched without Qt's models, so that a worker
/// can do it.
namespace CVFileRows {

enum class Column : int { Name, Size, Kind, Folder };

struct Order
{
    Column column = Column::Name;
    bool isDescending = false;
    bool operator==(const Order &) const = default;
};

/// One row of a tree whose open folders are laid out one below the other.
struct Row
{
    const CVFileNode *node = nullptr;
    std::uint32_t depth : 31 = 0;
    std::uint32_t isExpanded : 1 = false;
};
using Rows = std::vector<Row>;
using Expanded = std::unordered_set<const CVFileNode *>;

/// Numbers in names count as numbers, case and accents only where nothing else differs.
int compareNames(QStringView a, QStringView b);

/// What is shown below `top`, which is at the depth before `depth`: folders first, in this order, open
/// folders with their contents. `topLevel` replaces the children of `top` where the tree may change
/// meanwhile. Nothing when stopped. Any thread; the tree must not change.
std::optional<Rows> below(const CVFileNode &top, const CVFileNode::List *topLevel, std::uint32_t depth,
                          const Expanded &expanded, Order order, std::stop_token stop);

/// Everything below `top` whose name contains the text, as rows of depth 0. As above.
std::optional<Rows> search(const CVFileNode &top, const CVFileNode::List *topLevel, const QString &text,
                           Order order, std::stop_token stop);

/// How many nodes are below `top`. As above.
std::optional<qint64> count(const CVFileNode &top, const CVFileNode::List *topLevel, std::stop_token stop);

} // namespace CVFileRows
