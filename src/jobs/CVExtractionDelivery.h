#pragma once

#include "util/LXResult.h"

#include <QStringList>

class CVJobFolders;

/// Brings what came out of one archive from the job's work directory to its destination; or leaves it where
/// it is, to be opened there. Thread: the job's worker.
class CVExtractionDelivery
{
public:
    enum class Way { Move, Stay };

    CVExtractionDelivery(const CVJobFolders &folders, Way way)
        : m_folders(folders)
        , m_way(way)
    {}

    /// All of it: one item under its own name, several as a folder of that name.
    LXResult<void> deliverEverything(const QString &nameForSeveral);
    /// The entries with these paths in the archive; what lies in a chosen folder comes with it. All of them
    /// are looked at before the first one moves.
    LXResult<void> deliverEntries(const QStringList &entries);

    /// Where it is now, in order; after a failure what had arrived before.
    const QStringList &delivered() const { return m_delivered; }

private:
    LXResult<void> deliver(const QString &item, const QString &name);

    const CVJobFolders &m_folders;
    const Way m_way;
    QStringList m_delivered;
};
