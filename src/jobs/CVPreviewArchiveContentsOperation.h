#pragma once

#include "archives/CVArchive.h"
#include "engine/model/CVOperation.h"
#include "jobs/CVBackEndRun.h"

#include <QString>
#include <QStringList>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

/// Lists archives without unpacking anything. The archives are handed over opened: with their trees and,
/// where one was needed, with the password that fits.
///
/// Life: main() takes the archives one after another on the queue's worker, trees included, and reports
/// once at the end: all listed, some or all failed, or cancelled. A cancel takes effect within one block
/// of the reader, and while a password is asked for.
/// Thread: getters from any thread; delegate calls on the worker.
class CVPreviewArchiveContentsOperation final : public CVOperation, private CVArchiveDelegate
{
public:
    using ArchiveMaker = std::function<std::shared_ptr<CVArchive>(const QString &path)>;

    CVPreviewArchiveContentsOperation();
    ~CVPreviewArchiveContentsOperation() override;

    /// Where back ends come from, by default the format factory. Before the job is queued.
    void setArchiveMaker(ArchiveMaker maker);

    void main() override;
    void cancel() override;
    QString taskDescription() const override;

private:
    enum class Listed {
        Ended, ///< well or not, it is in one of the lists
        Again, ///< the password did not fit
        Stop,  ///< the job is to end as cancelled
    };
    Listed list(const QString &path);
    std::int32_t runBackEnd(const std::shared_ptr<CVArchive> &archive, const QString &path);
    bool getAccess(const QString &path);
    void deauthorize();
    void reportEnd();

    void archiveFinished(CVArchive *archive) override;
    void archiveFailed(CVArchive *archive, std::int32_t status) override;
    void archiveCancelled(CVArchive *archive) override;
    void archiveHasMadeProgress(CVArchive *archive, double done, double total) override;
    std::optional<QString> archiveWantsPassword(CVArchive *archive) override;

    mutable std::mutex m_mutex; ///< guards what follows, down to the next comment
    QStringList m_workingArchives;
    QString m_sourcePath;
    bool m_passwordInvalid = false;
    bool m_passwordAsked = false;
    std::chrono::steady_clock::time_point m_lastProgress;

    CVBackEndRun m_backEnd;

    // The worker's own.
    ArchiveMaker m_archiveMaker;
    std::vector<std::shared_ptr<CVArchive>> m_archives;
    QStringList m_corruptArchives;
    QString m_authorized;
};
