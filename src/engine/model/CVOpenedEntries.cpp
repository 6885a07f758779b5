#include "engine/model/CVOpenedEntries.h"

#include "engine/model/CVWorkDirectoryManager.h"
#include "util/LXDisplay.h"
#include "util/LXFileDescriptor.h"
#include "util/LXFileName.h"

#include <QCoreApplication>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <tuple>

#include <fcntl.h>
#include <fts.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Opened
{
    std::mutex leaving; // held while one is removed; taken before `mutex`
    std::mutex mutex;
    QStringList folders;
};

Opened &opened()
{
    static Opened instance;
    return instance;
}

QByteArray markOf(const QString &folder)
{
    return bytesOfFileName(folder) + '/' + CVOpenedEntries::markName().latin1();
}

bool isNewer(const timespec &one, const timespec &other)
{
    return std::tie(one.tv_sec, one.tv_nsec) > std::tie(other.tv_sec, other.tv_nsec);
}

bool removeUnlessChanged(const QString &folder)
{
    if (!CVOpenedEntries::wereChanged(folder)) {
        CVWorkDirectoryManager::discardWorkDir(folder);
        return true;
    }
    CVWorkDirectoryManager::keepWorkDir(folder);
    return false;
}

struct TreeCloser
{
    void operator()(FTS *tree) const noexcept { ::fts_close(tree); }
};

} // namespace

bool CVOpenedEntries::willFill(const QString &folder)
{
    const LXFileDescriptor mark(
        ::open(markOf(folder).constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!mark.isOpen())
        return false;
    const std::lock_guard lock(opened().mutex);
    opened().folders.append(folder);
    return true;
}

void CVOpenedEntries::wereDelivered(const QString &folder)
{
    const LXFileDescriptor mark(::open(markOf(folder).constData(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
    // Without a byte in it the directory counts as half filled and is removed: nothing is lost, the archive
    // has all.
    if (mark.isOpen())
        (void)!::write(mark.get(), "\n", 1);
}

bool CVOpenedEntries::isOne(const QString &folder)
{
    struct stat mark = {};
    return ::lstat(markOf(folder).constData(), &mark) == 0 && S_ISREG(mark.st_mode);
}

bool CVOpenedEntries::wereChanged(const QString &folder)
{
    struct stat mark = {};
    if (::lstat(markOf(folder).constData(), &mark) != 0 || mark.st_size == 0)
        return false;
    QByteArray path = bytesOfFileName(folder);
    char *roots[] = {path.data(), nullptr};
    const std::unique_ptr<FTS, TreeCloser> tree(
        ::fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR | FTS_XDEV, nullptr));
    if (!tree)
        return true;
    errno = 0;
    while (const FTSENT *entry = ::fts_read(tree.get())) {
        switch (entry->fts_info) {
        case FTS_D:
        case FTS_DP:
            break; // programs put their locks beside a file that they only show
        case FTS_DNR:
        case FTS_ERR:
        case FTS_NS:
            return true;
        default:
            if (isNewer(entry->fts_statp->st_ctim, mark.st_ctim) &&
                std::strcmp(entry->fts_name, markName().latin1()) != 0)
                return true;
        }
        errno = 0;
    }
    return errno != 0;
}

bool CVOpenedEntries::letGo(const QString &folder)
{
    // The end of the program and the panel may both do it; a tree that is being removed looks changed.
    const std::lock_guard one(opened().leaving);
    {
        const std::lock_guard lock(opened().mutex);
        if (opened().folders.removeAll(folder) == 0)
            return true;
    }
    return removeUnlessChanged(folder);
}

QStringList CVOpenedEntries::letGoOfAll()
{
    QStringList folders;
    {
        const std::lock_guard lock(opened().mutex);
        folders = opened().folders;
    }
    folders.removeIf([](const QString &folder) { return letGo(folder); });
    return folders;
}

QStringList CVOpenedEntries::letGoOfLeftOvers()
{
    QStringList kept;
    for (const QString &folder : CVWorkDirectoryManager::workDirs()) {
        LXFileDescriptor claim;
        if (CVWorkDirectoryManager::isWorkDirectoryPath(folder) && isOne(folder) &&
            CVWorkDirectoryManager::claimForRemoval(folder, claim) == 0 && claim.isOpen() &&
            !removeUnlessChanged(folder))
            kept.append(folder);
    }
    return kept;
}

QString CVOpenedEntries::titleAboutKept()
{
    return QCoreApplication::translate("CVOpenedEntries", "Changed files were kept");
}

QString CVOpenedEntries::textAboutKept(const QStringList &folders)
{
    QStringList lines = {QCoreApplication::translate(
        "CVOpenedEntries",
        "You have changed what was opened from an archive. It is not in the archive, but here:")};
    for (const QString &folder : folders)
        lines.append(LXDisplay::displayEscaped(folder));
    return lines.join(u'\n');
}
