#include "jobs/CVArchiveConverter.h"

#include "engine/model/CVTempDir.h"
#include "engine/model/CVWorkDirectoryManager.h"
#include "jobs/media/CVMediaWalk.h"
#include "platform/LXDesktopFolders.h"
#include "util/LXFileName.h"
#include "util/LXLog.h"
#include "util/LXMainThread.h"
#include "util/LXRemoveTree.h"
#include "util/unique_string.h"

#include <QCoreApplication>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include <sys/statvfs.h>

#include <dirent.h>
#include <fts.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(lcConverter, "corvane.jobs.converter")

constexpr double thirds = 3;
constexpr double mediaStep = 10; // what the counter of the walk grows by at each path
constexpr double mediaScale = 100;

// An archive may hold files that their own owner may not read. The tool that packs them again runs as that
// owner, so what is missing for reading is added, in our copy. Never needed where everything may be read.
void makeReadable(const QByteArray &folder)
{
    if (::geteuid() == 0)
        return;
    QByteArray path = folder;
    char *const roots[] = {path.data(), nullptr};
    FTS *const walk = ::fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR, nullptr);
    if (!walk)
        return;
    while (FTSENT *const entry = ::fts_read(walk)) {
        const bool folderItself = entry->fts_info == FTS_D || entry->fts_info == FTS_DNR;
        const mode_t wanted = folderItself ? S_IRUSR | S_IXUSR : S_IRUSR;
        if (!folderItself && entry->fts_info != FTS_F)
            continue;
        const mode_t mode = entry->fts_statp->st_mode & 07777;
        if ((mode & wanted) == wanted)
            continue;
        if (::chmod(entry->fts_accpath, mode | wanted) == 0 && entry->fts_info == FTS_DNR)
            ::fts_set(walk, entry, FTS_AGAIN);
    }
    ::fts_close(walk);
}

double entriesDirectlyIn(const QString &folder)
{
    struct Closer
    {
        void operator()(DIR *dir) const noexcept { ::closedir(dir); }
    };
    const std::unique_ptr<DIR, Closer> dir(::opendir(bytesOfFileName(folder).constData()));
    double count = 0;
    while (const dirent *entry = dir ? ::readdir(dir.get()) : nullptr) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            ++count;
    }
    return count;
}

// Nothing is known about a folder that cannot be asked.
bool hasMoreRoom(const QString &folder, const QString &other)
{
    struct statvfs its = {};
    struct statvfs others = {};
    struct stat here = {};
    struct stat there = {};
    // Not by their f_fsid, which several kinds of file systems leave at zero.
    if (::stat(bytesOfFileName(folder).constData(), &here) != 0 ||
        ::stat(bytesOfFileName(other).constData(), &there) != 0 || here.st_dev == there.st_dev)
        return false;
    return ::statvfs(bytesOfFileName(folder).constData(), &its) == 0 &&
           ::statvfs(bytesOfFileName(other).constData(), &others) == 0 &&
           static_cast<double>(its.f_bavail) * static_cast<double>(its.f_frsize) >
               static_cast<double>(others.f_bavail) * static_cast<double>(others.f_frsize);
}

} // namespace

CVArchiveConverter::CVArchiveConverter(CVArchiveConverterDelegate &delegate)
    : m_delegate(delegate)
{}

CVArchiveConverter::~CVArchiveConverter() = default;

void CVArchiveConverter::convert(const QString &source, const QString &destination)
{
    // The folder is gone before anybody hears of the end.
    const std::int32_t status = run(source, destination);
    if (status == CVArchive::Success)
        m_delegate.archiveConverterHasFinished(this);
    else
        m_delegate.archiveConverterFailedWithStatus(this, status);
}

void CVArchiveConverter::cancelConvert()
{
    m_stop.request_stop();
    std::shared_ptr<CVArchive> source;
    std::shared_ptr<CVArchive> destination;
    {
        const std::lock_guard lock(m_mutex);
        source = m_sourceArchive;
        destination = m_destinationArchive;
    }
    if (source)
        source->cancelExtract();
    if (destination)
        destination->cancelCreate();
}

std::int32_t CVArchiveConverter::run(const QString &source, const QString &destination)
{
    const QString workFolder = destination.left(destination.lastIndexOf(u'/'));
    std::int32_t status = CVArchive::InvalidFile;
    {
        const CVTempDir temporary(CVTempDir::convertPrefix());
        m_hasMoreRoom = hasMoreRoom(workFolder, LXDesktopFolders::temporaryFolder());
        if (temporary.path().isEmpty()) {
            m_failedInTemporaryFolder = true;
            m_systemError = temporary.systemError();
        } else {
            status = runIn(temporary.path(), source, destination);
        }
    }
    const bool isFull = m_failedInTemporaryFolder &&
                        (m_systemError == ENOSPC || m_systemError == EDQUOT || m_hasDeclinedLimit);
    if (status == CVArchive::Success || isCancelled() || !isFull || !std::exchange(m_hasMoreRoom, false))
        return status;
    // The system's temporary folder is small, or memory: the job's own folder goes with the job.
    const QString folder = workFolder + u'/' + CVWorkDirectoryManager::namePrefix() + uniqueString();
    if (::mkdir(bytesOfFileName(folder).constData(), 0700) != 0)
        return status;
    m_failureReason.clear();
    m_systemError = 0;
    m_failedInTemporaryFolder = false;
    status = runIn(folder, source, destination);
    // At once: the archive is delivered out of the same folder.
    if (const auto removed = removeTree(folder); !removed)
        LX_WARNING(lcConverter, "%s stays: %s", qUtf8Printable(folder),
                   qUtf8Printable(removed.error().reason));
    return status;
}

std::int32_t CVArchiveConverter::runIn(const QString &temporaryFolder, const QString &source,
                                       const QString &destination)
{
    m_temporaryFolder = temporaryFolder;
    // One level down: the temporary folder is for its owner alone, and its mode would become that of the
    // top folder of archives that record one.
    const QString folder = temporaryFolder + u"/contents"_s;
    if (::mkdir(bytesOfFileName(folder).constData(), 0777) != 0) {
        m_failedInTemporaryFolder = true;
        m_systemError = errno;
        return CVArchive::InvalidFile;
    }
    const std::int32_t status = extract(source, folder);
    if (status != CVArchive::Success)
        return status;
    makeReadable(bytesOfFileName(folder));
    return pack(folder, destination);
}

bool CVArchiveConverter::start(std::shared_ptr<CVArchive> &place, const std::shared_ptr<CVArchive> &archive)
{
    {
        const std::lock_guard lock(m_mutex);
        m_outcome.reset();
        place = archive;
    }
    archive->setDelegate(this);
    // A cancel that came before the archive was known here has not told it.
    if (!isCancelled())
        return true;
    archive->setCancelledStatus();
    takeOutcome(CVArchive::Cancelled);
    return false;
}

std::int32_t CVArchiveConverter::waitForEnd(std::shared_ptr<CVArchive> &place)
{
    std::unique_lock lock(m_mutex);
    // A cancel too is an end that the back end reports, once its tool no longer writes.
    m_changed.wait(lock, [this] { return m_outcome.has_value(); });
    const std::int32_t status = *m_outcome;
    const std::shared_ptr<CVArchive> archive = std::move(place);
    place.reset();
    lock.unlock();
    archive->setDelegate(nullptr);
    // The main thread may be in the middle of a report of progress.
    LXMainThread::wait([] {});
    return isCancelled() ? CVArchive::Cancelled : status;
}

std::int32_t CVArchiveConverter::extract(const QString &source, const QString &folder)
{
    const auto archive = CVArchive::archiveForExtracting(source);
    if (start(m_sourceArchive, archive)) {
        try {
            archive->open(source, folder);
        } catch (const std::exception &e) {
            LX_WARNING(lcConverter, "%s while opening %s", e.what(), qUtf8Printable(source));
            takeOutcome(CVArchive::InvalidFile);
        }
        // A file that was gone when the back end looked is only logged by it, without a report.
        if (archive->extractFile != source)
            takeOutcome(CVArchive::InvalidFile);
    }
    const std::int32_t status = waitForEnd(m_sourceArchive);
    m_skippedEntries = archive->skippedEntries();
    for (const CVSkippedEntry &entry : m_skippedEntries)
        qCInfo(lcConverter, "left out of %s: %s", qUtf8Printable(source), qUtf8Printable(entry.reason));
    if (status != CVArchive::Success)
        takeFailure(*archive, true);
    return status;
}

std::int32_t CVArchiveConverter::pack(const QString &folder, const QString &destination)
{
    const auto archive = CVArchive::archiveForCreating(destination);
    if (archive->canSetCompressionLevel())
        archive->compressionLevel = compressionLevel;
    if (archive->canEncrypt() && password)
        archive->encryptWith(*password);
    if (archive->canWriteVolumes())
        archive->chunkSize = chunkSize;
    if (archive->canManipulateMultimedia() || shouldUseZipCompression) {
        if (!manipulateFilesInTempDir(folder)) {
            archive->setStatus(CVArchive::MultimediaManipulationFailed);
            return archive->status();
        }
    }
    if (start(m_destinationArchive, archive))
        archive->bundle(folder, destination);
    const std::int32_t status = waitForEnd(m_destinationArchive);
    if (status != CVArchive::Success || !isWhole(*archive, destination)) {
        takeFailure(*archive, false);
        return status != CVArchive::Success ? status : CVArchive::InvalidFile;
    }
    return status;
}

bool CVArchiveConverter::manipulateFilesInTempDir(const QString &folder)
{
    const double top = std::max(entriesDirectlyIn(folder), 1.0);
    double counter = 1;
    CVMediaWalk walk;
    walk.folder = folder;
    walk.audioFileFormat = audioFileFormat;
    walk.stop = m_stop.get_token();
    walk.pathDone = [&] {
        m_delegate.archiveConverterHasMadeProgress(this, 1 + std::min(counter / top / mediaScale, 1.0),
                                                   thirds);
        counter += mediaStep;
    };
    const CVMediaWalk::Result result = walk.run();
    if (!result.succeeded)
        m_failureReason =
            QCoreApplication::translate("CVArchiveConverter", "“%1” could not be made smaller. %2")
                .arg(result.failedFile, result.reason);
    return result.succeeded;
}

bool CVArchiveConverter::isWhole(const CVArchive &archive, const QString &destination)
{
    if (!archive.createdWhole())
        return false;
    const QString written = archive.chunkSize > 0 ? destination + u".001"_s : destination;
    struct stat status = {};
    return ::stat(bytesOfFileName(written).constData(), &status) == 0 && status.st_size > 0;
}

void CVArchiveConverter::takeFailure(const CVArchive &archive, bool inTemporaryFolder)
{
    m_failureReason = archive.failureReason();
    m_systemError = archive.systemError();
    m_failedInTemporaryFolder = inTemporaryFolder;
    // Tools say it in words only.
    if (m_systemError == 0 && m_failureReason.contains(QString::fromLocal8Bit(std::strerror(ENOSPC))))
        m_systemError = ENOSPC;
}

void CVArchiveConverter::takeOutcome(std::int32_t status)
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_outcome)
            return;
        m_outcome = status;
    }
    m_changed.notify_all();
}

void CVArchiveConverter::archiveFinished(CVArchive *)
{
    takeOutcome(CVArchive::Success);
}

void CVArchiveConverter::archiveFailed(CVArchive *, std::int32_t status)
{
    takeOutcome(status);
}

void CVArchiveConverter::archiveCancelled(CVArchive *archive)
{
    takeOutcome(archive->status());
}

void CVArchiveConverter::archiveHasMadeProgress(CVArchive *archive, double done, double total)
{
    if (done <= 0)
        return;
    bool packing = false;
    {
        const std::lock_guard lock(m_mutex);
        packing = archive == m_destinationArchive.get();
    }
    if (isCancelled()) {
        // A cancel between the making of the back end and its start is forgotten by the start.
        if (!packing)
            archive->cancelExtract();
        return;
    }
    const double share = total > 0 ? std::min(done / total, 1.0) : 1.0;
    m_delegate.archiveConverterHasMadeProgress(this, packing ? 2 + share : share, thirds);
}

std::optional<QString> CVArchiveConverter::archiveWantsPassword(CVArchive *)
{
    return isCancelled() ? std::nullopt : m_delegate.archiveConverterWantsPassword(this);
}

bool CVArchiveConverter::archiveMayExceedLimit(CVArchive *, const QString &explanation)
{
    // What does not fit here may fit there, where the person is asked if it does not.
    if (m_hasMoreRoom) {
        m_hasDeclinedLimit = true;
        return false;
    }
    return !isCancelled() && m_delegate.archiveConverterMayExceedLimit(this, explanation);
}
