#include "jobs/CVJobFolders.h"

#include "engine/model/CVOperation.h"
#include "engine/model/CVOperationHelper.h"
#include "engine/model/CVWorkDirectoryManager.h"
#include "util/LXLog.h"
#include "util/LXPendingAnswer.h"
#include "util/LXRemoveTree.h"
#include "util/unique_destination.h"

#include <QCoreApplication>

#include <cerrno>

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
    CVWorkDirectoryManager::registerWorkDir(folders->m_workDirectory);

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
    // It is gone already when it was delivered itself.
    if (const auto removed = removeTree(m_workDirectory); !removed && removed.error().code != ENOENT)
        // It stays on the list of what has to be removed some day.
        LX_WARNING(lcFolders, "error removing work directory %s: %s", qUtf8Printable(m_workDirectory),
                   qUtf8Printable(removed.error().reason));
    else
        CVWorkDirectoryManager::removeWorkDir(m_workDirectory);
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
