#include "platform/desktop/LXDetached.h"

#include <QCoreApplication>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

namespace {

struct Running
{
    std::mutex mutex;
    std::condition_variable ended;
    int count = 0;
    bool isWaitedFor = false;
};

/// Shared with the threads, which may outlive everything else.
const std::shared_ptr<Running> &running()
{
    static const auto instance = std::make_shared<Running>();
    return instance;
}

void waitAtEnd()
{
    const std::shared_ptr<Running> state = running();
    std::unique_lock lock(state->mutex);
    state->ended.wait_for(lock, std::chrono::seconds(1), [&] { return state->count == 0; });
}

} // namespace

void LXDetached::run(std::function<void()> f)
{
    const std::shared_ptr<Running> state = running();
    {
        const std::lock_guard lock(state->mutex);
        ++state->count;
        if (!std::exchange(state->isWaitedFor, true))
            qAddPostRoutine(waitAtEnd);
    }
    const auto ended = [state] {
        {
            const std::lock_guard lock(state->mutex);
            --state->count;
        }
        state->ended.notify_all();
    };
    try {
        std::thread([f = std::move(f), ended] {
            f();
            ended();
        }).detach();
    } catch (const std::system_error &) {
        // No more threads: what was asked for is a convenience.
        ended();
    }
}
