#include "split/block_copy.h"

#include "split/split_exceptions.h"
#include "util/LXFileName.h"
#include "util/write_all.h"

#include <algorithm>
#include <limits>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Faster than larger ones, which fall out of the processor's cache.
constexpr std::size_t bufferBytes = 256 * 1024;

} // namespace

LXFileDescriptor openRegularFile(const QString &path)
{
    LXFileDescriptor file(
        ::open(bytesOfFileName(path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat facts;
    if (!file.isOpen())
        return file;
    if (::fstat(file.get(), &facts) != 0 || !S_ISREG(facts.st_mode)) {
        file.reset();
        errno = EINVAL;
        return file;
    }
    (void)::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return file;
}

void writeOrThrow(int file, const char *data, std::size_t size)
{
    if (!writeAll(file, data, size))
        throw LXFileHandleException();
}

void BlockCopier::findExtent(std::uint64_t at)
{
    const auto from = static_cast<off_t>(at);
    m_extentStart = at;
    m_extentIsHole = false;
    m_extentEnd = std::numeric_limits<std::uint64_t>::max(); // where the file system knows of no holes
    // With room for every byte there are none. In memory the search goes through the whole file.
    struct stat facts;
    constexpr off_t bytesABlock = 512;
    if (::fstat(m_from, &facts) == 0 && facts.st_blocks * bytesABlock >= facts.st_size)
        return;
    off_t data = ::lseek(m_from, from, SEEK_DATA);
    if (data < 0 && errno == ENXIO) { // no more data: a hole, or the end
        data = ::lseek(m_from, 0, SEEK_END);
        if (data < from)
            return;
    }
    if (data > from) {
        m_extentIsHole = true;
        m_extentEnd = static_cast<std::uint64_t>(data);
    } else if (const off_t hole = ::lseek(m_from, from, SEEK_HOLE); data == from && hole > from) {
        m_extentEnd = static_cast<std::uint64_t>(hole);
    }
}

std::uint64_t BlockCopier::copy(std::uint64_t at, int to, std::uint64_t target, std::uint64_t size)
{
    std::uint64_t done = 0;
    bool endsInHole = false;
    while (done < size) {
        if (at + done < m_extentStart || at + done >= m_extentEnd)
            findExtent(at + done);
        const std::uint64_t wanted = std::min(size - done, m_extentEnd - (at + done));
        endsInHole = m_extentIsHole;
        if (!m_extentIsHole) {
            const std::uint64_t copied = copyData(at + done, to, target + done, wanted);
            if (copied == 0)
                return done;
            done += copied;
        } else {
            done += wanted;
        }
    }
    if (endsInHole && ::ftruncate(to, static_cast<off_t>(target + size)) != 0)
        throw LXFileHandleException();
    return done;
}

std::uint64_t BlockCopier::copyData(std::uint64_t at, int to, std::uint64_t target, std::uint64_t size)
{
    std::uint64_t done = 0;
    while (done < size && m_byKernel) {
        auto from = static_cast<off_t>(at + done);
        auto into = static_cast<off_t>(target + done);
        const ssize_t count = ::copy_file_range(m_from, &from, to, &into, size - done, 0);
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
            ::pread(m_from, m_buffer.data(),
                    static_cast<std::size_t>(std::min<std::uint64_t>(bufferBytes, size - done)),
                    static_cast<off_t>(at + done));
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            throw LXFileHandleException();
        if (count == 0)
            break;
        if (!writeAllAt(to, m_buffer.data(), static_cast<std::size_t>(count),
                        static_cast<off_t>(target + done)))
            throw LXFileHandleException();
        done += static_cast<std::uint64_t>(count);
    }
    return done;
}
