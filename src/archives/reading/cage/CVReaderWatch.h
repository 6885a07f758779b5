#pragma once

#include <chrono>
#include <cstdint>

#include <sys/types.h>

/// Decides whether a reader still does something. A reader that works says so all the time: data comes,
/// entries, it gets further in the archive, or its engine looks for a stop. One that uses the processor for
/// long without any of that is caught in a circle, and one that sleeps, though nobody lets it wait, is stuck.
/// Thread: one.
class CVReaderWatch
{
public:
    struct Limits
    {
        /// Processor time without a sign. Keys made to be slow to guess, and blocks of the largest
        /// dictionaries, take seconds.
        std::chrono::milliseconds processor{18'000};
        /// Time without a sign for one that hardly uses the processor and does not wait for a disk.
        std::chrono::milliseconds idle{24'000};
        /// Processor time in which it only says that it lives: a small archive can unpack to so much that is
        /// passed over.
        std::chrono::milliseconds withoutResult{60'000};
    };
    CVReaderWatch()
        : CVReaderWatch(Limits{})
    {}
    explicit CVReaderWatch(Limits limits)
        : m_limits(limits)
    {}

    void setProcess(pid_t process) { m_process = process; }

    /// `signs`: changes with every result; `ticks`: with every sign of life.
    /// False: it has to be ended.
    bool isAlive(std::uint64_t signs, std::uint32_t ticks);
    /// It waited for us.
    void excuse();

private:
    using Clock = std::chrono::steady_clock;
    std::chrono::nanoseconds processorTime() const;
    bool sleeps() const;

    const Limits m_limits;
    pid_t m_process = -1;
    bool m_isStarted = false;
    std::uint64_t m_signs = 0;
    std::uint32_t m_ticks = 0;
    std::chrono::nanoseconds m_processorAtResult{0};
    std::chrono::nanoseconds m_processorAtSign{0};
    Clock::time_point m_timeAtSign;
    Clock::time_point m_nextLook;
};
