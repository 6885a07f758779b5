#pragma once

#include "util/LXBzip2Encoder.h"

#include <utility>

/// Decompresses one bzip2 stream on all cores.
///
/// A stream says nowhere where its blocks begin, so their mark is looked for at every bit. Bits that only
/// look like a mark are found out, for what comes before them does not decode; it is joined with what
/// follows then. Every block's checksum and that of the stream are compared.
/// Memory: a block in work and one in waiting for each core, with at most 4 MiB of output each beyond what
/// libbz2 needs (4 MB), however much a block unpacks to.
/// Thread: one caller; `write` is called on its thread, in order.
class LXBzip2Decoder
{
public:
    /// May throw; feed() and finish() throw on.
    using Write = std::function<void(const char *data, std::size_t size)>;

    /// Zero threads: one a core.
    explicit LXBzip2Decoder(Write write, unsigned threads = 0);
    ~LXBzip2Decoder();
    LXBzip2Decoder(const LXBzip2Decoder &) = delete;
    LXBzip2Decoder &operator=(const LXBzip2Decoder &) = delete;

    /// The bytes that belong to the stream: all but those behind its end. Throws LXBzip2Error, also when
    /// the stream had ended before (BZ_SEQUENCE_ERROR). Output may come with a later call.
    std::size_t feed(const char *data, std::size_t size);

    /// There is no more input: brings the rest of the output. A stream that is cut off is no error here;
    /// see hasEnded().
    void finish();

    /// The end of the stream was reached and its checksum is right.
    bool hasEnded() const;

    /// After LXBzip2Error: the bytes of the stream, up to the second one, among which the wrong ones are.
    std::pair<std::size_t, std::size_t> damage() const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};
