#include "jobs/CVTemporaryArchiveExtractOperation.h"

#include "engine/model/CVOperationHelper.h"

CVExtractArchivesOperation::Folders CVTemporaryArchiveExtractOperation::chooseFolders()
{
    if (!singleFiles() || openingSingleFile())
        return CVExtractArchivesOperation::chooseFolders();
    const QString destination = destinationPath();
    const bool allowed = waitForAccess([&](AuthorizedHandler handler) {
        runAuthorizedHandlerToDestination(destination, {destination}, std::move(handler));
    });
    if (!allowed) {
        endAsCancelled();
        return Folders::Ended;
    }
    const Folders made = workDirectoryMade(CVOperationHelper::createWorkDirectoryInPath(destination));
    deauthorize();
    return made;
}
