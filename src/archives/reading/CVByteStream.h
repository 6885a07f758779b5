#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <memory>

/// The unpacked bytes of one compressed file, one layer deep, read ahead by a thread of its own so that
/// decoding overlaps with what the reader of the bytes does.
///
/// Whatever the format can check is checked: a stream that ends early, a checksum that does not fit or
/// data that is not the format's end in state Damaged, never in a plain end.
/// Thread: next() from one thread; position() from any. The destructor ends the thread at once.
class CVByteStream
{
public:
    enum class Kind {
        None, ///< the bytes of the file as they are
        Gzip,
        Bzip2,
        Xz,
        Lzma,
        Lzip,
        Zstd,
        Lz4,
        Compress, ///< .Z
        Lzop,
        Brotli,
    };

    /// By the first bytes; Brotli, which has no mark, by the name.
    static Kind kindOf(const QByteArray &head, const QString &path);
    static const char *nameOf(Kind kind);

    /// A decoder takes no more memory than this, whatever window or dictionary the file asks for: xz -9
    /// needs 65 MiB, zstd --ultra 128 MiB.
    static constexpr std::uint64_t maxDecoderMemory = std::uint64_t(256) << 20;

    /// `offset`: where in the file the compressed stream begins.
    static std::unique_ptr<CVByteStream> open(const QString &path, Kind kind, qint64 offset = 0);

    virtual ~CVByteStream() = default;

    enum class State { Data, End, Damaged, NotSupported };
    /// The next bytes (at most 1 MiB), valid until the next call.
    virtual State next(QByteArray &bytes) = 0;
    /// Why Damaged or NotSupported.
    virtual QString errorText() const = 0;
    /// Bytes of the file taken so far.
    virtual qint64 position() const = 0;
};
