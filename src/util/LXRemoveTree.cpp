#include "util/LXRemoveTree.h"

#include "util/LXFileDescriptor.h"
#include "util/LXFileName.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr mode_t ownerAll = S_IRWXU;
/// Some file systems pass over entries while others are being removed, so a folder that is not empty
/// afterwards is read again; one that somebody keeps filling is given up.
constexpr int visitsPerFolder = 8;

LXError systemError(const QByteArray &path, int code)
{
    return LXError{.domain = QStringLiteral("NSPOSIXErrorDomain"),
                   .code = code,
                   .description = QStringLiteral("“%1” could not be removed.").arg(fileNameFromBytes(path)),
                   .reason = QString::fromLocal8Bit(std::strerror(code)),
                   .suggestion = {}};
}

struct DirClose
{
    void operator()(DIR *dir) const noexcept { ::closedir(dir); }
};

struct Folder
{
    QByteArray name;
    int visits = 0;
};

/// A folder on the way from the top to where the work is.
struct Level
{
    Folder self;
    dev_t device = 0;
    ino_t inode = 0;
    std::vector<Folder> folders; ///< still to be entered
    bool keeps = false;          ///< something in it could not be removed, so do not try in vain again
};

class Remover
{
public:
    explicit Remover(std::stop_token stop)
        : m_stop(std::move(stop))
    {}

    int run(int folder, const QByteArray &name);

private:
    bool enter(int parent, Folder folder);
    bool leave();
    void readCurrent();
    void note(int code)
    {
        if (m_failure == 0)
            m_failure = code;
        if (!m_levels.empty())
            m_levels.back().keeps = true;
    }

    std::stop_token m_stop;
    std::vector<Level> m_levels;
    LXFileDescriptor m_current;
    int m_failure = 0;
    const uid_t m_user = ::geteuid();
};

// Opens a folder that may forbid even its owner to read it. The mode is changed through a descriptor
// of the folder itself, so that a link put in its place is never followed.
LXFileDescriptor openFolder(int parent, const char *name, uid_t user)
{
    constexpr int flags = O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    LXFileDescriptor folder(::openat(parent, name, O_RDONLY | flags));
    if (folder.isOpen() || errno != EACCES)
        return folder;
    const LXFileDescriptor handle(::openat(parent, name, O_PATH | flags));
    struct stat facts;
    if (!handle.isOpen() || ::fstat(handle.get(), &facts) != 0 || facts.st_uid != user) {
        errno = EACCES;
        return LXFileDescriptor();
    }
    const QByteArray self = "/proc/self/fd/" + QByteArray::number(handle.get());
    if (::chmod(self.constData(), (facts.st_mode & 07777) | ownerAll) != 0)
        return LXFileDescriptor();
    return LXFileDescriptor(::openat(parent, name, O_RDONLY | flags));
}

bool Remover::enter(int parent, Folder folder)
{
    LXFileDescriptor opened = openFolder(parent, folder.name.constData(), m_user);
    struct stat facts;
    if (!opened.isOpen() || ::fstat(opened.get(), &facts) != 0) {
        note(errno);
        return false;
    }
    if (!m_levels.empty() && facts.st_dev != m_levels.back().device) {
        note(EXDEV);
        return false;
    }
    if ((facts.st_mode & ownerAll) != ownerAll && facts.st_uid == m_user)
        ::fchmod(opened.get(), (facts.st_mode & 07777) | ownerAll);
    ++folder.visits;
    m_levels.push_back(
        {.self = std::move(folder), .device = facts.st_dev, .inode = facts.st_ino, .folders = {}});
    m_current = std::move(opened);
    readCurrent();
    return true;
}

// Removes what is no folder at once and notes the folders.
void Remover::readCurrent()
{
    Level &level = m_levels.back();
    LXFileDescriptor copy(::openat(m_current.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, DirClose> dir(copy.isOpen() ? ::fdopendir(copy.get()) : nullptr);
    if (!dir) {
        note(errno);
        return;
    }
    (void)copy.release();
    while (const dirent *entry = ::readdir(dir.get())) {
        const char *name = entry->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
            continue;
        if (m_stop.stop_requested())
            return;
        if (entry->d_type == DT_DIR) {
            level.folders.push_back({.name = name});
            continue;
        }
        if (::unlinkat(m_current.get(), name, 0) == 0 || errno == ENOENT)
            continue;
        const int failure = errno;
        struct stat facts;
        if (::fstatat(m_current.get(), name, &facts, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(facts.st_mode))
            level.folders.push_back({.name = name});
        else
            note(failure);
    }
}

// Goes up and removes the folder just emptied. False when the way up is lost.
bool Remover::leave()
{
    Level done = std::move(m_levels.back());
    m_levels.pop_back();
    if (m_levels.empty())
        return true;
    Level &above = m_levels.back();
    LXFileDescriptor parent(::openat(m_current.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat facts;
    if (!parent.isOpen() || ::fstat(parent.get(), &facts) != 0 || facts.st_dev != above.device ||
        facts.st_ino != above.inode) {
        note(ESTALE); // somebody moved the folder elsewhere: its ".." is not ours to work in
        return false;
    }
    m_current = std::move(parent);
    if (done.keeps)
        above.keeps = true;
    else if (::unlinkat(m_current.get(), done.self.name.constData(), AT_REMOVEDIR) == 0 || errno == ENOENT)
        return true;
    else if ((errno == ENOTEMPTY || errno == EEXIST) && done.self.visits < visitsPerFolder)
        above.folders.push_back(std::move(done.self));
    else
        note(errno);
    return true;
}

int Remover::run(int folder, const QByteArray &name)
{
    if (::unlinkat(folder, name.constData(), 0) == 0)
        return 0;
    const int refused = errno;
    if (refused != EISDIR && refused != EPERM)
        return refused;
    for (int visit = 0; visit < visitsPerFolder; ++visit) {
        m_levels.clear();
        if (!enter(folder, {.name = name}))
            return m_failure == ENOTDIR || m_failure == ELOOP ? refused : m_failure;
        while (!m_levels.empty()) {
            if (m_stop.stop_requested())
                return ECANCELED;
            Level &level = m_levels.back();
            if (level.folders.empty()) {
                if (!leave())
                    return m_failure;
                continue;
            }
            Folder next = std::move(level.folders.back());
            level.folders.pop_back();
            enter(m_current.get(), std::move(next));
        }
        if (m_failure != 0)
            return m_failure;
        if (::unlinkat(folder, name.constData(), AT_REMOVEDIR) == 0 || errno == ENOENT)
            return 0;
        if (errno != ENOTEMPTY && errno != EEXIST)
            return errno;
    }
    return ENOTEMPTY;
}

} // namespace

LXResult<void> removeTreeAt(int folder, const QByteArray &name, std::stop_token stop)
{
    if (const int failure = Remover(std::move(stop)).run(folder, name))
        return systemError(name, failure);
    return {};
}

LXResult<void> removeTree(const QString &path, std::stop_token stop)
{
    QByteArray encoded = bytesOfFileName(path);
    // A slash at the end would make the last component follow a link.
    while (encoded.size() > 1 && encoded.endsWith('/'))
        encoded.chop(1);
    if (const int failure = Remover(std::move(stop)).run(AT_FDCWD, encoded))
        return systemError(encoded, failure);
    return {};
}
