#pragma once

#include "util/LXFileDescriptor.h"
#include "util/LXResult.h"

#include <QString>
#include <QStringList>

#include <atomic>
#include <memory>

class CVBzipFileReader;
class CVFileSplitter;

/// Hears of a split on the thread that runs it, in the order of these functions; of the last two exactly
/// one comes, and none when the split fails.
class CVSplitDelegate
{
public:
    virtual ~CVSplitDelegate() = default;
    virtual void splitWillBegin(CVFileSplitter &) {}
    /// Bytes. With compression the former are compressed ones, so it ends below the total.
    virtual void splitHasMadeProgress(CVFileSplitter &, quint64 /*bytesWritten*/, quint64 /*totalBytes*/) {}
    virtual void splitWillChecksum(CVFileSplitter &) {}
    virtual void splitWasCancelled(CVFileSplitter &) {}
    virtual void splitHasCompleted(CVFileSplitter &) {}
};

/// Cuts a file into parts of one size, raw or compressed, with a file of checksums if wanted.
///
/// The parts are new files in destinationPath(); nothing is written anywhere else. After a failure or a
/// cancel those made so far stay, for whoever owns the folder.
/// Raw parts are copied by the kernel where it can, and holes stay holes.
/// Memory: some pieces of 1 MiB, whatever the sizes. Thread: one; cancel() from any.
class CVFileSplitter
{
public:
    CVFileSplitter();
    ~CVFileSplitter();
    CVFileSplitter(const CVFileSplitter &) = delete;
    CVFileSplitter &operator=(const CVFileSplitter &) = delete;

    double chunkSize() const { return m_chunkSize; }
    void setChunkSize(double size) { m_chunkSize = size; }
    /// "KB", "MB" or "GB", of 1024 each; everything else counts bytes.
    const QString &chunkUnits() const { return m_chunkUnits; }
    void setChunkUnits(const QString &units) { m_chunkUnits = units; }
    bool shouldChecksum() const { return m_shouldChecksum; }
    void setShouldChecksum(bool should) { m_shouldChecksum = should; }
    bool shouldCompress() const { return m_shouldCompress; }
    void setShouldCompress(bool should) { m_shouldCompress = should; }
    /// Borrowed; may be null.
    void setDelegate(CVSplitDelegate *delegate) { m_delegate = delegate; }
    const QString &inputFileName() const { return m_inputFileName; }
    void setInputFileName(const QString &path) { m_inputFileName = path; }
    const QString &destinationPath() const { return m_destinationPath; }
    void setDestinationPath(const QString &path) { m_destinationPath = path; }

    /// The parts made so far, in order, without the checksum file. Not to be asked for while it splits.
    const QStringList &outputFiles() const { return m_outputFiles; }
    bool isCancelled() const { return m_isCancelled; }

    QString outputFileName() const;
    /// Cut to whole bytes; 0 for what is no size.
    quint64 chunkSizeInBytes() const;
    /// Rounded up, and 1 for an empty file.
    static quint64 numberOfChunksForFile(const QString &path, quint64 chunkSize);
    QString fileExtension() const;
    void reset();
    /// Takes effect with the next block.
    void cancel() { m_isCancelled = true; }

    /// Error codes in "FileSplitterErrorDomain": 0 compression, 1 the disk is full, 2 anything else with
    /// files. Throws LXAssertionException where no input is set, the size is 0, or more parts are needed
    /// than their names can number.
    LXResult<void> split();

    void writeChecksumsForDestinationFile(const QString &outputFileName);

    static constexpr const char *errorDomain = "FileSplitterErrorDomain";

private:
    void actualSplit();
    void copyRaw(int input, quint64 chunkBytes);
    void writeBlocks(CVBzipFileReader &reader, quint64 chunkBytes);
    void newFile();
    void closePart();
    void writeData(const char *data, std::size_t size);
    void tellProgress(quint64 bytes);

    double m_chunkSize = 10.0;
    QString m_chunkUnits = QStringLiteral("MB");
    bool m_shouldChecksum = false;
    bool m_shouldCompress = false;
    CVSplitDelegate *m_delegate = nullptr;
    QString m_inputFileName;
    QString m_destinationPath;
    QStringList m_outputFiles;
    std::atomic<bool> m_isCancelled = false;

    int m_suffixLength = 2;
    quint64 m_bytesWritten = 0;
    quint64 m_totalBytes = 0;
    LXFileDescriptor m_outputFile;
};
