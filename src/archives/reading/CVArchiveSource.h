#pragma once

#include "util/LXFileDescriptor.h"

#include <QStringList>

#include <atomic>
#include <memory>
#include <vector>

/// The bytes of an archive: one file, or the volumes of a set seen as one.
/// Thread: readAt() and position() from any; the files must not be written meanwhile (a file that
/// shrinks reads as if it ended).
class CVArchiveSource
{
public:
    /// Null when one of the files cannot be opened or is not a regular file; `error` says why.
    static std::shared_ptr<const CVArchiveSource> open(const QStringList &paths, QString *error = nullptr);

    qint64 size() const { return m_size; }
    QStringList paths() const;
    /// When the first file was changed last, in milliseconds since 1970 UTC.
    qint64 modified() const { return m_modified; }

    /// Where each file begins.
    std::vector<qint64> starts() const;

    /// Bytes read, fewer than asked only at the end; below zero when reading failed.
    qint64 readAt(qint64 offset, char *buffer, qint64 bytes) const;

    /// End of the furthest read since resetPosition(), for progress.
    qint64 position() const { return m_position.load(std::memory_order_relaxed); }
    void resetPosition() const { m_position.store(0, std::memory_order_relaxed); }

private:
    struct Part
    {
        QString path;
        LXFileDescriptor fd;
        qint64 start = 0;
        qint64 size = 0;
    };

    std::vector<Part> m_parts;
    qint64 m_size = 0;
    qint64 m_modified = 0;
    mutable std::atomic<qint64> m_position = 0;
};
