#pragma once

#include <chrono>
#include <optional>

/// What the numbers of a job's progress count. Only bytes say anything to people as they are; a job that
/// counts files, or thirds of its work, can show no more than its share.
enum class LXProgressUnit { Bytes, Share };

/// How fast a job goes and how long it will still take, smoothed. Measured in windows of half a second, so
/// that neither a burst nor the frequency of the reports shows. Not thread-safe.
class LXProgressRate
{
public:
    using Clock = std::chrono::steady_clock;

    /// Forgets everything: another job, another archive.
    void restart(Clock::time_point now);
    /// The time since the last report does not count (somebody was asked something). What is known stays.
    void resume(Clock::time_point now);
    /// To be called while nothing comes in as well, with the old numbers: a job that stands still loses
    /// speed. Numbers that go back, and another stage of a job that counts shares, begin a new measurement.
    void update(double done, double total, LXProgressUnit unit, Clock::time_point now);

    /// Bytes a second, or the share of the whole; 0 when not known yet.
    double perSecond() const { return m_rate; }
    /// From the mean of the last quarter of a minute, the pauses included. Nothing in the first seconds, for
    /// a job that has stood still for long, and for what nobody wants to wait for.
    std::optional<double> secondsLeft() const;

private:
    void measureFrom(double done, Clock::time_point now);

    double m_rate = 0;
    int m_windows = 0;          ///< measured so far
    double m_recentDone = 0;    ///< in the last windows, the older the less
    double m_recentSeconds = 0; ///< of those windows
    double m_secondsStill = 0;  ///< since something was done
    int m_stage = 0;
    double m_done = 0;
    double m_total = 0;
    Clock::time_point m_windowStart{};
    double m_windowDone = 0;
};
