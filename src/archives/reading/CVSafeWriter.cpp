#include "archives/reading/CVSafeWriter.h"

#include "archives/reading/CVSafePath.h"
#include "util/LXFileName.h"

#include <QCoreApplication>
#include <QFile>
#include <QLoggingCategory>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

Q_LOGGING_CATEGORY(lcSafeWriter, "corvane.archives.write", QtWarningMsg)

namespace {

// PATH_MAX: no file system stores a longer link, so more data than this is not a link's target.
constexpr qsizetype maxLinkTargetBytes = 4095;
// As many links as the kernel itself follows.
constexpr int maxLinksFollowed = 40;
// How often free space is looked at: at most this much is written between two looks.
constexpr qint64 spaceCheckStep = qint64(16) << 20;
constexpr qint64 progressStep = qint64(1) << 20;

QString text(const char *source)
{
    return QCoreApplication::translate("CVSafeWriter", source);
}

std::string key(const QByteArray &path)
{
    return std::string(path.constData(), static_cast<std::size_t>(path.size()));
}

std::uint32_t currentUmask()
{
    // umask() can only be read by setting it, which races with other threads; /proc can be just read.
    static const std::uint32_t value = [] {
        std::uint32_t mask = 022;
        if (FILE *status = std::fopen("/proc/self/status", "re")) {
            char line[256];
            while (std::fgets(line, sizeof line, status))
                if (std::sscanf(line, "Umask: %o", &mask) == 1)
                    break;
            std::fclose(status);
        }
        return mask;
    }();
    return value;
}

timespec toTimespec(qint64 ns)
{
    timespec t{};
    if (ns == XADEntry::unknownTime) {
        t.tv_nsec = UTIME_OMIT;
        return t;
    }
    qint64 seconds = ns / 1'000'000'000;
    qint64 rest = ns % 1'000'000'000;
    if (rest < 0) {
        rest += 1'000'000'000;
        --seconds;
    }
    t.tv_sec = seconds;
    t.tv_nsec = rest;
    return t;
}

struct FileTimes
{
    timespec value[2];
};

FileTimes modifiedOnly(qint64 ns)
{
    FileTimes times{};
    times.value[0].tv_nsec = UTIME_OMIT;
    times.value[1] = toTimespec(ns);
    return times;
}

void splitPath(const QByteArray &path, QByteArray &folder, QByteArray &name)
{
    const qsizetype slash = path.lastIndexOf('/');
    folder = slash < 0 ? QByteArray() : path.left(slash);
    name = path.mid(slash + 1);
}

// "photo.jpg", 2 → "photo 2.jpg"
QByteArray numberedName(const QByteArray &name, int counter)
{
    const qsizetype dot = name.lastIndexOf('.');
    const bool hasExtension = dot > 0;
    const QByteArray number = ' ' + QByteArray::number(counter);
    if (hasExtension)
        return name.left(dot) + number + name.mid(dot);
    return name + number;
}

bool isFileSystemFull(int error)
{
    return error == ENOSPC || error == EDQUOT || error == EROFS || error == EIO;
}

} // namespace

/// Writes one regular file. Discards it unless it was ended well.
class CVSafeWriter::FileWriter final : public CVEntryWriter
{
public:
    FileWriter(CVSafeWriter &owner, int index, QByteArray path)
        : m_owner(owner)
        , m_index(index)
        , m_path(std::move(path))
    {
        const XADEntry &entry = owner.entry(index);
        m_declared = entry.type == XADEntry::Type::File ? entry.size : -1;
        // A hard link usually has no data; its file is made only when data really comes.
        m_isHardLink = entry.type == XADEntry::Type::HardLink;
    }

    ~FileWriter() override
    {
        if (!m_ended)
            discard();
    }

    bool create()
    {
        if (m_isHardLink) {
            // The data of all names of a file may come with the last of them.
            m_fd = m_owner.openLinked(m_index, m_path, m_parent, m_name);
            if (m_fd.isOpen())
                return true;
        }
        QByteArray folder;
        splitPath(m_path, folder, m_name);
        m_fd =
            m_owner.createFile(m_index, folder, m_name, m_owner.fileMode(m_owner.entry(m_index)), m_parent);
        m_failed = !m_fd.isOpen();
        return !m_failed;
    }

    Flow write(const char *data, qsizetype size) override
    {
        if (m_failed)
            return m_owner.shouldStop() ? Flow::Stop : Flow::SkipEntry;
        if (size == 0)
            return Flow::Go;
        if (!m_fd.isOpen() && !create())
            return m_owner.shouldStop() ? Flow::Stop : Flow::SkipEntry;
        if (const Flow flow = admit(size); flow != Flow::Go)
            return flow;
        while (size > 0) {
            const ssize_t n = ::write(m_fd.get(), data, static_cast<std::size_t>(size));
            if (n < 0) {
                if (errno == EINTR)
                    continue;
                return fail(errno);
            }
            data += n;
            size -= n;
        }
        return Flow::Go;
    }

    Flow writeHole(qint64 size) override
    {
        if (m_failed)
            return m_owner.shouldStop() ? Flow::Stop : Flow::SkipEntry;
        if (size <= 0)
            return Flow::Go;
        if (!m_fd.isOpen() && !create())
            return m_owner.shouldStop() ? Flow::Stop : Flow::SkipEntry;
        // A hole costs no space, so it counts for the size but not for the limits.
        m_received += size;
        if (m_declared >= 0 && m_received > m_declared)
            return tooLong();
        if (::lseek(m_fd.get(), size, SEEK_CUR) < 0)
            return fail(errno);
        m_endsInHole = true;
        return Flow::Go;
    }

    Flow finish(XADErrorCode code, const QString &detail) override
    {
        m_ended = true;
        if (m_failed) {
            discard();
            return m_owner.shouldStop() ? Flow::Stop : Flow::Go;
        }
        if (code == XADErrorCode::None && m_declared >= 0 && m_received != m_declared)
            return discardWith(XADErrorCode::Damaged, text("It is shorter than the archive says."));
        if (code != XADErrorCode::None)
            return discardWith(code, detail);
        if (m_isHardLink && m_received == 0) {
            m_owner.addLink(m_index, m_path, m_owner.entry(m_index).linkTarget, true);
            return Flow::Go;
        }
        if (!m_fd.isOpen() && !create())
            return m_owner.shouldStop() ? Flow::Stop : Flow::Go;
        if (m_endsInHole && ::ftruncate(m_fd.get(), m_received) != 0)
            return fail(errno);
        const XADEntry &entry = m_owner.entry(m_index);
        if (entry.modified != XADEntry::unknownTime)
            ::futimens(m_fd.get(), modifiedOnly(entry.modified).value);
        if (!m_fd.reset())
            return fail(errno);
        m_owner.reportProgress(false);
        return m_owner.shouldStop() ? Flow::Stop : Flow::Go;
    }

private:
    Flow admit(qint64 size)
    {
        m_received += size;
        m_endsInHole = false;
        if (m_declared >= 0 && m_received > m_declared)
            return tooLong();
        const Flow flow = m_owner.mayWrite(size);
        if (flow != Flow::Go)
            m_failed = true;
        return flow;
    }

    Flow tooLong()
    {
        m_failed = true;
        const Flow flow =
            m_owner.failEntry(m_index, XADErrorCode::Damaged, text("It is longer than the archive says."));
        return flow == Flow::Stop ? Flow::Stop : Flow::SkipEntry;
    }

    Flow fail(int error)
    {
        m_failed = true;
        const Flow flow = m_owner.systemFailure(m_index, error);
        if (m_ended)
            discard();
        return flow == Flow::Stop ? Flow::Stop : Flow::SkipEntry;
    }

    Flow discardWith(XADErrorCode code, const QString &reason)
    {
        discard();
        return m_owner.failEntry(m_index, code, reason);
    }

    void discard()
    {
        const bool made = m_parent != nullptr;
        m_fd.reset();
        if (made)
            ::unlinkat(m_parent->get(), m_name.constData(), 0);
        m_parent.reset();
    }

    CVSafeWriter &m_owner;
    int m_index;
    QByteArray m_path;
    QByteArray m_name;
    std::shared_ptr<const LXFileDescriptor> m_parent;
    LXFileDescriptor m_fd;
    qint64 m_declared = -1;
    qint64 m_received = 0;
    bool m_isHardLink = false;
    bool m_endsInHole = false;
    bool m_failed = false;
    bool m_ended = false;
};

/// Takes the data of a symbolic link, which is its target.
class CVSafeWriter::TargetWriter final : public CVEntryWriter
{
public:
    TargetWriter(CVSafeWriter &owner, int index, QByteArray path)
        : m_owner(owner)
        , m_index(index)
        , m_path(std::move(path))
    {}

    Flow write(const char *data, qsizetype size) override
    {
        if (m_target.size() + size > maxLinkTargetBytes) {
            m_tooLong = true;
            return Flow::SkipEntry;
        }
        m_target.append(data, size);
        return Flow::Go;
    }

    Flow writeHole(qint64) override
    {
        m_tooLong = true;
        return Flow::SkipEntry;
    }

    Flow finish(XADErrorCode code, const QString &detail) override
    {
        if (code != XADErrorCode::None)
            return m_owner.failEntry(m_index, code, detail);
        if (m_tooLong)
            return m_owner.failEntry(m_index, XADErrorCode::NotMade,
                                     text("Its target is too long for a link."));
        m_owner.addLink(m_index, m_path, m_target, false);
        return m_owner.shouldStop() ? Flow::Stop : Flow::Go;
    }

private:
    CVSafeWriter &m_owner;
    int m_index;
    QByteArray m_path;
    QByteArray m_target;
    bool m_tooLong = false;
};

CVSafeWriter::CVSafeWriter(CVDestination &destination, const CVReadingEngine &engine, Callbacks callbacks,
                           Options options)
    : m_destination(destination)
    , m_engine(engine)
    , m_callbacks(std::move(callbacks))
    , m_options(options)
    , m_umask(currentUmask())
{}

CVSafeWriter::~CVSafeWriter()
{
    removeStaging();
}

QString CVSafeWriter::stagingFolder()
{
    const std::lock_guard lock(m_mutex);
    char folder[4097];
    const QByteArray link = "/proc/self/fd/" + QByteArray::number(m_destination.rootFd());
    const ssize_t size = ::readlink(link.constData(), folder, sizeof folder - 1);
    if (size <= 0)
        return {};
    if (m_staging.isEmpty()) {
        // CVSafePath refuses entries of such names, and a folder that is there already is somebody else's.
        static std::atomic<unsigned> counter = 0;
        const QByteArray name =
            ".corvane-staging-" + QByteArray::number(::getpid()) + '-' + QByteArray::number(++counter);
        if (::mkdirat(m_destination.rootFd(), name.constData(), 0700) != 0)
            return {};
        m_staging = name;
    }
    return QFile::decodeName(QByteArray(folder, size) + '/' + m_staging);
}

void CVSafeWriter::removeStaging()
{
    const std::lock_guard lock(m_mutex);
    if (m_staging.isEmpty())
        return;
    const int root = m_destination.rootFd();
    const LXFileDescriptor staging(
        ::openat(root, m_staging.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (staging.isOpen())
        cvRemoveContents(staging.get());
    ::unlinkat(root, m_staging.constData(), AT_REMOVEDIR);
    m_staging.clear();
}

const XADEntry &CVSafeWriter::entry(int index) const
{
    return m_engine.entries()[static_cast<std::size_t>(index)];
}

QString CVSafeWriter::entryName(int index) const
{
    const XADEntry &e = entry(index);
    return m_callbacks.decode(e.name, e.nameEncoding);
}

QString CVSafeWriter::outcomeText() const
{
    const std::lock_guard lock(m_mutex);
    return m_outcomeText;
}

std::vector<CVSkippedEntry> CVSafeWriter::takeSkipped()
{
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_skipped, {});
}

void CVSafeWriter::endWith(XADErrorCode code, const QString &reason, int systemError)
{
    int none = 0;
    if (m_outcome.compare_exchange_strong(none, static_cast<int>(code))) {
        m_systemError = systemError;
        const std::lock_guard lock(m_mutex);
        m_outcomeText = reason;
    }
    m_stopped = true;
}

bool CVSafeWriter::shouldStop()
{
    if (m_stopped)
        return true;
    // Another worker inside a callback (a question, perhaps) will see the stop itself.
    const std::unique_lock lock(m_callbackMutex, std::try_to_lock);
    if (lock.owns_lock() && m_callbacks.shouldStop())
        endWith(XADErrorCode::Stopped, {});
    return m_stopped;
}

void CVSafeWriter::skip(int index, XADErrorCode code, const QString &reason)
{
    CVSkippedEntry skipped{entryName(index), reason, code};
    qCInfo(lcSafeWriter) << "left out" << skipped.name << reason;
    const std::lock_guard lock(m_mutex);
    m_skipped.push_back(std::move(skipped));
}

CVEntryWriter::Flow CVSafeWriter::failEntry(int index, XADErrorCode code, const QString &reason)
{
    skip(index, code, reason);
    if (m_stopped)
        return CVEntryWriter::Flow::Stop;
    XADAction action;
    {
        const std::lock_guard lock(m_callbackMutex);
        action = m_callbacks.entryDidFail(index, code);
    }
    if (action != XADAction::Abort)
        return CVEntryWriter::Flow::Go;
    endWith(code, text("“%1”: %2").arg(entryName(index), reason));
    return CVEntryWriter::Flow::Stop;
}

CVEntryWriter::Flow CVSafeWriter::entryFailed(int index, XADErrorCode code, const QString &detail)
{
    return failEntry(index, code, detail);
}

CVEntryWriter::Flow CVSafeWriter::systemFailure(int index, int error)
{
    const QString reason = QString::fromLocal8Bit(std::strerror(error));
    if (isFileSystemFull(error)) {
        // Every further entry would fail the same way.
        skip(index, XADErrorCode::Damaged, reason);
        endWith(XADErrorCode::Damaged, reason, error);
        return CVEntryWriter::Flow::Stop;
    }
    return failEntry(index, XADErrorCode::NotMade, reason);
}

void CVSafeWriter::reportProgress(bool force)
{
    const qint64 written = m_written.load();
    qint64 due = m_nextProgress.load();
    if (!force && written < due)
        return;
    const std::unique_lock lock(m_callbackMutex, std::try_to_lock);
    if (!lock.owns_lock())
        return;
    m_nextProgress = written + progressStep;
    m_callbacks.progress(written);
}

CVEntryWriter::Flow CVSafeWriter::mayWrite(qint64 bytes)
{
    const qint64 written = m_written += bytes;
    if (written >= m_nextSpaceCheck.load()) {
        m_nextSpaceCheck = written + spaceCheckStep;
        const auto free = static_cast<qint64>(std::min<std::uint64_t>(
            m_destination.freeBytes(), std::uint64_t(std::numeric_limits<qint64>::max())));
        if (free < reservedFreeBytes + bytes) {
            endWith(XADErrorCode::Damaged, text("There is not enough free space."), ENOSPC);
            return CVEntryWriter::Flow::Stop;
        }
        if (written > bombFloorBytes && m_options.archiveBytes > 0 &&
            written / bombRatio > m_options.archiveBytes && !m_limitLifted) {
            const std::lock_guard lock(m_callbackMutex);
            if (!m_limitLifted && !m_stopped) {
                const QString explanation =
                    text(
                        "The archive has %1 bytes and has unpacked to %2 bytes so far, more than %3 times as "
                        "much. It may be made to fill the disk.")
                        .arg(m_options.archiveBytes)
                        .arg(written)
                        .arg(bombRatio);
                if (m_callbacks.mayExceedLimit(explanation))
                    m_limitLifted = true;
                else
                    endWith(XADErrorCode::Damaged, explanation);
            }
        }
    }
    if (m_stopped || shouldStop())
        return CVEntryWriter::Flow::Stop;
    reportProgress(false);
    return CVEntryWriter::Flow::Go;
}

std::uint32_t CVSafeWriter::fileMode(const XADEntry &e) const
{
    const std::uint32_t stored = e.hasMode ? e.mode & 0777U : 0666U;
    return (stored & ~m_umask) | 0400U;
}

std::unique_ptr<CVEntryWriter> CVSafeWriter::beginEntry(int index)
{
    if (m_stopped)
        return nullptr;
    const XADEntry &e = entry(index);
    const bool isDirectory = e.type == XADEntry::Type::Directory;
    const CVSafePath safe = CVSafePath::fromName(entryName(index), isDirectory);
    if (safe.verdict == CVSafePath::Verdict::Destination)
        return nullptr;
    if (safe.verdict == CVSafePath::Verdict::Refused) {
        failEntry(index, XADErrorCode::Refused, safe.reason);
        return nullptr;
    }
    const QByteArray path = safe.joined();

    switch (e.type) {
    case XADEntry::Type::Special:
        failEntry(index, XADErrorCode::NotMade,
                  text("It is a device, a pipe or a socket; these are not made."));
        return nullptr;
    case XADEntry::Type::Directory: {
        if (!m_destination.folder(path)) {
            const int error = errno;
            if (error == ENOTDIR || error == ELOOP || error == EEXIST)
                failEntry(index, XADErrorCode::Refused, text("A file of the same name is in its place."));
            else
                systemFailure(index, error);
            return nullptr;
        }
        const std::lock_guard lock(m_mutex);
        m_folders.push_back({path, ((e.hasMode ? e.mode & 0777U : 0777U) & ~m_umask) | 0700U, e.modified});
        return nullptr;
    }
    case XADEntry::Type::Symlink:
        if (!e.linkTarget.isEmpty()) {
            addLink(index, path, e.linkTarget, false);
            return nullptr;
        }
        return std::make_unique<TargetWriter>(*this, index, path);
    case XADEntry::Type::HardLink:
        return std::make_unique<FileWriter>(*this, index, path);
    case XADEntry::Type::File:
        break;
    }
    auto writer = std::make_unique<FileWriter>(*this, index, path);
    if (!writer->create())
        return nullptr;
    return writer;
}

LXFileDescriptor CVSafeWriter::createFile(int index, const QByteArray &folderPath, QByteArray &name,
                                          std::uint32_t mode, std::shared_ptr<const LXFileDescriptor> &parent)
{
    const auto folder = m_destination.folder(folderPath);
    if (!folder) {
        const int error = errno;
        if (error == ENOTDIR || error == ELOOP || error == EEXIST)
            failEntry(index, XADErrorCode::Refused, text("A file is where its folder should be."));
        else
            systemFailure(index, error);
        return LXFileDescriptor();
    }
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const QByteArray wanted = name;
    for (int counter = 2; counter < 10000; ++counter) {
        LXFileDescriptor fd(::openat(folder->get(), name.constData(), flags, mode));
        if (fd.isOpen()) {
            parent = folder;
            if (name != wanted)
                skip(index, XADErrorCode::NotMade,
                     text("Its name is taken by an earlier entry; it was delivered as “%1”.")
                         .arg(QString::fromUtf8(name)));
            return fd;
        }
        if (errno != EEXIST) {
            systemFailure(index, errno);
            return fd;
        }
        struct stat info;
        if (::fstatat(folder->get(), name.constData(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
            !S_ISREG(info.st_mode)) {
            failEntry(index, XADErrorCode::Refused, text("A folder of the same name is in its place."));
            return LXFileDescriptor();
        }
        if (m_options.laterReplaces) {
            if (::unlinkat(folder->get(), name.constData(), 0) != 0 && errno != ENOENT) {
                systemFailure(index, errno);
                return LXFileDescriptor();
            }
            continue;
        }
        name = numberedName(wanted, counter);
    }
    failEntry(index, XADErrorCode::Refused, text("Too many entries have its name."));
    return LXFileDescriptor();
}

LXFileDescriptor CVSafeWriter::openLinked(int index, const QByteArray &path,
                                          std::shared_ptr<const LXFileDescriptor> &parent, QByteArray &name)
{
    // Writing through a link is safe only where every file is one that this extraction made.
    if (!m_options.ownsContents)
        return LXFileDescriptor();
    const XADEntry &e = entry(index);
    const CVSafePath original = CVSafePath::fromName(m_callbacks.decode(e.linkTarget, e.nameEncoding), false);
    if (original.verdict != CVSafePath::Verdict::Write || original.joined() == path)
        return LXFileDescriptor();
    QByteArray originalFolder, originalName, folderPath;
    splitPath(original.joined(), originalFolder, originalName);
    splitPath(path, folderPath, name);
    const auto from = m_destination.existingFolder(originalFolder);
    const auto folder = m_destination.folder(folderPath);
    struct stat info;
    if (!from || !folder ||
        ::fstatat(from->get(), originalName.constData(), &info, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(info.st_mode) ||
        ::linkat(from->get(), originalName.constData(), folder->get(), name.constData(), 0) != 0)
        return LXFileDescriptor();
    LXFileDescriptor fd(
        ::openat(folder->get(), name.constData(), O_WRONLY | O_TRUNC | O_NOFOLLOW | O_CLOEXEC));
    if (fd.isOpen())
        parent = folder;
    else
        ::unlinkat(folder->get(), name.constData(), 0);
    return fd;
}

bool CVSafeWriter::addLink(int index, const QByteArray &path, const QByteArray &target, bool hard)
{
    const XADEntry &e = entry(index);
    const QString decoded = m_callbacks.decode(target, e.nameEncoding);
    PendingLink link{index, path, {}, e.modified, hard};
    if (hard) {
        const CVSafePath safe = CVSafePath::fromName(decoded, false);
        if (safe.verdict != CVSafePath::Verdict::Write) {
            failEntry(index, XADErrorCode::Refused, text("It is a link to a place outside of the archive."));
            return false;
        }
        link.target = safe.joined();
    } else {
        link.target = bytesOfFileName(decoded);
        if (link.target.isEmpty() || link.target.contains('\0') || link.target.size() > maxLinkTargetBytes) {
            failEntry(index, XADErrorCode::NotMade, text("Its link target is empty or cannot be stored."));
            return false;
        }
        if (link.target.startsWith('/')) {
            failEntry(index, XADErrorCode::Refused,
                      text("It is a link to “%1”, outside of the archive.").arg(decoded));
            return false;
        }
    }
    const std::lock_guard lock(m_mutex);
    m_links.push_back(std::move(link));
    return true;
}

void CVSafeWriter::makeHardLinks()
{
    // Links to links that come later in the archive need another round; every round makes one at least.
    std::unordered_map<std::string, QByteArray> symlinkTargets;
    for (const PendingLink &link : m_links)
        if (!link.hard)
            symlinkTargets.emplace(key(link.path), link.target);

    std::vector<PendingLink> todo;
    for (PendingLink &link : m_links)
        if (link.hard)
            todo.push_back(link);
    std::erase_if(m_links, [](const PendingLink &link) { return link.hard; });

    while (!todo.empty() && !m_stopped) {
        std::vector<PendingLink> later;
        for (PendingLink &link : todo) {
            if (const auto it = symlinkTargets.find(key(link.target)); it != symlinkTargets.end()) {
                m_links.push_back({link.entry, link.path, it->second, link.modified, false});
                continue;
            }
            QByteArray targetFolder, targetName, folderPath, name;
            splitPath(link.target, targetFolder, targetName);
            splitPath(link.path, folderPath, name);
            const auto from = m_destination.existingFolder(targetFolder);
            struct stat info;
            if (!from || ::fstatat(from->get(), targetName.constData(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
                later.push_back(link);
                continue;
            }
            if (!S_ISREG(info.st_mode)) {
                failEntry(link.entry, XADErrorCode::Refused,
                          text("It is a hard link to something that is not a file."));
                continue;
            }
            const auto folder = m_destination.folder(folderPath);
            if (!folder) {
                failEntry(link.entry, XADErrorCode::NotMade, text("A file is where its folder should be."));
                continue;
            }
            if (link.path == link.target)
                continue;
            int result = ::linkat(from->get(), targetName.constData(), folder->get(), name.constData(), 0);
            if (result != 0 && errno == EEXIST && m_options.laterReplaces &&
                ::unlinkat(folder->get(), name.constData(), 0) == 0)
                result = ::linkat(from->get(), targetName.constData(), folder->get(), name.constData(), 0);
            if (result != 0) {
                if (errno == EEXIST)
                    failEntry(link.entry, XADErrorCode::Refused,
                              text("Something of the same name is in its place."));
                else
                    systemFailure(link.entry, errno);
            }
        }
        if (later.size() == todo.size()) {
            for (const PendingLink &link : later)
                failEntry(link.entry, XADErrorCode::NotMade,
                          text("The file that it is a hard link to is missing."));
            return;
        }
        todo = std::move(later);
    }
}

void CVSafeWriter::makeSymlinks()
{
    std::unordered_map<std::string, PendingLink> made;
    for (PendingLink &link : m_links) {
        if (m_stopped)
            return;
        QByteArray folderPath, name;
        splitPath(link.path, folderPath, name);
        // A later link of the same name replaces the earlier one where the format means that.
        if (made.count(key(link.path)) && m_options.laterReplaces) {
            if (const auto folder = m_destination.existingFolder(folderPath))
                ::unlinkat(folder->get(), name.constData(), 0);
            made.erase(key(link.path));
        }
        const auto folder = m_destination.folder(folderPath);
        if (!folder) {
            failEntry(link.entry, XADErrorCode::Refused,
                      text("Something that is not a folder is where its folder should be."));
            continue;
        }
        if (::symlinkat(link.target.constData(), folder->get(), name.constData()) != 0) {
            if (errno == EEXIST)
                failEntry(link.entry, XADErrorCode::Refused,
                          text("Something of the same name is in its place."));
            else
                systemFailure(link.entry, errno);
            continue;
        }
        if (link.modified != XADEntry::unknownTime)
            ::utimensat(folder->get(), name.constData(), modifiedOnly(link.modified).value,
                        AT_SYMLINK_NOFOLLOW);
        made.insert_or_assign(key(link.path), std::move(link));
    }
    m_links.clear();
    removeLeavingLinks(made);
}

void CVSafeWriter::removeLeavingLinks(std::unordered_map<std::string, PendingLink> &made)
{
    if (made.empty())
        return;
    // A single top-level folder is delivered by itself, so its links must not lead to what then lies beside
    // it.
    const std::vector<QByteArray> top = m_destination.topLevelNames(2);
    const std::size_t floor = top.size() == 1 && m_destination.existingFolder(top[0]) ? 1 : 0;

    // Follows a link through all others without the file system: what does not exist counts as a folder,
    // since somebody may make it one later.
    const auto leaves = [&](const PendingLink &link) {
        std::vector<std::string> place;
        std::vector<std::string> rest; // components still to walk, last first
        const auto push = [&rest](const QByteArray &path) {
            const auto parts = path.split('/');
            for (auto it = parts.crbegin(); it != parts.crend(); ++it)
                if (!it->isEmpty() && *it != ".")
                    rest.emplace_back(it->constData(), static_cast<std::size_t>(it->size()));
        };
        QByteArray folderPath, name;
        splitPath(link.path, folderPath, name);
        push(link.target);
        push(folderPath);
        int followed = 0;
        std::size_t walkedFolder =
            static_cast<std::size_t>(folderPath.isEmpty() ? 0 : folderPath.count('/') + 1);
        while (!rest.empty()) {
            const std::string component = std::move(rest.back());
            rest.pop_back();
            if (component == "..") {
                if (place.size() <= floor)
                    return true;
                place.pop_back();
                continue;
            }
            place.push_back(component);
            if (walkedFolder > 0) {
                --walkedFolder; // the link's own folder is a real one
                continue;
            }
            if (floor == 1 && place.size() == 1 && component != std::string(top[0].constData()))
                return true;
            std::string path;
            for (const std::string &part : place)
                path += path.empty() ? part : '/' + part;
            if (const auto it = made.find(path); it != made.end()) {
                if (++followed > maxLinksFollowed)
                    return true;
                place.pop_back();
                push(it->second.target);
            }
        }
        return place.size() < floor;
    };

    // Taking one link away only shortens what others can reach, so one round over all is enough.
    std::vector<const PendingLink *> leaving;
    for (const auto &[path, link] : made)
        if (leaves(link))
            leaving.push_back(&link);
    std::sort(leaving.begin(), leaving.end(),
              [](const PendingLink *a, const PendingLink *b) { return a->entry < b->entry; });
    for (const PendingLink *link : leaving) {
        QByteArray folderPath, name;
        splitPath(link->path, folderPath, name);
        if (const auto folder = m_destination.existingFolder(folderPath))
            ::unlinkat(folder->get(), name.constData(), 0);
        failEntry(link->entry, XADErrorCode::Refused,
                  text("It is a link to “%1”, outside of the archive.").arg(QString::fromUtf8(link->target)));
    }
}

void CVSafeWriter::finishTree()
{
    removeStaging();
    if (m_outcome.load() == static_cast<int>(XADErrorCode::None)) {
        makeHardLinks();
        makeSymlinks();
    }
    // Deepest first: setting the time of a folder must come after the last change inside it.
    std::stable_sort(m_folders.begin(), m_folders.end(), [](const PendingFolder &a, const PendingFolder &b) {
        return a.path.count('/') > b.path.count('/');
    });
    for (const PendingFolder &folder : m_folders) {
        const auto fd = m_destination.existingFolder(folder.path);
        if (!fd)
            continue;
        ::fchmod(fd->get(), folder.mode);
        if (folder.modified != XADEntry::unknownTime)
            ::futimens(fd->get(), modifiedOnly(folder.modified).value);
    }
    reportProgress(true);
}
