#include "archives/reading/CVStreamDecoders.h"

#include "archives/reading/CVArchiveSource.h"
#include "archives/reading/CVCompressDecoder.h"
#include "archives/reading/CVLz4Decoder.h"
#include "archives/reading/CVLzopDecoder.h"
#include "archives/reading/CVReadingText.h"

#include <QtEndian>

#include <algorithm>
#include <bit>
#include <cstring>
#include <thread>

#include <brotli/decode.h>
#include <bzlib.h>
#include <lzma.h>
#include <zlib.h>
#include <zstd.h>
#include <zstd_errors.h>

namespace {

constexpr std::size_t inputBytes = std::size_t(256) << 10;
// 2^28: zstd's own limit without options is 2^27.
constexpr int zstdWindowLogMax = 28;
constexpr QByteArrayView gzipMark("\x1f\x8b\x08", 3);
constexpr QByteArrayView bzip2Mark("BZh", 3);

CVDecodeResult damaged(const char *what)
{
    return {XADErrorCode::Damaged, readingText(what), false};
}

CVDecodeResult endsEarly(const CVDecoderInput &input)
{
    return damaged(input.failed() ? "The file cannot be read." : "The compressed data ends early.");
}

CVDecodeResult stopped()
{
    return {XADErrorCode::Stopped, {}, false};
}

CVDecodeResult needsTooMuchMemory()
{
    return {XADErrorCode::NotSupported, readingText("Unpacking needs more memory than is allowed."), false};
}

template <typename Size> Size clamped(std::size_t size)
{
    return static_cast<Size>(std::min<std::size_t>(size, std::size_t(1) << 30));
}

template <typename State, auto End> struct Ended
{
    State state = {};
    bool live = false;
    Ended() = default;
    Ended(const Ended &) = delete;
    Ended &operator=(const Ended &) = delete;
    ~Ended()
    {
        if (live)
            End(&state);
    }
};

CVDecodeResult decodeGzip(CVDecoderInput &input, CVDecoderOutput &output)
{
    Ended<z_stream, inflateEnd> z;
    // 16: a gzip wrapper, whose check sum and length zlib then compares itself.
    if (inflateInit2(&z.state, 16 + MAX_WBITS) != Z_OK)
        return needsTooMuchMemory();
    z.live = true;
    for (;;) {
        const auto in = input.available();
        if (in.empty())
            return endsEarly(input);
        const auto out = output.space();
        if (out.empty())
            return stopped();
        z.state.next_in = const_cast<Bytef *>(in.data());
        z.state.avail_in = clamped<uInt>(in.size());
        z.state.next_out = reinterpret_cast<Bytef *>(out.data());
        z.state.avail_out = clamped<uInt>(out.size());
        const int r = inflate(&z.state, Z_NO_FLUSH);
        input.consume(static_cast<std::size_t>(z.state.next_in - in.data()));
        output.commit(static_cast<std::size_t>(z.state.next_out - reinterpret_cast<Bytef *>(out.data())));
        if (r == Z_STREAM_END) {
            if (const auto end = cvEndAfterMember(input, gzipMark))
                return *end;
            inflateReset(&z.state);
            continue;
        }
        if (r != Z_OK && r != Z_BUF_ERROR)
            return damaged("The compressed data is damaged.");
    }
}

CVDecodeResult decodeBzip2(CVDecoderInput &input, CVDecoderOutput &output)
{
    for (;;) {
        Ended<bz_stream, BZ2_bzDecompressEnd> bz;
        if (BZ2_bzDecompressInit(&bz.state, 0, 0) != BZ_OK)
            return needsTooMuchMemory();
        bz.live = true;
        int r = BZ_OK;
        while (r != BZ_STREAM_END) {
            const auto in = input.available();
            if (in.empty())
                return endsEarly(input);
            const auto out = output.space();
            if (out.empty())
                return stopped();
            bz.state.next_in = reinterpret_cast<char *>(const_cast<unsigned char *>(in.data()));
            bz.state.avail_in = clamped<unsigned>(in.size());
            bz.state.next_out = out.data();
            bz.state.avail_out = clamped<unsigned>(out.size());
            r = BZ2_bzDecompress(&bz.state);
            input.consume(in.size() - bz.state.avail_in);
            output.commit(static_cast<std::size_t>(bz.state.next_out - out.data()));
            if (r != BZ_OK && r != BZ_STREAM_END)
                return damaged("The compressed data is damaged.");
        }
        if (const auto end = cvEndAfterMember(input, bzip2Mark))
            return *end;
    }
}

CVDecodeResult decodeLzma(CVStreamKind kind, CVDecoderInput &input, CVDecoderOutput &output)
{
    Ended<lzma_stream, lzma_end> lzma;
    lzma.live = true;
    lzma_ret r = LZMA_OK;
    if (kind == CVStreamKind::Xz) {
        lzma_mt options = {};
        options.flags = LZMA_CONCATENATED | LZMA_TELL_UNSUPPORTED_CHECK;
        options.threads = std::clamp(std::thread::hardware_concurrency(), 1U, 8U);
        options.memlimit_threading = cvDecoderMemoryLimit / 2;
        options.memlimit_stop = cvDecoderMemoryLimit;
        r = lzma_stream_decoder_mt(&lzma.state, &options);
    } else if (kind == CVStreamKind::Lzip) {
        r = lzma_lzip_decoder(&lzma.state, cvDecoderMemoryLimit, LZMA_CONCATENATED);
    } else {
        r = lzma_alone_decoder(&lzma.state, cvDecoderMemoryLimit);
    }
    if (r != LZMA_OK)
        return needsTooMuchMemory();
    for (;;) {
        const auto in = input.available();
        const auto out = output.space();
        if (out.empty())
            return stopped();
        lzma.state.next_in = in.data();
        lzma.state.avail_in = in.size();
        lzma.state.next_out = reinterpret_cast<std::uint8_t *>(out.data());
        lzma.state.avail_out = out.size();
        r = lzma_code(&lzma.state, in.empty() ? LZMA_FINISH : LZMA_RUN);
        input.consume(in.size() - lzma.state.avail_in);
        output.commit(out.size() - lzma.state.avail_out);
        switch (r) {
        case LZMA_OK:
            break;
        case LZMA_STREAM_END:
            if (input.failed())
                return endsEarly(input);
            return {XADErrorCode::None, {}, !input.onlyZerosLeft()};
        case LZMA_BUF_ERROR:
            if (in.empty())
                return endsEarly(input);
            break;
        case LZMA_MEM_ERROR:
        case LZMA_MEMLIMIT_ERROR:
            return needsTooMuchMemory();
        case LZMA_UNSUPPORTED_CHECK:
            return {XADErrorCode::NotSupported, readingText("The kind of check sum is not known."), false};
        case LZMA_OPTIONS_ERROR:
            return {XADErrorCode::NotSupported, readingText("The compression method is not known."), false};
        default:
            return damaged("The compressed data is damaged.");
        }
    }
}

CVDecodeResult decodeZstd(CVDecoderInput &input, CVDecoderOutput &output)
{
    const std::unique_ptr<ZSTD_DCtx, decltype(&ZSTD_freeDCtx)> context(ZSTD_createDCtx(), ZSTD_freeDCtx);
    if (!context ||
        ZSTD_isError(ZSTD_DCtx_setParameter(context.get(), ZSTD_d_windowLogMax, zstdWindowLogMax)))
        return needsTooMuchMemory();
    std::size_t r = 0;
    for (;;) {
        const auto in = input.available();
        if (in.empty())
            return r == 0 && !input.failed() ? CVDecodeResult{} : endsEarly(input);
        ZSTD_inBuffer from{in.data(), in.size(), 0};
        for (bool more = true; more;) {
            const auto out = output.space();
            if (out.empty())
                return stopped();
            ZSTD_outBuffer to{out.data(), out.size(), 0};
            r = ZSTD_decompressStream(context.get(), &to, &from);
            if (ZSTD_isError(r)) {
                const ZSTD_ErrorCode code = ZSTD_getErrorCode(r);
                if (code == ZSTD_error_frameParameter_windowTooLarge || code == ZSTD_error_memory_allocation)
                    return needsTooMuchMemory();
                if (code == ZSTD_error_dictionary_wrong)
                    return {XADErrorCode::NotSupported, readingText("It needs a dictionary of its own."),
                            false};
                return damaged("The compressed data is damaged.");
            }
            output.commit(to.pos);
            // A full output means that there may be more to fetch without further input.
            more = from.pos < from.size || (to.pos == to.size && r != 0);
        }
        input.consume(in.size());
    }
}

CVDecodeResult decodeBrotli(CVDecoderInput &input, CVDecoderOutput &output)
{
    const std::unique_ptr<BrotliDecoderState, decltype(&BrotliDecoderDestroyInstance)> state(
        BrotliDecoderCreateInstance(nullptr, nullptr, nullptr), BrotliDecoderDestroyInstance);
    if (!state)
        return needsTooMuchMemory();
    for (;;) {
        const auto in = input.available();
        std::size_t inLeft = in.size();
        const std::uint8_t *inAt = in.data();
        BrotliDecoderResult r = BROTLI_DECODER_RESULT_NEEDS_MORE_OUTPUT;
        while (r == BROTLI_DECODER_RESULT_NEEDS_MORE_OUTPUT) {
            const auto out = output.space();
            if (out.empty())
                return stopped();
            std::size_t outLeft = out.size();
            auto *outAt = reinterpret_cast<std::uint8_t *>(out.data());
            r = BrotliDecoderDecompressStream(state.get(), &inLeft, &inAt, &outLeft, &outAt, nullptr);
            output.commit(out.size() - outLeft);
        }
        input.consume(in.size() - inLeft);
        if (r == BROTLI_DECODER_RESULT_SUCCESS)
            return {XADErrorCode::None, {}, !input.atEnd()};
        if (r == BROTLI_DECODER_RESULT_ERROR)
            return damaged("The compressed data is damaged.");
        if (in.empty())
            return endsEarly(input);
    }
}

bool startsWith(QByteArrayView head, QByteArrayView magic)
{
    return head.startsWith(magic);
}

/// The header of .lzma has no mark; its fields have to make sense together.
bool looksLikeLzma(QByteArrayView head)
{
    if (head.size() < 18)
        return false;
    const auto byte = [&head](qsizetype i) { return static_cast<unsigned char>(head[i]); };
    if (byte(0) >= 9 * 5 * 5 || byte(13) != 0)
        return false;
    const int lc = byte(0) % 9;
    const int lp = byte(0) / 9 % 5;
    const auto dictionary = qFromLittleEndian<std::uint32_t>(head.data() + 1);
    const auto size = qFromLittleEndian<std::uint64_t>(head.data() + 5);
    const bool usualDictionary =
        dictionary == 0xffffffffU ||
        (dictionary >= 4096 &&
         (std::has_single_bit(dictionary) || (dictionary % 3 == 0 && std::has_single_bit(dictionary / 3))));
    return lc + lp <= 4 && usualDictionary && (size == ~std::uint64_t(0) || size < (std::uint64_t(1) << 38));
}

/// Frames that carry no data may stand before the first real one.
qsizetype afterSkippableFrames(QByteArrayView head)
{
    qsizetype at = 0;
    while (at + 8 <= head.size() &&
           (qFromLittleEndian<std::uint32_t>(head.data() + at) & 0xfffffff0U) == 0x184d2a50U)
        at += 8 + static_cast<qsizetype>(qFromLittleEndian<std::uint32_t>(head.data() + at + 4));
    return at;
}

} // namespace

CVDecoderInput::CVDecoderInput(const CVArchiveSource &source, qint64 offset)
    : CVDecoderInput([&source, offset](char *to, qint64 bytes) mutable {
        const qint64 got = source.readAt(offset, to, bytes);
        offset += std::max<qint64>(0, got);
        return got;
    })
{}

CVDecoderInput::CVDecoderInput(Read read)
    : m_read(std::move(read))
    , m_buffer(inputBytes)
{}

bool CVDecoderInput::fill()
{
    if (m_failed)
        return false;
    if (m_used > 0) {
        std::memmove(m_buffer.data(), m_buffer.data() + m_used, m_filled - m_used);
        m_filled -= m_used;
        m_used = 0;
    }
    const qint64 n = m_read(reinterpret_cast<char *>(m_buffer.data() + m_filled),
                            static_cast<qint64>(m_buffer.size() - m_filled));
    if (n < 0) {
        m_failed = true;
        return false;
    }
    m_filled += static_cast<std::size_t>(n);
    return n > 0;
}

std::span<const unsigned char> CVDecoderInput::available()
{
    if (m_used == m_filled)
        fill();
    return {m_buffer.data() + m_used, m_filled - m_used};
}

std::span<const unsigned char> CVDecoderInput::peek(std::size_t bytes)
{
    if (bytes > m_buffer.size())
        m_buffer.resize(bytes);
    while (m_filled - m_used < bytes && fill()) {
    }
    return {m_buffer.data() + m_used, std::min(bytes, m_filled - m_used)};
}

bool CVDecoderInput::read(void *to, std::size_t bytes)
{
    auto *at = static_cast<unsigned char *>(to);
    while (bytes > 0) {
        const auto in = available();
        if (in.empty())
            return false;
        const std::size_t n = std::min(bytes, in.size());
        std::memcpy(at, in.data(), n);
        consume(n);
        at += n;
        bytes -= n;
    }
    return true;
}

bool CVDecoderInput::onlyZerosLeft()
{
    for (;;) {
        const auto in = available();
        if (in.empty())
            return !m_failed;
        if (std::any_of(in.begin(), in.end(), [](unsigned char c) { return c != 0; }))
            return false;
        consume(in.size());
    }
}

std::optional<CVDecodeResult> cvEndAfterMember(CVDecoderInput &input, QByteArrayView mark)
{
    const auto wanted = static_cast<std::size_t>(mark.size());
    const auto next = input.peek(wanted);
    if (next.empty())
        return input.failed() ? damaged("The file cannot be read.") : CVDecodeResult{};
    std::size_t same = 0;
    for (std::size_t i = 0; i < next.size(); ++i)
        same += next[i] == static_cast<unsigned char>(mark[static_cast<qsizetype>(i)]) ? 1 : 0;
    if (same == wanted)
        return std::nullopt;
    if (same * 2 > wanted)
        return damaged("The compressed data is damaged.");
    return CVDecodeResult{XADErrorCode::None, {}, !input.onlyZerosLeft()};
}

bool CVDecoderOutput::put(const char *data, std::size_t bytes)
{
    while (bytes > 0) {
        const auto out = space();
        if (out.empty())
            return false;
        const std::size_t n = std::min(bytes, out.size());
        std::memcpy(out.data(), data, n);
        commit(n);
        data += n;
        bytes -= n;
    }
    return true;
}

CVStreamKind cvStreamKind(QByteArrayView head)
{
    const auto byte = [&head](qsizetype i) {
        return i < head.size() ? static_cast<unsigned char>(head[i]) : 0;
    };
    if (startsWith(head, gzipMark) && (byte(3) & 0xe0) == 0)
        return CVStreamKind::Gzip;
    if (startsWith(head, "BZh") && byte(3) >= '1' && byte(3) <= '9' &&
        (head.sliced(4).startsWith("1AY&SY") || head.sliced(4).startsWith("\x17\x72\x45\x38\x50\x90")))
        return CVStreamKind::Bzip2;
    if (startsWith(head, QByteArrayView("\xfd"
                                        "7zXZ\0",
                                        6)))
        return CVStreamKind::Xz;
    if (startsWith(head, "LZIP\x01"))
        return CVStreamKind::Lzip;
    if (startsWith(head, QByteArrayView("\x89LZO\0\r\n\x1a\n", 9)))
        return CVStreamKind::Lzop;
    if (startsWith(head, "\x1f\x9d") && (byte(2) & 0x60) == 0 && (byte(2) & 0x1f) >= 9 &&
        (byte(2) & 0x1f) <= 16)
        return CVStreamKind::Compress;
    if (startsWith(head, "\x02\x21\x4c\x18"))
        return CVStreamKind::Lz4;
    const qsizetype skip = afterSkippableFrames(head);
    const QByteArrayView frame = skip < head.size() ? head.sliced(skip) : QByteArrayView();
    if (startsWith(frame, "\x28\xb5\x2f\xfd") || (skip > 0 && frame.isEmpty()))
        return CVStreamKind::Zstd;
    if (startsWith(frame, "\x04\x22\x4d\x18"))
        return CVStreamKind::Lz4;
    return looksLikeLzma(head) ? CVStreamKind::Lzma : CVStreamKind::None;
}

QString cvStreamKindName(CVStreamKind kind)
{
    switch (kind) {
    case CVStreamKind::None:
        return {};
    case CVStreamKind::Gzip:
        return QStringLiteral("gzip");
    case CVStreamKind::Bzip2:
        return QStringLiteral("bzip2");
    case CVStreamKind::Xz:
        return QStringLiteral("xz");
    case CVStreamKind::Lzma:
        return QStringLiteral("lzma");
    case CVStreamKind::Lzip:
        return QStringLiteral("lzip");
    case CVStreamKind::Zstd:
        return QStringLiteral("zstd");
    case CVStreamKind::Lz4:
        return QStringLiteral("lz4");
    case CVStreamKind::Lzop:
        return QStringLiteral("lzop");
    case CVStreamKind::Compress:
        return QStringLiteral("compress");
    case CVStreamKind::Brotli:
        return QStringLiteral("brotli");
    }
    return {};
}

bool cvStreamKnowsItsEnd(CVStreamKind kind)
{
    return kind != CVStreamKind::None && kind != CVStreamKind::Compress;
}

CVDecodeResult cvDecodeStream(CVStreamKind kind, CVDecoderInput &input, CVDecoderOutput &output)
{
    switch (kind) {
    case CVStreamKind::None:
        break;
    case CVStreamKind::Gzip:
        return decodeGzip(input, output);
    case CVStreamKind::Bzip2:
        return decodeBzip2(input, output);
    case CVStreamKind::Xz:
    case CVStreamKind::Lzma:
    case CVStreamKind::Lzip:
        return decodeLzma(kind, input, output);
    case CVStreamKind::Zstd:
        return decodeZstd(input, output);
    case CVStreamKind::Lz4:
        return cvDecodeLz4(input, output);
    case CVStreamKind::Lzop:
        return cvDecodeLzop(input, output);
    case CVStreamKind::Compress:
        return cvDecodeCompress(input, output);
    case CVStreamKind::Brotli:
        return decodeBrotli(input, output);
    }
    return {XADErrorCode::NotSupported, {}, false};
}
