#pragma once

#include <QByteArray>

#include <cstdint>
#include <span>
#include <unordered_set>

/// Watches the bytes of a cpio archive go by and compares the check sums of the "crc" kind (070702),
/// which the decoder reads over. Other kinds have none and are not followed.
class CVCpioSums
{
public:
    void feed(std::span<const char> bytes);

    /// Whether the data of entry `ordinal` (counted from 0, its bytes fed completely) differ from their sum.
    bool isWrong(std::uint64_t ordinal) const { return m_wrong.contains(ordinal); }

private:
    enum class Part { Header, Name, Data, Ignored };

    void headerDone();
    void dataDone();

    Part m_part = Part::Header;
    QByteArray m_header;
    std::uint64_t m_left = 110; ///< bytes of this part
    std::uint64_t m_padding = 0;
    std::uint64_t m_size = 0;
    std::uint32_t m_expected = 0;
    std::uint32_t m_sum = 0;
    bool m_hasSum = false;
    std::uint64_t m_ordinal = 0;
    std::unordered_set<std::uint64_t> m_wrong;
};
