#include "cli/CVTerminalSignals.h"

#include "cli/CVTerminal.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>

#include <fcntl.h>

namespace {

// What the handler needs, which must neither wait nor allocate.
std::atomic<int> pipeWriteEnd = -1;
std::atomic<CVTerminal *> shownTerminal = nullptr;
std::atomic<bool> hasBeenAsked = false;

constexpr std::array caught = {SIGINT, SIGTERM, SIGHUP};

void onSignal(int signal)
{
    // Whoever asks twice does not want to wait. What is left is on the list that "corvane clean" goes
    // through.
    if (hasBeenAsked.exchange(true)) {
        if (CVTerminal *terminal = shownTerminal.load())
            terminal->restoreEcho();
        ::_exit(CVTerminalSignals::cancelledStatus);
    }
    const int saved = errno;
    const auto byte = static_cast<char>(signal);
    [[maybe_unused]] const auto n = ::write(pipeWriteEnd.load(), &byte, 1);
    errno = saved;
}

} // namespace

CVTerminalSignals::CVTerminalSignals(CVTerminal &terminal, Handler first)
    : m_first(std::move(first))
{
    shownTerminal.store(&terminal);
    hasBeenAsked.store(false);
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
        return; // without the pipe a signal simply ends the process
    m_readEnd = LXFileDescriptor(ends[0]);
    pipeWriteEnd.store(ends[1]);
    m_notifier = std::make_unique<QSocketNotifier>(ends[0], QSocketNotifier::Read);
    QObject::connect(m_notifier.get(), &QSocketNotifier::activated, m_notifier.get(), [this] { read(); });
    for (const int signal : caught) {
        struct sigaction current = {};
        ::sigaction(signal, nullptr, &current);
        // nohup and background jobs of simple shells ignore some of these, and mean it.
        if (current.sa_handler == SIG_IGN)
            continue;
        struct sigaction action = {};
        action.sa_handler = onSignal;
        action.sa_flags = SA_RESTART;
        ::sigemptyset(&action.sa_mask);
        ::sigaction(signal, &action, nullptr);
    }
}

CVTerminalSignals::~CVTerminalSignals()
{
    for (const int signal : caught) {
        struct sigaction current = {};
        ::sigaction(signal, nullptr, &current);
        if (current.sa_handler == onSignal)
            ::signal(signal, SIG_DFL);
    }
    shownTerminal.store(nullptr);
    // The write end stays open: a handler that runs at this moment must find a pipe, not a stranger's
    // descriptor of the same number.
}

void CVTerminalSignals::read()
{
    char byte = 0;
    while (::read(m_readEnd.get(), &byte, 1) == 1)
        m_first(byte);
}
