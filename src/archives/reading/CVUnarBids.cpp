#include "archives/reading/CVUnarBids.h"

#include <QtEndian>

#include <cstdint>

namespace {

constexpr int onlyReader = 60;
constexpr int betterReader = 70;
constexpr int rarReader = 50;
constexpr int secondReader = 30;
constexpr int lastResort = 10;
constexpr int hiddenArchive = 5;

class Bytes
{
public:
    explicit Bytes(const QByteArray &bytes)
        : m_bytes(bytes)
    {}

    bool has(qsizetype at, QByteArrayView text) const
    {
        return at >= 0 && at + text.size() <= m_bytes.size() &&
               QByteArrayView(m_bytes).sliced(at, text.size()) == text;
    }
    int byte(qsizetype at) const
    {
        return at >= 0 && at < m_bytes.size() ? static_cast<unsigned char>(m_bytes[at]) : -1;
    }
    std::uint32_t little16(qsizetype at) const { return number<std::uint16_t>(at, false); }
    std::uint32_t little32(qsizetype at) const { return number<std::uint32_t>(at, false); }
    std::uint32_t big16(qsizetype at) const { return number<std::uint16_t>(at, true); }
    std::uint32_t big32(qsizetype at) const { return number<std::uint32_t>(at, true); }

private:
    template <typename T> T number(qsizetype at, bool big) const
    {
        if (at < 0 || at + static_cast<qsizetype>(sizeof(T)) > m_bytes.size())
            return 0;
        return big ? qFromBigEndian<T>(m_bytes.constData() + at)
                   : qFromLittleEndian<T>(m_bytes.constData() + at);
    }

    const QByteArray &m_bytes;
};

bool isStuffIt(const Bytes &head, qsizetype at)
{
    if (head.has(at, "StuffIt (c)1997") || head.has(at, "StuffIt!") || head.has(at, "StuffIt?"))
        return true;
    if (!head.has(at + 10, "rLau"))
        return false;
    return head.has(at, "SIT!") || head.has(at, "ST") || head.has(at, "DLIT");
}

/// The header is 128 bytes with a check sum over the first 124; older ones without it count only when a
/// known archive follows.
bool isMacBinary(const Bytes &head, qint64 fileSize)
{
    const int nameLength = head.byte(1);
    if (head.byte(0) != 0 || nameLength < 1 || nameLength > 63 || head.byte(74) != 0 || fileSize < 128)
        return false;
    const qint64 dataLength = head.big32(83);
    const qint64 resourceLength = head.big32(87);
    if (128 + dataLength + resourceLength > fileSize + 127 || dataLength + resourceLength == 0)
        return false;
    if (isStuffIt(head, 128))
        return true;
    std::uint16_t sum = 0;
    for (qsizetype i = 0; i < 124; ++i) {
        sum ^= static_cast<std::uint16_t>(head.byte(i) << 8);
        for (int bit = 0; bit < 8; ++bit)
            sum = static_cast<std::uint16_t>(sum & 0x8000 ? (sum << 1) ^ 0x1021 : sum << 1);
    }
    return sum == head.big16(124);
}

/// ARC has no magic number worth the name, so the first header has to make sense as a whole and be followed
/// by another one or the end mark.
bool isArc(const Bytes &head, qint64 fileSize, qsizetype headSize)
{
    const int method = head.byte(1);
    if (head.byte(0) != 0x1a || !((method >= 1 && method <= 11) || method == 0x48))
        return false;
    bool ended = false;
    for (qsizetype i = 2; i < 15; ++i) {
        const int c = head.byte(i);
        if (c == 0) {
            ended = i > 2;
            break;
        }
        if (c < 0x21 || c == 0x7f || c == '/' || c == '\\')
            return false;
    }
    const qint64 stored = head.little32(15);
    const qint64 next = (method == 1 ? 25 : 29) + stored;
    if (!ended || next > fileSize)
        return false;
    return next >= headSize || head.byte(next) == 0x1a;
}

bool isArj(const Bytes &head)
{
    return head.byte(0) == 0x60 && head.byte(1) == 0xea && head.little16(2) >= 30 && head.little16(2) <= 2600;
}

/// The header after the main one is that of the first entry; bit 0 of its flags says that it is encrypted.
bool isEncryptedArj(const Bytes &head)
{
    const qsizetype mainEnd = 4 + static_cast<qsizetype>(head.little16(2)) + 4;
    const qsizetype extended = static_cast<qsizetype>(head.little16(mainEnd));
    const qsizetype first = mainEnd + 2 + (extended > 0 ? extended + 4 : 0);
    if (head.byte(8) & 1)
        return true;
    return head.byte(first) == 0x60 && head.byte(first + 1) == 0xea && (head.byte(first + 8) & 1) != 0;
}

bool isLha(const Bytes &head)
{
    if (head.byte(2) != '-' || head.byte(6) != '-')
        return false;
    return head.has(3, "lh") || head.has(3, "lz") || head.has(3, "pm");
}

/// Whether a cabinet has a name with bytes above ASCII that is not marked as UTF-8.
bool hasLegacyCabinetNames(const Bytes &head)
{
    qsizetype at = static_cast<qsizetype>(head.little32(16));
    const std::uint32_t files = head.little16(28);
    for (std::uint32_t i = 0; i < files && head.byte(at + 16) >= 0; ++i) {
        const bool marked = (head.little16(at + 14) & 0x80) != 0;
        bool above = false;
        for (at += 16; head.byte(at) > 0; ++at)
            above = above || head.byte(at) >= 0x80;
        ++at;
        if (above && !marked)
            return true;
    }
    return false;
}

} // namespace

int cvUnarBid(const CVArchiveProbe &probe)
{
    const Bytes head(probe.head);
    const qsizetype rar = probe.head.indexOf(QByteArrayView("Rar!\x1a\x07", 6));
    if (rar == 0)
        return rarReader;
    const bool isProgram = head.has(0, "MZ");
    if (isProgram && rar > 0)
        return rarReader;

    if (isStuffIt(head, 0) || head.has(20, QByteArrayView("\xdc\xa7\xc4\xfd", 4)) // Zoo
        || isMacBinary(head, probe.fileSize) || isArc(head, probe.fileSize, probe.head.size()))
        return onlyReader;
    if (head.has(0, "DOS") && head.byte(3) >= 0 && head.byte(3) <= 7 &&
        (probe.fileSize == 901120 || probe.fileSize == 1802240))
        return onlyReader; // a disk image of an Amiga
    for (const QByteArrayView magic :
         {QByteArrayView("DMS!"), QByteArrayView("LZX\0", 4), QByteArrayView("PP20"), QByteArrayView("PMag"),
          QByteArrayView("PMa4"), QByteArrayView("ALZ\x01"), QByteArrayView("\xab\xcd\x00\x54", 4),
          QByteArrayView("\x00\x05\x16\x00", 4)})
        if (head.has(0, magic))
            return onlyReader;
    const qsizetype binHex = probe.head.indexOf("(This file must be converted with BinHex");
    if (binHex >= 0 && binHex < 8192)
        return onlyReader;

    if (isArj(head))
        return isEncryptedArj(head) ? betterReader : secondReader;
    if (head.has(0, QByteArrayView("MSCF\0\0\0\0", 8)))
        return hasLegacyCabinetNames(head) ? betterReader : secondReader;
    if (head.has(0, "ISc(") || isLha(head))
        return secondReader;
    if (head.has(0, "PK\x03\x04") || head.has(0, "PK\x05\x06") || head.has(0, "PK00PK\x03\x04") ||
        head.has(0, "PK\x07\x08PK\x03\x04") || head.has(0, "7z\xbc\xaf\x27\x1c"))
        return lastResort;
    // Compact Pro: a volume mark of two ones and the place of its catalogue.
    if (head.byte(0) == 1 && head.byte(1) == 1 && head.big32(4) >= 8 && head.big32(4) < probe.fileSize)
        return lastResort;
    return isProgram ? hiddenArchive : 0;
}
