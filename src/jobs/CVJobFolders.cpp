#include "jobs/CVJobFolders.h"

#include "engine/model/CVOperation.h"
#include "engine/model/CVOperationHelper.h"
#include "engine/model/CVWorkDirectoryManager.h"
#include "util/LXLog.h"
#include "util/LXPendingAnswer.h"
#include "util/unique_destination.h"

#include <QCoreApplication>

using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(lcFolders, "corvane.jobs.folders", QtInfoMsg)

} // namespace

LXResult<CVJobFolders::Choice> CVJobFolders::choose(CVOperation &operation, const QString &kindOfJob,
                                                    const QString &inputFile, const QStringList &alsoRead,
                                                    Access access)
{
    const auto made = CVOperationHelper::setupOutputDirectoryForOperation(
        {.operation = kindOfJob,
         .inputFile = inputFile,
         .fileAuthenticator = operation.fileAuthenticator(),
         .stop = operation.stopToken()});
    if (!made)
        return made.error();
    if (!made.value())
        return Choice{};
    return take(operation, made.value()->workDirectory, made.value()->outputDirectory, alsoRead, access);
}

LXResult<CVJobFolders::Choice> CVJobFolders::take(CVOperation &operation,
                                                  const LXResult<QString> &workDirectory,
                                                  const QString &outputDirectory, const QStringList &alsoRead,
                                                  Access access)
{
    if (!workDirectory)
        return workDirectory.error();
    if (workDirectory.value().isEmpty())
        return Choice{};
    const std::shared_ptr<CVJobFolders> folders(new CVJobFolders(operation));
    folders->m_outputDirectory = outputDirectory;
    folders->m_workDirectory = workDirectory.value();
    const auto grant = askForAccess(operation, folders->m_workDirectory,
                                    alsoRead + QStringList{folders->m_workDirectory}, access);
    if (!grant || !grant->granted)
        return Choice{.folders = nullptr, .wasRefused = grant.has_value()};
    folders->m_authorized = grant->path;
    operation.startSecurelyAccessing(grant->path);
    return Choice{.folders = folders};
}

std::optional<CVJobFolders::Grant> CVJobFolders::askForAccess(CVOperation &operation,
                                                              const QString &destination,
                                                              const QStringList &paths, Access access)
{
    const auto pending = std::make_shared<LXPendingAnswer<Grant>>();
    const auto answer = [pending](bool granted, const QString &path) { pending->give({granted, path}); };
    if (access == Access::Always)
        operation.runAuthorizedHandler(paths, answer);
    else
        operation.runAuthorizedHandlerToDestination(destination, paths, answer);
    return pending->wait(operation.stopToken());
}

CVJobFolders::~CVJobFolders()
{
    // It is gone already when it was delivered itself.
    if (!m_keepsWorkDirectory)
        CVWorkDirectoryManager::discardWorkDir(m_workDirectory);
    if (!m_authorized.isEmpty())
        m_operation.stopSecurelyAccessing(m_authorized);
}

LXResult<QString> CVJobFolders::deliver(const QString &item, const QString &name) const
{
    if (item == m_workDirectory)
        CVWorkDirectoryManager::openToOthers(item);
    auto moved = moveToUniqueDestination(item, m_outputDirectory, name);
    if (moved)
        return moved;
    LX_WARNING(lcFolders, "moving %s: %s", qUtf8Printable(item), qUtf8Printable(moved.error().reason));
    return deliveryError(moved.error().reason);
}

LXError CVJobFolders::deliveryError(const QString &detail)
{
    LXError error = CVOperationHelper::errorWithMessage(
        QCoreApplication::translate("CVJobFolders", "Couldn't copy unpacked files from working directory"),
        QCoreApplication::translate("CVJobFolders", "Please try again."));
    error.suggestion = detail;
    return error;
}
