#pragma once

#include "archives/reading/CVReadingEngine.h"
#include "archives/reading/XADTypes.h"

#include <memory>
#include <optional>
#include <vector>

class CVDestination;
class XADArchive;

/// Told what happens while an archive is opened or extracted. Called on the thread that called the
/// archive, or, during extraction, on one of its worker threads, but never on two at once.
class XADArchiveDelegate
{
public:
    virtual ~XADArchiveDelegate() = default;

    /// Answer with archive.setPassword(), or not at all.
    virtual void archiveNeedsPassword(XADArchive &archive) = 0;
    virtual void archiveExtractionProgressBytes(XADArchive &archive, qint64 done, qint64 total) = 0;
    virtual XADAction archiveExtractionOfEntryDidFail(XADArchive &archive, int entry, XADErrorCode error) = 0;
    virtual bool archiveExtractionShouldStop(XADArchive &archive) = 0;

    /// The archive unpacks to far more than it should (`explanation` says how much). True goes on.
    virtual bool archiveExtractionMayExceedLimit(XADArchive &, const QString &explanation)
    {
        Q_UNUSED(explanation);
        return false;
    }
};

/// One archive, read by whichever engine suits its content and is installed.
///
/// Ownership: the delegate is borrowed and outlives the archive. Thread: one at a time.
/// Errors: codes; lastErrorText() has the reason in words. Nothing throws.
class XADArchive
{
public:
    /// Opens the file. Null on failure, with the code in `error` and the reason in `detail`.
    /// The best bidder is tried first, the next ones when it reports that it cannot read the file.
    static std::unique_ptr<XADArchive> openFile(const QString &path, XADArchiveDelegate *delegate,
                                                XADErrorCode *error = nullptr, QString *detail = nullptr);

    /// As openFile; when the file holds exactly one entry that is an archive, the inner archive is
    /// opened (unpacked into a private temporary folder that lives as long as the object).
    static std::unique_ptr<XADArchive> recursiveArchiveForFile(const QString &path,
                                                               XADArchiveDelegate *delegate,
                                                               XADErrorCode *error = nullptr,
                                                               QString *detail = nullptr);

    /// The archive inside entry `entry` of `outer`.
    static std::unique_ptr<XADArchive> openEntry(XADArchive &outer, int entry, XADArchiveDelegate *delegate,
                                                 XADErrorCode *error = nullptr, QString *detail = nullptr);

    ~XADArchive();

    void setDelegate(XADArchiveDelegate *delegate);
    void setPassword(const std::optional<QString> &password);
    std::optional<QString> password() const;

    QString formatName() const;
    QString path() const;
    int numberOfEntries() const;
    /// Why the list of entries is not whole (the archive is damaged or cut off); empty when it is.
    QString listingProblem() const;
    bool isEncrypted() const;
    bool entryIsArchive(int index) const;
    bool entryIsDirectory(int index) const;

    /// Decoded path inside the archive, components joined by "/", without "." and empty ones: nothing for the
    /// folder that all others lie in. Not made safe.
    QString nameOfEntry(int index) const;
    QString linkTargetOfEntry(int index) const;
    /// Below zero when the format does not say.
    qint64 uncompressedSizeOfEntry(int index) const;
    const XADEntry &entry(int index) const;

    /// Extracts everything (single inner archives included) under the existing folder `destination`.
    /// None: done, though entries may have been skipped, see skippedEntries().
    XADErrorCode extractTo(const QString &destination, bool subArchives);

    /// Extracts the entries with these indices, ascending, in one pass.
    XADErrorCode extractEntries(const std::vector<int> &indices, const QString &destination);

    /// Extracts one entry to its own path below `destination`.
    XADErrorCode extractEntry(int index, const QString &destination);

    /// What the last extraction left out. An archive with any must be kept.
    const std::vector<CVSkippedEntry> &skippedEntries() const;

    /// Why the last call failed, in words; empty after success.
    QString lastErrorText() const;

    /// The errno of the file system if writing failed (ENOSPC, EDQUOT, …), else 0.
    int lastSystemError() const;

private:
    struct Private;
    explicit XADArchive(std::unique_ptr<Private> d);

    /// What one engine made of an extraction.
    struct Attempt
    {
        XADErrorCode code = XADErrorCode::None;
        QString text;
        int systemError = 0;
        std::vector<CVSkippedEntry> skipped;
        int failedEntry = -1;
        QString remark;
        bool mayDoBetter = false;   ///< another engine is left and could read what this one could not
        bool needsAllNames = false; ///< stopped early: the charset has to be chosen from all names first
    };
    XADErrorCode extractIndices(const std::vector<int> &indices, bool all, const QString &destination);
    Attempt attemptExtraction(const std::vector<int> &indices, bool all, CVDestination &destination,
                              bool ownsContents, bool isRetry = false);
    std::unique_ptr<Private> d;
};
