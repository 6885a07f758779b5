#include "engine/control/CVOperationController.h"

#include "archives/CVArchive.h"
#include "engine/control/CVOperationControllerPrivate.h"
#include "engine/control/CVOperationFactory.h"
#include "engine/model/CVEditArchiveOperationDataBinding.h"
#include "engine/model/CVOperationQueue.h"
#include "engine/model/CVSettings.h"
#include "engine/model/CVSplitOperationDataBinding.h"
#include "jobs/CVExtractArchivesOperation.h"
#include "platform/LXFileViewer.h"
#include "platform/LXSystemSound.h"
#include "platform/LXUserNotifications.h"
#include "platform/LXWorkspace.h"
#include "sandbox/CVFileAuthenticator.h"
#include "util/LXDisplay.h"
#include "util/LXLog.h"
#include "util/LXMainThread.h"

#include <QCoreApplication>

#include <algorithm>
#include <chrono>
#include <thread>

using namespace CVControl;
using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(lcControl, "corvane.control")

// A notification is no list; the desktop cuts longer ones somewhere.
constexpr qsizetype notifiedLines = 8;

// How long a closing window waits for a prompt that was told to stop.
constexpr std::chrono::seconds promptPatience{2};

} // namespace

QString CVControl::tr(const char *text)
{
    return QCoreApplication::translate("CVOperationController", text);
}

std::shared_ptr<CVOperationController> CVOperationController::create(std::shared_ptr<CVOperationQueue> queue)
{
    std::unique_ptr<CVOperationController> made(new CVOperationController(std::move(queue)));
    // The last owner may be a job that is just telling something.
    return {made.release(), [](CVOperationController *controller) {
                std::unique_ptr<CVOperationController> owner(controller);
                if (!LXMainThread::isCurrent())
                    LXMainThread::post([owner = std::make_shared<decltype(owner)>(std::move(owner))] {});
            }};
}

CVOperationController::CVOperationController(std::shared_ptr<CVOperationQueue> queue)
    : d(std::make_unique<Private>(*this, std::move(queue)))
{}

CVOperationController::~CVOperationController() = default;

// ---- the window ----

void CVOperationController::setDelegate(CVNavigationDelegate *delegate)
{
    d->navigation = delegate;
    d->questions.setScreen(delegate, d->screens.alert);
}

void CVOperationController::setScreens(const Screens &screens)
{
    d->screens = screens;
    d->questions.setScreen(d->navigation, screens.alert);
    if (screens.password)
        screens.password->setPasswordDelegate(this);
    const std::lock_guard lock(d->screenMutex);
    d->progress = screens.progress;
    d->analysis = screens.fileAnalysis;
    d->password = screens.password;
}

void CVOperationController::windowWillClose()
{
    if (d->isClosed)
        return;
    d->isClosed = true;
    // The worker that asks hears of the cancel first, so that nothing goes on because of an answer.
    std::vector<Private::Job> jobs;
    {
        const std::lock_guard lock(d->mutex);
        for (const auto &[operation, job] : d->jobs)
            jobs.push_back(job);
        d->window = nullptr;
    }
    for (const auto &job : jobs)
        job->operation->cancel();
    d->navigation = nullptr;
    d->questions.close();
    d->openFiles.close();
    {
        std::unique_lock lock(d->screenMutex);
        d->progress = nullptr;
        d->analysis = nullptr;
        d->password = nullptr;
        if (!d->screenLeft.wait_for(lock, promptPatience, [this] { return d->promptsInside == 0; }))
            LX_WARNING(lcControl, "a prompt did not stop");
    }
    if (d->screens.password)
        d->screens.password->setPasswordDelegate(nullptr);
    d->screens = {};
    for (const auto &job : jobs)
        d->tearDown(job);
}

const std::shared_ptr<CVOperationQueue> &CVOperationController::queue() const
{
    return d->queue;
}

CVFileTreeController &CVOperationController::fileTreeController()
{
    return d->tree;
}

// ---- actions ----

void CVOperationController::extractArchive()
{
    d->extract(false);
}

void CVOperationController::createArchive()
{
    const auto data = d->screens.create ? d->screens.create->operationDataBinding() : nullptr;
    if (!data || data->passwordIsInvalid() || !d->mayRun())
        return;
    data->detachFromSettings();
    d->run(CVOperationFactory::createOperationWithDataBinding(data));
}

void CVOperationController::convertArchive()
{
    const auto data = d->screens.convert ? d->screens.convert->operationDataBinding() : nullptr;
    if (!data || data->passwordIsInvalid() || !d->mayRun())
        return;
    data->detachFromSettings();
    d->run(CVOperationFactory::convertOperationWithDataBinding(data));
}

void CVOperationController::splitFile()
{
    if (const auto data = d->screens.split ? d->screens.split->splitOperationData() : nullptr)
        d->run(CVOperationFactory::splitFileOperationWithDataBinding(data));
}

void CVOperationController::showSplitFile()
{
    const auto files = d->tree.children();
    if (files.empty())
        return;
    d->navigate([&](CVNavigationDelegate &navigation) {
        navigation.controllerNeedsToLoadSplitViewWithFile(*this, files.back()->filename());
    });
}

void CVOperationController::combineFiles()
{
    d->run(CVOperationFactory::combineOperation());
}

void CVOperationController::cleanUpWorkDirectories()
{
    d->run(CVOperationFactory::workDirectoryCleanOperation());
}

void CVOperationController::stopOperation()
{
    if (const auto job = d->currentJob())
        job->operation->cancel();
}

void CVOperationController::extractThenOpenFile(const QString &entryPath, const QString &archivePath)
{
    d->run(CVOperationFactory::singleFileExtractThenOpenOperationWithArchive(d->previewedArchive(archivePath),
                                                                             entryPath));
}

void CVOperationController::extractFiles(const QStringList &entryPaths, const QString &archivePath,
                                         const QString &destination, std::function<void(QStringList)> ended)
{
    if (d->isClosed) {
        if (ended)
            ended({});
        return;
    }
    const auto job = d->makeJob(CVOperationFactory::singleFilesExtractOperationWithArchive(
        d->previewedArchive(archivePath), entryPaths, destination));
    job->isForeground = false;
    // The window may turn to other files meanwhile.
    job->inputPaths = QStringList{archivePath};
    job->ended = std::move(ended);
    job->forcedDestination = std::make_unique<CVForcedDestination>();
    d->enqueue(job);
}

// ---- files ----

void CVOperationController::openFiles(const QStringList &paths)
{
    d->openFiles.openFiles(paths);
}

void CVOperationController::openFile()
{
    d->openFiles.openFile();
}

void CVOperationController::addFiles()
{
    d->openFiles.addFiles();
}

void CVOperationController::controllerHasNewFiles(const QStringList &paths)
{
    d->openFiles.hasNewFiles(paths);
}

void CVOperationController::tryToAddFiles(const QStringList &paths)
{
    d->openFiles.tryToAddFiles(paths);
}

void CVOperationController::addAndExtractArchives(const QStringList &paths)
{
    d->openFiles.addAndExtractArchives(paths);
}

void CVOperationController::removeFileNode(const CVFileNode::Pointer &node)
{
    if (!node || d->isWorking) // a job reads the tree
        return;
    LX_DEBUG(lcControl, "Removing %s", qUtf8Printable(LXDisplay::displayEscaped(node->filename())));
    d->tree.removeFileNode(node);
    if (d->screens.options)
        d->screens.options->setupDisplay();
}

void CVOperationController::controllerHasNewFilesDuringOperation(const QStringList &paths)
{
    d->navigate([this](CVNavigationDelegate &navigation) { navigation.controllerNeedsToActivateApp(*this); });
    d->openFiles.openWindowForArchives(paths);
}

void CVOperationController::setLaunchComplete()
{
    d->openFiles.setLaunchComplete();
}

// ---- state ----

CVFileNode::Pointer CVOperationController::inputFiles() const
{
    return d->tree.inputFiles();
}

const std::vector<std::shared_ptr<CVArchive>> &CVOperationController::previewArchives() const
{
    return d->tree.previewedArchives();
}

bool CVOperationController::isArchiveSet() const
{
    return d->openFiles.isArchiveSet();
}

bool CVOperationController::isSplitFileSet() const
{
    return d->openFiles.isSplitFileSet();
}

bool CVOperationController::isWorkingOnOperation() const
{
    return d->isWorking;
}

bool CVOperationController::extractInPlace() const
{
    const auto job = d->currentJob();
    return (job && job->isInPlace) || d->openFiles.extractInPlace();
}

std::shared_ptr<CVOperation> CVOperationController::currentOperation() const
{
    const auto job = d->currentJob();
    return job ? job->operation : nullptr;
}

const std::vector<CVSkippedInArchive> &CVOperationController::skippedEntries() const
{
    return d->skipped;
}

// ---- starting and ending jobs ----

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
    openFiles.whenTreeIsComplete([this, job] { enqueue(job); });
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
    job->forcedDestination.reset();
    if (job->ended)
        std::exchange(job->ended, {})(job->delivered);
    // The archives that it was given may have been the last to hold a large tree.
    disposeElsewhere(std::exchange(job->previewedArchives, {}));
    openFiles.takeNextBatch();
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
    if (showInFileViewer)
        LXFileViewer::shared()->reveal({paths.last()});
    postNotification(tr("Task complete"), *job);

    // Where something was left out, that has to be said before the window goes or turns to other things.
    const bool tells = !skipped.empty();
    const bool skipsDoneView = CVSettings::boolean(CVSettingsKey::skipDoneView) && !tells;
    const bool inPlace = std::exchange(job->isInPlace, false);
    if (!job->isForeground) {
        playCompletionSoundIfActive();
        tellSkipped(*job);
    } else if (inPlace && !tells) {
        tearDown(job);
        navigate([this](CVNavigationDelegate &n) { n.controllerNeedsToCloseWindow(q); });
        return;
    } else if (CVOperationFactory::operationExtractedSingleFileForOpening(job->operation.get())) {
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
