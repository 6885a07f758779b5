#include "archives/reading/CVLzopDecoder.h"

#include "archives/reading/CVReadingText.h"

#include <QtEndian>

#include <cstring>
#include <vector>

#include <lzo/lzo1x.h>
#include <zlib.h>

namespace {

constexpr char magic[] = "\x89LZO\0\r\n\x1a\n";
constexpr std::size_t magicBytes = 9;
// lzop itself makes and reads no larger blocks.
constexpr std::uint32_t maxBlockBytes = std::uint32_t(64) << 20;

enum Flag : std::uint32_t {
    Adler32OfData = 0x0001,
    Adler32OfPacked = 0x0002,
    ExtraField = 0x0040,
    Crc32OfData = 0x0100,
    Crc32OfPacked = 0x0200,
    MultiPart = 0x0400,
    Filter = 0x0800,
    HeaderCrc32 = 0x1000,
};

CVDecodeResult damaged(const char *what)
{
    return {XADErrorCode::Damaged, readingText(what), false};
}

std::uint32_t sumOf(bool crc, const std::vector<unsigned char> &bytes, std::size_t size)
{
    const auto length = static_cast<uInt>(size);
    return static_cast<std::uint32_t>(crc ? crc32(crc32(0, nullptr, 0), bytes.data(), length)
                                          : adler32(adler32(0, nullptr, 0), bytes.data(), length));
}

class Reader
{
public:
    Reader(CVDecoderInput &input, CVDecoderOutput &output)
        : m_input(input)
        , m_output(output)
    {}

    CVDecodeResult member()
    {
        CVDecodeResult header = readHeader();
        if (header.code != XADErrorCode::None)
            return header;
        for (;;) {
            std::uint32_t size = 0;
            if (!number(size))
                return early();
            if (size == 0)
                return {};
            CVDecodeResult block = readBlock(size);
            if (block.code != XADErrorCode::None)
                return block;
        }
    }

private:
    bool number(std::uint32_t &value)
    {
        if (!m_input.read(&value, sizeof value))
            return false;
        value = qFromBigEndian(value);
        return true;
    }

    /// Reads header bytes and remembers them for the header's check sum.
    bool headerNumber(std::size_t bytes, std::uint32_t &value)
    {
        const std::size_t at = m_header.size();
        m_header.resize(at + bytes);
        if (!m_input.read(m_header.data() + at, bytes))
            return false;
        value = 0;
        for (std::size_t i = at; i < m_header.size(); ++i)
            value = value << 8 | m_header[i];
        return true;
    }

    static CVDecodeResult early() { return damaged("The compressed data ends early."); }

    CVDecodeResult readHeader()
    {
        char start[magicBytes];
        if (!m_input.read(start, magicBytes) || std::memcmp(start, magic, magicBytes) != 0)
            return damaged("The compressed data is damaged.");
        m_header.clear();
        std::uint32_t version = 0, method = 0, ignored = 0, nameLength = 0, sum = 0;
        bool ok = headerNumber(2, version) && headerNumber(2, ignored);
        if (ok && version >= 0x0940)
            ok = headerNumber(2, ignored);
        ok = ok && headerNumber(1, method);
        if (ok && version >= 0x0940)
            ok = headerNumber(1, ignored);
        ok = ok && headerNumber(4, m_flags);
        if (ok && (m_flags & Filter) != 0)
            ok = headerNumber(4, ignored);
        ok = ok && headerNumber(4, ignored) && headerNumber(4, ignored); // mode, time
        if (ok && version >= 0x0940)
            ok = headerNumber(4, ignored);
        ok = ok && headerNumber(1, nameLength) && (nameLength == 0 || headerNumber(nameLength, ignored));
        if (!ok || !number(sum))
            return early();
        if (sum != sumOf((m_flags & HeaderCrc32) != 0, m_header, m_header.size()))
            return damaged("The header is damaged.");
        if (method < 1 || method > 3 || (m_flags & (Filter | MultiPart)) != 0)
            return {XADErrorCode::NotSupported, readingText("The compression method is not known."), false};
        if ((m_flags & ExtraField) != 0) {
            m_header.clear();
            std::uint32_t length = 0;
            if (!headerNumber(4, length) || length > maxBlockBytes)
                return early();
            if ((length > 0 && !headerNumber(length, ignored)) || !number(sum))
                return early();
            if (sum != sumOf((m_flags & HeaderCrc32) != 0, m_header, m_header.size()))
                return damaged("The header is damaged.");
        }
        return {};
    }

    CVDecodeResult readBlock(std::uint32_t size)
    {
        std::uint32_t packed = 0, adler = 0, crc = 0, packedAdler = 0, packedCrc = 0;
        if (!number(packed))
            return early();
        if (size > maxBlockBytes || packed > size || packed == 0)
            return damaged("The compressed data is damaged.");
        const bool stored = packed == size;
        if (((m_flags & Adler32OfData) != 0 && !number(adler)) ||
            ((m_flags & Crc32OfData) != 0 && !number(crc)))
            return early();
        if (!stored && (((m_flags & Adler32OfPacked) != 0 && !number(packedAdler)) ||
                        ((m_flags & Crc32OfPacked) != 0 && !number(packedCrc))))
            return early();
        m_packed.resize(packed);
        if (!m_input.read(m_packed.data(), packed))
            return early();
        if (!stored) {
            if (((m_flags & Adler32OfPacked) != 0 && packedAdler != sumOf(false, m_packed, packed)) ||
                ((m_flags & Crc32OfPacked) != 0 && packedCrc != sumOf(true, m_packed, packed)))
                return damaged("The compressed data is damaged.");
            m_data.resize(size);
            lzo_uint length = size;
            if (lzo1x_decompress_safe(m_packed.data(), packed, m_data.data(), &length, nullptr) != LZO_E_OK ||
                length != size)
                return damaged("The compressed data is damaged.");
        }
        const std::vector<unsigned char> &data = stored ? m_packed : m_data;
        if (((m_flags & Adler32OfData) != 0 && adler != sumOf(false, data, size)) ||
            ((m_flags & Crc32OfData) != 0 && crc != sumOf(true, data, size)))
            return damaged("The compressed data is damaged.");
        if (!m_output.put(reinterpret_cast<const char *>(data.data()), size))
            return {XADErrorCode::Stopped, {}, false};
        return {};
    }

    CVDecoderInput &m_input;
    CVDecoderOutput &m_output;
    std::uint32_t m_flags = 0;
    std::vector<unsigned char> m_header, m_packed, m_data;
};

} // namespace

CVDecodeResult cvDecodeLzop(CVDecoderInput &input, CVDecoderOutput &output)
{
    Reader reader(input, output);
    for (;;) {
        CVDecodeResult result = reader.member();
        if (result.code != XADErrorCode::None)
            return result;
        if (const auto end = cvEndAfterMember(input, QByteArrayView(magic, magicBytes)))
            return *end;
    }
}
