#include "archives/reading/CVZipLocalHeader.h"

#include <algorithm>
#include <numeric>

using namespace CVZipBytes;

namespace {

QString cutOff()
{
    return QStringLiteral("The file ends within the entry.");
}

QString sizesDiffer()
{
    return QStringLiteral("Size or checksum differ between the entry and the directory.");
}

} // namespace

QString CVZipLocalHeader::read(const char *bytes, quint64 available, quint64 limit)
{
    constexpr quint16 flagEncrypted = 1;
    constexpr quint16 flagDescriptor = 8;
    if (available < quint64(localHeaderSize))
        return cutOff();
    if (u32(bytes) != localHeaderMark)
        return QStringLiteral("There is no entry where the directory says.");
    const quint16 flags = u16(bytes + 6);
    const quint64 nameSize = u16(bytes + 26);
    const quint64 extraSize = u16(bytes + 28);
    if (available < quint64(localHeaderSize) + nameSize)
        return cutOff();
    const auto isSameByte = [](char a, char b) {
        // Some packers change the separator in one of the two places only.
        return (a == '\\' ? '/' : a) == (b == '\\' ? '/' : b);
    };
    const QByteArrayView localName(bytes + localHeaderSize, qsizetype(nameSize));
    if (!std::equal(localName.begin(), localName.end(), m_name.begin(), m_name.end(), isSameByte))
        return QStringLiteral("The name differs between the entry and the directory.");
    if (((flags & flagEncrypted) != 0) != m_record.isEncrypted || u16(bytes + 8) != m_record.method)
        return QStringLiteral("The method differs between the entry and the directory.");
    m_headerSize = quint64(localHeaderSize) + nameSize + extraSize;
    if (dataEnd() > limit)
        return QStringLiteral("The entry overlaps another one.");

    const quint32 crc = u32(bytes + 14);
    quint64 packedSize = u32(bytes + 18);
    quint64 size = u32(bytes + 22);
    m_hasDescriptor = (flags & flagDescriptor) != 0;
    // With a descriptor behind the data these are not known here, and some writers leave them out anyway.
    if (m_hasDescriptor || (crc == 0 && packedSize == 0 && size == 0))
        return {};
    if (packedSize == 0xffffffff || size == 0xffffffff) {
        if (available < m_headerSize)
            return cutOff();
        if (!readWideSizes(bytes + localHeaderSize + nameSize, extraSize, packedSize, size))
            return QStringLiteral("A ZIP64 field is missing.");
    }
    return crc == m_record.crc && packedSize == m_record.packedSize && size == m_size ? QString()
                                                                                      : sizesDiffer();
}

bool CVZipLocalHeader::readWideSizes(const char *extra, quint64 extraSize, quint64 &packedSize,
                                     quint64 &size) const
{
    const char *at = extra;
    const char *const end = extra + extraSize;
    while (end - at >= 4 && u16(at) != 1)
        at += std::min<qsizetype>(4 + u16(at + 2), end - at);
    if (end - at < 4 || u16(at + 2) > end - at - 4)
        return false;
    const char *const fieldEnd = at + 4 + u16(at + 2);
    at += 4;
    for (quint64 *field : {&size, &packedSize}) {
        if (*field != 0xffffffff)
            continue;
        if (fieldEnd - at < 8)
            return false;
        *field = u64(at);
        at += 8;
    }
    return true;
}

QString CVZipLocalHeader::readBehind(const char *bytes, quint64 available, bool &isUnlisted) const
{
    const auto isNarrow = [&](const char *at) {
        return u32(at) == m_record.crc && u32(at + 4) == quint32(m_record.packedSize) &&
               u32(at + 8) == quint32(m_size);
    };
    const auto isWide = [&](const char *at) {
        return u32(at) == m_record.crc && u64(at + 4) == m_record.packedSize && u64(at + 12) == m_size;
    };
    quint64 passed = 0;
    if (m_hasDescriptor) {
        // Its mark and the width of its sizes are the writer's choice, and some write none at all.
        const quint64 mark = available >= 4 && u32(bytes) == spannedMark ? 4 : 0;
        if (available >= mark + 20 && isWide(bytes + mark))
            passed = mark + 20;
        else if (available >= mark + 12 && isNarrow(bytes + mark))
            passed = mark + 12;
        else if (mark > 0)
            return sizesDiffer();
    }
    isUnlisted = available >= passed + 4 && u32(bytes + passed) == localHeaderMark;
    return {};
}

CVZipComparison cvZipCompareHeaders(const Input &input, quint64 fileSize,
                                    const std::function<bool(int)> &isWanted,
                                    const std::function<void(int, const QString &)> &report)
{
    CVZipDirectory directory;
    CVZipComparison result{directory.read(input, fileSize, CVZipDirectory::Accept::EveryMethod)};
    if (result.outcome.code != XADErrorCode::None)
        return result;
    const std::span<const CVZipRecord> records = directory.records();
    result.entries = records.size();
    std::vector<int> order(records.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
        return records[std::size_t(a)].headerOffset < records[std::size_t(b)].headerOffset;
    });
    QByteArray bytes;
    for (std::size_t i = 0; i < order.size(); ++i) {
        if (!isWanted(order[i]))
            continue;
        const quint64 start = records[std::size_t(order[i])].headerOffset;
        const quint64 limit = i + 1 < order.size() ? records[std::size_t(order[i + 1])].headerOffset
                                                   : directory.directoryOffset();
        CVZipLocalHeader header(directory, order[i]);
        // The extra field is only needed for sizes of 4 GiB and more.
        bytes.resize(qsizetype(std::min<quint64>(quint64(header.mostBytes()), limit - start)));
        const qint64 got = input(bytes.data(), bytes.size(), start);
        const QString fault = header.read(bytes.constData(), quint64(std::max<qint64>(0, got)), limit);
        if (!fault.isEmpty())
            report(order[i], fault);
    }
    return result;
}
