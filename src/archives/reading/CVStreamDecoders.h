#pragma once

#include "archives/reading/XADTypes.h"

#include <QByteArrayView>
#include <QString>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

class CVArchiveSource;

/// The kinds of compressed stream.
enum class CVStreamKind : std::uint8_t {
    None,
    Gzip,
    Bzip2,
    Xz,
    Lzma,
    Lzip,
    Zstd,
    Lz4,
    Lzop,
    Compress,
    Brotli, ///< has no mark: never found by cvStreamKind()
};

/// By the first bytes; None when they are not those of a compressed stream.
CVStreamKind cvStreamKind(QByteArrayView head);

/// As in "tar (xz)".
QString cvStreamKindName(CVStreamKind kind);

/// Whether an end of the stream before its time is always noticed by the decoder. A stream of
/// compress(1) has neither an end mark nor a length.
bool cvStreamKnowsItsEnd(CVStreamKind kind);

/// No decoder may need more than this: the largest windows that the usual tools make without special
/// options (zstd --ultra: 128 MiB, xz -9: 64 MiB) fit twice, and what asks for more is made to exhaust.
inline constexpr quint64 cvDecoderMemoryLimit = quint64(320) << 20;

/// Buffered input of a decoder.
class CVDecoderInput
{
public:
    CVDecoderInput(const CVArchiveSource &source, qint64 offset);

    /// From a function that reads on: bytes given, 0 at the end, below zero when reading failed.
    using Read = std::function<qint64(char *to, qint64 bytes)>;
    explicit CVDecoderInput(Read read);

    /// What is buffered, read on when that is nothing; empty only at the end or after an error.
    std::span<const unsigned char> available();
    void consume(std::size_t bytes) { m_used += bytes; }

    /// At least this many bytes in one piece, fewer only at the end.
    std::span<const unsigned char> peek(std::size_t bytes);

    /// All or nothing.
    bool read(void *to, std::size_t bytes);

    bool atEnd() { return available().empty(); }
    bool failed() const { return m_failed; }

    /// Nothing but zero bytes up to the end: padding. Consumes them.
    bool onlyZerosLeft();

private:
    bool fill();

    Read m_read;
    std::vector<unsigned char> m_buffer;
    std::size_t m_used = 0;
    std::size_t m_filled = 0;
    bool m_failed = false;
};

/// Where a decoder puts its output.
class CVDecoderOutput
{
public:
    virtual ~CVDecoderOutput() = default;

    /// Room for output, never empty unless the decoder is to stop.
    virtual std::span<char> space() = 0;
    /// This many bytes of space() are filled.
    virtual void commit(std::size_t bytes) = 0;

    /// False when the decoder is to stop.
    bool put(const char *data, std::size_t bytes);
};

struct CVDecodeResult
{
    XADErrorCode code = XADErrorCode::None; ///< Stopped: the output wanted no more
    QString detail;
    /// The stream ended well, but bytes follow that are neither padding nor anything like another member.
    bool trailingGarbage = false;
};

/// To be asked where a member has ended: nothing when another one starts with `mark`, otherwise how
/// everything ended. What starts nearly like a member is one that was damaged.
std::optional<CVDecodeResult> cvEndAfterMember(CVDecoderInput &input, QByteArrayView mark);

/// Decodes everything from the current place of the input to its end: all members of a stream made of
/// several, with every check sum and length that the format has. Never throws but for lack of memory.
CVDecodeResult cvDecodeStream(CVStreamKind kind, CVDecoderInput &input, CVDecoderOutput &output);
