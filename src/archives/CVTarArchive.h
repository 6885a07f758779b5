#pragma once

#include "archives/CVArchive.h"
#include "archives/CVFallbackReader.h"
#include "archives/CVTarOutput.h"
#include "archives/LXTaskHelper.h"

#include <mutex>
#include <stop_token>

/// Tar archives, plain or compressed, by the system's own tools. The extension says how the archive is
/// compressed; where it does not, the first bytes do.
///
/// Extraction. The reader unpacks tar like everything else, so one set of rules decides what is written, for
/// whole archives and for chosen entries. Only a whole archive that no reader knows is handed to the tool,
/// confined to the destination, which has to be empty. Its result counts where it ended with status 0 and had
/// nothing to say, and CVTreeCheck finds nothing that the reader would have refused, changed or reported;
/// otherwise the destination is emptied again and the archive has failed. No name of an entry ever reaches
/// the tool: tar takes names for options, wildcards and commands.
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
    static QString extractShellCommand(const std::optional<QString> &flag);

protected:
    void createCommand() override;
    void extractCommand() override;

private:
    void launch(std::shared_ptr<LXTask> task);
    /// Looks at how the tools ended. False when that takes another look at the archive, which is under way.
    bool judgeCreated(std::int32_t status);
    void explainCreated(std::int32_t status);

    /// Nothing, or why the tool did not unpack the archive; then the destination is empty.
    std::optional<QByteArray> extractWithTool();
    std::optional<QByteArray> runTool(class QFile &file, qint64 fileSize);
    std::stop_token freshStopToken();

    // LXTaskDelegate
    void taskHasOutputAvailable(LXTask &task, const QString &line) override;
    void taskHasCompletedWithStatus(LXTask &task, std::int32_t status) override;

    std::optional<QString> m_compressionFlag;
    const char *m_description; ///< the text and its key
    std::atomic<bool> m_isCancelled = false;
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
