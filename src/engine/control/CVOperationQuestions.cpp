// What jobs ask, on their threads, and the alerts that no job waits for. A question ends with a cancel of its
// job.

#include "engine/control/CVOperationControllerPrivate.h"
#include "engine/control/CVOperationFactory.h"
#include "util/LXDisplay.h"
#include "util/LXPendingAnswer.h"

#include <QTimer>

#include <algorithm>
#include <chrono>

using namespace CVControl;
using namespace Qt::StringLiterals;

namespace {

// After a message the job usually ends within this time, and its own screen comes next.
constexpr std::chrono::milliseconds progressDelay{300};

constexpr int defaultButton = 1;

// Left-out entries that a message names.
constexpr std::size_t namedEntries = 5;

} // namespace

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
