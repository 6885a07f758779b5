#pragma once

#include <memory>
#include <vector>

class CVOperation;

/// Runs jobs on threads of its own, at most width() at a time, in the order in which they were added.
///
/// A job counts as running until it is finished, which may be after its main() has returned. A job
/// cancelled while it waits leaves at once, whatever the width, and reports its cancellation on a
/// worker thread like any other end.
/// Thread: every function from any thread, but shutdown(), the destructor and waitUntilEmpty() not
/// from a job.
class CVOperationQueue
{
public:
    /// Widths below one count as one.
    explicit CVOperationQueue(int width = 1);
    /// shutdown().
    ~CVOperationQueue();
    CVOperationQueue(const CVOperationQueue &) = delete;
    CVOperationQueue &operator=(const CVOperationQueue &) = delete;

    /// A job is added once in its life. After shutdown() it ends as cancelled, on this thread.
    void add(std::shared_ptr<CVOperation> operation);

    /// Takes effect at once for waiting jobs; running ones go on.
    void setWidth(int width);
    int width() const;

    void cancelAll();
    /// Waiting and running jobs.
    std::vector<std::shared_ptr<CVOperation>> operations() const;
    /// Returns when nothing waits or runs.
    void waitUntilEmpty();

    /// Cancels everything, waits until every job is finished (a job that ends after its main() must
    /// finish when cancelled) and joins the threads. Idempotent.
    void shutdown();

private:
    struct State;
    std::shared_ptr<State> d; ///< shared with the jobs' observers, which may outlive the queue
};
