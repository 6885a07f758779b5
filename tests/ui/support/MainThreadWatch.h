#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

/// Measures how long the main thread keeps its events waiting: a thread sends it a beat every 5 ms, and the
/// longest time until one arrived is what a person could have waited for an answer. Main thread.
class MainThreadWatch
{
public:
    MainThreadWatch();
    ~MainThreadWatch();

    void reset();
    /// Handles what waits, so that a delay under way counts.
    double worstMilliseconds();

private:
    using Clock = std::chrono::steady_clock;
    struct Shared
    {
        std::atomic<bool> isOnWay = false;
        std::atomic<Clock::rep> sent = 0;
        std::atomic<Clock::rep> worst = 0;
    };
    std::shared_ptr<Shared> m_shared;
    std::mutex m_mutex;
    std::condition_variable_any m_pause;
    std::jthread m_thread;
};
