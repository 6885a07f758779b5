#include "archives/reading/CVDestination.h"

#include "util/LXDirectory.h"
#include "util/LXRemoveTree.h"

#include <cerrno>
#include <limits>
#include <string>
#include <utility>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>

namespace {

// Folders kept open: enough for any tree's working set, far below the usual limit of 1,024 files.
constexpr std::size_t maxKeptFolders = 256;

LXFileDescriptor duplicate(int fd)
{
    return LXFileDescriptor(::fcntl(fd, F_DUPFD_CLOEXEC, 3));
}

// A descriptor of its own: reading closes it, and the position of `fd` is not shared.
LXFileDescriptor reopened(int fd)
{
    return LXFileDescriptor(::openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

} // namespace

CVDestination::CVDestination(const QByteArray &path)
    : m_root(::open(path.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
{}

int CVDestination::openBeneath(int at, const char *path, int flags) const
{
    open_how how{};
    how.flags = static_cast<std::uint64_t>(flags) | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    const long fd = ::syscall(SYS_openat2, at, path, &how, sizeof how);
    if (fd >= 0 || errno != ENOSYS)
        return static_cast<int>(fd);

    // Kernels and containers without openat2: one component at a time, never through a link.
    LXFileDescriptor here = duplicate(at);
    std::string rest(path);
    while (here.isOpen()) {
        const auto slash = rest.find('/');
        const std::string component = rest.substr(0, slash);
        const bool last = slash == std::string::npos;
        if (component == "..") {
            errno = EXDEV;
            return -1;
        }
        here = LXFileDescriptor(::openat(here.get(), component.c_str(),
                                         (last ? flags : O_RDONLY | O_DIRECTORY) | O_NOFOLLOW | O_CLOEXEC));
        if (last)
            return here.release();
        rest.erase(0, slash + 1);
    }
    return -1;
}

std::shared_ptr<const LXFileDescriptor> CVDestination::existingFolder(const QByteArray &path) const
{
    const int fd = path.isEmpty() ? duplicate(m_root.get()).release()
                                  : openBeneath(m_root.get(), path.constData(), O_RDONLY | O_DIRECTORY);
    return fd < 0 ? nullptr : std::make_shared<const LXFileDescriptor>(fd);
}

std::shared_ptr<const LXFileDescriptor> CVDestination::folder(const QByteArray &path)
{
    const std::string key(path.constData(), static_cast<std::size_t>(path.size()));
    {
        const std::lock_guard lock(m_mutex);
        if (const auto it = m_kept.find(key); it != m_kept.end())
            return it->second;
    }
    auto found = existingFolder(path);
    if (!found && errno == ENOENT) {
        // Step by step from the nearest folder that exists, without recursion: depth is the archive's choice.
        std::vector<qsizetype> ends;
        for (qsizetype i = path.indexOf('/'); i >= 0; i = path.indexOf('/', i + 1))
            ends.push_back(i);
        ends.push_back(path.size());
        LXFileDescriptor here;
        std::size_t next = 0;
        for (std::size_t i = ends.size() - 1; i-- > 0;) {
            const int fd = openBeneath(m_root.get(), path.left(ends[i]).constData(), O_RDONLY | O_DIRECTORY);
            if (fd >= 0) {
                here = LXFileDescriptor(fd);
                next = i + 1;
                break;
            }
            if (errno != ENOENT)
                return nullptr;
        }
        if (!here.isOpen())
            here = duplicate(m_root.get());
        for (; next < ends.size() && here.isOpen(); ++next) {
            const qsizetype begin = next == 0 ? 0 : ends[next - 1] + 1;
            const QByteArray name = path.mid(begin, ends[next] - begin);
            if (::mkdirat(here.get(), name.constData(), 0700) == 0) {
                const std::lock_guard lock(m_mutex);
                m_made.push_back(path.left(ends[next]));
            } else if (errno != EEXIST) {
                return nullptr;
            }
            here = LXFileDescriptor(
                ::openat(here.get(), name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        }
        if (!here.isOpen())
            return nullptr;
        found = std::make_shared<const LXFileDescriptor>(std::move(here));
    }
    if (!found)
        return nullptr;
    const std::lock_guard lock(m_mutex);
    if (m_kept.size() >= maxKeptFolders)
        m_kept.clear();
    m_kept.emplace(key, found);
    return found;
}

std::vector<QByteArray> CVDestination::takeMadeFolders()
{
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_made, {});
}

void CVDestination::empty()
{
    {
        const std::lock_guard lock(m_mutex);
        m_kept.clear();
        m_made.clear();
    }
    cvRemoveContents(m_root.get());
}

std::uint64_t CVDestination::freeBytes() const
{
    struct statvfs info;
    if (::fstatvfs(m_root.get(), &info) != 0)
        return 0;
    return static_cast<std::uint64_t>(info.f_bavail) * info.f_frsize;
}

std::optional<std::vector<QByteArray>> CVDestination::topLevelNames(std::size_t limit) const
{
    return namesInDirectory(reopened(m_root.get()), limit);
}

bool CVDestination::isEmpty() const
{
    const auto names = topLevelNames(1);
    return names && names->empty();
}

bool cvRemoveContents(int fd)
{
    const auto names = namesInDirectory(reopened(fd), std::numeric_limits<std::size_t>::max());
    bool ok = names.has_value();
    if (names)
        for (const QByteArray &name : *names)
            ok = static_cast<bool>(removeTreeAt(fd, name)) && ok;
    return ok;
}
