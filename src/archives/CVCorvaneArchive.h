#pragma once

#include "archives/CVArchive.h"
#include "archives/CVArchiveThread.h"
#include "archives/CVFallbackReader.h"
#include "util/LXResult.h"

#include <QHash>

#include <condition_variable>
#include <mutex>
#include <stop_token>

class xar_archive;

/// The program's own archives: XAR inside, written by the library item by item, listed and extracted by
/// our "xar" tool in a confined child. What sets them apart is what happens before: images and audio are
/// made smaller.
///
/// The tool extracts by the rules of our own reader. Where it has anything to complain about, or
/// the archive is none of XAR, the destination is emptied and the reader does it, with an outcome for each
/// entry; without the tool where the destination is not empty, because then it could not be emptied.
/// The same for a listing.
///
/// Thread: creation begins on the main thread and works and ends on one of the archive; extraction and
/// preview on the caller's; the cancels from any. cancelCreate() returns when nothing is written any more.
class CVCorvaneArchive final : public CVArchive
{
public:
    CVCorvaneArchive();
    ~CVCorvaneArchive() override;

    bool canPreview() const override { return true; }
    bool canManipulateMultimedia() const override { return true; }
    QString archiveDescription() const override;

    std::vector<std::shared_ptr<CVFileNode>> previewedFiles() const override { return m_previewFiles; }
    std::shared_ptr<CVFileNode> filePreviewsNode() const override { return m_filePreviews; }

    void cancelCreate() override;
    void cancelExtract() override;

    /// What the shell is given for a listing.
    static QString previewShellCommand(const QString &tool, const QString &archive);

protected:
    void createCommand() override;
    void extractCommand() override;
    void preview() override;
    /// Nothing: progress is told in items, and there is no sense in bytes between them.
    double createdBytes() override { return -1; }

private:
    enum class ToolResult { Done, Odd, Cancelled };
    struct Listing;

    void threadedCreateCommand();
    LXResult<void> write();
    void takeError(const LXError &error);

    /// Nothing when the archive is not one that the tool could read.
    std::optional<double> countEntries();
    ToolResult extractWithTool();
    void extractWithReader();
    /// Runs the tool, or a shell around it, and hands over its lines. Odd: it complained or failed.
    ToolResult run(const QString &program, const QStringList &arguments, const QString &destination,
                   const std::function<void(const QByteArray &line)> &take);
    ToolResult listWithTool();
    void takeListing(const QByteArray &line);
    void buildPreviewFileTree();

    std::atomic<bool> m_isCancelled = false;
    double m_progress = 0;

    std::mutex m_mutex; // what follows
    std::condition_variable m_changed;
    bool m_isWriting = false;
    bool m_hasEnded = false;             ///< a create, and its end was or is being told
    xar_archive *m_xarArchive = nullptr; ///< while it is written; owned by the thread
    std::stop_source m_stop;             ///< of the child

    CVArchiveThread m_thread;
    CVFallbackReader m_reader;

    struct Nested
    {
        QString name;
        std::shared_ptr<CVFileNode> node;
    };
    QHash<QString, std::shared_ptr<CVFileNode>>
        m_currentPreviewedFileNodeDirectories;   ///< the first of a name
    std::vector<Nested> m_currentPreviewedFiles; ///< that wait for their parents
};
