// What jobs tell and ask, on their threads. Nothing here waits for the main thread but questions, which end
// with a cancel of the job: the application may end while the main thread waits for its jobs.

#include "archives/CVArchive.h"
#include "engine/control/CVOperationControllerPrivate.h"
#include "engine/control/CVOperationFactory.h"
#include "engine/model/CVEditArchiveOperationDataBinding.h"
#include "engine/model/CVSettings.h"
#include "platform/LXDesktopFolders.h"
#include "util/LXDisplay.h"
#include "util/LXFileName.h"
#include "util/LXPendingAnswer.h"

#include <QTimer>

#include <chrono>
#include <cstdlib>

using namespace CVControl;
using namespace Qt::StringLiterals;

namespace {

// After a message the job usually ends within this time, and its own screen comes next.
constexpr std::chrono::milliseconds progressDelay{300};

constexpr int defaultButton = 1;

// Left-out entries that a message names.
constexpr std::size_t namedEntries = 5;

QString lastComponent(const QString &path)
{
    return path.mid(path.lastIndexOf(u'/') + 1);
}

QString parentOf(const QString &path)
{
    return path.left(std::max<qsizetype>(path.lastIndexOf(u'/'), 1));
}

QByteArray resolved(const QString &path)
{
    const QByteArray name = bytesOfFileName(path);
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(name.constData(), nullptr), &std::free);
    return real ? QByteArray(real.get()) : name;
}

// What lies on the Desktop is in sight already.
bool isOnDesktop(const QString &path)
{
    return resolved(parentOf(path)) == resolved(LXDesktopFolders::desktopFolder());
}

bool hidesNone(const QString &type)
{
    return type == u"tar.gz" || type == u"tgz" || type == u"tar.bz2" || type == u"tbz";
}

} // namespace

// ---- what the job works on ----

std::shared_ptr<CVFileNode> CVOperationController::operationInputFiles(CVOperation *)
{
    return d->tree.inputFiles();
}

QString CVOperationController::operationPathToInputFile(CVOperation *)
{
    const auto children = d->tree.children();
    return children.empty() ? QString() : children.front()->filename();
}

QStringList CVOperationController::operationPathsToInputFiles(CVOperation *operation)
{
    if (const auto job = d->jobOf(operation); job && job->inputPaths)
        return *job->inputPaths;
    QStringList paths;
    for (const auto &node : d->tree.inputFiles()->preorder()) {
        if (!node->filename().isEmpty())
            paths.append(node->filename());
    }
    return paths;
}

std::vector<std::shared_ptr<CVArchive>>
CVOperationController::operationNeedsPreviewedArchives(CVOperation *operation)
{
    const auto job = d->jobOf(operation);
    return job ? job->previewedArchives : std::vector<std::shared_ptr<CVArchive>>();
}

QObject *CVOperationController::operationNeedsWindowForSandboxDialog(CVOperation *)
{
    const std::lock_guard lock(d->mutex);
    return d->window;
}

// ---- progress ----

void CVOperationController::operationHasMadeProgress(CVOperation *operation, double done, double totalBytes)
{
    if (!d->isShown(operation))
        return;
    const std::lock_guard lock(d->screenMutex);
    if (d->progress)
        d->progress->setProgress(done, totalBytes);
}

void CVOperationController::operationHasIndeterminateProgress(CVOperation *operation)
{
    if (!d->isShown(operation))
        return;
    const std::lock_guard lock(d->screenMutex);
    if (d->progress)
        d->progress->setIndeterminate();
}

void CVOperationController::operationHasReachedArchive(CVOperation *operation,
                                                       const CVBatchPosition &position)
{
    if (!d->isShown(operation))
        return;
    const std::lock_guard lock(d->screenMutex);
    if (d->progress)
        d->progress->setBatchPosition(position);
}

void CVOperationController::operationWorkingOnJob(CVOperation *operation, const QString &text)
{
    if (!d->isShown(operation))
        return;
    const std::lock_guard lock(d->screenMutex);
    if (!d->progress)
        return;
    d->progress->setProgressUnit(operation->progressUnit());
    d->progress->setJob(text);
    d->progress->setCancelButton([weak = weak_from_this()] {
        if (const auto controller = weak.lock())
            controller->stopOperation();
    });
}

void CVOperationController::operationProgressIconForFilename(CVOperation *operation, const QString &filename,
                                                             bool multipleFiles)
{
    if (!d->isShown(operation))
        return;
    const std::lock_guard lock(d->screenMutex);
    if (d->progress)
        d->progress->setProgressImage(filename, multipleFiles);
}

void CVOperationController::operationHasPreviewedFiles(CVOperation *operation, qint64 done, qint64 total)
{
    if (!d->isShown(operation))
        return;
    const QString text = tr("Analyzing %1 out of %2").arg(QString::number(done), QString::number(total));
    const std::lock_guard lock(d->screenMutex);
    if (d->analysis)
        d->analysis->setProgressMessage(text);
}

// ---- questions ----

CVAlertResult
CVOperationController::Private::ask(const CVOperation *operation, const CVAlert &alert,
                                    std::function<void(CVOperationController &, const Job &, int)> left)
{
    const auto job = jobOf(operation);
    if (!job)
        return CVAlertResult::Cancel;
    const auto pending = std::make_shared<LXPendingAnswer<CVAlertResult>>();
    onMain([job, pending, alert, left = std::move(left)](CVOperationController &controller) {
        if (job->isOver || job->operation->isCancelled())
            return pending->give(CVAlertResult::Cancel);
        controller.d->questions.alert(pending.get(), alert, [job, pending, left, &controller](int result) {
            if (!controller.d->isClosed && !job->isOver)
                left(controller, job, result);
            pending->give(result == defaultButton ? CVAlertResult::Default : CVAlertResult::Cancel);
        });
    });
    const auto answer = pending->wait(job->operation->stopToken());
    if (!answer) {
        onMain([pending](CVOperationController &controller) {
            controller.d->questions.withdraw(pending.get());
        });
    }
    return answer.value_or(CVAlertResult::Cancel);
}

void CVOperationController::Private::showJobAgain()
{
    const Job shown = currentJob();
    if (!shown || !shown->isForeground)
        navigate([this](CVNavigationDelegate &n) { n.controllerNeedsToGoBack(q); });
    else if (CVOperationFactory::operationIsPreviewOperation(shown->operation.get()))
        startProgress();
    else
        navigate([this](CVNavigationDelegate &n) { n.controllerNeedsToLoadProgressView(q); });
}

CVAlertResult CVOperationController::operationNeedsToAskWhetherToReplaceFileAtPath(CVOperation *operation,
                                                                                   const QString &path)
{
    const CVAlert alert{
        .withCancelButton = true,
        .message = tr("“%1” already exists. Do you want to replace it?").arg(LXDisplay::displayName(path)),
        .informativeText =
            tr("A file or folder with the same name already exists in this location. Replacing "
               "it will overwrite its current contents."),
        .defaultButtonLabel = tr("Replace")};
    return d->ask(
        operation, alert, [](CVOperationController &controller, const Private::Job &job, int result) {
            if (result == defaultButton)
                return controller.d->showJobAgain();
            // The job's end, which follows, would go back once more.
            job->wentBack = true;
            controller.d->navigate([&](CVNavigationDelegate &n) { n.controllerNeedsToGoBack(controller); });
        });
}

CVAlertResult CVOperationController::operationNeedsToAskWhetherToContinueAfterArchiveAtPath(
    CVOperation *operation, const QString &, const LXError &error)
{
    CVAlert alert = Private::alertFor(error);
    alert.withCancelButton = true;
    alert.defaultButtonLabel = tr("Skip");
    return d->ask(operation, alert, [](CVOperationController &controller, const Private::Job &, int result) {
        if (result == defaultButton)
            controller.d->showJobAgain();
    });
}

bool CVOperationController::operationNeedsToAskWhetherToExceedLimit(CVOperation *operation,
                                                                    const QString &archivePath,
                                                                    const QString &explanation)
{
    const CVAlert alert{
        .withCancelButton = true,
        .message = tr("Do you want to extract “%1” nevertheless?").arg(LXDisplay::displayName(archivePath)),
        .informativeText = explanation,
        .defaultButtonLabel = tr("Extract")};
    const auto result =
        d->ask(operation, alert, [](CVOperationController &controller, const Private::Job &job, int button) {
            // Without consent the archive fails, and that is told next.
            if (button == defaultButton || !job->isForeground)
                controller.d->showJobAgain();
        });
    return result == CVAlertResult::Default;
}

void CVOperationController::operationNeedsToShowError(CVOperation *operation, const LXError &error)
{
    if (const auto job = d->jobOf(operation))
        Private::postNotification(tr("Task failed"), *job);
    d->ask(operation, Private::alertFor(error),
           [](CVOperationController &controller, const Private::Job &job, int) {
               if (!job->isForeground)
                   return controller.d->showJobAgain();
               QTimer::singleShot(progressDelay, [weak = controller.weak_from_this(), job] {
                   const auto alive = weak.lock();
                   if (alive && !job->isOver && !alive->d->questions.isAsking())
                       alive->d->showJobAgain();
               });
           });
}

std::optional<QString> CVOperationController::operationNeedsPasswordForFileAtPath(CVOperation *operation,
                                                                                  const QString &path,
                                                                                  bool failed)
{
    const auto job = d->jobOf(operation);
    if (!job)
        return std::nullopt;
    const QString name = LXDisplay::displayName(path);
    const QString text = failed ? tr("Invalid password for “%1”, please try again.").arg(name)
                                : tr("Please enter the password to open “%1”").arg(name);
    const auto turn = std::make_shared<LXPendingAnswer<bool>>();
    d->onMain([job, turn, text, failed](CVOperationController &controller) {
        if (job->isOver || job->operation->isCancelled() || controller.d->isClosed)
            return turn->give(false);
        controller.d->questions.prompt(turn.get(), [&controller, job, turn, text, failed] {
            CVPasswordScreen *const screen = controller.d->screens.password;
            controller.d->prompting = job;
            if (screen) {
                screen->setInformativeText(text);
                screen->setLastTryFailed(failed);
            }
            turn->give(screen != nullptr);
        });
    });
    std::optional<QString> password;
    const std::stop_token stop = job->operation->stopToken();
    if (turn->wait(stop).value_or(false)) {
        std::unique_lock lock(d->screenMutex);
        if (CVPasswordScreen *const screen = d->password) {
            ++d->promptsInside;
            lock.unlock();
            password = screen->promptForPassword(stop);
            lock.lock();
            --d->promptsInside;
            d->screenLeft.notify_all();
        }
    }
    d->onMain([job, turn](CVOperationController &controller) {
        if (controller.d->prompting == job)
            controller.d->prompting.reset();
        controller.d->questions.finished(turn.get());
        controller.d->questions.withdraw(turn.get());
    });
    return password;
}

void CVOperationController::passwordPromptFinishedWasCancelled(bool cancelled)
{
    const auto job = d->prompting ? d->prompting : d->currentJob();
    if (!job || job->isOver)
        return;
    if (job->isForeground && cancelled) {
        job->wentBack = true; // the job's end, which follows, would go back once more
        job->operation->cancel();
        d->navigate([this](CVNavigationDelegate &n) { n.controllerNeedsToGoBackToMainView(*this); });
    } else {
        d->showJobAgain();
    }
}

// ---- alerts that no job waits for ----

CVAlert CVOperationController::Private::alertFor(const LXError &error)
{
    QString text;
    if (!error.reason.isEmpty())
        text = error.reason + u' ';
    text += error.suggestion;
    return {.withCancelButton = false,
            .message = error.description,
            .informativeText = text,
            .defaultButtonLabel = tr("OK")};
}

void CVOperationController::Private::alert(const CVAlert &alert, CVControllerQuestions::Ended ended)
{
    const auto key = std::make_shared<int>(); // an address of its own for as long as it is asked
    questions.alert(key.get(), alert, [key, ended = std::move(ended)](int result) { ended(result); });
}

void CVOperationController::Private::showError(const LXError &error, std::function<void()> closed)
{
    alert(alertFor(error), [closed = std::move(closed)](int) { closed(); });
}

void CVOperationController::Private::tellSkipped(CVControllerJob &job)
{
    std::vector<CVSkippedInArchive> left;
    {
        const std::lock_guard lock(job.mutex);
        left = std::exchange(job.skipped, {});
    }
    if (left.empty())
        return;
    const auto &[path, entries] = left.front();
    QStringList lines;
    for (std::size_t i = 0; i < std::min(entries.size(), namedEntries); ++i)
        lines.append(LXDisplay::displayEscaped(entries[i].name) + u": "_s + entries[i].reason);
    if (entries.size() > namedEntries)
        lines.append(u"…"_s);
    alert({.withCancelButton = false,
           .message = tr("Some items of “%1” were left out.").arg(LXDisplay::displayName(path)),
           .informativeText = lines.join(u'\n'),
           .defaultButtonLabel = tr("OK")},
          [this](int) { showJobAgain(); });
}

// ---- data bindings ----

void CVOperationController::operationDataDidChangeArchiveType(CVEditArchiveOperationDataBinding &,
                                                              const QString &type)
{
    if (!d->navigation)
        return;
    const bool hidden = hidesNone(type);
    if (d->navigation->controllerIsAtCreateView(*this)) {
        if (d->screens.create)
            d->screens.create->setNoneHidden(hidden);
    } else if (d->screens.convert) {
        d->screens.convert->setNoneHidden(hidden);
    }
}

QString CVOperationController::operationDataPathToInputFile(CVOperationDataBinding &)
{
    return operationPathToInputFile(nullptr);
}

// ---- news and ends ----

void CVOperationController::operationSkippedEntries(CVOperation *operation, const QString &archivePath,
                                                    const std::vector<CVSkippedEntry> &entries)
{
    const auto job = d->jobOf(operation);
    if (!job || entries.empty())
        return;
    const std::lock_guard lock(job->mutex);
    job->skipped.push_back({archivePath, entries});
}

void CVOperationController::operationWillCreateMultiPartArchiveOfChunkSize(CVOperation *operation,
                                                                           double chunkSize,
                                                                           const QString &format)
{
    d->onMainFor(operation, [chunkSize, format](CVOperationController &controller, const Private::Job &job) {
        Private &its = *controller.d;
        its.tearDown(job);
        const QString path = controller.operationPathToInputFile(nullptr);
        if (its.isClosed || path.isEmpty())
            return;
        // One of its own: the create screen's would make volumes of every archive from now on.
        const auto data = std::make_shared<CVCreateOperationDataBinding>();
        data->setSourcePath(path);
        data->setChunkSize(chunkSize);
        data->setArchiveName(lastComponent(path));
        data->setArchiveTypeValue(format);
        data->forgoEncryption();
        its.run(CVOperationFactory::createOperationWithDataBinding(data));
    });
}

void CVOperationController::operationCompleted(CVOperation *operation)
{
    d->onMainFor(operation, [](CVOperationController &controller, const Private::Job &job) {
        controller.d->completeWithoutFiles(job);
    });
}

void CVOperationController::operationCompletedWithFilesAtPaths(CVOperation *operation,
                                                               const QStringList &paths, bool multipleFiles)
{
    const auto sender = d->jobOf(operation);
    const bool wanted = sender && !paths.isEmpty() &&
                        (sender->isInPlace || CVSettings::boolean(CVSettingsKey::showInFinderAfterExtract));
    const bool shows = wanted && !isOnDesktop(paths.last());
    d->onMainFor(operation,
                 [paths, multipleFiles, shows](CVOperationController &controller, const Private::Job &job) {
                     controller.d->complete(job, paths, multipleFiles, shows);
                 });
}

void CVOperationController::operationCompletedWithPreviewFiles(
    CVOperation *operation, const std::vector<std::shared_ptr<CVArchive>> &archives)
{
    d->onMainFor(operation, [archives](CVOperationController &controller, const Private::Job &job) {
        Private &its = *controller.d;
        if (!its.isClosed) {
            its.setPreviewedArchives(archives);
            its.navigate([&](CVNavigationDelegate &n) {
                n.controllerNeedsToLoadPreviewViewWithFiles(controller, archives);
            });
            its.stopProgress();
        }
        its.tearDown(job);
    });
}

void CVOperationController::operationFailedWithError(CVOperation *operation, const LXError &error)
{
    d->onMainFor(operation, [error](CVOperationController &controller, const Private::Job &job) {
        Private &its = *controller.d;
        if (its.isClosed)
            return its.tearDown(job);
        Private::postNotification(tr("Task failed"), *job);
        job->isInPlace = false; // the window stays, and closing it ends the application
        its.showError(error, [&its, job] {
            if (job->isForeground)
                its.navigate([&](CVNavigationDelegate &n) { n.controllerNeedsToGoBack(its.q); });
            else
                its.showJobAgain();
            its.tearDown(job);
        });
    });
}

void CVOperationController::previewOperationFailedWithPreviewFiles(
    CVOperation *operation, const std::vector<std::shared_ptr<CVArchive>> &archives,
    const QStringList &failedArchives)
{
    d->onMainFor(operation, [archives, failedArchives](CVOperationController &controller,
                                                       const Private::Job &job) {
        Private &its = *controller.d;
        its.stopProgress();
        if (its.isClosed)
            return its.tearDown(job);
        Private::postNotification(tr("Task failed"), *job);
        const bool several = failedArchives.size() > 1;
        CVAlert alert = Private::alertFor({});
        if (!archives.empty()) {
            its.setPreviewedArchives(archives);
            alert.message = tr("Some of the archives could not be opened.");
            alert.informativeText = tr("%1 of the archives could not be opened, possibly because they are "
                                       "incomplete or corrupt.")
                                        .arg(failedArchives.size());
        } else if (several) {
            alert.message = tr("The archives could not be opened.");
            alert.informativeText = tr("None of the archives could be opened, possibly because they are "
                                       "incomplete or corrupt.");
        } else {
            alert.message = tr("The archive could not be opened.");
            alert.informativeText =
                tr("The archive “%1” could not be opened, possibly because it's incomplete or corrupt.")
                    .arg(LXDisplay::displayName(failedArchives.value(0)));
        }
        its.alert(alert, [&its, &controller, archives, job](int) {
            if (its.isClosed) {
                // nothing to show any more
            } else if (archives.empty()) {
                if (its.screens.options)
                    its.screens.options->showOptions();
            } else {
                its.navigate([&](CVNavigationDelegate &n) {
                    n.controllerNeedsToLoadPreviewViewWithFiles(controller, archives);
                });
            }
            its.tearDown(job);
        });
    });
}

void CVOperationController::Private::cancelled(const Job &job, bool toMainView, bool notifies)
{
    if (!isClosed) {
        stopProgress();
        if (job->isForeground && !job->wentBack) {
            navigate([&](CVNavigationDelegate &n) {
                if (toMainView)
                    n.controllerNeedsToGoBackToMainView(q);
                else
                    n.controllerNeedsToGoBackIfNotAtMain(q);
            });
        }
        if (notifies)
            postNotification(tr("Task cancelled"), *job);
    }
    tearDown(job);
}

void CVOperationController::operationWasCancelled(CVOperation *operation)
{
    d->onMainFor(operation, [](CVOperationController &controller, const Private::Job &job) {
        controller.d->cancelled(job, false, true);
    });
}

void CVOperationController::operationCancelledShowingNotification(CVOperation *operation, bool show)
{
    d->onMainFor(operation, [show](CVOperationController &controller, const Private::Job &job) {
        controller.d->cancelled(job, true, show);
    });
}
