#pragma once

#include "archives/reading/CVReadingEngine.h"
#include "archives/reading/CVSevenZipArchive.h"

#include <QString>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

struct CVSevenZipFailure
{
    XADErrorCode code = XADErrorCode::None;
    QString text;
};

/// What the workers of one extraction share.
struct CVSevenZipRun
{
    const CVSevenZipLibrary &library;
    const std::vector<XADEntry> &entries;
    const std::vector<int> &entryOfItem; ///< -1 for items that are no entries
    /// The format keeps a checksum of every entry, so one without cannot be trusted.
    bool checksumsAreCertain;
    bool isZip;
    bool headersAreEncrypted;
    std::atomic<qint64> &progress;
    CVEntrySink &sink;
    std::optional<QString> password = {};
    std::vector<char> wanted = {};    ///< per entry
    std::vector<char> delivered = {}; ///< per entry; each is written by one worker only
    std::vector<std::vector<std::uint32_t>> shares = {};
    std::atomic<std::size_t> nextShare = 0;
    std::atomic<bool> stopped = false;
    std::atomic<bool> failed = false;
    std::atomic<bool> passwordFits = false; ///< an encrypted entry has come out right
    std::mutex mutex = {};
    CVReadingEngine::Outcome outcome = {};

    void stop() { stopped = true; }
    bool isOver() const { return stopped || failed; }
    void fail(XADErrorCode code, const QString &detail)
    {
        const std::lock_guard lock(mutex);
        if (outcome.code == XADErrorCode::None)
            outcome = {code, detail};
        failed = true;
    }
    bool follow(CVEntryWriter::Flow flow)
    {
        if (flow == CVEntryWriter::Flow::Stop)
            stop();
        return flow != CVEntryWriter::Flow::Stop;
    }
};

/// Takes what one worker's archive object gives and passes it to the sink.
class CVSevenZipExtraction final : public sevenzip::ExtractCallback,
                                   public sevenzip::CryptoGetTextPassword,
                                   public sevenzip::SequentialOutStream
{
public:
    CVSevenZipExtraction(CVSevenZipRun &run, sevenzip::InArchive &archive)
        : m_run(run)
        , m_archive(archive)
    {}
    CVSevenZipExtraction(const CVSevenZipExtraction &) = delete;
    CVSevenZipExtraction &operator=(const CVSevenZipExtraction &) = delete;
    virtual ~CVSevenZipExtraction() = default;

    /// After a call that failed in the middle of an entry.
    void abandon(const QString &why);

    sevenzip::Result QueryInterface(const sevenzip::Guid &iid, void **out) override;
    std::uint32_t AddRef() override { return 1; }
    std::uint32_t Release() override { return 1; }

    sevenzip::Result SetTotal(std::uint64_t) override { return sevenzip::Ok; }
    sevenzip::Result SetCompleted(const std::uint64_t *completed) override;
    sevenzip::Result GetStream(std::uint32_t item, sevenzip::SequentialOutStream **stream,
                               std::int32_t askMode) override;
    sevenzip::Result PrepareOperation(std::int32_t) override { return sevenzip::Ok; }
    sevenzip::Result SetOperationResult(std::int32_t result) override;
    sevenzip::Result GetTextPassword(sevenzip::ModuleString *password) override;
    sevenzip::Result Write(const void *data, std::uint32_t size, std::uint32_t *processed) override;

private:
    sevenzip::Result checkStop();
    bool hasChecksum();

    /// Zip with AES checks the password before the data.
    bool passwordWasChecked();
    CVSevenZipFailure failureOf(std::int32_t result);

    CVSevenZipRun &m_run;
    sevenzip::InArchive &m_archive;
    std::unique_ptr<CVEntryWriter> m_writer;
    int m_index = -1;
    std::uint32_t m_item = 0;
    std::uint64_t m_received = 0;
    bool m_skipping = false; ///< the sink has given the entry up
};
