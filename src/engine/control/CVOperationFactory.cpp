#include "engine/control/CVOperationFactory.h"

#include "engine/model/CVWorkDirectoryCleanOperation.h"
#include "jobs/CVCombineFilesOperation.h"
#include "jobs/CVConvertArchiveOperation.h"
#include "jobs/CVCreateArchiveOperation.h"
#include "jobs/CVExtractArchivesOperation.h"
#include "jobs/CVPreviewArchiveContentsOperation.h"
#include "jobs/CVSplitFileOperation.h"
#include "jobs/CVTemporaryArchiveExtractOperation.h"

std::shared_ptr<CVExtractArchivesOperation> CVOperationFactory::extractArchivesOperation()
{
    return std::make_shared<CVExtractArchivesOperation>();
}

std::shared_ptr<CVExtractArchivesOperation> CVOperationFactory::singleFilesExtractOperationWithArchive(
    std::shared_ptr<CVArchive> archive, const QStringList &files, const QString &destination)
{
    auto operation = std::make_shared<CVExtractArchivesOperation>();
    operation->setSingleFiles(files);
    operation->setSourceArchive(std::move(archive));
    operation->setDestinationPath(destination);
    return operation;
}

std::shared_ptr<CVExtractArchivesOperation>
CVOperationFactory::singleFileExtractThenOpenOperationWithArchive(std::shared_ptr<CVArchive> archive,
                                                                  const QString &file)
{
    auto operation = std::make_shared<CVTemporaryArchiveExtractOperation>();
    operation->setSingleFiles({file});
    operation->setSourceArchive(std::move(archive));
    operation->setOpeningSingleFile(true);
    return operation;
}

std::shared_ptr<CVOperation> CVOperationFactory::previewOperation()
{
    return std::make_shared<CVPreviewArchiveContentsOperation>();
}

std::shared_ptr<CVOperation>
CVOperationFactory::createOperationWithDataBinding(std::shared_ptr<CVCreateOperationDataBinding> data)
{
    return std::make_shared<CVCreateArchiveOperation>(std::move(data));
}

std::shared_ptr<CVOperation>
CVOperationFactory::convertOperationWithDataBinding(std::shared_ptr<CVConvertOperationDataBinding> data)
{
    return std::make_shared<CVConvertArchiveOperation>(std::move(data));
}

std::shared_ptr<CVOperation>
CVOperationFactory::splitFileOperationWithDataBinding(std::shared_ptr<CVSplitOperationDataBinding> data)
{
    return std::make_shared<CVSplitFileOperation>(std::move(data));
}

std::shared_ptr<CVOperation> CVOperationFactory::combineOperation()
{
    return std::make_shared<CVCombineFilesOperation>();
}

std::shared_ptr<CVOperation> CVOperationFactory::workDirectoryCleanOperation()
{
    return std::make_shared<CVWorkDirectoryCleanOperation>();
}

bool CVOperationFactory::operationIsPreviewOperation(const CVOperation *operation)
{
    return dynamic_cast<const CVPreviewArchiveContentsOperation *>(operation) != nullptr;
}

bool CVOperationFactory::operationExtractedSingleFileForOpening(const CVOperation *operation)
{
    const auto *extraction = dynamic_cast<const CVExtractArchivesOperation *>(operation);
    return extraction && extraction->openingSingleFile();
}
