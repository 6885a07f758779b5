#pragma once

#include <QByteArray>
#include <QList>

#include <cstdint>
#include <optional>

/// RAR archives of stored files, written byte by byte: no free program makes any.
namespace RarBytes {

struct Item
{
    QByteArray name;
    QByteArray data;
    std::optional<std::uint32_t> crc = {}; ///< instead of the right one
    bool encrypted = false;
    bool splitBefore = false;
    bool splitAfter = false;
    QByteArray blake2sp = {};    ///< RAR 5: this hash instead of a CRC-32
    int version = 29;            ///< RAR 4: needed to unpack
    std::uint64_t wholeSize = 0; ///< of a split file; 0: that of the data
};

struct Options
{
    bool volume = false;
    bool more = false;       ///< another volume follows
    bool partNumbers = true; ///< RAR 4: name.part1.rar
    bool solid = false;
    bool encryptedHeaders = false;
    int number = 0;       ///< of the volume
    int kindOfFirst = -1; ///< of the first file's header, instead of that of a file
};

QByteArray rar4(const QList<Item> &items, const Options &options = {});
QByteArray rar5(const QList<Item> &items, const Options &options = {});

} // namespace RarBytes
