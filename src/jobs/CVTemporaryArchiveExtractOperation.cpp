#include "jobs/CVTemporaryArchiveExtractOperation.h"

#include "engine/model/CVOperationHelper.h"

LXResult<QString> CVTemporaryArchiveExtractOperation::makeWorkDirectoryForEntries()
{
    const QString destination = destinationPath();
    const auto grant =
        CVJobFolders::askForAccess(*this, destination, {destination}, CVJobFolders::Access::UnlessChosen);
    if (!grant || !grant->granted)
        return QString();
    startSecurelyAccessing(grant->path);
    auto made = CVOperationHelper::createWorkDirectoryInPath(destination);
    stopSecurelyAccessing(grant->path);
    return made;
}
