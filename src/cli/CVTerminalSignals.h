#pragma once

#include "util/LXFileDescriptor.h"

#include <QSocketNotifier>

#include <functional>
#include <memory>

class CVTerminal;

/// Turns the first SIGINT, SIGTERM or SIGHUP into a call on the main thread's event loop, for an orderly end.
/// The second one ends the process there and then, whatever its threads are doing: with the status of what
/// was cancelled, and with the terminal's echo as it was found.
///
/// One instance a process, on the main thread. Children get the default action again.
class CVTerminalSignals
{
public:
    using Handler = std::function<void(int signal)>;

    /// The terminal outlives this.
    CVTerminalSignals(CVTerminal &terminal, Handler first);
    ~CVTerminalSignals();
    CVTerminalSignals(const CVTerminalSignals &) = delete;
    CVTerminalSignals &operator=(const CVTerminalSignals &) = delete;

    static constexpr int cancelledStatus = 130;

private:
    void read();

    Handler m_first;
    LXFileDescriptor m_readEnd;
    std::unique_ptr<QSocketNotifier> m_notifier;
};
