#include "archives/reading/CVCpioSums.h"

#include <algorithm>

namespace {

constexpr int headerBytes = 110;

std::uint64_t padding(std::uint64_t size)
{
    return (4 - size % 4) % 4;
}

} // namespace

void CVCpioSums::feed(std::span<const char> bytes)
{
    while (!bytes.empty() && m_part != Part::Ignored) {
        const auto n = static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), m_left + m_padding));
        const auto own = static_cast<std::size_t>(std::min<std::uint64_t>(n, m_left));
        if (m_part == Part::Header)
            m_header.append(bytes.data(), static_cast<qsizetype>(own));
        else if (m_part == Part::Data && m_hasSum)
            for (const char c : bytes.first(own))
                m_sum += static_cast<unsigned char>(c);
        m_left -= own;
        m_padding -= n - own;
        bytes = bytes.subspan(n);
        // A part without bytes ends together with the one before it.
        while (m_left + m_padding == 0 && m_part != Part::Ignored) {
            if (m_part == Part::Header) {
                headerDone();
            } else if (m_part == Part::Name) {
                m_part = Part::Data;
                m_left = m_size;
                m_padding = padding(m_size);
            } else {
                dataDone();
            }
        }
    }
}

void CVCpioSums::headerDone()
{
    bool good = m_header.startsWith("070702") || m_header.startsWith("070701");
    const auto field = [this, &good](qsizetype at) {
        bool ok = false;
        const std::uint32_t value = m_header.mid(at, 8).toUInt(&ok, 16);
        good = good && ok;
        return value;
    };
    const std::uint32_t mode = field(14);
    m_size = field(54);
    const std::uint32_t nameSize = field(94);
    m_expected = field(102);
    if (!good) {
        m_part = Part::Ignored;
        return;
    }
    // Only regular files are summed, and of several hard links only the one that carries the data.
    m_hasSum = m_header.startsWith("070702") && (mode & 0170000) == 0100000 && m_size > 0;
    m_sum = 0;
    m_part = Part::Name;
    m_left = nameSize;
    m_padding = padding(headerBytes + std::uint64_t(nameSize));
}

void CVCpioSums::dataDone()
{
    if (m_hasSum && m_sum != m_expected)
        m_wrong.insert(m_ordinal);
    ++m_ordinal;
    m_part = Part::Header;
    m_header.clear();
    m_left = headerBytes;
    m_padding = 0;
}
