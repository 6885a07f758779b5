#pragma once

#include "archives/CVArchivePieces.h"
#include "archives/CVArchiveThread.h"
#include "archives/CVXArchive.h"
#include "util/LXChildProcess.h"

#include <condition_variable>
#include <mutex>

/// 7-Zip archives: read like every other archive, written by the tool "7za".
///
/// The tool is a program of ours that keeps the password out of the process list and becomes the real one
/// (sevenzip_launcher.cpp). Its line is run by the shell; the password is in the environment of that
/// shell alone. An archive that failed or was cancelled is removed with all its volumes.
///
/// Thread: createCommand() on the main thread; the work and its end on a thread of the archive;
/// cancelCreate() from any. The cancel returns when the tool has ended.
class CVP7ZipArchive : public CVXArchive
{
public:
    bool canPreview() const override { return false; }
    bool canEncrypt() const override { return true; }
    bool canSetCompressionLevel() const override { return true; }
    bool canWriteVolumes() const override { return true; }
    QString archiveDescription() const override;

    void cancelCreate() override;
    bool shouldCancel() const { return m_isCancelled; }

protected:
    void createCommand() override;
    double createdBytes() override;
    bool removeCreated() override;

private:
    void threadedCreateCommand();
    void actualCreateCommand();
    /// What the shell is given.
    QString createShellCommand(const QString &tool) const;
    void runTool(const QString &tool);
    /// Takes down why the tool failed: its last words, or how it ended.
    void explainFailure(const QByteArray &complaint, const LXChildProcess::Exit &exit);

    CVArchivePieces m_pieces;
    std::atomic<bool> m_isCancelled = false;

    std::mutex m_mutex; // what follows
    std::condition_variable m_changed;
    bool m_running = false;
    bool m_cancelReported = false;
    LXChildProcess *m_child = nullptr; ///< while it runs; owned by the thread

    CVArchiveThread m_thread;
};

/// ZIP archives, as far as they are written; they are read by CVXArchive.
class CVZipArchive final : public CVP7ZipArchive
{
public:
    QString archiveDescription() const override;
};
