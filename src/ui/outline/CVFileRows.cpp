#include "ui/outline/CVFileRows.h"

#include "ui/outline/CVFileKinds.h"

#include <QHash>
#include <QStringMatcher>

#include <algorithm>
#include <string>
#include <string_view>
#include <unordered_map>

namespace {

using namespace CVFileRows;

constexpr std::uint32_t stopEvery = 4096;

struct Stopped
{};

/// Counts steps and leaves by an exception when the work is no longer wanted.
class Steps
{
public:
    explicit Steps(const std::stop_token &stop)
        : m_stop(stop)
    {}
    void step()
    {
        if (++m_count % stopEvery == 0 && m_stop.stop_requested())
            throw Stopped();
    }

private:
    const std::stop_token &m_stop;
    std::uint32_t m_count = 0;
};

struct Item
{
    const CVFileNode *node;
    qint64 rank; ///< what is sorted by before the name
    std::size_t key = 0;
    std::uint32_t keySize = 0;
    bool isFolder = false;
};

bool isDigit(char16_t c)
{
    return c >= u'0' && c <= u'9';
}

char16_t folded(char16_t c)
{
    if (c < 0x80)
        return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c + 32) : c;
    const bool hasAccent = (c >= 0xc0 && c < 0x250) || (c >= 0x1e00 && c < 0x1f00);
    if (hasAccent) {
        QString plain = QChar(c).decomposition();
        // Some take two steps to their letter.
        while (!plain.isEmpty() && plain.front().unicode() >= 0x80 && plain.front().unicode() != c) {
            c = plain.front().unicode();
            plain = QChar(c).decomposition();
        }
        if (!plain.isEmpty())
            c = plain.front().unicode();
    }
    return static_cast<char16_t>(QChar::toCaseFolded(c));
}

// A name as bytes that sort as the name does: letters folded, as UTF-8, and a number as a digit, the count of
// its digits and these. Comparing names themselves a million times over would take many times as long.
void appendKey(QStringView name, std::string &keys)
{
    const auto append = [&keys](unsigned byte) { keys += static_cast<char>(byte); };
    const qsizetype size = name.size();
    for (qsizetype i = 0; i < size; ++i) {
        char16_t c = name[i].unicode();
        if (isDigit(c)) {
            while (i < size && name[i] == u'0')
                ++i;
            qsizetype end = i;
            while (end < size && isDigit(name[end].unicode()))
                ++end;
            append('0');
            qsizetype count = end - i;
            for (; count >= 255; count -= 255)
                append(255);
            append(static_cast<unsigned>(count));
            for (; i < end; ++i)
                append(name[i].unicode());
            --i;
            continue;
        }
        c = folded(c);
        if (c < 0x80) {
            append(c);
        } else if (c < 0x800) {
            append(0xc0U | c >> 6U);
            append(0x80U | (c & 0x3fU));
        } else {
            append(0xe0U | c >> 12U);
            append(0x80U | (c >> 6U & 0x3fU));
            append(0x80U | (c & 0x3fU));
        }
    }
}

int compareKeys(std::string_view a, std::string_view b)
{
    return a.compare(b);
}

// A name need not exist on disk for its kind, so only the order of kinds is needed, not their words, per
// node.
class KindRanks
{
public:
    qint64 rank(const CVFileNode &node, bool isFolder)
    {
        const QString kind = CVFileKinds::kind(fileNodeName(node), isFolder);
        const auto known = m_ids.constFind(kind);
        if (known != m_ids.cend())
            return *known;
        m_kinds.push_back(kind);
        return *m_ids.insert(kind, static_cast<qint64>(m_kinds.size()) - 1);
    }
    // From the order of meeting to that of the words.
    std::vector<qint64> ranks() const
    {
        std::vector<qint64> order(m_kinds.size());
        for (std::size_t i = 0; i < order.size(); ++i)
            order[i] = static_cast<qint64>(i);
        std::ranges::sort(order, [this](qint64 a, qint64 b) {
            return compareNames(m_kinds[static_cast<std::size_t>(a)], m_kinds[static_cast<std::size_t>(b)]) <
                   0;
        });
        std::vector<qint64> ranks(order.size());
        for (std::size_t i = 0; i < order.size(); ++i)
            ranks[static_cast<std::size_t>(order[i])] = static_cast<qint64>(i);
        return ranks;
    }

private:
    QHash<QString, qint64> m_ids;
    std::vector<QString> m_kinds;
};

// The folders of what was found, in order.
std::vector<qint64> folderRanks(const std::vector<Item> &items, Steps &steps)
{
    std::unordered_map<const CVFileNode *, std::size_t> ids;
    std::vector<std::pair<QString, std::size_t>> folders;
    std::vector<std::size_t> folderOf;
    folderOf.reserve(items.size());
    for (const Item &item : items) {
        steps.step();
        const auto above = item.node->parent();
        const auto [place, isNew] = ids.emplace(above.get(), folders.size());
        if (isNew)
            folders.emplace_back(above ? above->path() : QString(), folders.size());
        folderOf.push_back(place->second);
    }
    std::ranges::sort(folders, [&steps](const auto &a, const auto &b) {
        steps.step();
        return compareNames(a.first, b.first) < 0;
    });
    std::vector<qint64> rankOf(folders.size());
    for (std::size_t i = 0; i < folders.size(); ++i)
        rankOf[folders[i].second] = static_cast<qint64>(i);
    std::vector<qint64> ranks;
    ranks.reserve(items.size());
    for (const std::size_t folder : folderOf)
        ranks.push_back(rankOf[folder]);
    return ranks;
}

void setRanks(std::vector<Item> &items, Column column, Steps &steps)
{
    switch (column) {
    case Column::Name:
        break;
    case Column::Size:
        for (Item &item : items) {
            steps.step();
            item.rank = fileNodeSize(*item.node).value_or(-1);
        }
        break;
    case Column::Kind: {
        KindRanks kinds;
        for (Item &item : items) {
            steps.step();
            item.rank = kinds.rank(*item.node, item.isFolder);
        }
        const std::vector<qint64> ranks = kinds.ranks();
        for (Item &item : items)
            item.rank = ranks[static_cast<std::size_t>(item.rank)];
        break;
    }
    case Column::Folder: {
        const std::vector<qint64> ranks = folderRanks(items, steps);
        for (std::size_t i = 0; i < items.size(); ++i)
            items[i].rank = ranks[i];
        break;
    }
    }
}

void sortItems(std::vector<Item> &items, Order order, Steps &steps)
{
    setRanks(items, order.column, steps);
    std::string keys;
    for (Item &item : items) {
        steps.step();
        item.key = keys.size();
        appendKey(fileNodeName(*item.node), keys);
        item.keySize = static_cast<std::uint32_t>(keys.size() - item.key);
    }
    const std::string_view allKeys(keys);
    const bool areNamesDescending = order.isDescending && order.column == Column::Name;
    const auto before = [&](const Item &a, const Item &b) {
        steps.step();
        if (a.isFolder != b.isFolder)
            return a.isFolder;
        if (a.rank != b.rank)
            return order.isDescending ? a.rank > b.rank : a.rank < b.rank;
        int result = compareKeys(allKeys.substr(a.key, a.keySize), allKeys.substr(b.key, b.keySize));
        if (result == 0)
            result = fileNodeName(*a.node).compare(fileNodeName(*b.node));
        return areNamesDescending ? result > 0 : result < 0;
    };
    // Archives are mostly in order already.
    if (!std::ranges::is_sorted(items, before))
        std::ranges::stable_sort(items, before);
}

std::vector<Item> childrenOf(const CVFileNode &node, const CVFileNode::List *instead, Order order,
                             Steps &steps)
{
    std::vector<Item> items;
    const auto take = [&](const CVFileNode::List &nodes) {
        items.reserve(nodes.size());
        for (const auto &child : nodes) {
            steps.step();
            items.push_back({child.get(), 0, 0, 0, isFolderNode(*child)});
        }
    };
    if (instead)
        take(*instead);
    else if (node.isPreview() || node.isRoot())
        take(node.mutableChildrenArray());
    else
        take(node.children());
    sortItems(items, order, steps);
    return items;
}

template <typename Visit>
void visitAll(const CVFileNode &top, const CVFileNode::List *topLevel, Steps &steps, Visit visit)
{
    std::vector<const CVFileNode *> pending;
    const auto take = [&](const CVFileNode::List &nodes) {
        for (auto child = nodes.rbegin(); child != nodes.rend(); ++child)
            pending.push_back(child->get());
    };
    take(topLevel ? *topLevel : top.mutableChildrenArray());
    while (!pending.empty()) {
        steps.step();
        const CVFileNode *node = pending.back();
        pending.pop_back();
        visit(*node);
        if (node->isPreview())
            take(node->mutableChildrenArray());
        else if (!node->mutableChildrenArray().empty())
            take(node->children());
    }
}

} // namespace

int CVFileRows::compareNames(QStringView a, QStringView b)
{
    std::string keyOfA;
    std::string keyOfB;
    appendKey(a, keyOfA);
    appendKey(b, keyOfB);
    const int result = compareKeys(keyOfA, keyOfB);
    return result != 0 ? result : a.compare(b);
}

std::optional<Rows> CVFileRows::below(const CVFileNode &top, const CVFileNode::List *topLevel,
                                      std::uint32_t depth, const Expanded &expanded, Order order,
                                      std::stop_token stop)
{
    struct Level
    {
        std::vector<Item> items;
        std::size_t next = 0;
    };
    try {
        Steps steps(stop);
        Rows rows;
        std::vector<Level> levels;
        levels.push_back({childrenOf(top, topLevel, order, steps)});
        rows.reserve(levels.front().items.size());
        while (!levels.empty()) {
            steps.step();
            Level &level = levels.back();
            if (level.next == level.items.size()) {
                levels.pop_back();
                continue;
            }
            const CVFileNode *node = level.items[level.next++].node;
            const bool isOpen = expanded.contains(node);
            rows.push_back(
                {node, static_cast<std::uint32_t>(depth + levels.size() - 1) & 0x7fffffffU, isOpen});
            if (isOpen)
                levels.push_back({childrenOf(*node, nullptr, order, steps)});
        }
        return rows;
    } catch (const Stopped &) {
        return std::nullopt;
    }
}

std::optional<Rows> CVFileRows::search(const CVFileNode &top, const CVFileNode::List *topLevel,
                                       const QString &text, Order order, std::stop_token stop)
{
    try {
        Steps steps(stop);
        const QStringMatcher matcher(text, Qt::CaseInsensitive);
        std::vector<Item> found;
        visitAll(top, topLevel, steps, [&](const CVFileNode &node) {
            if (matcher.indexIn(fileNodeName(node)) >= 0)
                found.push_back({&node, 0, 0, 0, isFolderNode(node)});
        });
        sortItems(found, order, steps);
        Rows rows;
        rows.reserve(found.size());
        for (const Item &item : found)
            rows.push_back({item.node, 0, false});
        return rows;
    } catch (const Stopped &) {
        return std::nullopt;
    }
}

std::optional<qint64> CVFileRows::count(const CVFileNode &top, const CVFileNode::List *topLevel,
                                        std::stop_token stop)
{
    try {
        Steps steps(stop);
        qint64 total = 0;
        visitAll(top, topLevel, steps, [&total](const CVFileNode &) { ++total; });
        return total;
    } catch (const Stopped &) {
        return std::nullopt;
    }
}
