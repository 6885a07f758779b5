#pragma once

#include "archives/reading/CVDestination.h"

#include <QString>

#include <atomic>
#include <functional>
#include <mutex>

/// Watches how much an extraction writes: the disk is not filled to the last byte, and what unpacks to
/// absurdly more than its archive needs the person's consent. Growth is counted by the bytes that were
/// written, since the free space of the disk is also moved by others. Thread: any, several at once.
class CVWriteLimits
{
public:
    /// Beyond this many bytes of output the growth is looked at …
    static constexpr qint64 bombFloorBytes = qint64(512) << 20;
    /// … and an output of more than this many times the archive's size needs the person's consent.
    /// Deflate alone reaches 1,032; ordinary archives stay below 100 and rarely reach half a gigabyte so.
    static constexpr qint64 bombRatio = 200;
    /// The file system is never filled to the last byte: other programs need to go on working.
    static constexpr qint64 reservedFreeBytes = qint64(32) << 20;

    /// `archiveBytes`: size of the archive with its volumes; 0: no ratio is watched.
    CVWriteLimits(const CVDestination &destination, qint64 archiveBytes)
        : m_destination(destination)
        , m_archiveBytes(archiveBytes)
    {}

    struct Verdict
    {
        bool mayWrite = true;
        QString reason = {}; ///< when it may not
        int systemError = 0;
    };
    /// Counts the bytes, which are about to be written. `ask` is called by one thread at a time.
    Verdict add(qint64 bytes, const std::function<bool(const QString &explanation)> &ask);

    qint64 bytesWritten() const { return m_written.load(); }

private:
    const CVDestination &m_destination;
    const qint64 m_archiveBytes;
    std::atomic<qint64> m_written = 0;
    std::atomic<qint64> m_nextCheck = 0;
    std::atomic<bool> m_isLifted = false;
    std::mutex m_asking;
};
