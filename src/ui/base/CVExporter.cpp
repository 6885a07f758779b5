#include "ui/base/CVExporter.h"

#include "util/LXDisplay.h"
#include "util/LXMainThread.h"
#include "util/path_parts.h"
#include "util/unique_destination.h"

#include <QCoreApplication>

#include <atomic>
#include <cerrno>

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("CVExporter", text);
}

LXError inWords(LXError error, const QString &path, const QString &folder)
{
    error.description = tr("“%1” was not moved.").arg(LXDisplay::displayName(path));
    const QString place = LXDisplay::displayName(folder);
    switch (error.code) {
    case EEXIST:
        error.reason = path == folder + u'/' + lastComponent(path)
                           ? tr("It is in “%1” already.").arg(place)
                           : tr("“%1” has something of that name already, which was kept.").arg(place);
        break;
    case EINVAL:
        error.reason = tr("A folder cannot be moved into itself.");
        break;
    case EACCES:
    case EPERM:
    case EROFS:
        error.reason = tr("“%1” may not be written to.").arg(place);
        break;
    case ENOSPC:
    case EDQUOT:
        error.reason = tr("There is no space left in “%1”.").arg(place);
        break;
    case ENOENT:
        error.reason = tr("It is not there any more.");
        break;
    default:
        break;
    }
    return error;
}

} // namespace

struct CVExporter::Job
{
    CVExporter *exporter; ///< main thread; null once nobody waits any more
    std::atomic<double> done = 0;
    std::atomic<double> total = 0;
    std::atomic<bool> isTelling = false;
};

CVExporter::CVExporter(QObject *parent)
    : QObject(parent)
{}

CVExporter::~CVExporter()
{
    if (m_job)
        m_job->exporter = nullptr;
}

void CVExporter::start(const QStringList &paths, const QString &folder)
{
    if (isRunning())
        return;
    m_job = std::make_shared<Job>();
    m_job->exporter = this;
    m_thread = std::jthread([job = m_job, paths, folder](const std::stop_token &stop) {
        LXMoveWatch watch;
        watch.stop = stop;
        watch.progress = [&job](double done, double total) {
            job->done = done;
            job->total = total;
            if (job->isTelling.exchange(true))
                return;
            LXMainThread::post([job] {
                job->isTelling = false;
                if (job->exporter)
                    Q_EMIT job->exporter->madeProgress(job->done, job->total);
            });
        };
        Outcome outcome;
        for (const QString &path : paths) {
            if (stop.stop_requested())
                break;
            const auto moved = moveToDestination(path, folder, lastComponent(path), watch);
            if (moved)
                outcome.moved.append(moved.value());
            else if (moved.error().code != ECANCELED)
                outcome.failures.push_back(inWords(moved.error(), path, folder));
        }
        outcome.wasCancelled =
            outcome.moved.size() + static_cast<qsizetype>(outcome.failures.size()) < paths.size();
        LXMainThread::post([job, outcome = std::move(outcome)] {
            CVExporter *exporter = job->exporter;
            if (!exporter)
                return;
            exporter->m_job.reset();
            Q_EMIT exporter->ended(outcome);
        });
    });
}

void CVExporter::cancel()
{
    m_thread.request_stop();
}
