#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

/// libbz2 refused; status() is what it returned.
class LXBzip2Error : public std::runtime_error
{
public:
    LXBzip2Error(const std::string &what, int status)
        : std::runtime_error(what)
        , m_status(status)
    {}
    int status() const noexcept { return m_status; }

private:
    int m_status;
};

/// Compresses to one bzip2 stream (block size 9, work factor 30) on all cores.
///
/// The bytes are those of libbz2's own stream that is flushed after every piece of input: a flush ends the
/// block, so a piece compresses to the same blocks by itself, and its blocks are joined to the stream
/// bit by bit, with the checksum of all.
/// Memory: about 12 MB a core and four pieces with their results.
/// Thread: one caller; `read` is called on its thread.
class LXBzip2Encoder
{
public:
    /// Fills the buffer and gives the number of bytes, fewer only at the end. May throw; next() throws on.
    using Read = std::function<std::size_t(char *buffer, std::size_t size)>;

    /// Zero threads: one a core.
    LXBzip2Encoder(Read read, std::size_t pieceBytes, unsigned threads = 0);
    ~LXBzip2Encoder();
    LXBzip2Encoder(const LXBzip2Encoder &) = delete;
    LXBzip2Encoder &operator=(const LXBzip2Encoder &) = delete;

    /// The part of the stream that the next piece ends, as far as it is whole bytes; after the last piece the
    /// end of the stream; then nothing, again and again. Throws LXBzip2Error.
    std::string next();

private:
    struct Private;
    std::unique_ptr<Private> d;
};
