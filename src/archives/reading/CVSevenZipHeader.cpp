#include "archives/reading/CVSevenZipHeader.h"

#include <QtEndian>

#include <libdeflate.h>

#include <algorithm>

namespace {

constexpr qint64 startHeaderSize = 32;
/// The directory of a 7z with several million entries; the module holds it in memory as a whole.
constexpr quint64 maximumDirectoryBytes = 256 * 1024 * 1024;

enum Record : quint8 {
    End = 0,
    Header = 1,
    PackInfo = 6,
    UnpackInfo = 7,
    Sizes = 9,
    Folders = 11,
    UnpackSizes = 12,
    PackedHeader = 23
};

/// Reads the records of a 7z directory. Past the end or out of range everything is 0 and isBad.
class DirectoryReader
{
public:
    explicit DirectoryReader(QByteArrayView data)
        : m_data(data)
    {}

    bool isBad() const { return m_isBad; }
    quint8 byte()
    {
        m_isBad = m_isBad || m_at >= m_data.size();
        return m_isBad ? 0 : quint8(m_data[m_at++]);
    }
    void skip(quint64 bytes)
    {
        m_isBad = m_isBad || bytes > quint64(m_data.size() - m_at);
        m_at += m_isBad ? 0 : qsizetype(bytes);
    }
    /// The leading ones of the first byte say how many bytes follow; its other bits are the highest.
    quint64 number()
    {
        const quint8 first = byte();
        quint64 value = 0;
        quint8 mask = 0x80;
        for (int i = 0; i < 8; ++i, mask >>= 1) {
            if (!(first & mask))
                return value | quint64(first & (mask - 1)) << (8 * i);
            value |= quint64(byte()) << (8 * i);
        }
        return value;
    }
    /// A number of things of which each takes at least a byte here.
    quint64 count()
    {
        const quint64 value = number();
        m_isBad = m_isBad || value > quint64(m_data.size());
        return m_isBad ? 0 : value;
    }

private:
    QByteArrayView m_data;
    qsizetype m_at = 0;
    bool m_isBad = false;
};

/// Passes over the description of one folder; the number of streams that come out of its coders.
quint64 skipFolder(DirectoryReader &reader)
{
    quint64 in = 0;
    quint64 out = 0;
    for (quint64 coders = reader.count(); coders > 0 && !reader.isBad(); --coders) {
        const quint8 kind = reader.byte();
        reader.skip(kind & 0x0F);
        in += kind & 0x10 ? reader.count() : 1;
        out += kind & 0x10 ? reader.count() : 1;
        if (kind & 0x20)
            reader.skip(reader.count());
    }
    const quint64 bonds = out > 0 ? out - 1 : 0;
    for (quint64 i = 0; i < 2 * bonds && !reader.isBad(); ++i)
        (void)reader.number();
    for (quint64 i = bonds; in > bonds + 1 && i < in && !reader.isBad(); ++i)
        (void)reader.number();
    return out;
}

/// How large a packed directory says that it becomes; 0 when it does not make sense (the module finds out
/// which).
quint64 sizeOfPackedDirectory(QByteArrayView description)
{
    DirectoryReader reader(description);
    if (reader.byte() != PackedHeader || reader.byte() != PackInfo)
        return 0;
    (void)reader.number();
    const quint64 streams = reader.count();
    if (reader.byte() != Sizes)
        return 0;
    for (quint64 i = 0; i < streams && !reader.isBad(); ++i)
        (void)reader.number();
    if (reader.byte() != End || reader.byte() != UnpackInfo || reader.byte() != Folders)
        return 0;
    const quint64 folders = reader.count();
    if (reader.byte() != 0)
        return 0;
    quint64 outputs = 0;
    for (quint64 i = 0; i < folders && !reader.isBad(); ++i)
        outputs += skipFolder(reader);
    if (reader.byte() != UnpackSizes)
        return 0;
    quint64 largest = 0;
    for (quint64 i = 0; i < outputs && !reader.isBad(); ++i)
        largest = std::max(largest, reader.number());
    return reader.isBad() ? 0 : largest;
}

quint32 checksumAt(const CVSevenZipSource &source, qint64 offset, qint64 size)
{
    constexpr qint64 block = 1024 * 1024;
    quint32 crc = 0;
    for (qint64 at = 0; at < size; at += block) {
        const QByteArray bytes = source.readAt(offset + at, std::min(block, size - at));
        crc = libdeflate_crc32(crc, bytes.constData(), std::size_t(bytes.size()));
    }
    return crc;
}

} // namespace

CVSevenZipHeader cvSevenZipCheckHeader(const CVSevenZipSource &source, qint64 offset)
{
    using enum CVSevenZipHeader;
    constexpr qint64 mostDescription = 64 * 1024; // a real one has some dozen bytes
    const QByteArray start = source.readAt(offset, startHeaderSize);
    if (start.size() < startHeaderSize)
        return TooShort;
    if (start[6] != 0)
        return OtherVersion;
    const char *const where = start.constData() + 12;
    const auto at = qFromLittleEndian<quint64>(where);
    const auto size = qFromLittleEndian<quint64>(where + 8);
    const auto checksum = qFromLittleEndian<quint32>(where + 16);
    // A writer that was stopped leaves all of it empty; the module looks for a directory then, and says so.
    if (std::all_of(start.begin() + 8, start.end(), [](char c) { return c == 0; }))
        return Whole;
    if (libdeflate_crc32(0, where, 20) != qFromLittleEndian<quint32>(start.constData() + 8))
        return Damaged;
    if (size == 0)
        return Whole; // no entries
    const auto room = quint64(source.size() - offset - startHeaderSize);
    if (at > room || size > room - at)
        return TooShort;
    if (size > maximumDirectoryBytes)
        return TooLarge;
    const qint64 directory = offset + startHeaderSize + qint64(at);
    if (checksumAt(source, directory, qint64(size)) != checksum)
        return Damaged;
    const QByteArray description = source.readAt(directory, std::min(qint64(size), mostDescription));
    if (description[0] != Header && description[0] != PackedHeader)
        return Damaged;
    return sizeOfPackedDirectory(description) > maximumDirectoryBytes ? TooLarge : Whole;
}
