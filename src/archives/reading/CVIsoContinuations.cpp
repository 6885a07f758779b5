#include "archives/reading/CVIsoContinuations.h"

#include "archives/reading/CVArchiveSource.h"

#include <QByteArray>
#include <QtEndian>

#include <algorithm>
#include <bit>
#include <deque>
#include <optional>
#include <unordered_set>

namespace {

constexpr qint64 sectorBytes = 2048;
constexpr qint64 firstDescriptor = 16;
constexpr qint64 maxDescriptors = 64;
// A long link target and an access list together need two or three.
constexpr int maxAreas = 64;
// Folders of a few hundred thousand files; beyond, the image is taken as it is.
constexpr qint64 maxFolderBytes = qint64(256) << 20;

struct Extent
{
    qint64 offset = 0;
    qint64 size = 0;
};

std::uint32_t little32(QByteArrayView bytes, qsizetype at)
{
    return qFromLittleEndian<std::uint32_t>(bytes.data() + at);
}

int byteAt(QByteArrayView bytes, qsizetype at)
{
    return static_cast<unsigned char>(bytes[at]);
}

class Image
{
public:
    explicit Image(const CVArchiveSource &source)
        : m_source(source)
    {}

    bool continuesForEver()
    {
        const std::optional<Extent> root = findRoot();
        if (!root)
            return false;
        std::deque<Extent> folders{*root};
        std::unordered_set<qint64> seen{root->offset};
        qint64 total = 0;
        while (!folders.empty()) {
            const Extent folder = folders.front();
            folders.pop_front();
            for (qint64 at = 0; at < folder.size && total < maxFolderBytes; at += sectorBytes) {
                total += sectorBytes;
                const QByteArray sector = read({folder.offset + at, sectorBytes});
                if (sector.isEmpty())
                    break;
                for (const Extent &inner : subfolders(sector))
                    if (seen.insert(inner.offset).second)
                        folders.push_back(inner);
                if (m_endless)
                    return true;
            }
        }
        return false;
    }

private:
    QByteArray read(Extent extent) const
    {
        QByteArray bytes(std::min(extent.size, sectorBytes), Qt::Uninitialized);
        bytes.truncate(std::max<qint64>(m_source.readAt(extent.offset, bytes.data(), bytes.size()), 0));
        return bytes;
    }

    std::optional<Extent> findRoot()
    {
        for (qint64 i = 0; i < maxDescriptors; ++i) {
            const QByteArray descriptor = read({(firstDescriptor + i) * sectorBytes, sectorBytes});
            if (descriptor.size() < sectorBytes || !descriptor.sliced(1).startsWith("CD001") ||
                byteAt(descriptor, 0) == 255)
                break;
            if (byteAt(descriptor, 0) != 1)
                continue;
            m_blockBytes = qFromLittleEndian<std::uint16_t>(descriptor.constData() + 128);
            if (m_blockBytes < 512 || m_blockBytes > sectorBytes)
                return std::nullopt;
            return Extent{m_blockBytes * little32(descriptor, 156 + 2), little32(descriptor, 156 + 10)};
        }
        return std::nullopt;
    }

    /// The folders among the records of one sector; follows the attributes of all of them on the way.
    std::vector<Extent> subfolders(QByteArrayView sector)
    {
        std::vector<Extent> found;
        for (qsizetype at = 0; at + 33 < sector.size();) {
            const int length = byteAt(sector, at);
            if (length < 34 || at + length > sector.size())
                break;
            const QByteArrayView record = sector.sliced(at, length);
            at += length;
            const int nameLength = byteAt(record, 32);
            const qsizetype attributes = 33 + nameLength + (nameLength % 2 == 0 ? 1 : 0);
            if (attributes < record.size())
                follow(record.sliced(attributes));
            // "." and ".." are single bytes 0 and 1.
            const bool isSelf = nameLength == 1 && byteAt(record, 33) <= 1;
            if ((byteAt(record, 25) & 2) != 0 && !isSelf)
                found.push_back({m_blockBytes * little32(record, 2), little32(record, 10)});
        }
        return found;
    }

    static std::optional<std::pair<std::uint32_t, Extent>> continuation(QByteArrayView area)
    {
        for (qsizetype at = 0; at + 4 <= area.size();) {
            const int length = byteAt(area, at + 2);
            if (length < 4 || at + length > area.size())
                break;
            if (length >= 28 && area.sliced(at).startsWith("CE"))
                return std::pair(little32(area, at + 4),
                                 Extent{little32(area, at + 12), little32(area, at + 20)});
            at += length;
        }
        return std::nullopt;
    }

    void follow(QByteArrayView area)
    {
        QByteArray held;
        for (int areas = 0; auto next = continuation(area); ++areas) {
            if (areas == maxAreas) {
                m_endless = true;
                return;
            }
            held = read({m_blockBytes * next->first + next->second.offset, next->second.size});
            area = held;
        }
    }

    const CVArchiveSource &m_source;
    qint64 m_blockBytes = sectorBytes;
    bool m_endless = false;
};

} // namespace

bool cvIsoContinuesForEver(const CVArchiveSource &source)
{
    return Image(source).continuesForEver();
}
