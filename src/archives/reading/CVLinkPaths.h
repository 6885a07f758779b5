#pragma once

#include <string>
#include <string_view>
#include <unordered_map>

/// Where the symbolic links of a tree lead, told from their paths and targets alone: the one answer to the
/// question whether a link leaves what is delivered. The file system is not looked at, since what does not
/// exist counts as a folder: somebody may make it one later.
///
/// Paths are relative to the tree, without "." and empty components. Thread: one at a time.
class CVLinkPaths
{
public:
    void set(const std::string &path, std::string target)
    {
        m_links.insert_or_assign(path, std::move(target));
    }
    bool contains(const std::string &path) const { return m_links.contains(path); }
    bool isEmpty() const { return m_links.empty(); }

    enum class End {
        Inside,
        InsideByName, ///< it climbs out of the only item and comes back by that item's name
        Outside,      ///< out of the tree, in a circle, or over more links than the kernel follows
    };
    struct Way
    {
        End end = End::Outside;
        std::string place = {}; ///< where it ends; empty for the tree itself
    };

    /// Follows the link through all others. `onlyItem`: the folder that alone lies in the tree and is
    /// delivered without it, so that what lies beside is outside; empty where the tree is delivered as it is.
    Way follow(const std::string &link, std::string_view onlyItem) const;

    /// Whether any of them leads inside by the name of the only item.
    bool needTheName(std::string_view onlyItem) const;

private:
    std::unordered_map<std::string, std::string> m_links;
};
