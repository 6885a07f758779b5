#include "util/LXProgressRate.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr auto window = std::chrono::milliseconds(500);
constexpr double weightOfNewest = 0.3;
// The first second is spent on opening files and filling caches; a forecast from it is a guess.
constexpr int windowsForForecast = 4;
// Packers write in bursts, some with ten seconds in between, so a forecast looks further back than a speed.
constexpr double forecastMemory = 15; // seconds until a window counts for a third
constexpr double longestStandstill = 30;
constexpr double longestForecast = 100.0 * 3600;

// Jobs that pack count in halves or thirds, each of work that has a speed of its own.
int stageOf(double done, double total, LXProgressUnit unit)
{
    if (unit == LXProgressUnit::Bytes)
        return 0;
    const double share = total > 0 ? done / total : 0;
    return share < 1.0 / 3 ? 0 : share < 1.0 / 2 ? 1 : share < 2.0 / 3 ? 2 : 3;
}

} // namespace

void LXProgressRate::restart(Clock::time_point now)
{
    m_stage = 0;
    m_done = 0;
    m_total = 0;
    measureFrom(0, now);
}

void LXProgressRate::resume(Clock::time_point now)
{
    m_windowStart = now;
    m_windowDone = m_done;
}

void LXProgressRate::measureFrom(double done, Clock::time_point now)
{
    m_rate = 0;
    m_windows = 0;
    m_recentDone = m_recentSeconds = m_secondsStill = 0;
    m_windowStart = now;
    m_windowDone = done;
}

void LXProgressRate::update(double done, double total, LXProgressUnit unit, Clock::time_point now)
{
    const int stage = stageOf(done, total, unit);
    // One half may count files and the other bytes.
    if (unit == LXProgressUnit::Share) {
        done = total > 0 ? done / total : 0;
        total = total > 0 ? 1 : 0;
    }
    if (done < m_done || stage != m_stage)
        measureFrom(done, now);
    m_stage = stage;
    m_done = done;
    m_total = total;
    const auto elapsed = now - m_windowStart;
    if (elapsed < window)
        return;
    const double seconds = std::chrono::duration<double>(elapsed).count();
    const double recent = (done - m_windowDone) / seconds;
    m_rate = m_rate > 0 ? (1 - weightOfNewest) * m_rate + weightOfNewest * recent : recent;
    ++m_windows;
    const double kept = std::exp(-seconds / forecastMemory);
    m_recentDone = m_recentDone * kept + (done - m_windowDone);
    m_recentSeconds = m_recentSeconds * kept + seconds;
    m_secondsStill = recent > 0 ? 0 : m_secondsStill + seconds;
    m_windowStart = now;
    m_windowDone = done;
}

std::optional<double> LXProgressRate::secondsLeft() const
{
    if (m_windows < windowsForForecast || m_total <= 0 || m_recentDone <= 0 ||
        m_secondsStill >= longestStandstill)
        return std::nullopt;
    const double seconds = std::max(m_total - m_done, 0.0) * m_recentSeconds / m_recentDone;
    if (seconds >= longestForecast)
        return std::nullopt;
    return seconds;
}
