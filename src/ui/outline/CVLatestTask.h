#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>
#include <thread>

/// One thread with one task: a new one stops and replaces the one before. What a task gives for the main
/// thread is dropped when another task was started meanwhile, or this is gone. Main thread; going away waits
/// for a task that was told to stop.
class CVLatestTask
{
public:
    using Done = std::function<void()>;
    /// Runs on the thread; returns what to do on the main thread, empty when stopped.
    using Task = std::function<Done(std::stop_token)>;

    CVLatestTask();
    ~CVLatestTask();
    CVLatestTask(const CVLatestTask &) = delete;
    CVLatestTask &operator=(const CVLatestTask &) = delete;

    void start(Task task);
    void cancel();
    void cancelAndWait();

private:
    void run(const std::stop_token &stop);
    bool isCurrent(std::uint64_t generation);

    /// Read and written on the main thread only; null once this is gone.
    std::shared_ptr<CVLatestTask *> m_alive;
    std::mutex m_mutex; // what follows
    std::condition_variable_any m_wake;
    std::condition_variable m_idle;
    std::stop_source m_current;
    Task m_task;
    std::uint64_t m_generation = 0;
    bool m_isWorking = false;
    std::jthread m_thread;
};
