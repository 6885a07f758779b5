#pragma once

#include <QByteArray>

#include <functional>
#include <stop_token>

#include <sys/stat.h>

/// Copies of single items, made beside others that may be watched meanwhile. Any thread.

/// Told of every block that has been copied, in bytes, holes not counted.
using LXCopyWatcher = std::function<void(qint64 bytes)>;

/// How a copy went.
struct LXCopyOutcome
{
    int failure = 0;      ///< an errno; ECANCELED after a stop
    bool changed = false; ///< the file was written to while it was copied
};

/// Copies the regular file `from` to `name` in the open folder `folder` (AT_FDCWD and a path do as well),
/// where nothing may be yet: contents, and as far as the file system can permission bits, times and owner.
/// Holes stay holes. Set-user-ID and its kin are kept only together with the owner. A stop takes effect
/// within one block (16 MiB). After a failure nothing is left at the target.
LXCopyOutcome copyFile(const QByteArray &from, int folder, const QByteArray &name, std::stop_token stop = {},
                       const LXCopyWatcher &watcher = {});

/// The same for a symbolic link, which becomes a link with the same text. 0 or an errno.
int copySymlink(const QByteArray &from, int folder, const QByteArray &name);

/// Gives an item that we made the owner (where we may), permission bits and times of another one. `folder`
/// and `name` as above; not for links. 0 or an errno.
int copyAttributes(const struct stat &facts, int folder, const QByteArray &name);
