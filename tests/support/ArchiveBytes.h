#pragma once

#include <QByteArray>
#include <QList>

#include <cstdint>
#include <functional>
#include <optional>

/// Archives written byte by byte, so that they can hold what no decent program would write.
namespace ArchiveBytes {

struct Item
{
    enum class Type { File, Directory, Symlink, HardLink, CharacterDevice, Fifo };

    QByteArray name; ///< stored as it is
    Type type = Type::File;
    QByteArray data;   ///< of files and, in tar, of hard links
    QByteArray target; ///< of links
    unsigned mode = 0; ///< permission bits; 0 stands for 0644, or 0755 for folders, unless keepMode is set
    bool keepMode = false;
    /// The size that the archive claims, where it lies about it.
    std::optional<std::uint64_t> claimedSize;
};

/// GNU tar; long names and targets in records of their own.
QByteArray tar(const QList<Item> &items);
/// Stored entries with unix modes. `deflated`: the data of files is such a raw deflate stream already,
/// of `claimedSize` bytes and with this CRC-32.
QByteArray zip(const QList<Item> &items, std::optional<std::uint32_t> deflatedCrc = std::nullopt);
/// How the entries of a 7z are packed; copied by default.
struct SevenZipMethod
{
    QByteArray coders = QByteArray("\1\1\0", 3); ///< the description of one folder
    int outputs = 1;                             ///< of its coders
    std::function<QByteArray(const QByteArray &data)> pack = {};
};
/// Each entry a folder of its own, plain header, attributes with unix modes; without names when none has one.
QByteArray sevenZip(const QList<Item> &items, const SevenZipMethod &method = {});
/// Uncompressed entries; names that XML cannot hold are written in base64.
QByteArray xar(const QList<Item> &items);

/// A gzip member of stored blocks.
QByteArray gzip(const QByteArray &data);

struct Zeros
{
    QByteArray deflated; ///< a raw deflate stream
    std::uint32_t crc = 0;
};
/// `count` zero bytes, without holding them in memory.
Zeros deflatedZeros(std::uint64_t count);
/// A gzip file of such a stream.
QByteArray gzipOfZeros(std::uint64_t count);

} // namespace ArchiveBytes
