#include "archives/reading/CVSevenZipStreams.h"

#include "util/LXFileName.h"

#include <QFile>
#include <QFileInfo>
#include <QtEndian>

#include <algorithm>
#include <cerrno>
#include <limits>

#include <fcntl.h>
#include <sys/stat.h>

using namespace sevenzip;

namespace {

/// More parts than any real set; a folder cannot make us hold every descriptor of the process.
constexpr int maximumParts = 10000;

/// Reads the records of a 7z directory. Past the end or out of range everything is 0 and isBad.
class DirectoryReader
{
public:
    explicit DirectoryReader(QByteArrayView data)
        : m_data(data)
    {}

    bool isBad() const { return m_isBad; }
    quint8 byte()
    {
        m_isBad = m_isBad || m_at >= m_data.size();
        return m_isBad ? 0 : quint8(m_data[m_at++]);
    }
    void skip(quint64 bytes)
    {
        m_isBad = m_isBad || bytes > quint64(m_data.size() - m_at);
        m_at += m_isBad ? 0 : qsizetype(bytes);
    }
    /// The leading ones of the first byte say how many bytes follow; its other bits are the highest.
    quint64 number()
    {
        const quint8 first = byte();
        quint64 value = 0;
        quint8 mask = 0x80;
        for (int i = 0; i < 8; ++i, mask >>= 1) {
            if (!(first & mask))
                return value | quint64(first & (mask - 1)) << (8 * i);
            value |= quint64(byte()) << (8 * i);
        }
        return value;
    }
    /// A number of things of which each takes at least a byte here.
    quint64 count()
    {
        const quint64 value = number();
        m_isBad = m_isBad || value > quint64(m_data.size());
        return m_isBad ? 0 : value;
    }

private:
    QByteArrayView m_data;
    qsizetype m_at = 0;
    bool m_isBad = false;
};

/// Passes over the description of one folder; the number of streams that come out of its coders.
quint64 skipFolder(DirectoryReader &reader)
{
    quint64 in = 0;
    quint64 out = 0;
    for (quint64 coders = reader.count(); coders > 0 && !reader.isBad(); --coders) {
        const quint8 kind = reader.byte();
        reader.skip(kind & 0x0F);
        in += kind & 0x10 ? reader.count() : 1;
        out += kind & 0x10 ? reader.count() : 1;
        if (kind & 0x20)
            reader.skip(reader.count());
    }
    const quint64 bonds = out > 0 ? out - 1 : 0;
    for (quint64 i = 0; i < 2 * bonds && !reader.isBad(); ++i)
        (void)reader.number();
    for (quint64 i = bonds; in > bonds + 1 && i < in && !reader.isBad(); ++i)
        (void)reader.number();
    return out;
}

} // namespace

QStringList CVSevenZipSource::numberedParts(const QString &path)
{
    QStringList paths{path};
    const qsizetype dot = path.lastIndexOf(u'.');
    const QStringView number = QStringView(path).mid(dot + 1);
    if (dot < 0 || number.size() < 2 || number.size() > 6 || number.toInt() != 1 ||
        !std::all_of(number.begin(), number.end(), [](QChar c) { return c >= u'0' && c <= u'9'; }))
        return paths;
    const int width = int(number.size());
    for (int next = 2; next <= maximumParts; ++next) {
        const QString part =
            QStringView(path).left(dot + 1) + QStringLiteral("%1").arg(next, width, 10, QChar(u'0'));
        if (!QFileInfo(part).isFile())
            break;
        paths << part;
    }
    return paths;
}

std::shared_ptr<const CVSevenZipSource> CVSevenZipSource::open(const QStringList &paths)
{
    auto source = std::make_shared<CVSevenZipSource>();
    for (const QString &path : paths) {
        LXFileDescriptor file(::open(bytesOfFileName(path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        struct stat status = {};
        if (!file.isOpen() || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
            return nullptr;
        source->m_parts.push_back({std::move(file), source->m_size, status.st_size});
        source->m_size += status.st_size;
    }
    source->m_paths = paths;
    return source;
}

qint64 CVSevenZipSource::readAt(char *data, qint64 size, qint64 offset) const
{
    if (offset < 0 || offset >= m_size)
        return 0;
    auto part = std::upper_bound(m_parts.begin(), m_parts.end(), offset,
                                 [](qint64 at, const Part &candidate) { return at < candidate.start; });
    --part;
    qint64 done = 0;
    while (done < size && part != m_parts.end()) {
        const qint64 inside = offset + done - part->start;
        const qint64 wanted = std::min(size - done, part->size - inside);
        if (wanted <= 0) {
            ++part;
            continue;
        }
        const ssize_t got = ::pread(part->file.get(), data + done, std::size_t(wanted), inside);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return -1;
        if (got == 0) // the file shrank under us; what follows would come from the wrong place
            break;
        done += got;
    }
    return done;
}

QByteArray CVSevenZipSource::readAt(qint64 offset, qint64 size) const
{
    QByteArray data(std::max<qint64>(0, std::min(size, m_size - offset)), Qt::Uninitialized);
    data.resize(std::max<qint64>(0, readAt(data.data(), data.size(), offset)));
    return data;
}

Result CVSevenZipInStream::QueryInterface(const Guid &iid, void **out)
{
    if (iid == IdUnknown || iid == InStream::id || iid == SequentialInStream::id)
        *out = static_cast<InStream *>(this);
    else if (iid == StreamGetSize::id)
        *out = static_cast<StreamGetSize *>(this);
    else {
        *out = nullptr;
        return NoInterface;
    }
    return Ok;
}

Result CVSevenZipInStream::Read(void *data, std::uint32_t size, std::uint32_t *processed)
{
    const qint64 got = m_source->readAt(static_cast<char *>(data), size, m_position);
    if (processed)
        *processed = std::uint32_t(std::max<qint64>(0, got));
    if (got < 0)
        return Fail;
    m_position += got;
    return Ok;
}

Result CVSevenZipInStream::Seek(std::int64_t offset, std::uint32_t origin, std::uint64_t *newPosition)
{
    qint64 target = 0;
    const qint64 base = origin == SEEK_SET ? 0 : origin == SEEK_CUR ? m_position : m_source->size();
    if (origin > SEEK_END || __builtin_add_overflow(base, offset, &target) || target < 0)
        return InvalidArgument;
    m_position = target;
    if (newPosition)
        *newPosition = std::uint64_t(m_position);
    return Ok;
}

Result CVSevenZipInStream::GetSize(std::uint64_t *size)
{
    *size = std::uint64_t(m_source->size());
    return Ok;
}

qint64 cvSevenZipDirectorySize(const CVSevenZipSource &source, qint64 offset)
{
    constexpr qint64 startHeaderSize = 32;
    constexpr qint64 mostDescription = 64 * 1024; // a real one has some dozen bytes
    enum Record : quint8 {
        End = 0,
        PackInfo = 6,
        UnpackInfo = 7,
        Sizes = 9,
        Folders = 11,
        UnpackSizes = 12,
        Packed = 23
    };

    const QByteArray start = source.readAt(offset, startHeaderSize);
    if (start.size() < startHeaderSize)
        return 0;
    const auto directoryAt = qFromLittleEndian<quint64>(start.constData() + 12);
    const auto directorySize = qFromLittleEndian<quint64>(start.constData() + 20);
    if (directoryAt > quint64(source.size()))
        return 0;
    const QByteArray description = source.readAt(offset + startHeaderSize + qint64(directoryAt),
                                                 qint64(std::min<quint64>(directorySize, mostDescription)));
    DirectoryReader reader(description);
    if (reader.byte() != Packed || reader.byte() != PackInfo)
        return 0;
    (void)reader.number();
    const quint64 streams = reader.count();
    if (reader.byte() != Sizes)
        return 0;
    for (quint64 i = 0; i < streams && !reader.isBad(); ++i)
        (void)reader.number();
    if (reader.byte() != End || reader.byte() != UnpackInfo || reader.byte() != Folders)
        return 0;
    const quint64 folders = reader.count();
    if (reader.byte() != 0)
        return 0;
    quint64 outputs = 0;
    for (quint64 i = 0; i < folders && !reader.isBad(); ++i)
        outputs += skipFolder(reader);
    if (reader.byte() != UnpackSizes)
        return 0;
    quint64 largest = 0;
    for (quint64 i = 0; i < outputs && !reader.isBad(); ++i)
        largest = std::max(largest, reader.number());
    return reader.isBad() ? 0 : qint64(std::min<quint64>(largest, std::numeric_limits<qint64>::max()));
}
