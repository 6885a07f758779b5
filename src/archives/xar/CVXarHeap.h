#pragma once

#include "util/LXFileDescriptor.h"

#include <QByteArray>

#include <atomic>
#include <cstdint>
#include <span>
#include <vector>

/// The file of an archive that is being written. The data comes first and the table of contents, which stands
/// before it in the file, last. So the data is kept in memory while it is little; then it goes to
/// the file behind a gap for the table. Only where the table is larger than that gap the data is moved.
/// Nothing is written anywhere else. Errors are errno values; one thread.
class CVXarHeap
{
public:
    /// What is kept in memory.
    static constexpr std::size_t maxKeptBytes = std::size_t(24) << 20;
    /// Left free for the table: that of several thousand files, and little beside what maxKeptBytes allows.
    static constexpr std::uint64_t gapBytes = std::uint64_t(1) << 20;

    /// Replaces a file; fails on a link. 0 or errno.
    int open(const QByteArray &path);

    /// 0 or errno. size() before the call is where it begins.
    int append(std::span<const char> data);
    std::uint64_t size() const { return m_size; }

    /// When the data is in the file already: where it begins there. 0: still in memory.
    std::uint64_t spilledAt() const { return m_spilledAt; }

    /// Writes `front`, with the data right behind it or, when that is spilled, at spilledAt() if it is not
    /// in the way. 0 or errno; ECANCELED when `cancelled` became true.
    int finish(std::span<const char> front, const std::atomic<bool> &cancelled);

    /// Closes and removes the file.
    void abandon();

private:
    int writeAt(std::uint64_t offset, std::span<const char> data);
    int moveData(std::uint64_t to, const std::atomic<bool> &cancelled);

    QByteArray m_path;
    LXFileDescriptor m_fd;
    std::vector<char> m_kept;
    std::uint64_t m_size = 0;
    std::uint64_t m_spilledAt = 0;
};
