#include "jobs/CVExtractionDelivery.h"

#include "archives/reading/CVSafePath.h"
#include "engine/model/CVOperationHelper.h"
#include "jobs/CVJobFolders.h"
#include "util/LXFileDescriptor.h"
#include "util/LXFileName.h"

#include <QCoreApplication>
#include <QSet>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("CVExtractionDelivery", text);
}

LXError noWorkDirectory()
{
    return CVOperationHelper::errorWithMessage(tr("Couldn't find working directory"),
                                               tr("Please try again."));
}

// The names in a folder, at most `limit` of them: whether there is one or more is all that counts, and
// there may be a million. Nothing and errno when it cannot be read.
std::optional<QStringList> namesInFolder(const QString &path, qsizetype limit)
{
    struct Closer
    {
        void operator()(DIR *dir) const noexcept { ::closedir(dir); }
    };
    const std::unique_ptr<DIR, Closer> dir(::opendir(bytesOfFileName(path).constData()));
    if (!dir)
        return std::nullopt;
    QStringList names;
    while (names.size() < limit) {
        errno = 0;
        const dirent *entry = ::readdir(dir.get());
        if (!entry) {
            if (errno != 0)
                return std::nullopt;
            break;
        }
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            names.append(fileNameFromBytes(entry->d_name));
    }
    return names;
}

// True when `components` lead from `folder` to something that is really there: every step but the last
// a folder and none of them a link, so that the way cannot lead out of the work directory.
bool isReachable(const QString &folder, const std::vector<QByteArray> &components)
{
    LXFileDescriptor at(::open(bytesOfFileName(folder).constData(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (std::size_t i = 0; at.isOpen() && i + 1 < components.size(); ++i)
        at = LXFileDescriptor(
            ::openat(at.get(), components[i].constData(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    return at.isOpen() && !components.empty() &&
           ::fstatat(at.get(), components.back().constData(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

} // namespace

LXResult<void> CVExtractionDelivery::deliver(const QString &item, const QString &name)
{
    if (m_way == Way::Stay) {
        m_delivered.append(item);
        return {};
    }
    const auto moved = m_folders.deliver(item, name);
    if (!moved)
        return moved.error();
    m_delivered.append(moved.value());
    return {};
}

LXResult<void> CVExtractionDelivery::deliverEntries(const QStringList &entries)
{
    const QString &folder = m_folders.workDirectory();
    if (!namesInFolder(folder, 1))
        return noWorkDirectory();
    std::vector<std::vector<QByteArray>> items;
    QSet<QByteArray> chosen;
    for (const QString &entry : entries) {
        const CVSafePath path = CVSafePath::fromName(entry, false);
        if (path.verdict != CVSafePath::Verdict::Write)
            return CVJobFolders::deliveryError(u"“%1”: %2"_s.arg(entry, path.reason));
        if (!isReachable(folder, path.components))
            return CVJobFolders::deliveryError(tr("There is no “%1” in the archive.").arg(entry));
        if (chosen.contains(path.joined()))
            continue;
        chosen.insert(path.joined());
        items.push_back(path.components);
    }
    std::erase_if(items, [&chosen](const std::vector<QByteArray> &components) {
        QByteArray above;
        for (std::size_t i = 0; i + 1 < components.size(); ++i) {
            above += (i > 0 ? "/" : "") + components[i];
            if (chosen.contains(above))
                return true;
        }
        return false;
    });
    for (const auto &components : items) {
        QByteArray relative;
        for (const QByteArray &component : components)
            relative += '/' + component;
        auto delivered = deliver(folder + QString::fromUtf8(relative), QString::fromUtf8(components.back()));
        if (!delivered)
            return delivered;
    }
    return {};
}

LXResult<void> CVExtractionDelivery::deliverEverything(const QString &nameForSeveral)
{
    const QString &folder = m_folders.workDirectory();
    const auto names = namesInFolder(folder, 2);
    if (!names)
        return noWorkDirectory();
    if (names->size() == 1)
        return deliver(folder + u'/' + names->first(), names->first());
    return deliver(folder, nameForSeveral);
}
