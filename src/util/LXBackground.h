#pragma once

#include <functional>

/// Runs it on one of a few threads kept for short work that nobody waits for; the end of the application
/// does. Any thread.
///
/// Not on QThreadPool::globalInstance(): Qt paints large areas on that one and waits for its turn, so what
/// takes long there holds up the main thread.
void runInBackground(std::function<void()> task);

/// Until all of it is done, which is what the end of the application does. Main thread.
void waitForBackground();
