#include "archives/reading/CVSevenZipFormats.h"

#include <QtEndian>

#include <libdeflate.h>

#include <algorithm>
#include <array>

namespace {

/// How far behind the beginning of a program an archive is looked for.
constexpr qint64 stubSearchBytes = 1024 * 1024;

struct Rating
{
    const char *format;
    int bid;
    const char *people;
    bool singleStream = false;
};

/// The scale is 0-100.
/// 90: nobody reads it better. 80: below a reader made for the format (plain zip).
/// 70: formats that nobody else reads, among them discs whose files are only in UDF.
/// 65: arj and cab, where this module is right more often than the other readers (measured on a
/// collection: it alone knows every compression of cab), but for those that unar asks for with 70:
/// encrypted arj, cabinets with names in an old charset.
/// 60: disk images, which must not win over an archive found at the same place.
/// 40: iso, where libarchive gets the names right more often.
/// 30: it reads them, as the second choice behind libarchive.
/// 55: rar, above unar, where the module's methods for it are installed; libarchive comes first, and leaves
/// to the others what is encrypted, solid over volumes or older.
/// A format of the module that is not listed gets no bid: it cannot be unpacked here, a person
/// does not think of it as an archive (programs, films, firmware), or the module passes over what is
/// missing without a word (tar and compress cut short, the first member of a deb).
constexpr std::array ratings{
    Rating{"7z", 90, "7-Zip"},
    Rating{"zip", 80, "ZIP"},
    Rating{"Arj", 65, "ARJ"},
    Rating{"Cab", 65, "Cabinet"},
    Rating{"Dmg", 70, "Apple disk image"},
    Rating{"HFS", 70, "HFS"},
    Rating{"APFS", 70, "APFS"},
    Rating{"Nsis", 70, "NSIS installer"},
    Rating{"SquashFS", 70, "SquashFS"},
    Rating{"CramFS", 70, "CramFS"},
    Rating{"Chm", 70, "Compiled HTML help"},
    Rating{"Hxs", 70, "Compiled help"},
    Rating{"wim", 70, "Windows image"},
    Rating{"Udf", 70, "UDF"},
    Rating{"Compound", 60, "Compound file"},
    Rating{"NTFS", 60, "NTFS"},
    Rating{"FAT", 60, "FAT"},
    Rating{"Ext", 60, "ext"},
    Rating{"GPT", 60, "GPT disk image"},
    Rating{"APM", 60, "Apple partition map"},
    Rating{"MBR", 50, "Disk image"},
    Rating{"QCOW", 60, "QCOW disk image"},
    Rating{"VDI", 60, "VDI disk image"},
    Rating{"VHD", 60, "VHD disk image"},
    Rating{"VHDX", 60, "VHDX disk image"},
    Rating{"VMDK", 60, "VMDK disk image"},
    Rating{"Sparse", 60, "Sparse image"},
    Rating{"LP", 60, "Partition image"},
    Rating{"Iso", 40, "ISO 9660"},
    Rating{"Lzh", 30, "LHA"},
    Rating{"Cpio", 30, "cpio"},
    Rating{"Rpm", 30, "RPM"},
    Rating{"Xar", 30, "XAR"},
    Rating{"gzip", 30, "gzip", true},
    Rating{"bzip2", 30, "bzip2", true},
    Rating{"xz", 30, "xz", true},
    Rating{"zstd", 30, "Zstandard", true},
    Rating{"lzma", 30, "LZMA", true},
    Rating{"lzma86", 30, "LZMA86", true},
    Rating{"Ppmd", 30, "PPMd", true},
    Rating{"MsLZ", 30, "MS LZ", true},
    Rating{"Rar", 55, "RAR"},
    Rating{"Rar5", 55, "RAR 5"},
};

const Rating *ratingOf(const QByteArray &format)
{
    const auto found =
        std::find_if(ratings.begin(), ratings.end(), [&](const Rating &r) { return format == r.format; });
    return found == ratings.end() ? nullptr : &*found;
}

/// The start header of 7z carries its own checksum: no false find inside a program.
bool isSevenZipAt(const QByteArray &bytes, qsizetype at)
{
    constexpr qsizetype startHeaderSize = 32;
    return at + startHeaderSize <= bytes.size() && libdeflate_crc32(0, bytes.constData() + at + 12, 20) ==
                                                       qFromLittleEndian<quint32>(bytes.constData() + at + 8);
}

/// Version 1.3 and a plausible size.
bool isCabinetAt(const QByteArray &bytes, qsizetype at)
{
    return at + 36 <= bytes.size() && bytes[at + 24] == 3 && bytes[at + 25] == 1 &&
           qFromLittleEndian<quint32>(bytes.constData() + at + 8) > 36;
}

bool isPlainProgram(const QByteArray &head)
{
    return head.startsWith("MZ") ||
           head.startsWith("\x7f"
                           "ELF") ||
           head.startsWith("#!");
}

/// Where the sections of a Windows program end and what was appended begins; 0 when it is none.
qint64 endOfProgramSections(const QByteArray &head)
{
    const auto u16 = [&](qsizetype at) { return qFromLittleEndian<quint16>(head.constData() + at); };
    const auto u32 = [&](qsizetype at) { return qFromLittleEndian<quint32>(head.constData() + at); };
    if (!head.startsWith("MZ") || head.size() < 0x40)
        return 0;
    const qint64 pe = u32(0x3C);
    if (pe + 24 > head.size() || head.mid(pe, 4) != QByteArrayView("PE\0\0", 4))
        return 0;
    qint64 section = pe + 24 + u16(pe + 20);
    qint64 end = 0;
    for (int left = u16(pe + 6); left > 0 && section + 40 <= head.size(); --left, section += 40)
        end = std::max<qint64>(end, qint64(u32(section + 16)) + u32(section + 20));
    return end;
}

/// The end record of a zip whose comment reaches exactly to the end of the file.
bool endsAsZip(const QByteArray &tail)
{
    constexpr qsizetype recordSize = 22;
    for (qsizetype at = tail.lastIndexOf("PK\5\6"); at >= 0;
         at = at > 0 ? tail.lastIndexOf("PK\5\6", at - 1) : -1) {
        if (at + recordSize <= tail.size() &&
            at + recordSize + qFromLittleEndian<quint16>(tail.constData() + at + 20) == tail.size())
            return true;
    }
    return false;
}

bool isPartitionTable(const QByteArray &head)
{
    if (head.size() < 512 || head.mid(0x1FE, 2) != QByteArrayView("\x55\xAA"))
        return false;
    bool used = false;
    for (qsizetype at = 0x1BE; at < 0x1FE; at += 16) {
        if (head[at] != 0 && quint8(head[at]) != 0x80)
            return false;
        used = used || head[at + 4] != 0;
    }
    return used;
}

/// Whether one of the volume descriptors of a disc has this mark, and this type (-1: any).
bool hasDescriptor(const QByteArray &head, QByteArrayView mark, int type = -1)
{
    constexpr qsizetype firstDescriptor = 0x8000;
    constexpr qsizetype descriptorSize = 2048;
    for (qsizetype at = firstDescriptor; at + descriptorSize <= head.size(); at += descriptorSize) {
        if (QByteArrayView(head).sliced(at + 1).startsWith(mark) && (type < 0 || head[at] == type))
            return true;
    }
    return false;
}

/// libarchive cannot unpack -lh4-; everything else of the family it reads at least as well.
bool usesLh4(const QByteArray &head)
{
    return head.contains("-lh4-");
}

class Guesser
{
public:
    Guesser(const CVSevenZipLibrary &library, const CVSevenZipBytes &bytes)
        : m_library(library)
        , m_bytes(bytes)
    {}

    std::vector<CVSevenZipGuess> run()
    {
        atTheBeginning();
        atTheEnd();
        if (isPlainProgram(m_bytes.head) && m_bytes.more)
            behindAProgram();
        std::stable_sort(m_guesses.begin(), m_guesses.end(),
                         [](const CVSevenZipGuess &a, const CVSevenZipGuess &b) { return a.bid > b.bid; });
        return std::move(m_guesses);
    }

private:
    void add(const char *format, int bid, qint64 offset = 0)
    {
        const int index = m_library.indexOfFormat(format);
        if (index < 0)
            return;
        const bool known = std::any_of(m_guesses.begin(), m_guesses.end(), [&](const CVSevenZipGuess &g) {
            return g.format == index && g.offset == offset;
        });
        if (!known)
            m_guesses.push_back({index, bid, offset});
    }

    bool isFormat(const CVSevenZipGuess &guess, const char *format) const
    {
        return m_library.formats()[std::size_t(guess.format)].name == format;
    }

    bool matches(const CVSevenZipLibrary::Format &format) const
    {
        const QByteArray &head = m_bytes.head;
        const bool marked =
            std::any_of(format.signatures.begin(), format.signatures.end(), [&](const QByteArray &s) {
                return QByteArrayView(head)
                    .sliced(std::min<qsizetype>(format.signatureOffset, head.size()))
                    .startsWith(s);
            });
        // LZMA alone has no mark; the usual parameter byte keeps arbitrary data out.
        const bool plainLzma = format.name == "lzma" && head.startsWith(QByteArrayView("\x5d\0\0", 3));
        if (!marked && !plainLzma && format.name != "lzma86")
            return false;
        if (format.name == "lzma86" && !(head.size() > 2 && quint8(head[0]) <= 1 && head[1] == 0x5d))
            return false;
        return !format.isArchive || format.isArchive(reinterpret_cast<const std::uint8_t *>(head.constData()),
                                                     std::size_t(head.size())) != CVSevenZipLibrary::No;
    }

    /// The module lists rar, whose methods come in a module of their own, if at all.
    bool hasMethods(const QByteArray &format) const
    {
        constexpr std::uint64_t rar3 = 0x40303;
        constexpr std::uint64_t rar5 = 0x40305;
        return (format != "Rar" || m_library.codecs()->has(rar3)) &&
               (format != "Rar5" || m_library.codecs()->has(rar5));
    }

    void atTheBeginning()
    {
        const auto formats = m_library.formats();
        bool isIso = false;
        for (const auto &format : formats) {
            const Rating *rating = ratingOf(format.name);
            if (!rating || !matches(format) || !hasMethods(format.name))
                continue;
            int bid = rating->bid;
            if (format.name == "Lzh" && usesLh4(m_bytes.head))
                bid = 70;
            isIso = isIso || format.name == "Iso";
            add(rating->format, bid);
        }
        // Every iso begins like UDF. A disc that is both shows its files only as UDF, unless it has the
        // long names of Joliet too.
        const bool isUdf = hasDescriptor(m_bytes.head, "NSR0");
        const bool isJoliet = hasDescriptor(m_bytes.head, QByteArrayView("CD001"), 2);
        std::erase_if(m_guesses,
                      [&](const CVSevenZipGuess &guess) { return isFormat(guess, "Udf") && !isUdf; });
        for (CVSevenZipGuess &guess : m_guesses) {
            if (isIso && isJoliet && isFormat(guess, "Udf"))
                guess.bid = 39;
        }
        if (m_guesses.empty() && isPartitionTable(m_bytes.head))
            add("MBR", 50);
    }

    void atTheEnd()
    {
        const QByteArrayView tail = m_bytes.tail;
        if (tail.size() >= 512) {
            const QByteArrayView trailer = tail.last(512);
            if (trailer.startsWith(QByteArrayView("koly\0\0\0\4\0\0\2\0", 12)))
                add("Dmg", 70);
            else if (trailer.startsWith("conectix"))
                add("VHD", 60);
        }
        // Something else begins here and happens to end in a stored zip: only the last resort.
        if (endsAsZip(m_bytes.tail))
            add("zip", m_guesses.empty() ? 80 : 25);
    }

    void behindAProgram()
    {
        const QByteArray stub = m_bytes.more(0, stubSearchBytes);
        search(stub, 0);
        if (const qint64 end = endOfProgramSections(m_bytes.head);
            end >= stubSearchBytes && end < m_bytes.size)
            search(m_bytes.more(end, m_bytes.head.size()), end);
    }

    void search(const QByteArray &bytes, qint64 base)
    {
        findFirst(bytes, base, QByteArrayView("7z\xBC\xAF\x27\x1C"), "7z", 90, isSevenZipAt);
        // The mark of the installer comes four bytes into its header, which begins on a sector.
        findFirst(bytes, base - 4, QByteArrayView("\xEF\xBE\xAD\xDENullsoftInst"), "Nsis", 70,
                  [&](const QByteArray &, qsizetype at) { return at >= 4 && (base + at - 4) % 512 == 0; });
        findFirst(bytes, base, QByteArrayView("MSCF\0\0\0\0", 8), "Cab", 60, isCabinetAt);
    }

    template <typename Check>
    void findFirst(const QByteArray &bytes, qint64 base, QByteArrayView mark, const char *format, int bid,
                   Check check)
    {
        for (qsizetype at = bytes.indexOf(mark); at >= 0; at = bytes.indexOf(mark, at + 1)) {
            if (check(bytes, at)) {
                add(format, bid, base + at);
                return;
            }
        }
    }

    const CVSevenZipLibrary &m_library;
    const CVSevenZipBytes &m_bytes;
    std::vector<CVSevenZipGuess> m_guesses;
};

} // namespace

std::vector<CVSevenZipGuess> cvSevenZipGuesses(const CVSevenZipLibrary &library, const CVSevenZipBytes &bytes)
{
    return Guesser(library, bytes).run();
}

QString cvSevenZipFormatName(const QByteArray &format)
{
    const Rating *rating = ratingOf(format);
    return rating ? QLatin1String(rating->people) : QString::fromUtf8(format);
}

bool cvSevenZipIsSingleStream(const QByteArray &format)
{
    const Rating *rating = ratingOf(format);
    return rating && rating->singleStream;
}

qint64 cvSevenZipDecoderMemory(const QString &methods)
{
    qint64 most = 0;
    for (const QString &method : methods.split(u' ', Qt::SkipEmptyParts)) {
        if (!method.startsWith(QLatin1String("LZMA"), Qt::CaseInsensitive) &&
            !method.startsWith(QLatin1String("PPMD"), Qt::CaseInsensitive))
            continue;
        for (QStringView part : QStringView(method).mid(method.indexOf(u':') + 1).split(u':')) {
            if (part.startsWith(u"mem"))
                part = part.mid(3);
            int shift = 0;
            if (part.endsWith(u'k'))
                shift = 10;
            else if (part.endsWith(u'm'))
                shift = 20;
            else if (part.endsWith(u'g'))
                shift = 30;
            bool isNumber = false;
            const uint number = (shift || part.endsWith(u'b') ? part.chopped(1) : part).toUInt(&isNumber);
            if (!isNumber)
                continue;
            qint64 bytes = qint64(number) << shift;
            if (shift == 0 && !part.endsWith(u'b'))
                bytes = number < 40 ? qint64(1) << number : 0;
            most = std::max(most, bytes);
        }
    }
    return most;
}
