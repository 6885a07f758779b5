#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <stop_token>
#include <utility>

/// A question that a worker waits for and the main thread answers. The wait ends with the answer
/// or with the stop request, whichever comes first, so a closed window can never strand a job.
template <typename Answer> class LXPendingAnswer
{
public:
    /// Any thread. The first answer counts; later ones are ignored.
    void give(Answer answer)
    {
        {
            const std::lock_guard lock(m_mutex);
            if (m_answer)
                return;
            m_answer = std::move(answer);
        }
        m_changed.notify_all();
    }

    /// Worker thread. Empty when stopped before an answer came.
    std::optional<Answer> wait(std::stop_token stop)
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, stop, [this] { return m_answer.has_value(); });
        return m_answer;
    }

private:
    std::mutex m_mutex;
    std::condition_variable_any m_changed;
    std::optional<Answer> m_answer;
};
