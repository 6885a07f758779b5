#include "support/RarBytes.h"

#include <QtEndian>

#include <zlib.h>

namespace {

template <typename T> QByteArray little(T value)
{
    QByteArray bytes(sizeof value, '\0');
    qToLittleEndian(value, bytes.data());
    return bytes;
}

std::uint32_t crcOf(const QByteArray &bytes)
{
    return static_cast<std::uint32_t>(
        ::crc32(0, reinterpret_cast<const Bytef *>(bytes.constData()), static_cast<uInt>(bytes.size())));
}

QByteArray block4(std::uint8_t type, std::uint16_t flags, const QByteArray &fields)
{
    const QByteArray rest =
        char(type) + little(flags) + little(static_cast<std::uint16_t>(fields.size() + 7)) + fields;
    return little(static_cast<std::uint16_t>(crcOf(rest) & 0xffff)) + rest;
}

QByteArray number(std::uint64_t value)
{
    QByteArray bytes;
    for (; value >= 0x80; value >>= 7)
        bytes.append(char((value & 0x7f) | 0x80));
    return bytes + char(value);
}

QByteArray block5(const QByteArray &fields)
{
    const QByteArray rest = number(static_cast<std::uint64_t>(fields.size())) + fields;
    return little(crcOf(rest)) + rest;
}

} // namespace

QByteArray RarBytes::rar4(const QList<Item> &items, const Options &options)
{
    QByteArray archive("Rar!\x1a\x07\0", 7);
    std::uint16_t mainFlags = 0;
    if (options.volume)
        mainFlags |= options.number == 0 && options.partNumbers ? 0x0101 : 0x0001;
    if (options.volume && options.partNumbers)
        mainFlags |= 0x0010;
    if (options.solid)
        mainFlags |= 0x0008;
    if (options.encryptedHeaders)
        mainFlags |= 0x0080;
    archive += block4(0x73, mainFlags, QByteArray(6, '\0'));
    const auto kindOf = [&](const Item &item, int file) {
        return &item == &items.first() && options.kindOfFirst >= 0 ? options.kindOfFirst : file;
    };
    for (const Item &item : items) {
        std::uint16_t flags = 0x8000;
        flags |= item.splitBefore ? 0x0001 : 0;
        flags |= item.splitAfter ? 0x0002 : 0;
        flags |= item.encrypted ? 0x0004 : 0;
        const auto packed = static_cast<std::uint32_t>(item.data.size());
        const auto whole = item.wholeSize > 0 ? static_cast<std::uint32_t>(item.wholeSize) : packed;
        archive +=
            block4(static_cast<std::uint8_t>(kindOf(item, 0x74)), flags,
                   little(packed) + little(whole) + char(3) + little(item.crc.value_or(crcOf(item.data))) +
                       little(std::uint32_t(0x50000000)) + char(item.version) + char(0x30) +
                       little(static_cast<std::uint16_t>(item.name.size())) + little(std::uint32_t(0100644)) +
                       item.name);
        archive += item.data;
    }
    return archive + block4(0x7b, options.more ? 0x4001 : 0x4000, {});
}

QByteArray RarBytes::rar5(const QList<Item> &items, const Options &options)
{
    QByteArray archive("Rar!\x1a\x07\x01\0", 8);
    if (options.encryptedHeaders)
        return archive +
               block5(number(4) + number(0) + number(0) + number(0) + char(15) + QByteArray(16, 's'));
    std::uint64_t archiveFlags = 0;
    if (options.volume)
        archiveFlags |= options.number > 0 ? 3 : 1;
    if (options.solid)
        archiveFlags |= 4;
    archive +=
        block5(number(1) + number(0) + number(archiveFlags) +
               (options.volume && options.number > 0 ? number(static_cast<std::uint64_t>(options.number))
                                                     : QByteArray()));
    const auto kindOf = [&](const Item &item, int file) {
        return &item == &items.first() && options.kindOfFirst >= 0 ? options.kindOfFirst : file;
    };
    for (const Item &item : items) {
        QByteArray extra;
        if (item.encrypted)
            extra += number(49) + number(1) + number(0) + number(0) + char(15) + QByteArray(45, 'k');
        if (!item.blake2sp.isEmpty())
            extra += number(34) + number(2) + number(0) + item.blake2sp;
        std::uint64_t flags = 2;
        flags |= extra.isEmpty() ? 0 : 1;
        flags |= item.splitBefore ? 8 : 0;
        flags |= item.splitAfter ? 16 : 0;
        const auto packed = static_cast<std::uint64_t>(item.data.size());
        QByteArray fields = number(static_cast<std::uint64_t>(kindOf(item, 2))) + number(flags);
        if (!extra.isEmpty())
            fields += number(static_cast<std::uint64_t>(extra.size()));
        fields += number(packed) + number(item.blake2sp.isEmpty() ? 4 : 0) +
                  number(item.wholeSize > 0 ? item.wholeSize : packed) + number(0100644);
        if (item.blake2sp.isEmpty())
            fields += little(item.crc.value_or(crcOf(item.data)));
        fields +=
            number(0) + number(1) + number(static_cast<std::uint64_t>(item.name.size())) + item.name + extra;
        archive += block5(fields) + item.data;
    }
    return archive + block5(number(5) + number(0) + number(options.more ? 1 : 0));
}
