#pragma once

#include "util/LXFileDescriptor.h"

#include <QSocketNotifier>

#include <functional>
#include <memory>

/// Turns SIGINT, SIGTERM and SIGHUP into calls on the main thread's event loop.
///
/// One instance a process, on the main thread, which has to run its loop. The handler itself only
/// writes a byte to a pipe, so nothing is interrupted half-way. Children get the default action again.
class CVTerminalSignals
{
public:
    using Handler = std::function<void(int signal)>;

    explicit CVTerminalSignals(Handler handler);
    ~CVTerminalSignals();
    CVTerminalSignals(const CVTerminalSignals &) = delete;
    CVTerminalSignals &operator=(const CVTerminalSignals &) = delete;

private:
    void read();

    Handler m_handler;
    LXFileDescriptor m_readEnd;
    std::unique_ptr<QSocketNotifier> m_notifier;
};
