#pragma once

#include <memory>
#include <utility>

/// Lets go of it on another thread, for what is large takes a while to take down, and gives the memory back
/// to the system. Null is nothing. Any thread.
void releaseInBackground(std::shared_ptr<const void> thing);

/// The same for what is held by value.
template <typename T> void disposeElsewhere(T value)
{
    if (!value.empty())
        releaseInBackground(std::make_shared<T>(std::move(value)));
}

/// Freed memory stays with the process, for the allocator hopes for more of the same; where that is much,
/// this gives it back. Not on the main thread: it can take as long as a few frames.
void giveBackFreedMemory();
