#pragma once

#include "engine/model/CVOperationDelegate.h"

#include <QString>
#include <QStringList>

#include <atomic>
#include <mutex>

class CVTerminal;
class CVTerminalPasswords;

/// What a job tells and asks, on the terminal. Where nobody can be asked, questions take the answer
/// that destroys nothing.
///
/// Thread: calls from the job's worker; the getters once the job is finished. Everything is borrowed.
class CVTerminalDelegate final : public CVOperationDelegate
{
public:
    CVTerminalDelegate(CVTerminal &terminal, CVTerminalPasswords &passwords, QStringList inputPaths);

    /// For jobs that write an archive.
    struct Packing
    {
        bool replaces = false;   ///< agreed to beforehand
        bool lacksCount = false; ///< entries that were left out are missing in the result
    };
    void setPacking(const Packing &packing) { m_packing = packing; }

    /// A split that is to be volumes of an archive instead. Bytes each.
    struct MultiPartArchive
    {
        double chunkSize;
        QString format;
    };
    std::optional<MultiPartArchive> multiPartArchive() const;

    /// What was delivered, told by the job.
    QStringList resultPaths() const;
    /// Archives that could not be opened, told to the person already.
    int failures() const { return m_failures; }
    /// The person, or nobody in their place, chose not to go on after a failure.
    bool stoppedAfterFailure() const { return m_stopped; }
    bool wasCancelled() const { return m_cancelled; }

    QString operationPathToInputFile(CVOperation *operation) override;
    QStringList operationPathsToInputFiles(CVOperation *operation) override;
    std::shared_ptr<CVFileNode> operationInputFiles(CVOperation *operation) override;

    void operationHasMadeProgress(CVOperation *operation, double done, double totalBytes) override;
    void operationWorkingOnJob(CVOperation *operation, const QString &text) override;

    std::optional<QString> operationNeedsPasswordForFileAtPath(CVOperation *operation, const QString &path,
                                                               bool failed) override;
    CVAlertResult operationNeedsToAskWhetherToReplaceFileAtPath(CVOperation *operation,
                                                                const QString &path) override;
    CVAlertResult operationNeedsToAskWhetherToContinueAfterArchiveAtPath(CVOperation *operation,
                                                                         const QString &path,
                                                                         const LXError &error) override;
    bool operationNeedsToAskWhetherToExceedLimit(CVOperation *operation, const QString &archivePath,
                                                 const QString &explanation) override;

    void operationNeedsToShowError(CVOperation *operation, const LXError &error) override;
    void operationSkippedEntries(CVOperation *operation, const QString &archivePath,
                                 const std::vector<CVSkippedEntry> &entries) override;

    void operationWillCreateMultiPartArchiveOfChunkSize(CVOperation *operation, double chunkSize,
                                                        const QString &format) override;

    void operationCompletedWithFilesAtPaths(CVOperation *operation, const QStringList &paths,
                                            bool multipleFiles) override;
    void operationFailedWithError(CVOperation *operation, const LXError &error) override;
    void operationWasCancelled(CVOperation *operation) override;
    void operationCancelledShowingNotification(CVOperation *operation, bool show) override;

private:
    void show(const LXError &error);

    CVTerminal &m_terminal;
    CVTerminalPasswords &m_passwords;
    const QStringList m_inputPaths;
    std::optional<Packing> m_packing;
    mutable std::mutex m_mutex; ///< guards what follows, down to the next comment
    std::shared_ptr<CVFileNode> m_inputFiles;
    QStringList m_results;
    std::optional<MultiPartArchive> m_multiPartArchive;

    // Counters and marks.
    std::atomic<int> m_failures = 0;
    std::atomic<bool> m_stopped = false;
    std::atomic<bool> m_cancelled = false;
};
