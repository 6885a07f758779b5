#pragma once

#include "engine/control/CVControllerQuestions.h"
#include "engine/control/CVOpenFilesController.h"
#include "engine/control/CVOperationController.h"
#include "engine/model/CVOperation.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

/// One job that the controller has started, from its start to its tear-down.
struct CVControllerJob
{
    // Set before the job starts.
    std::shared_ptr<CVOperation> operation;
    bool isForeground = true; ///< false: entries of the preview, which stays on show
    bool isInPlace = false;
    bool isForLook = false; ///< its result is nobody's but the screen's: no news about it
    std::vector<std::shared_ptr<CVArchive>> previewedArchives;
    std::optional<QStringList> inputPaths; ///< nothing: those of the tree, which stays as it is meanwhile
    std::function<void(QStringList)> ended;

    // Of the main thread.
    bool isOver = false;
    bool wentBack = false; ///< a question of it has taken the screens back already
    QStringList delivered;

    std::mutex mutex;
    std::vector<CVSkippedInArchive> skipped;
};

/// What the parts of the controller share.
struct CVOperationController::Private
{
    using Job = std::shared_ptr<CVControllerJob>;

    Private(CVOperationController &controller, std::shared_ptr<CVOperationQueue> sharedQueue)
        : q(controller)
        , queue(std::move(sharedQueue))
        , questions(controller)
        , openFiles(controller)
    {}

    CVOperationController &q;
    const std::shared_ptr<CVOperationQueue> queue;

    // Of the main thread.
    CVFileTreeController tree;
    CVNavigationDelegate *navigation = nullptr; ///< null before it is set and once the window closes
    Screens screens;                            ///< likewise
    CVControllerQuestions questions;
    CVOpenFilesController openFiles;
    std::vector<CVSkippedInArchive> skipped;
    Job prompting; ///< whose password is being asked for
    bool isClosed = false;

    std::atomic<bool> isWorking = false;

    mutable std::mutex mutex; // what follows
    std::map<const CVOperation *, Job> jobs;
    Job foreground; ///< the one on show
    Job background; ///< the last one whose screen is the preview
    QObject *window = nullptr;

    /// Held by workers while they are in a function of a screen, so that no screen goes meanwhile.
    std::mutex screenMutex; // what follows
    std::condition_variable screenLeft;
    CVProgressScreen *progress = nullptr;
    CVFileAnalysisScreen *analysis = nullptr;
    CVPasswordScreen *password = nullptr;
    int promptsInside = 0;

    /// Any thread. The current job where no operation is given; null for one that is over.
    Job jobOf(const CVOperation *operation) const;
    Job currentJob() const;
    /// Whether its job, or any, has the window for itself.
    bool isShown(const CVOperation *operation) const;

    /// Main thread, later: f, unless the controller is gone.
    void onMain(std::function<void(CVOperationController &)> f);
    /// As above, with a job that is not over.
    void onMainFor(const CVOperation *operation, std::function<void(CVOperationController &, const Job &)> f);

    // Main thread.
    template <typename F> void navigate(F &&f)
    {
        if (navigation)
            f(*navigation);
    }
    Job makeJob(std::shared_ptr<CVOperation> operation);
    void enqueue(const Job &job);
    /// With the progress screen. False when a job is on show already.
    bool run(std::shared_ptr<CVOperation> operation, bool inPlace = false);
    /// The listing of the archives in the tree, with the analysing screen on show.
    void runPreview();
    void extract(bool inPlace);
    bool mayRun() const;
    /// The last archive listed with that path; null without one.
    std::shared_ptr<CVArchive> previewedArchive(const QString &path) const;

    void startProgress();
    void stopProgress();

    void setPreviewedArchives(const std::vector<std::shared_ptr<CVArchive>> &archives);
    void tearDown(const Job &job);
    void complete(const Job &job, const QStringList &paths, bool multipleFiles, bool showInFileViewer);
    void completeWithoutFiles(const Job &job);
    void cancelled(const Job &job, bool toMainView, bool notifies);
    /// After a question or message: to the job on show, or to the screen before it.
    void showJobAgain();
    void tellSkipped(CVControllerJob &job);

    void alert(const CVAlert &alert, CVControllerQuestions::Ended ended);
    void showError(const LXError &error, std::function<void()> closed);
    static CVAlert alertFor(const LXError &error);
    /// Worker: shows the alert and waits until it is left. `left` runs on the main thread before the
    /// worker goes on, but not when the job was cancelled meanwhile.
    CVAlertResult ask(const CVOperation *operation, const CVAlert &alert,
                      std::function<void(CVOperationController &, const Job &, int result)> left);

    static void postNotification(const QString &title, const CVControllerJob &job);
    static void playCompletionSoundIfActive();
};

namespace CVControl {

/// A text of the controller.
QString tr(const char *text);

} // namespace CVControl
