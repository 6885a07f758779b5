#pragma once

#include "archives/reading/CVDestination.h"
#include "archives/reading/CVPendingTree.h"
#include "archives/reading/CVReadingEngine.h"
#include "archives/reading/CVWriteLimits.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

/// The entry sink that stands above every engine: all rules about what may be written live here.
///
/// - Where: CVSafePath decides, CVDestination walks. Files are made with O_EXCL | O_NOFOLLOW.
/// - Links come last, hard links before symbolic ones, so that nothing can be written through a link.
///   A symbolic link stays only if following it, through all other links of the archive, never leaves
///   what is delivered: the destination or, when one folder alone lies there, that folder.
/// - Two entries of one name: in formats where a later entry replaces an earlier one (tar) the later
///   one stays; elsewhere both stay, the second under the next free name, and that is reported.
/// - Set-uid, set-gid and sticky bits, devices, FIFOs and sockets are never made.
/// - Modes are as stored, but that the owner can read files and enter folders (0400 and 0500 are added).
/// Until a
///   file is whole and the tree is done they are 0600 and 0700: what the archive keeps private is never open
///   to others, not even for a moment.
/// - Sizes: more bytes than declared, or fewer, fail the entry. Free space and an absurd growth are
///   watched while writing (CVWriteLimits).
/// - An error of the file system that every further entry would meet too ends the job (CVWriteErrors.h).
///
/// What is written: FileWriter, one entry's data; LinkTargetWriter, a link's target that comes as data;
/// CVPendingTree, what comes when all files are there.
/// Thread: the CVEntrySink part from any threads; finishTree() once, after the engine has ended.
class CVSafeWriter final : public CVEntrySink
{
public:
    struct Callbacks
    {
        std::function<QString(const QByteArray &raw, CVNameEncoding)> decode;
        std::function<void(qint64 done)> progress;
        std::function<XADAction(int entry, XADErrorCode)> entryDidFail;
        std::function<bool()> shouldStop;
        std::function<bool(const QString &explanation)> mayExceedLimit;
    };

    struct Options
    {
        qint64 archiveBytes = 0;    ///< size of the archive with its volumes, for the ratio
        bool ownsContents = false;  ///< everything in the destination was made by this extraction
        bool laterReplaces = false; ///< a second entry of one name replaces the first (tar)
    };

    CVSafeWriter(CVDestination &destination, const CVReadingEngine &engine, Callbacks callbacks,
                 Options options);
    ~CVSafeWriter() override;

    // CVEntrySink
    std::unique_ptr<CVEntryWriter> beginEntry(int index) override;
    CVEntryWriter::Flow entryFailed(int index, XADErrorCode code, const QString &detail) override;
    bool shouldStop() override;
    /// In the destination, hidden under a name that no entry can have; gone before finishTree() looks at it.
    QString stagingFolder() override;

    /// Makes the links, then sets the modes and times of folders.
    void finishTree();

    qint64 bytesWritten() const { return m_limits.bytesWritten(); }
    /// Did an abort, a stop, a full disk or a limit end it?
    XADErrorCode outcome() const { return static_cast<XADErrorCode>(m_outcome.load()); }
    QString outcomeText() const;
    int systemError() const { return m_systemError.load(); }
    std::vector<CVSkippedEntry> takeSkipped();

private:
    class FileWriter;
    class LinkTargetWriter;

    const XADEntry &entry(int index) const;
    QString entryName(int index) const;
    CVEntryWriter::Flow failEntry(int index, XADErrorCode code, const QString &reason);
    void skip(int index, XADErrorCode code, const QString &reason);
    void endWith(XADErrorCode code, const QString &text, int systemError = 0);
    CVEntryWriter::Flow mayWrite(qint64 bytes);
    CVEntryWriter::Flow systemFailure(int index, int error);
    struct OpenFile
    {
        LXFileDescriptor fd = LXFileDescriptor(); ///< not open: recorded as failed already
        std::shared_ptr<const LXFileDescriptor> folder = {};
        QByteArray name = {}; ///< in the folder
    };
    /// A new file, which is its owner's alone.
    OpenFile createFile(int index, const QByteArray &path);
    /// The file that the entry is another name of, emptied; not open where there is none.
    OpenFile openLinked(int index, const QByteArray &path);
    void addLink(int index, const QByteArray &path, const QByteArray &target, bool hard);
    void addFolder(int index, const QByteArray &path);
    std::uint32_t fileMode(const XADEntry &entry) const;
    void reportProgress(bool force);
    void removeStaging();

    CVDestination &m_destination;
    const CVReadingEngine &m_engine;
    Callbacks m_callbacks;
    Options m_options;
    std::uint32_t m_umask;

    CVWriteLimits m_limits;
    CVPendingTree m_pending;
    std::atomic<qint64> m_nextProgress = 0;
    std::atomic<bool> m_stopped = false;
    std::atomic<int> m_outcome = 0;
    std::atomic<int> m_systemError = 0;

    mutable std::mutex m_mutex; // what follows
    QString m_outcomeText;
    std::vector<CVSkippedEntry> m_skipped;
    QByteArray m_staging;       // its name in the destination; empty: none
    std::mutex m_callbackMutex; // callbacks come one at a time
};
