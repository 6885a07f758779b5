#include "archives/CVArchivePieces.h"

#include "util/LXFileName.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char unfinished[] = ".tmp";

struct CloseFolder
{
    void operator()(DIR *folder) const { ::closedir(folder); }
};

/// Below zero when there is no such file.
qint64 sizeOf(const QByteArray &path)
{
    struct stat info;
    return ::lstat(path.constData(), &info) == 0 ? static_cast<qint64>(info.st_size) : -1;
}

/// Of the file or of what it is called before it is complete.
qint64 sizeOfEither(const QByteArray &path)
{
    const qint64 size = sizeOf(path);
    return size >= 0 ? size : sizeOf(path + unfinished);
}

/// Whether this, behind the archive's name, makes the name of one of its pieces.
bool isPieceSuffix(QByteArrayView suffix)
{
    constexpr qsizetype fewestDigits = 3;
    if (suffix.startsWith(unfinished) || suffix.isEmpty())
        return true;
    if (!suffix.startsWith('.'))
        return false;
    suffix = suffix.sliced(1);
    const auto rest =
        std::find_if_not(suffix.begin(), suffix.end(), [](char c) { return c >= '0' && c <= '9'; });
    const qsizetype digits = rest - suffix.begin();
    return digits >= fewestDigits &&
           (digits == suffix.size() || suffix.sliced(digits).startsWith(unfinished));
}

} // namespace

CVArchivePieces::CVArchivePieces(const QString &archivePath)
{
    const QByteArray path = bytesOfFileName(archivePath);
    const qsizetype slash = path.lastIndexOf('/');
    m_folder = slash < 0 ? QByteArray(".") : path.first(slash + 1);
    m_name = path.sliced(slash + 1);
    m_before = present();
}

std::set<QByteArray> CVArchivePieces::present() const
{
    std::set<QByteArray> names;
    const std::unique_ptr<DIR, CloseFolder> folder(::opendir(m_folder.constData()));
    if (!folder)
        return names;
    while (const dirent *entry = ::readdir(folder.get())) {
        const QByteArrayView name(entry->d_name);
        if (name.startsWith(m_name) && isPieceSuffix(name.sliced(m_name.size())))
            names.insert(name.toByteArray());
    }
    return names;
}

qint64 CVArchivePieces::bytes()
{
    const QByteArray path = m_folder + '/' + m_name;
    const auto volume = [&](int number) {
        return sizeOfEither(path + '.' + QByteArray::number(number).rightJustified(3, '0'));
    };
    const qint64 whole = sizeOf(path);
    const qint64 temporary = sizeOf(path + unfinished);
    qint64 current = volume(m_volume);
    for (qint64 next; current >= 0 && (next = volume(m_volume + 1)) >= 0; current = next, ++m_volume)
        m_volumesBefore += current;
    if (whole < 0 && temporary < 0 && current < 0)
        return -1;
    return std::max<qint64>(whole, 0) + std::max<qint64>(temporary, 0) + m_volumesBefore +
           std::max<qint64>(current, 0);
}

bool CVArchivePieces::remove() const
{
    bool gone = true;
    for (const QByteArray &name : present())
        if (!m_before.contains(name))
            gone = (::unlink(QByteArray(m_folder + '/' + name).constData()) == 0 || errno == ENOENT) && gone;
    return gone;
}
