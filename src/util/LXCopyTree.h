#pragma once

#include "util/LXCopyFile.h"

#include <stop_token>

/// Copies the item `from` with everything beneath it to the path `to`, which must not exist: contents,
/// links as links, permission bits and modification times. Devices, FIFOs and sockets are left out.
/// Gives 0 or the errno of the first failure (ECANCELED after a stop), after which what was copied stays for
/// the caller to remove.
int copyTree(const char *from, const char *to, std::stop_token stop = {}, const LXCopyWatcher &watcher = {});
