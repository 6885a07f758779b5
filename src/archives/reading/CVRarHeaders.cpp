#include "archives/reading/CVRarHeaders.h"

#include "archives/reading/CVArchiveSource.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <QtEndian>

#include <algorithm>

#include <zlib.h>

namespace {

using namespace Qt::StringLiterals;

constexpr QByteArrayView signature4("Rar!\x1a\x07\0", 7);
constexpr QByteArrayView signature5("Rar!\x1a\x07\x01\0", 8);
// Headers hold a name and some records; the format allows 2 MiB.
constexpr qint64 maxHeaderBytes = qint64(2) << 20;
// A hostile file could otherwise fill the memory with headers of a few bytes.
constexpr std::size_t maxFiles = 4'000'000;
constexpr int maxVolumes = 10'000;

/// Little-endian fields of one header, never beyond its end.
class Fields
{
public:
    explicit Fields(QByteArrayView bytes)
        : m_bytes(bytes)
    {}

    bool isGood() const { return m_good; }
    qsizetype left() const { return m_bytes.size() - m_at; }

    template <typename T> T number()
    {
        if (left() < static_cast<qsizetype>(sizeof(T))) {
            m_good = false;
            return 0;
        }
        const T value = qFromLittleEndian<T>(m_bytes.data() + m_at);
        m_at += static_cast<qsizetype>(sizeof(T));
        return value;
    }

    /// Seven bits a byte, the last byte has its top bit clear.
    std::uint64_t varInt()
    {
        std::uint64_t value = 0;
        for (int shift = 0; shift < 70 && left() > 0; shift += 7) {
            const auto byte = static_cast<unsigned char>(m_bytes[m_at++]);
            if (shift < 64)
                value |= std::uint64_t(byte & 0x7f) << shift;
            if ((byte & 0x80) == 0)
                return value;
        }
        m_good = false;
        return 0;
    }

    QByteArrayView bytes(std::uint64_t size)
    {
        if (size > static_cast<std::uint64_t>(left())) {
            m_good = false;
            return {};
        }
        const QByteArrayView part = m_bytes.sliced(m_at, static_cast<qsizetype>(size));
        m_at += part.size();
        return part;
    }

private:
    QByteArrayView m_bytes;
    qsizetype m_at = 0;
    bool m_good = true;
};

std::uint32_t crcOf(QByteArrayView bytes)
{
    return static_cast<std::uint32_t>(
        ::crc32(0, reinterpret_cast<const Bytef *>(bytes.data()), static_cast<uInt>(bytes.size())));
}

class HeaderReader
{
public:
    HeaderReader(const CVArchiveSource &source, CVRarHeaders &result)
        : m_source(source)
        , m_result(result)
    {}

    using State = CVRarHeaders::State;

    /// One volume, from its signature at `start` up to `end`.
    State readVolume(qint64 start, qint64 end, bool first)
    {
        m_at = start;
        m_end = end;
        m_result.wantsNextVolume = false;
        const QByteArray mark = bytesAt(m_at, signature5.size());
        if (mark.startsWith("RE\x7e\x5e"))
            return State::Unsupported;
        const bool five = mark == signature5;
        if (!five && !mark.startsWith(signature4))
            return first ? State::NotRar : State::Damaged;
        const int generation = five ? 5 : 4;
        if (!first && generation != m_result.generation)
            return State::Damaged;
        m_result.generation = generation;
        m_at += five ? signature5.size() : signature4.size();
        bool ended = false;
        while (!ended) {
            if (m_at == m_end) {
                // Old archives have no end header; there, a file that goes on says so itself.
                if (five)
                    return State::Damaged;
                m_result.wantsNextVolume = !m_result.files.empty() && !m_result.files.back().isComplete;
                break;
            }
            const State state = five ? readBlock5(first, ended) : readBlock4(first, ended);
            if (state != State::Good)
                return state;
            if (m_result.files.size() > maxFiles)
                return State::Unsupported;
        }
        return State::Good;
    }

private:
    QByteArray bytesAt(qint64 offset, qint64 size) const
    {
        QByteArray bytes(std::clamp<qint64>(std::min(size, m_end - offset), 0, maxHeaderBytes),
                         Qt::Uninitialized);
        bytes.truncate(std::max<qint64>(m_source.readAt(offset, bytes.data(), bytes.size()), 0));
        return bytes;
    }

    /// Passes over header and data; false when they reach beyond the volume.
    bool advance(std::uint64_t header, std::uint64_t data)
    {
        const auto left = static_cast<std::uint64_t>(m_end - m_at);
        if (header > left || data > left - header)
            return false;
        m_at += static_cast<qint64>(header + data);
        return true;
    }

    void add(CVRarFile file, bool splitBefore, bool splitAfter)
    {
        file.isComplete = !splitAfter;
        if (splitBefore && !m_result.files.empty() && !m_result.files.back().isComplete) {
            // Only the last part has the check sum of the whole.
            CVRarFile &whole = m_result.files.back();
            whole.packedSize += file.packedSize;
            whole.crc32 = file.crc32;
            whole.isComplete = file.isComplete;
            whole.isEncrypted = whole.isEncrypted || file.isEncrypted;
            return;
        }
        if (splitBefore)
            m_result.isFirstVolume = false;
        m_result.files.push_back(std::move(file));
    }

    State readBlock4(bool first, bool &ended)
    {
        enum Type { Main = 0x73, File = 0x74, NewSub = 0x7a, End = 0x7b };
        const QByteArray start = bytesAt(m_at, 7);
        if (start.size() < 7)
            return State::Damaged;
        Fields base(start);
        const auto crc = base.number<std::uint16_t>();
        const int type = base.number<std::uint8_t>();
        const auto flags = base.number<std::uint16_t>();
        const auto size = base.number<std::uint16_t>();
        if (size < 7 || type < 0x72 || type > 0x7b)
            return State::Damaged;
        const QByteArray header = bytesAt(m_at, size);
        if (header.size() < size)
            return State::Damaged;
        const bool hasData = (flags & 0x8000) != 0 || type == File || type == NewSub;
        Fields fields(QByteArrayView(header).sliced(7));
        std::uint64_t dataSize = hasData ? fields.number<std::uint32_t>() : 0;
        if (type == Main || type == File) {
            // A comment inside the header is not part of its check sum.
            if ((flags & (type == Main ? 0x0002 : 0x0008)) != 0)
                return State::Unsupported;
            if ((crcOf(QByteArrayView(header).sliced(2)) & 0xffff) != crc)
                return State::Damaged;
        }
        if (type == Main) {
            m_result.isVolume = (flags & 0x0001) != 0;
            m_result.isSolid = (flags & 0x0008) != 0;
            if (first) {
                m_result.usesPartNumbers = (flags & 0x0010) != 0;
                m_result.isFirstVolume = !m_result.isVolume || (flags & 0x0100) != 0;
            }
            if ((flags & 0x0080) != 0)
                return State::HeadersEncrypted;
        } else if (type == File) {
            CVRarFile file;
            std::uint64_t unpacked = fields.number<std::uint32_t>();
            const int host = fields.number<std::uint8_t>();
            file.crc32 = fields.number<std::uint32_t>();
            fields.number<std::uint32_t>(); // time
            file.unpackVersion = fields.number<std::uint8_t>();
            file.isStored = fields.number<std::uint8_t>() == 0x30;
            const auto nameSize = fields.number<std::uint16_t>();
            fields.number<std::uint32_t>(); // attributes
            if ((flags & 0x0100) != 0) {
                dataSize |= std::uint64_t(fields.number<std::uint32_t>()) << 32;
                unpacked |= std::uint64_t(fields.number<std::uint32_t>()) << 32;
            }
            file.name = fields.bytes(nameSize).toByteArray();
            if (!fields.isGood() || dataSize >> 62 != 0 || unpacked >> 63 != 0)
                return State::Damaged;
            file.packedSize = static_cast<qint64>(dataSize);
            file.size = static_cast<qint64>(unpacked);
            file.isDirectory = (flags & 0x00e0) == 0x00e0;
            file.isEncrypted = (flags & 0x0004) != 0;
            file.isSolid = (flags & 0x0010) != 0;
            file.hasUnicodeName = (flags & 0x0200) != 0;
            file.isUnixHost = host == 3;
            add(std::move(file), (flags & 0x0001) != 0, (flags & 0x0002) != 0);
        } else if (type == End) {
            m_result.wantsNextVolume = (flags & 0x0001) != 0;
            ended = true;
            return State::Good;
        }
        return advance(size, dataSize) ? State::Good : State::Damaged;
    }

    State readBlock5(bool first, bool &ended)
    {
        enum Type { Main = 1, File = 2, Service = 3, Encryption = 4, End = 5 };
        const QByteArray start = bytesAt(m_at, 7);
        Fields base(start);
        const auto crc = base.number<std::uint32_t>();
        const std::uint64_t size = base.varInt();
        if (!base.isGood() || size == 0 || size > static_cast<std::uint64_t>(maxHeaderBytes) - 8)
            return State::Damaged;
        const qint64 sizeBytes = start.size() - base.left() - 4;
        const std::uint64_t headerSize = 4 + static_cast<std::uint64_t>(sizeBytes) + size;
        const QByteArray header = bytesAt(m_at, static_cast<qint64>(headerSize));
        if (static_cast<std::uint64_t>(header.size()) < headerSize ||
            crcOf(QByteArrayView(header).sliced(4)) != crc)
            return State::Damaged;
        Fields fields(QByteArrayView(header).sliced(4 + sizeBytes));
        const std::uint64_t type = fields.varInt();
        const std::uint64_t flags = fields.varInt();
        const std::uint64_t extraSize = (flags & 1) != 0 ? fields.varInt() : 0;
        const std::uint64_t dataSize = (flags & 2) != 0 ? fields.varInt() : 0;
        if (!fields.isGood())
            return State::Damaged;
        if (type == Encryption)
            return State::HeadersEncrypted;
        if (type == End) {
            m_result.wantsNextVolume = (fields.varInt() & 1) != 0;
            ended = true;
            return State::Good;
        }
        if (type == Main) {
            const std::uint64_t archiveFlags = fields.varInt();
            m_result.isVolume = (archiveFlags & 1) != 0;
            m_result.isSolid = (archiveFlags & 4) != 0;
            m_result.usesPartNumbers = true;
            const std::uint64_t number = (archiveFlags & 2) != 0 ? fields.varInt() : 0;
            if (first)
                m_result.isFirstVolume = number == 0;
        } else if (type == File && !readFile5(fields, flags, extraSize, dataSize)) {
            return State::Damaged;
        }
        return advance(headerSize, dataSize) ? State::Good : State::Damaged;
    }

    bool readFile5(Fields &fields, std::uint64_t flags, std::uint64_t extraSize, std::uint64_t dataSize)
    {
        CVRarFile file;
        const std::uint64_t fileFlags = fields.varInt();
        const std::uint64_t unpacked = fields.varInt();
        fields.varInt(); // attributes
        if ((fileFlags & 2) != 0)
            fields.number<std::uint32_t>(); // time
        if ((fileFlags & 4) != 0)
            file.crc32 = fields.number<std::uint32_t>();
        const std::uint64_t compression = fields.varInt();
        file.isUnixHost = fields.varInt() == 1;
        file.name = fields.bytes(fields.varInt()).toByteArray();
        if (!fields.isGood() || unpacked >> 62 != 0 || dataSize >> 62 != 0)
            return false;
        file.packedSize = static_cast<qint64>(dataSize);
        file.size = (fileFlags & 8) != 0 ? -1 : static_cast<qint64>(unpacked);
        file.isDirectory = (fileFlags & 1) != 0;
        file.unpackVersion = 50 + static_cast<int>(compression & 0x3f);
        file.isSolid = (compression & 0x40) != 0;
        file.isStored = (compression & 0x380) == 0;
        file.hasUnicodeName = true;
        Fields extra(fields.bytes(extraSize));
        if (!fields.isGood())
            return false;
        while (extra.left() > 0) {
            Fields record(extra.bytes(extra.varInt()));
            const std::uint64_t type = record.varInt();
            if (!extra.isGood() || !record.isGood())
                return false;
            if (type == 1) {
                file.isEncrypted = true;
            } else if (type == 5) {
                const std::uint64_t kind = record.varInt();
                record.varInt(); // flags
                file.linkTarget = record.bytes(record.varInt()).toByteArray();
                file.isRedirected = true;
                file.isFileCopy = kind == 5;
                if (!record.isGood())
                    return false;
            }
        }
        add(std::move(file), (flags & 0x08) != 0, (flags & 0x10) != 0);
        return true;
    }

    const CVArchiveSource &m_source;
    CVRarHeaders &m_result;
    qint64 m_at = 0;
    qint64 m_end = 0;
};

/// Keeps the case of the letters around it: "R00" after "RAR".
QString oldVolumeSuffix(const QString &rar, int index)
{
    const QChar letter(char16_t((rar[0].isUpper() ? 'R' : 'r') + index / 100));
    return u"%1%2"_s.arg(letter).arg(index % 100, 2, 10, QLatin1Char('0'));
}

const QRegularExpression &partPattern()
{
    static const QRegularExpression pattern(u"^(.*\\.part)(\\d+)(\\.[^./]+)$"_s,
                                            QRegularExpression::CaseInsensitiveOption |
                                                QRegularExpression::DotMatchesEverythingOption);
    return pattern;
}

QString partName(const QRegularExpressionMatch &match, int number)
{
    return match.captured(1) +
           QString::number(number).rightJustified(match.capturedLength(2), QLatin1Char('0')) +
           match.captured(3);
}

/// The parts of a set whose first one is a program end in .rar.
QString existing(const QString &path)
{
    if (QFileInfo::exists(path))
        return path;
    for (const QString &extension : {u".rar"_s, u".RAR"_s})
        if (const QString other = path.left(path.lastIndexOf(u'.')) + extension; QFileInfo::exists(other))
            return other;
    return {};
}

} // namespace

CVRarHeaders CVRarHeaders::read(const CVArchiveSource &source, qint64 offset)
{
    CVRarHeaders result;
    HeaderReader reader(source, result);
    std::vector<qint64> starts = source.starts();
    starts.push_back(source.size());
    for (std::size_t i = 0; i + 1 < starts.size(); ++i) {
        result.state = reader.readVolume(i == 0 ? offset : starts[i], starts[i + 1], i == 0);
        if (result.state != State::Good)
            break;
    }
    return result;
}

QString cvFirstRarVolume(const QString &path, bool usesPartNumbers)
{
    if (const auto match = partPattern().match(path); usesPartNumbers && match.hasMatch()) {
        const QString first = partName(match, 1);
        if (QFileInfo::exists(first))
            return first;
        const QString program = first.left(first.lastIndexOf(u'.')) + u".exe"_s;
        return QFileInfo::exists(program) ? program : first;
    }
    static const QRegularExpression old(u"\\.[r-z]\\d\\d$"_s, QRegularExpression::CaseInsensitiveOption);
    if (!usesPartNumbers && old.match(path).hasMatch()) {
        const QString stem = path.chopped(4);
        for (const QString &extension : {u".rar"_s, u".RAR"_s})
            if (QFileInfo::exists(stem + extension))
                return stem + extension;
    }
    return path;
}

QStringList cvRarVolumes(const QString &firstVolume, bool usesPartNumbers)
{
    QStringList volumes{firstVolume};
    const auto match = partPattern().match(firstVolume);
    const qsizetype dot = firstVolume.lastIndexOf(u'.');
    if (dot < 0 || (usesPartNumbers && !match.hasMatch()))
        return volumes;
    const int firstNumber = usesPartNumbers ? match.captured(2).toInt() + 1 : 0;
    const QString extension = firstVolume.mid(dot + 1);
    const QString style = extension.isEmpty() ? u"r"_s : extension;
    for (int i = 0; i < maxVolumes; ++i) {
        if (!usesPartNumbers && i >= 900)
            break;
        const QString next = usesPartNumbers ? existing(partName(match, firstNumber + i))
                                             : firstVolume.left(dot + 1) + oldVolumeSuffix(style, i);
        if (next.isEmpty() || !QFileInfo::exists(next))
            break;
        volumes << next;
    }
    return volumes;
}
