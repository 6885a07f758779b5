#include "util/LXCopyTree.h"

#include "util/LXFileDescriptor.h"

#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <fts.h>
#include <sys/sendfile.h>
#include <sys/stat.h>

namespace {

struct FtsClose
{
    void operator()(FTS *walk) const noexcept { fts_close(walk); }
};

int copyContents(int from, int to)
{
    for (;;) {
        const ssize_t n = ::copy_file_range(from, nullptr, to, nullptr, 1 << 30, 0);
        if (n == 0)
            return 0;
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            break;
    }
    // Not between all file systems; what was copied so far is behind both positions.
    for (;;) {
        const ssize_t n = ::sendfile(to, from, nullptr, 1 << 30);
        if (n == 0)
            return 0;
        if (n < 0 && errno != EINTR)
            return errno;
    }
}

int copyFile(const char *from, const char *to, const struct stat &facts)
{
    const LXFileDescriptor source(::open(from, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!source.isOpen())
        return errno;
    LXFileDescriptor target(::open(to, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!target.isOpen())
        return errno;
    if (const int failure = copyContents(source.get(), target.get()))
        return failure;
    const std::array times = {facts.st_atim, facts.st_mtim};
    if (::fchmod(target.get(), facts.st_mode & 0777) != 0 || ::futimens(target.get(), times.data()) != 0)
        return errno;
    return target.reset() ? 0 : errno;
}

int copyLink(const char *from, const char *to, const struct stat &facts)
{
    std::string target(static_cast<std::size_t>(facts.st_size) + 1, '\0');
    const ssize_t length = ::readlink(from, target.data(), target.size());
    if (length < 0)
        return errno;
    target.resize(static_cast<std::size_t>(length));
    if (::symlink(target.c_str(), to) != 0)
        return errno;
    const std::array times = {facts.st_atim, facts.st_mtim};
    // Not every file system keeps times of links; the link itself is what matters.
    (void)::utimensat(AT_FDCWD, to, times.data(), AT_SYMLINK_NOFOLLOW);
    return 0;
}

int finishFolder(const char *to, const struct stat &facts)
{
    const std::array times = {facts.st_atim, facts.st_mtim};
    if (::utimensat(AT_FDCWD, to, times.data(), 0) != 0 || ::chmod(to, facts.st_mode & 0777) != 0)
        return errno;
    return 0;
}

} // namespace

int copyTree(const char *from, const char *to)
{
    std::string root(from);
    char *roots[] = {root.data(), nullptr};
    const std::unique_ptr<FTS, FtsClose> walk(fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR, nullptr));
    if (!walk)
        return errno;
    while (const FTSENT *entry = (errno = 0, fts_read(walk.get()))) {
        const std::string target = std::string(to) + (entry->fts_path + root.size());
        int failure = 0;
        switch (entry->fts_info) {
        case FTS_D:
            // Open to us until its contents are in.
            failure = ::mkdir(target.c_str(), 0700) == 0 ? 0 : errno;
            break;
        case FTS_DP:
            failure = finishFolder(target.c_str(), *entry->fts_statp);
            break;
        case FTS_F:
            failure = copyFile(entry->fts_accpath, target.c_str(), *entry->fts_statp);
            break;
        case FTS_SL:
        case FTS_SLNONE:
            failure = copyLink(entry->fts_accpath, target.c_str(), *entry->fts_statp);
            break;
        case FTS_DNR:
        case FTS_ERR:
        case FTS_NS:
            failure = entry->fts_errno;
            break;
        default:
            break;
        }
        if (failure != 0)
            return failure;
    }
    return errno;
}
