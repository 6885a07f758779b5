#pragma once

#include <memory>
#include <mutex>
#include <utility>

/// The one service of a kind that everybody uses, and that a test may replace. Any thread.
template <typename Service> class LXSharedService
{
public:
    /// The service; made by `fallback` where none was set.
    template <typename Fallback> std::shared_ptr<Service> get(Fallback fallback)
    {
        const std::lock_guard lock(m_mutex);
        if (!m_service)
            m_service = fallback();
        return m_service;
    }

    void set(std::shared_ptr<Service> service)
    {
        const std::lock_guard lock(m_mutex);
        m_service.swap(service);
    }

private:
    std::mutex m_mutex;
    std::shared_ptr<Service> m_service;
};
