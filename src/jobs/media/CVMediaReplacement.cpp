#include "jobs/media/CVMediaReplacement.h"

#include "jobs/media/CVMediaTypes.h"
#include "util/LXFileName.h"
#include "util/unique_string.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace {

LXError failure(int code, const QString &reason)
{
    return {QString::fromLatin1(CVMediaReplacement::errorDomain),
            code,
            QStringLiteral("The file could not be converted."),
            reason,
            {}};
}

LXError systemFailure(int code)
{
    return failure(code, QString::fromLocal8Bit(std::strerror(code)));
}

/// 0 or errno. Never replaces.
int moveWithoutReplacing(int folder, const QByteArray &from, const QByteArray &to)
{
    if (::renameat2(folder, from.constData(), folder, to.constData(), RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return errno;
    // A file system without such a rename: the name is taken with an empty file of ours first.
    const LXFileDescriptor place(
        ::openat(folder, to.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!place.isOpen())
        return errno;
    if (::renameat(folder, from.constData(), folder, to.constData()) == 0)
        return 0;
    const int code = errno;
    ::unlinkat(folder, to.constData(), 0);
    return code;
}

} // namespace

CVMediaReplacement::CVMediaReplacement(const QString &path, const QString &newExtension)
{
    const QByteArray bytes = bytesOfFileName(path);
    const qsizetype slash = bytes.lastIndexOf('/');
    const QByteArray folder = slash < 0 ? QByteArray(".") : bytes.left(slash + 1);
    m_folder = LXFileDescriptor(::open(folder.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    m_names.source = bytes.mid(slash + 1);
    m_names.target = CVMediaTypes::nameWithExtension(m_names.source, newExtension.toLatin1());
    m_names.temporary = ".corvane-media-" + uniqueString().toLatin1();
}

CVMediaReplacement::CVMediaReplacement(LXFileDescriptor folder, Names names)
    : m_folder(std::move(folder))
    , m_names(std::move(names))
{}

CVMediaReplacement::~CVMediaReplacement()
{
    if (m_written)
        ::unlinkat(m_folder.get(), m_names.temporary.constData(), 0);
}

LXResult<void> CVMediaReplacement::open()
{
    // Not blocking: it may have become a FIFO.
    m_source = LXFileDescriptor(
        ::openat(m_folder.get(), m_names.source.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!m_source.isOpen() || ::fstat(m_source.get(), &m_facts) != 0)
        return systemFailure(errno);
    if (!S_ISREG(m_facts.st_mode))
        return failure(EINVAL, QStringLiteral("It is not a regular file."));
    if (m_facts.st_size == 0)
        return failure(EINVAL, QStringLiteral("The file is empty."));
    m_output = LXFileDescriptor(
        ::openat(m_folder.get(), m_names.temporary.constData(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!m_output.isOpen())
        return systemFailure(errno);
    m_written = true;
    return {};
}

QByteArray CVMediaReplacement::sourceExtension() const
{
    QByteArray extension = CVMediaTypes::extensionOfName(m_names.source).toLower();
    for (const char c : extension)
        if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')))
            return {};
    return extension;
}

QByteArray CVMediaReplacement::sourcePath() const
{
    return "/proc/self/fd/" + QByteArray::number(m_source.get());
}

QByteArray CVMediaReplacement::outputPath() const
{
    return "/proc/self/fd/" + QByteArray::number(m_output.get());
}

LXResult<void> CVMediaReplacement::commit()
{
    struct stat now
    {};
    if (::fstat(m_output.get(), &now) != 0)
        return systemFailure(errno);
    if (now.st_size == 0)
        return failure(EIO, QStringLiteral("Nothing was written."));
    const timespec times[2] = {m_facts.st_atim, m_facts.st_mtim};
    if (::fchmod(m_output.get(), m_facts.st_mode & 0777) != 0 || ::futimens(m_output.get(), times) != 0)
        return systemFailure(errno);
    if (!m_output.reset())
        return systemFailure(errno);
    return takeName();
}

LXResult<void> CVMediaReplacement::takeName()
{
    const char *temporary = m_names.temporary.constData();
    const char *source = m_names.source.constData();
    const QByteArray extension = CVMediaTypes::extensionOfName(m_names.target);
    QByteArray target = m_names.target;
    for (qint64 counter = 2; target != m_names.source; ++counter) {
        const int code = moveWithoutReplacing(m_folder.get(), m_names.temporary, target);
        if (code == 0) {
            m_written = false;
            if (::unlinkat(m_folder.get(), source, 0) != 0)
                return systemFailure(errno);
            return {};
        }
        if (code != EEXIST)
            return systemFailure(code);
        // Where upper and lower case are one, "a.JPG" is in the way of "a.jpg": that is the source.
        struct stat there
        {};
        if (::fstatat(m_folder.get(), target.constData(), &there, AT_SYMLINK_NOFOLLOW) == 0 &&
            there.st_dev == m_facts.st_dev && there.st_ino == m_facts.st_ino &&
            target.toLower() == m_names.source.toLower())
            break;
        target = CVMediaTypes::nameWithExtension(m_names.target, extension, counter);
    }
    if (::renameat(m_folder.get(), temporary, m_folder.get(), target.constData()) != 0)
        return systemFailure(errno);
    m_written = false;
    return {};
}

LXFileDescriptor CVMediaReplacement::openFolder(int root, const QByteArray &path)
{
    LXFileDescriptor folder(::openat(root, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const QByteArray &name : path.split('/')) {
        if (name.isEmpty())
            continue;
        folder = LXFileDescriptor(
            ::openat(folder.get(), name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!folder.isOpen())
            break;
    }
    return folder;
}
