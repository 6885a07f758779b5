#include "util/LXFileWrapper.h"

#include "util/LXBytesValueTransformer.h"
#include "util/LXFileName.h"

#include <fts.h>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

struct FtsClose
{
    void operator()(FTS *walk) const noexcept { fts_close(walk); }
};

qint64 sizeBeneath(const QByteArray &path, const std::stop_token &stop)
{
    QByteArray root = path;
    char *roots[] = {root.data(), nullptr};
    // FTS_NOCHDIR: the current folder belongs to the whole process.
    const std::unique_ptr<FTS, FtsClose> walk(fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR, nullptr));
    qint64 sum = 0;
    while (FTSENT *entry = walk && !stop.stop_requested() ? fts_read(walk.get()) : nullptr) {
        if (entry->fts_info == FTS_F || entry->fts_info == FTS_SL || entry->fts_info == FTS_SLNONE)
            sum += entry->fts_statp->st_size;
    }
    return sum;
}

// A slash at the end would follow a link.
QByteArray bytesOfItem(const QString &path)
{
    QByteArray bytes = bytesOfFileName(path);
    while (bytes.size() > 1 && bytes.endsWith('/'))
        bytes.chop(1);
    return bytes;
}

} // namespace

LXFileWrapper::LXFileWrapper(const QString &path)
    : m_path(path)
{
    struct stat facts;
    if (path.isEmpty() || ::lstat(bytesOfItem(path).constData(), &facts) != 0)
        return;
    m_exists = true;
    m_mode = facts.st_mode;
    m_size = facts.st_size;
}

qint64 LXFileWrapper::fileSizeBytes(std::stop_token stop) const
{
    return isDirectory() ? sizeBeneath(bytesOfItem(m_path), stop) : m_size;
}

QString LXFileWrapper::fileSize() const
{
    return LXBytesValueTransformer::formatBytes(fileSizeBytes());
}

bool LXFileWrapper::isPackage() const
{
    QString name = m_path;
    while (name.endsWith(u'/'))
        name.chop(1);
    return isDirectory() && name.endsWith(".app"_L1, Qt::CaseInsensitive);
}
