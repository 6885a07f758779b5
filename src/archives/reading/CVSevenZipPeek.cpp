#include "archives/reading/CVSevenZipPeek.h"

#include <QByteArray>

#include <algorithm>

using namespace sevenzip;

namespace {

bool beginsAsTar(const QByteArray &data)
{
    constexpr qsizetype blockSize = 512;
    constexpr qsizetype sumAt = 148;
    constexpr qsizetype sumSize = 8;
    if (data.size() < blockSize)
        return false;
    unsigned sum = 0;
    for (qsizetype i = 0; i < blockSize; ++i)
        sum += i >= sumAt && i < sumAt + sumSize ? unsigned(' ') : quint8(data[i]);
    bool isNumber = false;
    const QByteArray stored = data.mid(sumAt, sumSize);
    const unsigned wanted =
        stored
            .left(std::max<qsizetype>(
                0, std::min(stored.indexOf('\0') < 0 ? sumSize : stored.indexOf('\0'), sumSize)))
            .trimmed()
            .toUInt(&isNumber, 8);
    return isNumber && wanted == sum;
}

bool beginsAsArchive(const QByteArray &data)
{
    return beginsAsTar(data) || data.startsWith("070701") || data.startsWith("070702") ||
           data.startsWith("070707") || data.startsWith("Rar!\x1a\x07");
}

/// Catches the first bytes of the first item, then ends the extraction.
class PeekCallback final : public ExtractCallback, public SequentialOutStream
{
public:
    PeekCallback() = default;
    PeekCallback(const PeekCallback &) = delete;
    PeekCallback &operator=(const PeekCallback &) = delete;
    virtual ~PeekCallback() = default;

    const QByteArray &bytes() const { return m_bytes; }

    Result QueryInterface(const Guid &iid, void **out) override
    {
        *out = nullptr;
        if (iid == SequentialOutStream::id)
            *out = static_cast<SequentialOutStream *>(this);
        else if (iid == IdUnknown || iid == ExtractCallback::id || iid == Progress::id)
            *out = static_cast<ExtractCallback *>(this);
        return *out ? Ok : NoInterface;
    }
    std::uint32_t AddRef() override { return 1; }
    std::uint32_t Release() override { return 1; }
    Result SetTotal(std::uint64_t) override { return Ok; }
    Result SetCompleted(const std::uint64_t *) override { return Ok; }
    Result GetStream(std::uint32_t, SequentialOutStream **stream, std::int32_t askMode) override
    {
        *stream = askMode == AskExtract ? this : nullptr;
        return Ok;
    }
    Result PrepareOperation(std::int32_t) override { return Ok; }
    Result SetOperationResult(std::int32_t) override { return Ok; }
    Result Write(const void *data, std::uint32_t size, std::uint32_t *processed) override
    {
        m_bytes.append(static_cast<const char *>(data), std::min<qsizetype>(size, wanted - m_bytes.size()));
        if (processed)
            *processed = size;
        return m_bytes.size() < wanted ? Ok : Abort;
    }

private:
    static constexpr qsizetype wanted = 512;
    QByteArray m_bytes;
};

} // namespace

bool cvSevenZipItemIsArchive(InArchive &archive, std::uint32_t item)
{
    PeekCallback peek;
    (void)archive.Extract(&item, 1, 0, &peek);
    return beginsAsArchive(peek.bytes());
}
