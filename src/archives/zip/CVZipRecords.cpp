#include "archives/zip/CVZipRecords.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include <sys/stat.h>

namespace {

constexpr std::uint64_t max16 = 0xffff;
constexpr std::uint64_t max32 = 0xffffffff;
constexpr std::uint16_t largeExtra = 1;
constexpr std::uint16_t timesExtra = 10;
constexpr unsigned unixSystem = 3;
constexpr unsigned madeBy = 63;

void put(std::string &to, std::uint64_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i, value >>= 8)
        to += static_cast<char>(value & 0xff);
}

/// What a reader has to know.
unsigned versionNeeded(const CVZipEntry &entry, bool large)
{
    if (large)
        return 45;
    const bool plain =
        entry.method == CVZipEntry::Method::Stored && !entry.isEncrypted && !S_ISDIR(entry.mode);
    return plain ? 10 : 20;
}

/// What both records of an entry have in common.
void putCommon(std::string &to, const CVZipEntry &entry, bool large)
{
    constexpr unsigned encrypted = 1, descriptor = 8, utf8 = 0x800;
    unsigned flags = (entry.isEncrypted ? encrypted : 0) | (entry.hasDescriptor ? descriptor : 0);
    if (std::any_of(entry.name.begin(), entry.name.end(), [](char c) { return c < 0; }) &&
        CVZipRecords::isUtf8(entry.name))
        flags |= utf8;
    put(to, versionNeeded(entry, large), 2);
    put(to, flags, 2);
    put(to, static_cast<unsigned>(entry.method), 2);
    put(to, CVZipRecords::dosTime(entry.seconds, entry.nanoseconds), 4);
    put(to, entry.checksum, 4);
}

/// Tenths of microseconds since 1601.
std::uint64_t windowsTime(const CVZipEntry &entry)
{
    constexpr std::int64_t ticks = 10'000'000;
    constexpr std::int64_t secondsBefore1970 = 11'644'473'600;
    const std::int64_t seconds = std::clamp<std::int64_t>(entry.seconds, -secondsBefore1970,
                                                          INT64_MAX / ticks - secondsBefore1970 - 1);
    return static_cast<std::uint64_t>((seconds + secondsBefore1970) * ticks + entry.nanoseconds / 100);
}

} // namespace

std::size_t CVZipRecords::localBytes(const CVZipEntry &entry)
{
    return 30 + entry.name.size() + (entry.isLarge ? 20 : 0);
}

void CVZipRecords::putLocal(const CVZipEntry &entry, char *to)
{
    std::string record = "PK\x03\x04";
    putCommon(record, entry, entry.isLarge);
    put(record, entry.isLarge ? max32 : entry.packedBytes, 4);
    put(record, entry.isLarge ? max32 : entry.size, 4);
    put(record, entry.name.size(), 2);
    put(record, entry.isLarge ? 20 : 0, 2);
    record += entry.name;
    if (entry.isLarge) {
        put(record, largeExtra, 2);
        put(record, 16, 2);
        put(record, entry.size, 8);
        put(record, entry.packedBytes, 8);
    }
    std::memcpy(to, record.data(), record.size());
}

std::string CVZipRecords::descriptor(const CVZipEntry &entry)
{
    std::string record = "PK\x07\x08";
    put(record, entry.checksum, 4);
    put(record, entry.packedBytes, entry.isLarge ? 8 : 4);
    put(record, entry.size, entry.isLarge ? 8 : 4);
    return record;
}

void CVZipRecords::appendCentral(const CVZipEntry &entry, std::string &to)
{
    std::string large;
    for (const std::uint64_t value : {entry.size, entry.packedBytes, entry.offset})
        if (value >= max32)
            put(large, value, 8);
    const bool isLarge = entry.isLarge || !large.empty();
    to += "PK\x01\x02";
    put(to, madeBy, 1);
    put(to, unixSystem, 1);
    putCommon(to, entry, isLarge);
    put(to, std::min(entry.packedBytes, max32), 4);
    put(to, std::min(entry.size, max32), 4);
    put(to, entry.name.size(), 2);
    put(to, 36 + (large.empty() ? 0 : 4 + large.size()), 2);
    put(to, 0, 6); // no comment, first disk, no text
    constexpr unsigned readOnly = 1, folder = 0x10, archive = 0x20, unixMode = 0x8000;
    const unsigned attributes =
        (entry.mode & S_IWUSR ? 0 : readOnly) | (S_ISDIR(entry.mode) ? folder : archive) | unixMode;
    put(to, attributes | entry.mode << 16, 4);
    put(to, std::min(entry.offset, max32), 4);
    to += entry.name;
    if (!large.empty()) {
        put(to, largeExtra, 2);
        put(to, large.size(), 2);
        to += large;
    }
    put(to, timesExtra, 2);
    put(to, 32, 2);
    put(to, 0, 4);
    put(to, 1, 2); // the times
    put(to, 24, 2);
    put(to, windowsTime(entry), 8);
    put(to, 0, 8); // last read and made: not ours to tell
    put(to, 0, 8);
}

std::string CVZipRecords::end(std::uint64_t entries, std::uint64_t centralOffset, std::uint64_t centralBytes)
{
    std::string record;
    if (entries >= max16 || centralOffset >= max32 || centralBytes >= max32) {
        record += "PK\x06\x06";
        put(record, 44, 8);
        put(record, 45, 2);
        put(record, 45, 2);
        put(record, 0, 8);
        put(record, entries, 8);
        put(record, entries, 8);
        put(record, centralBytes, 8);
        put(record, centralOffset, 8);
        record += "PK\x06\x07";
        put(record, 0, 4);
        put(record, centralOffset + centralBytes, 8);
        put(record, 1, 4);
    }
    record += "PK\x05\x06";
    put(record, 0, 4);
    put(record, std::min(entries, max16), 2);
    put(record, std::min(entries, max16), 2);
    put(record, std::min(centralBytes, max32), 4);
    put(record, std::min(centralOffset, max32), 4);
    put(record, 0, 2);
    return record;
}

std::uint32_t CVZipRecords::dosTime(std::int64_t seconds, std::uint32_t nanoseconds)
{
    constexpr std::uint32_t first = 0x00210000; // 1980
    constexpr std::uint32_t last = 0xff9fbf7d;  // the end of 2107
    const std::time_t time = seconds + (nanoseconds > 0) + 1;
    std::tm local = {};
    if (!::localtime_r(&time, &local) || local.tm_year < 80)
        return seconds < 0 || local.tm_year < 80 ? first : last;
    if (local.tm_year > 207)
        return last;
    const auto bits = [](int value, int shift) { return static_cast<std::uint32_t>(value) << shift; };
    return bits(local.tm_year - 80, 25) | bits(local.tm_mon + 1, 21) | bits(local.tm_mday, 16) |
           bits(local.tm_hour, 11) | bits(local.tm_min, 5) | bits(std::min(local.tm_sec, 59) / 2, 0);
}

bool CVZipRecords::isUtf8(const std::string &text)
{
    const auto *at = reinterpret_cast<const unsigned char *>(text.data());
    const auto *const end = at + text.size();
    while (at < end) {
        const unsigned char lead = *at++;
        if (lead < 0x80)
            continue;
        const int more = lead >= 0xf0 ? 3 : lead >= 0xe0 ? 2 : 1;
        if (lead < 0xc2 || lead > 0xf4 || end - at < more)
            return false;
        // Neither longer than it has to be, nor a surrogate, nor beyond the last character.
        if ((lead == 0xe0 && *at < 0xa0) || (lead == 0xed && *at > 0x9f) || (lead == 0xf0 && *at < 0x90) ||
            (lead == 0xf4 && *at > 0x8f))
            return false;
        for (const auto *const next = at + more; at < next; ++at)
            if ((*at & 0xc0) != 0x80)
                return false;
    }
    return true;
}
