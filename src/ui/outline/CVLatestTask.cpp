#include "ui/outline/CVLatestTask.h"

#include "util/LXMainThread.h"
#include "util/LXReleaseInBackground.h"

#include <condition_variable>
#include <mutex>
#include <utility>

struct CVLatestTask::State
{
    std::shared_ptr<CVLatestTask *> owner;
    std::mutex mutex; // what follows
    std::condition_variable_any wake;
    std::condition_variable idle;
    std::stop_source current;
    Task task;
    std::uint64_t generation = 0;
    bool isWorking = false;

    bool isCurrent(std::uint64_t asked)
    {
        const std::lock_guard lock(mutex);
        return asked == generation;
    }
};

CVLatestTask::CVLatestTask()
    : m_alive(std::make_shared<CVLatestTask *>(this))
    , m_state(std::make_shared<State>())
{
    m_state->owner = m_alive;
}

CVLatestTask::~CVLatestTask()
{
    cancel();
    *m_alive = nullptr;
    if (!m_thread.joinable())
        return;
    // Even a task that looks for a stop every few microseconds may have to wait for a processor.
    m_thread.request_stop();
    releaseInBackground(std::make_shared<std::jthread>(std::move(m_thread)));
}

void CVLatestTask::start(Task task)
{
    {
        const std::lock_guard lock(m_state->mutex);
        m_state->current.request_stop();
        m_state->current = std::stop_source();
        m_state->task = std::move(task);
        ++m_state->generation;
    }
    if (m_thread.joinable())
        m_state->wake.notify_one();
    else
        m_thread = std::jthread([state = m_state](const std::stop_token &stop) { run(state, stop); });
}

void CVLatestTask::cancel()
{
    const std::lock_guard lock(m_state->mutex);
    m_state->current.request_stop();
    m_state->task = nullptr;
    ++m_state->generation;
}

void CVLatestTask::cancelAndWait()
{
    cancel();
    std::unique_lock lock(m_state->mutex);
    m_state->idle.wait(lock, [this] { return !m_state->isWorking; });
}

void CVLatestTask::run(const std::shared_ptr<State> &state, const std::stop_token &stop)
{
    for (;;) {
        Task task;
        std::stop_token taskStop;
        std::uint64_t generation = 0;
        {
            std::unique_lock lock(state->mutex);
            if (!state->wake.wait(lock, stop, [&] { return static_cast<bool>(state->task); }))
                return;
            task = std::exchange(state->task, nullptr);
            taskStop = state->current.get_token();
            generation = state->generation;
            state->isWorking = true;
        }
        Done done = task(taskStop);
        task = nullptr;
        {
            const std::lock_guard lock(state->mutex);
            state->isWorking = false;
        }
        state->idle.notify_all();
        if (!done || taskStop.stop_requested())
            continue;
        LXMainThread::post([state, generation, done = std::move(done)] {
            if (*state->owner && state->isCurrent(generation))
                done();
        });
    }
}
