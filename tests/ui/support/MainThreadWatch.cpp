#include "ui/support/MainThreadWatch.h"

#include "util/LXFileDescriptor.h"
#include "util/LXMainThread.h"

#include <QByteArray>
#include <QCoreApplication>

#include <algorithm>
#include <array>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr auto beatPause = std::chrono::milliseconds(1);

// How long the thread has been ready to go on and had no processor.
std::chrono::nanoseconds queuedTime(int scheduleFile)
{
    std::array<char, 128> text{};
    if (::pread(scheduleFile, text.data(), text.size() - 1, 0) <= 0)
        return {};
    return std::chrono::nanoseconds(QByteArray(text.data()).split(' ').value(1).toLongLong());
}

double inMilliseconds(std::chrono::nanoseconds time)
{
    return std::chrono::duration<double, std::milli>(time).count();
}

} // namespace

MainThreadWatch::MainThreadWatch()
    : m_shared(std::make_shared<Shared>())
{
    const QByteArray path = "/proc/self/task/" + QByteArray::number(::gettid()) + "/schedstat";
    const auto schedule = std::make_shared<LXFileDescriptor>(::open(path.constData(), O_RDONLY | O_CLOEXEC));
    m_thread = std::jthread([shared = m_shared, schedule](const std::stop_token &stop) {
        std::unique_lock lock(shared->mutex);
        while (!stop.stop_requested()) {
            if (!shared->isOnWay) {
                shared->isOnWay = true;
                shared->sent = Clock::now();
                shared->queuedWhenSent = queuedTime(schedule->get());
                LXMainThread::post([shared, schedule] {
                    const std::lock_guard arrival(shared->mutex);
                    shared->isOnWay = false;
                    const double took = inMilliseconds(Clock::now() - shared->sent);
                    const auto queued = queuedTime(schedule->get()) - shared->queuedWhenSent;
                    Stall &worst = shared->worst;
                    worst.milliseconds = std::max(worst.milliseconds, took);
                    worst.own = std::max(worst.own, took - inMilliseconds(queued));
                });
            }
            shared->change.wait_for(lock, stop, beatPause, [] { return false; });
        }
    });
}

MainThreadWatch::~MainThreadWatch()
{
    m_thread.request_stop();
    m_thread.join();
}

void MainThreadWatch::reset()
{
    QCoreApplication::processEvents();
    const std::lock_guard lock(m_shared->mutex);
    m_shared->worst = {};
}

MainThreadWatch::Stall MainThreadWatch::worst()
{
    QCoreApplication::processEvents();
    const std::lock_guard lock(m_shared->mutex);
    return m_shared->worst;
}
