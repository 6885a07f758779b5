#include "jobs/CVExtractArchivesOperation.h"

#include "archives/archive_string.h"
#include "archives/reading/CVSafePath.h"
#include "engine/model/CVOperationDelegate.h"
#include "engine/model/CVOperationHelper.h"
#include "engine/model/CVSettings.h"
#include "engine/model/CVWorkDirectoryManager.h"
#include "platform/LXTrash.h"
#include "util/LXDisplay.h"
#include "util/LXFileDescriptor.h"
#include "util/LXFileName.h"
#include "util/LXLog.h"
#include "util/LXPendingAnswer.h"
#include "util/path_parts.h"
#include "util/unique_destination.h"

#include <QCollator>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSet>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>

#include <dirent.h>
#include <fcntl.h>
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

QString withoutLastExtension(const QString &name)
{
    const qsizetype dot = name.lastIndexOf(u'.');
    // A leading dot hides a file, it does not begin an extension.
    return dot > 0 ? name.left(dot) : name;
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

QString CVExtractArchivesOperation::workDir() const
{
    const std::lock_guard lock(m_mutex);
    return m_workDir;
}

void CVExtractArchivesOperation::setWorkDir(const QString &path)
{
    const std::lock_guard lock(m_mutex);
    m_workDir = path;
}

void CVExtractArchivesOperation::addDestinationPath(const QString &path)
{
    const std::lock_guard lock(m_mutex);
    m_destinationPaths.append(path);
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
    cleanUp();
    deauthorize();
    if (endOnce())
        delegate()->operationWasCancelled(this);
}

void CVExtractArchivesOperation::endAsFailed(const LXError &error)
{
    cleanUp();
    deauthorize();
    if (endOnce())
        delegate()->operationFailedWithError(this, error);
}

CVExtractArchivesOperation::Folders CVExtractArchivesOperation::workDirectoryMade(LXResult<QString> made)
{
    if (!made) {
        endAsFailed(made.error());
        return Folders::Ended;
    }
    if (made.value().isEmpty()) { // nobody allowed it
        endAsCancelled();
        return Folders::Ended;
    }
    setWorkDir(made.value());
    return Folders::Ready;
}

CVExtractArchivesOperation::Folders CVExtractArchivesOperation::chooseFolders()
{
    CVOperationHelper helper(stopToken());
    if (singleFiles()) {
        if (openingSingleFile()) {
            setDestinationPath(QDir::tempPath());
            return workDirectoryMade(CVOperationHelper::createWorkDirectoryInPath(destinationPath()));
        }
        return workDirectoryMade(helper.createWorkDirectoryInPath(destinationPath(), fileAuthenticator()));
    }
    if (m_keepDestination)
        return workDirectoryMade(CVOperationHelper::createWorkDirectoryInPath(destinationPath()));
    const auto folders =
        CVOperationHelper::setupOutputDirectoryForOperation({.operation = u"Extract"_s,
                                                             .inputFile = sourcePath(),
                                                             .fileAuthenticator = fileAuthenticator(),
                                                             .stop = stopToken()});
    if (!folders) {
        endAsFailed(folders.error());
        return Folders::Ended;
    }
    if (!folders.value()) {
        endAsCancelled();
        return Folders::Ended;
    }
    setDestinationPath(folders.value()->outputDirectory);
    setWorkDir(folders.value()->workDirectory);
    return Folders::Ready;
}

bool CVExtractArchivesOperation::waitForAccess(const std::function<void(AuthorizedHandler)> &ask)
{
    struct Answer
    {
        bool granted;
        QString path;
    };
    const auto pending = std::make_shared<LXPendingAnswer<Answer>>();
    ask([pending](bool granted, const QString &path) { pending->give({granted, path}); });
    const auto answer = pending->wait(stopToken());
    if (!answer || !answer->granted)
        return false;
    m_authorized = answer->path;
    startSecurelyAccessing(m_authorized);
    return true;
}

void CVExtractArchivesOperation::deauthorize()
{
    if (!m_authorized.isEmpty())
        stopSecurelyAccessing(m_authorized);
    m_authorized.clear();
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

    if (chooseFolders() == Folders::Ended)
        return Next::Stop;
    const bool allowed = waitForAccess([&](AuthorizedHandler handler) {
        if (isMultipartArchive(source.path))
            runAuthorizedHandler({workDir(), source.path.left(source.path.lastIndexOf(u'/'))},
                                 std::move(handler));
        else
            runAuthorizedHandlerToDestination(workDir(), {workDir()}, std::move(handler));
    });
    if (!allowed) {
        endAsCancelled();
        return Next::Stop;
    }

    const auto archive = m_archiveMaker(source.path);
    archive->password = source.password;
    const std::int32_t status = runBackEnd(archive);
    const Next next =
        status == CVArchive::Success && !isCancelled() ? succeeded(*archive) : failed(*archive, status);
    deauthorize();
    return next;
}

std::int32_t CVExtractArchivesOperation::runBackEnd(const std::shared_ptr<CVArchive> &archive)
{
    QString path;
    QString folder;
    {
        const std::lock_guard lock(m_mutex);
        path = m_sourcePath;
        folder = m_workDir;
        archive->singleFilesToBeExtracted = m_singleFiles;
    }
    if (isCancelled())
        archive->setCancelledStatus();
    return m_backEnd.run(archive, this, path, stopToken(), [&] { archive->open(path, folder); });
}

bool CVExtractArchivesOperation::sendExtractError(const QString &message, const QString &detail)
{
    LX_WARNING(lcExtract, "%s %s", qUtf8Printable(message), qUtf8Printable(detail));
    LXError error = CVOperationHelper::errorWithMessage(message, tr("Please try again."));
    error.suggestion = detail;
    endAsFailed(error);
    return false;
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
    if (!openingSingleFile())
        cleanUp();
    return endStep(m_extracted >= m_total);
}

CVExtractArchivesOperation::Next CVExtractArchivesOperation::endStep(bool last)
{
    if (!last)
        return Next::Archive;
    deauthorize();
    if (endOnce())
        delegate()->operationCompletedWithFilesAtPaths(this, destinationPaths(), true);
    return Next::Stop;
}

bool CVExtractArchivesOperation::deliver()
{
    return singleFiles() ? deliverSingleFiles() : deliverEverything();
}

bool CVExtractArchivesOperation::deliverSingleFiles()
{
    if (!namesInFolder(workDir(), 1))
        return sendExtractError(tr("Couldn't find working directory"));
    const QString folder = workDir();
    const QStringList files = singleFiles().value_or(QStringList());

    // All of them are looked at before the first one moves: nothing or everything arrives.
    std::vector<std::vector<QByteArray>> items;
    QSet<QByteArray> chosen;
    for (const QString &file : files) {
        const CVSafePath path = CVSafePath::fromName(file, false);
        if (path.verdict != CVSafePath::Verdict::Write)
            return sendExtractError(tr("Couldn't copy unpacked files from working directory"),
                                    u"“%1”: %2"_s.arg(file, path.reason));
        if (!isReachable(folder, path.components))
            return sendExtractError(tr("Couldn't copy unpacked files from working directory"),
                                    tr("There is no “%1” in the archive.").arg(file));
        if (chosen.contains(path.joined()))
            continue;
        chosen.insert(path.joined());
        items.push_back(path.components);
    }
    // What lies in a chosen folder arrives with it.
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
        const QString item = folder + QString::fromUtf8(relative);
        if (openingSingleFile()) {
            addDestinationPath(item);
            continue;
        }
        const auto moved =
            moveToUniqueDestination(item, destinationPath(), QString::fromUtf8(components.back()));
        if (!moved)
            return sendExtractError(tr("Couldn't copy unpacked files from working directory"),
                                    moved.error().reason);
        addDestinationPath(moved.value());
    }
    return true;
}

bool CVExtractArchivesOperation::deliverEverything()
{
    const QString folder = workDir();
    const auto names = namesInFolder(folder, 2);
    if (!names)
        return sendExtractError(tr("Couldn't find working directory"));
    const bool single = names->size() == 1;
    const QString item = single ? folder + u'/' + names->first() : folder;
    if (openingSingleFile()) {
        addDestinationPath(item);
        return true;
    }
    const QString base = single ? names->first() : withoutLastExtension(lastComponent(sourcePath()));
    const auto moved = moveToUniqueDestination(item, destinationPath(), base);
    if (!moved)
        return sendExtractError(tr("Couldn't copy unpacked files from working directory"),
                                moved.error().reason);
    addDestinationPath(moved.value());
    return true;
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
    for (const QString &path : pathsBelongingToArchiveAtPath(sourcePath())) {
        if (fate == CVArchiveFate::Trash) {
            if (const auto result = LXTrash::shared()->moveToTrash(path); !result)
                LX_WARNING(lcExtract, "ERROR: failed to trash %s after extract: %s", qUtf8Printable(path),
                           qUtf8Printable(result.error().reason));
        } else if (::unlink(bytesOfFileName(path).constData()) != 0) {
            LX_WARNING(lcExtract, "  error deleting %s after extract: %s", qUtf8Printable(path),
                       std::strerror(errno));
        }
    }
}

LXError CVExtractArchivesOperation::errorForFailedArchive(const CVArchive &archive) const
{
    const QString name = LXDisplay::displayName(sourcePath());
    // A full or read-only disk is not the archive's fault; the person can do something about it.
    if (archive.systemError() != 0)
        return CVOperationHelper::errorForSystemError(archive.systemError(), sourcePath(), destinationPath());
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
    cleanUp();
    if (status == CVArchive::InvalidPassword) {
        const std::lock_guard lock(m_mutex);
        m_invalidPasswordEntered = true;
        return Next::Again;
    }
    deauthorize();
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

void CVExtractArchivesOperation::cleanUp()
{
    const QString folder = workDir();
    if (folder.isEmpty())
        return;
    setWorkDir({});
    CVWorkDirectoryManager::discardWorkDir(folder);
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
