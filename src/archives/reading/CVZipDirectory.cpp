#include "archives/reading/CVZipDirectory.h"

#include "archives/reading/CVZipBytes.h"

#include <libdeflate.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstring>
#include <ctime>

#include <sys/stat.h>

using namespace CVZipBytes;

namespace {

// Above this a directory is not a list of files that a desktop could show; the bound keeps a damaged
// length from being read for minutes.
constexpr quint64 largestDirectory = quint64(1) << 30;
constexpr qint64 directoryBlock = 1 << 20;
constexpr std::size_t nameBlock = 1 << 20;
constexpr qint64 largestRecord = directoryRecordSize + 3 * 0xffff;

enum Host : quint8 { hostFat = 0, hostUnix = 3, hostHpfs = 6, hostNtfs = 11, hostVfat = 14, hostMac = 19 };

enum Flag : quint16 { flagEncrypted = 0x1, flagStrong = 0x40, flagUtf8 = 0x800, flagMasked = 0x2000 };

enum ExtraField : quint16 {
    extraZip64 = 0x0001,
    extraNtfs = 0x000a,
    extraUnixTime = 0x5455,
    extraOldUnix = 0x5855,
    extraUnicodePath = 0x7075,
};

constexpr quint32 saturated = 0xffffffff;
constexpr quint32 dosDirectoryBit = 0x10;
constexpr qint64 nanosPerSecond = 1000000000;

CVZipDirectory::Outcome notForUs(const QString &detail)
{
    return {XADErrorCode::NotSupported, detail};
}

bool isMicrosoftHost(quint8 host)
{
    return host == hostFat || host == hostHpfs || host == hostNtfs || host == hostVfat;
}

/// What the extra fields of one directory record say.
struct Extras
{
    const char *zip64 = nullptr;
    qsizetype zip64Size = 0;
    const char *unicodePath = nullptr;
    qsizetype unicodePathSize = 0;
    qint64 ntfsTime = XADEntry::unknownTime;
    qint64 unixTime = XADEntry::unknownTime;
};

qint64 ntfsModified(const char *data, qsizetype size)
{
    // Four reserved bytes, then tagged attributes; tag 1 has three times in 100 ns since 1601.
    for (qsizetype at = 4; at + 4 <= size;) {
        const qsizetype attributeSize = u16(data + at + 2);
        if (u16(data + at) == 1 && attributeSize >= 8 && at + 12 <= size) {
            constexpr qint64 ticksTo1970 = 116444736000000000;
            constexpr qint64 latestTicks = ticksTo1970 + std::numeric_limits<qint64>::max() / 100;
            const quint64 ticks = u64(data + at + 4);
            if (ticks == 0 || ticks > quint64(latestTicks))
                return XADEntry::unknownTime;
            const qint64 since1970 = qint64(ticks) - ticksTo1970;
            return since1970 < -std::numeric_limits<qint64>::max() / 100 ? XADEntry::unknownTime
                                                                         : since1970 * 100;
        }
        at += 4 + attributeSize;
    }
    return XADEntry::unknownTime;
}

/// Anything malformed ends the search: padding without a header is common (aligned packages), and what
/// a record needs from here and does not get makes it fail by itself.
Extras parseExtras(const char *data, qsizetype size)
{
    Extras extras;
    while (size >= 4) {
        const quint16 id = u16(data);
        const qsizetype length = u16(data + 2);
        data += 4;
        size -= 4;
        if (length > size)
            break;
        switch (id) {
        case extraZip64:
            if (extras.zip64)
                break; // one that states a false length lets the next field's inside look like another
            extras.zip64 = data;
            extras.zip64Size = length;
            break;
        case extraNtfs:
            extras.ntfsTime = ntfsModified(data, length);
            break;
        case extraUnixTime:
            if (length >= 5 && (data[0] & 1))
                extras.unixTime = qint64(qint32(u32(data + 1))) * nanosPerSecond;
            break;
        case extraOldUnix:
            if (length >= 8 && extras.unixTime == XADEntry::unknownTime)
                extras.unixTime = qint64(qint32(u32(data + 4))) * nanosPerSecond;
            break;
        case extraUnicodePath:
            extras.unicodePath = data;
            extras.unicodePathSize = length;
            break;
        default:
            break;
        }
        data += length;
        size -= length;
    }
    return extras;
}

bool isAscii(QByteArrayView bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](char c) { return (c & 0x80) == 0; });
}

} // namespace

/// DOS times are local times without a zone. The C library looks at the system's zone file for each
/// question, which for a million entries takes longer than all the rest of listing, so the
/// distance from UTC is remembered for each day.
class CVZipDirectory::DosClock
{
public:
    qint64 nanoseconds(quint16 date, quint16 time)
    {
        const unsigned month = (date >> 5) & 15;
        const unsigned day = date & 31;
        if (month < 1 || month > 12 || day < 1 || (time >> 11) > 23)
            return XADEntry::unknownTime;
        if (m_distances.empty())
            m_distances.assign(0x10000, unknown);
        const std::chrono::year year(1980 + (date >> 9));
        const std::chrono::sys_days days =
            std::chrono::sys_days(year / std::chrono::month(month) / 1) + std::chrono::days(day - 1);
        const qint64 midnight = std::chrono::sys_seconds(days).time_since_epoch().count();
        const qint64 seconds = midnight + (time >> 11) * 3600 + ((time >> 5) & 63) * 60 + (time & 31) * 2;
        qint32 &distance = m_distances[date];
        if (distance == unknown) {
            constexpr qint64 oneDay = 24 * 60 * 60;
            const qint32 first = distanceAt(midnight);
            distance = first == distanceAt(midnight + oneDay) ? first : changing;
        }
        return (seconds - (distance == changing ? distanceAt(seconds) : distance)) * nanosPerSecond;
    }

private:
    static constexpr qint32 unknown = std::numeric_limits<qint32>::min();
    static constexpr qint32 changing = unknown + 1; ///< the clocks change on this day

    /// Seconds that local time is ahead of UTC when the local clock shows `local`.
    static qint32 distanceAt(qint64 local)
    {
        std::time_t asUtc = local;
        std::tm fields = {};
        ::gmtime_r(&asUtc, &fields);
        fields.tm_isdst = -1;
        return qint32(local - qint64(std::mktime(&fields)));
    }

    std::vector<qint32> m_distances;
};

qsizetype CVZipDirectory::findEnd(QByteArrayView tail, bool toTheEnd)
{
    static constexpr char mark[] = {'P', 'K', 5, 6};
    for (qsizetype at = tail.size() - endSize; at >= 0; --at) {
        const void *found = ::memrchr(tail.data(), mark[0], std::size_t(at) + 1);
        if (!found)
            return -1;
        at = static_cast<const char *>(found) - tail.data();
        const char *end = tail.data() + at;
        if (std::memcmp(end, mark, sizeof mark) != 0)
            continue;
        const qsizetype commentEnd = at + endSize + u16(end + 20);
        if (toTheEnd ? commentEnd != tail.size() : commentEnd > tail.size())
            continue;
        const quint16 disk = u16(end + 4);
        const quint16 directoryDisk = u16(end + 6);
        if (disk == directoryDisk && (disk == 0 || disk == 0xffff) && u16(end + 8) == u16(end + 10))
            return at;
    }
    return -1;
}

CVZipDirectory::Outcome CVZipDirectory::read(const Input &input, quint64 fileSize, Accept accept)
{
    m_accept = accept;
    const qint64 tailSize = qint64(std::min(fileSize, quint64(endSize + longestComment)));
    const quint64 tailOffset = fileSize - quint64(tailSize);
    QByteArray tail(tailSize, Qt::Uninitialized);
    if (input(tail.data(), tailSize, tailOffset) != tailSize)
        return {XADErrorCode::Damaged, QStringLiteral("The file could not be read.")};

    qsizetype end = findEnd(tail, true);
    if (end < 0)
        end = findEnd(tail, false);
    if (end < 0)
        return notForUs(QStringLiteral("There is no end of a ZIP directory."));

    Place place;
    Outcome outcome = locate(input, fileSize, tail, tailOffset, end, place);
    if (outcome.code == XADErrorCode::None)
        outcome = readRecords(input, place);
    return outcome;
}

CVZipDirectory::Outcome CVZipDirectory::locate(const Input &input, quint64 fileSize, QByteArrayView tail,
                                               quint64 tailOffset, qsizetype end, Place &place)
{
    const char *record = tail.data() + end;
    quint64 directoryEnd = tailOffset + quint64(end);
    place.count = u16(record + 10);
    place.size = u32(record + 12);
    quint64 stated = u32(record + 16);

    char locator[end64LocatorSize];
    const bool has64 =
        directoryEnd >= quint64(end64Size + end64LocatorSize) &&
        input(locator, end64LocatorSize, directoryEnd - end64LocatorSize) == end64LocatorSize &&
        u32(locator) == end64LocatorMark;
    if (has64) {
        // With something before the archive the stated place is off, but the record stands before its
        // locator.
        const quint64 place64 = directoryEnd - end64LocatorSize - end64Size;
        char end64[end64Size];
        if (input(end64, end64Size, place64) != end64Size || u32(end64) != end64Mark ||
            u64(end64 + 4) != quint64(end64Size - 12))
            return notForUs(QStringLiteral("The ZIP64 end record is not where it should be."));
        const quint64 count = u64(end64 + 32);
        const quint64 size = u64(end64 + 40);
        const quint64 offset = u64(end64 + 48);
        if (u32(end64 + 16) != 0 || u32(end64 + 20) != 0 || u64(end64 + 24) != count ||
            u32(locator + 4) != 0 || u32(locator + 16) > 1)
            return notForUs(QStringLiteral("The archive spans several disks."));
        // Some packers also fill the narrow fields, and not always with the right place and size. The wide
        // ones are believed, for the directory they name has to end just before this record.
        if (place.count != 0xffff && place.count != count)
            return notForUs(QStringLiteral("The two end records contradict each other."));
        place.count = count;
        place.size = size;
        stated = offset;
        directoryEnd = place64;
    } else if (u16(record + 4) != 0 || place.size == saturated || stated == saturated) {
        return notForUs(QStringLiteral("The ZIP64 end record is missing."));
    }
    place.isCountWhole = has64;

    if (place.size > directoryEnd || place.size > largestDirectory)
        return notForUs(QStringLiteral("The directory is larger than the file allows."));
    place.offset = directoryEnd - place.size;
    if (stated > place.offset || directoryEnd > fileSize)
        return notForUs(QStringLiteral("The directory is not where it should be."));
    place.base = place.offset - stated;
    return {};
}

CVZipDirectory::Outcome CVZipDirectory::readRecords(const Input &input, const Place &place)
{
    m_directoryOffset = place.offset;
    m_base = place.base;
    const quint64 fitting = place.size / quint64(directoryRecordSize);
    if (place.count > fitting)
        return notForUs(QStringLiteral("The directory is too short for its entries."));
    m_entries.reserve(place.count);
    m_records.reserve(place.count);

    DosClock clock;
    const qint64 blockSize = qint64(std::min(place.size, quint64(directoryBlock)));
    const std::unique_ptr<char[]> block = std::make_unique_for_overwrite<char[]>(std::size_t(blockSize));
    quint64 readOffset = place.offset;
    quint64 unread = place.size;
    const char *at = block.get();
    qint64 available = 0;
    while (available > 0 || unread > 0) {
        if (available < largestRecord && unread > 0) {
            std::memmove(block.get(), at, std::size_t(available));
            at = block.get();
            const qint64 wanted = qint64(std::min(unread, quint64(blockSize - available)));
            if (input(block.get() + available, wanted, readOffset) != wanted)
                return {XADErrorCode::Damaged, QStringLiteral("The directory could not be read.")};
            readOffset += quint64(wanted);
            unread -= quint64(wanted);
            available += wanted;
        }
        if (available < directoryRecordSize || u32(at) != directoryMark)
            return notForUs(QStringLiteral("The directory has something else than entries."));
        const qint64 size = directoryRecordSize + u16(at + 28) + u16(at + 30) + u16(at + 32);
        if (size > available)
            return notForUs(QStringLiteral("The directory ends within an entry."));
        if (m_entries.size() >= std::size_t(std::numeric_limits<int>::max()))
            return notForUs(QStringLiteral("The archive has too many entries."));
        const Outcome taken = takeRecord(at, place, clock);
        if (taken.code != XADErrorCode::None)
            return taken;
        at += size;
        available -= size;
    }

    // Writers that predate ZIP64 let the count wrap; the directory's own length is then the better witness.
    const quint64 found = m_entries.size();
    if (place.isCountWhole ? found != place.count : (found & 0xffff) != place.count)
        return notForUs(QStringLiteral("The directory has another number of entries than stated."));

    if (!m_records.empty()) {
        const auto first = std::min_element(
            m_records.begin(), m_records.end(),
            [](const CVZipRecord &a, const CVZipRecord &b) { return a.headerOffset < b.headerOffset; });
        char mark[4];
        if (input(mark, sizeof mark, first->headerOffset) != sizeof mark || u32(mark) != localHeaderMark)
            return notForUs(QStringLiteral("The entries are not where they should be."));
    }
    return {};
}

CVZipDirectory::Outcome CVZipDirectory::takeRecord(const char *record, const Place &place, DosClock &clock)
{
    const quint8 host = quint8(record[5]);
    const quint16 flags = u16(record + 8);
    const quint16 method = u16(record + 10);
    const quint16 nameSize = u16(record + 28);
    const quint16 extraSize = u16(record + 30);
    const quint32 attributes = u32(record + 38);
    const char *const name = record + directoryRecordSize;

    const bool isEncrypted = (flags & (flagEncrypted | flagStrong | flagMasked)) != 0;
    if (isEncrypted && (m_accept == Accept::WhatWeUnpack || (flags & flagMasked)))
        return notForUs(QStringLiteral("The archive is encrypted."));
    if (method > 0xff || (m_accept == Accept::WhatWeUnpack && method != 0 && method != 8))
        return notForUs(QStringLiteral("The archive uses compression method %1.").arg(method));

    const Extras extras = extraSize > 0 ? parseExtras(name + nameSize, extraSize) : Extras();
    quint64 size = u32(record + 24);
    quint64 packedSize = u32(record + 20);
    quint64 offset = u32(record + 42);
    quint32 disk = u16(record + 34);
    if (size == saturated || packedSize == saturated || offset == saturated || disk == 0xffff) {
        const char *wide = extras.zip64;
        const char *const wideEnd = wide + extras.zip64Size;
        bool isComplete = true;
        for (quint64 *field : {&size, &packedSize, &offset}) {
            if (*field != saturated)
                continue;
            isComplete = isComplete && wideEnd - wide >= 8;
            if (isComplete) {
                *field = u64(wide);
                wide += 8;
            }
        }
        if (disk == 0xffff) {
            isComplete = isComplete && wideEnd - wide >= 4;
            if (isComplete)
                disk = u32(wide);
        }
        if (!isComplete)
            return notForUs(QStringLiteral("A ZIP64 field is missing."));
    }
    if (disk != 0)
        return notForUs(QStringLiteral("The archive spans several disks."));

    const quint64 room = place.offset - place.base; // ends of data are compared without any risk of overflow
    const quint64 least = quint64(localHeaderSize) + nameSize;
    if (least > room || packedSize > room - least || offset > room - least - packedSize ||
        size > quint64(std::numeric_limits<qint64>::max()))
        return notForUs(QStringLiteral("An entry reaches beyond the archive."));

    CVZipRecord stored;
    stored.headerOffset = place.base + offset;
    stored.packedSize = packedSize;
    stored.crc = u32(record + 16);
    stored.storedNameSize = nameSize;
    stored.method = quint8(method);
    stored.isEncrypted = isEncrypted;

    XADEntry entry;
    entry.name = QByteArray::fromRawData(keepName(name, nameSize), nameSize);
    entry.size = qint64(size);
    if (flags & flagUtf8)
        entry.nameEncoding = entry.name.isValidUtf8() ? CVNameEncoding::Utf8 : CVNameEncoding::Unmarked;

    // 7-Zip on Unix (nobody else stores such times there) marks what is text. The rest is what its system
    // could not read.
    if (host == hostUnix && extras.ntfsTime != XADEntry::unknownTime && !entry.name.isValidUtf8())
        entry.nameEncoding = CVNameEncoding::Utf8;

    const QByteArray storedName = entry.name;
    if (extras.unicodePathSize > 5 && extras.unicodePath[0] == 1 && !(flags & flagUtf8)) {
        // The checksum tells whether a tool that ignores this field has renamed the entry since. Readers
        // differ in what they make of that, and some look into the local headers.
        const QByteArrayView better(extras.unicodePath + 5, extras.unicodePathSize - 5);
        if (u32(extras.unicodePath + 1) != libdeflate_crc32(0, name, nameSize) || !better.isValidUtf8())
            return notForUs(QStringLiteral("An entry has two names."));
        entry.name =
            QByteArray::fromRawData(keepName(better.data(), std::size_t(better.size())), better.size());
        entry.nameEncoding = CVNameEncoding::Utf8;
    }
    // Old .NET and DOS packers join folders by backslashes. In a name of another charset the byte may be the
    // second half of a character, so such names are left alone.
    bool isDirectory = false;
    if (isMicrosoftHost(host) && entry.name.contains('\\') && !entry.name.contains('/') &&
        (entry.nameEncoding == CVNameEncoding::Utf8 || isAscii(entry.name))) {
        entry.name = QByteArray(entry.name.constData(), entry.name.size()).replace('\\', '/');
        isDirectory = size == 0 && packedSize == 0 && entry.name.endsWith('/');
    }
    if (entry.name.constData() != storedName.constData())
        m_storedNames.emplace(int(m_entries.size()), storedName);

    const quint32 unixMode = attributes >> 16;
    if ((host == hostUnix || host == hostMac) && unixMode != 0) {
        entry.hasMode = true;
        entry.mode = unixMode & 07777;
        switch (unixMode & S_IFMT) {
        case 0:
        case S_IFREG:
            isDirectory = (unixMode & S_IFMT) == 0 && (attributes & dosDirectoryBit);
            break;
        case S_IFDIR:
            isDirectory = true;
            break;
        case S_IFLNK:
            // No link leads to a place with a name of this length: the mode is wrong, and the data is there.
            entry.type = size < PATH_MAX ? XADEntry::Type::Symlink : XADEntry::Type::File;
            break;
        default:
            // What was packed from a pipe keeps its type, and has data, which no pipe or device can have.
            entry.type = size > 0 ? XADEntry::Type::File : XADEntry::Type::Special;
            break;
        }
    } else if (isMicrosoftHost(host) && (attributes & dosDirectoryBit)) {
        isDirectory = true;
    }
    // Only the name leaves no doubt; one bit of the mode does not turn data into a folder.
    if ((isDirectory && size == 0) || entry.name.endsWith('/'))
        entry.type = XADEntry::Type::Directory;

    if (extras.ntfsTime != XADEntry::unknownTime)
        entry.modified = extras.ntfsTime;
    else if (extras.unixTime != XADEntry::unknownTime)
        entry.modified = extras.unixTime;
    else
        entry.modified = clock.nanoseconds(u16(record + 14), u16(record + 12));

    m_entries.push_back(std::move(entry));
    m_records.push_back(stored);
    return {};
}

const char *CVZipDirectory::keepName(const char *name, std::size_t size)
{
    if (m_nameBlocks.empty() || m_nameBlockSize - m_nameBlockUsed < size) {
        // The first block is small: most archives have few names, and there may be a thousand archives.
        m_nameBlockSize = m_nameBlocks.empty() ? std::max<std::size_t>(size, 4096) : nameBlock;
        m_nameBlocks.push_back(std::make_unique_for_overwrite<char[]>(m_nameBlockSize));
        m_nameBlockUsed = 0;
    }
    char *const to = m_nameBlocks.back().get() + m_nameBlockUsed;
    std::memcpy(to, name, size);
    m_nameBlockUsed += size;
    return to;
}

QByteArray CVZipDirectory::storedName(int index) const
{
    const auto differing = m_storedNames.find(index);
    return differing == m_storedNames.end() ? m_entries[std::size_t(index)].name : differing->second;
}
