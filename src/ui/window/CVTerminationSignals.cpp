#include "ui/window/CVTerminationSignals.h"

#include "util/LXFileDescriptor.h"

#include <QSocketNotifier>

#include <csignal>
#include <cstdint>
#include <memory>

#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constexpr int watched[] = {SIGTERM, SIGINT, SIGHUP};

int wakeDescriptor = -1;
LXFileDescriptor wake;
std::unique_ptr<QSocketNotifier> notifier;

void setHandler(void (*handler)(int), int flags)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    for (const int number : watched)
        ::sigaction(number, &action, nullptr);
}

extern "C" void wakeMainThread(int)
{
    setHandler(SIG_DFL, 0); // whoever asks twice, by whichever of them, does not want to wait
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wakeDescriptor, &one, sizeof one);
}

} // namespace

CVTerminationSignals::CVTerminationSignals(std::function<void()> asked)
{
    wake = LXFileDescriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    wakeDescriptor = wake.get();
    notifier = std::make_unique<QSocketNotifier>(wakeDescriptor, QSocketNotifier::Read);
    QObject::connect(notifier.get(), &QSocketNotifier::activated, notifier.get(), [asked = std::move(asked)] {
        notifier->setEnabled(false);
        asked();
    });
    setHandler(&wakeMainThread, SA_RESTART);
}

CVTerminationSignals::~CVTerminationSignals()
{
    setHandler(SIG_DFL, 0);
    notifier.reset();
    wakeDescriptor = -1;
    wake = LXFileDescriptor();
}
