#include "archives/reading/CVLibarchiveBids.h"

#include "archives/reading/CVReadingEngine.h"

#include <algorithm>

namespace {

// The engines' bids share one scale, 0 to 100. A reader made for a format bids 90, the 7-Zip library 80
// for zip, 70 for cabinets and arj, 30 to 40 for what it reads as the second choice; unar 50 for RAR, 30
// for LHA. What follows was measured on a collection of archives by other people's programs. There is no
// bid for zip and 7z: libarchive passes over contradictions between the two lists of a zip and takes a
// 7z without a list for an empty one, so it would call archives good that other readers have refused.
constexpr int bidForContainer = 80;   ///< tar, cpio, rpm, ar: nobody reads more of them right
constexpr int bidForStream = 80;      ///< compressed streams, with a tar or a single file in them
constexpr int bidForVagueStream = 70; ///< .lzma has no mark, only a header that makes sense
constexpr int bidForRar = 60; ///< more of the newer RARs than unar, which gets what is refused on opening
constexpr int bidForLha = 60; ///< but for the oldest methods
constexpr int bidForIso = 60; ///< links and all; crafted attributes that lead in circles are looked for first
constexpr int bidForFallback = 20; ///< cab, warc: others know more methods
constexpr int bidForEmptyTar = 20; ///< nothing but zeros, the length of which fits
constexpr int bidForName = 20;     ///< brotli, which nothing but the name tells
constexpr int bidForProgram = 15;  ///< a look for a RAR behind it

constexpr qsizetype tarBlock = 512;

bool isOctal(QByteArrayView field)
{
    return std::all_of(field.begin(), field.end(),
                       [](char c) { return (c >= '0' && c <= '7') || c == ' ' || c == '\0'; });
}

bool isOldCpio(QByteArrayView head)
{
    if (head.size() < 26)
        return false;
    const auto word = [&head](int index, bool big) {
        const auto low = static_cast<unsigned char>(head[index * 2 + (big ? 1 : 0)]);
        const auto high = static_cast<unsigned char>(head[index * 2 + (big ? 0 : 1)]);
        return low | high << 8;
    };
    const bool big = word(0, true) == 070707;
    if (!big && word(0, false) != 070707)
        return false;
    // Mode and length of the name: two bytes alone are no mark.
    const int type = word(3, big) & 0170000;
    return word(10, big) > 0 && word(10, big) < 4096 &&
           (type == 0040000 || type == 0100000 || type == 0120000 || type == 0020000 || type == 0060000 ||
            type == 0010000 || type == 0110000 || type == 0140000);
}

bool isLha(QByteArrayView head)
{
    // Only the methods that libarchive unpacks.
    if (head.size() < 22 || head[2] != '-' || head[6] != '-')
        return false;
    const QByteArrayView method = head.sliced(3, 3);
    const bool known = method == "lh0" || method == "lh5" || method == "lh6" || method == "lh7" ||
                       method == "lhd" || method == "lz4" || method == "lzs";
    return known && static_cast<unsigned char>(head[20]) <= 3;
}

bool isIso(QByteArrayView head)
{
    constexpr qsizetype firstDescriptor = 32768;
    return head.size() > firstDescriptor + 6 && head.sliced(firstDescriptor + 1).startsWith("CD001");
}

} // namespace

bool cvIsTarHeader(QByteArrayView head)
{
    if (head.size() < tarBlock || head[0] == '\0')
        return false;
    const QByteArrayView stored = head.sliced(148, 8);
    if (!isOctal(stored))
        return false;
    qint64 sum = 0, unsignedSum = 0, signedSum = 0;
    for (const char c : stored)
        if (c >= '0' && c <= '7')
            sum = sum * 8 + (c - '0');
        else if (sum > 0)
            break;
    for (qsizetype i = 0; i < tarBlock; ++i) {
        const char c = i >= 148 && i < 156 ? ' ' : head[i];
        unsignedSum += static_cast<unsigned char>(c);
        signedSum += static_cast<signed char>(c);
    }
    return sum == unsignedSum || sum == signedSum;
}

bool cvIsRpm(QByteArrayView head)
{
    return head.size() > 96 && head.startsWith("\xed\xab\xee\xdb");
}

bool cvIsProgram(QByteArrayView head)
{
    return head.startsWith("MZ") || head.startsWith("\x7f"
                                                    "ELF");
}

std::optional<CVLibarchiveFormat> cvLibarchiveFormat(QByteArrayView head, qint64 wholeSize)
{
    using Format = CVLibarchiveFormat;
    if (head.startsWith("070701") || head.startsWith("070702") || head.startsWith("070707") ||
        isOldCpio(head))
        return Format::Cpio;
    if (head.startsWith("!<arch>\n"))
        return Format::Ar;
    if (head.startsWith(QByteArrayView("Rar!\x1a\x07\x01\0", 8)))
        return Format::Rar5;
    if (head.startsWith(QByteArrayView("Rar!\x1a\x07\0", 7)))
        return Format::Rar4;
    if (head.startsWith(QByteArrayView("MSCF\0\0\0\0", 8)))
        return Format::Cab;
    if (head.startsWith("WARC/1.") || head.startsWith("WARC/0."))
        return Format::Warc;
    if (cvIsTarHeader(head))
        return Format::Tar;
    if (isLha(head))
        return Format::Lha;
    if (isIso(head))
        return Format::Iso;
    if (head.size() >= tarBlock && wholeSize % tarBlock == 0 &&
        std::all_of(head.begin(), head.end(), [](char c) { return c == '\0'; }))
        return Format::Tar;
    return std::nullopt;
}

int cvLibarchiveBid(const CVArchiveProbe &probe)
{
    using Format = CVLibarchiveFormat;
    const QByteArrayView head(probe.head);
    if (cvIsRpm(head))
        return bidForContainer;
    if (const CVStreamKind kind = cvStreamKind(head); kind == CVStreamKind::Lzma)
        return bidForVagueStream;
    else if (kind != CVStreamKind::None)
        return bidForStream;
    if (const auto format = cvLibarchiveFormat(head, probe.fileSize)) {
        switch (*format) {
        case Format::Tar:
            return head[0] == '\0' ? bidForEmptyTar : bidForContainer;
        case Format::Cpio:
        case Format::Ar:
            return bidForContainer;
        case Format::Rar4:
        case Format::Rar5:
            return bidForRar;
        case Format::Lha:
            return bidForLha;
        case Format::Iso:
            return bidForIso;
        case Format::Cab:
        case Format::Warc:
            return bidForFallback;
        }
    }
    if (cvIsProgram(head)) {
        if (head.indexOf(QByteArrayView("Rar!\x1a\x07", 6)) > 0)
            return bidForRar;
        for (qsizetype at = head.indexOf("-lh"); at >= 2; at = head.indexOf("-lh", at + 1))
            if (isLha(head.sliced(at - 2)))
                return bidForLha;
        return bidForProgram;
    }
    for (const QLatin1StringView extension : {QLatin1StringView(".br"), QLatin1StringView(".tbr")})
        if (probe.path.endsWith(extension, Qt::CaseInsensitive))
            return bidForName;
    return 0;
}
