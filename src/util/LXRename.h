#pragma once

#include <QByteArray>

/// Moves within one file system that never replace what they should not. Paths are bytes, links are not
/// followed. Each gives 0 or an errno. Any thread.

/// EEXIST when something is at `to`. On file systems without such a rename the name is taken first, so
/// that nothing can come in between.
int renameWithoutReplacing(const QByteArray &from, const QByteArray &to);

/// What is at `to` goes to `from` and the other way round, in one step. EINVAL or ENOSYS where the file
/// system cannot do that.
int renameExchanging(const QByteArray &one, const QByteArray &other);
