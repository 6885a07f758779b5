#pragma once

#include "archives/reading/XADTypes.h"
#include "engine/model/CVBatchPosition.h"
#include "util/LXResult.h"

#include <QString>
#include <QStringList>

#include <memory>
#include <optional>
#include <vector>

class CVArchive;
class CVFileNode;
class CVOperation;
class QObject;

/// How an alert was left.
enum class CVAlertResult : int {
    Default = 1, ///< the default button: replace, skip and go on, agree
    Cancel = 2,
};

/// What a job tells and asks. The window's controller and the terminal are the two receivers.
///
/// Thread: every call comes on a worker thread of the job (or of its back end), so the receiver hops
/// to the main thread itself. Questions block the worker until answered; they must also return, with
/// the safe answer, when the job is cancelled or the window closes.
/// Ends: exactly one of the calls of the last group comes for a job, and nothing after it.
/// The job is passed as a pointer that may be null where a failure belongs to no job.
class CVOperationDelegate
{
public:
    virtual ~CVOperationDelegate() = default;

    // What the job works on.
    /// Root of the files dropped; null when there are none.
    virtual std::shared_ptr<CVFileNode> operationInputFiles(CVOperation *) { return nullptr; }
    /// The first of them.
    virtual QString operationPathToInputFile(CVOperation *) { return {}; }
    /// All of them, folders' contents included, in pre-order.
    virtual QStringList operationPathsToInputFiles(CVOperation *) { return {}; }
    virtual std::vector<std::shared_ptr<CVArchive>> operationNeedsPreviewedArchives(CVOperation *)
    {
        return {};
    }
    /// The window to hang a dialog on; null without one. Main thread only, whoever uses it.
    virtual QObject *operationNeedsWindowForSandboxDialog(CVOperation *) { return nullptr; }

    // Progress.
    /// `done` never needs to be below `total`; receivers clamp.
    virtual void operationHasMadeProgress(CVOperation *, double /*done*/, double /*totalBytes*/) {}
    virtual void operationHasIndeterminateProgress(CVOperation *) {}
    /// Of a job with several archives: progress belongs to the one at this position from now on.
    virtual void operationHasReachedArchive(CVOperation *, const CVBatchPosition &) {}
    virtual void operationWorkingOnJob(CVOperation *, const QString & /*text*/) {}
    virtual void operationProgressIconForFilename(CVOperation *, const QString & /*filename*/,
                                                  bool /*multipleFiles*/)
    {}
    virtual void operationHasPreviewedFiles(CVOperation *, qint64 /*done*/, qint64 /*total*/) {}

    // Questions.
    /// Nothing when the person gave none. `failed`: the password before did not fit.
    virtual std::optional<QString>
    operationNeedsPasswordForFileAtPath(CVOperation *, const QString & /*path*/, bool /*failed*/)
    {
        return std::nullopt;
    }
    /// Default replaces the existing item, Cancel stops the job.
    virtual CVAlertResult operationNeedsToAskWhetherToReplaceFileAtPath(CVOperation *,
                                                                        const QString & /*path*/)
    {
        return CVAlertResult::Cancel;
    }
    /// Default passes over the failed archive and goes on, Cancel stops the job.
    virtual CVAlertResult
    operationNeedsToAskWhetherToContinueAfterArchiveAtPath(CVOperation *, const QString & /*path*/,
                                                           const LXError & /*extractFailedWithError*/)
    {
        return CVAlertResult::Cancel;
    }
    /// Default agrees.
    virtual CVAlertResult operationNeedsLicenseAgreementFromFile(CVOperation *, const QString & /*file*/)
    {
        return CVAlertResult::Cancel;
    }
    /// The archive unpacks to far more than it should; `explanation` says how much. True goes on.
    virtual bool operationNeedsToAskWhetherToExceedLimit(CVOperation *, const QString & /*archivePath*/,
                                                         const QString & /*explanation*/)
    {
        return false;
    }

    // News that end nothing.
    /// An error to show while the job goes on.
    virtual void operationNeedsToShowError(CVOperation *, const LXError &) {}
    /// What the extraction or creation of this archive left out, each with its reason. Never an empty list.
    virtual void operationSkippedEntries(CVOperation *, const QString & /*archivePath*/,
                                         const std::vector<CVSkippedEntry> &)
    {}
    /// The job hands over to a new one that makes a multi-part archive. Bytes a part.
    virtual void operationWillCreateMultiPartArchiveOfChunkSize(CVOperation *, double /*chunkSize*/,
                                                                const QString & /*format*/)
    {}

    // Ends.
    virtual void operationCompleted(CVOperation *) {}
    virtual void operationCompletedWithFilesAtPaths(CVOperation *, const QStringList & /*paths*/,
                                                    bool /*multipleFiles*/)
    {}
    virtual void operationCompletedWithFilesAtPath(CVOperation *operation, const QString &path,
                                                   bool multipleFiles)
    {
        operationCompletedWithFilesAtPaths(operation, {path}, multipleFiles);
    }
    virtual void operationCompletedWithPreviewFiles(CVOperation *,
                                                    const std::vector<std::shared_ptr<CVArchive>> &)
    {}
    virtual void operationInstallationCompleted() {}
    virtual void operationFailedWithError(CVOperation *, const LXError &) {}
    virtual void operationFailedWithPasswordMismatchError(const LXError &error)
    {
        operationFailedWithError(nullptr, error);
    }
    /// Some archives could not be listed; `archives` are those that could.
    virtual void
    previewOperationFailedWithPreviewFiles(CVOperation *,
                                           const std::vector<std::shared_ptr<CVArchive>> & /*archives*/,
                                           const QStringList & /*failedArchives*/)
    {}
    virtual void operationWasCancelled(CVOperation *) {}
    virtual void operationCancelledShowingNotification(CVOperation *, bool /*show*/) {}
};
