#pragma once

#include "util/LXResult.h"

#include <QObject>
#include <QStringList>

#include <memory>
#include <thread>
#include <vector>

/// Moves results of a job into a folder, each under its own name, on a thread of its own. What is there
/// already under such a name is never replaced. Main thread; going away stops the move, which leaves the item
/// that it was at where it was.
class CVExporter final : public QObject
{
    Q_OBJECT

public:
    struct Outcome
    {
        QStringList moved; ///< where they are now
        std::vector<LXError> failures;
        bool wasCancelled = false;
    };

    explicit CVExporter(QObject *parent = nullptr);
    ~CVExporter() override;

    bool isRunning() const { return m_job != nullptr; }
    /// One at a time; while one is running the call does nothing. Absolute paths, names as of LXFileName.
    void start(const QStringList &paths, const QString &folder);
    void cancel();

Q_SIGNALS:
    /// Bytes of the item that is being copied to another disk; a move within one disk takes no time.
    void madeProgress(double done, double total);
    /// Once for each start().
    void ended(const CVExporter::Outcome &outcome);

private:
    struct Job;

    std::shared_ptr<Job> m_job;
    std::jthread m_thread;
};
