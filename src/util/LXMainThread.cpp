#include "util/LXMainThread.h"

#include "util/LXFileDescriptor.h"

#include <QSocketNotifier>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include <sys/eventfd.h>

namespace {

// A queue of our own with an eventfd to wake the loop: posted calls keep their order whatever
// objects live where, and the thread sanitizer sees both ends of the hand-over.
struct Hop
{
    std::mutex mutex;
    std::deque<std::function<void()>> calls;
    LXFileDescriptor wake;
    std::unique_ptr<QSocketNotifier> notifier;
    std::thread::id thread;
};

Hop &hop()
{
    static Hop instance;
    return instance;
}

void runPosted()
{
    std::uint64_t count = 0;
    [[maybe_unused]] const auto n = ::read(hop().wake.get(), &count, sizeof count);
    std::deque<std::function<void()>> calls;
    {
        const std::lock_guard lock(hop().mutex);
        calls.swap(hop().calls);
    }
    for (auto &call : calls)
        call();
}

} // namespace

namespace LXMainThread {

void install()
{
    Hop &h = hop();
    if (!h.wake.isOpen())
        h.wake = LXFileDescriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    {
        const std::lock_guard lock(h.mutex);
        h.thread = std::this_thread::get_id();
    }
    h.notifier = std::make_unique<QSocketNotifier>(h.wake.get(), QSocketNotifier::Read);
    QObject::connect(h.notifier.get(), &QSocketNotifier::activated, h.notifier.get(), [] { runPosted(); });
}

bool isCurrent()
{
    const std::lock_guard lock(hop().mutex);
    return hop().thread == std::this_thread::get_id();
}

void post(std::function<void()> f)
{
    Hop &h = hop();
    {
        const std::lock_guard lock(h.mutex);
        h.calls.push_back(std::move(f));
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto n = ::write(h.wake.get(), &one, sizeof one);
}

void wait(const std::function<void()> &f)
{
    if (isCurrent()) {
        f();
        return;
    }
    struct Done
    {
        std::mutex mutex;
        std::condition_variable changed;
        bool done = false;
    };
    const auto done = std::make_shared<Done>();
    post([done, &f] {
        f();
        {
            const std::lock_guard lock(done->mutex);
            done->done = true;
        }
        done->changed.notify_all();
    });
    std::unique_lock lock(done->mutex);
    done->changed.wait(lock, [&] { return done->done; });
}

} // namespace LXMainThread
