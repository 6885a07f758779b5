#pragma once

#include "util/LXResult.h"

#include <QString>

#include <memory>
#include <optional>
#include <stop_token>

class CVDestinationChooser;
class LXSandboxFileAuthenticator;

/// What went wrong with a file, as the codes that texts are chosen by.
namespace CVFileError {
constexpr int noSuchFile = 4;
constexpr int outOfResources = 24; ///< no memory, or no open files left
constexpr int writeUnknown = 512;
constexpr int noPermission = 513;
constexpr int outOfSpace = 640;
constexpr int volumeReadOnly = 642;

/// EROFS, ENOSPC and EDQUOT, EACCES and EPERM, ENOENT, EMFILE and ENFILE and ENOMEM; anything else is
/// writeUnknown.
int codeForErrno(int systemError);
} // namespace CVFileError

/// Where a job's results go and where it works until then.
struct CVOutputDirectories
{
    QString outputDirectory;
    QString workDirectory; ///< made, empty, inside the former
};

struct CVOutputDirectoryRequest
{
    QString operation; ///< name of the kind of job, for the log
    QString inputFile;
    std::shared_ptr<LXSandboxFileAuthenticator> fileAuthenticator = {}; ///< null: the shared one
    std::stop_token stop = {};                                          ///< ends every question
};

/// Destinations, work directories and the errors about them. Made fresh for every use.
/// Thread: a worker; questions are asked on the main thread while the worker waits.
class CVOperationHelper
{
public:
    explicit CVOperationHelper(std::stop_token stop = {})
        : m_stop(std::move(stop))
    {}
    static CVOperationHelper defaultHelper(std::stop_token stop = {})
    {
        return CVOperationHelper(std::move(stop));
    }

    /// Who asks for a folder, for the whole process; null: nobody, every question is cancelled.
    static void setDestinationChooser(std::shared_ptr<CVDestinationChooser> chooser);

    /// By the setting "ExtractDestination". Nothing when the person cancelled or the setting is wrong.
    std::optional<QString> defaultDestinationFolderForSourcePath(const QString &sourcePath);
    static bool extractDestinationHasBeenAskedFor();
    std::optional<QString> promptForDestinationPath();

    /// Makes a hidden, registered folder with a name of its own (and the folders above it). The error's code
    /// is one of CVFileError.
    static LXResult<QString> createWorkDirectoryInPath(const QString &path);
    /// The same with the authoriser's permission; empty when it was refused.
    LXResult<QString>
    createWorkDirectoryInPath(const QString &path,
                              const std::shared_ptr<LXSandboxFileAuthenticator> &authenticator);

    /// The one entry for jobs: chooses the destination and makes the work directory in it. When that
    /// fails and the person had not been asked, it asks once for another folder. Nothing when the person
    /// cancelled or refused access; without a chooser the failure is reported at once. The caller
    /// discards the work directory.
    static LXResult<std::optional<CVOutputDirectories>>
    setupOutputDirectoryForOperation(const CVOutputDirectoryRequest &request);

    /// Domain "RSErrorDomain", code of CVFileError.
    static LXResult<void> removeItemAtPathForOverwrite(const QString &path);
    /// Its error, from an errno, for those who replace in another way than by removing first.
    static LXError errorForOverwriting(const QString &path, int systemError);

    /// Why the input could not be opened to the destination, for people, from an errno met while writing
    /// there.
    static LXError errorForSystemError(int systemError, const QString &inputFile, const QString &destination);

    /// An error for people: domain "CorvaneErrorDomain", code 1.
    static LXError errorWithMessage(const QString &message, const QString &description);

private:
    static bool canPrompt();

    std::stop_token m_stop;
};
