#include "util/LXBzip2Bits.h"

namespace LXBzip2 {

void Bits::append(const char *bytes, std::size_t from, std::size_t to)
{
    // Bit by bit up to a byte of the source, then whole bytes with one shift for all of them.
    const auto byteAt = [bytes](std::size_t index) { return static_cast<unsigned char>(bytes[index]); };
    if (from < to && from % 8 != 0) {
        const auto offset = static_cast<int>(from % 8);
        const auto count = static_cast<int>(std::min<std::size_t>(8 - offset, to - from));
        append(static_cast<std::uint64_t>(byteAt(from / 8)) >> (8 - offset - count), count);
        from += static_cast<std::size_t>(count);
    }
    const std::size_t whole = (to - from) / 8;
    const std::size_t first = from / 8;
    if (m_unused == 0) {
        m_bytes.append(bytes + first, whole);
    } else if (whole > 0) {
        const int up = 8 - m_unused;
        const std::size_t start = m_bytes.size();
        m_bytes.resize(start + whole);
        auto carry = static_cast<unsigned char>(m_bytes[start - 1]);
        for (std::size_t i = 0; i < whole; ++i) {
            const unsigned char byte = byteAt(first + i);
            m_bytes[start - 1 + i] = static_cast<char>(carry | (byte >> up));
            carry = static_cast<unsigned char>(byte << m_unused);
        }
        m_bytes.back() = static_cast<char>(carry);
    }
    from += whole * 8;
    if (from < to) {
        const auto count = static_cast<int>(to - from);
        append(static_cast<std::uint64_t>(byteAt(from / 8)) >> (8 - count), count);
    }
}

std::string Bits::takeWholeBytes()
{
    std::string taken;
    taken.swap(m_bytes);
    if (m_unused != 0) {
        m_bytes.push_back(taken.back());
        taken.pop_back();
    }
    return taken;
}

std::uint64_t bitsAt(const char *bytes, std::size_t at, int count)
{
    std::uint64_t value = 0;
    const std::size_t last = (at + static_cast<std::size_t>(count) + 7) / 8;
    for (std::size_t i = at / 8; i < last; ++i)
        value = value << 8 | static_cast<unsigned char>(bytes[i]);
    value >>= last * 8 - at - static_cast<std::size_t>(count);
    return value & ((std::uint64_t(1) << count) - 1);
}

Allocator::~Allocator()
{
    for (const auto &[size, address] : m_free)
        std::free(address);
}

void *Allocator::allocate(void *opaque, int items, int size)
{
    auto &self = *static_cast<Allocator *>(opaque);
    const std::size_t bytes = static_cast<std::size_t>(items) * static_cast<std::size_t>(size);
    if (const auto kept = self.m_free.find(bytes); kept != self.m_free.end()) {
        void *const address = kept->second;
        self.m_free.erase(kept);
        return address;
    }
    void *const address = std::malloc(bytes);
    if (address)
        self.m_sizes[address] = bytes;
    return address;
}

void Allocator::release(void *opaque, void *address)
{
    auto &self = *static_cast<Allocator *>(opaque);
    if (address)
        self.m_free.emplace(self.m_sizes.at(address), address);
}

} // namespace LXBzip2
