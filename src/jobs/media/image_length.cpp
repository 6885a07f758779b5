#include "jobs/media/image_length.h"

#include <QByteArray>

#include <algorithm>
#include <optional>

#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Numbers out of a file. Reading beyond its end gives zero and is remembered.
class Fields
{
public:
    explicit Fields(int descriptor)
        : m_descriptor(descriptor)
    {
        struct stat facts
        {};
        if (::fstat(descriptor, &facts) == 0)
            m_size = facts.st_size;
    }

    qint64 size() const { return m_size; }
    bool isBeyondEnd() const { return m_beyondEnd; }

    quint64 little(qint64 at, int bytes) { return number(at, bytes, true); }
    quint64 big(qint64 at, int bytes) { return number(at, bytes, false); }

    bool startsWith(QByteArrayView text)
    {
        for (qsizetype i = 0; i < text.size(); ++i)
            if (little(i, 1) != static_cast<unsigned char>(text[i]))
                return false;
        return true;
    }

private:
    quint64 number(qint64 at, int bytes, bool isLittle)
    {
        if (at < 0 || at > m_size - bytes) {
            m_beyondEnd = true;
            return 0;
        }
        if (at < m_from || at + bytes > m_from + m_piece.size()) {
            m_piece.resize(64 * 1024);
            const ssize_t got =
                ::pread(m_descriptor, m_piece.data(), static_cast<std::size_t>(m_piece.size()), at);
            m_piece.resize(std::max<ssize_t>(got, 0));
            m_from = at;
            if (m_piece.size() < bytes) {
                m_beyondEnd = true;
                return 0;
            }
        }
        quint64 value = 0;
        for (int i = 0; i < bytes; ++i) {
            const int place = isLittle ? bytes - 1 - i : i;
            value = value << 8 | static_cast<unsigned char>(m_piece[at - m_from + place]);
        }
        return value;
    }

    int m_descriptor;
    qint64 m_size = 0;
    QByteArray m_piece;
    qint64 m_from = 0;
    bool m_beyondEnd = false;
};

qint64 signedNumber(quint64 value)
{
    return static_cast<qint32>(static_cast<quint32>(value));
}

bool isBmpCutOff(Fields &file)
{
    const bool isPlain = file.little(14, 4) >= 40 && (file.little(30, 4) == 0 || file.little(30, 4) == 3);
    const qint64 width = signedNumber(file.little(18, 4));
    const qint64 height = std::abs(signedNumber(file.little(22, 4)));
    const qint64 row = (width * static_cast<qint64>(file.little(28, 2)) + 31) / 32 * 4;
    const auto start = static_cast<qint64>(file.little(10, 4));
    return file.isBeyondEnd() || (isPlain && width > 0 && height > 0 && row > (file.size() - start) / height);
}

bool isGifCutOff(Fields &file)
{
    const auto paletteBytes = [](quint64 flags) {
        return flags & 0x80 ? qint64{3} << ((flags & 7) + 1) : qint64{0};
    };
    const auto afterBlocks = [&file](qint64 at) {
        while (const auto length = static_cast<qint64>(file.little(at, 1)))
            at += length + 1;
        return at + 1;
    };
    qint64 at = 13 + paletteBytes(file.little(10, 1));
    while (!file.isBeyondEnd()) {
        const quint64 kind = file.little(at, 1);
        if (kind == 0x21) {
            at = afterBlocks(at + 2);
        } else if (kind == 0x2c) {
            afterBlocks(at + 11 + paletteBytes(file.little(at + 9, 1)));
            return file.isBeyondEnd();
        } else {
            return true;
        }
    }
    return true;
}

bool isSgiCutOff(Fields &file)
{
    const quint64 dimensions = file.big(4, 2);
    const qint64 rows = dimensions >= 2 ? static_cast<qint64>(file.big(8, 2)) : 1;
    const qint64 channels = dimensions >= 3 ? static_cast<qint64>(file.big(10, 2)) : 1;
    const auto row = static_cast<qint64>(file.big(6, 2) * file.big(3, 1));
    constexpr qint64 header = 512;
    if (file.big(2, 1) == 0)
        return file.isBeyondEnd() || file.size() - header < row * rows * channels;
    const qint64 count = rows * channels;
    for (qint64 i = 0; i < count && !file.isBeyondEnd(); ++i)
        if (file.big(header + i * 4, 4) + file.big(header + (count + i) * 4, 4) >
            static_cast<quint64>(file.size()))
            return true;
    return file.isBeyondEnd();
}

bool isPsdCutOff(Fields &file)
{
    const bool isLarge = file.big(4, 2) == 2;
    const qint64 rows = static_cast<qint64>(file.big(12, 2) * file.big(14, 4));
    const qint64 row = (static_cast<qint64>(file.big(18, 4)) * static_cast<qint64>(file.big(22, 2)) + 7) / 8;
    qint64 at = 26;
    for (const int lengthBytes : {4, 4, isLarge ? 8 : 4}) { // palette, resources, layers
        const quint64 length = file.big(at, lengthBytes);
        if (file.isBeyondEnd() || length > static_cast<quint64>(file.size()))
            return true;
        at += lengthBytes + static_cast<qint64>(length);
    }
    const quint64 compression = file.big(at, 2);
    at += 2;
    if (file.isBeyondEnd())
        return true;
    if (compression == 0)
        return rows > 0 && row > (file.size() - at) / rows;
    if (compression != 1)
        return false;
    const int countBytes = isLarge ? 4 : 2;
    quint64 packed = 0;
    for (qint64 i = 0; i < rows && !file.isBeyondEnd(); ++i)
        packed += file.big(at + i * countBytes, countBytes);
    return file.isBeyondEnd() || static_cast<quint64>(file.size() - at - rows * countBytes) < packed;
}

/// Where the value of a header's attribute is. `end` becomes the end of the header.
std::optional<qint64> exrAttribute(Fields &file, QByteArrayView wanted, qint64 &end)
{
    const auto text = [&file](qint64 &at) {
        QByteArray read;
        while (const auto c = static_cast<char>(file.little(at++, 1))) {
            read += c;
            if (read.size() > 256)
                break;
        }
        return read;
    };
    std::optional<qint64> found;
    qint64 at = 8;
    while (!file.isBeyondEnd()) {
        const QByteArray name = text(at);
        if (name.isEmpty())
            break;
        text(at); // its type
        const qint64 size = signedNumber(file.little(at, 4));
        if (size < 0)
            break;
        if (name == wanted)
            found = at + 4;
        at += 4 + size;
    }
    end = at;
    return found;
}

bool isExrCutOff(Fields &file)
{
    constexpr quint64 tiledOrInParts = 0x200 | 0x800 | 0x1000;
    constexpr int linesOf[] = {1, 1, 1, 16, 32, 16, 32, 32, 32, 256}; // in a chunk, by the compression
    qint64 table = 0;
    const auto window = exrAttribute(file, "dataWindow", table);
    const auto compression = exrAttribute(file, "compression", table);
    if (file.isBeyondEnd())
        return true;
    if (!window || !compression || (file.little(4, 4) & tiledOrInParts))
        return false;
    const quint64 kind = file.little(*compression, 1);
    if (kind >= std::size(linesOf))
        return false;
    const qint64 rows =
        signedNumber(file.little(*window + 12, 4)) - signedNumber(file.little(*window + 4, 4)) + 1;
    const qint64 chunks = (rows + linesOf[kind] - 1) / linesOf[kind];
    qint64 last = 0;
    for (qint64 i = 0; i < chunks && !file.isBeyondEnd(); ++i) {
        const quint64 at = file.little(table + i * 8, 8);
        if (at == 0 || at > static_cast<quint64>(file.size()))
            return true; // a writer that was interrupted leaves zeros
        last = std::max(last, static_cast<qint64>(at));
    }
    // A chunk begins with its first line and the number of bytes that follow.
    const qint64 bytes = signedNumber(file.little(last + 4, 4));
    return file.isBeyondEnd() || bytes < 0 || bytes > file.size() - last - 8;
}

} // namespace

bool isImageCutOff(int descriptor)
{
    Fields file(descriptor);
    if (file.startsWith("BM"))
        return isBmpCutOff(file);
    if (file.startsWith("GIF8"))
        return isGifCutOff(file);
    if (file.startsWith("\x01\xda"))
        return isSgiCutOff(file);
    if (file.startsWith("8BPS"))
        return isPsdCutOff(file);
    if (file.startsWith("\x76\x2f\x31\x01"))
        return isExrCutOff(file);
    return false;
}
