#include "archives/reading/cage/CVReaderWatch.h"

#include <cstdio>
#include <ctime>

namespace {

using namespace std::chrono_literals;

constexpr auto timeBetweenLooks = 100ms;
// Whatever watches every access to memory takes its time.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int patience = 10;
#else
constexpr int patience = 1;
#endif

} // namespace

std::chrono::nanoseconds CVReaderWatch::processorTime() const
{
    clockid_t clock = 0;
    timespec time = {};
    if (m_process <= 0 || ::clock_getcpuclockid(m_process, &clock) != 0 || ::clock_gettime(clock, &time) != 0)
        return 0ns;
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

bool CVReaderWatch::sleeps() const
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/stat", int(m_process));
    char state = 0;
    if (FILE *const file = std::fopen(path, "re")) {
        if (std::fscanf(file, "%*d (%*[^)]) %c", &state) != 1)
            state = 0;
        std::fclose(file);
    }
    return state == 'S'; // not for a disk, and not for a processor that is busy with others
}

void CVReaderWatch::excuse()
{
    m_isStarted = false;
}

bool CVReaderWatch::isAlive(std::uint64_t signs, std::uint32_t ticks)
{
    const Clock::time_point now = Clock::now();
    if (m_isStarted && now < m_nextLook)
        return true;
    m_nextLook = now + timeBetweenLooks;
    const std::chrono::nanoseconds processor = processorTime();
    if (!m_isStarted || signs != m_signs)
        m_processorAtResult = processor;
    if (!m_isStarted || signs != m_signs || ticks != m_ticks) {
        m_processorAtSign = processor;
        m_timeAtSign = now;
        m_isStarted = true;
        m_signs = signs;
        m_ticks = ticks;
    }
    if (processor - m_processorAtSign > patience * m_limits.processor ||
        processor - m_processorAtResult > patience * m_limits.withoutResult)
        return false;
    const auto since = now - m_timeAtSign;
    return since < patience * m_limits.idle || (processor - m_processorAtSign) * 4 > since || !sleeps();
}
