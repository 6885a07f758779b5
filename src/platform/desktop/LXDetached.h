#pragma once

#include <functional>

/// Work that nobody waits for and that may hang for ever, on a file system or a server that is gone.
namespace LXDetached {

/// Runs f on a thread of its own. f must not throw and must own all it uses. The end of the program gives
/// work in progress a second and then ends without it.
void run(std::function<void()> f);

} // namespace LXDetached
