#pragma once

#include "archives/CVArchive.h"
#include "engine/model/CVBatchPosition.h"
#include "engine/model/CVOperation.h"
#include "jobs/CVBackEndRun.h"
#include "jobs/CVJobFolders.h"
#include "util/LXResult.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

/// Unpacks archives, or chosen entries of one archive, one after another: each into a work directory
/// of its own, from which the result moves to the destination under a name that is free.
///
/// Life: configured before it is queued; main() takes the archives in turn on the queue's worker
/// thread and ends when the last one has ended, so the job is finished only when nothing of it runs.
/// A cancel takes effect within one block of the reader; the work directory is gone and neither the
/// archive nor the destination has changed when the cancellation is reported.
/// Thread: setters before the job is queued; getters from any thread; delegate calls on the worker.
class CVExtractArchivesOperation : public CVOperation, protected CVArchiveDelegate
{
public:
    using ArchiveMaker = std::function<std::shared_ptr<CVArchive>(const QString &path)>;

    CVExtractArchivesOperation();
    ~CVExtractArchivesOperation() override;

    /// Paths inside the archive to extract, instead of everything; folders bring what is below them.
    void setSingleFiles(const QStringList &paths);
    std::optional<QStringList> singleFiles() const;
    /// The listed archive that the single files belong to. Its file is opened anew, because several jobs
    /// may take from one archive at a time; its password, where it has one, is tried first.
    void setSourceArchive(std::shared_ptr<CVArchive> archive);
    /// The folder that receives single files; of whole archives the settings decide.
    void setDestinationPath(const QString &path);
    QString destinationPath() const;
    /// The single file stays in a temporary folder, where it is opened.
    void setOpeningSingleFile(bool opening);
    bool openingSingleFile() const;
    /// Where back ends come from, by default the format factory.
    void setArchiveMaker(ArchiveMaker maker);

    /// What was delivered so far, in order; after a failure or cancel too.
    QStringList destinationPaths() const;

    void main() override;
    void cancel() override;
    QString taskDescription() const override;
    LXProgressUnit progressUnit() const override { return LXProgressUnit::Bytes; }

    /// One path a multi-part set, in the order of names as people sort them; a numbered 7-Zip set by
    /// its first part, where that exists. Linear but for the sorting.
    static QStringList sourcePathsByFlatteningSourcePaths(const QStringList &paths);

protected:
    /// Chosen entries go to the folder that was given with them.
    bool destinationSetToAskMe() const override;
    /// In destinationPath(), for chosen entries; empty when nobody allowed it.
    virtual LXResult<QString> makeWorkDirectoryForEntries();

private:
    /// One archive to extract.
    struct Source
    {
        QString path;
        std::optional<QString> password; ///< nothing: the person is asked where one is needed
    };
    enum class Next {
        Archive, ///< go on with the next one
        Again,   ///< the same one, with another password
        Stop,    ///< the job has ended
    };

    /// The job's end, if it is the first one.
    void endAsCancelled();
    void endAsFailed(const LXError &error);

    QString sourcePath() const;
    Source sourceFromArchive(const std::shared_ptr<CVArchive> &archive) const;
    LXResult<CVJobFolders::Choice> chooseFolders();
    Next extract(const Source &source);
    std::int32_t runBackEnd(const std::shared_ptr<CVArchive> &archive);
    Next succeeded(CVArchive &archive);
    Next failed(CVArchive &archive, std::int32_t status);
    bool deliver();
    void decideFate();
    LXError errorForFailedArchive(const CVArchive &archive) const;
    QString titleForExtractJob() const;
    CVBatchPosition batchPosition() const;
    Next endStep(bool last);

    void archiveFinished(CVArchive *archive) override;
    void archiveFailed(CVArchive *archive, std::int32_t status) override;
    void archiveCancelled(CVArchive *archive) override;
    void archiveHasMadeProgress(CVArchive *archive, double done, double total) override;
    std::optional<QString> archiveWantsPassword(CVArchive *archive) override;
    bool archiveMayExceedLimit(CVArchive *archive, const QString &explanation) override;

    mutable std::mutex m_mutex; ///< guards what follows, down to the next comment
    std::shared_ptr<CVArchive> m_sourceArchive;
    std::optional<QStringList> m_singleFiles;
    QStringList m_flattened;
    QStringList m_destinationPaths;
    QString m_sourcePath;
    QString m_destinationPath;
    bool m_openingSingleFile = false;
    bool m_invalidPasswordEntered = false;

    CVBackEndRun m_backEnd;

    // The worker's own.
    ArchiveMaker m_archiveMaker;
    std::shared_ptr<CVJobFolders> m_folders; ///< of the archive that is being extracted
    bool m_keepDestination = false;          ///< the folder was chosen already, do not ask once more
    std::size_t m_total = 0;
    std::vector<double> m_shares; ///< of the whole batch, at the end of each archive
    std::size_t m_extracted = 0;
};
