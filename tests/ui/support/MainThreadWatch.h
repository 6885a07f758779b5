#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

/// Measures how long the main thread keeps its events waiting: a thread sends it a beat every millisecond,
/// and the longest time until one arrived is what a person could have waited for an answer. Main thread.
class MainThreadWatch
{
public:
    struct Stall
    {
        double milliseconds = 0;
        /// The longest without the time in which others had the processors that the thread wanted.
        double own = 0;
    };

    MainThreadWatch();
    ~MainThreadWatch();

    void reset();
    /// Handles what waits, so that a delay under way counts.
    Stall worst();
    double worstMilliseconds() { return worst().milliseconds; }

private:
    using Clock = std::chrono::steady_clock;
    struct Shared
    {
        std::atomic<bool> isOnWay = false;
        Stall worst; ///< of the main thread
    };
    std::shared_ptr<Shared> m_shared;
    std::jthread m_thread;
};
