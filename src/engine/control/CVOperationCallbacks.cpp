// What jobs tell, on their threads. Nothing here waits for the main thread.

#include "archives/CVArchive.h"
#include "engine/control/CVOperationControllerPrivate.h"
#include "engine/control/CVOperationFactory.h"
#include "engine/model/CVEditArchiveOperationDataBinding.h"
#include "engine/model/CVSettings.h"
#include "platform/LXDesktopFolders.h"
#include "util/LXDisplay.h"
#include "util/LXFileName.h"
#include "util/path_parts.h"

#include <algorithm>
#include <cstdlib>

using namespace CVControl;
using namespace Qt::StringLiterals;

namespace {

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
        if (notifies && !job->isForLook)
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
