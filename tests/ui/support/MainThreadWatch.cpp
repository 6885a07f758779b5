#include "ui/support/MainThreadWatch.h"

#include "util/LXFileDescriptor.h"
#include "util/LXMainThread.h"

#include <QByteArray>
#include <QCoreApplication>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <mutex>

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
    // No lock is shared with the main thread: it would wait for it while this thread has no processor.
    m_thread = std::jthread([shared = m_shared, schedule](const std::stop_token &stop) {
        std::mutex mutex;
        std::condition_variable_any pause;
        std::unique_lock lock(mutex);
        while (!stop.stop_requested()) {
            if (!shared->isOnWay.exchange(true)) {
                LXMainThread::post(
                    [shared, schedule, sent = Clock::now(), queued = queuedTime(schedule->get())] {
                        const double took = inMilliseconds(Clock::now() - sent);
                        const double waited = inMilliseconds(queuedTime(schedule->get()) - queued);
                        shared->worst.milliseconds = std::max(shared->worst.milliseconds, took);
                        shared->worst.own = std::max(shared->worst.own, took - waited);
                        shared->isOnWay = false;
                    });
            }
            pause.wait_for(lock, stop, beatPause, [] { return false; });
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
    m_shared->worst = {};
}

MainThreadWatch::Stall MainThreadWatch::worst()
{
    QCoreApplication::processEvents();
    return m_shared->worst;
}
