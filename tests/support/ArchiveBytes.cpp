#include "support/ArchiveBytes.h"

#include <QCryptographicHash>

#include <algorithm>

#include <sys/stat.h>
#include <zlib.h>

namespace ArchiveBytes {

namespace {

QByteArray little(std::uint64_t value, int bytes)
{
    QByteArray result;
    for (int i = 0; i < bytes; ++i)
        result.append(char(value >> (8 * i)));
    return result;
}

QByteArray big(std::uint64_t value, int bytes)
{
    QByteArray result;
    for (int i = bytes - 1; i >= 0; --i)
        result.append(char(value >> (8 * i)));
    return result;
}

std::uint32_t crcOf(const QByteArray &data)
{
    return std::uint32_t(crc32(0, reinterpret_cast<const Bytef *>(data.constData()), uInt(data.size())));
}

unsigned permissions(const Item &item)
{
    if (item.mode != 0 || item.keepMode)
        return item.mode;
    return item.type == Item::Type::Directory ? 0755 : 0644;
}

unsigned statMode(const Item &item)
{
    switch (item.type) {
    case Item::Type::Directory:
        return S_IFDIR | permissions(item);
    case Item::Type::Symlink:
        return S_IFLNK | 0777;
    case Item::Type::CharacterDevice:
        return S_IFCHR | permissions(item);
    case Item::Type::Fifo:
        return S_IFIFO | permissions(item);
    case Item::Type::File:
    case Item::Type::HardLink:
        break;
    }
    return S_IFREG | permissions(item);
}

/// What zip and 7z store as data: a symbolic link's target is its contents.
QByteArray storedData(const Item &item)
{
    return item.type == Item::Type::Symlink ? item.target : item.data;
}

QByteArray tarHeader(const QByteArray &name, char type, std::uint64_t size, unsigned mode,
                     const QByteArray &target)
{
    QByteArray header(512, '\0');
    const auto put = [&header](qsizetype at, const QByteArray &bytes) {
        header.replace(at, bytes.size(), bytes);
    };
    const auto octal = [](std::uint64_t value, int digits) -> QByteArray {
        return QByteArray::number(qulonglong(value), 8).rightJustified(digits, '0') + '\0';
    };
    put(0, name.left(100));
    put(100, octal(mode, 7));
    put(108, octal(0, 7));
    put(116, octal(0, 7));
    // Beyond eleven octal digits the number is binary, marked by its first bit.
    put(124, size < (1ULL << 33) ? octal(size, 11) : QByteArray(QByteArray("\x80\0\0\0", 4) + big(size, 8)));
    put(136, octal(1'600'000'000, 11));
    put(148, QByteArray(8, ' '));
    header[156] = type;
    put(157, target.left(100));
    put(257, QByteArray("ustar  ", 8));
    if (type == '3')
        put(329, octal(1, 7) + octal(3, 7));
    unsigned sum = 0;
    for (const char c : header)
        sum += static_cast<unsigned char>(c);
    put(148, QByteArray::number(sum, 8).rightJustified(6, '0') + QByteArray("\0 ", 2));
    return header;
}

QByteArray tarBlocks(const QByteArray &data)
{
    return data + QByteArray((512 - data.size() % 512) % 512, '\0');
}

QByteArray sevenZipNumber(std::uint64_t value)
{
    // The count of leading ones in the first byte is the count of bytes that follow, lowest first.
    for (int extra = 0; extra < 8; ++extra)
        if (value < (1ULL << (7 * (extra + 1))))
            return QByteArray(1, char((0xff00 >> extra & 0xff) | int(value >> (8 * extra)))) +
                   little(value, extra);
    return '\xff' + little(value, 8);
}

QByteArray sevenZipBits(const QList<bool> &bits)
{
    QByteArray result((bits.size() + 7) / 8, '\0');
    for (qsizetype i = 0; i < bits.size(); ++i)
        if (bits[i])
            result[i / 8] = char(result[i / 8] | (0x80 >> (i % 8)));
    return result;
}

QByteArray xmlText(const QByteArray &tag, const QByteArray &text)
{
    bool plain = !text.isEmpty();
    for (const char c : text)
        plain &= c >= ' ' && c < 0x7f && !QByteArrayView("<>&").contains(c);
    if (plain)
        return '<' + tag + '>' + text + "</" + tag + '>';
    return '<' + tag + " enctype=\"base64\">" + text.toBase64() + "</" + tag + '>';
}

} // namespace

QByteArray tar(const QList<Item> &items)
{
    QByteArray out;
    const auto longRecord = [&out](char type, const QByteArray &text) {
        if (text.size() > 100)
            out += tarHeader("././@LongLink", type, std::uint64_t(text.size() + 1), 0644, {}) +
                   tarBlocks(text + '\0');
    };
    for (const Item &item : items) {
        char type = '0';
        switch (item.type) {
        case Item::Type::File:
            break;
        case Item::Type::Directory:
            type = '5';
            break;
        case Item::Type::Symlink:
            type = '2';
            break;
        case Item::Type::HardLink:
            type = '1';
            break;
        case Item::Type::CharacterDevice:
            type = '3';
            break;
        case Item::Type::Fifo:
            type = '6';
            break;
        }
        longRecord('K', item.target);
        longRecord('L', item.name);
        out += tarHeader(item.name, type, item.claimedSize.value_or(std::uint64_t(item.data.size())),
                         permissions(item), item.target);
        out += tarBlocks(item.data);
    }
    return out + QByteArray(1024, '\0');
}

QByteArray zip(const QList<Item> &items, std::optional<std::uint32_t> deflatedCrc)
{
    QByteArray out;
    QByteArray central;
    for (const Item &item : items) {
        const QByteArray data = storedData(item);
        const bool deflated = deflatedCrc && item.type == Item::Type::File && item.claimedSize;
        const std::uint64_t size = item.claimedSize.value_or(std::uint64_t(data.size()));
        const QByteArray common = little(1 << 11, 2) + little(deflated ? 8 : 0, 2) + little(0, 2) +
                                  little(0x5021, 2) + little(deflated ? *deflatedCrc : crcOf(data), 4) +
                                  little(std::uint64_t(data.size()), 4) + little(size, 4) +
                                  little(std::uint64_t(item.name.size()), 2) + little(0, 2);
        const qsizetype offset = out.size();
        out += "PK\3\4" + little(20, 2) + common + item.name + data;
        central += "PK\1\2" + little(0x0314, 2) + little(20, 2) + common + little(0, 2) + little(0, 2) +
                   little(0, 2) + little(std::uint64_t(statMode(item)) << 16, 4) +
                   little(std::uint64_t(offset), 4) + item.name;
    }
    const auto count = std::uint64_t(items.size());
    return out + central + "PK\5\6" + little(0, 4) + little(count, 2) + little(count, 2) +
           little(std::uint64_t(central.size()), 4) + little(std::uint64_t(out.size()), 4) + little(0, 2);
}

QByteArray sevenZip(const QList<Item> &items, const SevenZipMethod &method)
{
    QByteArray packed;
    QByteArray packSizes;
    QByteArray coders;
    QByteArray sizes;
    QByteArray sums;
    QByteArray names(1, '\0');
    QByteArray attributes("\1\0", 2);
    QList<bool> withoutData;
    QList<bool> emptyFiles;
    std::uint64_t streams = 0;
    for (const Item &item : items) {
        const QByteArray data = storedData(item);
        withoutData.append(data.isEmpty());
        if (data.isEmpty()) {
            emptyFiles.append(item.type != Item::Type::Directory);
        } else {
            ++streams;
            const QByteArray stored = method.pack ? method.pack(data) : data;
            packed += stored;
            packSizes += sevenZipNumber(std::uint64_t(stored.size()));
            coders += method.coders;
            for (int output = 0; output < method.outputs; ++output)
                sizes += sevenZipNumber(item.claimedSize.value_or(std::uint64_t(data.size())));
            sums += little(crcOf(data), 4);
        }
        for (const QChar c : QString::fromUtf8(item.name))
            names += little(c.unicode(), 2);
        names += little(0, 2);
        const unsigned directory = item.type == Item::Type::Directory ? 0x10 : 0x20;
        attributes += little((std::uint64_t(statMode(item)) << 16) | 0x8000 | directory, 4);
    }
    const auto property = [](char id, const QByteArray &bytes) -> QByteArray {
        return id + sevenZipNumber(std::uint64_t(bytes.size())) + bytes;
    };
    const bool isNamed =
        std::any_of(items.begin(), items.end(), [](const Item &item) { return !item.name.isEmpty(); });
    QByteArray header("\1");
    if (streams > 0) {
        const QByteArray count = sevenZipNumber(streams);
        header += QByteArray("\4\6\0", 3) + count + '\x09' + packSizes + '\0' + "\7\x0b" + count + '\0' +
                  coders + '\x0c' + sizes + "\x0a\1" + sums + QByteArray("\0\x08\0\0", 4);
    }
    header += '\5' + sevenZipNumber(std::uint64_t(items.size())) +
              property('\x0e', sevenZipBits(withoutData)) + property('\x0f', sevenZipBits(emptyFiles)) +
              (isNamed ? property('\x11', names) : QByteArray()) + property('\x15', attributes) +
              QByteArray("\0\0", 2);
    const QByteArray start = little(std::uint64_t(packed.size()), 8) +
                             little(std::uint64_t(header.size()), 8) + little(crcOf(header), 4);
    return QByteArray("7z\xbc\xaf\x27\x1c\0\4", 8) + little(crcOf(start), 4) + start + packed + header;
}

QByteArray xar(const QList<Item> &items)
{
    QByteArray heap(20, '\0'); // room for the checksum of the table of contents
    QByteArray toc =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<xar><toc><checksum style=\"sha1\"><offset>0</offset>"
        "<size>20</size></checksum>";
    for (qsizetype i = 0; i < items.size(); ++i) {
        const Item &item = items[i];
        const QByteArray id = QByteArray::number(i + 1);
        toc += "<file id=\"" + id + "\">" + xmlText("name", item.name) + "<mode>" +
               QByteArray::number(permissions(item), 8).rightJustified(4, '0') + "</mode>";
        switch (item.type) {
        case Item::Type::File:
            toc += "<type>file</type>";
            break;
        case Item::Type::Directory:
            toc += "<type>directory</type>";
            break;
        case Item::Type::Symlink:
            toc += "<type>symlink</type>" + xmlText("link", item.target);
            break;
        case Item::Type::HardLink:
            toc += "<type link=\"" + item.target + "\">hardlink</type>";
            break;
        case Item::Type::CharacterDevice:
            toc += "<type>character special</type><device><major>1</major><minor>3</minor></device>";
            break;
        case Item::Type::Fifo:
            toc += "<type>fifo</type>";
            break;
        }
        if (!item.data.isEmpty()) {
            const QByteArray sum = QCryptographicHash::hash(item.data, QCryptographicHash::Sha1).toHex();
            toc +=
                "<data><length>" + QByteArray::number(item.data.size()) + "</length><offset>" +
                QByteArray::number(heap.size()) + "</offset><size>" +
                QByteArray::number(qulonglong(item.claimedSize.value_or(std::uint64_t(item.data.size())))) +
                "</size><encoding style=\"application/octet-stream\"/><archived-checksum style=\"sha1\">" +
                sum + "</archived-checksum><extracted-checksum style=\"sha1\">" + sum +
                "</extracted-checksum></data>";
            heap += item.data;
        }
        toc += "</file>";
    }
    toc += "</toc></xar>\n";
    const QByteArray compressed = qCompress(toc).mid(4);
    heap.replace(0, 20, QCryptographicHash::hash(compressed, QCryptographicHash::Sha1));
    return "xar!" + big(28, 2) + big(1, 2) + big(std::uint64_t(compressed.size()), 8) +
           big(std::uint64_t(toc.size()), 8) + big(1, 4) + compressed + heap;
}

QByteArray gzip(const QByteArray &data)
{
    QByteArray out("\x1f\x8b\x08\0\0\0\0\0\0\3", 10);
    qsizetype at = 0;
    do {
        const QByteArray block = data.mid(at, 65535);
        at += block.size();
        out += char(at == data.size()) + little(std::uint64_t(block.size()), 2) +
               little(~std::uint64_t(block.size()), 2) + block;
    } while (at < data.size());
    return out + little(crcOf(data), 4) + little(std::uint64_t(data.size()), 4);
}

Zeros deflatedZeros(std::uint64_t count)
{
    Zeros result;
    z_stream stream = {};
    deflateInit2(&stream, 1, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY);
    QByteArray zeros(1 << 20, '\0');
    QByteArray out(1 << 20, '\0');
    do {
        stream.next_in = reinterpret_cast<Bytef *>(zeros.data());
        stream.avail_in = uInt(std::min<std::uint64_t>(count, std::uint64_t(zeros.size())));
        count -= stream.avail_in;
        result.crc = std::uint32_t(crc32(result.crc, stream.next_in, stream.avail_in));
        stream.next_out = reinterpret_cast<Bytef *>(out.data());
        stream.avail_out = uInt(out.size());
        deflate(&stream, count == 0 ? Z_FINISH : Z_NO_FLUSH);
        result.deflated.append(out.constData(), out.size() - stream.avail_out);
    } while (count > 0);
    deflateEnd(&stream);
    return result;
}

QByteArray gzipOfZeros(std::uint64_t count)
{
    const Zeros zeros = deflatedZeros(count);
    return QByteArray("\x1f\x8b\x08\0\0\0\0\0\0\3", 10) + zeros.deflated + little(zeros.crc, 4) +
           little(count, 4);
}

} // namespace ArchiveBytes
