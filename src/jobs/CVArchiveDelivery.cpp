#include "jobs/CVArchiveDelivery.h"

#include "archives/archive_string.h"
#include "engine/model/CVOperationHelper.h"
#include "util/LXFileName.h"
#include "util/LXLog.h"
#include "util/LXRemoveTree.h"
#include "util/LXRename.h"
#include "util/path_parts.h"
#include "util/unique_destination.h"
#include "util/unique_string.h"

#include <QCoreApplication>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(lcDelivery, "corvane.jobs.delivery")

QString tr(const char *text)
{
    return QCoreApplication::translate("CVArchiveDelivery", text);
}

QString folderOf(const QString &path)
{
    const qsizetype slash = path.lastIndexOf(u'/');
    return slash > 0 ? path.left(slash) : u"/"_s;
}

QByteArray joined(const QString &folder, const QByteArray &name)
{
    return bytesOfFileName(folder) + (folder.endsWith(u'/') ? "" : "/") + name;
}

bool isThere(const QByteArray &path)
{
    struct stat facts;
    return ::lstat(path.constData(), &facts) == 0;
}

bool isFolder(const QByteArray &path)
{
    struct stat facts;
    return ::lstat(path.constData(), &facts) == 0 && S_ISDIR(facts.st_mode);
}

/// "name.001" and so on; the tool goes on with four digits after "name.999".
bool isVolume(const QByteArray &candidate, const QByteArray &name)
{
    constexpr qsizetype digits = 3;
    if (candidate.size() < name.size() + 1 + digits || !candidate.startsWith(name) ||
        candidate[name.size()] != '.')
        return false;
    return std::ranges::all_of(QByteArrayView(candidate).sliced(name.size() + 1),
                               [](char c) { return c >= '0' && c <= '9'; });
}

/// Names in the folder, by number. Nothing, and errno, when it cannot be read to its end: a list in which
/// some are missing would pass for a set.
std::optional<std::vector<QByteArray>> volumesIn(const QString &folder, const QByteArray &name)
{
    struct Closer
    {
        void operator()(DIR *dir) const noexcept { ::closedir(dir); }
    };
    std::vector<QByteArray> volumes;
    const std::unique_ptr<DIR, Closer> dir(::opendir(bytesOfFileName(folder).constData()));
    if (!dir)
        return std::nullopt;
    errno = 0;
    while (const dirent *entry = ::readdir(dir.get())) {
        if (isVolume(entry->d_name, name))
            volumes.emplace_back(entry->d_name);
    }
    if (errno != 0)
        return std::nullopt;
    std::ranges::sort(volumes, [](const QByteArray &a, const QByteArray &b) {
        return a.size() != b.size() ? a.size() < b.size() : a < b;
    });
    return volumes;
}

/// The texts for something that cannot be replaced, whatever step it was that failed.
LXError overwriteError(const QByteArray &path, int failure)
{
    return CVOperationHelper::errorForOverwriting(fileNameFromBytes(path), failure);
}

LXError volumesError(const QString &why)
{
    LXError error = CVOperationHelper::errorWithMessage(tr("The created files couldn't be moved."),
                                                        tr("Please try again."));
    error.suggestion = why;
    return error;
}

LXError fileError(int failure)
{
    LXError error = CVOperationHelper::errorWithMessage(tr("The created archive couldn't be moved."),
                                                        tr("Please try again."));
    error.suggestion = QString::fromLocal8Bit(std::strerror(failure));
    return error;
}

/// Items moved out of the way, which come back unless the new ones have arrived.
class SetAside
{
public:
    explicit SetAside(const QString &staging)
        : m_staging(staging)
    {}
    ~SetAside()
    {
        for (auto moved = m_moved.rbegin(); moved != m_moved.rend(); ++moved) {
            if (const int failure = renameWithoutReplacing(moved->aside, moved->original))
                LX_WARNING(lcDelivery, "%s stays at %s: %s", moved->original.constData(),
                           moved->aside.constData(), std::strerror(failure));
        }
    }
    SetAside(const SetAside &) = delete;
    SetAside &operator=(const SetAside &) = delete;

    int take(const QByteArray &path)
    {
        const QByteArray aside = joined(m_staging, "replaced-" + uniqueString().toUtf8());
        const int failure = renameWithoutReplacing(path, aside);
        if (failure == 0)
            m_moved.push_back({aside, path});
        return failure == ENOENT ? 0 : failure;
    }

    /// The new ones are in their place: the old ones are gone for good.
    void dismiss()
    {
        for (const Moved &moved : m_moved)
            removeReplaced(moved.aside);
        m_moved.clear();
    }

    static void removeReplaced(const QByteArray &path)
    {
        // The archive is delivered; what is left goes with the staging folder, now or at a cleaning.
        if (const auto removed = removeTree(fileNameFromBytes(path)); !removed)
            LX_WARNING(lcDelivery, "%s %s", qUtf8Printable(removed.error().description),
                       qUtf8Printable(removed.error().reason));
    }

private:
    struct Moved
    {
        QByteArray aside;
        QByteArray original;
    };
    QString m_staging;
    std::vector<Moved> m_moved;
};

} // namespace

QString CVArchiveDelivery::stagedPath() const
{
    return m_staging + u'/' + lastComponent(m_destination);
}

bool CVArchiveDelivery::hasStagedVolumes() const
{
    if (isThere(bytesOfFileName(stagedPath())))
        return false;
    const auto volumes = volumesIn(m_staging, bytesOfFileName(lastComponent(m_destination)));
    return !volumes || !volumes->empty(); // what cannot be read is told by the delivery
}

QStringList CVArchiveDelivery::itemsInTheWay(const QString &destination, bool volumes)
{
    QStringList items;
    if (isThere(bytesOfFileName(destination)))
        items.append(destination);
    if (!volumes)
        return items;
    const QString folder = folderOf(destination);
    const auto found = volumesIn(folder, bytesOfFileName(lastComponent(destination)));
    for (const QByteArray &name : found.value_or(std::vector<QByteArray>()))
        items.append(fileNameFromBytes(joined(folder, name)));
    return items;
}

QString CVArchiveDelivery::folderName(const QString &destination)
{
    const QString whole = lastComponent(destination);
    const QString name = lastComponent(stringByDeletingArchivePathExtension(destination));
    const qsizetype dot = name.lastIndexOf(u'.');
    const QString base = dot > 0 ? name.left(dot) : name;
    return base.isEmpty() ? whole : base;
}

LXResult<void> CVArchiveDelivery::replaceWith(const QByteArray &staged, const QByteArray &target) const
{
    int failure = renameExchanging(staged, target);
    if (failure == 0) {
        SetAside::removeReplaced(staged);
        return {};
    }
    if (failure == ENOENT) // gone meanwhile
        failure = renameWithoutReplacing(staged, target);
    else if (failure != EINVAL && failure != ENOSYS)
        return overwriteError(target, failure);
    else if (!isFolder(target))
        failure = ::rename(staged.constData(), target.constData()) == 0 ? 0 : errno; // one step as well
    else {
        SetAside old(m_staging);
        if (const int refused = old.take(target))
            return overwriteError(target, refused);
        failure = renameWithoutReplacing(staged, target);
        if (failure == 0)
            old.dismiss();
    }
    if (failure != 0)
        return overwriteError(target, failure);
    return {};
}

CVArchiveDelivery::Result CVArchiveDelivery::deliverFile(bool mayReplace) const
{
    const QByteArray staged = bytesOfFileName(stagedPath());
    const QByteArray target = bytesOfFileName(m_destination);
    const int failure = renameWithoutReplacing(staged, target);
    if (failure == 0)
        return m_destination;
    if (failure != EEXIST)
        return fileError(failure);
    if (!mayReplace)
        return Exists{m_destination};
    if (const auto replaced = replaceWith(staged, target); !replaced)
        return replaced.error();
    return m_destination;
}

CVArchiveDelivery::Result CVArchiveDelivery::deliverVolumes(bool mayReplace) const
{
    const QStringList old = itemsInTheWay(m_destination, true);
    if (!old.isEmpty() && !mayReplace)
        return Exists{old.first()};

    // The new set becomes a folder here, so that it arrives whole.
    const QString name = folderName(m_destination);
    const QByteArray archive = bytesOfFileName(lastComponent(m_destination));
    const QString collected = m_staging + u"/volumes-"_s + uniqueString();
    const QByteArray collectedBytes = bytesOfFileName(collected);
    if (::mkdir(collectedBytes.constData(), 0777) != 0)
        return volumesError(QString::fromLocal8Bit(std::strerror(errno)));
    const auto volumes = volumesIn(m_staging, archive);
    if (!volumes || volumes->empty())
        return volumesError(QString::fromLocal8Bit(std::strerror(volumes ? ENOENT : errno)));
    for (const QByteArray &volume : *volumes) {
        if (const int failure =
                renameWithoutReplacing(joined(m_staging, volume), collectedBytes + '/' + volume))
            return volumesError(QString::fromLocal8Bit(std::strerror(failure)));
    }

    const auto moved = moveToUniqueDestination(collected, folderOf(m_destination), name);
    if (!moved)
        return volumesError(moved.error().reason);
    // The new set is in no one's way, so the older one goes only now: there is always one of them.
    SetAside replaced(m_staging);
    for (const QString &item : old) {
        const QByteArray path = bytesOfFileName(item);
        if (const int failure = replaced.take(path)) {
            (void)renameWithoutReplacing(bytesOfFileName(moved.value()), collectedBytes);
            return overwriteError(path, failure);
        }
    }
    replaced.dismiss();
    return moved.value();
}
