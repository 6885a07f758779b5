#pragma once

#include "archives/CVArchive.h"

#include <QString>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <vector>

class CVArchiveConverter;
class CVTempDir;

/// What the converter tells and asks the job around it, on the job's worker thread but for progress, which
/// also comes on the main thread and on threads of the back ends.
class CVArchiveConverterDelegate
{
public:
    virtual ~CVArchiveConverterDelegate() = default;

    /// In thirds: unpacking, media, packing. `total` is always 3.
    virtual void archiveConverterHasMadeProgress(CVArchiveConverter *converter, double done,
                                                 double total) = 0;
    virtual void archiveConverterHasFinished(CVArchiveConverter *converter) = 0;
    /// A status of CVArchive.
    virtual void archiveConverterFailedWithStatus(CVArchiveConverter *converter, std::int32_t status) = 0;
    /// For the archive that is converted. Nothing when the person gave none.
    virtual std::optional<QString> archiveConverterWantsPassword(CVArchiveConverter *converter) = 0;
    /// The archive unpacks to far more than it should. True goes on.
    virtual bool archiveConverterMayExceedLimit(CVArchiveConverter *converter,
                                                const QString &explanation) = 0;
};

/// Turns an archive into one of another format: unpacks it into a private temporary folder, makes sound
/// files there smaller if asked to, and packs what is in it.
///
/// One object, one conversion. The temporary folder is registered as a work directory while it exists, so
/// that cleaning finds it after a crash. The source is only read.
/// Thread: convert() on a worker, where it blocks until the work and everything it started has ended;
/// cancelConvert() from any. Configured before.
class CVArchiveConverter final : private CVArchiveDelegate
{
public:
    /// Borrowed.
    explicit CVArchiveConverter(CVArchiveConverterDelegate &delegate);
    ~CVArchiveConverter() override;

    int compressionLevel = 5;        ///< 0 none … 9 best, where the new format has levels
    double chunkSize = 0;            ///< bytes a volume of the new archive; 0 for a single file
    std::optional<QString> password; ///< of the new archive
    int imageFileFormat = 0;         ///< kept, not used: conversions leave images as they are
    int audioFileFormat = 0;         ///< 0 leaves sound as it is
    bool shouldUseZipCompression = false;

    /// Ends with exactly one call of archiveConverterHasFinished() or archiveConverterFailedWithStatus().
    /// `destination` is written where it stands, so it should be a place that nobody looks at yet; a
    /// failure may leave a part of it.
    void convert(const QString &source, const QString &destination);
    void cancelConvert();

    // After the end.
    /// Entries of the source that could not be unpacked for safety's sake, and so are not in the new one.
    const std::vector<CVSkippedEntry> &skippedEntries() const { return m_skippedEntries; }
    /// Why it failed, for people; may be empty.
    const QString &failureReason() const { return m_failureReason; }
    /// errno of a failed write, else 0; and whether the folder that it was met in is the temporary one.
    int systemError() const { return m_systemError; }
    bool failedInTemporaryFolder() const { return m_failedInTemporaryFolder; }
    const QString &temporaryFolder() const { return m_temporaryFolder; }

private:
    std::int32_t run(const QString &source, const QString &destination);
    std::int32_t runIn(const QString &temporaryFolder, const QString &source, const QString &destination);
    std::int32_t extract(const QString &source, const QString &folder);
    std::int32_t pack(const QString &folder, const QString &destination);
    bool manipulateFilesInTempDir(const QString &folder);
    bool isWhole(const CVArchive &archive, const QString &destination);
    bool start(std::shared_ptr<CVArchive> &place, const std::shared_ptr<CVArchive> &archive);
    std::int32_t waitForEnd(std::shared_ptr<CVArchive> &place);
    void takeOutcome(std::int32_t status);
    void takeFailure(const CVArchive &archive, bool inTemporaryFolder);
    bool isCancelled() const { return m_stop.stop_requested(); }

    void archiveFinished(CVArchive *archive) override;
    void archiveFailed(CVArchive *archive, std::int32_t status) override;
    void archiveCancelled(CVArchive *archive) override;
    void archiveHasMadeProgress(CVArchive *archive, double done, double total) override;
    std::optional<QString> archiveWantsPassword(CVArchive *archive) override;
    bool archiveMayExceedLimit(CVArchive *archive, const QString &explanation) override;

    CVArchiveConverterDelegate &m_delegate;
    std::stop_source m_stop;

    std::mutex m_mutex; ///< guards what follows, down to the next comment
    std::condition_variable m_changed;
    std::shared_ptr<CVArchive> m_sourceArchive;
    std::shared_ptr<CVArchive> m_destinationArchive;
    std::optional<std::int32_t> m_outcome; ///< of the back end at work; the first report counts

    // The worker's own.
    std::vector<CVSkippedEntry> m_skippedEntries;
    QString m_failureReason;
    QString m_temporaryFolder;
    int m_systemError = 0;
    bool m_failedInTemporaryFolder = false;
    bool m_hasMoreRoom = false;      ///< the destination's disk, which was not tried yet
    bool m_hasDeclinedLimit = false; ///< for it
};
