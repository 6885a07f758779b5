#pragma once

#include "util/LXResult.h"

#include <QString>
#include <QStringList>

#include <atomic>
#include <vector>

class CVFileCombiner;
struct SplitPart;

/// Hears of a combination: on the thread that runs it, but of its completion and of a cancel that it found
/// itself on the main thread, while that thread waits.
class CVCombineDelegate
{
public:
    virtual ~CVCombineDelegate() = default;
    virtual void combineWillVerifyChecksums(CVFileCombiner &) {}
    /// Bytes taken from the parts.
    virtual void combineHasMadeProgress(CVFileCombiner &, quint64 /*bytesWritten*/, quint64 /*totalBytes*/) {}
    /// The set is not what it should be; a cancellation follows.
    virtual void combineFailed(CVFileCombiner &, const LXError &) {}
    virtual void combineHasCompleted(CVFileCombiner &) {}
    /// Once.
    virtual void combineWasCancelled(CVFileCombiner &) {}
};

/// Joins the parts of one split set into a new file in destinationPath(), which nothing else may use.
///
/// Verifies first what the set can show: no part is missing or twice, all but the last are of one size, and,
/// where a checksum file is among the files, exactly the parts that it lists are there and unchanged.
/// A compressed set has to come to the end of its stream, not before it and not with bytes left. Parts that
/// change meanwhile are noticed. After a failure or a cancel there is no joined file.
/// Memory: bounded, whatever the sizes. Thread: one; requestCancel() from any.
class CVFileCombiner
{
public:
    CVFileCombiner();
    ~CVFileCombiner();
    CVFileCombiner(const CVFileCombiner &) = delete;
    CVFileCombiner &operator=(const CVFileCombiner &) = delete;

    /// Full paths in any order, of parts and perhaps of the checksum file; the first one decides which set
    /// it is. Others are passed over.
    const QStringList &files() const { return m_files; }
    void setFiles(const QStringList &files) { m_files = files; }
    const QString &destinationPath() const { return m_destinationPath; }
    void setDestinationPath(const QString &path) { m_destinationPath = path; }
    /// Borrowed; may be null.
    void setDelegate(CVCombineDelegate *delegate) { m_delegate = delegate; }
    bool isCancelled() const { return m_isCancelled; }

    /// Path of the joined file.
    QString combineFileName() const;

    /// Error codes in "FileCombinerErrorDomain": 0 the compressed stream is damaged, 1 the disk is full,
    /// 2 anything else with files. The reason names the part where it can. What the delegate was told as
    /// combineFailed() is no error here.
    LXResult<void> combine();

    /// Stops, removes the joined file and tells the delegate at once. On the thread that combines.
    void cancel();
    /// Any thread, also before it begins: combine() stops at the next block, removes the joined file and
    /// tells.
    void requestCancel() { m_isCancelled = true; }
    /// Removes the joined file, if it is one that this object made.
    void cleanUp();

    static constexpr const char *errorDomain = "FileCombinerErrorDomain";

private:
    void actualCombine();
    LXResult<std::vector<SplitPart>> verifiedParts();
    LXResult<void> verifyChecksums(const QString &checksumFile, const QString &name,
                                   const std::vector<SplitPart> &parts);
    LXResult<void> concatenateFiles(const std::vector<SplitPart> &parts, const QString &output);
    LXResult<void> joinRaw(const std::vector<SplitPart> &parts, int output);
    LXResult<void> joinCompressed(const std::vector<SplitPart> &parts, int output);
    void tellProgress(quint64 bytes);
    void fail(const LXError &error);
    void combineCancelled();

    QStringList m_files;
    QString m_destinationPath;
    CVCombineDelegate *m_delegate = nullptr;
    std::atomic<bool> m_isCancelled = false;
    std::atomic<bool> m_cancelTold = false;
    bool m_isOurs = false; ///< the joined file
    quint64 m_bytesWritten = 0;
    quint64 m_totalBytes = 0;
};
