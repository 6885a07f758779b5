#include "jobs/CVExtractArchivesOperation.h"

#include "archives/archive_string.h"
#include "engine/model/CVOpenedEntries.h"
#include "engine/model/CVOperationDelegate.h"
#include "engine/model/CVOperationHelper.h"
#include "engine/model/CVSettings.h"
#include "jobs/CVExtractionDelivery.h"
#include "jobs/CVJobFolders.h"
#include "platform/LXTrash.h"
#include "util/LXDisplay.h"
#include "util/LXFileName.h"
#include "util/LXLog.h"
#include "util/path_parts.h"

#include <QCollator>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSet>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(lcExtract, "corvane.jobs.extract")

QString tr(const char *text)
{
    return QCoreApplication::translate("CVExtractArchivesOperation", text);
}

// At least 1, so that every archive is a part of its batch.
double sizeOfFile(const QString &path)
{
    struct stat facts;
    if (::stat(bytesOfFileName(path).constData(), &facts) != 0)
        return 1;
    return std::max(static_cast<double>(facts.st_size), 1.0);
}

QString withoutLastExtension(const QString &name)
{
    const qsizetype dot = name.lastIndexOf(u'.');
    // A leading dot hides a file, it does not begin an extension.
    return dot > 0 ? name.left(dot) : name;
}

} // namespace

CVExtractArchivesOperation::CVExtractArchivesOperation()
    : m_archiveMaker([](const QString &path) { return CVArchive::archiveForExtracting(path); })
{}

CVExtractArchivesOperation::~CVExtractArchivesOperation() = default;

void CVExtractArchivesOperation::setSingleFiles(const QStringList &paths)
{
    const std::lock_guard lock(m_mutex);
    m_singleFiles = paths;
}

std::optional<QStringList> CVExtractArchivesOperation::singleFiles() const
{
    const std::lock_guard lock(m_mutex);
    return m_singleFiles;
}

void CVExtractArchivesOperation::setSourceArchive(std::shared_ptr<CVArchive> archive)
{
    const std::lock_guard lock(m_mutex);
    m_sourceArchive = std::move(archive);
}

void CVExtractArchivesOperation::setDestinationPath(const QString &path)
{
    const std::lock_guard lock(m_mutex);
    m_destinationPath = path;
}

QString CVExtractArchivesOperation::destinationPath() const
{
    const std::lock_guard lock(m_mutex);
    return m_destinationPath;
}

void CVExtractArchivesOperation::setOpeningSingleFile(bool opening)
{
    const std::lock_guard lock(m_mutex);
    m_openingSingleFile = opening;
}

bool CVExtractArchivesOperation::openingSingleFile() const
{
    const std::lock_guard lock(m_mutex);
    return m_openingSingleFile;
}

void CVExtractArchivesOperation::setArchiveMaker(ArchiveMaker maker)
{
    m_archiveMaker = std::move(maker);
}

QStringList CVExtractArchivesOperation::destinationPaths() const
{
    const std::lock_guard lock(m_mutex);
    return m_destinationPaths;
}

QString CVExtractArchivesOperation::sourcePath() const
{
    const std::lock_guard lock(m_mutex);
    return m_sourcePath;
}

QStringList CVExtractArchivesOperation::sourcePathsByFlatteningSourcePaths(const QStringList &paths)
{
    if (paths.size() == 1 && !isMultipartArchive(paths.first()))
        return paths;
    QCollator collator;
    std::vector<std::pair<QCollatorSortKey, qsizetype>> order;
    order.reserve(static_cast<std::size_t>(paths.size()));
    for (qsizetype i = 0; i < paths.size(); ++i)
        order.emplace_back(collator.sortKey(paths[i]), i);
    std::stable_sort(order.begin(), order.end(),
                     [](const auto &a, const auto &b) { return a.first.compare(b.first) < 0; });

    // What a path belongs to, and what is kept, each found at once instead of by going over the list.
    QSet<std::pair<int, QString>> keptSets;
    QSet<QString> keptPaths;
    QStringList kept;
    const auto keep = [&](const QString &path) {
        kept.append(path);
        keptPaths.insert(path);
        keptSets.insert(
            {static_cast<int>(multipartArchiveType(path)), stringByDeletingArchivePathExtension(path)});
    };
    for (const auto &[key, index] : order) {
        const QString &path = paths[index];
        const auto type = multipartArchiveType(path);
        const bool belongs =
            type != CVMultipartArchiveType::None &&
            keptSets.contains({static_cast<int>(type), stringByDeletingArchivePathExtension(path)});
        if (belongs)
            continue;
        if (type == CVMultipartArchiveType::SevenZip) {
            const QString first = firstPartOf7ZipArchive(path);
            if (!keptPaths.contains(first) && QFile::exists(first)) {
                keep(first);
                continue;
            }
        }
        keep(path);
    }
    return kept;
}

QString CVExtractArchivesOperation::taskDescription() const
{
    const std::lock_guard lock(m_mutex);
    QStringList sources = m_flattened;
    if (m_singleFiles) {
        if (m_sourceArchive)
            sources = {m_sourceArchive->sourcePath};
        QString text = tr("Extract from “%1”:")
                           .arg(LXDisplay::displayName(sources.isEmpty() ? QString() : sources.first()));
        for (const QString &file : *m_singleFiles)
            text += u"\n- "_s + LXDisplay::displayName(file);
        return text;
    }
    if (sources.isEmpty())
        return {};
    if (sources.size() == 1)
        return tr("Extract “%1”").arg(LXDisplay::displayName(sources.first()));
    QString text = tr("Extract:");
    for (const QString &source : sources)
        text += u"\n- "_s + LXDisplay::displayName(source);
    return text;
}

QString CVExtractArchivesOperation::titleForExtractJob() const
{
    const QString name = LXDisplay::displayName(sourcePath());
    if (m_total < 2)
        return tr("Opening “%1”").arg(name);
    return tr("Opening “%1” (%2 of %3)")
        .arg(name, QString::number(m_extracted + 1), QString::number(m_total));
}

CVBatchPosition CVExtractArchivesOperation::batchPosition() const
{
    const std::size_t last = std::min(m_extracted, m_total - 1);
    return {.number = static_cast<qsizetype>(last) + 1,
            .count = static_cast<qsizetype>(m_total),
            .shareBefore = last == 0 ? 0 : m_shares[last - 1],
            .shareAfter = m_shares[last]};
}

CVExtractArchivesOperation::Source
CVExtractArchivesOperation::sourceFromArchive(const std::shared_ptr<CVArchive> &archive) const
{
    return {.path = archive->sourcePath, .password = archive->password};
}

void CVExtractArchivesOperation::main()
{
    const auto previewed = delegate()->operationNeedsPreviewedArchives(this);
    const QStringList paths =
        sourcePathsByFlatteningSourcePaths(delegate()->operationPathsToInputFiles(this));
    std::vector<Source> sources;
    {
        const std::lock_guard lock(m_mutex);
        m_flattened = paths;
        m_destinationPaths.clear();
        m_invalidPasswordEntered = false;
        if (m_singleFiles) {
            if (m_sourceArchive)
                sources.push_back(sourceFromArchive(m_sourceArchive));
        } else if (previewed.empty()) {
            for (const QString &path : paths)
                sources.push_back({.path = path, .password = {}});
        } else {
            for (const auto &archive : previewed)
                sources.push_back(sourceFromArchive(archive));
        }
    }
    m_total = sources.size();
    m_extracted = 0;
    m_shares.clear();
    double bytes = 0;
    for (const Source &source : sources)
        m_shares.push_back(bytes += sizeOfFile(source.path));
    for (double &share : m_shares)
        share /= bytes;
    for (const Source &source : sources) {
        Source now = source;
        Next next = Next::Again;
        m_keepDestination = false;
        while ((next = extract(now)) == Next::Again) {
            now.password.reset(); // its password did not fit
            m_keepDestination = destinationSetToAskMe();
        }
        if (next == Next::Stop)
            return;
    }
    // Only without a source: the last archive ends the job itself.
    if (endOnce())
        delegate()->operationCompleted(this);
}

void CVExtractArchivesOperation::cancel()
{
    CVOperation::cancel();
    m_backEnd.cancel();
}

void CVExtractArchivesOperation::endAsCancelled()
{
    m_folders.reset();
    if (endOnce())
        delegate()->operationWasCancelled(this);
}

void CVExtractArchivesOperation::endAsFailed(const LXError &error)
{
    m_folders.reset();
    if (endOnce())
        delegate()->operationFailedWithError(this, error);
}

bool CVExtractArchivesOperation::destinationSetToAskMe() const
{
    return !singleFiles() && CVOperation::destinationSetToAskMe();
}

LXResult<QString> CVExtractArchivesOperation::makeWorkDirectoryForEntries()
{
    return CVOperationHelper(stopToken()).createWorkDirectoryInPath(destinationPath(), fileAuthenticator());
}

LXResult<CVJobFolders::Choice> CVExtractArchivesOperation::chooseFolders()
{
    QStringList alsoRead;
    auto access = CVJobFolders::Access::UnlessChosen;
    if (isMultipartArchive(sourcePath())) {
        alsoRead.append(parentPath(sourcePath()));
        access = CVJobFolders::Access::Always;
    }
    const bool isOpening = singleFiles() && openingSingleFile();
    if (isOpening)
        setDestinationPath(QDir::tempPath());
    const auto take = [&](const LXResult<QString> &workDirectory) {
        return CVJobFolders::take(*this, workDirectory, destinationPath(), alsoRead, access);
    };
    if (isOpening) {
        const auto made = CVOperationHelper::createWorkDirectoryInPath(destinationPath());
        if (made)
            CVOpenedEntries::willFill(made.value());
        return take(made);
    }
    if (!singleFiles() && m_keepDestination)
        return take(CVOperationHelper::createWorkDirectoryInPath(destinationPath()));
    if (singleFiles())
        return take(makeWorkDirectoryForEntries());
    return CVJobFolders::choose(*this, u"Extract"_s, sourcePath(), alsoRead, access);
}

CVExtractArchivesOperation::Next CVExtractArchivesOperation::extract(const Source &source)
{
    {
        const std::lock_guard lock(m_mutex);
        m_sourcePath = source.path;
    }
    if (isCancelled()) {
        endAsCancelled();
        return Next::Stop;
    }
    delegate()->operationWorkingOnJob(this, titleForExtractJob());
    delegate()->operationProgressIconForFilename(this, source.path, false);
    if (m_total > 1)
        delegate()->operationHasReachedArchive(this, batchPosition());

    auto chosen = chooseFolders();
    if (!chosen) {
        endAsFailed(chosen.error());
        return Next::Stop;
    }
    m_folders = std::move(chosen.value().folders);
    if (!m_folders) {
        endAsCancelled();
        return Next::Stop;
    }
    setDestinationPath(m_folders->outputDirectory());

    const auto archive = m_archiveMaker(source.path);
    archive->password = source.password;
    const std::int32_t status = runBackEnd(archive);
    const Next next =
        status == CVArchive::Success && !isCancelled() ? succeeded(*archive) : failed(*archive, status);
    m_folders.reset();
    return next;
}

std::int32_t CVExtractArchivesOperation::runBackEnd(const std::shared_ptr<CVArchive> &archive)
{
    QString path;
    {
        const std::lock_guard lock(m_mutex);
        path = m_sourcePath;
        archive->singleFilesToBeExtracted = m_singleFiles;
    }
    if (isCancelled())
        archive->setCancelledStatus();
    return m_backEnd.run(
        archive, this, path, stopToken(), [&] { archive->open(path, m_folders->workDirectory()); },
        [&] { return archive->extractFile == path; });
}

CVExtractArchivesOperation::Next CVExtractArchivesOperation::succeeded(CVArchive &archive)
{
    const bool whole = !singleFiles().has_value();
    const auto &skipped = archive.skippedEntries();
    if (!skipped.empty()) {
        for (const CVSkippedEntry &entry : skipped)
            qCInfo(lcExtract, "left out of %s: %s: %s", qUtf8Printable(sourcePath()),
                   qUtf8Printable(LXDisplay::displayEscaped(entry.name)), qUtf8Printable(entry.reason));
        delegate()->operationSkippedEntries(this, sourcePath(), skipped);
    }
    if (!deliver())
        return Next::Stop;
    // What was left out exists nowhere but in the archive. And who cancels wants nothing more to happen.
    if (whole && !openingSingleFile() && skipped.empty() && !isCancelled())
        decideFate();
    ++m_extracted;
    if (openingSingleFile()) {
        CVOpenedEntries::wereDelivered(m_folders->workDirectory());
        m_folders->keepWorkDirectory();
    }
    return endStep(m_extracted >= m_total);
}

CVExtractArchivesOperation::Next CVExtractArchivesOperation::endStep(bool last)
{
    if (!last)
        return Next::Archive;
    m_folders.reset();
    if (endOnce())
        delegate()->operationCompletedWithFilesAtPaths(this, destinationPaths(), true);
    return Next::Stop;
}

bool CVExtractArchivesOperation::deliver()
{
    CVExtractionDelivery delivery(*m_folders, openingSingleFile() ? CVExtractionDelivery::Way::Stay
                                                                  : CVExtractionDelivery::Way::Move);
    const auto files = singleFiles();
    const auto result = files ? delivery.deliverEntries(*files)
                              : delivery.deliverEverything(withoutLastExtension(lastComponent(sourcePath())));
    {
        const std::lock_guard lock(m_mutex);
        m_destinationPaths += delivery.delivered();
    }
    if (result)
        return true;
    LX_WARNING(lcExtract, "%s %s", qUtf8Printable(result.error().description),
               qUtf8Printable(result.error().suggestion));
    endAsFailed(result.error());
    return false;
}

void CVExtractArchivesOperation::decideFate()
{
    const qint64 setting = CVSettings::integer(CVSettingsKey::archiveFateAfterExtract);
    const auto fate = static_cast<CVArchiveFate>(setting);
    switch (setting) {
    case static_cast<qint64>(CVArchiveFate::Keep):
        return;
    case static_cast<qint64>(CVArchiveFate::Trash):
    case static_cast<qint64>(CVArchiveFate::Delete):
        break;
    default:
        LX_WARNING(lcExtract, "unknown option %ld for archive fate after extract",
                   static_cast<long>(setting));
        return;
    }
    QStringList failures;
    for (const QString &path : pathsBelongingToArchiveAtPath(sourcePath())) {
        QString reason;
        if (fate == CVArchiveFate::Trash) {
            if (const auto result = LXTrash::shared()->moveToTrash(path); !result) {
                reason = result.error().reason;
                LX_WARNING(lcExtract, "ERROR: failed to trash %s after extract: %s", qUtf8Printable(path),
                           qUtf8Printable(reason));
            }
        } else if (::unlink(bytesOfFileName(path).constData()) != 0) {
            reason = QString::fromLocal8Bit(std::strerror(errno));
            LX_WARNING(lcExtract, "  error deleting %s after extract: %s", qUtf8Printable(path),
                       qUtf8Printable(reason));
        }
        if (!reason.isEmpty())
            failures.append(u"“%1”: %2"_s.arg(LXDisplay::displayName(path), reason));
    }
    if (failures.isEmpty())
        return;
    LXError error = CVOperationHelper::errorWithMessage(
        fate == CVArchiveFate::Trash ? tr("The archive was extracted, but could not be moved to the trash.")
                                     : tr("The archive was extracted, but could not be deleted."),
        failures.join("; "_L1));
    error.suggestion = tr("It is still where it was.");
    delegate()->operationNeedsToShowError(this, error);
}

LXError CVExtractArchivesOperation::errorForFailedArchive(const CVArchive &archive) const
{
    const QString name = LXDisplay::displayName(sourcePath());
    // A full or read-only disk is not the archive's fault; the person can do something about it.
    if (archive.systemError() != 0)
        return CVOperationHelper::errorForSystemError(archive.systemError(), sourcePath(), destinationPath());
    // An archive in the archive is unpacked to the temporary folder first, of which only words come back.
    for (const int failure : {ENOSPC, EMFILE, ENFILE, ENOMEM}) {
        if (archive.failureReason().contains(QString::fromLocal8Bit(std::strerror(failure))))
            return CVOperationHelper::errorForSystemError(failure, sourcePath(), QDir::tempPath());
    }
    LXError error = CVOperationHelper::errorWithMessage(
        tr("The file “%1” could not be opened.").arg(name),
        tr("The archive could not be opened, possibly because it is incomplete or corrupt."));
    error.suggestion = archive.failureReason();
    return error;
}

CVExtractArchivesOperation::Next CVExtractArchivesOperation::failed(CVArchive &archive, std::int32_t status)
{
    if (status == CVArchive::Cancelled || isCancelled()) {
        endAsCancelled();
        return Next::Stop;
    }
    if (status == CVArchive::InvalidPassword) {
        const std::lock_guard lock(m_mutex);
        m_invalidPasswordEntered = true;
        return Next::Again;
    }
    // Before the person is asked, which may take long.
    m_folders.reset();
    const LXError error = errorForFailedArchive(archive);
    ++m_extracted;
    if (m_extracted < m_total) {
        const auto answer = delegate()->operationNeedsToAskWhetherToContinueAfterArchiveAtPath(
            this, LXDisplay::displayName(sourcePath()), error);
        if (answer == CVAlertResult::Cancel || isCancelled()) {
            endAsCancelled();
            return Next::Stop;
        }
        return Next::Archive;
    }
    if (destinationPaths().isEmpty()) {
        endAsFailed(error);
        return Next::Stop;
    }
    delegate()->operationNeedsToShowError(this, error);
    return endStep(true);
}

void CVExtractArchivesOperation::archiveFinished(CVArchive *)
{
    m_backEnd.report(CVArchive::Success);
}

void CVExtractArchivesOperation::archiveFailed(CVArchive *, std::int32_t status)
{
    m_backEnd.report(status);
}

void CVExtractArchivesOperation::archiveCancelled(CVArchive *)
{
    m_backEnd.report(CVArchive::Cancelled);
}

void CVExtractArchivesOperation::archiveHasMadeProgress(CVArchive *archive, double done, double total)
{
    if (isCancelled()) {
        // A cancel between the making of the back end and its start is forgotten by the start.
        archive->cancelExtract();
        return;
    }
    delegate()->operationHasMadeProgress(this, done, total);
}

std::optional<QString> CVExtractArchivesOperation::archiveWantsPassword(CVArchive *)
{
    if (isCancelled())
        return std::nullopt;
    bool failed = false;
    {
        const std::lock_guard lock(m_mutex);
        failed = std::exchange(m_invalidPasswordEntered, false);
    }
    return delegate()->operationNeedsPasswordForFileAtPath(this, sourcePath(), failed);
}

bool CVExtractArchivesOperation::archiveMayExceedLimit(CVArchive *, const QString &explanation)
{
    return !isCancelled() &&
           delegate()->operationNeedsToAskWhetherToExceedLimit(this, sourcePath(), explanation);
}
