// Jobs from their start to their tear-down.

#include "archives/CVArchive.h"
#include "engine/control/CVOperationControllerPrivate.h"
#include "engine/control/CVOperationFactory.h"
#include "engine/model/CVOperationQueue.h"
#include "engine/model/CVSettings.h"
#include "jobs/CVExtractArchivesOperation.h"
#include "platform/LXFileViewer.h"
#include "platform/LXSystemSound.h"
#include "platform/LXUserNotifications.h"
#include "platform/LXWorkspace.h"
#include "sandbox/CVFileAuthenticator.h"
#include "util/LXMainThread.h"
#include "util/LXReleaseInBackground.h"

#include <algorithm>
#include <utility>

using namespace CVControl;
using namespace Qt::StringLiterals;

namespace {

// A notification is no list; the desktop cuts longer ones somewhere.
constexpr qsizetype notifiedLines = 8;

} // namespace

CVOperationController::Private::Job CVOperationController::Private::jobOf(const CVOperation *operation) const
{
    const std::lock_guard lock(mutex);
    if (!operation)
        return foreground ? foreground : background;
    const auto found = jobs.find(operation);
    return found == jobs.end() ? nullptr : found->second;
}

CVOperationController::Private::Job CVOperationController::Private::currentJob() const
{
    return jobOf(nullptr);
}

bool CVOperationController::Private::isShown(const CVOperation *operation) const
{
    const std::lock_guard lock(mutex);
    return foreground && (!operation || foreground->operation.get() == operation);
}

void CVOperationController::Private::onMain(std::function<void(CVOperationController &)> f)
{
    LXMainThread::post([weak = q.weak_from_this(), f = std::move(f)] {
        if (const auto controller = weak.lock())
            f(*controller);
    });
}

void CVOperationController::Private::onMainFor(const CVOperation *operation,
                                               std::function<void(CVOperationController &, const Job &)> f)
{
    const auto job = jobOf(operation);
    if (!job)
        return;
    onMain([job, f = std::move(f)](CVOperationController &controller) {
        if (!job->isOver)
            f(controller, job);
    });
}

CVOperationController::Private::Job
CVOperationController::Private::makeJob(std::shared_ptr<CVOperation> operation)
{
    auto job = std::make_shared<CVControllerJob>();
    job->operation = std::move(operation);
    job->previewedArchives = tree.previewedArchives();
    return job;
}

void CVOperationController::Private::enqueue(const Job &job)
{
    job->operation->setDelegate(q.weak_from_this());
    job->operation->setFileAuthenticator(CVFileAuthenticator::fileAuthenticator());
    QObject *const shownWindow = navigation ? navigation->controllerNeedsWindow(q) : nullptr;
    {
        const std::lock_guard lock(mutex);
        jobs[job->operation.get()] = job;
        (job->isForeground ? foreground : background) = job;
        window = shownWindow;
    }
    if (job->isForeground)
        isWorking = true;
    queue->add(job->operation);
}

bool CVOperationController::Private::mayRun() const
{
    // Not twice for a second click while the first one's screen slides in.
    return !isClosed && !isShown(nullptr);
}

bool CVOperationController::Private::run(std::shared_ptr<CVOperation> operation, bool inPlace)
{
    if (!mayRun())
        return false;
    const auto job = makeJob(std::move(operation));
    job->isInPlace = inPlace;
    skipped.clear();
    isWorking = true;
    if (screens.progress) {
        screens.progress->reset();
        screens.progress->setIndeterminate();
        screens.progress->setCancelButton([weak = q.weak_from_this()] {
            if (const auto controller = weak.lock())
                controller->stopOperation();
        });
    }
    navigate([this](CVNavigationDelegate &n) { n.controllerNeedsToLoadProgressView(q); });
    if (openFiles.isTreeComplete()) {
        enqueue(job);
        return true;
    }
    // It is the job on show already, so that no other is started.
    {
        const std::lock_guard lock(mutex);
        foreground = job;
    }
    openFiles.whenTreeIsComplete([this, job] {
        if (!job->isOver)
            enqueue(job);
    });
    return true;
}

void CVOperationController::Private::runPreview()
{
    if (mayRun())
        enqueue(makeJob(CVOperationFactory::previewOperation()));
}

void CVOperationController::Private::extract(bool inPlace)
{
    if (!run(CVOperationFactory::extractArchivesOperation(), inPlace))
        return;
    if (screens.progress)
        screens.progress->setAcceptsDrops(true);
}

std::shared_ptr<CVArchive> CVOperationController::Private::previewedArchive(const QString &path) const
{
    const auto &archives = tree.previewedArchives();
    const auto found = std::find_if(archives.rbegin(), archives.rend(),
                                    [&](const auto &archive) { return archive->sourcePath == path; });
    return found == archives.rend() ? nullptr : *found;
}

void CVOperationController::Private::startProgress()
{
    if (screens.fileAnalysis)
        screens.fileAnalysis->startAnimating();
    navigate([this](CVNavigationDelegate &n) { n.controllerNeedsToLoadAnalysingView(q); });
}

void CVOperationController::Private::stopProgress()
{
    if (screens.fileAnalysis)
        screens.fileAnalysis->stopAnimating();
}

void CVOperationController::Private::setPreviewedArchives(
    const std::vector<std::shared_ptr<CVArchive>> &archives)
{
    std::vector<std::shared_ptr<CVArchive>> before = tree.previewedArchives();
    tree.setPreviewedArchives(archives);
    disposeElsewhere(std::move(before));
}

void CVOperationController::Private::tearDown(const Job &job)
{
    if (std::exchange(job->isOver, true))
        return;
    {
        const std::lock_guard lock(mutex);
        jobs.erase(job->operation.get());
        if (foreground == job)
            foreground.reset();
        if (background == job)
            background.reset();
    }
    if (job->isForeground) {
        isWorking = false;
        if (screens.progress)
            screens.progress->setAcceptsDrops(false);
    }
    if (prompting == job)
        prompting.reset();
    if (job->ended)
        std::exchange(job->ended, {})(job->delivered);
    // The archives that it was given may have been the last to hold a large tree.
    disposeElsewhere(std::exchange(job->previewedArchives, {}));
    // Later: what goes on here may be the start of the next job, which comes first.
    onMain([](CVOperationController &controller) { controller.d->openFiles.takeNextBatch(); });
}

void CVOperationController::Private::complete(const Job &job, const QStringList &paths, bool multipleFiles,
                                              bool showInFileViewer)
{
    job->delivered = paths;
    if (job->isForeground) {
        const std::lock_guard lock(job->mutex);
        skipped = job->skipped;
    }
    if (isClosed)
        return tearDown(job);
    if (paths.isEmpty())
        return completeWithoutFiles(job);
    const bool isForOpening =
        CVOperationFactory::operationExtractedSingleFileForOpening(job->operation.get());
    if (showInFileViewer && !isForOpening && !job->isForLook) // those are in hidden folders
        LXFileViewer::shared()->reveal({paths.last()});
    if (!job->isForLook)
        postNotification(tr("Task complete"), *job);

    // Where something was left out, that has to be said before the window goes or turns to other things.
    const bool tells = !skipped.empty();
    const bool skipsDoneView = CVSettings::boolean(CVSettingsKey::skipDoneView) && !tells;
    const bool inPlace = std::exchange(job->isInPlace, false);
    if (!job->isForeground) {
        if (!job->isForLook)
            playCompletionSoundIfActive();
        tellSkipped(*job);
    } else if (inPlace && !tells) {
        tearDown(job);
        navigate([this](CVNavigationDelegate &n) { n.controllerNeedsToCloseWindow(q); });
        return;
    } else if (isForOpening) {
        playCompletionSoundIfActive();
        navigate([this](CVNavigationDelegate &n) { n.controllerNeedsToGoBack(q); });
        LXWorkspace::shared()->openFile(paths.last());
    } else if (skipsDoneView) {
        playCompletionSoundIfActive();
        if (screens.dropBox)
            screens.dropBox->reset();
        navigate([this](CVNavigationDelegate &n) { n.controllerNeedsToGoForwardToMainView(q); });
    } else if (multipleFiles) {
        navigate(
            [&](CVNavigationDelegate &n) { n.controllerNeedsToLoadMultipleDoneViewWithFiles(q, paths); });
    } else {
        navigate([&](CVNavigationDelegate &n) {
            n.controllerNeedsToLoadDoneViewWithFileAtPath(q, paths.first());
        });
    }
    tearDown(job);
}

void CVOperationController::Private::completeWithoutFiles(const Job &job)
{
    if (!isClosed) {
        navigate([this](CVNavigationDelegate &n) { n.controllerNeedsToGoBackToMainView(q); });
        playCompletionSoundIfActive();
        postNotification(tr("Task complete"), *job);
    }
    tearDown(job);
}

void CVOperationController::Private::postNotification(const QString &title, const CVControllerJob &job)
{
    QStringList lines = job.operation->taskDescription().split(u'\n');
    if (lines.size() > notifiedLines)
        lines = lines.first(notifiedLines - 1) << u"…"_s;
    LXUserNotifications::shared()->post(title, lines.join(u'\n'));
}

void CVOperationController::Private::playCompletionSoundIfActive()
{
    if (CVSettings::boolean(CVSettingsKey::sound))
        LXSystemSound::shared()->play(u"Hero"_s);
}
