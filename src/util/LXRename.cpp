#include "util/LXRename.h"

#include "util/LXFileDescriptor.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Takes the name with an empty item of our own, which the move then replaces. A folder can only replace
// an empty one.
int renameByReservation(const char *from, const char *to, bool isFolder)
{
    if (isFolder) {
        if (::mkdir(to, 0700) != 0)
            return errno;
    } else if (!LXFileDescriptor(::open(to, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)).isOpen()) {
        return errno;
    }
    if (::rename(from, to) == 0)
        return 0;
    const int failure = errno;
    if (isFolder)
        ::rmdir(to);
    else
        ::unlink(to);
    return failure == ENOTEMPTY ? EEXIST : failure;
}

} // namespace

int renameWithoutReplacing(const QByteArray &from, const QByteArray &to)
{
    if (::renameat2(AT_FDCWD, from.constData(), AT_FDCWD, to.constData(), RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return errno;
    struct stat facts;
    if (::lstat(from.constData(), &facts) != 0)
        return errno;
    if (!S_ISDIR(facts.st_mode)) {
        // Never shows an empty item under the name, not even when we are killed in between.
        if (::link(from.constData(), to.constData()) == 0)
            return ::unlink(from.constData()) == 0 ? 0 : errno;
        if (errno == EEXIST)
            return EEXIST;
    }
    return renameByReservation(from.constData(), to.constData(), S_ISDIR(facts.st_mode));
}

int renameExchanging(const QByteArray &one, const QByteArray &other)
{
    if (::renameat2(AT_FDCWD, one.constData(), AT_FDCWD, other.constData(), RENAME_EXCHANGE) == 0)
        return 0;
    return errno;
}
