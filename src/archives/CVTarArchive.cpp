#include "archives/CVTarArchive.h"

#include "archives/CVToolPaths.h"
#include "archives/reading/CVDestination.h"
#include "archives/reading/CVSafeWriter.h"
#include "archives/reading/CVTreeCheck.h"
#include "archives/shell_line.h"
#include "util/LXChildProcess.h"
#include "util/LXDisplay.h"
#include "util/LXFileName.h"
#include "util/LXLog.h"

#include <QCoreApplication>
#include <QDir>
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

/// The folders of the members that tar names while it unpacks them, one a line.
class MemberFolders
{
public:
    void add(const QByteArray &text)
    {
        qsizetype start = 0;
        for (qsizetype end; (end = text.indexOf('\n', start)) >= 0; start = end + 1) {
            m_rest += text.mid(start, end - start);
            line(m_rest);
            m_rest.clear();
        }
        m_rest += text.mid(start);
    }

    /// Null when a name could not be understood.
    const QSet<QByteArray> *folders() const { return m_odd ? nullptr : &m_folders; }

private:
    void line(QByteArray name)
    {
        m_odd = m_odd || name.contains('\\');
        while (name.endsWith('/'))
            name.chop(1);
        name.truncate(std::max<qsizetype>(0, name.lastIndexOf('/')));
        if (name == m_last)
            return;
        m_last = name;
        QByteArrayList parts = name.split('/');
        parts.removeIf([](const QByteArray &part) { return part.isEmpty() || part == "."; });
        m_folders.insert(parts.join('/'));
    }

    QSet<QByteArray> m_folders;
    QByteArray m_last = "/";
    QByteArray m_rest;
    bool m_odd = false;
};

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

QString CVTarArchive::extractShellCommand(const std::optional<QString> &flag,
                                          const std::optional<QStringList> &entries)
{
    QString command = tool("tar") + u' ';
    if (flag)
        command += *flag + u' ';
    command += QStringLiteral("-xC \"$DESTINATION\" ");
    if (entries)
        for (const QString &entry : *entries)
            command += inShellQuotes(entry) + u' ';
    return command;
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
    m_skippedEntries.clear();
    m_failureReason.clear();
    m_systemError = 0;
    m_toolStatus = 0;

    // Not by its name, which need not be text.
    QFile file;
    const int descriptor =
        ::open(bytesOfFileName(extractFile).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat info = {};
    if (descriptor < 0 || ::fstat(descriptor, &info) != 0 || !S_ISREG(info.st_mode) ||
        !file.open(descriptor, QIODevice::ReadOnly | QIODevice::Unbuffered, QFileDevice::AutoCloseHandle)) {
        m_failureReason = QString::fromLocal8Bit(std::strerror(errno));
        LX_WARNING(lcTar, "error opening %s: %s", qUtf8Printable(LXDisplay::displayEscaped(extractFile)),
                   qUtf8Printable(m_failureReason));
        if (descriptor >= 0)
            ::close(descriptor);
        setStatus(InvalidFile);
        return;
    }

    std::optional<QString> flag = m_compressionFlag;
    if (!flag) {
        flag = compressionFlagForHead(file.read(512));
        file.seek(0);
    }
    // tar takes an archive without its end mark in silence; the reader says that something may be missing.
    const bool mayBeEmptied =
        (flag || endsWithMark(file)) &&
        QDir(extractDestination)
            .isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    if (mayBeEmptied) {
        switch (extractWithTool(extractShellCommand(flag, singleFilesToBeExtracted), file, info.st_size)) {
        case ToolResult::Done:
            setStatus(Success);
            extractDidFinish();
            return;
        case ToolResult::Cancelled:
            return; // the cancel tells the delegate
        case ToolResult::Odd:
            break;
        }
        CVDestination(bytesOfFileName(extractDestination)).empty();
    }
    file.close();
    extractWithReader();
}

bool CVTarArchive::endsWithMark(QFile &file)
{
    constexpr qint64 blockBytes = 512;
    const qint64 size = file.size();
    if (size < blockBytes || !file.seek(size - blockBytes))
        return false;
    const QByteArray last = file.read(blockBytes);
    file.seek(0);
    return last.count('\0') == last.size();
}

CVTarArchive::ToolResult CVTarArchive::extractWithTool(const QString &command, QFile &file, qint64 fileSize)
{
    using Kind = LXChildProcess::Chunk::Kind;
    const std::stop_token stop = freshStopToken();
    if (m_isCancelled)
        return ToolResult::Cancelled;

    LXChildOptions options;
    options.program = QStringLiteral("/bin/sh");
    options.arguments = {QStringLiteral("-c"), command};
    options.environment = {
        {QStringLiteral("DESTINATION"), extractDestination},
        // Owners and special bits are never restored, not even for root. The names it unpacks are for
        // our check; escaped, so that none of them spans lines.
        {QStringLiteral("TAR_OPTIONS"),
         QStringLiteral("--no-same-owner --no-same-permissions --verbose --quoting-style=escape")},
    };
    options.input = LXChildOptions::Stream::Pipe;
    options.confined = true;
    options.writableFolders = {extractDestination};
    auto started = LXChildProcess::start(options);
    if (!started) {
        LX_WARNING(lcTar, "error running tar command: %s", qUtf8Printable(command));
        return ToolResult::Odd;
    }
    LXChildProcess &child = *started.value();

    MemberFolders members;
    QByteArray complaint;
    const qint64 freeBefore = freeBytes(extractDestination);
    const auto take = [&](const LXChildProcess::Chunk &chunk) {
        if (chunk.kind == Kind::Output)
            members.add(chunk.data);
        else if (chunk.kind == Kind::Error && complaint.isEmpty())
            complaint = chunk.data;
    };
    // The reader asks the person about an absurd growth and reports a full disk; here both only end the try.
    const auto isWithinLimits = [&] {
        const qint64 now = freeBytes(extractDestination);
        if (freeBefore < 0 || now < 0)
            return true;
        const qint64 written = freeBefore - now;
        return now >= CVSafeWriter::reservedFreeBytes &&
               (written <= CVSafeWriter::bombFloorBytes || written / CVSafeWriter::bombRatio <= fileSize);
    };

    QByteArray block(blockBytes, Qt::Uninitialized);
    qint64 total = 0;
    qint64 got = 0;
    while (complaint.isEmpty() && !m_isCancelled && (got = file.read(block.data(), blockBytes)) > 0) {
        const LXChildProcess::WriteResult result = child.write(block.constData(), got, stop);
        if (result == LXChildProcess::WriteResult::Stopped)
            break;
        if (result == LXChildProcess::WriteResult::Broken) {
            // Also how it tells that it has seen the archive's end mark and needs no more.
            LX_DEBUG(lcTar, "error writing to command");
            break;
        }
        total += got;
        hasMadeProgress(static_cast<double>(total), static_cast<double>(fileSize));
        for (LXChildProcess::Chunk chunk = child.read(stop, 0ms);; chunk = child.read(stop, 0ms)) {
            if (chunk.kind != Kind::Output && chunk.kind != Kind::Error)
                break;
            take(chunk);
        }
        if (!isWithinLimits())
            complaint = "it unpacks to too much";
    }
    if (got < 0)
        complaint = "the archive cannot be read";
    child.closeInput();
    while (complaint.isEmpty() && !m_isCancelled) {
        const LXChildProcess::Chunk chunk = child.read(stop, watchPeriod);
        if (chunk.kind == Kind::Closed || chunk.kind == Kind::Stopped)
            break;
        take(chunk);
        if (chunk.kind == Kind::TimedOut && !isWithinLimits())
            complaint = "it unpacks to too much";
    }
    if (m_isCancelled) {
        child.terminate();
        return ToolResult::Cancelled;
    }
    if (!complaint.isEmpty()) {
        child.terminate();
        m_toolStatus = 1;
        LX_DEBUG(lcTar, "tar is odd about %s: %s", qUtf8Printable(extractFile), complaint.constData());
        return ToolResult::Odd;
    }
    const std::optional<LXChildProcess::Exit> exit = child.wait(stop);
    if (!exit) {
        child.terminate();
        return ToolResult::Cancelled;
    }
    m_toolStatus = exit->normal ? exit->status : 128 + exit->status;
    if (!exit->succeeded())
        return ToolResult::Odd;
    const CVTreeCheck tree =
        CVTreeCheck::check(extractDestination, child.hasLostOutput() ? nullptr : members.folders(),
                           [&] { return m_isCancelled.load(); });
    if (m_isCancelled)
        return ToolResult::Cancelled;
    if (!tree.clean)
        LX_DEBUG(lcTar, "%s is left to the reader: %s", qUtf8Printable(extractFile),
                 qUtf8Printable(tree.reason));
    return tree.clean ? ToolResult::Done : ToolResult::Odd;
}

void CVTarArchive::extractWithReader()
{
    CVFallbackReader::Result result = m_reader.extract();
    m_skippedEntries = std::move(result.skipped);
    m_failureReason = std::move(result.failureReason);
    m_systemError = result.systemError;
    if (m_isCancelled)
        return;
    if (result.status != Success && m_toolStatus != 0) {
        LX_WARNING(lcTar, "tar exited abnormally with status %d", m_toolStatus);
        if (result.status == Unsupported)
            result.status = InvalidFile;
    }
    setStatus(result.status);
    extractDidFinish();
}
