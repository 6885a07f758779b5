#include "jobs/CVBackEndRun.h"

#include "archives/CVArchive.h"
#include "util/LXLog.h"

#include <QLoggingCategory>

#include <exception>

namespace {

Q_LOGGING_CATEGORY(lcBackEnd, "corvane.jobs.backend")

} // namespace

std::int32_t CVBackEndRun::run(const std::shared_ptr<CVArchive> &archive, CVArchiveDelegate *delegate,
                               const QString &path, const std::stop_token &stop,
                               const std::function<void()> &open, const std::function<bool()> &hasBegun)
{
    {
        const std::lock_guard lock(m_mutex);
        m_outcome.reset();
        m_archive = archive;
    }
    archive->setDelegate(delegate);
    // A cancel that came before the archive was known here has not told it.
    if (stop.stop_requested()) {
        report(CVArchive::Cancelled);
    } else {
        try {
            open();
        } catch (const std::exception &e) {
            LX_WARNING(lcBackEnd, "%s while opening %s", e.what(), qUtf8Printable(path));
            report(CVArchive::InvalidFile);
        }
    }
    std::unique_lock lock(m_mutex);
    // Where the file was gone when the back end looked, it has not begun and reports nothing; by now the file
    // may be there again, so what counts is whether it has taken the path.
    if (!m_outcome && !hasBegun())
        m_outcome = CVArchive::InvalidFile;
    // Back ends with a thread of their own report later.
    m_changed.wait(lock, stop, [this] { return m_outcome.has_value(); });
    const std::int32_t status = m_outcome.value_or(CVArchive::Cancelled);
    m_outcome = status;
    m_archive.reset();
    lock.unlock();
    archive->setDelegate(nullptr);
    return status;
}

void CVBackEndRun::report(std::int32_t status)
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_outcome)
            return;
        m_outcome = status;
    }
    m_changed.notify_all();
}

void CVBackEndRun::cancel()
{
    std::shared_ptr<CVArchive> archive;
    {
        const std::lock_guard lock(m_mutex);
        archive = m_archive;
    }
    if (archive)
        archive->cancelExtract();
}
