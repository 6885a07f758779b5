// Decoders of compressed streams: the kind is told by the first bytes, as for any file.
#include "MemoryFile.h"
#include "archives/reading/CVArchiveSource.h"
#include "archives/reading/CVStreamDecoders.h"

#include <array>

namespace {

class Counting final : public CVDecoderOutput
{
public:
    std::span<char> space() override
    {
        return m_total < mostOutput ? std::span<char>(m_block) : std::span<char>();
    }
    void commit(std::size_t bytes) override { m_total += bytes; }

private:
    static constexpr std::size_t mostOutput = 8 << 20;
    std::array<char, 65536> m_block;
    std::size_t m_total = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const MemoryFile file(data, size);
    const auto source = CVArchiveSource::open({file.path()});
    const QByteArrayView head(data, static_cast<qsizetype>(size));
    const CVStreamKind kind = cvStreamKind(head);
    if (!source || kind == CVStreamKind::None)
        return 0;
    CVDecoderInput input(*source, 0);
    Counting output;
    cvDecodeStream(kind, input, output);
    return 0;
}
