#include "archives/reading/CVSafeWriter.h"

#include "archives/reading/CVFileWriter.h"
#include "archives/reading/CVLinkTargetWriter.h"
#include "archives/reading/CVSafePath.h"
#include "archives/reading/CVWriteErrors.h"
#include "util/LXFileName.h"
#include "util/path_parts.h"

#include <QCoreApplication>
#include <QLoggingCategory>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

Q_LOGGING_CATEGORY(lcSafeWriter, "corvane.archives.write", QtWarningMsg)

namespace {

constexpr qint64 progressStep = qint64(1) << 20;

QString text(const char *source)
{
    return QCoreApplication::translate("CVSafeWriter", source);
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

} // namespace

CVSafeWriter::CVSafeWriter(CVDestination &destination, const CVReadingEngine &engine, Callbacks callbacks,
                           Options options)
    : m_destination(destination)
    , m_engine(engine)
    , m_callbacks(std::move(callbacks))
    , m_options(options)
    , m_umask(currentUmask())
    , m_limits(destination, options.archiveBytes)
    , m_pending(destination, options.laterReplaces,
                {.entry = [this](int index, XADErrorCode code,
                                 const QString &reason) { failEntry(index, code, reason); },
                 .system = [this](int index, int error) { systemFailure(index, error); },
                 .shouldStop = [this] { return m_stopped.load(); }})
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
    return fileNameFromBytes(QByteArray(QByteArray(folder, size) + '/' + m_staging));
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
    if (index >= 0 && isAboutOneEntry(error))
        return failEntry(index, XADErrorCode::NotMade, reason);
    if (index >= 0)
        skip(index, XADErrorCode::Damaged, reason);
    endWith(XADErrorCode::Damaged, reason, error);
    return CVEntryWriter::Flow::Stop;
}

void CVSafeWriter::reportProgress(bool force)
{
    const qint64 written = bytesWritten();
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
    const CVWriteLimits::Verdict verdict = m_limits.add(bytes, [this](const QString &explanation) {
        const std::lock_guard lock(m_callbackMutex);
        return !m_stopped && m_callbacks.mayExceedLimit(explanation);
    });
    if (!verdict.mayWrite)
        endWith(XADErrorCode::Damaged, verdict.reason, verdict.systemError);
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
    case XADEntry::Type::Directory:
        addFolder(index, path);
        return nullptr;
    case XADEntry::Type::Symlink:
        if (!e.linkTarget.isEmpty()) {
            addLink(index, path, e.linkTarget, false);
            return nullptr;
        }
        return std::make_unique<LinkTargetWriter>(*this, index, path);
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

void CVSafeWriter::addFolder(int index, const QByteArray &path)
{
    if (!m_destination.folder(path)) {
        if (isInTheWay(errno))
            failEntry(index, XADErrorCode::Refused, text("A file of the same name is in its place."));
        else
            systemFailure(index, errno);
        return;
    }
    const XADEntry &e = entry(index);
    const std::uint32_t stored = e.hasMode ? e.mode & 0777U : 0777U;
    m_pending.add(CVPendingTree::Folder{path, (stored & ~m_umask) | 0500U, e.modified});
}

CVSafeWriter::OpenFile CVSafeWriter::createFile(int index, const QByteArray &path)
{
    OpenFile file{.fd = LXFileDescriptor(), .folder = m_destination.folder(parentPath(path))};
    const QByteArray wanted = lastComponent(path);
    const auto failed = [&](int error) {
        systemFailure(index, error);
        return OpenFile();
    };
    if (!file.folder) {
        if (!isInTheWay(errno))
            return failed(errno);
        failEntry(index, XADErrorCode::Refused, text("A file is where its folder should be."));
        return {};
    }
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    file.name = wanted;
    for (int counter = 2; counter < 10000; ++counter) {
        file.fd = LXFileDescriptor(::openat(file.folder->get(), file.name.constData(), flags, 0600));
        if (file.fd.isOpen()) {
            if (file.name != wanted)
                skip(index, XADErrorCode::NotMade,
                     text("Its name is taken by an earlier entry; it was delivered as “%1”.")
                         .arg(fileNameFromBytes(file.name)));
            return file;
        }
        if (errno != EEXIST)
            return failed(errno);
        struct stat info;
        if (::fstatat(file.folder->get(), file.name.constData(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
            !S_ISREG(info.st_mode)) {
            failEntry(index, XADErrorCode::Refused, text("A folder of the same name is in its place."));
            return {};
        }
        if (!m_options.laterReplaces)
            file.name = numberedName(wanted, counter);
        else if (::unlinkat(file.folder->get(), file.name.constData(), 0) != 0 && errno != ENOENT)
            return failed(errno);
    }
    failEntry(index, XADErrorCode::Refused, text("Too many entries have its name."));
    return {};
}

CVSafeWriter::OpenFile CVSafeWriter::openLinked(int index, const QByteArray &path)
{
    // Writing through a link is safe only where every file is one that this extraction made.
    if (!m_options.ownsContents)
        return {};
    const XADEntry &e = entry(index);
    const CVSafePath original = CVSafePath::fromName(m_callbacks.decode(e.linkTarget, e.nameEncoding), false);
    if (original.verdict != CVSafePath::Verdict::Write || original.joined() == path)
        return {};
    const QByteArray originalName = original.components.back();
    const auto from = m_destination.existingFolder(parentPath(original.joined()));
    OpenFile file{.fd = LXFileDescriptor(),
                  .folder = m_destination.folder(parentPath(path)),
                  .name = lastComponent(path)};
    struct stat info;
    if (!from || !file.folder ||
        ::fstatat(from->get(), originalName.constData(), &info, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(info.st_mode) ||
        ::linkat(from->get(), originalName.constData(), file.folder->get(), file.name.constData(), 0) != 0)
        return {};
    // It has its mode already, which may forbid writing.
    ::fchmodat(from->get(), originalName.constData(), 0600, 0);
    file.fd = LXFileDescriptor(
        ::openat(file.folder->get(), file.name.constData(), O_WRONLY | O_TRUNC | O_NOFOLLOW | O_CLOEXEC));
    if (file.fd.isOpen())
        return file;
    ::unlinkat(file.folder->get(), file.name.constData(), 0);
    return {};
}

void CVSafeWriter::addLink(int index, const QByteArray &path, const QByteArray &target, bool hard)
{
    const XADEntry &e = entry(index);
    const QString decoded = m_callbacks.decode(target, e.nameEncoding);
    CVPendingTree::Link link{index, path, {}, e.modified, hard};
    if (hard) {
        const CVSafePath safe = CVSafePath::fromName(decoded, false);
        if (safe.verdict != CVSafePath::Verdict::Write) {
            failEntry(index, XADErrorCode::Refused, text("It is a link to a place outside of the archive."));
            return;
        }
        link.target = safe.joined();
    } else {
        link.target = bytesOfFileName(decoded);
        if (link.target.isEmpty() || link.target.contains('\0') ||
            link.target.size() > LinkTargetWriter::maxTargetBytes) {
            failEntry(index, XADErrorCode::NotMade, text("Its link target is empty or cannot be stored."));
            return;
        }
        if (link.target.startsWith('/')) {
            failEntry(index, XADErrorCode::Refused,
                      text("It is a link to “%1”, outside of the archive.").arg(decoded));
            return;
        }
    }
    m_pending.add(std::move(link));
}

void CVSafeWriter::finishTree()
{
    removeStaging();
    m_pending.finish(outcome() == XADErrorCode::None, (0777U & ~m_umask) | 0500U);
    reportProgress(true);
}
