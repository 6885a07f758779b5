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
                                                    const QString &inputFile, const QStringList &alsoRead)
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
    const std::shared_ptr<CVJobFolders> folders(new CVJobFolders(operation));
    folders->m_outputDirectory = made.value()->outputDirectory;
    folders->m_workDirectory = made.value()->workDirectory;

    struct Answer
    {
        bool granted;
        QString path;
    };
    const auto pending = std::make_shared<LXPendingAnswer<Answer>>();
    operation.runAuthorizedHandlerToDestination(folders->m_workDirectory,
                                                alsoRead + QStringList{folders->m_workDirectory},
                                                [pending](bool granted, const QString &path) {
                                                    pending->give({granted, path});
                                                });
    const auto answer = pending->wait(operation.stopToken());
    if (!answer || !answer->granted)
        return Choice{.folders = nullptr, .wasRefused = answer.has_value()};
    folders->m_authorized = answer->path;
    operation.startSecurelyAccessing(answer->path);
    return Choice{.folders = folders};
}

CVJobFolders::~CVJobFolders()
{
    CVWorkDirectoryManager::discardWorkDir(m_workDirectory);
    if (!m_authorized.isEmpty())
        m_operation.stopSecurelyAccessing(m_authorized);
}

LXResult<QString> CVJobFolders::deliver(const QString &item, const QString &name) const
{
    auto moved = moveToUniqueDestination(item, m_outputDirectory, name);
    if (moved)
        return moved;
    LX_WARNING(lcFolders, "moving %s: %s", qUtf8Printable(item), qUtf8Printable(moved.error().reason));
    LXError error = CVOperationHelper::errorWithMessage(
        QCoreApplication::translate("CVJobFolders", "Couldn't copy unpacked files from working directory"),
        QCoreApplication::translate("CVJobFolders", "Please try again."));
    error.suggestion = moved.error().reason;
    return error;
}
