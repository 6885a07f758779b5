#include "engine/model/CVOperationQueue.h"

#include "engine/model/CVOperation.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

struct CVOperationQueue::State
{
    struct Running
    {
        std::shared_ptr<CVOperation> operation;
        bool hasPlace;
    };

    mutable std::mutex mutex; // guards everything below
    std::condition_variable changed;
    std::deque<std::shared_ptr<CVOperation>> waiting;
    std::deque<std::shared_ptr<CVOperation>> cancelled; // were waiting; need no place to end
    std::vector<Running> running;
    std::vector<std::thread> threads;
    std::size_t places = 1;
    std::size_t taken = 0;
    std::size_t idle = 0;
    bool down = false;

    std::size_t freePlaces() const { return places > taken ? places - taken : 0; }
    bool hasWork() const { return !cancelled.empty() || (!waiting.empty() && freePlaces() > 0); }
    bool isEmpty() const { return waiting.empty() && cancelled.empty() && running.empty(); }

    void work();
    void wakeWorkers();
    void leave(const CVOperation &operation);
    void moveCancelled(const CVOperation &operation);
};

void CVOperationQueue::State::work()
{
    std::unique_lock lock(mutex);
    for (;;) {
        ++idle;
        changed.wait(lock, [this] { return hasWork() || (down && isEmpty()); });
        --idle;
        if (!hasWork())
            return;
        const bool needsPlace = cancelled.empty();
        auto &list = needsPlace ? waiting : cancelled;
        auto operation = std::move(list.front());
        list.pop_front();
        taken += needsPlace ? 1 : 0;
        running.push_back({operation, needsPlace});
        lock.unlock();
        operation->run();
        operation.reset();
        lock.lock();
    }
}

// With the mutex held. A thread that has been woken but not yet run still counts as idle, and what it
// will take still counts as work, so the two agree.
void CVOperationQueue::State::wakeWorkers()
{
    // One thread ends any number of cancelled jobs quickly enough.
    const std::size_t needed =
        std::min(waiting.size(), freePlaces()) + std::min<std::size_t>(cancelled.size(), 1);
    for (std::size_t available = idle; available < needed; ++available)
        threads.emplace_back([this] { work(); });
    changed.notify_all();
}

void CVOperationQueue::State::leave(const CVOperation &operation)
{
    // Released after the lock: the last owner's destructor may call back into the queue.
    std::shared_ptr<CVOperation> released;
    const std::lock_guard lock(mutex);
    const auto found = std::ranges::find_if(
        running, [&](const Running &candidate) { return candidate.operation.get() == &operation; });
    if (found == running.end())
        return;
    taken -= found->hasPlace ? 1 : 0;
    released = std::move(found->operation);
    running.erase(found);
    wakeWorkers();
}

void CVOperationQueue::State::moveCancelled(const CVOperation &operation)
{
    const std::lock_guard lock(mutex);
    const auto found = std::ranges::find(waiting, &operation, &std::shared_ptr<CVOperation>::get);
    if (found == waiting.end())
        return;
    cancelled.push_back(std::move(*found));
    waiting.erase(found);
    wakeWorkers();
}

CVOperationQueue::CVOperationQueue(int width)
    : d(std::make_shared<State>())
{
    setWidth(width);
}

CVOperationQueue::~CVOperationQueue()
{
    shutdown();
}

void CVOperationQueue::add(std::shared_ptr<CVOperation> operation)
{
    CVOperation &job = *operation;
    bool accepted = false;
    {
        const std::lock_guard lock(d->mutex);
        if (!d->down) {
            d->waiting.push_back(operation);
            accepted = true;
        }
    }
    if (!accepted) {
        job.cancel();
        job.run();
        return;
    }
    // Observed before a worker is woken for it, and after it waits, so that no end is missed.
    job.observeFinished([state = d](CVOperation &finished) { state->leave(finished); });
    job.observeCancelled([state = d](CVOperation &stopped) { state->moveCancelled(stopped); });
    const std::lock_guard lock(d->mutex);
    d->wakeWorkers();
}

void CVOperationQueue::setWidth(int width)
{
    const std::lock_guard lock(d->mutex);
    d->places = static_cast<std::size_t>(std::max(width, 1));
    d->wakeWorkers();
}

int CVOperationQueue::width() const
{
    const std::lock_guard lock(d->mutex);
    return static_cast<int>(d->places);
}

void CVOperationQueue::cancelAll()
{
    std::vector<std::shared_ptr<CVOperation>> all;
    {
        const std::lock_guard lock(d->mutex);
        for (const auto &entry : d->running)
            all.push_back(entry.operation);
        for (auto &waiting : d->waiting) {
            all.push_back(waiting);
            d->cancelled.push_back(std::move(waiting));
        }
        d->waiting.clear();
    }
    for (const auto &operation : all)
        operation->cancel();
    const std::lock_guard lock(d->mutex);
    d->wakeWorkers();
}

std::vector<std::shared_ptr<CVOperation>> CVOperationQueue::operations() const
{
    const std::lock_guard lock(d->mutex);
    std::vector<std::shared_ptr<CVOperation>> all;
    for (const auto &entry : d->running)
        all.push_back(entry.operation);
    all.insert(all.end(), d->cancelled.begin(), d->cancelled.end());
    all.insert(all.end(), d->waiting.begin(), d->waiting.end());
    return all;
}

void CVOperationQueue::waitUntilEmpty()
{
    std::unique_lock lock(d->mutex);
    d->changed.wait(lock, [this] { return d->isEmpty(); });
}

void CVOperationQueue::shutdown()
{
    {
        const std::lock_guard lock(d->mutex);
        d->down = true;
    }
    cancelAll();
    waitUntilEmpty();
    std::vector<std::thread> threads;
    {
        const std::lock_guard lock(d->mutex);
        threads.swap(d->threads);
        d->changed.notify_all();
    }
    for (std::thread &thread : threads)
        thread.join();
}
