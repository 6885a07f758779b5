#include "archives/CVArchive.h"

#include "archives/CVCorvaneArchive.h"
#include "archives/CVP7ZipArchive.h"
#include "archives/CVTarArchive.h"
#include "archives/CVXArchive.h"
#include "archives/archive_string.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"
#include "util/string_regex.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QRegularExpression>
#include <QTimer>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

Q_LOGGING_CATEGORY(lcArchive, "corvane.archives")

namespace {

constexpr int createProgressPeriodMs = 200;

qint64 sizeOfFile(const QByteArray &path)
{
    struct stat info;
    return ::lstat(path.constData(), &info) == 0 ? static_cast<qint64>(info.st_size) : -1;
}

bool isThere(const QString &path)
{
    struct stat info;
    return ::stat(bytesOfFileName(path).constData(), &info) == 0;
}

double sizeOfItemAtPath(const QString &path)
{
    namespace fs = std::filesystem;
    const QByteArray bytesOfPath = bytesOfFileName(path);
    std::error_code error;
    const fs::path item(bytesOfPath.toStdString());
    if (!fs::is_directory(fs::symlink_status(item, error)))
        return static_cast<double>(std::max<qint64>(sizeOfFile(bytesOfPath), 0));
    double bytes = 0;
    for (fs::recursive_directory_iterator it(item, fs::directory_options::skip_permission_denied, error), end;
         !error && it != end; it.increment(error)) {
        std::error_code ignored;
        if (it->is_regular_file(ignored) && !it->is_symlink(ignored))
            bytes += static_cast<double>(it->file_size(ignored));
    }
    return bytes;
}

} // namespace

struct CVArchive::CreateTimer
{
    QTimer timer;
};

CVArchive::CVArchive()
    : m_filePreviews(CVFileNode::create())
{}

CVArchive::~CVArchive()
{
    // Possibly not on its thread, possibly in its own call.
    if (m_createTimer)
        LXMainThread::post([timer = std::shared_ptr<CreateTimer>(std::move(m_createTimer))] {});
}

QString CVArchive::statusToString(std::int32_t status)
{
    static constexpr const char *texts[] = {
        QT_TRANSLATE_NOOP("CVArchive", "Success"),
        QT_TRANSLATE_NOOP("CVArchive", "Invalid Password"),
        QT_TRANSLATE_NOOP("CVArchive", "Cancelled"),
        QT_TRANSLATE_NOOP("CVArchive", "Unsupported"),
        QT_TRANSLATE_NOOP("CVArchive", "Invalid File"),
        QT_TRANSLATE_NOOP("CVArchive", "Multimedia Manipulation failed"),
    };
    const bool known = status >= 0 && static_cast<std::size_t>(status) < std::size(texts);
    return QCoreApplication::translate("CVArchive", known ? texts[status] : "Unkonwn Status");
}

std::shared_ptr<CVArchive> CVArchive::archiveForExtracting(const QString &fileName)
{
    const QString extension = archivePathExtension(fileName).toLower();
    // Not anchored: whatever contains one of these goes to the tar back end, which looks at the bytes.
    static const QRegularExpression tar(QStringLiteral("(tar|tar.gz|tgz|tar.bz2|tar.bz|tbz|tar.z|tar.xz)"));
    if (extension.contains(tar))
        return std::make_shared<CVTarArchive>(extension);
    if (extension == u"corvane")
        return std::make_shared<CVCorvaneArchive>();
    if (extension == u"7z" || extension == u"001")
        return std::make_shared<CVP7ZipArchive>();
    return std::make_shared<CVXArchive>();
}

std::shared_ptr<CVArchive> CVArchive::archiveForPreviewing(const QString &fileName)
{
    if (archivePathExtension(fileName).toLower() == u"corvane")
        return std::make_shared<CVCorvaneArchive>();
    return std::make_shared<CVXArchive>();
}

std::shared_ptr<CVArchive> CVArchive::archiveForCreating(const QString &fileName)
{
    if (archivePathExtension(fileName).toLower() == u"zip")
        return std::make_shared<CVZipArchive>();
    return archiveForExtracting(fileName);
}

bool CVArchive::isExtractableExtension(const QString &extension)
{
    static const QRegularExpression pattern(
        QStringLiteral("^(tar\\.(xz|gz|bz2|z)|tbz2|xz|pkg|deb|zipx|corvane|xar|tar|tgz|gz|tbz|cpio|rar|zip|"
                       "sit|sitx|rpm|7z|z|gz|"
                       "bz2|lha|lzh|hqx|pax|war|jar|adf|jar|apk|aar|arj|cab|xar|sea|exe|sfx|7z\\.\\d{3}|r\\d{"
                       "2}|part\\d+\\.rar)$"),
        QRegularExpression::CaseInsensitiveOption);
    return pattern.match(extension).hasMatch();
}

void CVArchive::bundle(const QString &source, const QString &destinationPath)
{
    sourcePath = source;
    destination = destinationPath;
    progressCounter = 0;
    maxProgress = sizeOfItemAtPath(source);
    const auto self = shared_from_this();
    {
        const std::lock_guard lock(m_createMutex);
        m_creating = status() != Cancelled;
    }
    // A cancel that comes in between has told its end already.
    LXMainThread::post([self] {
        if (self->status() != Cancelled)
            self->setupCreateProgressTimer();
    });
    LXMainThread::post([self] {
        if (self->status() != Cancelled)
            self->createCommand();
    });
}

void CVArchive::open(const QString &path, const QString &destinationFolder)
{
    if (!isThere(path)) {
        qCWarning(lcArchive, "%s [Line %d] can't open %s because it doesn't exist", Q_FUNC_INFO, __LINE__,
                  qUtf8Printable(path));
        return;
    }
    extractFile = path;
    extractDestination = destinationFolder;
    m_extracting = true;
    m_extractReported = false;
    try {
        extractCommand();
    } catch (const CVArchiveException &e) {
        if (std::strcmp(e.name(), "DCArchiveNoPasswordException") == 0) {
            setCancelledStatus();
        } else if (std::strcmp(e.name(), "DCArchiveInvalidFileException") == 0) {
            setStatus(InvalidFile);
        } else {
            m_extracting = false;
            throw;
        }
    }
    m_extracting = false;
    // A back end that gives up early or is cancelled may return without a word; nobody may wait forever.
    if (status() != Success)
        reportExtractEnd();
}

void CVArchive::openForPreview(const QString &path)
{
    if (!isThere(path)) {
        qCWarning(lcArchive, "%s [Line %d] can't open %s because it doesn't exist", Q_FUNC_INFO, __LINE__,
                  qUtf8Printable(path));
        return;
    }
    sourcePath = path;
    preview();
}

void CVArchive::previewComplete()
{
    // Read once: the job takes itself away as soon as it has heard of an end, a cancel's included.
    CVArchiveDelegate *const receiver = delegate();
    if (!receiver)
        return;
    if (status() == Success)
        receiver->archiveFinished(this);
    else
        receiver->archiveFailed(this, status());
}

void CVArchive::createComplete()
{
    stopCreateProgressTimer();
    previewComplete();
}

void CVArchive::extractDidFinish()
{
    singleFilesToBeExtracted.reset();
    reportExtractEnd();
}

void CVArchive::reportExtractEnd()
{
    if (!m_extractReported.exchange(true))
        previewComplete();
}

void CVArchive::cancelCreate()
{
    setStatus(Cancelled);
    stopCreateProgressTimer();
    const bool removed = removeCreated();
    if (!delegate())
        return;
    if (removed)
        delegate()->archiveCancelled(this);
    else
        delegate()->archiveFailed(this, InvalidFile);
}

void CVArchive::cancelExtract()
{
    setStatus(Cancelled);
    if (!m_extracting)
        extractDidFinish();
}

void CVArchive::askForPassword()
{
    if (password)
        return;
    std::optional<QString> answer = delegate() ? delegate()->archiveWantsPassword(this) : std::nullopt;
    if (answer)
        password = std::move(answer);
    else
        cancelExtract();
}

void CVArchive::encryptWith(const QString &newPassword)
{
    Q_ASSERT_X(canEncrypt(), "CVArchive::encryptWith", "Can't encrypt a non-encryptable archive");
    if (!canEncrypt())
        qFatal("Can't encrypt a non-encryptable archive");
    password = newPassword;
}

void CVArchive::hasMadeProgress(double done, double total)
{
    if (delegate())
        delegate()->archiveHasMadeProgress(this, done, total);
}

void CVArchive::createDidAddFile(const QString &)
{
    progressCounter += 1;
    hasMadeProgress(progressCounter, maxProgress);
}

double CVArchive::createdBytes()
{
    return static_cast<double>(sizeOfFile(bytesOfFileName(destination)));
}

bool CVArchive::removeCreated()
{
    return ::unlink(bytesOfFileName(destination).constData()) == 0 || errno == ENOENT || errno == ENOTDIR;
}

void CVArchive::setupCreateProgressTimer()
{
    m_createTimer = std::make_unique<CreateTimer>();
    QTimer &timer = m_createTimer->timer;
    QObject::connect(&timer, &QTimer::timeout, &timer, [weak = weak_from_this()] {
        if (const auto self = weak.lock())
            self->tellCreateProgress();
    });
    timer.start(createProgressPeriodMs);
}

void CVArchive::tellCreateProgress()
{
    const double bytes = createdBytes();
    if (bytes < 0)
        return;
    const std::lock_guard lock(m_createMutex);
    if (m_creating)
        hasMadeProgress(bytes, maxProgress);
}

void CVArchive::stopCreateProgressTimer()
{
    {
        const std::lock_guard lock(m_createMutex);
        if (!std::exchange(m_creating, false))
            return;
    }
    LXMainThread::post([weak = weak_from_this()] {
        if (const auto self = weak.lock())
            self->m_createTimer.reset();
    });
}
