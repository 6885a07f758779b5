#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

// What the parallel encoder and decoder of bzip2 streams share. A stream is a row of bits without
// byte boundaries: "BZh" and a level, blocks that begin with one mark, and an end that begins with
// another one.

namespace LXBzip2 {

constexpr std::uint64_t blockMark = 0x314159265359;
constexpr std::uint64_t endMark = 0x177245385090;
constexpr int markBits = 48;
constexpr int checksumBits = 32;
constexpr int headerBits = 32;

/// The stream's checksum after another block: `count` blocks whose own fold from zero is `fold`.
inline std::uint32_t foldChecksum(std::uint32_t stream, std::uint32_t fold, std::size_t count = 1)
{
    const unsigned turn = count % 32;
    const std::uint32_t turned = turn == 0 ? stream : (stream << turn) | (stream >> (32 - turn));
    return turned ^ fold;
}

/// A row of bits, the most significant one of each byte first.
class Bits
{
public:
    std::size_t size() const { return m_bytes.size() * 8 - static_cast<std::size_t>(m_unused); }

    /// The `count` (at most 64) low bits of `value`.
    void append(std::uint64_t value, int count)
    {
        while (count > 0) {
            if (m_unused == 0) {
                m_bytes.push_back('\0');
                m_unused = 8;
            }
            const int taken = count < m_unused ? count : m_unused;
            const auto bits = static_cast<unsigned>((value >> (count - taken)) & ((1U << taken) - 1));
            m_bytes.back() = static_cast<char>(static_cast<unsigned char>(m_bytes.back()) |
                                               static_cast<unsigned char>(bits << (m_unused - taken)));
            m_unused -= taken;
            count -= taken;
        }
    }

    /// The bits [from, to) of `bytes`.
    void append(const char *bytes, std::size_t from, std::size_t to);
    void append(const Bits &other) { append(other.m_bytes.data(), 0, other.size()); }

    /// Filled up with zeros.
    const std::string &bytes() const { return m_bytes; }
    /// Takes the whole bytes away; fewer than eight bits remain.
    std::string takeWholeBytes();

private:
    std::string m_bytes;
    int m_unused = 0; ///< bits of the last byte
};

/// The `count` (at most 57) bits of `bytes` from the bit `at` on. They have to be there.
std::uint64_t bitsAt(const char *bytes, std::size_t at, int count);

/// Keeps the few large buffers that libbz2 asks for from one block to the next: fresh ones cost as much in
/// page faults as the work itself. For one thread.
class Allocator
{
public:
    Allocator() = default;
    ~Allocator();
    Allocator(const Allocator &) = delete;
    Allocator &operator=(const Allocator &) = delete;

    // For bz_stream; `opaque` is the allocator.
    static void *allocate(void *opaque, int items, int size);
    static void release(void *opaque, void *address);

private:
    std::map<void *, std::size_t> m_sizes;
    std::multimap<std::size_t, void *> m_free;
};

} // namespace LXBzip2
