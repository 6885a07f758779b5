#pragma once

#include "util/LXDeflater.h"

#include <cstdint>
#include <span>
#include <vector>

/// Compresses to zlib streams, whole or out of pieces that are compressed apart from each other, so that
/// several threads can work on one file. The result depends on the data alone.
/// A zlib stream of pieces is head(), pieces, end() of the checksum over all their plain data.
/// One thread each.
class CVXarDeflater
{
public:
    CVXarDeflater();

    /// A whole zlib stream. Replaces what `to` held, as all of these.
    void whole(std::span<const char> plain, std::vector<char> &to);

    /// Deflate blocks, none of them the last, that end at a byte.
    void piece(std::span<const char> plain, std::vector<char> &to);

    /// The same without compression, for padding to an exact size.
    static std::vector<char> stored(std::span<const char> plain);

    static std::vector<char> head();
    static std::vector<char> end(std::uint32_t checksum);
    /// Begins with initialChecksum.
    static std::uint32_t checksum(std::uint32_t before, std::span<const char> plain);
    static constexpr std::uint32_t initialChecksum = 1;

private:
    LXDeflater m_deflater;
};
