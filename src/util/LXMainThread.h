#pragma once

#include <functional>

/// The only hops to the main thread. The main thread is the one that called install().
namespace LXMainThread {

/// Once, at start, on the main thread, after the application object exists.
void install();

/// True on the main thread.
bool isCurrent();

/// Any thread: runs f later on the main thread, in the order of the calls. f must not throw.
void post(std::function<void()> f);

/// Any thread: runs f on the main thread and returns when it has run; on the main thread itself,
/// at once. Never call it while holding a lock that f needs.
void wait(const std::function<void()> &f);

} // namespace LXMainThread
