#pragma once

#include "archives/LXTask.h"

#include <QString>

#include <cstdint>
#include <memory>

/// Told about a task. Called on the main thread, in order.
class LXTaskDelegate
{
public:
    virtual ~LXTaskDelegate() = default;

    /// One piece between line breaks of what arrived at once, without its newline. A line may come in two
    /// pieces, and pieces may be empty.
    virtual void taskHasOutputAvailable(LXTask &task, const QString &line) = 0;
    /// Once, after the last output. Exit status or signal number.
    virtual void taskHasCompletedWithStatus(LXTask &task, std::int32_t status) = 0;
};

/// Runs a configured task and tells its delegate on the main thread what it prints and when it has ended.
/// Ownership: task and delegate are kept until the completion has been told; a helper that is released
/// before its task has ended ends it, and nothing is told any more.
/// Thread: any, one at a time; the delegate hears everything on the main thread, where LXMainThread is
/// installed.
class LXTaskHelper
{
public:
    LXTaskHelper(std::shared_ptr<LXTaskDelegate> delegate, std::shared_ptr<LXTask> task);
    ~LXTaskHelper();
    LXTaskHelper(const LXTaskHelper &) = delete;
    LXTaskHelper &operator=(const LXTaskHelper &) = delete;

    /// Output and error of the child arrive mixed. It gets our environment, the task's over it, and
    /// NSUnbufferedIO=YES.
    void launchTask();

    /// As UTF-8; no newline is added.
    void sendInput(const QString &text);

    LXTask &task() const { return *m_task; }

private:
    struct Link;
    std::shared_ptr<Link> m_link;
    std::shared_ptr<LXTask> m_task;
};
