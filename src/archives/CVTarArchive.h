#pragma once

#include "archives/CVArchive.h"
#include "archives/CVFallbackReader.h"
#include "archives/CVTarOutput.h"
#include "archives/LXTaskHelper.h"

#include <QSet>

#include <mutex>
#include <stop_token>

/// Tar archives, plain or compressed, by the system's own tools. The extension says how the archive is
/// compressed; where it does not, the first bytes do.
///
/// Extraction. The tool is the fastest way to unpack an ordinary tar, but it has rules of its own for the
/// odd ones. So it runs confined to the destination, and what it made is used only when nothing
/// in it could have come out differently from our own reader: it ended with status 0 and had nothing
/// to say, and CVTreeCheck finds nothing that the reader would have refused, changed or reported. In every
/// other case (also: the tool or its decompressor is missing, the output grows absurdly or the disk
/// runs full) the destination is emptied and the reader unpacks the archive, with an outcome for each entry.
/// The same happens without the tool where the destination is not empty, because then it could not be
/// emptied. So all archives follow one set of rules, and the ordinary ones cost no more than the tool.
///
/// Creation. The status says nothing about the tools; createdWhole() does. Towards the delegate a failed tar
/// ends like a good one.
///
/// Thread: extraction on the job's worker, creation on the main thread, both cancels from any.
class CVTarArchive final : public CVArchive, private LXTaskDelegate
{
public:
    /// The extension in lower case, without its first dot ("tar.gz").
    explicit CVTarArchive(const QString &extension);
    ~CVTarArchive() override;

    bool canSetCompressionLevel() const override;
    QString archiveDescription() const override;
    bool createdWhole() const override { return m_createdWhole; }
    void cancelCreate() override;
    void cancelExtract() override;

    /// tar's option for the compression that the extension names; nothing for none.
    const std::optional<QString> &compressionFlag() const { return m_compressionFlag; }

    /// tar's option for the compression of a file that begins with these bytes; nothing when it is plain or
    /// of a kind that tar does not know.
    static std::optional<QString> compressionFlagForHead(const QByteArray &head);

    /// What is run through the shell, with DESTINATION in its environment.
    static QString extractShellCommand(const std::optional<QString> &flag,
                                       const std::optional<QStringList> &entries);

protected:
    void createCommand() override;
    void extractCommand() override;

private:
    void launch(std::shared_ptr<LXTask> task);
    /// Looks at how the tools ended. False when that takes another look at the archive, which is under way.
    bool judgeCreated(std::int32_t status);
    void explainCreated(std::int32_t status);

    /// How the tool got on with the archive.
    enum class ToolResult { Done, Odd, Cancelled };
    /// An uncompressed tar ends in blocks of zeros. Leaves the file at its start.
    static bool endsWithMark(class QFile &file);
    ToolResult extractWithTool(const QString &command, class QFile &file, qint64 fileSize);
    void extractWithReader();
    std::stop_token freshStopToken();

    // LXTaskDelegate
    void taskHasOutputAvailable(LXTask &task, const QString &line) override;
    void taskHasCompletedWithStatus(LXTask &task, std::int32_t status) override;

    std::optional<QString> m_compressionFlag;
    const char *m_description; ///< the text and its key
    std::atomic<bool> m_isCancelled = false;
    int m_toolStatus = 0;
    // What follows: of the main thread, until the end is told.
    CVTarOutput m_output;
    bool m_readingBack = false;
    bool m_createdWhole = true; ///< nothing has been made that could lack anything

    std::mutex m_mutex; // what follows
    std::unique_ptr<LXTaskHelper> m_taskWrapper;
    bool m_createCancelled = false;
    std::stop_source m_stop;

    CVFallbackReader m_reader;
};
