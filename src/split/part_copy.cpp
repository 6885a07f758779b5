#include "split/part_copy.h"

#include "split/block_copy.h"
#include "split/split_exceptions.h"

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include <linux/magic.h>
#include <sys/vfs.h>

namespace {

constexpr std::uint64_t blockBytes = 1 << 20;
// More would only wait for the memory.
constexpr unsigned mostThreads = 4;

class Copying
{
public:
    explicit Copying(const PartCopy &copy)
        : m_copy(copy)
        , m_parts(copy.inputBytes / copy.partBytes + (copy.inputBytes % copy.partBytes != 0 ? 1 : 0))
    {}

    void run()
    {
        const auto threads =
            static_cast<unsigned>(std::min<std::uint64_t>(std::max(1U, m_copy.threads), m_parts));
        if (threads <= 1) {
            work(m_copy.tell);
            return;
        }
        std::vector<std::jthread> workers;
        m_working = threads;
        try {
            for (unsigned i = 0; i < threads; ++i)
                workers.emplace_back([this] { workBeside(); });
        } catch (const std::system_error &) {
            // No further thread: those that there are do all the work.
            const std::lock_guard lock(m_mutex);
            m_working -= threads - static_cast<unsigned>(workers.size());
        }
        if (workers.empty()) {
            work(m_copy.tell);
            return;
        }
        try {
            tellUntilDone();
        } catch (...) {
            const std::lock_guard lock(m_mutex);
            m_failed = true; // they end with their block
            m_changed.notify_all();
            throw;
        }
        workers.clear();
        if (m_failure)
            std::rethrow_exception(m_failure);
    }

private:
    using Tell = std::function<void(std::uint64_t)>;

    void work(const Tell &tell)
    {
        BlockCopier copier(m_copy.input);
        while (!stopped()) {
            LXFileDescriptor part;
            std::uint64_t at = 0;
            {
                const std::lock_guard lock(m_partMutex);
                if (m_nextPart == m_parts)
                    return;
                at = m_nextPart * m_copy.partBytes;
                part = m_copy.newPart();
                ++m_nextPart;
            }
            const std::uint64_t size = std::min(m_copy.partBytes, m_copy.inputBytes - at);
            for (std::uint64_t done = 0; done < size && !stopped();) {
                const std::uint64_t wanted = std::min(blockBytes, size - done);
                const std::uint64_t copied = copier.copy(at + done, part.get(), done, wanted);
                tell(copied);
                if (copied < wanted)
                    throw FileSplitterIOException("The file became shorter while it was split");
                done += copied;
            }
            // Some file systems tell only here that the data did not fit.
            if (!part.reset())
                throw LXFileHandleException();
        }
    }

    void workBeside()
    {
        std::exception_ptr failure;
        try {
            work([this](std::uint64_t bytes) {
                // Not further ahead than a block: whoever hears of it may want it to stop.
                std::unique_lock lock(m_mutex);
                m_untold += bytes;
                m_changed.notify_all();
                m_changed.wait(lock, [this] { return m_untold == 0 || m_failed; });
            });
        } catch (...) {
            failure = std::current_exception();
        }
        const std::lock_guard lock(m_mutex);
        if (failure && !m_failure) {
            m_failure = failure;
            m_failed = true;
        }
        --m_working;
        m_changed.notify_all();
    }

    void tellUntilDone()
    {
        std::unique_lock lock(m_mutex);
        for (;;) {
            m_changed.wait(lock, [this] { return m_untold > 0 || m_working == 0; });
            if (m_untold == 0)
                return;
            const std::uint64_t bytes = std::exchange(m_untold, 0);
            m_changed.notify_all();
            lock.unlock();
            m_copy.tell(bytes);
            lock.lock();
        }
    }

    bool stopped() const { return m_copy.stop || m_failed; }

    const PartCopy &m_copy;
    const std::uint64_t m_parts;
    std::atomic<bool> m_failed = false;

    std::mutex m_partMutex; // what follows, and newPart()
    std::uint64_t m_nextPart = 0;

    std::mutex m_mutex; // what follows
    std::condition_variable m_changed;
    std::uint64_t m_untold = 0;
    unsigned m_working = 0;
    std::exception_ptr m_failure;
};

bool isInMemory(const struct statfs &facts)
{
    return facts.f_type == TMPFS_MAGIC || facts.f_type == RAMFS_MAGIC;
}

} // namespace

void copyParts(const PartCopy &copy)
{
    Copying(copy).run();
}

unsigned threadsToCopy(int fromFile, const char *toFolder)
{
    struct statfs from;
    struct statfs to;
    if (::fstatfs(fromFile, &from) != 0 || ::statfs(toFolder, &to) != 0 || !isInMemory(from) ||
        !isInMemory(to))
        return 1;
    return std::clamp(std::thread::hardware_concurrency(), 1U, mostThreads);
}
