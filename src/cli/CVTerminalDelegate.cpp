#include "cli/CVTerminalDelegate.h"

#include "cli/CVTerminal.h"
#include "cli/CVTerminalPasswords.h"
#include "engine/model/CVOperation.h"
#include "engine/model/CVSettings.h"
#include "filetree/CVFileTreeBuilder.h"
#include "util/LXDisplay.h"

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

// A hostile archive can refuse to give anything a thousand times; the person needs to hear it once.
constexpr std::size_t skippedShown = 20;

} // namespace

CVTerminalDelegate::CVTerminalDelegate(CVTerminal &terminal, CVTerminalPasswords &passwords,
                                       QStringList inputPaths)
    : m_terminal(terminal)
    , m_passwords(passwords)
    , m_inputPaths(std::move(inputPaths))
{}

QString CVTerminalDelegate::operationPathToInputFile(CVOperation *)
{
    return m_inputPaths.value(0);
}

QStringList CVTerminalDelegate::operationPathsToInputFiles(CVOperation *)
{
    return m_inputPaths;
}

std::shared_ptr<CVFileNode> CVTerminalDelegate::operationInputFiles(CVOperation *)
{
    const std::lock_guard lock(m_mutex);
    // Here, on the job's thread, because it reads whole folders.
    if (!m_inputFiles) {
        m_inputFiles = CVFileNode::create();
        CVFileTreeBuilder::addFiles(m_inputPaths, *m_inputFiles);
    }
    return m_inputFiles;
}

QStringList CVTerminalDelegate::resultPaths() const
{
    const std::lock_guard lock(m_mutex);
    return m_results;
}

std::optional<CVTerminalDelegate::MultiPartArchive> CVTerminalDelegate::multiPartArchive() const
{
    const std::lock_guard lock(m_mutex);
    return m_multiPartArchive;
}

void CVTerminalDelegate::operationWillCreateMultiPartArchiveOfChunkSize(CVOperation *, double chunkSize,
                                                                        const QString &format)
{
    const std::lock_guard lock(m_mutex);
    m_multiPartArchive = {chunkSize, format};
}

void CVTerminalDelegate::operationHasMadeProgress(CVOperation *operation, double done, double totalBytes)
{
    m_terminal.showProgress(done, totalBytes, operation->progressUnit());
}

void CVTerminalDelegate::operationWorkingOnJob(CVOperation *, const QString &text)
{
    m_terminal.setProgressTitle(text);
}

std::optional<QString>
CVTerminalDelegate::operationNeedsPasswordForFileAtPath(CVOperation *, const QString &path, bool failed)
{
    return m_passwords.forFile(path, failed);
}

CVAlertResult CVTerminalDelegate::operationNeedsToAskWhetherToReplaceFileAtPath(CVOperation *,
                                                                                const QString &path)
{
    if (m_packing && m_packing->replaces)
        return CVAlertResult::Default;
    if (m_terminal.canAsk() &&
        m_terminal.askYesNo(u"“%1” already exists. Do you want to replace it?"_s.arg(path)))
        return CVAlertResult::Default;
    if (!m_terminal.wasInterrupted()) {
        m_terminal.message(u"“%1” already exists and is kept"_s.arg(path));
        if (!m_terminal.canAsk())
            m_terminal.detail(u"With “--replace” it would be replaced."_s);
        // The job calls it a cancel, but nobody wanted to stop it.
        ++m_failures;
        m_stopped = true;
    }
    return CVAlertResult::Cancel;
}

CVAlertResult CVTerminalDelegate::operationNeedsToAskWhetherToContinueAfterArchiveAtPath(CVOperation *,
                                                                                         const QString &,
                                                                                         const LXError &error)
{
    ++m_failures;
    show(error);
    // The others are not worse for it; only who sits there may want to stop.
    if (!m_terminal.wasInterrupted() &&
        (!m_terminal.canAsk() || m_terminal.askYesNo(u"Go on with the other archives?"_s)))
        return CVAlertResult::Default;
    m_stopped = true;
    if (!m_terminal.wasInterrupted())
        m_terminal.message(u"stopped; the archives after it were not opened"_s);
    return CVAlertResult::Cancel;
}

bool CVTerminalDelegate::operationNeedsToAskWhetherToExceedLimit(CVOperation *, const QString &archivePath,
                                                                 const QString &explanation)
{
    // Without an answer the archive fails, and the failure gives the same explanation.
    if (!m_terminal.canAsk())
        return false;
    m_terminal.message(u"“%1”: %2"_s.arg(LXDisplay::displayName(archivePath), explanation));
    return m_terminal.askYesNo(u"Extract it nevertheless?"_s);
}

void CVTerminalDelegate::operationNeedsToShowError(CVOperation *, const LXError &error)
{
    ++m_failures;
    show(error);
}

void CVTerminalDelegate::operationSkippedEntries(CVOperation *, const QString &archivePath,
                                                 const std::vector<CVSkippedEntry> &entries)
{
    const QString archive = LXDisplay::displayName(archivePath);
    m_terminal.message(entries.size() == 1 ? u"one entry of “%1” was left out:"_s.arg(archive)
                                           : u"%1 entries of “%2” were left out:"_s.arg(
                                                 QString::number(entries.size()), archive));
    for (std::size_t i = 0; i < std::min(entries.size(), skippedShown); ++i)
        m_terminal.detail(u"%1: %2"_s.arg(entries[i].name, entries[i].reason));
    if (entries.size() > skippedShown)
        m_terminal.detail(u"… and %1 more"_s.arg(entries.size() - skippedShown));
    if (m_packing) {
        // What was left out for a reason of ours, as the older archive, nobody misses.
        if (m_packing->lacksCount || std::ranges::any_of(entries, [](const CVSkippedEntry &entry) {
                return entry.code != XADErrorCode::None;
            }))
            ++m_failures;
        return;
    }
    if (CVSettings::integer(CVSettingsKey::archiveFateAfterExtract) != static_cast<int>(CVArchiveFate::Keep))
        m_terminal.detail(u"The archive is kept, because they are in it alone."_s);
}

void CVTerminalDelegate::operationCompletedWithFilesAtPaths(CVOperation *, const QStringList &paths, bool)
{
    const std::lock_guard lock(m_mutex);
    m_results = paths;
}

void CVTerminalDelegate::operationFailedWithError(CVOperation *, const LXError &error)
{
    ++m_failures;
    show(error);
}

void CVTerminalDelegate::operationWasCancelled(CVOperation *)
{
    m_cancelled = true;
}

void CVTerminalDelegate::operationCancelledShowingNotification(CVOperation *, bool)
{
    m_cancelled = true;
}

void CVTerminalDelegate::show(const LXError &error)
{
    m_terminal.message(error.description);
    for (const QString &text : {error.reason, error.suggestion}) {
        if (!text.isEmpty())
            m_terminal.detail(text);
    }
}
