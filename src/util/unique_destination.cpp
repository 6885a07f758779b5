#include "util/unique_destination.h"

#include "util/LXCopyTree.h"
#include "util/LXFileDescriptor.h"
#include "util/LXFileName.h"
#include "util/LXRemoveTree.h"
#include "util/LXRename.h"
#include "util/unique_string.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// "name", "name 2", "name 3.ext" with names cut to what a file system takes.
class Candidates
{
public:
    Candidates(const QString &name, const QString &directory)
        : m_directory(directory)
    {
        const qsizetype dot = name.lastIndexOf(u'.');
        m_base = dot > 0 ? name.left(dot) : name;
        m_extension = dot > 0 ? name.mid(dot) : QString();
        if (m_extension.size() == 1) {
            m_base = name;
            m_extension.clear();
        }
    }

    QString next()
    {
        const QString counter = m_counter == 1 ? QString() : u' ' + QString::number(m_counter);
        ++m_counter;
        QString base = m_base;
        while (base.size() > 1 && bytesOfFileName(QString(base + counter + m_extension)).size() > NAME_MAX)
            base.chop(base.back().isLowSurrogate() ? 2 : 1);
        const auto separator = m_directory.endsWith(u'/') ? QLatin1StringView() : QLatin1StringView("/");
        return m_directory + separator + base + counter + m_extension;
    }

private:
    QString m_directory;
    QString m_base;
    QString m_extension;
    int m_counter = 1;
};

bool isTaken(const QString &path)
{
    struct stat facts;
    return ::lstat(bytesOfFileName(path).constData(), &facts) == 0;
}

/// Makes a folder writable while it is moved: its ".." changes, which needs the permission.
class WritableForTheMove
{
public:
    explicit WritableForTheMove(const char *path)
        : m_folder(::open(path, O_PATH | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC))
    {
        struct stat facts;
        if (!m_folder.isOpen() || ::fstat(m_folder.get(), &facts) != 0 || (facts.st_mode & S_IWUSR) != 0)
            return;
        if (change(facts.st_mode | S_IWUSR))
            m_mode = facts.st_mode;
    }
    ~WritableForTheMove()
    {
        if (m_mode)
            change(*m_mode);
    }
    WritableForTheMove(const WritableForTheMove &) = delete;
    WritableForTheMove &operator=(const WritableForTheMove &) = delete;

private:
    bool change(mode_t mode) const
    {
        const QByteArray self = "/proc/self/fd/" + QByteArray::number(m_folder.get());
        return ::chmod(self.constData(), mode & 07777) == 0;
    }

    LXFileDescriptor m_folder;
    std::optional<mode_t> m_mode;
};

LXError moveError(const QString &name, int code)
{
    return LXError{.domain = QStringLiteral("NSPOSIXErrorDomain"),
                   .code = code,
                   .description = QStringLiteral("“%1” could not be moved.").arg(name),
                   .reason = QString::fromLocal8Bit(std::strerror(code)),
                   .suggestion = {}};
}

struct Moved
{
    int failure = 0;
    QString path;
};

Moved moveWithin(const QByteArray &source, const QString &directory, const QString &name)
{
    Candidates candidates(name, directory);
    for (;;) {
        const QString candidate = candidates.next();
        const int failure = renameWithoutReplacing(source, bytesOfFileName(candidate));
        if (failure != EEXIST)
            return {failure, candidate};
    }
}

} // namespace

QString findUniqueDestinationForFile(const QString &name, const QString &directory)
{
    Candidates candidates(name, directory);
    QString candidate = candidates.next();
    while (isTaken(candidate))
        candidate = candidates.next();
    return candidate;
}

LXResult<QString> moveToUniqueDestination(const QString &source, const QString &directory,
                                          const QString &name)
{
    const QByteArray from = bytesOfFileName(source);
    struct stat facts;
    if (::lstat(from.constData(), &facts) != 0)
        return moveError(name, errno);
    Moved moved;
    {
        const WritableForTheMove writable(from.constData());
        moved = moveWithin(from, directory, name);
    }
    if (moved.failure == 0)
        return moved.path;
    if (moved.failure != EXDEV)
        return moveError(name, moved.failure);

    // The hidden name keeps a half copy out of sight, and the cleaning knows it should we be killed.
    const QString beside = directory + QLatin1StringView("/.corvane-") + uniqueString();
    const QByteArray copy = bytesOfFileName(beside);
    int failure = copyTree(from.constData(), copy.constData());
    if (failure == 0) {
        const WritableForTheMove writable(copy.constData());
        moved = moveWithin(copy, directory, name);
        failure = moved.failure;
    }
    if (failure != 0) {
        (void)removeTree(beside);
        return moveError(name, failure);
    }
    // The copy is complete, so what remains of the source is not worth failing for.
    (void)removeTree(source);
    return moved.path;
}
