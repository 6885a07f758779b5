#include "util/LXReleaseInBackground.h"

#include "util/LXBackground.h"

#include <QFile>

#include <mutex>

#include <malloc.h>
#include <unistd.h>

namespace {

// Less than that is soon used again.
constexpr std::size_t muchMemory = 48U << 20U;
// A process that is no larger has nothing to give back.
constexpr qint64 usualMemory = 128LL << 20U;

qint64 residentBytes()
{
    QFile file(QStringLiteral("/proc/self/statm"));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return file.readAll().split(' ').value(1).toLongLong() * ::sysconf(_SC_PAGESIZE);
}

} // namespace

void releaseInBackground(std::shared_ptr<const void> thing)
{
    if (!thing)
        return;
    runInBackground([held = std::move(thing)]() mutable {
        // Whoever has held it longest frees it, so each of them looks whether there is much now.
        held.reset();
        giveBackFreedMemory();
    });
}

void giveBackFreedMemory()
{
    // The question itself holds up others who want memory.
    if (residentBytes() <= usualMemory)
        return;
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    if (::mallinfo2().fordblks > muchMemory)
        ::malloc_trim(0);
}
