#include "jobs/CVCreateArchiveOperation.h"

#include "engine/model/CVEditArchiveOperationDataBinding.h"
#include "engine/model/CVOperationDelegate.h"
#include "engine/model/CVOperationHelper.h"
#include "engine/model/CVSettings.h"
#include "jobs/CVArchiveDelivery.h"
#include "jobs/CVJobFolders.h"
#include "jobs/CVPackingTree.h"
#include "jobs/media/CVMediaWalk.h"
#include "util/LXDisplay.h"
#include "util/LXFileName.h"
#include "util/LXLog.h"
#include "util/LXMainThread.h"
#include "util/path_parts.h"

#include <QCoreApplication>

#include <cerrno>
#include <cstring>

#include <sys/stat.h>
#include <sys/statvfs.h>

using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(lcCreate, "corvane.jobs.create")

/// More names say no more.
constexpr qsizetype changedFilesNamed = 10;
/// Tools give up with less than this to spare, and often without a word about why.
constexpr unsigned long fullDiskBytes = 64 * 1024;

QString tr(const char *text)
{
    return QCoreApplication::translate("CVCreateArchiveOperation", text);
}

int makeFolder(const QString &path, mode_t mode)
{
    return ::mkdir(bytesOfFileName(path).constData(), mode) == 0 ? 0 : errno;
}

qint64 sizeOf(const QString &path)
{
    struct stat facts;
    return ::lstat(bytesOfFileName(path).constData(), &facts) == 0 && S_ISREG(facts.st_mode) ? facts.st_size
                                                                                             : 0;
}

} // namespace

CVCreateArchiveOperation::CVCreateArchiveOperation(std::shared_ptr<CVCreateOperationDataBinding> data)
    : m_data(std::move(data))
{}

CVCreateArchiveOperation::~CVCreateArchiveOperation() = default;

QString CVCreateArchiveOperation::taskDescription() const
{
    return tr("Create “%1”").arg(LXDisplay::displayName(m_data->fileName()));
}

QString CVCreateArchiveOperation::destination() const
{
    return m_destinationPath + (m_destinationPath.endsWith(u'/') ? QString() : u"/"_s) + m_fileName;
}

void CVCreateArchiveOperation::main()
{
    end(run());
}

CVCreateArchiveOperation::Step CVCreateArchiveOperation::run()
{
    CVPackingTree tree(stopToken());
    if (auto ended = prepare(tree))
        return ended;
    if (auto ended = chooseFolders())
        return ended;
    if (auto ended = askAboutItemsInTheWay(tree))
        return ended;
    if (auto ended = fill(tree))
        return ended;
    if (auto ended = makeMediaSmaller())
        return ended;
    if (const auto applied = tree.applyFolderAttributes(); !applied)
        return applied.error();
    if (auto ended = pack())
        return ended;
    if (auto ended = deliver())
        return ended;
    tellWhatIsMissing(tree);
    return std::nullopt;
}

void CVCreateArchiveOperation::end(const Step &how)
{
    m_folders.reset();
    m_data->setArchive(nullptr);
    m_data->setChunkSize(0);
    if (!endOnce())
        return;
    if (!how && m_deliveredVolumes)
        delegate()->operationCompletedWithFilesAtPaths(this, {m_delivered}, true);
    else if (!how)
        delegate()->operationCompletedWithFilesAtPath(this, m_delivered, false);
    else if (const auto *mismatch = std::get_if<PasswordMismatch>(&*how))
        delegate()->operationFailedWithPasswordMismatchError(mismatch->error);
    else if (const auto *error = std::get_if<LXError>(&*how); error && !isCancelled())
        delegate()->operationFailedWithError(this, *error);
    else
        delegate()->operationWasCancelled(this);
}

// Everything that can be known before something is made on disk.
CVCreateArchiveOperation::Step CVCreateArchiveOperation::prepare(CVPackingTree &tree)
{
    m_usingCorvaneZipCompression = m_data->shouldUseZipCompressionForCorvaneFormat();
    if (m_usingCorvaneZipCompression)
        m_data->setToZip();
    m_fileName = m_data->fileName();
    m_chunkSize = m_data->chunkSize();
    m_countsMediaInProgress = m_data->canManipulateMultimedia();

    const auto files = delegate()->operationInputFiles(this);
    if (files) {
        files->setIgnoreMacHiddenFiles(CVSettings::boolean(CVSettingsKey::ignoreMacSpecificFiles));
        files->setTreatAppBundlesAsFiles(false);
    }
    const double factor = m_countsMediaInProgress || m_usingCorvaneZipCompression ? 3 : 2;
    m_maxProgress = factor * (files ? static_cast<double>(files->count()) - 1 : 0);

    delegate()->operationWorkingOnJob(
        this, tr("Creating “%1”").arg(LXDisplay::displayName(lastComponent(m_fileName))));
    delegate()->operationProgressIconForFilename(this, lastComponent(m_fileName), false);

    if (auto ended = checkPasswords())
        return ended;
    if (m_chunkSize != 0 && !CVArchive::archiveForCreating(m_fileName)->canWriteVolumes()) {
        LXError error = CVOperationHelper::errorWithMessage(
            tr("Error creating archive"), tr("Archives of this format can't be split into volumes."));
        error.suggestion = tr("Choose another format, or a single file.");
        return error;
    }
    if (files) {
        if (const auto read = tree.read(*files); !read)
            return read.error();
        if (const auto children = files->children(); !children.empty())
            m_inputFile = children.front()->filename();
    }
    if (isCancelled())
        return Cancelled{};
    if (tree.isEmpty()) {
        LXError error = CVOperationHelper::errorWithMessage(tr("Error creating archive"),
                                                            tr("There is nothing to pack."));
        for (const CVSkippedEntry &entry : tree.skipped())
            error.suggestion += (error.suggestion.isEmpty() ? QString() : u"; "_s) +
                                u"“%1”: %2"_s.arg(LXDisplay::displayEscaped(entry.name), entry.reason);
        return error;
    }
    return std::nullopt;
}

bool CVCreateArchiveOperation::userWantsPassword() const
{
    return m_data->canEncrypt() && m_data->shouldEncrypt();
}

CVCreateArchiveOperation::Step CVCreateArchiveOperation::checkPasswords() const
{
    if (!userWantsPassword())
        return std::nullopt;
    // Who asked for encryption must not get an archive without it.
    if (m_data->password().isEmpty() && m_data->passwordConfirmation().isEmpty() &&
        !m_usingCorvaneZipCompression)
        return PasswordMismatch{CVOperationHelper::errorWithMessage(m_data->passwordMessage(), {})};
    if (m_data->password() == m_data->passwordConfirmation())
        return std::nullopt;
    return PasswordMismatch{CVOperationHelper::errorWithMessage(tr("The passwords don't match."),
                                                                tr("Please enter your password again."))};
}

CVCreateArchiveOperation::Step CVCreateArchiveOperation::chooseFolders()
{
    const auto chosen = CVJobFolders::choose(*this, u"Create"_s, m_inputFile);
    if (!chosen)
        return chosen.error();
    if (chosen.value().wasRefused) {
        const QString text = tr("Corvane unauthorized");
        return LXError{.domain = text, .code = 1, .description = text, .reason = {}, .suggestion = {}};
    }
    m_folders = chosen.value().folders;
    if (!m_folders)
        return Cancelled{};
    m_destinationPath = m_folders->outputDirectory();
    m_workDir = m_folders->workDirectory();
    // Files from folders that are closed to others must not become open to them on their way.
    ::chmod(bytesOfFileName(m_workDir).constData(), 0700);
    return std::nullopt;
}

bool CVCreateArchiveOperation::agreesToReplace(const QString &path)
{
    return delegate()->operationNeedsToAskWhetherToReplaceFileAtPath(this, path) == CVAlertResult::Default &&
           !isCancelled();
}

CVCreateArchiveOperation::Step CVCreateArchiveOperation::askAboutItemsInTheWay(CVPackingTree &tree)
{
    if (tree.isInputOrAbove(destination())) {
        LXError error = CVOperationHelper::errorWithMessage(
            tr("Error creating archive"),
            tr("“%1” would take the place of what is to be packed.").arg(LXDisplay::displayName(m_fileName)));
        error.suggestion = tr("Choose another name.");
        return error;
    }
    const QStringList items = CVArchiveDelivery::itemsInTheWay(destination(), m_chunkSize != 0);
    if (items.isEmpty())
        return std::nullopt;
    if (!agreesToReplace(items.first()))
        return Cancelled{};
    m_mayReplace = true;
    for (const QString &item : items)
        tree.leaveOut(item);
    return std::nullopt;
}

// One item further in the part of the progress that counts items.
void CVCreateArchiveOperation::step()
{
    m_progress += 1;
    delegate()->operationHasMadeProgress(this, m_progress, m_maxProgress);
}

QString CVCreateArchiveOperation::wordAboutDisk(int systemError) const
{
    struct statvfs space;
    const bool isFull = systemError == ENOSPC || systemError == EDQUOT ||
                        (::statvfs(bytesOfFileName(m_workDir).constData(), &space) == 0 &&
                         space.f_bavail * space.f_frsize < fullDiskBytes);
    if (isFull)
        return tr("The disk with “%1” is full.").arg(LXDisplay::displayName(m_destinationPath));
    return systemError == 0 ? QString() : QString::fromLocal8Bit(std::strerror(systemError));
}

LXError CVCreateArchiveOperation::creationError(const QString &suggestion) const
{
    LXError error = CVOperationHelper::errorWithMessage(
        tr("Error creating archive"),
        tr("An unknown error occurred, please make sure you have enough disk space and that you have "
           "permissions to write to the destination folder."));
    error.suggestion = suggestion;
    return error;
}

CVCreateArchiveOperation::Step CVCreateArchiveOperation::fill(CVPackingTree &tree)
{
    // The tree's own mode may end up in the archive, so it is an ordinary one.
    for (const auto &folder : {u"/tree"_s, u"/archive"_s}) {
        if (const int failure = makeFolder(QString(m_workDir + folder), 0777))
            return creationError(wordAboutDisk(failure));
    }
    const auto filled = tree.linkInto(m_workDir + u"/tree"_s, [this] { step(); });
    if (isCancelled())
        return Cancelled{};
    if (filled)
        return std::nullopt;
    if (tree.systemError() != 0)
        return creationError(wordAboutDisk(tree.systemError()));
    return filled.error();
}

CVCreateArchiveOperation::Step CVCreateArchiveOperation::makeMediaSmaller()
{
    if (!m_countsMediaInProgress && !m_usingCorvaneZipCompression)
        return std::nullopt;
    const CVMediaWalk::Result result = CVMediaWalk{
        .folder = m_workDir + u"/tree"_s,
        .imageFileFormat = m_data->imageFileFormat(),
        .audioFileFormat = m_data->audioFileFormat(),
        .stop = stopToken(),
        .pathDone = [this] { step(); }}.run();
    if (isCancelled())
        return Cancelled{};
    if (result.succeeded)
        return std::nullopt;
    QString suggestion = result.reason;
    if (!result.failedFile.isEmpty())
        suggestion = tr("“%1” could not be converted.").arg(LXDisplay::displayEscaped(result.failedFile)) +
                     (result.reason.isEmpty() ? QString() : u' ' + result.reason);
    // The converters have only words for it, and have removed what they had written.
    const bool isFull = result.reason.contains(QString::fromLocal8Bit(std::strerror(ENOSPC)));
    if (const QString disk = wordAboutDisk(isFull ? ENOSPC : 0); !disk.isEmpty())
        suggestion += u' ' + disk;
    LX_WARNING(lcCreate, "%s: %s",
               qUtf8Printable(CVArchive::statusToString(CVArchive::MultimediaManipulationFailed)),
               qUtf8Printable(suggestion));
    return creationError(suggestion);
}

CVCreateArchiveOperation::Step CVCreateArchiveOperation::pack()
{
    auto archive = CVArchive::archiveForCreating(destination());
    m_data->setArchive(archive);
    if (archive->canEncrypt() && userWantsPassword() && !m_usingCorvaneZipCompression)
        archive->encryptWith(m_data->password());
    if (archive->canSetCompressionLevel())
        archive->compressionLevel = m_data->compressionLevel();
    archive->chunkSize = m_chunkSize;

    const std::int32_t status = runBackEnd(*archive);
    Step ended = judge(*archive, status);
    m_data->setArchive(nullptr);
    // Its timer lives on the main thread and has to be released there; which may be waiting for this job.
    LXMainThread::post([archive = std::move(archive)] {});
    return ended;
}

// Whether there is a whole archive now.
CVCreateArchiveOperation::Step CVCreateArchiveOperation::judge(const CVArchive &archive,
                                                               std::int32_t status) const
{
    if (isCancelled() || status == CVArchive::Cancelled)
        return Cancelled{};
    const CVArchiveDelivery delivery(m_workDir + u"/archive"_s, destination());
    const bool isThere = delivery.hasStagedVolumes() || sizeOf(delivery.stagedPath()) > 0;
    if (status == CVArchive::Success && isThere && archive.createdWhole())
        return std::nullopt;
    LX_WARNING(lcCreate, "%s: %s %s", qUtf8Printable(m_fileName),
               qUtf8Printable(CVArchive::statusToString(status)), qUtf8Printable(archive.failureReason()));
    QString suggestion = wordAboutDisk(archive.systemError());
    if (!archive.failureReason().isEmpty())
        suggestion += (suggestion.isEmpty() ? QString() : u" "_s) +
                      LXDisplay::displayEscaped(archive.failureReason().simplified()); // tools speak in lines
    if (suggestion.isEmpty() && status == CVArchive::Unsupported)
        suggestion = tr("Archives of this format can't be created here.");
    return creationError(suggestion);
}

std::int32_t CVCreateArchiveOperation::runBackEnd(CVArchive &archive)
{
    {
        const std::lock_guard lock(m_mutex);
        m_outcome.reset();
    }
    archive.setDelegate(this);
    const CVArchiveDelivery delivery(m_workDir + u"/archive"_s, destination());
    archive.bundle(m_workDir + u"/tree"_s, delivery.stagedPath());
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, stopToken(), [this] { return m_outcome.has_value(); });
    if (!m_outcome) {
        lock.unlock();
        // First, so that a start that is still on its way to the main thread does not happen.
        archive.setCancelledStatus();
        archive.cancelCreate();
        lock.lock();
    }
    const std::int32_t status = m_outcome.value_or(CVArchive::Cancelled);
    lock.unlock();
    archive.setDelegate(nullptr);
    return status;
}

CVCreateArchiveOperation::Step CVCreateArchiveOperation::deliver()
{
    const CVArchiveDelivery delivery(m_workDir + u"/archive"_s, destination());
    m_deliveredVolumes = delivery.hasStagedVolumes();
    while (!isCancelled()) {
        const auto result =
            m_deliveredVolumes ? delivery.deliverVolumes(m_mayReplace) : delivery.deliverFile(m_mayReplace);
        if (const auto *path = std::get_if<QString>(&result)) {
            m_delivered = *path;
            return std::nullopt;
        }
        if (const auto *error = std::get_if<LXError>(&result))
            return *error;
        // It has appeared since the start.
        if (!agreesToReplace(std::get<CVArchiveDelivery::Exists>(result).path))
            return Cancelled{};
        m_mayReplace = true;
    }
    return Cancelled{};
}

void CVCreateArchiveOperation::tellWhatIsMissing(const CVPackingTree &tree)
{
    if (!tree.skipped().empty())
        delegate()->operationSkippedEntries(this, m_delivered, tree.skipped());
    const QStringList changed = tree.changedFiles();
    if (changed.isEmpty())
        return;
    QString names;
    for (const QString &name : changed.first(std::min(changed.size(), changedFilesNamed)))
        names += (names.isEmpty() ? u"“"_s : u", “"_s) + LXDisplay::displayEscaped(name) + u'”';
    if (changed.size() > changedFilesNamed)
        names += u' ' + tr("… and %1 more").arg(changed.size() - changedFilesNamed);
    LXError error = CVOperationHelper::errorWithMessage(
        tr("Some files changed while “%1” was created, so they may be in it half old and half new.")
            .arg(LXDisplay::displayName(m_delivered)),
        names);
    error.suggestion = tr("Close the programs that write to them, and create the archive again.");
    delegate()->operationNeedsToShowError(this, error);
}

void CVCreateArchiveOperation::takeOutcome(std::int32_t status)
{
    // The worker may end the job as soon as it hears of it, and this call is on another thread.
    const auto self = weak_from_this().lock();
    const std::lock_guard lock(m_mutex);
    if (!m_outcome)
        m_outcome = status;
    m_changed.notify_all();
}

void CVCreateArchiveOperation::archiveFinished(CVArchive *)
{
    takeOutcome(CVArchive::Success);
}

void CVCreateArchiveOperation::archiveFailed(CVArchive *, std::int32_t status)
{
    takeOutcome(status);
}

void CVCreateArchiveOperation::archiveCancelled(CVArchive *)
{
    takeOutcome(CVArchive::Cancelled);
}

void CVCreateArchiveOperation::archiveHasMadeProgress(CVArchive *, double done, double total)
{
    if (done == 0 || isCancelled())
        return;
    const double before = m_countsMediaInProgress ? 2 : 1;
    delegate()->operationHasMadeProgress(this, done + before * total, (before + 1) * total);
}

std::optional<QString> CVCreateArchiveOperation::archiveWantsPassword(CVArchive *)
{
    return std::nullopt;
}
