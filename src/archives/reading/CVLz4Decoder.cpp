#include "archives/reading/CVLz4Decoder.h"

#include "archives/reading/CVReadingText.h"

#include <QtEndian>

#include <vector>

#include <lz4.h>
#include <lz4frame.h>

namespace {

constexpr std::uint32_t frameMagic = 0x184d2204U;
constexpr std::uint32_t legacyMagic = 0x184c2102U;
// Every block of a legacy frame but the last holds this much data.
constexpr int legacyBlockBytes = 8 << 20;

CVDecodeResult damaged(const char *what)
{
    return {XADErrorCode::Damaged, readingText(what), false};
}

bool isFrame(std::uint32_t magic)
{
    return magic == frameMagic || (magic & 0xfffffff0U) == 0x184d2a50U;
}

CVDecodeResult decodeFrame(CVDecoderInput &input, CVDecoderOutput &output)
{
    LZ4F_dctx *created = nullptr;
    if (LZ4F_isError(LZ4F_createDecompressionContext(&created, LZ4F_VERSION)))
        return {XADErrorCode::NotSupported, {}, false};
    const std::unique_ptr<LZ4F_dctx, decltype(&LZ4F_freeDecompressionContext)> context(
        created, LZ4F_freeDecompressionContext);
    for (;;) {
        const auto in = input.available();
        if (in.empty())
            return damaged("The compressed data ends early.");
        const auto out = output.space();
        if (out.empty())
            return {XADErrorCode::Stopped, {}, false};
        std::size_t produced = out.size();
        std::size_t consumed = in.size();
        const std::size_t r =
            LZ4F_decompress(context.get(), out.data(), &produced, in.data(), &consumed, nullptr);
        if (LZ4F_isError(r))
            return damaged("The compressed data is damaged.");
        input.consume(consumed);
        output.commit(produced);
        if (r == 0)
            return {};
    }
}

/// Blocks with a length before each and no end mark: the frame ends with the file or another mark.
CVDecodeResult decodeLegacy(CVDecoderInput &input, CVDecoderOutput &output)
{
    input.consume(sizeof legacyMagic);
    std::vector<char> packed;
    std::vector<char> data(legacyBlockBytes);
    for (;;) {
        std::uint32_t length = 0;
        const auto next = input.peek(sizeof length);
        if (next.empty() && !input.failed())
            return {};
        if (next.size() < sizeof length)
            return damaged("The compressed data ends early.");
        length = qFromLittleEndian<std::uint32_t>(next.data());
        if (isFrame(length) || length == legacyMagic)
            return {};
        if (length > static_cast<std::uint32_t>(LZ4_compressBound(legacyBlockBytes)))
            return damaged("The compressed data is damaged.");
        input.consume(sizeof length);
        packed.resize(length);
        if (!input.read(packed.data(), length))
            return damaged("The compressed data ends early.");
        const int size =
            LZ4_decompress_safe(packed.data(), data.data(), static_cast<int>(length), legacyBlockBytes);
        if (size < 0)
            return damaged("The compressed data is damaged.");
        if (!output.put(data.data(), static_cast<std::size_t>(size)))
            return {XADErrorCode::Stopped, {}, false};
    }
}

} // namespace

CVDecodeResult cvDecodeLz4(CVDecoderInput &input, CVDecoderOutput &output)
{
    constexpr QByteArrayView usualMark("\x04\x22\x4d\x18", 4);
    for (;;) {
        const auto next = input.peek(4);
        const std::uint32_t magic = next.size() == 4 ? qFromLittleEndian<std::uint32_t>(next.data()) : 0;
        CVDecodeResult result;
        if (isFrame(magic)) {
            result = decodeFrame(input, output);
        } else if (magic == legacyMagic) {
            result = decodeLegacy(input, output);
        } else if (const auto end = cvEndAfterMember(input, usualMark)) {
            return *end;
        }
        if (result.code != XADErrorCode::None)
            return result;
    }
}
