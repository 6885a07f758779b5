#include "ui/outline/CVLatestTask.h"

#include "util/LXMainThread.h"

#include <utility>

CVLatestTask::CVLatestTask()
    : m_alive(std::make_shared<CVLatestTask *>(this))
    , m_thread([this](const std::stop_token &stop) { run(stop); })
{}

CVLatestTask::~CVLatestTask()
{
    cancel();
    *m_alive = nullptr;
}

void CVLatestTask::start(Task task)
{
    {
        const std::lock_guard lock(m_mutex);
        m_current.request_stop();
        m_current = std::stop_source();
        m_task = std::move(task);
        ++m_generation;
    }
    m_wake.notify_one();
}

void CVLatestTask::cancel()
{
    const std::lock_guard lock(m_mutex);
    m_current.request_stop();
    m_task = nullptr;
    ++m_generation;
}

void CVLatestTask::cancelAndWait()
{
    cancel();
    std::unique_lock lock(m_mutex);
    m_idle.wait(lock, [this] { return !m_isWorking; });
}

void CVLatestTask::run(const std::stop_token &stop)
{
    for (;;) {
        Task task;
        std::stop_token taskStop;
        std::uint64_t generation = 0;
        {
            std::unique_lock lock(m_mutex);
            if (!m_wake.wait(lock, stop, [this] { return static_cast<bool>(m_task); }))
                return;
            task = std::exchange(m_task, nullptr);
            taskStop = m_current.get_token();
            generation = m_generation;
            m_isWorking = true;
        }
        Done done = task(taskStop);
        task = nullptr;
        {
            const std::lock_guard lock(m_mutex);
            m_isWorking = false;
        }
        m_idle.notify_all();
        if (!done || taskStop.stop_requested())
            continue;
        LXMainThread::post([alive = m_alive, generation, done = std::move(done)] {
            CVLatestTask *self = *alive;
            if (self && self->isCurrent(generation))
                done();
        });
    }
}

bool CVLatestTask::isCurrent(std::uint64_t generation)
{
    const std::lock_guard lock(m_mutex);
    return generation == m_generation;
}
