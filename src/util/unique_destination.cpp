#include "util/unique_destination.h"

#include "util/LXCopyTree.h"
#include "util/LXFileDescriptor.h"
#include "util/LXFileName.h"
#include "util/LXFileWrapper.h"
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

/// The places that are tried, in order.
class Candidates
{
public:
    Candidates(const QString &name, const QString &directory)
        : m_name(name)
        , m_prefix(directory.endsWith(u'/') ? directory : directory + u'/')
    {}

    QString next() { return m_prefix + nameWithCounter(m_name, m_counter++); }

private:
    QString m_name;
    QString m_prefix;
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

enum class Names { Any, OnlyThis };

Moved moveWithin(const QByteArray &source, const QString &directory, const QString &name, Names names)
{
    Candidates candidates(name, directory);
    for (;;) {
        const QString candidate = candidates.next();
        const int failure = renameWithoutReplacing(source, bytesOfFileName(candidate));
        if (failure != EEXIST || names == Names::OnlyThis)
            return {failure, candidate};
    }
}

LXResult<QString> moveItem(const QString &source, const QString &directory, const QString &name, Names names,
                           const LXMoveWatch &watch)
{
    const QByteArray from = bytesOfFileName(source);
    struct stat facts;
    if (::lstat(from.constData(), &facts) != 0)
        return moveError(name, errno);
    if (names == Names::OnlyThis && isTaken(Candidates(name, directory).next()))
        return moveError(name, EEXIST); // before a long copy
    Moved moved;
    {
        const WritableForTheMove writable(from.constData());
        moved = moveWithin(from, directory, name, names);
    }
    if (moved.failure == 0)
        return moved.path;
    if (moved.failure != EXDEV)
        return moveError(name, moved.failure);

    LXCopyWatcher watcher;
    double done = 0;
    if (watch.progress) {
        const auto total = static_cast<double>(LXFileWrapper(source).fileSizeBytes());
        watcher = [&watch, &done, total](qint64 bytes) {
            done += static_cast<double>(bytes);
            watch.progress(done, total);
        };
    }
    // The hidden name keeps a half copy out of sight, and the cleaning knows it should we be killed.
    const QString beside = directory + QLatin1StringView("/.corvane-") + uniqueString();
    const QByteArray copy = bytesOfFileName(beside);
    int failure = copyTree(from.constData(), copy.constData(), watch.stop, watcher);
    if (failure == 0) {
        const WritableForTheMove writable(copy.constData());
        moved = moveWithin(copy, directory, name, names);
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

} // namespace

QString nameWithCounter(const QString &name, int counter)
{
    const qsizetype dot = name.lastIndexOf(u'.');
    const bool hasExtension = dot > 0 && dot + 1 < name.size();
    QString base = hasExtension ? name.left(dot) : name;
    QString rest = hasExtension ? name.mid(dot) : QString();
    if (counter > 1)
        rest.prepend(u' ' + QString::number(counter));
    while (base.size() > 1 && bytesOfFileName(QString(base + rest)).size() > NAME_MAX)
        base.chop(base.back().isLowSurrogate() && base.at(base.size() - 2).isHighSurrogate() ? 2 : 1);
    return base + rest;
}

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
    return moveItem(source, directory, name, Names::Any, {});
}

LXResult<QString> moveToDestination(const QString &source, const QString &directory, const QString &name,
                                    const LXMoveWatch &watch)
{
    return moveItem(source, directory, name, Names::OnlyThis, watch);
}
