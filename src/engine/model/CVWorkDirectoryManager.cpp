#include "engine/model/CVWorkDirectoryManager.h"

#include "engine/model/CVSettings.h"
#include "engine/model/CVTempDir.h"
#include "util/LXFileDescriptor.h"
#include "util/LXFileName.h"
#include "util/LXLog.h"
#include "util/LXRemoveTree.h"
#include "util/unique_string.h"

#include <QDir>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

Q_LOGGING_CATEGORY(lcWorkDirectories, "corvane.engine.workdirectories")

struct Locks
{
    std::mutex mutex;
    std::multimap<QString, LXFileDescriptor> held;
};

Locks &locks()
{
    static Locks instance;
    return instance;
}

LXFileDescriptor openedDirectory(const QString &path)
{
    return LXFileDescriptor(
        ::open(bytesOfFileName(path).constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

LXResult<void> changeList(const std::function<void(QStringList &)> &change)
{
    const auto saved = CVSettings::store()->update(CVSettingsKey::tempDirs, [&](const QVariant &stored) {
        QStringList list = stored.toStringList();
        change(list);
        return QVariant(list);
    });
    if (!saved)
        LX_WARNING(lcWorkDirectories, "%s", qUtf8Printable(saved.error().reason));
    return saved;
}

bool isLackOfMeans(int failure)
{
    return failure == EMFILE || failure == ENFILE || failure == ENOMEM;
}

LXError workDirError(const QString &path, int failure)
{
    return LXError{.domain = QStringLiteral("NSPOSIXErrorDomain"),
                   .code = failure,
                   .description = path,
                   .reason = QString::fromLocal8Bit(std::strerror(failure)),
                   .suggestion = {}};
}

// The folder and those above it that are missing. 0 or an errno.
int makeFolders(const QByteArray &path, mode_t mode)
{
    if (::mkdir(path.constData(), mode) == 0)
        return 0;
    const int failure = errno;
    const qsizetype slash = path.lastIndexOf('/');
    if (failure != ENOENT || slash <= 0)
        return failure;
    const int above = makeFolders(path.first(slash), 0777);
    if (above != 0 && above != EEXIST)
        return above;
    return ::mkdir(path.constData(), mode) == 0 ? 0 : errno;
}

// True when it is in place and cannot be cleaned away any more.
bool lockWorkDir(const QString &path)
{
    LXFileDescriptor directory = openedDirectory(path);
    // Only a cleaning that looks at it can hold the lock, and not for long. Where a file system has none, the
    // directory still counts, it only looks left over.
    const bool locked = directory.isOpen() && ::flock(directory.get(), LOCK_SH) == 0;
    if (::access(bytesOfFileName(path).constData(), F_OK) != 0 && errno == ENOENT)
        return false;
    if (locked) {
        const std::lock_guard lock(locks().mutex);
        locks().held.emplace(path, std::move(directory));
    }
    return true;
}

void unlockWorkDir(const QString &path)
{
    const std::lock_guard lock(locks().mutex);
    if (const auto found = locks().held.find(path); found != locks().held.end())
        locks().held.erase(found);
}

void listAgain(const QString &path)
{
    if (CVWorkDirectoryManager::workDirs().contains(path))
        return;
    (void)changeList([&](QStringList &list) {
        if (!list.contains(path))
            list.append(path);
    });
}

bool isNamed(QStringView name, QLatin1StringView prefix)
{
    return name.size() > prefix.size() && name.startsWith(prefix);
}

} // namespace

LXResult<void> CVWorkDirectoryManager::makeWorkDir(const QString &path)
{
    if (const auto listed = registerWorkDir(path); !listed) {
        removeWorkDir(path); // from memory
        return workDirError(path, listed.error().code);
    }
    int failure = 0;
    do {
        // A cleaning in another process may find it before the lock does.
        failure = makeFolders(bytesOfFileName(path), 0700);
    } while (failure == 0 && !lockWorkDir(path));
    if (failure != 0) {
        removeWorkDir(path);
        return workDirError(path, failure);
    }
    // Or its entry, when there was no such directory yet.
    listAgain(path);
    return {};
}

void CVWorkDirectoryManager::discardWorkDir(const QString &path)
{
    const auto removed = removeTree(path);
    if (removed || removed.error().code == ENOENT)
        removeWorkDir(path);
    else
        LX_WARNING(lcWorkDirectories, "error removing work directory %s: %s", qUtf8Printable(path),
                   qUtf8Printable(removed.error().reason));
    unlockWorkDir(path);
}

void CVWorkDirectoryManager::openToOthers(const QString &path)
{
    const LXFileDescriptor folder = openedDirectory(path);
    // The umask, inherited lists of rights, an inherited group: only the kernel adds them up right.
    const QByteArray probe = namePrefix().latin1() + uniqueString().toLatin1();
    struct stat facts = {};
    if (!folder.isOpen() || ::mkdirat(folder.get(), probe.constData(), 0777) != 0)
        return;
    if (::fstatat(folder.get(), probe.constData(), &facts, AT_SYMLINK_NOFOLLOW) == 0)
        (void)::fchmod(folder.get(), facts.st_mode & 07777);
    ::unlinkat(folder.get(), probe.constData(), AT_REMOVEDIR);
}

void CVWorkDirectoryManager::keepWorkDir(const QString &path)
{
    removeWorkDir(path);
    unlockWorkDir(path);
}

LXResult<void> CVWorkDirectoryManager::registerWorkDir(const QString &path)
{
    const auto saved = changeList([&](QStringList &list) { list.append(path); });
    if (!saved && isLackOfMeans(saved.error().code))
        return saved;
    return {};
}

void CVWorkDirectoryManager::removeWorkDir(const QString &path)
{
    (void)changeList([&](QStringList &list) {
        const qsizetype last = list.lastIndexOf(path);
        if (last >= 0)
            list.removeAt(last);
    });
}

QStringList CVWorkDirectoryManager::workDirs()
{
    return CVSettings::stringList(CVSettingsKey::tempDirs);
}

void CVWorkDirectoryManager::forget(const QStringList &paths)
{
    (void)changeList([&](QStringList &list) {
        for (const QString &path : paths)
            list.removeOne(path);
    });
    // One that was listed and not there may have been made meanwhile.
    for (const QString &path : paths) {
        if (isWorkDirectoryPath(path) && isInUse(path))
            listAgain(path);
    }
}

bool CVWorkDirectoryManager::isInUse(const QString &path)
{
    LXFileDescriptor claim;
    return claimForRemoval(path, claim) == EWOULDBLOCK;
}

int CVWorkDirectoryManager::claimForRemoval(const QString &path, LXFileDescriptor &claim)
{
    claim = openedDirectory(path);
    if (!claim.isOpen())
        return errno == ENOENT ? ENOENT : 0; // a link, or a folder that may not be read: no job's
    return ::flock(claim.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK ? EWOULDBLOCK : 0;
}

bool CVWorkDirectoryManager::isWorkDirectoryPath(const QString &path)
{
    // Anything that reads differently when cleaned ("..", "//", a slash at the end) we never wrote.
    if (!QDir::isAbsolutePath(path) || QDir::cleanPath(path) != path || path.contains(QChar(0)))
        return false;
    const QStringView name = QStringView(path).mid(path.lastIndexOf(u'/') + 1);
    return isNamed(name, namePrefix()) || isNamed(name, CVTempDir::convertPrefixWithDot());
}
