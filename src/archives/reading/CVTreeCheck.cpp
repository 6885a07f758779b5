#include "archives/reading/CVTreeCheck.h"

#include "archives/reading/CVLinkPaths.h"
#include "util/LXDirectory.h"
#include "util/LXFileDescriptor.h"
#include "util/LXFileName.h"

#include <QFile>
#include <QStringDecoder>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <unordered_map>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

// Each level of nesting holds a descriptor open. What is deeper is the reader's to judge.
constexpr std::size_t maxDepth = 200;
// Counting what was written may take a twentieth of the time.
constexpr auto shortestPause = std::chrono::milliseconds(100);
constexpr int pausePerCost = 20;

struct Level
{
    LXDirectory directory;
    std::string path; ///< relative to the root, "" for it
};

class Walk
{
public:
    explicit Walk(const std::function<bool()> &shouldStop)
        : m_shouldStop(shouldStop)
    {}

    QString run(const QString &folder);

private:
    bool enter(LXFileDescriptor fd, std::string path);
    bool look(const Level &level, const char *name);
    bool lookAtName(const char *name, bool atTop);
    bool lookAtLinks();
    bool object(const std::string &path, const char *why);

    const std::function<bool()> &m_shouldStop;
    QString m_reason;
    LXFileDescriptor m_root;
    dev_t m_device = 0;
    bool m_groupInherited = false;
    std::vector<Level> m_levels;
    std::vector<std::string> m_top;
    CVLinkPaths m_links;
    std::vector<std::string> m_linkNames;
    struct Names
    {
        nlink_t all = 0;
        nlink_t seen = 0;
    };
    std::unordered_map<ino_t, Names> m_linked;
};

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
    LXDirectory directory = readDirectory(std::move(fd));
    if (!directory)
        return object(path, "cannot be read");
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
        m_links.set(path, std::string(target, static_cast<std::size_t>(size)));
        m_linkNames.push_back(path);
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

bool Walk::lookAtLinks()
{
    // A folder that is alone in the root is delivered without the root around it.
    const bool isSingle = m_top.size() == 1 && !m_links.contains(m_top.front());
    for (const std::string &path : m_linkNames) {
        if (m_shouldStop())
            return object(path, "stopped");
        const CVLinkPaths::Way way = m_links.follow(path, isSingle ? m_top.front() : std::string());
        if (way.end == CVLinkPaths::End::Outside)
            return object(path, "a link that leads out or nowhere");
        struct stat info;
        const bool exists = ::fstatat(m_root.get(), way.place.empty() ? "." : way.place.c_str(), &info,
                                      AT_SYMLINK_NOFOLLOW) == 0;
        // Something may have been unpacked through it, which the reader never does.
        if (exists && S_ISDIR(info.st_mode))
            return object(path, "a link to a folder");
    }
    return true;
}

QString Walk::run(const QString &folder)
{
    m_root = LXFileDescriptor(
        ::open(bytesOfFileName(folder).constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
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

CVTreeCheck CVTreeCheck::check(const QString &folder, const std::function<bool()> &shouldStop)
{
    const QString reason = Walk(shouldStop).run(folder);
    return {reason.isEmpty(), reason};
}

qint64 CVTreeCheck::Growth::bytes()
{
    const auto start = std::chrono::steady_clock::now();
    if (start < m_due)
        return m_bytes;
    namespace fs = std::filesystem;
    qint64 bytes = 0;
    std::error_code error;
    for (fs::recursive_directory_iterator it(bytesOfFileName(m_folder).toStdString(),
                                             fs::directory_options::skip_permission_denied, error),
         end;
         !error && it != end; it.increment(error)) {
        struct stat info;
        constexpr qint64 blockBytes = 512;
        if (::lstat(it->path().c_str(), &info) == 0)
            bytes += static_cast<qint64>(info.st_blocks) * blockBytes;
    }
    m_bytes = bytes;
    const auto now = std::chrono::steady_clock::now();
    m_due = now + std::max<std::chrono::steady_clock::duration>(shortestPause, pausePerCost * (now - start));
    return m_bytes;
}
