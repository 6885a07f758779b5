#pragma once

#include <QString>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>

class CVArchive;
class CVArchiveDelegate;

/// Lets one back end at a time work and waits for its end, of which the first report counts.
class CVBackEndRun
{
public:
    /// Worker thread. `open` starts the back end on the archive at `path`; the answer is how it ended,
    /// Cancelled when `stop` was requested first; `hasBegun` tells whether it was started at all. The
    /// delegate is the archive's until then.
    std::int32_t run(const std::shared_ptr<CVArchive> &archive, CVArchiveDelegate *delegate,
                     const QString &path, const std::stop_token &stop, const std::function<void()> &open,
                     const std::function<bool()> &hasBegun);

    /// Any thread: what the delegate hears of the end, as a CVArchive::Status.
    void report(std::int32_t status);

    /// Any thread, after `stop` was requested: the back end that works is told.
    void cancel();

private:
    std::mutex m_mutex; ///< guards what follows
    std::condition_variable_any m_changed;
    std::shared_ptr<CVArchive> m_archive; ///< at work
    std::optional<std::int32_t> m_outcome;
};
