#include "archives/reading/CVCompressDecoder.h"

#include "archives/reading/CVReadingText.h"

#include <algorithm>
#include <array>
#include <vector>

namespace {

constexpr int maxWidth = 16;
constexpr int minWidth = 9;
constexpr std::uint32_t clearCode = 256;

CVDecodeResult damaged(const char *what)
{
    return {XADErrorCode::Damaged, readingText(what), false};
}

/// Codes come in groups of eight, so a group has as many bytes as a code has bits; when the width
/// changes, what is left of the group is padding.
class CodeReader
{
public:
    explicit CodeReader(CVDecoderInput &input)
        : m_input(input)
    {}

    int width = minWidth;
    bool cut = false; ///< the last group ended inside a code

    /// False at the end.
    bool next(std::uint32_t &code)
    {
        if (m_bit + width > m_bits && !fillGroup())
            return false;
        code = 0;
        for (int got = 0; got < width;) {
            const int at = m_bit + got;
            const int take = std::min(8 - at % 8, width - got);
            const auto piece =
                static_cast<std::uint32_t>(m_group[static_cast<std::size_t>(at / 8)] >> (at % 8)) &
                ((1U << take) - 1);
            code |= piece << got;
            got += take;
        }
        m_bit += width;
        return true;
    }

    void dropGroup() { m_bit = m_bits = 0; }

private:
    bool fillGroup()
    {
        // compress(1) ends its last group at the byte that completes the last code.
        cut = cut || m_bits - m_bit >= 8;
        for (int i = m_bit; i < m_bits; ++i)
            cut = cut || ((m_group[static_cast<std::size_t>(i / 8)] >> (i % 8)) & 1) != 0;
        const auto bytes = m_input.peek(static_cast<std::size_t>(width));
        std::copy(bytes.begin(), bytes.end(), m_group.begin());
        m_input.consume(bytes.size());
        m_bit = 0;
        m_bits = static_cast<int>(bytes.size()) * 8;
        if (m_bits >= width)
            return true;
        cut = cut || m_bits > 0;
        return false;
    }

    CVDecoderInput &m_input;
    std::array<unsigned char, maxWidth> m_group = {};
    int m_bit = 0;
    int m_bits = 0;
};

} // namespace

CVDecodeResult cvDecodeCompress(CVDecoderInput &input, CVDecoderOutput &output)
{
    unsigned char header[3];
    if (!input.read(header, sizeof header))
        return damaged("The compressed data ends early.");
    const int lastWidth = header[2] & 0x1f;
    const bool clears = (header[2] & 0x80) != 0;
    if (header[0] != 0x1f || header[1] != 0x9d || lastWidth < minWidth || lastWidth > maxWidth)
        return damaged("The compressed data is damaged.");

    const std::uint32_t tableEnd = 1U << lastWidth;
    std::vector<std::uint16_t> prefix(tableEnd);
    std::vector<unsigned char> suffix(tableEnd);
    std::vector<unsigned char> reversed;
    const std::uint32_t firstFree = clears ? clearCode + 1 : clearCode;
    std::uint32_t free = firstFree;
    constexpr std::uint32_t none = ~0U;
    std::uint32_t previous = none;
    unsigned char first = 0;

    CodeReader reader(input);
    std::uint32_t code = 0;
    auto out = output.space();
    std::size_t used = 0;
    while (reader.next(code)) {
        if (clears && code == clearCode) {
            free = firstFree;
            previous = none;
            reader.width = minWidth;
            reader.dropGroup();
            continue;
        }
        if (code > free || (code == free && previous == none) || (previous == none && code > 255))
            return damaged("The compressed data is damaged.");
        reversed.clear();
        std::uint32_t at = code;
        if (code == free) {
            // The code that is being defined right now: its string starts and ends with the same byte.
            reversed.push_back(first);
            at = previous;
        }
        while (at > 255) {
            reversed.push_back(suffix[at]);
            at = prefix[at];
        }
        first = static_cast<unsigned char>(at);
        reversed.push_back(first);

        for (auto c = reversed.rbegin(); c != reversed.rend(); ++c) {
            if (used == out.size()) {
                output.commit(used);
                out = output.space();
                used = 0;
                if (out.empty())
                    return {XADErrorCode::Stopped, {}, false};
            }
            out[used++] = static_cast<char>(*c);
        }

        if (previous != none && free < tableEnd) {
            prefix[free] = static_cast<std::uint16_t>(previous);
            suffix[free] = first;
            ++free;
            if (free == (1U << reader.width) && reader.width < lastWidth) {
                ++reader.width;
                reader.dropGroup();
            }
        }
        previous = code;
    }
    output.commit(used);
    if (input.failed())
        return damaged("The file cannot be read.");
    return reader.cut ? damaged("The compressed data ends early.") : CVDecodeResult{};
}
