#pragma once

#include "engine/model/CVEditArchiveOperationDataBinding.h"
#include "engine/model/CVOperation.h"
#include "jobs/CVArchiveConverter.h"
#include "util/LXResult.h"

#include <QString>
#include <QStringList>

#include <memory>
#include <mutex>

/// Turns the archive that its delegate names into one of the format, name and settings of the binding, in the
/// folder that the settings choose. The archive itself is only read.
///
/// The new archive is written in the work directory and moved to its place when it is complete, so until then
/// nothing of its name is there; one that was there before, which the person agreed to replace, goes only
/// then. Life: main() does everything on the queue's worker thread; a cancel ends it once the tools have
/// ended.
class CVConvertArchiveOperation final : public CVOperation, private CVArchiveConverterDelegate
{
public:
    explicit CVConvertArchiveOperation(std::shared_ptr<CVConvertOperationDataBinding> data);
    ~CVConvertArchiveOperation() override;

    void main() override;
    void cancel() override;
    QString taskDescription() const override;

private:
    enum class End {
        Done,
        Again, ///< with another password
    };

    QString chooseSource();
    bool userWantsPassword() const;
    bool passwordFits();
    bool chooseFolders();
    bool mayWriteDestination();
    bool mayReplace(const QString &path);
    bool belongsToSource(const QString &path) const;
    bool makesVolumes() const;
    End convert();
    void deliver();
    void completed(const QString &path);
    void failed(std::int32_t status);
    LXError errorForStatus() const;
    void endAsCancelled();
    void endAsFailed(const LXError &error);

    void archiveConverterHasMadeProgress(CVArchiveConverter *converter, double done, double total) override;
    void archiveConverterHasFinished(CVArchiveConverter *converter) override;
    void archiveConverterFailedWithStatus(CVArchiveConverter *converter, std::int32_t status) override;
    std::optional<QString> archiveConverterWantsPassword(CVArchiveConverter *converter) override;
    bool archiveConverterMayExceedLimit(CVArchiveConverter *converter, const QString &explanation) override;

    const std::shared_ptr<CVConvertOperationDataBinding> m_convertOperationData;

    std::mutex m_mutex; ///< guards the converter's pointer
    std::shared_ptr<CVArchiveConverter> m_archiveConverter;

    // The worker's own.
    QString m_source;
    QString m_outputDirectory;
    QString m_destinationPath;
    QString m_workDir;
    std::shared_ptr<class CVJobFolders> m_folders;
    std::int32_t m_status = 0; ///< how the last conversion ended
    bool m_usingCorvaneZipCompression = false;
    bool m_passwordInvalid = false; ///< the last one was refused
    bool m_passwordAsked = false;   ///< in this conversion
    bool m_mayReplace = false;
};
