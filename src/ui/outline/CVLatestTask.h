#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stop_token>
#include <thread>

/// One thread with one task: a new one stops and replaces the one before. What a task gives for the main
/// thread is dropped when another task was started meanwhile, or this is gone. Main thread; going away waits
/// for nothing: a task that was told to stop ends by itself, and must not need what goes away.
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
    /// What the thread needs, for it may outlive this.
    struct State;
    static void run(const std::shared_ptr<State> &state, const std::stop_token &stop);

    /// Read and written on the main thread only; null once this is gone.
    std::shared_ptr<CVLatestTask *> m_alive;
    std::shared_ptr<State> m_state;
    std::jthread m_thread; ///< from the first task on
};
