#pragma once

#include "archives/CVArchive.h"

#include <mutex>

class CVXArchive;

/// Our own reader on behalf of a back end that also has a tool: with the back end's archive, entries and
/// password, and with its delegate for progress and questions. The end is the back end's to tell.
/// Thread: one at a time, cancel() from any. The back end is borrowed.
class CVFallbackReader final : private CVArchiveDelegate
{
public:
    explicit CVFallbackReader(CVArchive &owner)
        : m_owner(owner)
    {}

    struct Result
    {
        std::int32_t status = CVArchive::Success;
        bool isUnknown = false; ///< no reader knows what the file is; nothing was written
        std::vector<CVSkippedEntry> skipped = {};
        QString failureReason = {};
        int systemError = 0;
        std::shared_ptr<CVFileNode> root = {}; ///< of a listing
    };

    Result extract();
    /// What openForPreview() was called with.
    Result list();

    /// What runs, and what is still to come, ends with the status Cancelled.
    void cancel();
    /// Forgets an earlier cancel.
    void reset();

private:
    std::shared_ptr<CVXArchive> begin();
    Result end(const CVXArchive &reader);

    // CVArchiveDelegate
    void archiveFinished(CVArchive *) override { m_hasEnded = true; }
    void archiveFailed(CVArchive *, std::int32_t) override { m_hasEnded = true; }
    void archiveCancelled(CVArchive *) override { m_hasEnded = true; }
    void archiveHasMadeProgress(CVArchive *archive, double done, double total) override;
    std::optional<QString> archiveWantsPassword(CVArchive *archive) override;
    bool archiveMayExceedLimit(CVArchive *archive, const QString &explanation) override;

    CVArchive &m_owner;
    std::mutex m_mutex; // what follows
    std::shared_ptr<CVXArchive> m_reader;
    bool m_cancelled = false;
    std::atomic<bool> m_hasEnded = false;
};
