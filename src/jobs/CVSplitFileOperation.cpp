#include "jobs/CVSplitFileOperation.h"

#include "engine/model/CVOperationDelegate.h"
#include "engine/model/CVSplitOperationDataBinding.h"
#include "jobs/CVJobFolders.h"
#include "split/LXPropertyList.h"
#include "split/split_exceptions.h"
#include "util/LXDisplay.h"
#include "util/LXFileName.h"
#include "util/path_parts.h"

#include <QCoreApplication>
#include <QDir>

#include <algorithm>
#include <optional>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("CVSplitFileOperation", text);
}

QString withoutExtension(const QString &name)
{
    const QString stem = name.left(std::max<qsizetype>(0, name.lastIndexOf(u'.')));
    return stem.isEmpty() || stem == u"." || stem == u".." ? name : stem;
}

/// What tells whether a file was written to.
struct State
{
    qint64 size;
    qint64 seconds;
    qint64 nanoseconds;
    bool operator==(const State &) const = default;
};

std::optional<State> stateOf(const QString &path)
{
    struct stat facts;
    if (::stat(bytesOfFileName(path).constData(), &facts) != 0 || !S_ISREG(facts.st_mode))
        return std::nullopt;
    return State{facts.st_size, facts.st_mtim.tv_sec, facts.st_mtim.tv_nsec};
}

LXError jobError(const LXError &cause)
{
    const bool full = cause.code == 1;
    return LXError{.domain = cause.domain,
                   .code = cause.code,
                   .description = full ? tr("File could not be split because the disk is full.")
                                       : tr("File could not be split because an unexpected error occurred."),
                   .reason = full ? QString() : cause.reason,
                   .suggestion = full ? tr("Please delete some files on your disk and try again.")
                                      : tr("Please try again.")};
}

} // namespace

CVSplitFileOperation::CVSplitFileOperation(std::shared_ptr<CVSplitOperationDataBinding> data)
    : m_data(std::move(data))
{}

CVSplitFileOperation::~CVSplitFileOperation() = default;

QString CVSplitFileOperation::taskDescription() const
{
    return tr("Split “%1”").arg(LXDisplay::displayName(m_data->splitter()->inputFileName()));
}

void CVSplitFileOperation::cancel()
{
    CVOperation::cancel();
    m_data->splitter()->cancel();
}

void CVSplitFileOperation::endAsCancelled()
{
    if (endOnce())
        delegate()->operationWasCancelled(this);
}

void CVSplitFileOperation::endAsFailed(const LXError &error)
{
    if (endOnce())
        delegate()->operationFailedWithError(this, error);
}

bool CVSplitFileOperation::mayStart()
{
    CVFileSplitter &splitter = *m_data->splitter();
    constexpr unsigned sevenZip = 2;
    if (m_data->compressionSetting() == sevenZip) {
        if (endOnce())
            delegate()->operationWillCreateMultiPartArchiveOfChunkSize(
                this, static_cast<double>(splitter.chunkSizeInBytes()), u"7z"_s);
        return false;
    }
    splitter.setShouldCompress(m_data->compressionSetting() == 1);
    const QString name = lastComponent(splitter.inputFileName());
    if (splitter.shouldChecksum() && !LXPropertyList::canHold(name)) {
        endAsFailed({.domain = u"FileSplitterErrorDomain"_s,
                     .code = 2,
                     .description = tr("“%1” was not split.").arg(LXDisplay::displayName(name)),
                     .reason = tr("A list of checksums cannot hold a name with such characters."),
                     .suggestion = tr("Rename the file, or split it without checksums.")});
        return false;
    }
    // Less than a byte is no size either.
    if (splitter.chunkSizeInBytes() == 0) {
        endAsFailed({.domain = QCoreApplication::applicationName(),
                     .code = invalidChunkSize,
                     .description = tr("Invalid chunk size: %1").arg(splitter.chunkSize()),
                     .reason = {},
                     .suggestion = tr("Please enter a value bigger than 1 and try again.")});
        return false;
    }
    return true;
}

void CVSplitFileOperation::main()
{
    CVFileSplitter &splitter = *m_data->splitter();
    const QString input = delegate()->operationPathToInputFile(this);
    splitter.setInputFileName(input);
    if (!mayStart())
        return;
    delegate()->operationWorkingOnJob(this, tr("Splitting “%1”").arg(LXDisplay::displayName(input)));
    delegate()->operationProgressIconForFilename(this, input, true);

    const auto chosen = CVJobFolders::choose(*this, u"Split"_s, input);
    if (!chosen)
        return endAsFailed(chosen.error());
    const auto &folders = chosen.value().folders;
    if (!folders || isCancelled())
        return endAsCancelled();
    splitter.setDelegate(this);
    splitInto(*folders);
    splitter.setDelegate(nullptr);
}

void CVSplitFileOperation::splitInto(const CVJobFolders &folders)
{
    CVFileSplitter &splitter = *m_data->splitter();
    const QString input = splitter.inputFileName();
    const QString work = folders.workDirectory();
    splitter.setDestinationPath(work);
    const std::optional<State> before = stateOf(input);
    if (!before)
        return endAsFailed(
            jobError({.domain = u"FileSplitterErrorDomain"_s,
                      .code = 2,
                      .description = {},
                      .reason = tr("“%1” is no file that could be read.").arg(LXDisplay::displayName(input)),
                      .suggestion = {}}));
    LXResult<void> result;
    try {
        result = splitter.split();
    } catch (const LXAssertionException &) {
        // For data that grows by compression: the letters of the parts do not reach.
        LXError error =
            jobError({.domain = u"FileSplitterErrorDomain"_s,
                      .code = 2,
                      .description = {},
                      .reason = tr("Compressed, it needs more parts than their names can number."),
                      .suggestion = {}});
        error.suggestion = tr("Split it without compression.");
        return isCancelled() ? endAsCancelled() : endAsFailed(error);
    } catch (const std::exception &e) { // no memory, no thread
        result = LXError{.domain = QLatin1StringView(CVFileSplitter::errorDomain),
                         .code = 2,
                         .description = {},
                         .reason = QString::fromLocal8Bit(e.what()),
                         .suggestion = {}};
    }
    if (isCancelled() || (result && splitter.isCancelled()))
        return endAsCancelled();
    if (!result)
        return endAsFailed(jobError(result.error()));
    if (stateOf(input) != before)
        return endAsFailed(
            {.domain = u"FileSplitterErrorDomain"_s,
             .code = 2,
             .description = tr("“%1” was not split.").arg(LXDisplay::displayName(input)),
             .reason = tr("It was changed while it was read, so the parts do not fit together."),
             .suggestion = tr("Close the program that writes to it and try again.")});

    // A folder is for several. An empty file has no raw part: its sums come alone, or an empty folder does,
    // so that every split has a result.
    QStringList made = splitter.outputFiles();
    if (splitter.shouldChecksum())
        made.append(splitter.outputFileName() + u".chksplit"_s);
    const bool single = made.size() == 1;
    const QString item = single ? made.first() : work;
    const auto delivered =
        folders.deliver(item, single ? lastComponent(item) : withoutExtension(lastComponent(input)));
    if (!delivered)
        return endAsFailed(delivered.error());
    if (endOnce())
        delegate()->operationCompletedWithFilesAtPath(this, delivered.value(), true);
}

void CVSplitFileOperation::splitHasMadeProgress(CVFileSplitter &splitter, quint64 bytesWritten,
                                                quint64 totalBytes)
{
    // A cancel just before the splitter began was forgotten by its start.
    if (isCancelled())
        splitter.cancel();
    delegate()->operationHasMadeProgress(this, static_cast<double>(bytesWritten),
                                         static_cast<double>(totalBytes));
}

void CVSplitFileOperation::splitWillChecksum(CVFileSplitter &)
{
    delegate()->operationHasIndeterminateProgress(this);
}
