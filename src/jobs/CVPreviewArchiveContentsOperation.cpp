#include "jobs/CVPreviewArchiveContentsOperation.h"

#include "archives/archive_string.h"
#include "engine/model/CVOperationDelegate.h"
#include "jobs/CVExtractArchivesOperation.h"
#include "util/LXDisplay.h"
#include "util/LXFileName.h"
#include "util/LXLog.h"
#include "util/LXPendingAnswer.h"

#include <QCoreApplication>

#include <exception>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(lcPreview, "corvane.jobs.preview")

// A back end tells of every single entry, which may be a million times.
constexpr std::chrono::milliseconds progressPeriod{40};

QString tr(const char *text)
{
    return QCoreApplication::translate("CVPreviewArchiveContentsOperation", text);
}

} // namespace

CVPreviewArchiveContentsOperation::CVPreviewArchiveContentsOperation()
    : m_archiveMaker([](const QString &path) { return CVArchive::archiveForPreviewing(path); })
{}

CVPreviewArchiveContentsOperation::~CVPreviewArchiveContentsOperation() = default;

void CVPreviewArchiveContentsOperation::setArchiveMaker(ArchiveMaker maker)
{
    m_archiveMaker = std::move(maker);
}

QString CVPreviewArchiveContentsOperation::taskDescription() const
{
    const std::lock_guard lock(m_mutex);
    if (m_workingArchives.isEmpty())
        return {};
    if (m_workingArchives.size() == 1)
        return tr("Preview “%1”").arg(LXDisplay::displayName(m_workingArchives.first()));
    QString text = tr("Preview:");
    for (const QString &path : m_workingArchives)
        text += u"\n- "_s + LXDisplay::displayName(path);
    return text;
}

void CVPreviewArchiveContentsOperation::main()
{
    const QStringList paths = CVExtractArchivesOperation::sourcePathsByFlatteningSourcePaths(
        delegate()->operationPathsToInputFiles(this));
    {
        const std::lock_guard lock(m_mutex);
        m_workingArchives = paths;
    }
    for (const QString &path : paths) {
        {
            const std::lock_guard lock(m_mutex);
            m_passwordInvalid = false;
        }
        Listed listed = Listed::Again;
        while (listed == Listed::Again)
            listed = list(path);
        if (listed == Listed::Stop)
            break;
    }
    reportEnd();
}

void CVPreviewArchiveContentsOperation::cancel()
{
    CVOperation::cancel();
    m_backEnd.cancel();
}

void CVPreviewArchiveContentsOperation::reportEnd()
{
    const auto archives = std::exchange(m_archives, {});
    if (!endOnce())
        return;
    // Without a single archive, which nobody asks for, there is nothing to show either.
    const bool complete = !archives.empty() || !m_corruptArchives.isEmpty();
    if (isCancelled() || !complete)
        delegate()->operationCancelledShowingNotification(this, false);
    else if (m_corruptArchives.isEmpty())
        delegate()->operationCompletedWithPreviewFiles(this, archives);
    else
        delegate()->previewOperationFailedWithPreviewFiles(this, archives, m_corruptArchives);
}

bool CVPreviewArchiveContentsOperation::getAccess(const QString &path)
{
    struct Answer
    {
        bool granted;
        QString path;
    };
    const auto pending = std::make_shared<LXPendingAnswer<Answer>>();
    runAuthorizedHandler({path}, [pending](bool granted, const QString &granting) {
        pending->give({granted, granting});
    });
    const auto answer = pending->wait(stopToken());
    if (!answer || !answer->granted)
        return false;
    m_authorized = answer->path;
    startSecurelyAccessing(m_authorized);
    return true;
}

void CVPreviewArchiveContentsOperation::deauthorize()
{
    if (!m_authorized.isEmpty())
        stopSecurelyAccessing(m_authorized);
    m_authorized.clear();
}

CVPreviewArchiveContentsOperation::Listed CVPreviewArchiveContentsOperation::list(const QString &path)
{
    // The other parts of a set were not chosen by the person.
    if (isMultipartArchive(path) && !getAccess(path)) {
        cancel();
        return Listed::Stop;
    }
    const auto archive = m_archiveMaker(path);
    const std::int32_t status = runBackEnd(archive, path);
    deauthorize();
    if (status == CVArchive::Cancelled || isCancelled()) {
        cancel(); // also where no password was given
        return Listed::Stop;
    }
    if (status == CVArchive::Success) {
        m_archives.push_back(archive);
        return Listed::Ended;
    }
    if (status == CVArchive::InvalidPassword) {
        const std::lock_guard lock(m_mutex);
        // Where nobody was asked, asking again would go on for ever.
        if (std::exchange(m_passwordAsked, false)) {
            m_passwordInvalid = true;
            return Listed::Again;
        }
    }
    LX_WARNING(lcPreview, "could not list %s: %s %s", qUtf8Printable(LXDisplay::displayEscaped(path)),
               qUtf8Printable(CVArchive::statusToString(status)), qUtf8Printable(archive->failureReason()));
    m_corruptArchives.append(path);
    return Listed::Ended;
}

std::int32_t CVPreviewArchiveContentsOperation::runBackEnd(const std::shared_ptr<CVArchive> &archive,
                                                           const QString &path)
{
    {
        const std::lock_guard lock(m_mutex);
        m_sourcePath = path;
        m_passwordAsked = false;
    }
    return m_backEnd.run(
        archive, this, path, stopToken(), [&] { archive->openForPreview(path); },
        [&] { return archive->sourcePath == path; });
}

void CVPreviewArchiveContentsOperation::archiveFinished(CVArchive *)
{
    m_backEnd.report(CVArchive::Success);
}

void CVPreviewArchiveContentsOperation::archiveFailed(CVArchive *, std::int32_t status)
{
    m_backEnd.report(status);
}

void CVPreviewArchiveContentsOperation::archiveCancelled(CVArchive *)
{
    m_backEnd.report(CVArchive::Cancelled);
}

void CVPreviewArchiveContentsOperation::archiveHasMadeProgress(CVArchive *, double done, double total)
{
    {
        const std::lock_guard lock(m_mutex);
        const auto now = std::chrono::steady_clock::now();
        if (now - m_lastProgress < progressPeriod)
            return;
        m_lastProgress = now;
    }
    if (!isCancelled())
        delegate()->operationHasPreviewedFiles(this, static_cast<qint64>(done), static_cast<qint64>(total));
}

std::optional<QString> CVPreviewArchiveContentsOperation::archiveWantsPassword(CVArchive *)
{
    if (isCancelled())
        return std::nullopt;
    bool failed = false;
    QString path;
    {
        const std::lock_guard lock(m_mutex);
        failed = std::exchange(m_passwordInvalid, false);
        m_passwordAsked = true;
        path = m_sourcePath;
    }
    return delegate()->operationNeedsPasswordForFileAtPath(this, path, failed);
}
