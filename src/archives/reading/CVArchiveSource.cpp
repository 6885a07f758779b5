#include "archives/reading/CVArchiveSource.h"

#include "archives/reading/CVArchiveFiles.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

std::shared_ptr<const CVArchiveSource> CVArchiveSource::open(const QStringList &paths, QString *error)
{
    auto source = std::make_shared<CVArchiveSource>();
    for (const QString &path : paths) {
        Part part{path, CVArchiveFiles::open(path)};
        struct stat info;
        if (!part.fd.isOpen() || ::fstat(part.fd.get(), &info) != 0) {
            if (error)
                *error = path + QLatin1StringView(": ") + QString::fromLocal8Bit(std::strerror(errno));
            return nullptr;
        }
        part.start = source->m_size;
        part.size = info.st_size;
        source->m_size += part.size;
        if (source->m_parts.empty())
            source->m_modified = qint64(info.st_mtim.tv_sec) * 1'000 + info.st_mtim.tv_nsec / 1'000'000;
        ::posix_fadvise(part.fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
        source->m_parts.push_back(std::move(part));
    }
    return source;
}

QStringList CVArchiveSource::paths() const
{
    QStringList result;
    for (const Part &part : m_parts)
        result << part.path;
    return result;
}

std::vector<qint64> CVArchiveSource::starts() const
{
    std::vector<qint64> result;
    for (const Part &part : m_parts)
        result.push_back(part.start);
    return result;
}

qint64 CVArchiveSource::readAt(qint64 offset, char *buffer, qint64 bytes) const
{
    auto part = std::upper_bound(m_parts.begin(), m_parts.end(), offset,
                                 [](qint64 at, const Part &p) { return at < p.start; });
    if (part == m_parts.begin())
        return 0;
    --part;
    qint64 done = 0;
    while (done < bytes && part != m_parts.end()) {
        const qint64 inPart = offset + done - part->start;
        const qint64 wanted = std::min(bytes - done, part->size - inPart);
        if (wanted <= 0) {
            ++part;
            continue;
        }
        const ssize_t n = ::pread(part->fd.get(), buffer + done, static_cast<std::size_t>(wanted), inPart);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        done += n;
    }
    const qint64 end = offset + done;
    if (end > m_position.load(std::memory_order_relaxed))
        m_position.store(end, std::memory_order_relaxed);
    return done;
}
