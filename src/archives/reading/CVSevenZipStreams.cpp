#include "archives/reading/CVSevenZipStreams.h"

#include "archives/reading/CVArchiveFiles.h"

#include <algorithm>
#include <cerrno>

#include <sys/stat.h>

using namespace sevenzip;

namespace {

/// More parts than any real set; a folder cannot make us hold every descriptor of the process.
constexpr int maximumParts = 10000;

/// Whether the name ends in the number one, as that of the first of several parts does.
bool isFirstPart(const QString &path)
{
    const qsizetype dot = path.lastIndexOf(u'.');
    const QStringView number = QStringView(path).mid(dot + 1);
    return dot >= 0 && number.size() >= 2 && number.size() <= 6 && number.toInt() == 1 &&
           std::all_of(number.begin(), number.end(), [](QChar c) { return c >= u'0' && c <= u'9'; });
}

} // namespace

bool CVSevenZipSource::isNumbered() const
{
    return isFirstPart(m_paths.first());
}

QStringList CVSevenZipSource::numberedParts(const QString &path)
{
    QStringList paths{path};
    if (!isFirstPart(path))
        return paths;
    const qsizetype dot = path.lastIndexOf(u'.');
    const int width = int(path.size() - dot - 1);
    for (int next = 2; next <= maximumParts; ++next) {
        const QString part =
            QStringView(path).left(dot + 1) + QStringLiteral("%1").arg(next, width, 10, QChar(u'0'));
        if (!CVArchiveFiles::exists(part))
            break;
        paths << part;
    }
    return paths;
}

std::shared_ptr<const CVSevenZipSource> CVSevenZipSource::open(const QStringList &paths)
{
    auto source = std::make_shared<CVSevenZipSource>();
    for (const QString &path : paths) {
        LXFileDescriptor file = CVArchiveFiles::open(path);
        struct stat status = {};
        if (!file.isOpen() || ::fstat(file.get(), &status) != 0)
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
