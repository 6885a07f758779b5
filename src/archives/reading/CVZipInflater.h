#pragma once

#include <QString>

#include <functional>
#include <memory>

struct libdeflate_decompressor;

/// Undoes deflate for one worker, in two ways: whole in memory, about twice as fast as a stream, or as
/// a stream for what is too large for that.
/// Thread: one. The state is kept between entries, because making it costs more than a small file.
class CVZipInflater
{
public:
    enum class Result {
        Done,
        Damaged, ///< broken, longer or shorter than declared, or followed by something
        Stopped, ///< the receiver did not want more
        Unread,  ///< the source gave less than declared
    };

    /// Reads up to `size` bytes of packed data; 0 at the end, below zero on an error.
    using Source = std::function<qint64(char *to, qint64 size)>;
    /// Takes a block of unpacked data; false to stop.
    using Receiver = std::function<bool(const char *data, qint64 size)>;

    CVZipInflater();
    ~CVZipInflater();
    CVZipInflater(const CVZipInflater &) = delete;
    CVZipInflater &operator=(const CVZipInflater &) = delete;

    /// Unpacks exactly `packedSize` bytes to exactly `size`.
    Result inflateWhole(const char *packed, quint64 packedSize, char *to, quint64 size);

    /// The same block by block. Never hands on more than `size` bytes, whatever the stream holds.
    Result inflateStream(quint64 packedSize, quint64 size, const Source &source, const Receiver &receiver);

    /// Whether deflate can make `size` bytes of `packedSize` at all. Asked before any memory is given.
    static bool isPossible(quint64 packedSize, quint64 size);

private:
    struct Stream;
    struct FreeDecompressor
    {
        void operator()(libdeflate_decompressor *decompressor) const noexcept;
    };
    std::unique_ptr<libdeflate_decompressor, FreeDecompressor> m_decompressor;
    std::unique_ptr<Stream> m_stream;
};
