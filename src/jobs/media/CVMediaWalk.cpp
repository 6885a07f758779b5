#include "jobs/media/CVMediaWalk.h"

#include "jobs/media/CVMediaChild.h"
#include "jobs/media/CVMediaPlan.h"
#include "jobs/media/CVMediaReplacement.h"
#include "util/LXFileName.h"
#include "util/LXRemoveTree.h"
#include "util/unique_string.h"

#include <QLoggingCategory>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include <fcntl.h>

Q_LOGGING_CATEGORY(lcMedia, "corvane.media")

namespace {

/// The planned jobs, handed out in order to as many threads as there are cores.
class Conversion
{
public:
    Conversion(const CVMediaWalk &walk, const CVMediaPlan &plan, int root)
        : m_walk(walk)
        , m_plan(plan)
        , m_root(root)
        , m_scratch(".corvane-media-" + uniqueString().toLatin1())
        , m_firstFailure(plan.jobs.size())
    {}

    CVMediaWalk::Result run();

private:
    void openFolders() const;
    void closeFolders() const;
    void work();
    CVMediaChild::Outcome convert(std::unique_ptr<CVMediaChild> &child, std::size_t number);
    void removeTemporary(const CVMediaChild::Job &job) const;

    const CVMediaWalk &m_walk;
    const CVMediaPlan &m_plan;
    const int m_root;
    const QByteArray m_scratch;
    int m_threads = 1;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::size_t m_next = 0;
    std::size_t m_done = 0;
    int m_working = 0;
    std::size_t m_firstFailure; ///< in the order of the walk; the number of jobs: none
    QString m_reason;
};

CVMediaWalk::Result Conversion::run()
{
    if (::mkdirat(m_root, m_scratch.constData(), 0700) != 0)
        return {false, {}, QString::fromLocal8Bit(std::strerror(errno))};
    openFolders();
    const unsigned cores = std::max(1U, std::thread::hardware_concurrency());
    m_working = static_cast<int>(std::min<std::size_t>(cores, m_plan.jobs.size()));
    m_threads = static_cast<int>(cores) / m_working;
    {
        std::vector<std::jthread> threads;
        for (int i = 0, count = m_working; i < count; ++i)
            threads.emplace_back([this] { work(); });
        std::unique_lock lock(m_mutex);
        for (std::size_t told = 0; told < m_done || m_working > 0;) {
            m_changed.wait(lock, [&] { return told < m_done || m_working == 0; });
            const std::size_t due = m_done - told;
            told = m_done;
            lock.unlock();
            for (std::size_t i = 0; i < due; ++i)
                m_walk.pathDone();
            lock.lock();
        }
    }
    if (const auto removed = removeTreeAt(m_root, m_scratch); !removed)
        qCWarning(lcMedia) << "the converters' folder stays behind:" << removed.error().reason;
    closeFolders();
    if (m_firstFailure == m_plan.jobs.size())
        return {};
    const CVMediaPlan::Job &failed = m_plan.jobs[m_firstFailure];
    const QByteArray path = CVMediaPlan::pathOf(m_plan.folders[failed.folder].path, failed.source);
    return {false, fileNameFromBytes(path), m_reason};
}

/// A folder that its owner made read-only is still ours to put new files into.
void Conversion::openFolders() const
{
    for (const CVMediaPlan::Folder &folder : m_plan.folders)
        if ((folder.facts.st_mode & 0300) != 0300)
            ::fchmod(CVMediaReplacement::openFolder(m_root, folder.path).get(),
                     (folder.facts.st_mode & 07777) | 0300);
}

/// New files are no news about a folder: it keeps its time, as the files do.
void Conversion::closeFolders() const
{
    for (const CVMediaPlan::Folder &folder : m_plan.folders) {
        const LXFileDescriptor there = CVMediaReplacement::openFolder(m_root, folder.path);
        if ((folder.facts.st_mode & 0300) != 0300)
            ::fchmod(there.get(), folder.facts.st_mode & 07777);
        const timespec times[2] = {folder.facts.st_atim, folder.facts.st_mtim};
        ::futimens(there.get(), times);
    }
}

void Conversion::work()
{
    std::unique_ptr<CVMediaChild> child; // started here, because it ends with the thread that started it
    std::unique_lock lock(m_mutex);
    while (m_next < m_plan.jobs.size() && m_firstFailure == m_plan.jobs.size() &&
           !m_walk.stop.stop_requested()) {
        const std::size_t number = m_next++;
        lock.unlock();
        const CVMediaChild::Outcome outcome = convert(child, number);
        lock.lock();
        if (outcome.kind == CVMediaChild::Outcome::Kind::Done) {
            ++m_done;
            m_changed.notify_all();
        } else if (outcome.kind == CVMediaChild::Outcome::Kind::Failed && number < m_firstFailure) {
            m_firstFailure = number;
            m_reason = outcome.reason;
        }
    }
    lock.unlock();
    if (child)
        child->finish(m_walk.stop);
    child.reset();
    lock.lock();
    --m_working;
    m_changed.notify_all();
}

CVMediaChild::Outcome Conversion::convert(std::unique_ptr<CVMediaChild> &child, std::size_t number)
{
    using Outcome = CVMediaChild::Outcome;
    if (!child) {
        auto started = CVMediaChild::start(
            {.folder = m_root, .scratch = m_scratch, .threads = m_threads, .patience = m_walk.patience});
        if (!started)
            return {Outcome::Kind::Failed, started.error().description + u' ' + started.error().reason};
        child = std::move(started).value();
    }
    const CVMediaPlan::Job &planned = m_plan.jobs[number];
    const CVMediaChild::Job job{
        .isSound = planned.isSound,
        .type = planned.isSound ? m_walk.audioFileFormat : m_walk.imageFileFormat,
        .folder = m_plan.folders[planned.folder].path,
        .source = planned.source,
        .target = planned.target,
        .temporary = m_scratch + '.' + QByteArray::number(static_cast<qulonglong>(number)),
    };
    Outcome outcome = child->convert(job, m_walk.stop);
    if (!child->isAlive()) {
        child.reset();
        removeTemporary(job); // it could not do so itself any more
    }
    return outcome;
}

void Conversion::removeTemporary(const CVMediaChild::Job &job) const
{
    const LXFileDescriptor folder = CVMediaReplacement::openFolder(m_root, job.folder);
    if (folder.isOpen())
        ::unlinkat(folder.get(), job.temporary.constData(), 0);
}

} // namespace

CVMediaWalk::Result CVMediaWalk::run()
{
    const QByteArray path = bytesOfFileName(folder);
    const LXFileDescriptor root(::open(path.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root.isOpen())
        return {false, {}, QString::fromLocal8Bit(std::strerror(errno))};
    const CVMediaPlan plan = CVMediaPlan::make(root.get(), imageFileFormat, audioFileFormat, stop);
    const auto atOnce = plan.paths - static_cast<qint64>(plan.jobs.size());
    for (qint64 i = 0; i < atOnce && !stop.stop_requested(); ++i)
        pathDone();
    if (plan.jobs.empty() || stop.stop_requested())
        return {};
    return Conversion(*this, plan, root.get()).run();
}
