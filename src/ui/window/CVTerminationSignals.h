#pragma once

#include <functional>

/// Ends the program in order when the session or a terminal asks it to: SIGTERM, SIGINT and SIGHUP call
/// `asked` on the main thread, once. A second one ends the process as it would have without this. One at a
/// time; main thread.
class CVTerminationSignals
{
public:
    explicit CVTerminationSignals(std::function<void()> asked);
    ~CVTerminationSignals();
    CVTerminationSignals(const CVTerminationSignals &) = delete;
    CVTerminationSignals &operator=(const CVTerminationSignals &) = delete;
};
