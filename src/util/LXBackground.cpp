#include "util/LXBackground.h"

#include <QCoreApplication>
#include <QThreadPool>

#include <utility>

namespace {

// Much of it waits for a disk.
constexpr int threads = 4;

QThreadPool &pool()
{
    static QThreadPool shared;
    static const bool isSetUp = [] {
        shared.setMaxThreadCount(threads);
        // Before what the tasks use is taken down.
        qAddPostRoutine(waitForBackground);
        return true;
    }();
    Q_UNUSED(isSetUp);
    return shared;
}

} // namespace

void runInBackground(std::function<void()> task)
{
    pool().start(std::move(task));
}

void waitForBackground()
{
    pool().waitForDone();
}
