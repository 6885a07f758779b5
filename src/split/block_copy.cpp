#include "split/block_copy.h"

#include "split/split_exceptions.h"

#include <algorithm>

#include <sys/stat.h>
#include <unistd.h>

namespace {

// Faster than larger ones, which fall out of the processor's cache.
constexpr std::size_t bufferBytes = 256 * 1024;

} // namespace

void writeAll(int file, const char *data, std::size_t size)
{
    while (size > 0) {
        const ssize_t written = ::write(file, data, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            throw LXFileHandleException();
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

/// Both positions are behind it afterwards.
bool BlockCopier::skipHole(int from, int to, std::uint64_t size)
{
    const auto wanted = static_cast<off_t>(size);
    const off_t at = ::lseek(from, 0, SEEK_CUR);
    if (at < 0)
        return false;
    if (at + wanted > m_dataFrom) {
        off_t data = ::lseek(from, at, SEEK_DATA);
        if (data < 0 && errno == ENXIO) // a hole up to the end
            data = ::lseek(from, 0, SEEK_END);
        m_dataFrom = data;
        ::lseek(from, at, SEEK_SET);
    }
    if (at + wanted > m_dataFrom)
        return false;
    const off_t target = ::lseek(to, wanted, SEEK_CUR);
    if (target < 0 || ::ftruncate(to, target) != 0)
        throw LXFileHandleException();
    ::lseek(from, at + wanted, SEEK_SET);
    return true;
}

std::uint64_t BlockCopier::copy(int from, int to, std::uint64_t size)
{
    if (size > 0 && skipHole(from, to, size))
        return size;
    std::uint64_t done = 0;
    while (done < size && m_byKernel) {
        const ssize_t count = ::copy_file_range(from, nullptr, to, nullptr, size - done, 0);
        if (count == 0)
            break; // the end, or a file system that only says so: reading tells
        if (count > 0)
            done += static_cast<std::uint64_t>(count);
        else if (errno == ENOSPC || errno == EDQUOT || errno == EIO || errno == EFBIG)
            throw LXFileHandleException();
        else if (errno != EINTR)
            m_byKernel = false; // not between these two
    }
    if (done < size)
        m_buffer.resize(bufferBytes);
    while (done < size) {
        const ssize_t count =
            ::read(from, m_buffer.data(),
                   static_cast<std::size_t>(std::min<std::uint64_t>(bufferBytes, size - done)));
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            throw LXFileHandleException();
        if (count == 0)
            break;
        writeAll(to, m_buffer.data(), static_cast<std::size_t>(count));
        done += static_cast<std::uint64_t>(count);
    }
    return done;
}
