#pragma once

#include "archives/CVArchiveException.h"
#include "archives/reading/XADTypes.h"
#include "filetree/CVFileNode.h"

#include <QString>
#include <QStringList>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

class CVArchive;

/// What a back end tells the job that drives it. The receiver outlives the archive's work; calls
/// come on the job's worker thread, on the main thread or on a thread of the back end.
class CVArchiveDelegate
{
public:
    virtual ~CVArchiveDelegate() = default;

    virtual void archiveFinished(CVArchive *archive) = 0;
    virtual void archiveFailed(CVArchive *archive, std::int32_t status) = 0;
    virtual void archiveCancelled(CVArchive *archive) = 0;
    virtual void archiveHasMadeProgress(CVArchive *archive, double done, double total) = 0;
    /// Nothing means that the person gave none.
    virtual std::optional<QString> archiveWantsPassword(CVArchive *archive) = 0;
    /// The archive unpacks to far more than it should. True goes on.
    virtual bool archiveMayExceedLimit(CVArchive *, const QString &explanation)
    {
        Q_UNUSED(explanation);
        return false;
    }
};

/// The back end for one archive file and one job: made by the factory, configured, started with one of
/// bundle(), open() or openForPreview(), ended by exactly one completion call to the delegate (a
/// cancelled create may send archiveCancelled and then archiveFailed with Cancelled).
/// Sizes are bytes. The delegate is borrowed.
class CVArchive : public std::enable_shared_from_this<CVArchive>
{
public:
    enum Status : std::int32_t {
        Success = 0,
        InvalidPassword = 1,
        Cancelled = 2,
        Unsupported = 3,
        InvalidFile = 4,
        MultimediaManipulationFailed = 5,
    };

    CVArchive();
    virtual ~CVArchive();
    CVArchive(const CVArchive &) = delete;
    CVArchive &operator=(const CVArchive &) = delete;

    // Which back end handles a name; the extension decides (see the .cpp for the order of tests).
    static std::shared_ptr<CVArchive> archiveForCreating(const QString &fileName);
    static std::shared_ptr<CVArchive> archiveForPreviewing(const QString &fileName);
    static std::shared_ptr<CVArchive> archiveForExtracting(const QString &fileName);
    static bool isExtractableExtension(const QString &extension);

    /// Localised text of a status code.
    static QString statusToString(std::int32_t status);

    virtual bool canPreview() const { return false; }
    virtual bool canEncrypt() const { return false; }
    virtual bool canSetCompressionLevel() const { return false; }
    virtual bool canManipulateMultimedia() const { return false; }
    /// Whether chunkSize has an effect: the archive comes as volumes, its name followed by .001, .002, …
    virtual bool canWriteVolumes() const { return false; }
    /// After a create that finished: false when the tool's own words say that the archive lacks something,
    /// although its status was Success. failureReason() then holds those words.
    virtual bool createdWhole() const { return true; }
    virtual QString archiveDescription() const { return {}; }

    /// Top-level nodes / the root of the listing; empty / null where canPreview() is false.
    virtual std::vector<std::shared_ptr<CVFileNode>> previewedFiles() const { return {}; }
    virtual std::shared_ptr<CVFileNode> filePreviewsNode() const { return nullptr; }

    /// Starts creating the archive `destination` from what is in the folder `source`. Any thread.
    void bundle(const QString &source, const QString &destination);
    /// Extracts on the calling thread. A path without a file only logs, without any callback.
    void open(const QString &path, const QString &destination);
    /// Lists on the calling thread. A path without a file only logs, without any callback.
    void openForPreview(const QString &path);

    /// Any thread, but not while holding a lock that the delegate takes when it hears of progress.
    virtual void cancelCreate();
    /// A running extraction reports its end itself, once it has stopped writing: whoever removes the
    /// destination on that report must not race with the writer.
    virtual void cancelExtract();
    void setCancelledStatus() { setStatus(Cancelled); }

    /// Asks the delegate unless a password is set; without an answer the extraction is cancelled.
    void askForPassword();
    /// Only where canEncrypt(); elsewhere a programming error.
    void encryptWith(const QString &password);

    CVArchiveDelegate *delegate() const { return m_delegate.load(); }
    void setDelegate(CVArchiveDelegate *delegate) { m_delegate.store(delegate); }
    std::int32_t status() const { return m_status.load(); }
    void setStatus(std::int32_t status) { m_status.store(status); }

    double chunkSize = 0;     ///< bytes a volume; 0 for a single file
    int compressionLevel = 5; ///< 0 none … 9 best
    double progressCounter = 0;
    qint64 fileCount = 0;
    double maxProgress = 0;
    std::optional<QStringList> singleFilesToBeExtracted; ///< nothing: everything
    std::optional<QString> password;
    QString extractFile;
    QString extractDestination;
    QString sourcePath;
    QString destination;

    /// Entries that the last extraction left out; while any, the archive itself must be kept.
    const std::vector<CVSkippedEntry> &skippedEntries() const { return m_skippedEntries; }
    /// Why the work failed, for the person; empty when there is nothing beyond the status.
    const QString &failureReason() const { return m_failureReason; }
    /// errno of a failed write (ENOSPC, …), else 0.
    int systemError() const { return m_systemError; }

protected:
    virtual void createCommand() {}
    virtual void extractCommand() {}
    virtual void preview() {}

    /// What has been written so far; below zero while there is nothing. Called on the main thread every
    /// 0.2 s while an archive is created.
    virtual double createdBytes();
    /// Removes what an unfinished create has left. False when something is still there.
    virtual bool removeCreated();

    /// The end of a create; any thread. No progress is told any more when it returns.
    void createComplete();
    void previewComplete();
    void extractDidFinish();
    void hasMadeProgress(double done, double total);
    void createDidAddFile(const QString &path);

    std::vector<std::shared_ptr<CVFileNode>> m_previewFiles;
    std::shared_ptr<CVFileNode> m_filePreviews;
    std::vector<CVSkippedEntry> m_skippedEntries;
    QString m_failureReason;
    int m_systemError = 0;

private:
    void reportExtractEnd();
    void setupCreateProgressTimer();
    void stopCreateProgressTimer();
    void tellCreateProgress();

    std::atomic<CVArchiveDelegate *> m_delegate = nullptr;
    std::atomic<std::int32_t> m_status = Success;
    std::atomic<bool> m_extracting = false;
    std::atomic<bool> m_extractReported = false;
    /// Held while progress is told. Recursive: whoever hears it may cancel in the call.
    std::recursive_mutex m_createMutex;
    bool m_creating = false;
    struct CreateTimer;
    std::unique_ptr<CreateTimer> m_createTimer; ///< of the main thread
};
