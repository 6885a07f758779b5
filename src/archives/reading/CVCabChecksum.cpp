#include "archives/reading/CVCabChecksum.h"

#include <QFile>
#include <QtEndian>

#include <cstdint>

namespace {

constexpr std::uint16_t hasReserved = 4;
constexpr std::uint16_t hasPrevious = 1;
constexpr std::uint16_t hasNext = 2;

/// The four-byte words of the data joined by exclusive or; the rest counts as one big-endian number.
std::uint32_t sumOf(const char *data, qsizetype size, std::uint32_t sum)
{
    for (; size >= 4; size -= 4, data += 4)
        sum ^= qFromLittleEndian<std::uint32_t>(data);
    std::uint32_t last = 0;
    for (; size > 0; --size, ++data)
        last = (last << 8) | static_cast<unsigned char>(*data);
    return sum ^ last;
}

} // namespace

CVCabState cvCheckCabinet(const QString &path, const std::function<bool()> &shouldStop)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return CVCabState::Damaged;
    const QByteArray header = file.read(36);
    if (header.size() < 36 || !header.startsWith("MSCF"))
        return CVCabState::Good; // something else, which is somebody else's to judge
    const auto number16 = [](const QByteArray &bytes, qsizetype at) {
        return qFromLittleEndian<std::uint16_t>(bytes.constData() + at);
    };
    const std::uint16_t folders = number16(header, 26);
    const std::uint16_t flags = number16(header, 30);
    qsizetype folderReserve = 0;
    qsizetype dataReserve = 0;
    if (flags & hasReserved) {
        const QByteArray reserve = file.read(4);
        if (reserve.size() < 4)
            return CVCabState::Damaged;
        folderReserve = static_cast<unsigned char>(reserve[2]);
        dataReserve = static_cast<unsigned char>(reserve[3]);
        if (!file.seek(file.pos() + number16(reserve, 0)))
            return CVCabState::Damaged;
    }
    int texts = (flags & hasPrevious ? 2 : 0) + (flags & hasNext ? 2 : 0);
    for (char c; texts > 0;) {
        if (!file.getChar(&c))
            return CVCabState::Damaged;
        if (c == 0)
            --texts;
    }
    const qint64 table = file.pos();
    for (std::uint16_t i = 0; i < folders; ++i) {
        file.seek(table + i * (8 + folderReserve));
        const QByteArray folder = file.read(8);
        if (folder.size() < 8)
            return CVCabState::Damaged;
        file.seek(qFromLittleEndian<std::uint32_t>(folder.constData()));
        for (std::uint16_t block = number16(folder, 4); block > 0; --block) {
            if (shouldStop())
                return CVCabState::Stopped;
            const QByteArray head = file.read(8 + dataReserve);
            if (head.size() < 8 + dataReserve)
                return CVCabState::Damaged;
            const std::uint32_t expected = qFromLittleEndian<std::uint32_t>(head.constData());
            const QByteArray data = file.read(number16(head, 4));
            if (data.size() != number16(head, 4))
                return CVCabState::Damaged;
            // The sum covers the data first, then the sizes (and what is reserved) before them.
            const std::uint32_t sum =
                sumOf(head.constData() + 4, head.size() - 4, sumOf(data.constData(), data.size(), 0));
            if (expected != 0 && sum != expected)
                return CVCabState::Damaged;
        }
    }
    return CVCabState::Good;
}
