#include "archives/CVP7ZipArchive.h"

#include "archives/CVToolPaths.h"
#include "archives/CVToolRules.h"
#include "archives/shell_line.h"
#include "util/LXChildProcess.h"
#include "util/LXFileName.h"
#include "util/LXLog.h"
#include "util/path_parts.h"

#include <QCoreApplication>
#include <QFileInfo>

#include <cerrno>
#include <csignal>

Q_LOGGING_CATEGORY(lcSevenZipTool, "corvane.archives.7za")

namespace {

// The tool's last words are short; a thousand unreadable files are not worth more than their end.
constexpr qsizetype keptComplaintBytes = 4096;
constexpr qsizetype keptComplaintLines = 8;

QString text(const char *source)
{
    return QCoreApplication::translate("CVP7ZipArchive", source);
}

/// errno of the write that failed, as far as it says that there was no room; else 0.
int writeErrorIn(const QByteArray &complaint)
{
    for (const int code : {ENOSPC, EDQUOT, EFBIG, EROFS})
        if (complaint.contains(QByteArray("errno=" + QByteArray::number(code) + ' ')))
            return code;
    return 0;
}

/// The signal that ended the tool or the shell around it; 0 when none did.
int signalOf(const LXChildProcess::Exit &exit)
{
    constexpr int shellBase = 128; // how the shell tells that a signal ended what it ran
    if (!exit.normal)
        return exit.status;
    return exit.status > shellBase && exit.status <= shellBase + SIGRTMAX ? exit.status - shellBase : 0;
}

} // namespace

QString CVP7ZipArchive::archiveDescription() const
{
    return QCoreApplication::translate("CVArchive", "7-ZIP archive (high compression and encryption)");
}

QString CVZipArchive::archiveDescription() const
{
    return QCoreApplication::translate("CVArchive", "ZIP archive (WinZIP compatible)");
}

void CVP7ZipArchive::createCommand()
{
    const std::lock_guard lock(m_mutex);
    if (m_isCancelled)
        return; // and told
    m_pieces = CVArchivePieces(destination);
    m_running = true;
    // Of its own: the tool ends with the thread that started it.
    m_thread.start(shared_from_this(), [this] { threadedCreateCommand(); });
}

void CVP7ZipArchive::threadedCreateCommand()
{
    actualCreateCommand();
    {
        std::unique_lock lock(m_mutex);
        m_running = false;
        m_changed.notify_all();
        // Whoever cancels hears that it is cancelled before anything else.
        if (m_isCancelled)
            m_changed.wait(lock, [this] { return m_cancelReported; });
    }
    if (m_isCancelled)
        setStatus(Cancelled);
    createComplete();
}

QString CVP7ZipArchive::createShellCommand(const QString &tool) const
{
    QString command = u"cd " + inShellQuotes(sourcePath) + u"; " + inShellQuotes(tool) + u" a -t" +
                      QFileInfo(destination).suffix() + u" -mx=" + QString::number(compressionLevel);
    if (chunkSize != 0)
        command += u" -v" + QString::number(static_cast<qint64>(chunkSize)) + u'b';
    if (password)
        command += u" -p\"$CORVANE_PASSWORD\"";
    return command + u' ' + inShellQuotes(destination) + u" .";
}

void CVP7ZipArchive::actualCreateCommand()
{
    // The tool reads the password as a line, and would take an empty one for none.
    if (password && (password->isEmpty() || password->contains(u'\n') || password->contains(QChar(u'\0')))) {
        m_failureReason = password->isEmpty() ? text("The password is empty.")
                                              : text("The password must not hold a line break.");
        setStatus(InvalidPassword);
        return;
    }
    const LXResult<QString> tool = CVToolPaths::toolPath(QStringLiteral("7za"));
    if (!tool) {
        m_failureReason = QStringList{tool.error().description, tool.error().suggestion}.join(u' ').trimmed();
        setStatus(InvalidFile);
        return;
    }
    LX_DEBUG(lcSevenZipTool, "found helper tool %s", qUtf8Printable(tool.value()));
    runTool(tool.value());
    if (status() != Success && !m_isCancelled)
        m_pieces.remove();
}

void CVP7ZipArchive::runTool(const QString &tool)
{
    using Kind = LXChildProcess::Chunk::Kind;
    LXChildOptions options;
    options.program = QStringLiteral("/bin/sh");
    const QString command = createShellCommand(tool);
    options.arguments = {QStringLiteral("-c"), command};
    // The line changes to this folder itself, but would go on in the present one where it cannot.
    if (sourcePath.startsWith(u'/'))
        options.workingFolder = sourcePath;
    if (password)
        options.environment = {{QStringLiteral("CORVANE_PASSWORD"), *password}};
    options.confinement = CVToolRules::line(
        {tool, CVToolPaths::resourcesFolder() + QStringLiteral("/corvane-zip"), QStringLiteral("7za"),
         QStringLiteral("7zz"), QStringLiteral("7z"), QStringLiteral("/usr/lib/p7zip"),
         QStringLiteral("/usr/lib/7zip"), qEnvironmentVariable("CORVANE_REAL_7ZA", QStringLiteral("7za"))});
    options.confinement->readable = {QStringLiteral("/")}; // it follows links, out of the folder too
    options.confinement->writable = {parentPath(destination)};
    options.confinement->changes = LXConfinementRules::Changes::ByDescriptor;
    auto started = LXChildProcess::start(options);
    if (!started) {
        LX_WARNING(lcSevenZipTool, "error launching create command");
        m_failureReason = started.error().reason;
        setStatus(InvalidFile);
        return;
    }
    LXChildProcess &child = *started.value();
    {
        const std::lock_guard lock(m_mutex);
        m_child = &child;
        if (m_isCancelled)
            child.requestStop();
    }
    QByteArray complaint;
    for (LXChildProcess::Chunk chunk = child.read();
         chunk.kind != Kind::Closed && chunk.kind != Kind::Stopped; chunk = child.read()) {
        if (chunk.kind == Kind::Error) {
            complaint += chunk.data;
            complaint = complaint.right(keptComplaintBytes);
        }
    }
    const std::optional<LXChildProcess::Exit> exit = child.wait();
    if (!exit)
        child.terminate();
    {
        const std::lock_guard lock(m_mutex);
        m_child = nullptr;
    }
    if (!exit || m_isCancelled || exit->succeeded())
        return;
    LX_WARNING(lcSevenZipTool, "encountered error running command:\n%s", qUtf8Printable(command));
    explainFailure(complaint, *exit);
    setStatus(InvalidFile);
}

void CVP7ZipArchive::explainFailure(const QByteArray &complaint, const LXChildProcess::Exit &exit)
{
    m_systemError = writeErrorIn(complaint);
    QStringList lines;
    for (const QByteArray &line : complaint.split('\n'))
        if (const QByteArray trimmed = line.trimmed(); !trimmed.isEmpty())
            lines << fileNameFromBytes(trimmed);
    if (lines.size() > keptComplaintLines)
        lines = lines.last(keptComplaintLines);
    if (const int signal = signalOf(exit)) // then the words are the shell's
        m_failureReason = text("“7za” was ended by signal %1.").arg(signal);
    else if (lines.isEmpty())
        m_failureReason = text("“7za” ended with status %1.").arg(exit.status);
    else
        m_failureReason = lines.join(u'\n');
}

void CVP7ZipArchive::cancelCreate()
{
    {
        std::unique_lock lock(m_mutex);
        m_isCancelled = true;
        if (m_child)
            m_child->requestStop();
        m_changed.wait(lock, [this] { return !m_running; });
    }
    CVArchive::cancelCreate();
    const std::lock_guard lock(m_mutex);
    m_cancelReported = true;
    m_changed.notify_all();
}

double CVP7ZipArchive::createdBytes()
{
    return static_cast<double>(m_pieces.bytes());
}

bool CVP7ZipArchive::removeCreated()
{
    return m_pieces.remove();
}
