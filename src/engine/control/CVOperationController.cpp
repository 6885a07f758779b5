#include "engine/control/CVOperationController.h"

#include "archives/CVArchive.h"
#include "engine/control/CVOperationControllerPrivate.h"
#include "engine/control/CVOperationFactory.h"
#include "engine/model/CVEditArchiveOperationDataBinding.h"
#include "engine/model/CVSplitOperationDataBinding.h"
#include "jobs/CVExtractArchivesOperation.h"
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
    if (d->openFiles.abandon())
        return;
    const auto job = d->currentJob();
    if (!job)
        return;
    job->operation->cancel();
    // One that still waits for its files is in no queue that would end it.
    if (!d->jobOf(job->operation.get()))
        d->cancelled(job, false, true);
}

void CVOperationController::extractThenOpenFile(const QString &entryPath, const QString &archivePath)
{
    d->run(CVOperationFactory::singleFileExtractThenOpenOperationWithArchive(d->previewedArchive(archivePath),
                                                                             entryPath));
}

std::function<void()> CVOperationController::extractFiles(const QStringList &entryPaths,
                                                          const QString &archivePath,
                                                          const QString &destination,
                                                          std::function<void(QStringList)> ended,
                                                          Purpose purpose)
{
    if (d->isClosed) {
        if (ended)
            ended({});
        return [] {};
    }
    const auto job = d->makeJob(CVOperationFactory::singleFilesExtractOperationWithArchive(
        d->previewedArchive(archivePath), entryPaths, destination));
    job->isForeground = false;
    job->isForLook = purpose == Purpose::Look;
    // The window may turn to other files meanwhile.
    job->inputPaths = QStringList{archivePath};
    if (ended) {
        // A closing window tells the end while the worker still writes to what the caller made for it.
        const auto kept = std::make_shared<decltype(ended)>(std::move(ended));
        job->operation->observeFinished([kept](CVOperation &) {});
        job->ended = [kept](const QStringList &delivered) { (*kept)(delivered); };
    }
    d->enqueue(job);
    return [started = std::weak_ptr(job->operation)] {
        if (const auto operation = started.lock())
            operation->cancel();
    };
}

void CVOperationController::tell(const LXError &error)
{
    if (!d->isClosed)
        d->showError(error, [this] { d->showJobAgain(); });
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
