#include "cli/CVTerminalSignals.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>

#include <fcntl.h>

namespace {

std::atomic<int> pipeWriteEnd = -1;

constexpr std::array caught = {SIGINT, SIGTERM, SIGHUP};

void onSignal(int signal)
{
    const int saved = errno;
    const auto byte = static_cast<char>(signal);
    [[maybe_unused]] const auto n = ::write(pipeWriteEnd.load(), &byte, 1);
    errno = saved;
}

} // namespace

CVTerminalSignals::CVTerminalSignals(Handler handler)
    : m_handler(std::move(handler))
{
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
    // The write end stays open: a handler that runs at this moment must find a pipe, not a stranger's
    // descriptor of the same number.
}

void CVTerminalSignals::read()
{
    char byte = 0;
    while (::read(m_readEnd.get(), &byte, 1) == 1)
        m_handler(byte);
}
