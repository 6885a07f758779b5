#include "archives/reading/CVLhaHeaders.h"

#include "archives/reading/CVArchiveSource.h"

#include <QByteArray>
#include <QtEndian>

#include <algorithm>
#include <optional>

namespace {

// Levels 0 to 2 cannot have larger headers; those of level 3 hold names, comments and times.
constexpr std::uint32_t maxHeaderBytes = std::uint32_t(1) << 20;
// Programs in front of self-extracting archives are smaller.
constexpr qint64 maxProgramBytes = qint64(1) << 20;
// What follows the end is padding as a rule; headers that were cut off from the chain come soon.
constexpr qint64 searchedAfterEnd = qint64(1) << 20;
constexpr qsizetype baseBytes = 22; ///< of the smallest header

QByteArray bytesAt(const CVArchiveSource &source, qint64 offset, qint64 size)
{
    QByteArray bytes(std::clamp<qint64>(size, 0, std::max<qint64>(source.size() - offset, 0)),
                     Qt::Uninitialized);
    bytes.truncate(std::max<qint64>(source.readAt(offset, bytes.data(), bytes.size()), 0));
    return bytes;
}

std::uint32_t number(const QByteArray &bytes, qsizetype at, int width)
{
    if (at < 0 || at + width > bytes.size())
        return 0;
    return width == 2 ? qFromLittleEndian<std::uint16_t>(bytes.constData() + at)
                      : qFromLittleEndian<std::uint32_t>(bytes.constData() + at);
}

bool isMethod(QByteArrayView text)
{
    return text.size() >= 5 && text[0] == '-' && text[4] == '-' &&
           (text.sliced(1, 2) == "lh" || text.sliced(1, 2) == "lz" || text.sliced(1, 2) == "pm");
}

std::uint16_t crcOf(const QByteArray &bytes)
{
    std::uint16_t crc = 0;
    for (const char c : bytes) {
        crc ^= static_cast<unsigned char>(c);
        for (int bit = 0; bit < 8; ++bit)
            crc = static_cast<std::uint16_t>(crc & 1 ? (crc >> 1) ^ 0xa001 : crc >> 1);
    }
    return crc;
}

/// The extended headers, of which one may hold the sum of all: `at` is where the first one's size stands.
/// They have to end with the header. False when they do not, or the sum does not fit.
bool extensionsFit(QByteArray header, qsizetype at, int width)
{
    std::optional<std::uint16_t> expected;
    std::uint32_t size = number(header, at, width);
    at += width;
    while (size != 0) {
        if (size < static_cast<std::uint32_t>(width) + 1 ||
            size > static_cast<std::uint64_t>(header.size() - at))
            return false;
        if (header[at] == 0 && size >= 5 && !expected) {
            expected = static_cast<std::uint16_t>(number(header, at + 1, 2));
            header[at + 1] = header[at + 2] = '\0';
        }
        at += static_cast<qsizetype>(size);
        size = number(header, at - width, width);
    }
    return !expected || *expected == crcOf(header);
}

/// All of level 1's extended headers, whose length stands nowhere, appended to the base header.
QByteArray withExtensions(const CVArchiveSource &source, qint64 offset, QByteArray header,
                          std::uint32_t packed)
{
    std::uint32_t size = number(header, header.size() - 2, 2);
    for (std::uint64_t all = 0; size != 0; size = number(header, header.size() - 2, 2)) {
        all += size;
        const QByteArray part = bytesAt(source, offset + header.size(), size);
        if (size < 3 || all > packed || part.size() < static_cast<qsizetype>(size))
            return {};
        header += part;
    }
    return header;
}

/// Where the next header stands, when the one here makes sense and fits its sums.
std::optional<qint64> nextHeader(const CVArchiveSource &source, qint64 offset)
{
    const QByteArray base = bytesAt(source, offset, 32);
    if (base.size() < baseBytes || !isMethod(QByteArrayView(base).sliced(2)))
        return std::nullopt;
    const std::uint32_t packed = number(base, 7, 4);
    const int level = static_cast<unsigned char>(base[20]);
    std::uint32_t size = 0;
    if (level <= 1)
        size = static_cast<unsigned char>(base[0]) + 2U;
    else if (level <= 3)
        size = level == 2 ? number(base, 0, 2) : number(base, 24, 4);
    if (size < baseBytes || size > maxHeaderBytes)
        return std::nullopt;
    const QByteArray header = bytesAt(source, offset, size);
    if (header.size() < static_cast<qsizetype>(size))
        return std::nullopt;
    if (level <= 1) {
        std::uint8_t sum = 0;
        for (const char c : QByteArrayView(header).sliced(2))
            sum = static_cast<std::uint8_t>(sum + static_cast<unsigned char>(c));
        if (sum != static_cast<std::uint8_t>(header[1]))
            return std::nullopt;
    }
    if (level == 1) {
        const QByteArray whole = withExtensions(source, offset, header, packed);
        if (whole.isEmpty() || !extensionsFit(whole, size - 2, 2))
            return std::nullopt;
    } else if (level >= 2 && !extensionsFit(header, level == 2 ? 24 : 28, level == 2 ? 2 : 4)) {
        return std::nullopt;
    }
    const qint64 next = offset + size + packed;
    return next <= source.size() ? std::optional(next) : std::nullopt;
}

/// The first header within these bytes.
qint64 findHeader(const CVArchiveSource &source, qint64 from, qint64 bytes)
{
    const QByteArray searched = bytesAt(source, from, bytes);
    for (qsizetype at = searched.indexOf('-'); at >= 0; at = searched.indexOf('-', at + 1))
        if (at >= 2 && isMethod(QByteArrayView(searched).sliced(at)) && nextHeader(source, from + at - 2))
            return from + at - 2;
    return -1;
}

} // namespace

CVLhaState cvCheckLha(const CVArchiveSource &source, qint64 offset)
{
    const QByteArray start = bytesAt(source, offset, baseBytes);
    if (start.size() < baseBytes || !isMethod(QByteArrayView(start).sliced(2)))
        return CVLhaState::NotLha;
    while (offset < source.size() && bytesAt(source, offset, 1) != QByteArray(1, '\0')) {
        const std::optional<qint64> next = nextHeader(source, offset);
        if (!next)
            return CVLhaState::Damaged;
        offset = *next;
    }
    return findHeader(source, offset, searchedAfterEnd) < 0 ? CVLhaState::Whole : CVLhaState::Damaged;
}

qint64 cvLhaBehindProgram(const CVArchiveSource &source)
{
    return findHeader(source, 0, maxProgramBytes);
}
