#pragma once

#include <QString>
#include <QStringList>

#include <memory>

class CVArchive;
class CVCreateOperationDataBinding;
class CVConvertOperationDataBinding;
class CVExtractArchivesOperation;
class CVOperation;
class CVSplitOperationDataBinding;

/// The one place that makes jobs. Each call gives a new one, not yet queued and without a delegate.
class CVOperationFactory
{
public:
    static std::shared_ptr<CVExtractArchivesOperation> extractArchivesOperation();
    /// The entries `files` of an archive that was opened before, delivered to the folder `destination`.
    static std::shared_ptr<CVExtractArchivesOperation>
    singleFilesExtractOperationWithArchive(std::shared_ptr<CVArchive> archive, const QStringList &files,
                                           const QString &destination);
    /// One entry, left in a temporary folder for whoever opens it.
    static std::shared_ptr<CVExtractArchivesOperation>
    singleFileExtractThenOpenOperationWithArchive(std::shared_ptr<CVArchive> archive, const QString &file);
    /// Lists the archives of its window.
    static std::shared_ptr<CVOperation> previewOperation();
    /// A new archive of the files of its window.
    static std::shared_ptr<CVOperation>
    createOperationWithDataBinding(std::shared_ptr<CVCreateOperationDataBinding> data);
    static std::shared_ptr<CVOperation>
    convertOperationWithDataBinding(std::shared_ptr<CVConvertOperationDataBinding> data);
    static std::shared_ptr<CVOperation>
    splitFileOperationWithDataBinding(std::shared_ptr<CVSplitOperationDataBinding> data);
    static std::shared_ptr<CVOperation> combineOperation();
    static std::shared_ptr<CVOperation> workDirectoryCleanOperation();

    static bool operationIsPreviewOperation(const CVOperation *operation);
    static bool operationExtractedSingleFileForOpening(const CVOperation *operation);
};
