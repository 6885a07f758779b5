#pragma once

#include "archives/CVArchive.h"
#include "engine/model/CVOperation.h"
#include "util/LXResult.h"

#include <QString>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <variant>

class CVCreateOperationDataBinding;
class CVPackingTree;

/// Packs the files of its window into one new archive, or into a set of volumes.
///
/// All of it happens in one hidden folder beside the future archive: "tree" holds what is packed (hard
/// links, see CVPackingTree), "archive" is where the back end writes. Media are made smaller in the tree for
/// formats that want it. Only a complete archive leaves the hidden folder, in one step, and only then goes
/// an older one that the person agreed to replace. So whatever ends the job, there is never a part of an
/// archive to be seen, the files that were to be packed are untouched, and so is the older archive.
///
/// Ends: completed with the path of the archive (of a new folder, for volumes), failed with an error, or
/// cancelled; the hidden folder is gone by then. Skipped items and files that changed while they were
/// packed are reported before the completion.
/// Thread: main() and all delegate calls on the queue's worker, but for the progress of a back end; cancel()
/// from any. A cancel takes effect within one block of data.
class CVCreateArchiveOperation : public CVOperation, private CVArchiveDelegate
{
public:
    /// The binding is shared with the window, which must not edit it while the job runs. At the end its
    /// archive and chunkSize are cleared.
    explicit CVCreateArchiveOperation(std::shared_ptr<CVCreateOperationDataBinding> data);
    ~CVCreateArchiveOperation() override;

    void main() override;
    QString taskDescription() const override;

private:
    /// A step of main(): nothing when the next one may follow, else how the job ends.
    struct Cancelled
    {};
    struct PasswordMismatch
    {
        LXError error;
    };
    using End = std::variant<Cancelled, PasswordMismatch, LXError>;
    using Step = std::optional<End>;

    Step run();
    Step prepare(CVPackingTree &tree);
    Step chooseFolders();
    Step askAboutItemsInTheWay(CVPackingTree &tree);
    Step fill(CVPackingTree &tree);
    Step makeMediaSmaller();
    Step pack();
    Step judge(const CVArchive &archive, std::int32_t status) const;
    Step deliver();
    void tellWhatIsMissing(const CVPackingTree &tree);

    bool userWantsPassword() const;
    Step checkPasswords() const;
    std::int32_t runBackEnd(CVArchive &archive);
    bool agreesToReplace(const QString &path);
    void step();
    LXError creationError(const QString &suggestion) const;
    QString wordAboutDisk(int systemError) const;
    QString destination() const;
    void end(const Step &how);

    void archiveFinished(CVArchive *archive) override;
    void archiveFailed(CVArchive *archive, std::int32_t status) override;
    void archiveCancelled(CVArchive *archive) override;
    void archiveHasMadeProgress(CVArchive *archive, double done, double total) override;
    std::optional<QString> archiveWantsPassword(CVArchive *archive) override;
    void takeOutcome(std::int32_t status);

    const std::shared_ptr<CVCreateOperationDataBinding> m_data;

    std::mutex m_mutex; ///< guards the next two
    std::condition_variable_any m_changed;
    std::optional<std::int32_t> m_outcome; ///< how the back end ended: the first report counts

    // The worker's own; what the back end's progress needs is set before it starts.
    QString m_inputFile; ///< the first one; decides about the folder
    QString m_fileName;
    QString m_destinationPath;
    QString m_workDir;
    std::shared_ptr<class CVJobFolders> m_folders;
    QString m_delivered;
    bool m_deliveredVolumes = false;
    bool m_mayReplace = false;
    bool m_usingCorvaneZipCompression = false;
    bool m_countsMediaInProgress = false;
    double m_chunkSize = 0;
    double m_progress = 0;
    double m_maxProgress = 0;
};
