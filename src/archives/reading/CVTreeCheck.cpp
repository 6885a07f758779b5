#include "archives/reading/CVTreeCheck.h"

#include "util/LXFileDescriptor.h"

#include <QFile>
#include <QStringDecoder>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

// Each level of nesting holds a descriptor open. What is deeper is the reader's to judge.
constexpr std::size_t maxDepth = 200;
// As many links as the kernel follows in one path.
constexpr int maxLinksFollowed = 40;

struct CloseDirectory
{
    void operator()(DIR *directory) const noexcept { ::closedir(directory); }
};

struct Level
{
    std::unique_ptr<DIR, CloseDirectory> directory;
    std::string path; ///< relative to the root, "" for it
};

class Walk
{
public:
    Walk(const QSet<QByteArray> *writtenFolders, const std::function<bool()> &shouldStop)
        : m_writtenFolders(writtenFolders)
        , m_shouldStop(shouldStop)
    {}

    QString run(const QString &folder);

private:
    bool enter(LXFileDescriptor fd, std::string path);
    bool look(const Level &level, const char *name);
    bool lookAtName(const char *name, bool atTop);
    bool lookAtLinks();
    std::optional<std::string> resolved(const std::string &link);
    bool object(const std::string &path, const char *why);

    const QSet<QByteArray> *m_writtenFolders;
    const std::function<bool()> &m_shouldStop;
    QString m_reason;
    LXFileDescriptor m_root;
    dev_t m_device = 0;
    bool m_groupInherited = false;
    std::vector<Level> m_levels;
    std::vector<std::string> m_top;
    std::unordered_map<std::string, std::string> m_links;
    struct Names
    {
        nlink_t all = 0;
        nlink_t seen = 0;
    };
    std::unordered_map<ino_t, Names> m_linked;
};

std::vector<std::string> componentsOf(const std::string &path)
{
    std::vector<std::string> result;
    std::size_t start = 0;
    while (start <= path.size()) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        if (end > start && path.compare(start, end - start, ".") != 0)
            result.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    return result;
}

bool Walk::object(const std::string &path, const char *why)
{
    m_reason = QStringLiteral("%1: %2").arg(QString::fromUtf8(path.c_str()), QLatin1String(why));
    return false;
}

bool Walk::lookAtName(const char *name, bool atTop)
{
    const QByteArrayView bytes(name);
    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString text = decoder(bytes);
    if (decoder.hasError())
        return object(name, "the name is not UTF-8");
    for (const QChar c : text)
        if (c.unicode() < 0x20 || (c.unicode() >= 0x7f && c.unicode() < 0xa0) || c == u'\\')
            return object(name, "control character or backslash in the name");
    if (atTop && text.size() >= 2 && text[1] == u':')
        return object(name, "the name looks like a drive");
    if (text.startsWith(QStringLiteral(".corvane-")))
        return object(name, "the name is kept for ourselves");
    return true;
}

bool Walk::enter(LXFileDescriptor fd, std::string path)
{
    if (m_levels.size() >= maxDepth)
        return object(path, "too deep");
    std::unique_ptr<DIR, CloseDirectory> directory(::fdopendir(fd.get()));
    if (!directory)
        return object(path, "cannot be read");
    [[maybe_unused]] const int owned = fd.release();
    m_levels.push_back({std::move(directory), std::move(path)});
    return true;
}

bool Walk::look(const Level &level, const char *name)
{
    const std::string path = level.path.empty() ? std::string(name) : level.path + '/' + name;
    if (!lookAtName(name, level.path.empty()))
        return false;
    if (level.path.empty())
        m_top.push_back(path);
    const int parent = ::dirfd(level.directory.get());
    struct stat info;
    if (::fstatat(parent, name, &info, AT_SYMLINK_NOFOLLOW) != 0)
        return object(path, "cannot be looked at");
    if (info.st_dev != m_device)
        return object(path, "another file system");
    if (S_ISLNK(info.st_mode)) {
        char target[4097];
        const ssize_t size = ::readlinkat(parent, name, target, sizeof target - 1);
        if (size <= 0)
            return object(path, "cannot be looked at");
        m_links.emplace(path, std::string(target, static_cast<std::size_t>(size)));
        return true;
    }
    const bool isFolder = S_ISDIR(info.st_mode);
    if (!isFolder && !S_ISREG(info.st_mode))
        return object(path, "a special file");
    // In a folder that hands its group on, every new folder has the bit without having asked for it.
    const mode_t special = S_ISUID | S_ISVTX | (isFolder && m_groupInherited ? 0 : S_ISGID);
    if (info.st_mode & special)
        return object(path, "set-user, set-group or sticky bit");
    const mode_t needed = isFolder ? S_IRWXU : S_IRUSR;
    if ((info.st_mode & needed) != needed)
        return object(path, "the owner is kept out");
    if (!isFolder) {
        if (info.st_nlink > 1) {
            Names &names = m_linked[info.st_ino];
            names.all = info.st_nlink;
            ++names.seen;
        }
        return true;
    }
    LXFileDescriptor fd(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return fd.isOpen() ? enter(std::move(fd), path) : object(path, "cannot be read");
}

/// Where a link ends after all links on the way, relative to the root; nothing when it leaves what is
/// delivered or never ends.
std::optional<std::string> Walk::resolved(const std::string &link)
{
    std::vector<std::string> done = componentsOf(link);
    std::vector<std::string> waiting; // the next one last
    int followed = 0;
    // A folder that is alone in the root is delivered without the root around it.
    const bool single = m_top.size() == 1 && !m_links.contains(m_top.front());
    const auto follow = [&](const std::string &from) {
        const std::string &target = m_links.at(from);
        if (target.starts_with('/') || ++followed > maxLinksFollowed)
            return false;
        std::vector<std::string> parts = componentsOf(target);
        waiting.insert(waiting.end(), parts.rbegin(), parts.rend());
        done.pop_back();
        return true;
    };
    const auto joined = [&] {
        std::string path;
        for (const std::string &part : done)
            path += path.empty() ? part : '/' + part;
        return path;
    };
    if (!follow(link))
        return std::nullopt;
    while (!waiting.empty()) {
        const std::string part = std::move(waiting.back());
        waiting.pop_back();
        if (part == "..") {
            if (done.size() <= (single ? 1U : 0U))
                return std::nullopt;
            done.pop_back();
            continue;
        }
        done.push_back(part);
        if (single && done.front() != m_top.front())
            return std::nullopt;
        if (const std::string path = joined(); m_links.contains(path) && !follow(path))
            return std::nullopt;
    }
    return joined();
}

bool Walk::lookAtLinks()
{
    std::vector<QByteArray> written;
    if (m_writtenFolders && !m_links.empty())
        written.assign(m_writtenFolders->begin(), m_writtenFolders->end());
    std::sort(written.begin(), written.end());
    for (const auto &[path, target] : m_links) {
        if (m_shouldStop())
            return object(path, "stopped");
        const std::optional<std::string> end = resolved(path);
        if (!end)
            return object(path, "a link that leads out or nowhere");
        struct stat info;
        const bool exists =
            ::fstatat(m_root.get(), end->empty() ? "." : end->c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
        if (!exists || !S_ISDIR(info.st_mode))
            continue;
        // A link to a folder: something may have been unpacked through it, which the reader never does.
        if (!m_writtenFolders)
            return object(path, "a link to a folder");
        const QByteArray link = QByteArray::fromStdString(path);
        const QByteArray inLink = QByteArray::fromStdString(path + '/');
        const auto below = std::lower_bound(written.begin(), written.end(), inLink);
        if (m_writtenFolders->contains(link) || (below != written.end() && below->startsWith(inLink)))
            return object(path, "written through a link");
    }
    return true;
}

QString Walk::run(const QString &folder)
{
    m_root = LXFileDescriptor(
        ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat info;
    if (!m_root.isOpen() || ::fstat(m_root.get(), &info) != 0)
        return QStringLiteral("the folder cannot be read");
    m_device = info.st_dev;
    m_groupInherited = (info.st_mode & S_ISGID) != 0;
    if (!enter(LXFileDescriptor(::fcntl(m_root.get(), F_DUPFD_CLOEXEC, 3)), {}))
        return m_reason;
    while (!m_levels.empty()) {
        if (m_shouldStop())
            return QStringLiteral("stopped");
        const std::size_t depth = m_levels.size();
        const dirent *entry = ::readdir(m_levels.back().directory.get());
        if (!entry) {
            m_levels.pop_back();
            continue;
        }
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        if (!look(m_levels[depth - 1], entry->d_name))
            return m_reason;
    }
    for (const auto &[inode, names] : m_linked)
        if (names.all != names.seen)
            return QStringLiteral("a file has names outside of the tree");
    return lookAtLinks() ? QString() : m_reason;
}

} // namespace

CVTreeCheck CVTreeCheck::check(const QString &folder, const QSet<QByteArray> *writtenFolders,
                               const std::function<bool()> &shouldStop)
{
    const QString reason = Walk(writtenFolders, shouldStop).run(folder);
    return {reason.isEmpty(), reason};
}
