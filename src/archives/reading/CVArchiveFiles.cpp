#include "archives/reading/CVArchiveFiles.h"

#include "util/LXFileName.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

CVArchiveFiles::Source &source()
{
    static CVArchiveFiles::Source value;
    return value;
}

QString nameOf(const QString &path)
{
    return path.mid(path.lastIndexOf(u'/') + 1);
}

} // namespace

namespace CVArchiveFiles {

void setSource(Source newSource)
{
    source() = std::move(newSource);
}

LXFileDescriptor open(const QString &path)
{
    if (source())
        return source()(nameOf(path), false).file;
    LXFileDescriptor file(::open(bytesOfFileName(path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status = {};
    if (!file.isOpen() || ::fstat(file.get(), &status) != 0)
        return LXFileDescriptor();
    if (!S_ISREG(status.st_mode)) {
        file.reset();
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    }
    return file;
}

bool exists(const QString &path)
{
    if (source())
        return source()(nameOf(path), false).file.isOpen();
    struct stat status = {};
    return ::stat(bytesOfFileName(path).constData(), &status) == 0 && S_ISREG(status.st_mode);
}

QString findBeside(const QString &path, const QStringList &names)
{
    const QString folder = path.left(path.lastIndexOf(u'/') + 1);
    for (const QString &name : names)
        if (exists(folder + name))
            return folder + name;
    // Written where case does not matter.
    if (source()) {
        for (const QString &name : names)
            if (const Found found = source()(name, true); found.file.isOpen())
                return folder + found.name;
        return {};
    }
    const QStringList files = QDir(folder.isEmpty() ? QStringLiteral(".") : folder).entryList(QDir::Files);
    const auto same = std::find_if(files.begin(), files.end(), [&names](const QString &file) {
        return names.contains(file, Qt::CaseInsensitive);
    });
    return same == files.end() ? QString() : folder + *same;
}

} // namespace CVArchiveFiles
