#include "util/LXDeflater.h"

#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>

namespace {

// How much a stored block can hold.
constexpr std::size_t maxStoredBytes = 65535;

const Bytef *bytes(const char *data)
{
    return reinterpret_cast<const Bytef *>(data);
}

bool isZeros(std::span<const char> data)
{
    return data.empty() || (data[0] == 0 && std::memcmp(data.data(), data.data() + 1, data.size() - 1) == 0);
}

} // namespace

void LXDeflater::Free::operator()(libdeflate_compressor *compressor) const
{
    libdeflate_free_compressor(compressor);
}

LXDeflater::LXDeflater(int level)
    : m_compressor(libdeflate_alloc_compressor(level))
{
    if (!m_compressor)
        throw std::bad_alloc();
}

LXDeflater::~LXDeflater()
{
    if (m_inflater)
        inflateEnd(m_inflater.get());
}

std::size_t LXDeflater::whole(std::span<const char> plain, char *to, std::size_t room)
{
    return libdeflate_deflate_compress(m_compressor.get(), plain.data(), plain.size(), to, room);
}

std::size_t LXDeflater::bound(std::size_t plainBytes) const
{
    return libdeflate_deflate_compress_bound(m_compressor.get(), plainBytes);
}

void LXDeflater::piece(std::span<const char> plain, std::vector<char> &to)
{
    const bool zeros = plain.size() > maxStoredBytes && isZeros(plain);
    if (zeros && plain.size() == m_zeroSize) {
        to = m_zeros;
        return;
    }
    to.resize(bound(plain.size()));
    to.resize(whole(plain, to.data(), to.size()));
    if (to.empty() || to.size() >= plain.size() || !openEnd(to)) {
        to.clear();
        appendStored(plain, to);
    }
    if (zeros) {
        m_zeros = to;
        m_zeroSize = plain.size();
    }
}

void LXDeflater::appendStored(std::span<const char> plain, std::vector<char> &to)
{
    for (std::size_t at = 0; at < plain.size();) {
        const std::size_t size = std::min(maxStoredBytes, plain.size() - at);
        const auto low = static_cast<char>(size & 0xff);
        const auto high = static_cast<char>(size >> 8);
        const char header[5] = {0, low, high, static_cast<char>(~low), static_cast<char>(~high)};
        to.insert(to.end(), header, header + sizeof header);
        to.insert(to.end(), plain.begin() + static_cast<std::ptrdiff_t>(at),
                  plain.begin() + static_cast<std::ptrdiff_t>(at + size));
        at += size;
    }
}

/// The library marks the last block of what it makes as the last of the stream. Only a decoder knows where
/// that block begins, so one is run over it; zlib stops at every block if asked to.
bool LXDeflater::openEnd(std::vector<char> &deflated)
{
    constexpr std::size_t scratchBytes = std::size_t(256) << 10;
    if (!m_inflater) {
        auto inflater = std::make_unique<z_stream>();
        if (inflateInit2(inflater.get(), -MAX_WBITS) != Z_OK)
            throw std::bad_alloc();
        m_inflater = std::move(inflater);
        m_scratch.resize(scratchBytes);
    }
    z_stream &stream = *m_inflater;
    if (inflateReset(&stream) != Z_OK)
        return false;
    stream.next_in = const_cast<Bytef *>(bytes(deflated.data()));
    stream.avail_in = static_cast<uInt>(deflated.size());
    std::size_t lastBlock = 0; // in bits
    std::size_t unused = 0;    // bits behind the end
    for (;;) {
        stream.next_out = reinterpret_cast<Bytef *>(m_scratch.data());
        stream.avail_out = static_cast<uInt>(scratchBytes);
        const int result = inflate(&stream, Z_BLOCK);
        if (result == Z_STREAM_END)
            break;
        if (result != Z_OK)
            return false;
        // 128: at the end of a block; 64: that was the last one.
        if ((stream.data_type & 128) == 0)
            continue;
        unused = static_cast<std::size_t>(stream.data_type) & 7U;
        if ((stream.data_type & 64) == 0)
            lastBlock = (deflated.size() - stream.avail_in) * 8 - unused;
    }
    if (stream.avail_in != 0)
        return false;
    char &mark = deflated[lastBlock / 8];
    const int bit = 1 << (lastBlock % 8);
    if ((mark & bit) == 0)
        return false;
    mark = static_cast<char>(mark & ~bit);
    // An empty stored block takes the stream to a byte's end: three zero bits, the rest of the byte, a length
    // of zero and its complement. The bits behind the end are zero already.
    if (unused < 3)
        deflated.push_back(0);
    deflated.insert(deflated.end(), {0, 0, '\xff', '\xff'});
    return true;
}
