#include "archives/reading/CVRarHeaders.h"

#include "util/LXFileDescriptor.h"

#include <QFile>

#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>
#include <zlib.h>

namespace {

// The format's own limit for a RAR 5 header; RAR 4 headers have 16-bit sizes.
constexpr qint64 maxHeaderBytes = qint64(2) << 20;
// More entries than this no archive has; a chain of tiny blocks must not take forever.
constexpr std::size_t maxFiles = 4'000'000;

class Reader
{
public:
    explicit Reader(const QString &path)
        : m_fd(::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC))
    {
        struct stat info;
        if (m_fd.isOpen() && ::fstat(m_fd.get(), &info) == 0)
            m_size = info.st_size;
    }
    qint64 size() const { return m_size; }
    /// Empty when not all of it is there.
    QByteArray at(qint64 offset, qint64 size) const
    {
        if (offset < 0 || size < 0 || offset > m_size || size > m_size - offset)
            return {};
        QByteArray bytes(static_cast<qsizetype>(size), Qt::Uninitialized);
        qint64 got = 0;
        while (got < size) {
            const ssize_t n =
                ::pread(m_fd.get(), bytes.data() + got, static_cast<std::size_t>(size - got), offset + got);
            if (n <= 0)
                return {};
            got += n;
        }
        return bytes;
    }

private:
    LXFileDescriptor m_fd;
    qint64 m_size = -1;
};

std::uint64_t little(const QByteArray &bytes, qsizetype offset, int count)
{
    std::uint64_t value = 0;
    for (int i = 0; i < count; ++i)
        if (offset + i < bytes.size())
            value |= std::uint64_t(static_cast<unsigned char>(bytes[offset + i])) << (8 * i);
    return value;
}

std::uint32_t crcOf(QByteArrayView bytes)
{
    return static_cast<std::uint32_t>(
        ::crc32(0, reinterpret_cast<const Bytef *>(bytes.data()), static_cast<uInt>(bytes.size())));
}

/// RAR 5's variable-length numbers.
class Numbers
{
public:
    Numbers(const QByteArray &bytes, qsizetype at, qsizetype end)
        : m_bytes(bytes)
        , m_at(at)
        , m_end(std::min(end, bytes.size()))
    {}
    std::uint64_t next()
    {
        std::uint64_t value = 0;
        for (int shift = 0; shift < 64 && m_at < m_end; shift += 7) {
            const auto byte = static_cast<unsigned char>(m_bytes[m_at++]);
            value |= std::uint64_t(byte & 0x7f) << shift;
            if (!(byte & 0x80))
                return value;
        }
        ok = false;
        return 0;
    }
    std::uint64_t fixed(int count)
    {
        if (m_end - m_at < count) {
            ok = false;
            return 0;
        }
        const std::uint64_t value = little(m_bytes, m_at, count);
        m_at += count;
        return value;
    }
    void skip(std::uint64_t count)
    {
        if (count > std::uint64_t(m_end - m_at))
            ok = false;
        else
            m_at += static_cast<qsizetype>(count);
    }
    qsizetype at() const { return m_at; }
    bool atEnd() const { return m_at >= m_end; }
    bool ok = true;

private:
    const QByteArray &m_bytes;
    qsizetype m_at;
    qsizetype m_end;
};

class Parser
{
public:
    CVRarHeaders result;

    bool volume4(const Reader &file, qint64 offset, bool first)
    {
        offset += 7;
        while (offset < file.size()) {
            const QByteArray fixed = file.at(offset, 7);
            if (fixed.isEmpty())
                return fail("A block header is cut off.");
            const int type = static_cast<unsigned char>(fixed[2]);
            const auto flags = static_cast<unsigned>(little(fixed, 3, 2));
            const auto size = static_cast<qint64>(little(fixed, 5, 2));
            if (size < 7)
                return fail("A block header is too short.");
            const QByteArray header = file.at(offset, size);
            if (header.isEmpty())
                return fail("A block header is cut off.");
            const bool hasComment =
                type == 0x73 && (flags & 0x0002); // an old comment lies inside, outside of the CRC
            if (type != 0x72 && !hasComment &&
                (crcOf(QByteArrayView(header).sliced(2)) & 0xffff) != little(header, 0, 2)) {
                const bool fileComment = type == 0x74 && (flags & 0x0008);
                if (!fileComment && type >= 0x73 && type <= 0x7b)
                    return fail("The checksum of a header does not fit.");
            }
            qint64 data = (flags & 0x8000) ? static_cast<qint64>(little(header, 7, 4)) : 0;
            if (type == 0x73) {
                result.solid |= (flags & 0x0008) != 0;
                result.multiVolume |= (flags & 0x0001) != 0;
                if (flags & 0x0080) {
                    result.headersEncrypted = true;
                    return fail("The names are encrypted.");
                }
            } else if (type == 0x74 || type == 0x7a) {
                if (size < 32)
                    return fail("A file header is too short.");
                data = static_cast<qint64>(little(header, 7, 4));
                CVRarHeaders::File entry;
                entry.size = static_cast<qint64>(little(header, 11, 4));
                const auto host = static_cast<unsigned char>(header[15]);
                entry.crc32 = static_cast<std::uint32_t>(little(header, 16, 4));
                entry.version = static_cast<unsigned char>(header[24]);
                entry.stored = static_cast<unsigned char>(header[25]) == 0x30;
                const auto attributes = static_cast<std::uint32_t>(little(header, 28, 4));
                if (flags & 0x0100) {
                    if (size < 40)
                        return fail("A file header is too short.");
                    data |= static_cast<qint64>(little(header, 32, 4) << 32);
                    entry.size |= static_cast<qint64>(little(header, 36, 4) << 32);
                }
                if (entry.size == 0xffffffff && !(flags & 0x0100))
                    entry.size = -1;
                if (data < 0)
                    return fail("A size is out of range.");
                entry.encrypted = (flags & 0x0004) != 0;
                entry.isDirectory =
                    (flags & 0x00e0) == 0x00e0 || (host == 3 && (attributes & 0170000) == 0040000);
                entry.isLink = host == 3 && (attributes & 0170000) == 0120000;
                result.solid |= (flags & 0x0010) != 0;
                if (type == 0x74 && !add(entry, flags & 0x0001, flags & 0x0002))
                    return false;
            } else if (type == 0x7b) {
                m_nextVolume = (flags & 0x0001) != 0;
                m_sawEnd = true;
                return true;
            } else if (type < 0x72 || type > 0x7b) {
                // Padding or foreign data after the last block.
                return first && result.files.empty() ? fail("It holds no files.") : true;
            }
            offset += size + data;
        }
        return offset == file.size() || !m_openFile ? true : fail("The data is cut off.");
    }

    bool volume5(const Reader &file, qint64 offset)
    {
        offset += 8;
        while (offset < file.size()) {
            const QByteArray lead = file.at(offset, std::min<qint64>(file.size() - offset, 4 + 3));
            if (lead.size() < 6)
                return fail("A block header is cut off.");
            Numbers size(lead, 4, lead.size());
            const auto length = static_cast<qint64>(size.next());
            if (!size.ok || length <= 0 || length > maxHeaderBytes)
                return fail("A block header has no valid size.");
            const QByteArray header = file.at(offset, size.at() + length);
            if (header.isEmpty())
                return fail("A block header is cut off.");
            if (crcOf(QByteArrayView(header).sliced(4)) != little(header, 0, 4))
                return fail("The checksum of a header does not fit.");
            Numbers n(header, size.at(), header.size());
            const std::uint64_t type = n.next();
            const std::uint64_t flags = n.next();
            const std::uint64_t extra = (flags & 1) ? n.next() : 0;
            const std::uint64_t data = (flags & 2) ? n.next() : 0;
            if (!n.ok || data > std::uint64_t(1) << 62 || extra > std::uint64_t(header.size()))
                return fail("A block header is damaged.");
            if (type == 4) {
                result.headersEncrypted = true;
                return fail("The names are encrypted.");
            }
            if (type == 1) {
                const std::uint64_t archiveFlags = n.next();
                result.multiVolume |= (archiveFlags & 1) != 0;
                result.solid |= (archiveFlags & 4) != 0;
            } else if (type == 2) {
                CVRarHeaders::File entry;
                const std::uint64_t fileFlags = n.next();
                entry.size = static_cast<qint64>(n.next());
                n.next(); // attributes
                if (fileFlags & 2)
                    n.fixed(4);
                if (fileFlags & 4)
                    entry.crc32 = static_cast<std::uint32_t>(n.fixed(4));
                const std::uint64_t compression = n.next();
                n.next(); // host
                n.skip(n.next());
                if (!n.ok || entry.size < 0)
                    return fail("A file header is damaged.");
                if (fileFlags & 8)
                    entry.size = -1;
                entry.isDirectory = (fileFlags & 1) != 0;
                entry.stored = ((compression >> 7) & 7) == 0;
                entry.version = (compression & 0x3f) == 0 ? 50 : 70;
                Numbers records(header, header.size() - static_cast<qsizetype>(extra), header.size());
                while (!records.atEnd()) {
                    const std::uint64_t recordSize = records.next();
                    const qsizetype begin = records.at();
                    const std::uint64_t recordType = records.next();
                    if (!records.ok || recordSize < std::uint64_t(records.at() - begin))
                        return fail("A file header is damaged.");
                    entry.encrypted |= recordType == 1;
                    entry.isLink |= recordType == 5;
                    records.skip(recordSize - std::uint64_t(records.at() - begin));
                }
                if (!add(entry, flags & 8, flags & 16))
                    return false;
            } else if (type == 5) {
                m_nextVolume = (n.next() & 1) != 0;
                m_sawEnd = true;
                return true;
            }
            offset += header.size() + static_cast<qint64>(data);
        }
        return offset == file.size() ? true : fail("The data is cut off.");
    }

    bool fail(const char *why)
    {
        result.problem = QString::fromLatin1(why);
        return false;
    }

    bool ended() const { return !m_openFile && !(m_sawEnd && m_nextVolume); }

    void startVolume()
    {
        m_sawEnd = false;
        m_nextVolume = false;
    }

private:
    // A file that spans volumes has a header in each; the last one carries the checksum of the whole.
    bool add(const CVRarHeaders::File &entry, bool before, bool after)
    {
        if (before) {
            if (!m_openFile || result.files.empty()) {
                result.missingVolume = true;
                return fail("The set begins in the middle.");
            }
            result.files.back().crc32 = entry.crc32;
        } else {
            if (result.files.size() >= maxFiles)
                return fail("It holds too many files.");
            result.files.push_back(entry);
        }
        m_openFile = after;
        return true;
    }

    bool m_openFile = false;
    bool m_sawEnd = false;
    bool m_nextVolume = false;
};

} // namespace

CVRarHeaders CVRarHeaders::read(const QStringList &volumes, qint64 start)
{
    Parser parser;
    bool ok = true;
    for (qsizetype i = 0; i < volumes.size() && ok; ++i) {
        const Reader file(volumes[i]);
        const qint64 offset = i == 0 ? start : 0;
        const QByteArray mark =
            file.at(offset, std::min<qint64>(8, std::max<qint64>(file.size() - offset, 0)));
        parser.startVolume();
        if (mark.startsWith(QByteArrayView("Rar!\x1a\x07\x01\x00", 8))) {
            parser.result.rar5 = true;
            ok = parser.volume5(file, offset);
        } else if (mark.startsWith(QByteArrayView("Rar!\x1a\x07\x00", 7))) {
            ok = parser.volume4(file, offset, i == 0);
        } else {
            ok = parser.fail("A volume is not a rar file.");
        }
    }
    if (ok && !parser.ended()) {
        parser.result.missingVolume = true;
        ok = parser.fail("A volume is missing.");
    }
    parser.result.valid = ok;
    return std::move(parser.result);
}
