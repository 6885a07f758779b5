#include "jobs/CVExtractionDelivery.h"

#include "archives/reading/CVLinkPaths.h"
#include "archives/reading/CVSafePath.h"
#include "engine/model/CVOperationHelper.h"
#include "jobs/CVJobFolders.h"
#include "util/LXDirectory.h"
#include "util/LXDisplay.h"
#include "util/LXFileDescriptor.h"
#include "util/LXFileName.h"
#include "util/path_parts.h"
#include "util/unique_destination.h"
#include "util/unique_string.h"

#include <QCoreApplication>
#include <QSet>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

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

LXFileDescriptor openFolder(const QString &path)
{
    return LXFileDescriptor(::open(bytesOfFileName(path).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

bool isRealFolder(const QString &path)
{
    struct stat status = {};
    return ::lstat(bytesOfFileName(path).constData(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Whether a link in the folder leads back into it by the folder's own name.
bool needsItsName(const QString &folder)
{
    namespace fs = std::filesystem;
    const QByteArray path = bytesOfFileName(folder);
    const std::string name = lastComponent(path).toStdString();
    CVLinkPaths links;
    std::error_code error;
    for (fs::recursive_directory_iterator it(path.toStdString(), fs::directory_options::none, error), end;
         !error && it != end; it.increment(error)) {
        std::error_code ignored;
        if (it->is_symlink(ignored))
            links.set(name + it->path().native().substr(static_cast<std::size_t>(path.size())),
                      fs::read_symlink(it->path(), ignored).native());
    }
    // Where not all of it can be read, the name stays to be sure.
    return error || links.needTheName(name);
}

// An entry can only be moved out of a folder that may be written to; what stays in this one is removed.
void makeWritable(const QString &folder)
{
    struct stat status = {};
    const LXFileDescriptor fd = openFolder(folder);
    if (fd.isOpen() && ::fstat(fd.get(), &status) == 0)
        ::fchmod(fd.get(), (status.st_mode & 0777) | S_IRWXU);
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
    QString source = item;
    if (item != m_folders.workDirectory() && isRealFolder(item)) {
        // Under another name its links would lead to what has the name already. So it keeps the name, in a
        // folder that takes the other one.
        const auto moved = moveToDestination(item, m_folders.outputDirectory(), name);
        if (moved) {
            m_delivered.append(moved.value());
            return {};
        }
        if (moved.error().code == EEXIST && needsItsName(item)) {
            const QString around = m_folders.workDirectory() + u"/.corvane-"_s + uniqueString();
            if (::mkdir(bytesOfFileName(around).constData(), 0777) == 0 &&
                moveToDestination(item, around, name))
                source = around;
            else
                return CVJobFolders::deliveryError(QString::fromLocal8Bit(std::strerror(errno)));
        }
    }
    const auto moved = m_folders.deliver(source, name);
    if (!moved)
        return moved.error();
    m_delivered.append(moved.value());
    return {};
}

LXResult<void> CVExtractionDelivery::deliverEntries(const QStringList &entries)
{
    const QString &folder = m_folders.workDirectory();
    if (!openFolder(folder).isOpen())
        return noWorkDirectory();
    std::vector<std::vector<QByteArray>> items;
    QSet<QByteArray> chosen;
    for (const QString &entry : entries) {
        CVSafePath path = CVSafePath::fromName(entry, false);
        if (path.verdict == CVSafePath::Verdict::Write && !isReachable(folder, path.components))
            path = CVSafePath::fromName(LXDisplay::fromEscaped(entry), false); // as a listing shows it
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
        const QString item = folder + fileNameFromBytes(relative);
        if (m_way == Way::Move && components.size() > 1)
            makeWritable(parentPath(item));
        auto delivered = deliver(item, fileNameFromBytes(components.back()));
        if (!delivered)
            return delivered;
    }
    return {};
}

LXResult<void> CVExtractionDelivery::deliverEverything(const QString &nameForSeveral)
{
    const QString &folder = m_folders.workDirectory();
    const auto names = namesInDirectory(openFolder(folder), 2);
    if (!names)
        return noWorkDirectory();
    if (names->size() == 1) {
        const QString only = fileNameFromBytes(names->front());
        return deliver(folder + u'/' + only, only);
    }
    return deliver(folder, nameForSeveral);
}
