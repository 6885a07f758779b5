#include "engine/model/CVWorkDirectoryCleanOperation.h"

#include "engine/model/CVOpenedEntries.h"
#include "engine/model/CVOperationDelegate.h"
#include "engine/model/CVOperationHelper.h"
#include "engine/model/CVWorkDirectoryManager.h"
#include "util/LXLog.h"
#include "util/LXPendingAnswer.h"
#include "util/LXRemoveTree.h"

#include <QCoreApplication>

#include <cerrno>

namespace {

Q_LOGGING_CATEGORY(lcClean, "corvane.engine.clean")

QString text(const char *key)
{
    return QCoreApplication::translate("CVWorkDirectoryCleanOperation", key);
}

} // namespace

QString CVWorkDirectoryCleanOperation::taskDescription() const
{
    return text("Clean temporary files");
}

void CVWorkDirectoryCleanOperation::main()
{
    delegate()->operationWorkingOnJob(this, text("Cleaning up (this may take a few minutes)..."));
    delegate()->operationProgressIconForFilename(this, QStringLiteral("/"), false);
    if (const QStringList folders = CVWorkDirectoryManager::workDirs(); !folders.isEmpty()) {
        struct Access
        {
            bool granted;
            QString path;
        };
        const auto answer = std::make_shared<LXPendingAnswer<Access>>();
        runAuthorizedHandler(folders, [answer](bool granted, const QString &path) {
            answer->give({granted, path});
        });
        const auto access = answer->wait(stopToken());
        if (access && access->granted) {
            startSecurelyAccessing(access->path);
            // Read again: time has passed while the person was asked.
            deleteFolders(CVWorkDirectoryManager::workDirs());
            stopSecurelyAccessing(access->path);
        } else {
            cancel();
        }
    }
    endOperation();
}

void CVWorkDirectoryCleanOperation::deleteFolders(const QStringList &folders)
{
    QStringList done;
    QStringList refused;
    QStringList failed;
    QStringList changed;
    for (qsizetype i = 0; i < folders.size() && !isCancelled(); ++i) {
        const QString &folder = folders.at(i);
        if (!CVWorkDirectoryManager::isWorkDirectoryPath(folder)) {
            LX_WARNING(lcClean, "not a work directory, left alone: %s", qUtf8Printable(folder));
            refused.append(folder);
            done.append(folder);
        } else {
            LXFileDescriptor claim;
            const int verdict = CVWorkDirectoryManager::claimForRemoval(folder, claim);
            if (verdict == 0 && CVOpenedEntries::wereChanged(folder)) {
                changed.append(folder);
            } else if (verdict == 0) {
                const auto removed = removeTree(folder, stopToken());
                if (isCancelled())
                    break; // the rest of it is still there, and so is its entry
                if (!removed && removed.error().code != ENOENT) {
                    LX_WARNING(lcClean, "error removing %s: %s", qUtf8Printable(folder),
                               qUtf8Printable(removed.error().reason));
                    failed.append(removed.error().description + u' ' + removed.error().reason);
                }
            }
            if (verdict != EWOULDBLOCK)
                done.append(folder);
        }
        delegate()->operationHasMadeProgress(this, static_cast<double>(i),
                                             static_cast<double>(folders.size()));
    }
    CVWorkDirectoryManager::forget(done);
    if (!changed.isEmpty()) {
        delegate()->operationNeedsToShowError(
            this, CVOperationHelper::errorWithMessage(CVOpenedEntries::titleAboutKept(),
                                                      CVOpenedEntries::textAboutKept(changed)));
    }
    if (!refused.isEmpty()) {
        delegate()->operationNeedsToShowError(
            this, CVOperationHelper::errorWithMessage(
                      text("Some entries in the list of work directories are not ours and were left alone."),
                      refused.join(u'\n')));
    }
    if (!failed.isEmpty()) {
        delegate()->operationNeedsToShowError(
            this, CVOperationHelper::errorWithMessage(text("Some work directories could not be removed."),
                                                      failed.join(u'\n')));
    }
}

void CVWorkDirectoryCleanOperation::endOperation()
{
    if (!endOnce())
        return;
    if (isCancelled())
        delegate()->operationCancelledShowingNotification(this, true);
    else
        delegate()->operationCompleted(this);
}
