#include "util/LXCopyTree.h"

#include <array>
#include <cerrno>
#include <memory>
#include <string>

#include <fcntl.h>
#include <fts.h>
#include <sys/stat.h>

namespace {

struct FtsClose
{
    void operator()(FTS *walk) const noexcept { fts_close(walk); }
};

int finishFolder(const char *to, const struct stat &facts)
{
    const std::array times = {facts.st_atim, facts.st_mtim};
    if (::utimensat(AT_FDCWD, to, times.data(), 0) != 0 || ::chmod(to, facts.st_mode & 0777) != 0)
        return errno;
    return 0;
}

} // namespace

int copyTree(const char *from, const char *to, std::stop_token stop, const LXCopyWatcher &watcher)
{
    std::string root(from);
    char *roots[] = {root.data(), nullptr};
    const std::unique_ptr<FTS, FtsClose> walk(fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR, nullptr));
    if (!walk)
        return errno;
    while (const FTSENT *entry = (errno = 0, fts_read(walk.get()))) {
        const std::string target = std::string(to) + (entry->fts_path + root.size());
        int failure = 0;
        if (stop.stop_requested())
            return ECANCELED;
        switch (entry->fts_info) {
        case FTS_D:
            // Open to us until its contents are in.
            failure = ::mkdir(target.c_str(), 0700) == 0 ? 0 : errno;
            break;
        case FTS_DP:
            failure = finishFolder(target.c_str(), *entry->fts_statp);
            break;
        case FTS_F:
            failure = copyFile(entry->fts_accpath, AT_FDCWD, target.c_str(), stop, watcher).failure;
            break;
        case FTS_SL:
        case FTS_SLNONE:
            failure = copySymlink(entry->fts_accpath, AT_FDCWD, target.c_str());
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
