#include "archives/xar/CVXarDeflater.h"

#include <libdeflate.h>

#include <iterator>

namespace {

// The usual middle; above it time grows much faster than what is gained.
constexpr int level = 6;

void appendChecksum(std::uint32_t checksum, std::vector<char> &to)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        to.push_back(static_cast<char>(checksum >> shift));
}

} // namespace

CVXarDeflater::CVXarDeflater()
    : m_deflater(level)
{}

void CVXarDeflater::whole(std::span<const char> plain, std::vector<char> &to)
{
    to = head();
    const std::size_t begin = to.size();
    to.resize(begin + m_deflater.bound(plain.size()));
    to.resize(begin + m_deflater.whole(plain, to.data() + begin, to.size() - begin));
    appendChecksum(checksum(initialChecksum, plain), to);
}

void CVXarDeflater::piece(std::span<const char> plain, std::vector<char> &to)
{
    m_deflater.piece(plain, to);
}

std::vector<char> CVXarDeflater::stored(std::span<const char> plain)
{
    std::vector<char> out;
    LXDeflater::appendStored(plain, out);
    return out;
}

std::vector<char> CVXarDeflater::head()
{
    return {'\x78', '\x9c'};
}

std::vector<char> CVXarDeflater::end(std::uint32_t checksum)
{
    std::vector<char> out(std::begin(LXDeflater::endOfPieces), std::end(LXDeflater::endOfPieces));
    appendChecksum(checksum, out);
    return out;
}

std::uint32_t CVXarDeflater::checksum(std::uint32_t before, std::span<const char> plain)
{
    return libdeflate_adler32(before, plain.data(), plain.size());
}
