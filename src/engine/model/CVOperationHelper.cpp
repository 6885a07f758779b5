#include "engine/model/CVOperationHelper.h"

#include "engine/model/CVDestinationChooser.h"
#include "engine/model/CVSettings.h"
#include "engine/model/CVWorkDirectoryManager.h"
#include "sandbox/CVFileAuthenticator.h"
#include "util/LXDisplay.h"
#include "util/LXFileName.h"
#include "util/LXLog.h"
#include "util/LXMainThread.h"
#include "util/LXPendingAnswer.h"
#include "util/LXRemoveTree.h"
#include "util/unique_string.h"

#include <QCoreApplication>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(lcDirectories, "corvane.engine.directories", QtInfoMsg)

QString text(const char *key)
{
    return QCoreApplication::translate("CVOperationHelper", key);
}

struct Chooser
{
    std::mutex mutex;
    std::shared_ptr<CVDestinationChooser> chooser;
};

Chooser &sharedChooser()
{
    static Chooser instance;
    return instance;
}

std::shared_ptr<CVDestinationChooser> currentChooser()
{
    const std::lock_guard lock(sharedChooser().mutex);
    return sharedChooser().chooser;
}

QString newWorkDirectoryPath(const QString &path)
{
    Q_ASSERT_X(!path.isEmpty(), Q_FUNC_INFO, "Path can't be null");
    const auto separator = path.endsWith(u'/') ? QLatin1StringView() : "/"_L1;
    return path + separator + CVWorkDirectoryManager::namePrefix() + uniqueString();
}

LXResult<QString> makeWorkDirectory(const QString &directory)
{
    if (const auto made = CVWorkDirectoryManager::makeWorkDir(directory); !made) {
        return LXError{.domain = u"CorvaneErrorDomain"_s,
                       .code = CVFileError::codeForErrno(made.error().code),
                       .description = text("The folder “%1” could not be made.").arg(directory),
                       .reason = made.error().reason,
                       .suggestion = {}};
    }
    return directory;
}

LXError setupError(int code, const QString &inputFile, const QString &destination)
{
    const QString input = LXDisplay::displayName(inputFile);
    const QString folder = LXDisplay::displayName(destination);
    // One pass over both places: a name may hold what looks like the next place.
    switch (code) {
    case CVFileError::volumeReadOnly:
        return CVOperationHelper::errorWithMessage(
            text("The file “%1” could not be opened because “%2” is read-only.").arg(input, folder),
            text("Try opening the file to another disk."));
    case CVFileError::outOfSpace:
        return CVOperationHelper::errorWithMessage(
            text("The file “%1” could not be opened because “%2” is full.").arg(input, folder),
            text("Try deleting files from %1 or opening the file to another disk.").arg(folder));
    case CVFileError::noPermission:
        return CVOperationHelper::errorWithMessage(
            text("The file “%1” could not be opened because you do not have permissions to write to “%2”.")
                .arg(input, folder),
            text("Try selecting an output folder that is writable by you."));
    case CVFileError::outOfResources:
        return CVOperationHelper::errorWithMessage(
            text(
                "The file “%1” could not be opened because the computer has no memory or no open files left.")
                .arg(input),
            text("Close other programs and try again."));
    default:
        return CVOperationHelper::errorWithMessage(
            text("An unknown error occurred opening file “%1” to “%2”.").arg(input, folder),
            text("Try selecting a different output folder."));
    }
}

} // namespace

int CVFileError::codeForErrno(int systemError)
{
    switch (systemError) {
    case EROFS:
        return volumeReadOnly;
    case ENOSPC:
    case EDQUOT:
        return outOfSpace;
    case EACCES:
    case EPERM:
        return noPermission;
    case ENOENT:
        return noSuchFile;
    case EMFILE:
    case ENFILE:
    case ENOMEM:
        return outOfResources;
    default:
        return writeUnknown;
    }
}

void CVOperationHelper::setDestinationChooser(std::shared_ptr<CVDestinationChooser> chooser)
{
    const std::lock_guard lock(sharedChooser().mutex);
    sharedChooser().chooser = std::move(chooser);
}

std::optional<QString> CVOperationHelper::defaultDestinationFolderForSourcePath(const QString &sourcePath)
{
    const qint64 option = CVSettings::integer(CVSettingsKey::extractDestination);
    switch (static_cast<CVExtractDestination>(option)) {
    case CVExtractDestination::ArchiveFolder:
        return QFileInfo(sourcePath).absolutePath();
    case CVExtractDestination::AskMe:
        return promptForDestinationPath();
    case CVExtractDestination::DefaultFolder: {
        const QString folder = CVSettings::string(CVSettingsKey::extractDefaultDestination);
        const QString resolved = QFileInfo(folder).canonicalFilePath();
        // It does not exist yet: it is made with the work directory.
        return resolved.isEmpty() ? QFileInfo(folder).absoluteFilePath() : resolved;
    }
    }
    LX_WARNING(lcDirectories, "Invalid extract destination option %lld", static_cast<long long>(option));
    return std::nullopt;
}

bool CVOperationHelper::extractDestinationHasBeenAskedFor()
{
    return CVSettings::integer(CVSettingsKey::extractDestination) ==
           static_cast<int>(CVExtractDestination::AskMe);
}

bool CVOperationHelper::canPrompt()
{
    return currentChooser() != nullptr;
}

std::optional<QString> CVOperationHelper::promptForDestinationPath()
{
    const auto chooser = currentChooser();
    if (!chooser)
        return std::nullopt;
    // Shared, because the answer may come after a cancel has ended the wait.
    const auto answer = std::make_shared<LXPendingAnswer<std::optional<QString>>>();
    LXMainThread::post([chooser, answer] {
        chooser->chooseDestination(
            text("Choose destination"), text("Open"),
            [answer](std::optional<QString> folder) { answer->give(std::move(folder)); });
    });
    const auto chosen = answer->wait(m_stop);
    if (!chosen || !*chosen || (*chosen)->isEmpty())
        return std::nullopt;
    return *chosen;
}

LXResult<QString> CVOperationHelper::createWorkDirectoryInPath(const QString &path)
{
    return makeWorkDirectory(newWorkDirectoryPath(path));
}

LXResult<QString>
CVOperationHelper::createWorkDirectoryInPath(const QString &path,
                                             const std::shared_ptr<LXSandboxFileAuthenticator> &authenticator)
{
    const auto authorizer = authenticator ? authenticator : CVFileAuthenticator::fileAuthenticator();
    const auto answer = std::make_shared<LXPendingAnswer<LXResult<QString>>>();
    const QString directory = newWorkDirectoryPath(path);
    authorizer->authorizeItemsAtURLsWithSingleURL({directory}, CVFileAuthenticator::message(), nullptr,
                                                  [=](bool granted, const QString &grant) {
                                                      if (!granted) {
                                                          answer->give(QString());
                                                          return;
                                                      }
                                                      authorizer->startAccessing(grant);
                                                      answer->give(makeWorkDirectory(directory));
                                                      authorizer->stopAccessing(grant);
                                                  });
    const auto made = answer->wait(m_stop);
    return made ? *made : LXResult<QString>(QString());
}

LXResult<std::optional<CVOutputDirectories>>
CVOperationHelper::setupOutputDirectoryForOperation(const CVOutputDirectoryRequest &request)
{
    using Nothing = std::optional<CVOutputDirectories>;
    CVOperationHelper helper(request.stop);
    const bool askedFor = extractDestinationHasBeenAskedFor();
    // A folder chosen in a panel is accessible already.
    const auto makeIn = [&](const QString &folder) {
        return askedFor ? createWorkDirectoryInPath(folder)
                        : helper.createWorkDirectoryInPath(folder, request.fileAuthenticator);
    };

    auto destination = helper.defaultDestinationFolderForSourcePath(request.inputFile);
    if (!destination)
        return Nothing();
    auto workDirectory = makeIn(*destination);
    // Nobody to ask is no answer of a person: the failure itself is the news then.
    if (!workDirectory && !askedFor && canPrompt()) {
        LX_DEBUG(lcDirectories, "%s: %s", qUtf8Printable(request.operation),
                 qUtf8Printable(workDirectory.error().reason));
        destination = helper.promptForDestinationPath();
        if (!destination)
            return Nothing();
        workDirectory = makeIn(*destination);
    }
    if (!workDirectory)
        return setupError(workDirectory.error().code, request.inputFile, *destination);
    if (workDirectory.value().isEmpty())
        return Nothing();
    return Nothing({*destination, workDirectory.value()});
}

LXError CVOperationHelper::errorForSystemError(int systemError, const QString &inputFile,
                                               const QString &destination)
{
    return setupError(CVFileError::codeForErrno(systemError), inputFile, destination);
}

LXResult<void> CVOperationHelper::removeItemAtPathForOverwrite(const QString &path)
{
    const auto removed = removeTree(path);
    if (removed)
        return {};
    return errorForOverwriting(path, removed.error().code);
}

LXError CVOperationHelper::errorForOverwriting(const QString &path, int systemError)
{
    const int code = CVFileError::codeForErrno(systemError);
    const bool forbidden = code == CVFileError::noPermission;
    const char *description =
        forbidden ? "“%1” couldn’t be overwritten because you don’t have permission to access it."
                  : "“%1” couldn’t be overwritten because the file isn't writable by you.";
    const char *suggestion = forbidden ? "Try changing the permissions or chosing a different archive name."
                                       : "Try chosing a different archive name.";
    return LXError{.domain = u"RSErrorDomain"_s,
                   .code = code,
                   .description = text(description).arg(LXDisplay::displayName(path)),
                   .reason = {},
                   .suggestion = text(suggestion)};
}

LXError CVOperationHelper::errorWithMessage(const QString &message, const QString &description)
{
    return LXError{.domain = u"CorvaneErrorDomain"_s,
                   .code = 1,
                   .description = message,
                   .reason = description,
                   .suggestion = {}};
}
