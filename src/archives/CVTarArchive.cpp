#include "archives/CVTarArchive.h"

#include "archives/CVToolPaths.h"
#include "archives/CVToolRules.h"
#include "archives/reading/CVDestination.h"
#include "archives/reading/CVTreeCheck.h"
#include "archives/reading/CVWriteLimits.h"
#include "archives/shell_line.h"
#include "util/LXChildProcess.h"
#include "util/LXDisplay.h"
#include "util/LXFileDescriptor.h"
#include "util/LXFileName.h"
#include "util/LXLog.h"
#include "util/path_parts.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>

#include <array>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

Q_LOGGING_CATEGORY(lcTar, "corvane.archives.tar")

namespace {

using namespace std::chrono_literals;

// Larger than a pipe holds, smaller than what may pass between a cancel and its effect.
constexpr qint64 blockBytes = 256 * 1024;
// How often the growth of the output is looked at while the tool works by itself.
constexpr auto watchPeriod = 100ms;

constexpr const char *gzipDescription = QT_TRANSLATE_NOOP("CVTarArchive", "TAR Archive (GZIP compression)");
constexpr const char *bzip2Description = QT_TRANSLATE_NOOP("CVTarArchive", "TAR Archive (BZIP2 compression)");
constexpr const char *lempelZivDescription =
    QT_TRANSLATE_NOOP("CVTarArchive", "TAR Archive (Lempel-Ziv compression)");
constexpr const char *plainDescription = QT_TRANSLATE_NOOP("CVTarArchive", "TAR Archive (uncompressed)");

struct KnownExtension
{
    const char *extension;
    const char *flag;
    const char *description;
};

// Names ending in "tar.xz" are unpacked with -J and created without compression, as they always were.
constexpr KnownExtension knownExtensions[] = {
    {"tar.gz", "-z", gzipDescription},      {"tgz", "-z", gzipDescription},
    {"tar.bz2", "-j", bzip2Description},    {"tar.bz", "-j", bzip2Description},
    {"tbz", "-j", bzip2Description},        {"tar.z", "-Z", lempelZivDescription},
    {"tar.xz", "-J", lempelZivDescription}, {"tar", nullptr, plainDescription},
};

/// The tool that the environment names instead of the system's, for tests and odd systems.
QString tool(const char *name)
{
    const QString given =
        qEnvironmentVariable(QByteArray("CORVANE_TOOL_" + QByteArray(name).toUpper()).constData());
    return given.isEmpty() ? QStringLiteral("/usr/bin/") + QLatin1String(name) : given;
}

/// The program that tar's output is piped through; null where tar writes the archive itself.
const char *compressorOf(const QString &flag)
{
    return flag == u"-z" ? "gzip" : flag == u"-j" ? "bzip2" : nullptr;
}

/// The space that its user may still fill on the file system of a folder; below zero when not known.
qint64 freeBytes(const QString &folder)
{
    struct statvfs space;
    if (::statvfs(bytesOfFileName(folder).constData(), &space) != 0)
        return -1;
    return static_cast<qint64>(space.f_bavail) * static_cast<qint64>(space.f_frsize);
}

} // namespace

CVTarArchive::CVTarArchive(const QString &extension)
    : m_description(plainDescription)
    , m_reader(*this)
{
    for (const KnownExtension &known : knownExtensions) {
        if (extension != QLatin1String(known.extension))
            continue;
        if (known.flag)
            m_compressionFlag = QString::fromLatin1(known.flag);
        m_description = known.description;
        return;
    }
    LX_WARNING(lcTar, "unrecognized TAR extension: %s, will assume no compression",
               qUtf8Printable(extension));
}

CVTarArchive::~CVTarArchive() = default;

bool CVTarArchive::canSetCompressionLevel() const
{
    return m_compressionFlag && *m_compressionFlag != u"-Z";
}

QString CVTarArchive::archiveDescription() const
{
    return QCoreApplication::translate("CVTarArchive", m_description);
}

// ---- creating ----

void CVTarArchive::createCommand()
{
    m_output = CVTarOutput();
    m_readingBack = false;
    m_createdWhole = false;
    m_failureReason.clear();
    m_systemError = 0;
    auto task = std::make_shared<LXTask>();
    const QString flag = m_compressionFlag.value_or(QString());
    if (const char *const compressor = compressorOf(flag)) {
        task->launchPath = QStringLiteral("/bin/sh");
        task->arguments = {QStringLiteral("-c"), QStringLiteral("%1 -vcf - . | %2 -v%3 > %4")
                                                     .arg(tool("tar"), tool(compressor))
                                                     .arg(compressionLevel)
                                                     .arg(inShellQuotes(destination))};
    } else {
        task->launchPath = tool("tar");
        task->arguments = {QStringLiteral("-v"), QStringLiteral("-c")};
        if (flag == u"-Z")
            task->arguments << flag;
        task->arguments << QStringLiteral("-f") << destination << QStringLiteral(".");
    }
    launch(std::move(task));
}

void CVTarArchive::launch(std::shared_ptr<LXTask> task)
{
    task->currentDirectoryPath = sourcePath;
    task->environment = {{QStringLiteral("TAR_OPTIONS"), CVTarOutput::tarOptions()}};
    const QString folder = parentPath(destination);
    task->confinement =
        CVToolRules::line({tool("tar"), tool("gzip"), tool("bzip2"), QStringLiteral("compress")});
    task->confinement->readable += {sourcePath, folder};
    task->confinement->writable = {folder};
    const std::shared_ptr<LXTaskDelegate> self(shared_from_this(), this);
    const std::lock_guard lock(m_mutex);
    if (m_createCancelled)
        return; // and told
    m_taskWrapper = std::make_unique<LXTaskHelper>(self, std::move(task));
    m_taskWrapper->launchTask();
}

void CVTarArchive::taskHasOutputAvailable(LXTask &, const QString &line)
{
    m_output.add(line);
}

void CVTarArchive::taskHasCompletedWithStatus(LXTask &, std::int32_t status)
{
    std::unique_ptr<LXTaskHelper> ended;
    {
        const std::lock_guard lock(m_mutex);
        if (m_createCancelled)
            return;
        ended = std::move(m_taskWrapper);
    }
    if (judgeCreated(status))
        createComplete();
}

bool CVTarArchive::judgeCreated(std::int32_t status)
{
    constexpr std::int32_t someFilesDiffer = 1; // from what they were when tar began to read them
    if (m_readingBack) {
        m_createdWhole = status == 0;
    } else if (m_compressionFlag == u"-Z" && status == 2 && m_output.onlyDidNotShrink()) {
        // So it says. Rare, and worth a look: the same words would hide an archive that lacks something.
        m_readingBack = true;
        auto task = std::make_shared<LXTask>();
        task->launchPath = tool("tar");
        task->arguments = {QStringLiteral("-d"), QStringLiteral("-Z"), QStringLiteral("-f"), destination};
        launch(std::move(task));
        return false;
    } else {
        const bool isPipe = compressorOf(m_compressionFlag.value_or(QString()));
        m_createdWhole = (status == 0 || (status == someFilesDiffer && !isPipe)) && m_output.hasTotal() &&
                         !m_output.hasFailed();
    }
    if (!m_createdWhole)
        explainCreated(status);
    return true;
}

void CVTarArchive::explainCreated(std::int32_t status)
{
    const auto isMissing = [](const char *name) { return !QFileInfo(tool(name)).isExecutable(); };
    const char *const compressor = compressorOf(m_compressionFlag.value_or(QString()));
    const char *const missing = isMissing("tar")                         ? "tar"
                                : compressor && isMissing(compressor)    ? compressor
                                : m_output.says("compress: not found")   ? "compress"
                                : m_output.says("compress: Cannot exec") ? "compress"
                                                                         : nullptr;
    // tar itself only says that less was written than it wanted.
    constexpr qint64 full = 64 * 1024;
    const qint64 slash = destination.lastIndexOf(u'/');
    const qint64 left = freeBytes(slash > 0 ? destination.left(slash) : QStringLiteral("."));
    if (m_output.says("No space left on device") || (m_output.says("Wrote only") && left >= 0 && left < full))
        m_systemError = ENOSPC;
    if (missing) {
        const LXError error = CVToolPaths::missingTool(QString::fromLatin1(missing));
        m_failureReason = QStringList{error.description, error.suggestion}.join(u' ').trimmed();
    } else if (m_systemError != 0) {
        m_failureReason = QString::fromLocal8Bit(std::strerror(m_systemError));
    } else {
        m_failureReason = m_output.firstComplaint();
        if (m_failureReason.isEmpty())
            m_failureReason =
                QCoreApplication::translate("CVTarArchive", "“tar” ended early, with status %1.").arg(status);
    }
    LX_WARNING(lcTar, "%s is not whole: %s", qUtf8Printable(destination), qUtf8Printable(m_failureReason));
}

void CVTarArchive::cancelCreate()
{
    std::unique_ptr<LXTaskHelper> wrapper;
    {
        const std::lock_guard lock(m_mutex);
        m_createCancelled = true;
        wrapper = std::move(m_taskWrapper);
    }
    if (wrapper && wrapper->task().isRunning()) {
        wrapper->task().terminate();
        wrapper->task().waitUntilExit();
    }
    wrapper.reset();
    CVArchive::cancelCreate();
}

// ---- extracting ----

std::optional<QString> CVTarArchive::compressionFlagForHead(const QByteArray &head)
{
    struct Magic
    {
        QByteArrayView bytes;
        const char *flag;
    };
    static const std::array magics{
        Magic{QByteArrayView("\x1f\x8b", 2), "-z"},
        Magic{QByteArrayView("BZh", 3), "-j"},
        Magic{QByteArrayView("\xfd"
                             "7zXZ\0",
                             6),
              "-J"},
        Magic{QByteArrayView("\x1f\x9d", 2), "-Z"},
        Magic{QByteArrayView("\x28\xb5\x2f\xfd", 4), "--zstd"},
        Magic{QByteArrayView("LZIP", 4), "--lzip"},
        Magic{QByteArrayView("\x89LZO", 4), "--lzop"},
        Magic{QByteArrayView("\x5d\x00\x00", 3), "--lzma"},
    };
    // A plain tar begins with a name, which could be any of these but for the mark further on.
    if (head.mid(257, 5) == "ustar")
        return std::nullopt;
    for (const Magic &magic : magics)
        if (head.startsWith(magic.bytes))
            return QString::fromLatin1(magic.flag);
    return std::nullopt;
}

QString CVTarArchive::extractShellCommand(const std::optional<QString> &flag)
{
    QString command = tool("tar") + u' ';
    if (flag)
        command += *flag + u' ';
    return command + QStringLiteral("-xC \"$DESTINATION\" ");
}

std::stop_token CVTarArchive::freshStopToken()
{
    const std::lock_guard lock(m_mutex);
    m_stop = std::stop_source();
    return m_stop.get_token();
}

void CVTarArchive::cancelExtract()
{
    m_isCancelled = true;
    {
        const std::lock_guard lock(m_mutex);
        m_stop.request_stop();
    }
    m_reader.cancel();
    CVArchive::cancelExtract();
}

void CVTarArchive::extractCommand()
{
    m_isCancelled = false;
    m_reader.reset();
    CVFallbackReader::Result result = m_reader.extract();
    if (!m_isCancelled && result.isUnknown && !singleFilesToBeExtracted) {
        const std::optional<QByteArray> complaint = extractWithTool();
        if (complaint)
            LX_WARNING(lcTar, "tar does not unpack %s: %s",
                       qUtf8Printable(LXDisplay::displayEscaped(extractFile)), complaint->constData());
        else
            result = {};
    }
    m_skippedEntries = std::move(result.skipped);
    m_failureReason = std::move(result.failureReason);
    m_systemError = result.systemError;
    if (m_isCancelled)
        return; // the cancel tells the delegate
    // A name of the tar family promises an archive, so one that nobody can read is a bad one.
    setStatus(result.isUnknown ? InvalidFile : result.status);
    extractDidFinish();
}

std::optional<QByteArray> CVTarArchive::extractWithTool()
{
    // Not by its name, which need not be text.
    QFile file;
    LXFileDescriptor descriptor(
        ::open(bytesOfFileName(extractFile).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat info = {};
    if (!descriptor.isOpen() || ::fstat(descriptor.get(), &info) != 0 || !S_ISREG(info.st_mode) ||
        !file.open(descriptor.get(), QIODevice::ReadOnly | QIODevice::Unbuffered,
                   QFileDevice::DontCloseHandle))
        return QByteArray("it cannot be opened");
    CVDestination folder(bytesOfFileName(extractDestination));
    if (!folder.isOpen() || !folder.isEmpty())
        return QByteArray("the destination is not an empty folder");
    std::optional<QByteArray> complaint = runTool(file, info.st_size);
    if (complaint)
        folder.empty();
    return complaint;
}

std::optional<QByteArray> CVTarArchive::runTool(QFile &file, qint64 fileSize)
{
    using Kind = LXChildProcess::Chunk::Kind;
    const std::stop_token stop = freshStopToken();
    if (m_isCancelled)
        return "cancelled";

    std::optional<QString> flag = m_compressionFlag;
    if (!flag) {
        flag = compressionFlagForHead(file.read(512));
        file.seek(0);
    }
    LXChildOptions options;
    options.program = QStringLiteral("/bin/sh");
    options.arguments = {QStringLiteral("-c"), extractShellCommand(flag)};
    options.environment = {
        {QStringLiteral("DESTINATION"), extractDestination},
        // Owners and special bits are never restored, not even for root.
        {QStringLiteral("TAR_OPTIONS"), QStringLiteral("--no-same-owner --no-same-permissions")},
    };
    options.input = LXChildOptions::Stream::Pipe;
    options.confinement =
        CVToolRules::line({tool("tar"), QStringLiteral("gzip"), QStringLiteral("bzip2"), QStringLiteral("xz"),
                           QStringLiteral("lzma"), QStringLiteral("compress"), QStringLiteral("zstd"),
                           QStringLiteral("lzip"), QStringLiteral("lzop")});
    options.confinement->readable += extractDestination;
    options.confinement->writable = {extractDestination};
    options.confinement->changes = LXConfinementRules::Changes::ByPath;
    auto started = LXChildProcess::start(options);
    if (!started)
        return "it cannot be run";
    LXChildProcess &child = *started.value();

    std::optional<QByteArray> complaint;
    const auto take = [&](const LXChildProcess::Chunk &chunk) {
        if (chunk.kind == Kind::Error && !complaint)
            complaint = chunk.data.trimmed();
    };
    // The reader asks the person about an absurd growth; here it only ends the try. What was written is
    // counted in the destination, since the free space of the disk is also moved by others.
    CVTreeCheck::Growth growth(extractDestination);
    const auto watch = [&] {
        const qint64 left = freeBytes(extractDestination);
        const qint64 written = growth.bytes();
        if (!complaint &&
            ((left >= 0 && left < CVWriteLimits::reservedFreeBytes) ||
             (written > CVWriteLimits::bombFloorBytes && written / CVWriteLimits::bombRatio > fileSize)))
            complaint = "it unpacks to too much";
    };

    QByteArray block(blockBytes, Qt::Uninitialized);
    qint64 total = 0;
    qint64 got = 0;
    while (!complaint && !m_isCancelled && (got = file.read(block.data(), blockBytes)) > 0) {
        // Broken: also how it tells that it has seen the archive's end mark and needs no more.
        if (child.write(block.constData(), got, stop) != LXChildProcess::WriteResult::Written)
            break;
        total += got;
        hasMadeProgress(static_cast<double>(total), static_cast<double>(fileSize));
        for (LXChildProcess::Chunk chunk = child.read(stop, 0ms);
             chunk.kind == Kind::Output || chunk.kind == Kind::Error; chunk = child.read(stop, 0ms))
            take(chunk);
        watch();
    }
    if (got < 0)
        complaint = "the archive cannot be read";
    child.closeInput();
    while (!complaint && !m_isCancelled) {
        const LXChildProcess::Chunk chunk = child.read(stop, watchPeriod);
        if (chunk.kind == Kind::Closed || chunk.kind == Kind::Stopped)
            break;
        take(chunk);
        watch();
    }
    if (m_isCancelled)
        complaint = "cancelled";
    if (complaint) {
        child.terminate();
        return complaint;
    }
    const std::optional<LXChildProcess::Exit> exit = child.wait(stop);
    if (!exit) {
        child.terminate();
        return "cancelled";
    }
    if (!exit->succeeded())
        return "tar exited abnormally with status " +
               QByteArray::number(exit->normal ? exit->status : 128 + exit->status);
    const CVTreeCheck tree = CVTreeCheck::check(extractDestination, [&] { return m_isCancelled.load(); });
    return tree.clean ? std::nullopt : std::optional(tree.reason.toUtf8());
}
