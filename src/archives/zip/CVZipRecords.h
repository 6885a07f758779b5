#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What a zip archive says about one of its entries.
struct CVZipEntry
{
    enum class Method : std::uint16_t { Stored = 0, Deflated = 8 };

    std::string name; ///< as in the archive: from the top folder on, of a folder with a slash at its end
    std::uint32_t mode = 0;
    std::int64_t seconds = 0; ///< when it was changed
    std::uint32_t nanoseconds = 0;
    Method method = Method::Stored;
    bool isEncrypted = false;
    bool hasDescriptor = false; ///< the sizes also stand behind the data
    bool isLarge = false;       ///< the record before the data has room for sizes from 4 GiB on
    std::uint32_t checksum = 0;
    std::uint64_t size = 0;
    std::uint64_t packedBytes = 0;
    std::uint64_t offset = 0; ///< of the record before the data
};

/// The records of the format, as 7-Zip writes them. Pure.
namespace CVZipRecords {

/// Before an entry's data. Its length follows from the name and isLarge alone.
std::size_t localBytes(const CVZipEntry &entry);
void putLocal(const CVZipEntry &entry, char *to);

/// Behind the data of one that hasDescriptor.
std::string descriptor(const CVZipEntry &entry);

void appendCentral(const CVZipEntry &entry, std::string &to);

/// Behind the central records.
std::string end(std::uint64_t entries, std::uint64_t centralOffset, std::uint64_t centralBytes);

/// Date and time as the format has them, local, in two seconds, of which it takes the next one.
std::uint32_t dosTime(std::int64_t seconds, std::uint32_t nanoseconds);

bool isUtf8(const std::string &text);

} // namespace CVZipRecords
