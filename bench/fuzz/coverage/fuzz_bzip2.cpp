// Our decoder finds the blocks by itself; what libbz2 makes of the same bytes has to agree.
#include "util/LXBzip2Decoder.h"

#include <bzlib.h>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

constexpr std::size_t mostOutput = 16 << 20;

/// Whether a whole stream stands at the beginning, and what it holds.
bool reference(const std::uint8_t *data, std::size_t size, std::string &out)
{
    bz_stream stream = {};
    BZ2_bzDecompressInit(&stream, 0, 0);
    stream.next_in = reinterpret_cast<char *>(const_cast<std::uint8_t *>(data));
    stream.avail_in = static_cast<unsigned>(size);
    int status = BZ_OK;
    std::string block(1 << 20, '\0');
    while (status == BZ_OK && out.size() < mostOutput) {
        stream.next_out = block.data();
        stream.avail_out = static_cast<unsigned>(block.size());
        status = BZ2_bzDecompress(&stream);
        out.append(block.data(), block.size() - stream.avail_out);
        if (status == BZ_OK && stream.avail_in == 0 && stream.avail_out != 0)
            break;
    }
    BZ2_bzDecompressEnd(&stream);
    return status == BZ_STREAM_END;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::string wanted;
    const bool isWhole = reference(data, size, wanted);
    if (wanted.size() >= mostOutput)
        return 0;
    std::string got;
    bool ended = false;
    try {
        LXBzip2Decoder decoder([&got](const char *bytes, std::size_t count) { got.append(bytes, count); }, 1);
        const auto *at = reinterpret_cast<const char *>(data);
        for (std::size_t done = 0; done < size;) {
            const std::size_t piece = std::min<std::size_t>(size - done, 1021);
            const std::size_t taken = decoder.feed(at + done, piece);
            done += taken;
            if (taken < piece)
                break;
        }
        decoder.finish();
        ended = decoder.hasEnded();
    } catch (const LXBzip2Error &) {
        ended = false;
    }
    if (isWhole != ended || (isWhole && got != wanted))
        std::abort();
    return 0;
}
