#include "archives/reading/CVRarHeaders.h"

#include "archives/reading/CVArchiveSource.h"

#include <QCryptographicHash>
#include <QtEndian>

#include <algorithm>

#include <zlib.h>

namespace {

constexpr QByteArrayView signature4("Rar!\x1a\x07\0", 7);
constexpr QByteArrayView signature5("Rar!\x1a\x07\x01\0", 8);
// Headers hold a name and some records; the format allows 2 MiB.
constexpr qint64 maxHeaderBytes = qint64(2) << 20;
// A hostile file could otherwise fill the memory with headers of a few bytes.
constexpr std::size_t maxFiles = 4'000'000;
// RAR 4: of a comment, whose text is no part of the header's check sum.
constexpr qsizetype commentHeaderBytes = 13;

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
    HeaderReader(const CVArchiveSource &source, CVRarHeaders &result, CVRarKeys *keys)
        : m_source(source)
        , m_result(result)
        , m_keys(keys)
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
        m_encryption = {};
        m_seen = Seen::Nothing;
        while (m_seen != Seen::End) {
            if (m_at == m_end) {
                // Old archives have no end header; there, a file that goes on says so itself.
                if (five || m_result.files.empty() || m_hasModernFiles)
                    return State::Damaged;
                m_result.wantsNextVolume = !m_result.files.empty() && !m_result.files.back().isComplete;
                return State::Good;
            }
            const State state = five ? readBlock5(first) : readBlock4(first);
            if (state == State::Damaged && m_encryption.isNew)
                return State::PasswordWrongOrDamaged;
            if (state != State::Good)
                return state;
            if (m_result.files.size() > maxFiles)
                return State::Unsupported;
        }
        return isBlockHere(five) ? State::Damaged : State::Good;
    }

private:
    QByteArray bytesAt(qint64 offset, qint64 size) const
    {
        QByteArray bytes(std::clamp<qint64>(std::min(size, m_end - offset), 0, maxHeaderBytes),
                         Qt::Uninitialized);
        bytes.truncate(std::max<qint64>(m_source.readAt(offset, bytes.data(), bytes.size()), 0));
        return bytes;
    }

    /// The first bytes of the header that stands here, decrypted.
    QByteArray headerBytes(qint64 size)
    {
        if (!m_encryption.isOn)
            return bytesAt(m_at, size);
        const qint64 prefix = m_encryption.prefixBytes;
        const QByteArray before = bytesAt(m_at, prefix);
        const QByteArray secret = bytesAt(m_at + prefix, roundedUp(size));
        QByteArray key = m_encryption.key;
        QByteArray start = before;
        if (key.isEmpty()) {
            const CVRarKeys::Four *const keys = m_keys->four(before);
            if (!keys)
                return {};
            key = keys->key;
            start = keys->start;
        }
        return CVRarKeys::decrypt(key, start, secret.first(secret.size() / 16 * 16)).left(size);
    }

    std::uint64_t bytesInFile(std::uint64_t header) const
    {
        return m_encryption.isOn ? static_cast<std::uint64_t>(m_encryption.prefixBytes) +
                                       static_cast<std::uint64_t>(roundedUp(static_cast<qint64>(header)))
                                 : header;
    }

    static qint64 roundedUp(qint64 size) { return (size + 15) / 16 * 16; }

    /// Whether what follows the end is one more header with the right sum: then the end is none.
    bool isBlockHere(bool five)
    {
        if (m_at + 7 > m_end)
            return false;
        CVRarHeaders scratch;
        HeaderReader probe(m_source, scratch, m_keys);
        probe.m_at = m_at;
        probe.m_end = m_end;
        probe.m_encryption = m_encryption;
        probe.m_seen = Seen::Main;
        return (five ? probe.readBlock5(false) : probe.readBlock4(false)) == State::Good;
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
            whole.sums = file.sums;
            whole.encryption = file.encryption;
            whole.isComplete = file.isComplete;
            whole.isEncrypted = whole.isEncrypted || file.isEncrypted;
            return;
        }
        if (splitBefore)
            m_result.isFirstVolume = false;
        m_result.files.push_back(std::move(file));
    }

    State readBlock4(bool first)
    {
        enum Type { Main = 0x73, File = 0x74, Comment = 0x75, NewSub = 0x7a, End = 0x7b };
        const QByteArray start = headerBytes(7);
        if (start.size() < 7)
            return State::Damaged;
        Fields base(start);
        const auto crc = base.number<std::uint16_t>();
        const int type = base.number<std::uint8_t>();
        const auto flags = base.number<std::uint16_t>();
        const auto size = base.number<std::uint16_t>();
        if (size < 7 || type < Main || type > End || (m_seen == Seen::Nothing) != (type == Main))
            return State::Damaged;
        const QByteArray header = headerBytes(size);
        if (header.size() < size)
            return State::Damaged;
        const bool hasData = (flags & 0x8000) != 0 || type == File || type == NewSub;
        Fields fields(QByteArrayView(header).sliced(7));
        std::uint64_t dataSize = hasData ? fields.number<std::uint32_t>() : 0;
        // A comment inside the header is not part of its check sum.
        if ((type == Main && (flags & 0x0002) != 0) || (type == File && (flags & 0x0008) != 0))
            return State::Unsupported;
        const qsizetype summed = type == Comment ? std::min<qsizetype>(size, commentHeaderBytes) : size;
        // What a recovery volume restored ends in zeros instead of an end header.
        const bool isRestoredEnd =
            type == End && (flags & 0x0004) != 0 && header.endsWith(QByteArray(7, '\0'));
        if ((crcOf(QByteArrayView(header).sliced(2, summed - 2)) & 0xffff) != crc && !isRestoredEnd)
            return State::Damaged;
        m_encryption.isNew = false;
        if (type == Main) {
            m_seen = Seen::Main;
            m_result.isVolume = (flags & 0x0001) != 0;
            m_result.isSolid = (flags & 0x0008) != 0;
            if (first) {
                m_result.usesPartNumbers = (flags & 0x0010) != 0;
                // The mark came with the names that have part numbers; before, only a cut file tells.
                m_result.isFirstVolume =
                    !m_result.isVolume || (flags & 0x0100) != 0 || !m_result.usesPartNumbers;
            }
            if ((flags & 0x0080) != 0) {
                if (!m_keys)
                    return State::HeadersEncrypted;
                m_at += size;
                m_encryption = {.isOn = true, .isNew = true, .prefixBytes = 8};
                return State::Good;
            }
        } else if (type == File) {
            CVRarFile file;
            std::uint64_t unpacked = fields.number<std::uint32_t>();
            const int host = fields.number<std::uint8_t>();
            file.sums.crc32 = fields.number<std::uint32_t>();
            fields.number<std::uint32_t>(); // time
            file.unpackVersion = fields.number<std::uint8_t>();
            m_hasModernFiles = m_hasModernFiles || file.unpackVersion >= 29;
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
            m_seen = Seen::End;
        }
        return advance(bytesInFile(size), dataSize) ? State::Good : State::Damaged;
    }

    State readBlock5(bool first)
    {
        enum Type { Main = 1, File = 2, Service = 3, Encryption = 4, End = 5 };
        const QByteArray start = headerBytes(7);
        Fields base(start);
        const auto crc = base.number<std::uint32_t>();
        const std::uint64_t size = base.varInt();
        if (!base.isGood() || size == 0 || size > static_cast<std::uint64_t>(maxHeaderBytes) - 8)
            return State::Damaged;
        const qint64 sizeBytes = start.size() - base.left() - 4;
        const std::uint64_t headerSize = 4 + static_cast<std::uint64_t>(sizeBytes) + size;
        const QByteArray header = headerBytes(static_cast<qint64>(headerSize));
        if (static_cast<std::uint64_t>(header.size()) < headerSize ||
            crcOf(QByteArrayView(header).sliced(4)) != crc)
            return State::Damaged;
        Fields fields(QByteArrayView(header).sliced(4 + sizeBytes));
        const std::uint64_t type = fields.varInt();
        const std::uint64_t flags = fields.varInt();
        const std::uint64_t extraSize = (flags & 1) != 0 ? fields.varInt() : 0;
        const std::uint64_t dataSize = (flags & 2) != 0 ? fields.varInt() : 0;
        if (!fields.isGood() || type < Main || type > End)
            return State::Damaged;
        if ((m_seen == Seen::Nothing) != (type == Main || type == Encryption))
            return State::Damaged;
        if (type == Encryption)
            return readEncryption5(fields, static_cast<qint64>(headerSize));
        m_encryption.isNew = false;
        if (type == End) {
            m_result.wantsNextVolume = (fields.varInt() & 1) != 0;
            m_seen = Seen::End;
        } else if (type == Main) {
            m_seen = Seen::Main;
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
        return advance(bytesInFile(headerSize), dataSize) ? State::Good : State::Damaged;
    }

    /// The header that says how those after it are encrypted.
    State readEncryption5(Fields &fields, qint64 headerSize)
    {
        if (m_encryption.isOn)
            return State::Damaged;
        if (!m_keys)
            return State::HeadersEncrypted;
        if (fields.varInt() != 0)
            return State::Unsupported;
        CVRarEncryption encryption;
        if (!readEncryption(fields, encryption, 0))
            return State::Damaged;
        const CVRarKeys::Five *const keys = m_keys->five(encryption.roundsLog2, encryption.salt);
        if (!keys)
            return State::Unsupported;
        if (!encryption.check.isEmpty() && encryption.check != keys->check)
            return State::PasswordWrong;
        m_encryption = {
            .isOn = true, .isNew = encryption.check.isEmpty(), .prefixBytes = 16, .key = keys->key};
        m_at += headerSize;
        return State::Good;
    }

    /// The fields that headers and files have in common; `vectorBytes` is what stands before the check value.
    static bool readEncryption(Fields &fields, CVRarEncryption &encryption, std::uint64_t vectorBytes)
    {
        const std::uint64_t flags = fields.varInt();
        encryption.roundsLog2 = fields.number<std::uint8_t>();
        encryption.salt = fields.bytes(16).toByteArray();
        fields.bytes(vectorBytes);
        encryption.isSumKeyed = (flags & 2) != 0;
        if ((flags & 1) != 0) {
            const QByteArray check = fields.bytes(8).toByteArray();
            const QByteArray sum = fields.bytes(4).toByteArray();
            if (QCryptographicHash::hash(check, QCryptographicHash::Sha256).startsWith(sum))
                encryption.check = check;
        }
        return fields.isGood();
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
            file.sums.crc32 = fields.number<std::uint32_t>();
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
                CVRarEncryption encryption;
                if (record.varInt() == 0 && readEncryption(record, encryption, 16))
                    file.encryption = encryption;
            } else if (type == 2) {
                if (record.varInt() == 0)
                    file.sums.blake2sp = record.bytes(32).toByteArray();
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

    enum class Seen : std::uint8_t { Nothing, Main, End };

    struct HeaderEncryption
    {
        bool isOn = false;
        bool isNew = false;     ///< no header has come out right so far
        qint64 prefixBytes = 0; ///< RAR 4: salt, RAR 5: initialisation vector, before each header
        QByteArray key = {};    ///< RAR 5
    };

    const CVArchiveSource &m_source;
    CVRarHeaders &m_result;
    CVRarKeys *m_keys;
    qint64 m_at = 0;
    qint64 m_end = 0;
    Seen m_seen = Seen::Nothing; ///< in this volume
    HeaderEncryption m_encryption;
    bool m_hasModernFiles = false; ///< RAR 4: by a version that always writes an end header
};

} // namespace

CVRarHeaders CVRarHeaders::read(const CVArchiveSource &source, qint64 offset, CVRarKeys *keys)
{
    CVRarHeaders result;
    HeaderReader reader(source, result, keys);
    std::vector<qint64> starts = source.starts();
    starts.push_back(source.size());
    for (std::size_t i = 0; i + 1 < starts.size(); ++i) {
        result.state = reader.readVolume(i == 0 ? offset : starts[i], starts[i + 1], i == 0);
        if (result.state != State::Good)
            break;
    }
    return result;
}
