#include "platform/LXTrash.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <mutex>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

struct Shared
{
    std::mutex mutex;
    std::shared_ptr<LXTrash> trash;
};

Shared &sharedTrash()
{
    static Shared instance;
    return instance;
}

LXError notTrashed(const QString &path, const QString &reason)
{
    return LXError{.domain = u"CorvaneErrorDomain"_s,
                   .code = 1,
                   .description = u"“%1” could not be moved to the trash."_s.arg(QFileInfo(path).fileName()),
                   .reason = reason,
                   .suggestion = {}};
}

} // namespace

std::shared_ptr<LXTrash> LXTrash::shared()
{
    Shared &shared = sharedTrash();
    const std::lock_guard lock(shared.mutex);
    if (!shared.trash)
        shared.trash = std::make_shared<LXDesktopTrash>();
    return shared.trash;
}

void LXTrash::setShared(std::shared_ptr<LXTrash> trash)
{
    Shared &shared = sharedTrash();
    const std::lock_guard lock(shared.mutex);
    shared.trash = std::move(trash);
}

LXResult<QString> LXDesktopTrash::moveToTrash(const QString &path)
{
    // Without this folder Qt answers true and moves the file to "files" in the current folder.
    const QString data = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (data.isEmpty() || !QDir().mkpath(data + "/Trash"_L1))
        return notTrashed(path, u"There is no folder for the trash."_s);

    QFile file(QFileInfo(path).absoluteFilePath());
    if (!file.moveToTrash())
        return notTrashed(path, file.errorString());
    const QString inTrash = file.fileName();
    if (!QDir::isAbsolutePath(inTrash) || QFileInfo(path).isSymbolicLink() || QFileInfo::exists(path))
        return notTrashed(path, u"It is not known where it went."_s);
    return inTrash;
}
