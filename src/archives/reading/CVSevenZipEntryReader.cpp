#include "archives/reading/CVSevenZipEntryReader.h"

#include "archives/reading/CVSevenZipFormats.h"
#include "archives/reading/CVSevenZipNames.h"

#include <algorithm>
#include <climits>
#include <limits>
#include <string_view>

#include <sys/stat.h>

using namespace sevenzip;

namespace {

/// 100 ns units between 1601 and 1970.
constexpr std::int64_t unixEpochTicks = 116444736000000000;

qint64 unixNanoseconds(const Variant &value)
{
    if (value.type != VariantFileTime || value.u8 == 0)
        return XADEntry::unknownTime;
    std::int64_t time = 0;
    if (__builtin_sub_overflow(value.i8, unixEpochTicks, &time) || __builtin_mul_overflow(time, 100, &time))
        return XADEntry::unknownTime;
    if (value.timePrecision != 0 && value.nanoseconds < 100)
        time += value.nanoseconds;
    return time;
}

} // namespace

/// That of the archive without its extension, with a number from the second on.
QByteArray CVSevenZipEntryReader::nameOfUnnamed()
{
    const QByteArray name = cvSevenZipNameOfContents(m_paths).toUtf8();
    return ++m_unnamed == 1 ? name : name + ' ' + QByteArray::number(m_unnamed);
}

std::optional<XADEntry> CVSevenZipEntryReader::read(std::uint32_t item)
{
    XADEntry entry;
    CVSevenZipValue value(m_library);
    const auto property = [&](Property which) {
        return m_archive.GetProperty(item, which, value.out()) == Ok && !value.isEmpty();
    };
    const auto text = [&] {
        return cvSevenZipNameBytes(value.isString() ? std::wstring_view(value.get().string)
                                                    : std::wstring_view());
    };

    const bool isSingle = cvSevenZipIsSingleStream(m_format);
    CVSevenZipName name;
    if (!isSingle && property(PropertyPath))
        name = text();
    if (name.bytes.isEmpty() && (isSingle || m_format == "7z")) // elsewhere it is the archive's own doing
        name.bytes = nameOfUnnamed();
    entry.name = std::move(name.bytes);
    entry.nameEncoding = CVNameEncoding::Utf8;
    // Single bytes in a name of a format that has Unicode are what the maker's system could not read.
    if (!isSingle && cvSevenZipKeepsNamesAsBytes(m_format)) {
        const bool marked = !name.raw && m_format == "zip" && property(PropertyCharacteristics) &&
                            value.string().contains(QLatin1String("UTF8"));
        entry.nameEncoding = marked ? CVNameEncoding::Utf8 : CVNameEncoding::Unmarked;
    }
    if (isPseudoEntry(item, entry))
        return std::nullopt;

    const bool isDirectory = property(PropertyIsDirectory) && value.isTrue();
    std::uint32_t attributes = 0;
    if (property(PropertyAttributes))
        attributes = std::uint32_t(value.number());
    constexpr std::uint32_t hasUnixMode = 0x8000;
    std::uint32_t mode = 0;
    if (property(PropertyPosixMode)) {
        mode = std::uint32_t(value.number());
        entry.hasMode = true;
    } else if (attributes & hasUnixMode) {
        mode = attributes >> 16;
        entry.hasMode = true;
    }
    entry.mode = mode & 07777;
    // Such a name was written on Windows, where it can only be a path.
    if (m_format == "7z" && !entry.hasMode)
        entry.name.replace('\\', '/');

    switch (mode & S_IFMT) {
    case S_IFLNK:
        entry.type = XADEntry::Type::Symlink;
        break;
    case S_IFCHR:
    case S_IFBLK:
    case S_IFIFO:
    case S_IFSOCK:
        entry.type = XADEntry::Type::Special;
        break;
    default:
        break;
    }
    if (isDirectory)
        entry.type = XADEntry::Type::Directory;
    else if (property(PropertySymlink) && value.isString() && *value.get().string) {
        entry.type = XADEntry::Type::Symlink;
        entry.linkTarget = text().bytes;
    } else if (property(PropertyHardLink) && value.isString() && *value.get().string) {
        entry.type = XADEntry::Type::HardLink;
        entry.linkTarget = text().bytes;
    }

    // gzip keeps only the low 32 bits, and those of its last member.
    if ((!isDirectory || m_format == "zip") && m_format != "gzip" && property(PropertySize))
        entry.size = qint64(
            std::min<std::uint64_t>(value.number(), std::uint64_t(std::numeric_limits<qint64>::max())));
    // What was packed from a pipe keeps its type, and has data, which no pipe or device can have; and no link
    // leads to a place with a name of such a length.
    const bool targetIsData = entry.type == XADEntry::Type::Symlink && entry.linkTarget.isEmpty();
    if ((entry.type == XADEntry::Type::Special && entry.size > 0) || (targetIsData && entry.size >= PATH_MAX))
        entry.type = XADEntry::Type::File;
    if (property(PropertyModified))
        entry.modified = unixNanoseconds(value.get());
    entry.encrypted = property(PropertyEncrypted) && value.isTrue();
    return entry;
}

bool CVSevenZipEntryReader::isPseudoEntry(std::uint32_t item, const XADEntry &entry)
{
    constexpr std::uint32_t propertyIsAnti = 21;
    if (m_format == "Xar" && entry.name == "[TOC].xml")
        return true;
    for (const std::uint32_t which :
         {std::uint32_t(PropertyIsAlternateStream), std::uint32_t(PropertyIsDeleted), propertyIsAnti}) {
        CVSevenZipValue value(m_library);
        if (m_archive.GetProperty(item, which, value.out()) == Ok && value.isTrue())
            return true;
    }
    return false;
}
