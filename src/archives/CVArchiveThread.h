#pragma once

#include <functional>
#include <memory>
#include <thread>

class CVArchive;

/// The thread that an archive writes on. It holds the archive while it works, so the archive goes after the
/// work or at its very end, on that thread; both are provided for.
class CVArchiveThread
{
public:
    CVArchiveThread() = default;
    ~CVArchiveThread();
    CVArchiveThread(const CVArchiveThread &) = delete;
    CVArchiveThread &operator=(const CVArchiveThread &) = delete;

    /// Once.
    void start(std::shared_ptr<CVArchive> archive, std::function<void()> work);
    bool isCurrent() const { return m_thread.get_id() == std::this_thread::get_id(); }

private:
    std::thread m_thread;
};
