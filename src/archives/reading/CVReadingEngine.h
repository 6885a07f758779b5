#pragma once

#include "archives/reading/XADTypes.h"

#include <QByteArrayView>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

/// Takes the data of one entry. Made by CVEntrySink::beginEntry, used by one thread, and ended by
/// exactly one finish(); destroying it without finish() discards what was written.
class CVEntryWriter
{
public:
    enum class Flow {
        Go,
        SkipEntry, ///< this entry is lost (it is recorded already): stop feeding it, then call finish()
        Stop,      ///< cancelled, disk full or limit reached: end the whole extraction
    };

    virtual ~CVEntryWriter() = default;

    /// At most 1 MiB a call, so that a cancel takes effect within one block.
    virtual Flow write(const char *data, qsizetype size) = 0;

    /// A hole of this many zero bytes at the current place (sparse files).
    virtual Flow writeHole(qint64 size) = 0;

    /// Ends the entry. With None, the bytes received are compared with the declared size; any other
    /// code discards them and records the failure. `detail` says why, for the log and the person.
    /// Checksums are the engine's business: it passes Damaged when one does not fit.
    /// Stop means that the delegate chose to abort.
    virtual Flow finish(XADErrorCode code, const QString &detail = {}) = 0;
};

/// Where an engine delivers entries. One implementation stands above all engines and owns every
/// rule of safety; engines only decode. All calls are safe from several threads at once.
class CVEntrySink
{
public:
    virtual ~CVEntrySink() = default;

    /// Starts entry `index` of entries(). Null: the entry is not wanted, was refused (and recorded),
    /// or needs no data (directory, link with a known target): pass over its data.
    /// For a symbolic link whose linkTarget is empty the data written becomes the target.
    virtual std::unique_ptr<CVEntryWriter> beginEntry(int index) = 0;

    /// An entry that failed before any data came. Same answer as finish().
    virtual CVEntryWriter::Flow entryFailed(int index, XADErrorCode code, const QString &detail = {}) = 0;

    /// Polled between blocks by engines that work without writing (skipping through a solid archive).
    virtual bool shouldStop() = 0;

    /// A folder for engines that have to unpack to disk before they can deliver: private (mode 0700), empty,
    /// not a link, and in the file system of the destination. The sink makes it at the first call and removes
    /// it with all its contents when it goes. Empty: there is none, and the engine uses the temporary folder.
    virtual QString stagingFolder() { return {}; }
};

/// What an engine may ask for while it opens, lists or extracts. Outlives the engine.
class CVEngineHost
{
public:
    virtual ~CVEngineHost() = default;

    /// The password, or nothing when the person gave none. Asked once an archive; cheap afterwards.
    virtual std::optional<QString> password() = 0;

    virtual bool shouldStop() = 0;
};

/// The first bytes and the surroundings of a file, read once for all bids.
struct CVArchiveProbe
{
    QString path;
    QByteArray head; ///< the first 64 KiB, or all of a smaller file
    QByteArray tail; ///< the last 64 KiB + 22 bytes (overlaps head in small files)
    qint64 fileSize = 0;
};

/// One open archive under one decoder.
/// Thread: opened and used by one worker thread; extract() may use threads of its own and has ended
/// them when it returns. Never throws across this interface.
class CVReadingEngine
{
public:
    virtual ~CVReadingEngine() = default;

    /// The format in people's words and short: "ZIP", "7-Zip", "RAR 5", "tar (xz)".
    virtual QString formatName() const = 0;

    /// In the archive's order; the same entries that extract() gives.
    /// An engine whose entriesAreLazy() reads the archive to its end when this is asked for the first
    /// time outside of extract(). While extract() of all entries runs without that, the list grows: it
    /// holds the entries met so far, and entries()[index] is valid from before beginEntry(index) on.
    virtual const std::vector<XADEntry> &entries() const = 0;

    /// entries() costs a pass over the whole archive (a compressed tar). Such an engine calls the sink
    /// from one thread at a time, and extract(all) works without the pass; `indices` is empty then.
    virtual bool entriesAreLazy() const { return false; }

    /// A password is needed for names or for the data of at least one entry.
    virtual bool isEncrypted() const = 0;

    /// The archive is one compressed stream whose only entry is an archive again, which another
    /// engine has to open after unpacking (for example a tar in a stream that this engine cannot chain).
    virtual bool entryIsArchive(int /*index*/) const { return false; }

    /// Extracts the entries whose indices are given, ascending. `all` is true when that is every one.
    /// None: the archive was gone through to its end (single entries may have failed towards the sink).
    /// Damaged / NotSupported / Password: it could not be, and `detail` says why. Stopped: the sink said so.
    /// Data after which something is missing (a truncated stream, a missing volume) is Damaged.
    struct Outcome
    {
        XADErrorCode code = XADErrorCode::None;
        QString detail = {};
        /// Everything that is there was delivered, yet something about the archive is not as it should be.
        QString remark = {};
    };
    virtual Outcome extract(std::span<const int> indices, bool all, CVEntrySink &sink) = 0;

    /// A damaged entry is damaged, whatever another reader makes of it: this one checks all that the format
    /// offers, and one that checks less would only pass the same data off as good.
    virtual bool isDamageFinal() const { return true; }

    /// How the pass behind entries() ended, for an engine whose entries come from one: anything but None
    /// means that the list is not whole and why. Makes the pass when there was none.
    virtual Outcome listingOutcome() const { return {}; }

    /// Sum of the sizes to extract where the engine knows it without a list; 0: not known.
    virtual qint64 declaredTotal() const { return 0; }

    /// How far extract() is in the archive file, in bytes of the file, for archives whose sizes are not
    /// known beforehand. False: not measured. Any thread.
    virtual bool compressedProgress(qint64 & /*done*/, qint64 & /*total*/) const { return false; }

    /// Files that were read beside the one opened (volumes), for the log.
    virtual QStringList volumePaths() const { return {}; }
};

/// How an engine presents itself to XADArchive.
struct CVEngineDescriptor
{
    const char *name;
    /// 0: not mine or not installed; otherwise the higher bid is tried first. See the table of bids
    /// in CVEngines.cpp. Looks only at the probe; must be cheap.
    int (*bid)(const CVArchiveProbe &probe);
    struct OpenOutcome
    {
        std::unique_ptr<CVReadingEngine> engine; ///< null on failure
        XADErrorCode code = XADErrorCode::None;
        QString detail = {};
        /// The damage is proven by a checksum or by what is missing: no other engine is asked, since one
        /// that notices less would only hide it.
        bool damageIsCertain = false;
    };
    OpenOutcome (*open)(const CVArchiveProbe &probe, CVEngineHost &host);
};

/// All engines of a reader, in no order that matters: they run in a process of its own for each archive, see
/// cage/.
std::span<const CVEngineDescriptor> cvReadingEngines();
