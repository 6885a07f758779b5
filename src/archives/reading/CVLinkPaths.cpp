#include "archives/reading/CVLinkPaths.h"

#include <algorithm>
#include <vector>

namespace {

// As many as the kernel follows in one path.
constexpr int maxLinksFollowed = 40;

std::vector<std::string> componentsOf(std::string_view path)
{
    std::vector<std::string> result;
    while (!path.empty()) {
        const std::size_t end = std::min(path.find('/'), path.size());
        if (const std::string_view part = path.substr(0, end); !part.empty() && part != ".")
            result.emplace_back(part);
        path.remove_prefix(std::min(end + 1, path.size()));
    }
    return result;
}

std::string joined(const std::vector<std::string> &parts)
{
    std::string path;
    for (const std::string &part : parts)
        path += path.empty() ? part : '/' + part;
    return path;
}

} // namespace

CVLinkPaths::Way CVLinkPaths::follow(const std::string &link, std::string_view onlyItem) const
{
    std::vector<std::string> done = componentsOf(link);
    std::vector<std::string> waiting; // the next one last
    int followed = 0;
    bool byName = false;
    const auto enter = [&](const std::string &target) {
        if (target.starts_with('/') || ++followed > maxLinksFollowed)
            return false;
        const std::vector<std::string> parts = componentsOf(target);
        waiting.insert(waiting.end(), parts.rbegin(), parts.rend());
        done.pop_back();
        return true;
    };
    const auto self = m_links.find(link);
    if (self == m_links.end() || !enter(self->second))
        return {};
    while (!waiting.empty()) {
        std::string part = std::move(waiting.back());
        waiting.pop_back();
        if (part == "..") {
            if (done.empty())
                return {};
            done.pop_back();
            continue;
        }
        if (done.empty() && !onlyItem.empty()) {
            if (part != onlyItem)
                return {};
            byName = true;
        }
        done.push_back(std::move(part));
        if (const auto next = m_links.find(joined(done)); next != m_links.end() && !enter(next->second))
            return {};
    }
    if (done.empty() && !onlyItem.empty())
        return {};
    return {byName ? End::InsideByName : End::Inside, joined(done)};
}

bool CVLinkPaths::needTheName(std::string_view onlyItem) const
{
    return std::any_of(m_links.begin(), m_links.end(), [&](const auto &link) {
        return follow(link.first, onlyItem).end == End::InsideByName;
    });
}
