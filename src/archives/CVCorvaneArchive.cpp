#include "archives/CVCorvaneArchive.h"

#include "archives/CVToolPaths.h"
#include "archives/CVToolRules.h"
#include "archives/reading/CVDestination.h"
#include "archives/reading/XADArchive.h"
#include "archives/shell_line.h"
#include "archives/xar/CVXarListing.h"
#include "archives/xar/xar.h"
#include "util/LXChildProcess.h"
#include "util/LXFileName.h"
#include "util/LXLog.h"
#include "util/path_parts.h"

#include <QCoreApplication>
#include <QRegularExpression>

#include <cerrno>
#include <filesystem>

Q_LOGGING_CATEGORY(lcCorvaneArchive, "corvane.archives.own")

namespace {

// From this many nested entries on, building the tree takes long enough to be worth reporting.
constexpr std::size_t reportTreeFrom = 5001;
// The longest line that the tool can have to say: a path of 4 KiB, every byte of it escaped.
constexpr qsizetype maxLineBytes = qsizetype(64) << 10;

/// Everything beneath the folder; links are not followed.
double countOfItems(const QByteArray &folder)
{
    namespace fs = std::filesystem;
    std::error_code error;
    double count = 0;
    for (fs::recursive_directory_iterator
             it(fs::path(folder.toStdString()), fs::directory_options::skip_permission_denied, error),
         end;
         !error && it != end; it.increment(error))
        ++count;
    return count;
}

} // namespace

CVCorvaneArchive::CVCorvaneArchive()
    : m_reader(*this)
{}

CVCorvaneArchive::~CVCorvaneArchive() = default;

QString CVCorvaneArchive::archiveDescription() const
{
    return QCoreApplication::translate("CVArchive", "Corvane (audio and image pre-compression)");
}

// ---- creating ----

void CVCorvaneArchive::createCommand()
{
    const std::lock_guard lock(m_mutex);
    if (m_isCancelled)
        return; // and told
    m_isWriting = true;
    m_thread.start(shared_from_this(), [this] { threadedCreateCommand(); });
}

void CVCorvaneArchive::threadedCreateCommand()
{
    const LXResult<void> result = write();
    {
        const std::lock_guard lock(m_mutex);
        m_isWriting = false;
        m_hasEnded = !m_isCancelled;
        m_changed.notify_all();
        if (!m_hasEnded)
            return; // the cancel tells it
    }
    if (!result)
        takeError(result.error());
    createComplete();
}

LXResult<void> CVCorvaneArchive::write()
{
    auto opened = xar_create(bytesOfFileName(destination));
    if (!opened)
        return opened.error();
    const xar_t archive = std::move(opened).value();
    {
        const std::lock_guard lock(m_mutex);
        m_xarArchive = archive.get();
        if (m_isCancelled)
            xar_cancel(*archive);
    }
    const QByteArray source = bytesOfFileName(sourcePath);
    maxProgress = countOfItems(source);
    m_progress = 0;
    xar_add_beneath(*archive, nullptr, source, [this] {
        m_progress += 1;
        hasMadeProgress(m_progress, maxProgress);
        return !m_isCancelled.load();
    });
    const LXResult<void> result = xar_close(*archive);
    const std::lock_guard lock(m_mutex);
    m_xarArchive = nullptr;
    return result;
}

void CVCorvaneArchive::takeError(const LXError &error)
{
    LX_WARNING(lcCorvaneArchive, "%s %s", qUtf8Printable(error.description), qUtf8Printable(error.reason));
    m_failureReason = QStringList{error.description, error.reason}.join(u' ').trimmed();
    if (error.domain == QLatin1String(xar_system_domain))
        for (const int full : {ENOSPC, EDQUOT, EFBIG, EROFS})
            if (error.code == full)
                m_systemError = full;
    setStatus(InvalidFile);
}

void CVCorvaneArchive::cancelCreate()
{
    {
        std::unique_lock lock(m_mutex);
        if (m_hasEnded)
            return;
        m_isCancelled = true;
        if (m_xarArchive)
            xar_cancel(*m_xarArchive);
        // Unless it is told in the middle of the writing, to who hears of its progress.
        if (!m_thread.isCurrent())
            m_changed.wait(lock, [this] { return !m_isWriting; });
    }
    CVArchive::cancelCreate();
}

// ---- extracting ----

void CVCorvaneArchive::extractCommand()
{
    m_isCancelled = false;
    m_reader.reset();
    m_skippedEntries.clear();
    m_failureReason.clear();
    m_systemError = 0;

    CVDestination folder(bytesOfFileName(extractDestination));
    if (!folder.isOpen()) {
        m_systemError = errno;
        m_failureReason = QString::fromLocal8Bit(std::strerror(m_systemError));
        setStatus(InvalidFile);
        extractDidFinish();
        return;
    }
    if (folder.isEmpty()) {
        switch (extractWithTool()) {
        case ToolResult::Done:
            setStatus(Success);
            extractDidFinish();
            return;
        case ToolResult::Cancelled:
            setCancelledStatus();
            return; // told when this has returned
        case ToolResult::Odd:
            break;
        }
        folder.empty();
    }
    extractWithReader();
}

std::optional<double> CVCorvaneArchive::countEntries()
{
    XADErrorCode code = XADErrorCode::None;
    QString detail;
    const auto archive = XADArchive::openFile(extractFile, nullptr, &code, &detail);
    if (!archive || archive->formatName() != QLatin1StringView("XAR")) {
        LX_DEBUG(lcCorvaneArchive, "%s: %s", qUtf8Printable(extractFile), qUtf8Printable(detail));
        return std::nullopt;
    }
    return archive->numberOfEntries();
}

CVCorvaneArchive::ToolResult CVCorvaneArchive::extractWithTool()
{
    const std::optional<double> count = countEntries();
    const LXResult<QString> tool = CVToolPaths::toolPath(QStringLiteral("xar"));
    if (!count || !tool)
        return ToolResult::Odd;
    maxProgress = *count;
    m_progress = 0;
    QStringList arguments{QStringLiteral("--distribution"), QStringLiteral("-v"), QStringLiteral("-x"),
                          QStringLiteral("-f"), extractFile};
    if (singleFilesToBeExtracted)
        arguments += *singleFilesToBeExtracted;
    return run(tool.value(), arguments, extractDestination, [this](const QByteArray &) {
        m_progress += 1;
        hasMadeProgress(m_progress, maxProgress);
    });
}

CVCorvaneArchive::ToolResult CVCorvaneArchive::run(const QString &program, const QStringList &arguments,
                                                   const QString &destinationFolder,
                                                   const std::function<void(const QByteArray &)> &take)
{
    using Kind = LXChildProcess::Chunk::Kind;
    std::stop_token stop;
    {
        const std::lock_guard lock(m_mutex);
        m_stop = std::stop_source();
        stop = m_stop.get_token();
    }
    if (m_isCancelled)
        return ToolResult::Cancelled;
    LXChildOptions options;
    options.program = program;
    options.arguments = arguments;
    if (destinationFolder.isEmpty()) {
        options.confinement =
            CVToolRules::line({CVToolPaths::toolPath(QStringLiteral("xar")).value(), QStringLiteral("awk")});
        options.confinement->readable += sourcePath;
    } else {
        options.workingFolder = destinationFolder;
        options.confinement = CVToolRules::single();
        options.confinement->readable += {extractFile, destinationFolder};
        options.confinement->writable = {destinationFolder};
        options.confinement->changes = LXConfinementRules::Changes::ByPath; // the times of links
    }
    auto started = LXChildProcess::start(options);
    if (!started) {
        LX_WARNING(lcCorvaneArchive, "%s", qUtf8Printable(started.error().reason));
        return ToolResult::Odd;
    }
    LXChildProcess &child = *started.value();
    QByteArray rest;
    bool isOdd = false;
    for (LXChildProcess::Chunk chunk = child.read(stop);
         !isOdd && chunk.kind != Kind::Closed && chunk.kind != Kind::Stopped; chunk = child.read(stop)) {
        if (chunk.kind == Kind::Error) {
            LX_DEBUG(lcCorvaneArchive, "%s", chunk.data.constData());
            isOdd = true;
        } else if (chunk.kind == Kind::Output) {
            rest += chunk.data;
            qsizetype start = 0;
            for (qsizetype end; (end = rest.indexOf('\n', start)) >= 0 && !m_isCancelled; start = end + 1)
                take(rest.mid(start, end - start));
            rest.remove(0, start);
            isOdd = rest.size() > maxLineBytes;
        }
    }
    const std::optional<LXChildProcess::Exit> exit = isOdd || m_isCancelled ? std::nullopt : child.wait(stop);
    if (!exit)
        child.terminate();
    if (m_isCancelled)
        return ToolResult::Cancelled;
    return exit && exit->succeeded() ? ToolResult::Done : ToolResult::Odd;
}

void CVCorvaneArchive::extractWithReader()
{
    CVFallbackReader::Result result = m_reader.extract();
    m_skippedEntries = std::move(result.skipped);
    m_failureReason = std::move(result.failureReason);
    m_systemError = result.systemError;
    if (m_isCancelled)
        return;
    setStatus(result.status);
    extractDidFinish();
}

void CVCorvaneArchive::cancelExtract()
{
    m_isCancelled = true;
    {
        const std::lock_guard lock(m_mutex);
        m_stop.request_stop();
    }
    m_reader.cancel();
    CVArchive::cancelExtract();
}

// ---- listing ----

QString CVCorvaneArchive::previewShellCommand(const QString &tool, const QString &archive)
{
    static const QRegularExpression plain(QStringLiteral("^[\\w/.+-]+$"));
    const QString program = plain.match(tool).hasMatch() ? tool : inShellQuotes(tool);
    return program + u" --distribution -vtf " + inShellQuotes(archive) +
           u" | awk '{ s = \"\"; for (i = 6; i <= NF; i++) s = s $i \" \"; print $1 \" \" $3 \" \" s }'";
}

void CVCorvaneArchive::preview()
{
    // A cancel that came before this is not forgotten: an archive is listed once.
    m_failureReason.clear();
    switch (listWithTool()) {
    case ToolResult::Done:
        buildPreviewFileTree();
        break;
    case ToolResult::Cancelled:
        break;
    case ToolResult::Odd: {
        CVFallbackReader::Result result = m_reader.list();
        m_failureReason = std::move(result.failureReason);
        setStatus(result.status);
        if (result.root)
            m_filePreviews = std::move(result.root);
        break;
    }
    }
    if (m_isCancelled)
        setCancelledStatus();
    m_currentPreviewedFileNodeDirectories.clear();
    m_currentPreviewedFiles.clear();
    m_previewFiles.clear();
    for (const auto &child : m_filePreviews->children())
        m_previewFiles.push_back(child);
    previewComplete();
}

CVCorvaneArchive::ToolResult CVCorvaneArchive::listWithTool()
{
    m_currentPreviewedFileNodeDirectories.clear();
    m_currentPreviewedFiles.clear();
    m_progress = 0;
    const LXResult<QString> tool = CVToolPaths::toolPath(QStringLiteral("xar"));
    if (!tool)
        return ToolResult::Odd;
    bool hasLines = false;
    const ToolResult result =
        run(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), previewShellCommand(tool.value(), sourcePath)},
            {}, [&](const QByteArray &line) {
                hasLines = true;
                takeListing(line);
            });
    // The status is that of awk: a tool that was killed leaves nothing but an end.
    return result == ToolResult::Done && !hasLines ? ToolResult::Odd : result;
}

void CVCorvaneArchive::takeListing(const QByteArray &line)
{
    static const QRegularExpression pattern(QStringLiteral("(.*[x|-]) (\\d+) (.*)"));
    const QRegularExpressionMatch match = pattern.match(QString::fromUtf8(line));
    if (!match.hasMatch())
        return;
    const QString name = fileNameFromBytes(CVXarListing::unescaped(match.captured(3).trimmed().toUtf8()));
    std::shared_ptr<CVFileNode> node;
    if (match.capturedView(1).startsWith(u'd')) {
        node = CVFileNode::previewDirectoryNodeWithFilename(name);
        if (!m_currentPreviewedFileNodeDirectories.contains(name))
            m_currentPreviewedFileNodeDirectories.insert(name, node);
    } else {
        node = CVFileNode::previewRegularFileNodeWithFilename(name, match.captured(2).toLongLong());
    }
    if (QStringView(name).split(u'/', Qt::SkipEmptyParts).size() < 2)
        m_filePreviews->appendChild(node);
    else
        m_currentPreviewedFiles.push_back({name, node});
}

void CVCorvaneArchive::buildPreviewFileTree()
{
    const std::size_t count = m_currentPreviewedFiles.size();
    for (std::size_t i = 0; i < count && !m_isCancelled; ++i) {
        const Nested &nested = m_currentPreviewedFiles[i];
        const auto parent = m_currentPreviewedFileNodeDirectories.constFind(parentPath(nested.name));
        const bool isFound =
            parent != m_currentPreviewedFileNodeDirectories.constEnd() && *parent != nested.node;
        (isFound ? *parent : m_filePreviews)->appendChild(nested.node);
        if (count >= reportTreeFrom)
            hasMadeProgress(static_cast<double>(i), static_cast<double>(count));
    }
}
