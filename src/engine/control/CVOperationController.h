#pragma once

#include "archives/reading/XADTypes.h"
#include "engine/control/CVNavigationDelegate.h"
#include "engine/control/CVScreens.h"
#include "engine/model/CVOperationDataBinding.h"
#include "engine/model/CVOperationDelegate.h"
#include "filetree/CVFileTreeController.h"

#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

class CVOperation;
class CVOperationQueue;

/// What was left out of one archive, to be told when the job is done.
struct CVSkippedInArchive
{
    QString archivePath;
    std::vector<CVSkippedEntry> entries;
};

/// The hub of one window: starts jobs on the application's one queue and turns what they tell and ask into
/// screens, alerts, notifications and sounds. It never draws.
///
/// Thread: the main thread; only the callbacks of CVOperationDelegate and getters that say so come from
/// others, and they hop. Ownership: by std::shared_ptr (jobs hold it weakly); queue, screens and navigation
/// are borrowed until windowWillClose(), after which nothing of them is touched any more.
class CVOperationController final : public CVOperationDelegate,
                                    public CVOperationDataBindingDelegate,
                                    public CVPasswordDelegate,
                                    public std::enable_shared_from_this<CVOperationController>
{
public:
    /// Everything is borrowed and set once, before the window is shown.
    struct Screens
    {
        CVProgressScreen *progress = nullptr;
        CVAlertScreen *alert = nullptr;
        CVPasswordScreen *password = nullptr;
        CVCreateArchiveScreen *create = nullptr;
        CVConvertArchiveScreen *convert = nullptr;
        CVSplitScreen *split = nullptr;
        CVFileAnalysisScreen *fileAnalysis = nullptr;
        CVDropBoxScreen *dropBox = nullptr;
        CVFileOptionsScreen *options = nullptr;
    };

    static std::shared_ptr<CVOperationController> create(std::shared_ptr<CVOperationQueue> queue);
    ~CVOperationController() override;

    void setDelegate(CVNavigationDelegate *delegate);
    void setScreens(const Screens &screens);
    const std::shared_ptr<CVOperationQueue> &queue() const;
    CVFileTreeController &fileTreeController();

    /// Ends every question with its safe answer, cancels the job, and lets go of screens and navigation.
    void windowWillClose();

    // Jobs: the actions of buttons and menus.
    void extractArchive();
    void createArchive();
    void convertArchive();
    void splitFile();
    void showSplitFile();
    void combineFiles();
    void cleanUpWorkDirectories();
    /// The job on show; before there is one, looking at the files.
    void stopOperation();
    /// One entry, extracted to a private place and opened with the default application.
    void extractThenOpenFile(const QString &entryPath, const QString &archivePath);
    enum class Purpose {
        Result, ///< the person is told when it is there
        Look,   ///< only the caller is
    };
    /// Entries to the folder `destination`, while the preview stays. `ended` is called once, with the
    /// paths delivered (none after a failure or a cancel); it may be empty. It is kept until the job no
    /// longer writes, which may be after that call, and let go on any thread. What comes back cancels this
    /// extraction; any time, any thread.
    std::function<void()> extractFiles(const QStringList &entryPaths, const QString &archivePath,
                                       const QString &destination,
                                       std::function<void(QStringList delivered)> ended = {},
                                       Purpose purpose = Purpose::Result);
    /// Shows an error that no job has brought, once nothing else is asked.
    void tell(const LXError &error);

    // Files.
    /// From the desktop: opened with Corvane, or given at start.
    void openFiles(const QStringList &paths);
    /// The menu's "Open".
    void openFile();
    /// A panel for more files.
    void addFiles();
    /// Dropped on the drop box.
    void controllerHasNewFiles(const QStringList &paths);
    /// Added to what the window holds already.
    void tryToAddFiles(const QStringList &paths);
    void addAndExtractArchives(const QStringList &paths);
    void removeFileNode(const CVFileNode::Pointer &node);
    /// Dropped on the progress screen: archives among them open a window of their own.
    void controllerHasNewFilesDuringOperation(const QStringList &paths);

    /// Lets through what arrived while the application was starting.
    void setLaunchComplete();

    // State.
    CVFileNode::Pointer inputFiles() const;
    const std::vector<std::shared_ptr<CVArchive>> &previewArchives() const;
    /// The batch has no folder and all of it are archives / are parts of a split file.
    bool isArchiveSet() const;
    bool isSplitFileSet() const;
    /// An operation of this window is under way. Any thread.
    bool isWorkingOnOperation() const;
    bool extractInPlace() const;
    std::shared_ptr<CVOperation> currentOperation() const;
    /// Of the job that ended last.
    const std::vector<CVSkippedInArchive> &skippedEntries() const;

    // CVPasswordDelegate
    void passwordPromptFinishedWasCancelled(bool cancelled) override;

    // CVOperationDataBindingDelegate
    void operationDataDidChangeArchiveType(CVEditArchiveOperationDataBinding &binding,
                                           const QString &type) override;
    QString operationDataPathToInputFile(CVOperationDataBinding &binding) override;

    // CVOperationDelegate: see there.
    std::shared_ptr<CVFileNode> operationInputFiles(CVOperation *operation) override;
    QString operationPathToInputFile(CVOperation *operation) override;
    QStringList operationPathsToInputFiles(CVOperation *operation) override;
    std::vector<std::shared_ptr<CVArchive>> operationNeedsPreviewedArchives(CVOperation *operation) override;
    QObject *operationNeedsWindowForSandboxDialog(CVOperation *operation) override;
    void operationHasMadeProgress(CVOperation *operation, double done, double totalBytes) override;
    void operationHasIndeterminateProgress(CVOperation *operation) override;
    void operationHasReachedArchive(CVOperation *operation, const CVBatchPosition &position) override;
    void operationWorkingOnJob(CVOperation *operation, const QString &text) override;
    void operationProgressIconForFilename(CVOperation *operation, const QString &filename,
                                          bool multipleFiles) override;
    void operationHasPreviewedFiles(CVOperation *operation, qint64 done, qint64 total) override;
    std::optional<QString> operationNeedsPasswordForFileAtPath(CVOperation *operation, const QString &path,
                                                               bool failed) override;
    CVAlertResult operationNeedsToAskWhetherToReplaceFileAtPath(CVOperation *operation,
                                                                const QString &path) override;
    CVAlertResult operationNeedsToAskWhetherToContinueAfterArchiveAtPath(CVOperation *operation,
                                                                         const QString &path,
                                                                         const LXError &error) override;
    bool operationNeedsToAskWhetherToExceedLimit(CVOperation *operation, const QString &archivePath,
                                                 const QString &explanation) override;
    void operationNeedsToShowError(CVOperation *operation, const LXError &error) override;
    void operationSkippedEntries(CVOperation *operation, const QString &archivePath,
                                 const std::vector<CVSkippedEntry> &entries) override;
    void operationWillCreateMultiPartArchiveOfChunkSize(CVOperation *operation, double chunkSize,
                                                        const QString &format) override;
    void operationCompleted(CVOperation *operation) override;
    void operationCompletedWithFilesAtPaths(CVOperation *operation, const QStringList &paths,
                                            bool multipleFiles) override;
    void operationCompletedWithPreviewFiles(CVOperation *operation,
                                            const std::vector<std::shared_ptr<CVArchive>> &archives) override;
    void operationFailedWithError(CVOperation *operation, const LXError &error) override;
    void previewOperationFailedWithPreviewFiles(CVOperation *operation,
                                                const std::vector<std::shared_ptr<CVArchive>> &archives,
                                                const QStringList &failedArchives) override;
    void operationWasCancelled(CVOperation *operation) override;
    void operationCancelledShowingNotification(CVOperation *operation, bool show) override;

private:
    friend class CVOpenFilesController;
    struct Private;
    explicit CVOperationController(std::shared_ptr<CVOperationQueue> queue);
    std::unique_ptr<Private> d;
};
