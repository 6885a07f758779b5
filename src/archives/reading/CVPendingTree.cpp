#include "archives/reading/CVPendingTree.h"

#include "archives/reading/CVFileTimes.h"
#include "archives/reading/CVLinkPaths.h"
#include "archives/reading/CVWriteErrors.h"
#include "util/LXFileName.h"
#include "util/path_parts.h"

#include <QCoreApplication>

#include <algorithm>
#include <cerrno>
#include <string>
#include <unordered_set>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

namespace {

QString text(const char *source)
{
    return QCoreApplication::translate("CVSafeWriter", source);
}

} // namespace

CVPendingTree::CVPendingTree(CVDestination &destination, bool laterReplaces, Report report)
    : m_destination(destination)
    , m_laterReplaces(laterReplaces)
    , m_report(std::move(report))
{}

void CVPendingTree::add(Link link)
{
    const std::lock_guard lock(m_mutex);
    m_links.push_back(std::move(link));
}

void CVPendingTree::add(Folder folder)
{
    const std::lock_guard lock(m_mutex);
    m_folders.push_back(std::move(folder));
}

void CVPendingTree::finish(bool withLinks, std::uint32_t modeOfMadeFolders)
{
    if (withLinks) {
        makeHardLinks();
        makeSymlinks();
    }
    setFolders(modeOfMadeFolders);
}

void CVPendingTree::makeHardLinks()
{
    std::unordered_map<std::string, QByteArray> symlinkTargets;
    std::vector<Link> todo;
    for (Link &link : m_links)
        if (link.hard)
            todo.push_back(std::move(link));
        else
            symlinkTargets.emplace(link.path.toStdString(), link.target);
    std::erase_if(m_links, [](const Link &link) { return link.hard; });

    // Links to links that come later in the archive need another round; every round makes one at least.
    while (!todo.empty()) {
        std::vector<Link> later;
        for (Link &link : todo) {
            if (m_report.shouldStop())
                return;
            if (const auto it = symlinkTargets.find(link.target.toStdString()); it != symlinkTargets.end())
                m_links.push_back({link.entry, link.path, it->second, link.modified, false});
            else if (!makeHardLink(link))
                later.push_back(std::move(link));
        }
        if (later.size() == todo.size()) {
            for (const Link &link : later)
                m_report.entry(link.entry, XADErrorCode::NotMade,
                               text("The file that it is a hard link to is missing."));
            return;
        }
        todo = std::move(later);
    }
}

bool CVPendingTree::makeHardLink(const Link &link)
{
    const auto from = m_destination.existingFolder(parentPath(link.target));
    const QByteArray original = lastComponent(link.target);
    struct stat info;
    if (!from || ::fstatat(from->get(), original.constData(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT || isInTheWay(errno))
            return false;
        m_report.system(link.entry, errno);
        return true;
    }
    if (!S_ISREG(info.st_mode)) {
        m_report.entry(link.entry, XADErrorCode::Refused,
                       text("It is a hard link to something that is not a file."));
        return true;
    }
    const auto folder = m_destination.folder(parentPath(link.path));
    if (!folder) {
        if (isInTheWay(errno))
            m_report.entry(link.entry, XADErrorCode::NotMade, text("A file is where its folder should be."));
        else
            m_report.system(link.entry, errno);
        return true;
    }
    if (link.path == link.target)
        return true;
    const QByteArray name = lastComponent(link.path);
    const auto make = [&] {
        return ::linkat(from->get(), original.constData(), folder->get(), name.constData(), 0) == 0;
    };
    bool made = make();
    if (!made && errno == EEXIST && m_laterReplaces && ::unlinkat(folder->get(), name.constData(), 0) == 0)
        made = make();
    if (!made && errno == EEXIST)
        m_report.entry(link.entry, XADErrorCode::Refused,
                       text("Something of the same name is in its place."));
    else if (!made)
        m_report.system(link.entry, errno);
    return true;
}

void CVPendingTree::makeSymlinks()
{
    Made made;
    for (Link &link : m_links) {
        if (m_report.shouldStop())
            break; // what was made is looked at all the same
        makeSymlink(link, made);
    }
    m_links.clear();
    removeLeavingLinks(made);
}

void CVPendingTree::makeSymlink(Link &link, Made &made)
{
    const std::string path = link.path.toStdString();
    const QByteArray name = lastComponent(link.path);
    const auto folder = m_destination.folder(parentPath(link.path));
    if (!folder) {
        if (isInTheWay(errno))
            m_report.entry(link.entry, XADErrorCode::Refused,
                           text("Something that is not a folder is where its folder should be."));
        else
            m_report.system(link.entry, errno);
        return;
    }
    // A later link of the same name replaces the earlier one where the format means that.
    if (m_laterReplaces && made.erase(path) > 0)
        ::unlinkat(folder->get(), name.constData(), 0);
    if (::symlinkat(link.target.constData(), folder->get(), name.constData()) != 0) {
        if (errno == EEXIST)
            m_report.entry(link.entry, XADErrorCode::Refused,
                           text("Something of the same name is in its place."));
        else
            m_report.system(link.entry, errno);
        return;
    }
    if (link.modified != XADEntry::unknownTime)
        ::utimensat(folder->get(), name.constData(), CVFileTimes::modifiedOnly(link.modified).value,
                    AT_SYMLINK_NOFOLLOW);
    made.insert_or_assign(path, std::move(link));
}

void CVPendingTree::removeLeavingLinks(const Made &made)
{
    if (made.empty())
        return;
    const auto top = m_destination.topLevelNames(2);
    if (!top) {
        m_report.system(-1, errno);
        return;
    }
    // A single top-level folder is delivered by itself, so its links must not lead to what then lies beside
    // it.
    const bool isSingle = top->size() == 1 && m_destination.existingFolder(top->front());
    const std::string onlyItem = isSingle ? top->front().toStdString() : std::string();

    CVLinkPaths paths;
    for (const auto &[path, link] : made)
        paths.set(path, link.target.toStdString());
    // Taking one link away only shortens what others can reach, so one round over all is enough.
    std::vector<const Link *> leaving;
    for (const auto &[path, link] : made)
        if (paths.follow(path, onlyItem).end == CVLinkPaths::End::Outside)
            leaving.push_back(&link);
    std::sort(leaving.begin(), leaving.end(),
              [](const Link *a, const Link *b) { return a->entry < b->entry; });
    for (const Link *link : leaving) {
        const auto folder = m_destination.existingFolder(parentPath(link->path));
        if (!folder || ::unlinkat(folder->get(), lastComponent(link->path).constData(), 0) != 0)
            m_report.system(link->entry, errno);
        m_report.entry(
            link->entry, XADErrorCode::Refused,
            text("It is a link to “%1”, outside of the archive.").arg(fileNameFromBytes(link->target)));
    }
}

void CVPendingTree::setFolders(std::uint32_t modeOfMadeFolders)
{
    std::unordered_set<std::string> known;
    for (const Folder &folder : m_folders)
        known.insert(folder.path.toStdString());
    for (QByteArray &path : m_destination.takeMadeFolders())
        if (!known.contains(path.toStdString()))
            m_folders.push_back({std::move(path), modeOfMadeFolders, XADEntry::unknownTime});
    // Deepest first: the time of a folder is set after the last change inside it, and so is a mode that takes
    // the right to change it away.
    std::stable_sort(m_folders.begin(), m_folders.end(),
                     [](const Folder &a, const Folder &b) { return a.path.count('/') > b.path.count('/'); });
    for (const Folder &folder : m_folders) {
        const auto fd = m_destination.existingFolder(folder.path);
        const CVFileTimes times = CVFileTimes::modifiedOnly(folder.modified);
        if ((!fd || ::fchmod(fd->get(), folder.mode) != 0 ||
             (folder.modified != XADEntry::unknownTime && ::futimens(fd->get(), times.value) != 0)) &&
            errno != ENOENT && !isAboutOneEntry(errno))
            m_report.system(-1, errno);
    }
}
