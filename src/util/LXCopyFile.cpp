#include "util/LXCopyFile.h"

#include "util/LXFileDescriptor.h"
#include "util/write_all.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

/// What may pass between a cancel and its effect where the kernel copies; through memory of ours.
constexpr off_t kernelBlock = off_t(16) << 20;
constexpr off_t ownBlock = off_t(1) << 20;

/// Whether the kernel can copy between these two at all is found out by trying.
bool kernelCannot(int failure)
{
    return failure == EXDEV || failure == EINVAL || failure == EOPNOTSUPP || failure == ENOSYS ||
           failure == EPERM || failure == EIO;
}

class ContentsCopy
{
public:
    ContentsCopy(int from, int to, std::stop_token stop, const LXCopyWatcher &watcher)
        : m_from(from)
        , m_to(to)
        , m_stop(std::move(stop))
        , m_watcher(watcher)
    {}

    int run(off_t size)
    {
        // A size of nothing is also what the kernel's own files say, which have contents nevertheless.
        m_inKernel = size > 0;
        off_t at = 0;
        for (bool more = true; more;) {
            const off_t data = size > 0 ? ::lseek(m_from, at, SEEK_DATA) : at;
            if (data < 0 && errno == ENXIO) // a hole up to the end
                break;
            at = data < 0 ? at : data;
            const off_t hole = data < 0 || size == 0 ? -1 : ::lseek(m_from, at, SEEK_HOLE);
            const off_t end = hole < 0 ? std::numeric_limits<off_t>::max() : hole;
            more = hole >= 0;
            if (const int failure = copyRange(at, end, more))
                return failure;
        }
        return ::ftruncate(m_to, std::max(at, size)) == 0 ? 0 : errno;
    }

private:
    // Moves `at` along. `more` becomes false at the end of the file.
    int copyRange(off_t &at, off_t end, bool &more)
    {
        while (at < end) {
            if (m_stop.stop_requested())
                return ECANCELED;
            const ssize_t n = m_inKernel ? inKernel(at, end) : throughMemory(at, end);
            if (n < 0 && m_inKernel && kernelCannot(errno)) {
                m_inKernel = false;
                continue;
            }
            if (n < 0)
                return errno;
            if (n == 0) {
                more = false;
                return 0;
            }
            at += n;
            if (m_watcher)
                m_watcher(n);
        }
        return 0;
    }

    ssize_t inKernel(off_t at, off_t end)
    {
        off_t in = at;
        off_t out = at;
        const auto length = static_cast<std::size_t>(std::min(end - at, kernelBlock));
        ssize_t n = 0;
        do {
            n = ::copy_file_range(m_from, &in, m_to, &out, length, 0);
        } while (n < 0 && errno == EINTR);
        return n;
    }

    ssize_t throughMemory(off_t at, off_t end)
    {
        m_buffer.resize(static_cast<std::size_t>(ownBlock));
        ssize_t n = 0;
        do {
            n = ::pread(m_from, m_buffer.data(), static_cast<std::size_t>(std::min(end - at, ownBlock)), at);
        } while (n < 0 && errno == EINTR);
        if (n > 0 && !writeAllAt(m_to, m_buffer.data(), static_cast<std::size_t>(n), at))
            return -1;
        return n;
    }

    int m_from;
    int m_to;
    std::stop_token m_stop;
    const LXCopyWatcher &m_watcher;
    bool m_inKernel = true;
    std::vector<char> m_buffer;
};

bool sameTime(const timespec &a, const timespec &b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

mode_t modeForOwner(const struct stat &facts, bool ownerKept)
{
    return facts.st_mode & (ownerKept ? 07777 : 0777);
}

/// Some file systems keep no modes or times; contents are what a copy is for.
bool failed(int result)
{
    return result != 0 && errno != EPERM && errno != EOPNOTSUPP && errno != ENOSYS;
}

} // namespace

LXCopyOutcome copyFile(const QByteArray &from, int folder, const QByteArray &name, std::stop_token stop,
                       const LXCopyWatcher &watcher)
{
    // Something else may have taken the name meanwhile: a FIFO must not make us wait.
    const LXFileDescriptor source(
        ::open(from.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat before;
    if (!source.isOpen() || ::fstat(source.get(), &before) != 0)
        return {.failure = errno};
    if (!S_ISREG(before.st_mode))
        return {.failure = ESTALE};
    LXFileDescriptor target(
        ::openat(folder, name.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!target.isOpen())
        return {.failure = errno};

    LXCopyOutcome outcome;
    outcome.failure = ContentsCopy(source.get(), target.get(), std::move(stop), watcher).run(before.st_size);
    if (outcome.failure == 0) {
        const bool ownerKept = ::fchown(target.get(), before.st_uid, before.st_gid) == 0;
        const std::array times = {before.st_atim, before.st_mtim};
        if (failed(::fchmod(target.get(), modeForOwner(before, ownerKept))) ||
            failed(::futimens(target.get(), times.data())))
            outcome.failure = errno;
    }
    struct stat after;
    if (::fstat(source.get(), &after) == 0)
        outcome.changed = after.st_size != before.st_size || !sameTime(after.st_mtim, before.st_mtim);
    if (!target.reset() && outcome.failure == 0)
        outcome.failure = errno;
    if (outcome.failure != 0)
        ::unlinkat(folder, name.constData(), 0);
    return outcome;
}

int copySymlink(const QByteArray &from, int folder, const QByteArray &name)
{
    struct stat facts;
    if (::lstat(from.constData(), &facts) != 0)
        return errno;
    QByteArray text(std::max<qsizetype>(facts.st_size, 4095) + 1, '\0');
    const ssize_t length = ::readlink(from.constData(), text.data(), static_cast<std::size_t>(text.size()));
    if (length < 0)
        return errno;
    text.truncate(length);
    if (::symlinkat(text.constData(), folder, name.constData()) != 0)
        return errno;
    // Not every file system keeps times and owners of links; the link itself is what matters.
    const std::array times = {facts.st_atim, facts.st_mtim};
    (void)::fchownat(folder, name.constData(), facts.st_uid, facts.st_gid, AT_SYMLINK_NOFOLLOW);
    (void)::utimensat(folder, name.constData(), times.data(), AT_SYMLINK_NOFOLLOW);
    return 0;
}

int copyAttributes(const struct stat &facts, int folder, const QByteArray &name)
{
    const bool ownerKept =
        ::fchownat(folder, name.constData(), facts.st_uid, facts.st_gid, AT_SYMLINK_NOFOLLOW) == 0;
    const std::array times = {facts.st_atim, facts.st_mtim};
    if (failed(::utimensat(folder, name.constData(), times.data(), AT_SYMLINK_NOFOLLOW)) ||
        failed(::fchmodat(folder, name.constData(), modeForOwner(facts, ownerKept), 0)))
        return errno;
    return 0;
}
