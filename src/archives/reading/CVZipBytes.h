#pragma once

#include <QtEndian>

#include <cerrno>
#include <cstddef>
#include <functional>

#include <unistd.h>

/// How the ZIP engine gets at bytes: little-endian fields of records and reads at a place in the file.
namespace CVZipBytes {

constexpr quint32 localHeaderMark = 0x04034b50;
constexpr quint32 directoryMark = 0x02014b50;
constexpr quint32 endMark = 0x06054b50;
constexpr quint32 end64Mark = 0x06064b50;
constexpr quint32 end64LocatorMark = 0x07064b50;
constexpr quint32 spannedMark = 0x08074b50; ///< also opens a data descriptor
constexpr quint32 oneSegmentMark = 0x30304b50;

constexpr qint64 localHeaderSize = 30;
constexpr qint64 directoryRecordSize = 46;
constexpr qint64 endSize = 22;
constexpr qint64 end64Size = 56;
constexpr qint64 end64LocatorSize = 20;
constexpr qint64 longestComment = 0xffff;

inline quint16 u16(const char *at)
{
    return qFromLittleEndian<quint16>(at);
}
inline quint32 u32(const char *at)
{
    return qFromLittleEndian<quint32>(at);
}
inline quint64 u64(const char *at)
{
    return qFromLittleEndian<quint64>(at);
}

/// Reads at a place of an archive; fewer bytes than asked only at the end, below zero on an error.
using Input = std::function<qint64(char *to, qint64 size, quint64 offset)>;

/// Reads until `size` bytes are there or the file ends. The file is read, never mapped: one that is
/// cut short while we work gives a short read, a mapping would give a fatal signal.
/// Below zero on an error (see errno).
inline qint64 readAt(int fd, char *to, qint64 size, quint64 offset)
{
    qint64 done = 0;
    while (done < size) {
        const ssize_t got = ::pread(fd, to + done, std::size_t(size - done), off_t(offset) + done);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return -1;
        if (got == 0)
            break;
        done += got;
    }
    return done;
}

} // namespace CVZipBytes
