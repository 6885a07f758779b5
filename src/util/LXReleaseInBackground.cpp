#include "util/LXReleaseInBackground.h"

#include <QThreadPool>

#include <mutex>

#include <malloc.h>

namespace {

// Less than that is soon used again.
constexpr std::size_t muchMemory = 48U << 20U;

} // namespace

void releaseInBackground(std::shared_ptr<const void> thing)
{
    if (!thing)
        return;
    QThreadPool::globalInstance()->start([held = std::move(thing)]() mutable {
        // Whoever has held it longest frees it, so each of them looks whether there is much now.
        held.reset();
        giveBackFreedMemory();
    });
}

void giveBackFreedMemory()
{
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    if (::mallinfo2().fordblks > muchMemory)
        ::malloc_trim(0);
}
