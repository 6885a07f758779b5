#pragma once

#include "archives/reading/CVDestination.h"
#include "archives/reading/CVReadingEngine.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
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
/// - The owner can always read what was made and change folders (modes 0400 and 0700 are added).
/// - Sizes: more bytes than declared, or fewer, fail the entry. Free space and an absurd growth are
///   watched while writing.
///
/// Thread: the CVEntrySink part from any threads; finishTree() once, after the engine has ended.
class CVSafeWriter final : public CVEntrySink
{
public:
    /// Beyond this many bytes of output the growth is looked at …
    static constexpr qint64 bombFloorBytes = qint64(512) << 20;
    /// … and an output of more than this many times the archive's size needs the person's consent.
    /// Deflate alone reaches 1,032; ordinary archives stay below 100 and rarely reach half a gigabyte so.
    static constexpr qint64 bombRatio = 200;
    /// The file system is never filled to the last byte: other programs need to go on working.
    static constexpr qint64 reservedFreeBytes = qint64(32) << 20;

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

    qint64 bytesWritten() const { return m_written.load(); }
    /// Did an abort, a stop, a full disk or a limit end it?
    XADErrorCode outcome() const { return static_cast<XADErrorCode>(m_outcome.load()); }
    QString outcomeText() const;
    int systemError() const { return m_systemError.load(); }
    std::vector<CVSkippedEntry> takeSkipped();

private:
    class FileWriter;
    class TargetWriter;
    friend class FileWriter;
    friend class TargetWriter;

    struct PendingLink
    {
        int entry;
        QByteArray path;
        QByteArray target; // as stored; for hard links the safe path of the original
        qint64 modified;
        bool hard;
    };
    struct PendingFolder
    {
        QByteArray path;
        std::uint32_t mode;
        qint64 modified;
    };

    const XADEntry &entry(int index) const;
    QString entryName(int index) const;
    CVEntryWriter::Flow failEntry(int index, XADErrorCode code, const QString &reason);
    void skip(int index, XADErrorCode code, const QString &reason);
    void endWith(XADErrorCode code, const QString &text, int systemError = 0);
    CVEntryWriter::Flow mayWrite(qint64 bytes);
    CVEntryWriter::Flow systemFailure(int index, int error);
    std::unique_ptr<CVEntryWriter> beginFile(int index, const QByteArray &path);
    LXFileDescriptor createFile(int index, const QByteArray &folder, QByteArray &name, std::uint32_t mode,
                                std::shared_ptr<const LXFileDescriptor> &parent);
    LXFileDescriptor openLinked(int index, const QByteArray &path,
                                std::shared_ptr<const LXFileDescriptor> &parent, QByteArray &name);
    bool addLink(int index, const QByteArray &path, const QByteArray &target, bool hard);
    void makeHardLinks();
    void makeSymlinks();
    void removeLeavingLinks(std::unordered_map<std::string, PendingLink> &made);
    std::uint32_t fileMode(const XADEntry &entry) const;
    void reportProgress(bool force);
    void removeStaging();

    CVDestination &m_destination;
    const CVReadingEngine &m_engine;
    Callbacks m_callbacks;
    Options m_options;
    std::uint32_t m_umask;

    std::atomic<qint64> m_written = 0;
    std::atomic<qint64> m_nextSpaceCheck = 0;
    std::atomic<qint64> m_nextProgress = 0;
    std::atomic<bool> m_stopped = false;
    std::atomic<int> m_outcome = 0;
    std::atomic<int> m_systemError = 0;
    std::atomic<bool> m_limitLifted = false;

    mutable std::mutex m_mutex; // what follows
    QString m_outcomeText;
    std::vector<CVSkippedEntry> m_skipped;
    std::vector<PendingLink> m_links;
    std::vector<PendingFolder> m_folders;
    QByteArray m_staging;       // its name in the destination; empty: none
    std::mutex m_callbackMutex; // callbacks come one at a time
};
