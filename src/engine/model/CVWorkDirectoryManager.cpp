#include "engine/model/CVWorkDirectoryManager.h"

#include "engine/model/CVSettings.h"
#include "engine/model/CVTempDir.h"
#include "util/LXFileDescriptor.h"
#include "util/LXFileName.h"
#include "util/LXLog.h"

#include <QDir>

#include <map>
#include <mutex>

#include <fcntl.h>
#include <sys/file.h>

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

void changeList(const std::function<void(QStringList &)> &change)
{
    const auto saved = CVSettings::store()->update(CVSettingsKey::tempDirs, [&](const QVariant &stored) {
        QStringList list = stored.toStringList();
        change(list);
        return QVariant(list);
    });
    if (!saved)
        LX_WARNING(lcWorkDirectories, "%s", qUtf8Printable(saved.error().reason));
}

bool isNamed(QStringView name, QLatin1StringView prefix)
{
    return name.size() > prefix.size() && name.startsWith(prefix);
}

} // namespace

void CVWorkDirectoryManager::registerWorkDir(const QString &path)
{
    LXFileDescriptor directory = openedDirectory(path);
    // Without a lock (a file system that has none) the entry still counts, it only looks left over.
    if (directory.isOpen() && ::flock(directory.get(), LOCK_SH | LOCK_NB) == 0) {
        const std::lock_guard lock(locks().mutex);
        locks().held.emplace(path, std::move(directory));
    }
    changeList([&](QStringList &list) { list.append(path); });
}

void CVWorkDirectoryManager::removeWorkDir(const QString &path)
{
    changeList([&](QStringList &list) {
        const qsizetype last = list.lastIndexOf(path);
        if (last >= 0)
            list.removeAt(last);
    });
    const std::lock_guard lock(locks().mutex);
    if (const auto found = locks().held.find(path); found != locks().held.end())
        locks().held.erase(found);
}

QStringList CVWorkDirectoryManager::workDirs()
{
    return CVSettings::stringList(CVSettingsKey::tempDirs);
}

void CVWorkDirectoryManager::forget(const QStringList &paths)
{
    changeList([&](QStringList &list) {
        for (const QString &path : paths)
            list.removeOne(path);
    });
}

bool CVWorkDirectoryManager::isInUse(const QString &path)
{
    const LXFileDescriptor directory = openedDirectory(path);
    return directory.isOpen() && ::flock(directory.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

bool CVWorkDirectoryManager::isWorkDirectoryPath(const QString &path)
{
    // Anything that reads differently when cleaned ("..", "//", a slash at the end) we never wrote.
    if (!QDir::isAbsolutePath(path) || QDir::cleanPath(path) != path || path.contains(QChar(0)))
        return false;
    const QStringView name = QStringView(path).mid(path.lastIndexOf(u'/') + 1);
    return isNamed(name, namePrefix()) || isNamed(name, CVTempDir::convertPrefixWithDot());
}
