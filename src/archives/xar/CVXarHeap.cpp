#include "archives/xar/CVXarHeap.h"

#include "util/write_all.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr std::size_t moveBlockBytes = std::size_t(256) << 10;

} // namespace

int CVXarHeap::open(const QByteArray &path)
{
    m_path = path;
    m_fd = LXFileDescriptor(
        ::open(path.constData(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
    if (!m_fd.isOpen())
        return errno;
    struct stat info;
    if (::fstat(m_fd.get(), &info) != 0)
        return errno;
    if (!S_ISREG(info.st_mode))
        return EINVAL;
    return ::ftruncate(m_fd.get(), 0) == 0 ? 0 : errno;
}

int CVXarHeap::append(std::span<const char> data)
{
    int error = 0;
    if (m_spilledAt == 0 && m_kept.size() + data.size() <= maxKeptBytes) {
        m_kept.insert(m_kept.end(), data.begin(), data.end());
    } else {
        if (m_spilledAt == 0) {
            m_spilledAt = gapBytes;
            error = writeAt(m_spilledAt, m_kept);
            m_kept = {};
        }
        if (error == 0)
            error = writeAt(m_spilledAt + m_size, data);
    }
    m_size += data.size();
    return error;
}

int CVXarHeap::writeAt(std::uint64_t offset, std::span<const char> data)
{
    return writeAllAt(m_fd.get(), data.data(), data.size(), static_cast<off_t>(offset)) ? 0 : errno;
}

int CVXarHeap::finish(std::span<const char> front, const std::atomic<bool> &cancelled)
{
    int error = 0;
    if (m_spilledAt == 0)
        error = writeAt(front.size(), m_kept);
    else if (front.size() > m_spilledAt)
        error = moveData(front.size(), cancelled);
    if (error == 0)
        error = writeAt(0, front);
    if (error == 0 && !m_fd.reset())
        error = errno;
    m_kept = {};
    return error;
}

/// Towards the end of the file, from its end on: the data needs no second place.
int CVXarHeap::moveData(std::uint64_t to, const std::atomic<bool> &cancelled)
{
    std::vector<char> block(moveBlockBytes);
    for (std::uint64_t left = m_size; left > 0;) {
        if (cancelled)
            return ECANCELED;
        const std::size_t size = static_cast<std::size_t>(std::min<std::uint64_t>(left, moveBlockBytes));
        left -= size;
        for (std::size_t got = 0; got < size;) {
            const ssize_t n = ::pread(m_fd.get(), block.data() + got, size - got,
                                      static_cast<off_t>(m_spilledAt + left + got));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return n < 0 ? errno : EIO;
            got += static_cast<std::size_t>(n);
        }
        if (const int error = writeAt(to + left, std::span(block).first(size)))
            return error;
    }
    return 0;
}

void CVXarHeap::abandon()
{
    if (!m_fd.isOpen())
        return;
    m_fd.reset();
    ::unlink(m_path.constData());
}
