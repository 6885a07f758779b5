#include "jobs/CVCombineFilesOperation.h"

#include "archives/archive_string.h"
#include "engine/model/CVOperationDelegate.h"
#include "jobs/CVJobFolders.h"
#include "split/split_names.h"
#include "util/LXDisplay.h"
#include "util/LXFileName.h"
#include "util/LXPendingAnswer.h"

#include <QCoreApplication>
#include <QSet>

#include <algorithm>
#include <cerrno>
#include <memory>

#include <dirent.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("CVCombineFilesOperation", text);
}

// Of the letters of a part: more parts do not fit into a folder.
constexpr int longestCode = 6;

struct FolderClose
{
    void operator()(DIR *folder) const noexcept { ::closedir(folder); }
};

LXError jobError(const LXError &cause)
{
    const bool full = cause.code == 1;
    // The sentence of the split serves both jobs.
    return LXError{.domain = cause.domain,
                   .code = cause.code,
                   .description = full ? tr("Files could not be combined because the disk is full.")
                                       : tr("File could not be split because an unexpected error occurred."),
                   .reason = full ? QString() : cause.reason,
                   .suggestion = full ? tr("Please delete some files on your disk and try again.")
                                      : tr("Please try again.")};
}

/// What can be found of the set without a look at the folder: the parts before the first that is not there.
QStringList siblingsByName(const QString &path)
{
    const QString code = partCodeOfPath(path);
    const QString kind = path.mid(path.lastIndexOf(u'.'));
    const QString stem = path.chopped(kind.size() + code.size());
    const auto exists = [](const QString &name) {
        return ::access(bytesOfFileName(name).constData(), F_OK) == 0;
    };
    QStringList found;
    if (code.isEmpty())
        return found;
    const int length = static_cast<int>(code.size());
    quint64 past = 1;
    for (int i = 0; i < std::min(length, longestCode); ++i)
        past *= 26;
    for (quint64 number = 0; number < past; ++number) {
        const QString part = stem + partCode(number, length) + kind;
        if (!exists(part))
            break;
        found.append(part);
    }
    if (const QString sums = stem + u"chksplit"_s; exists(sums))
        found.append(sums);
    return found;
}

} // namespace

QString CVCombineFilesOperation::taskDescription() const
{
    return tr("Combine “%1”").arg(LXDisplay::displayName(m_combiner.combineFileName()));
}

void CVCombineFilesOperation::cancel()
{
    CVOperation::cancel();
    m_combiner.requestCancel();
}

void CVCombineFilesOperation::endAsCancelled()
{
    if (endOnce())
        delegate()->operationWasCancelled(this);
}

void CVCombineFilesOperation::endAsFailed(const LXError &error)
{
    if (endOnce())
        delegate()->operationFailedWithError(this, error);
}

bool CVCombineFilesOperation::waitForAccess(const QString &path)
{
    const auto pending = std::make_shared<LXPendingAnswer<bool>>();
    runAuthorizedHandler({path}, [pending](bool granted, const QString &) { pending->give(granted); });
    return pending->wait(stopToken()).value_or(false);
}

QStringList CVCombineFilesOperation::sweepFilePartsAtPath(const QString &path, const QString &combinedFile,
                                                          const QStringList &existing)
{
    const QString prefix = path.left(path.lastIndexOf(u'/') + 1);
    const std::unique_ptr<DIR, FolderClose> folder(
        ::opendir(prefix.isEmpty() ? "." : bytesOfFileName(prefix).constData()));
    const QSet<QString> known(existing.begin(), existing.end());
    QStringList found;
    for (;;) {
        errno = 0;
        const dirent *const entry = folder ? ::readdir(folder.get()) : nullptr;
        if (!entry && (!folder || errno != 0))
            // The first part of a set looks like a whole one: taken alone it would give a file that is cut.
            found += siblingsByName(path);
        if (!entry)
            break;
        const QString name = fileNameFromBytes(entry->d_name);
        if (!isSplitFile(name) || splitSetName(name) != combinedFile)
            continue;
        // The sums of a set are those beside its parts, whichever of them was given.
        found.append(prefix + name);
    }
    found.removeDuplicates();
    found.removeIf([&known](const QString &file) { return known.contains(file); });
    return found;
}

void CVCombineFilesOperation::main()
{
    const QStringList inputs = delegate()->operationPathsToInputFiles(this);
    if (inputs.isEmpty())
        return endAsFailed({.domain = u"CorvaneErrorDomain"_s,
                            .code = 1,
                            .description = tr("Combine failed"),
                            .reason = tr("There is no part to combine."),
                            .suggestion = {}});
    const QString &first = inputs.first();
    const QString name = splitSetName(first);
    if (!isSplitFile(first) || name.isEmpty() || name == u"." || name == u"..")
        return endAsFailed(
            {.domain = u"CorvaneErrorDomain"_s,
             .code = 1,
             .description = tr("Combine failed"),
             .reason = tr("“%1” is no part of a file that was split.").arg(LXDisplay::displayName(first)),
             .suggestion = tr("Name one of its parts, or its checksum file.")});
    delegate()->operationWorkingOnJob(this, tr("Combining file “%1”").arg(LXDisplay::displayName(name)));
    delegate()->operationProgressIconForFilename(this, name, false);

    if (!waitForAccess(first))
        return endAsCancelled();
    const QStringList files = inputs + sweepFilePartsAtPath(first, name, inputs);
    if (isCancelled())
        return endAsCancelled();
    m_combiner.setFiles(files);

    const auto chosen = CVJobFolders::choose(*this, u"Combine"_s, first, files);
    if (!chosen)
        return endAsFailed(chosen.error());
    const auto &folders = chosen.value().folders;
    if (!folders || isCancelled())
        return endAsCancelled();
    combineInWorkDirectory(*folders);
}

void CVCombineFilesOperation::combineInWorkDirectory(const CVJobFolders &folders)
{
    m_combiner.setDestinationPath(folders.workDirectory());
    m_combiner.setDelegate(this);
    LXResult<void> result;
    try {
        result = m_combiner.combine();
    } catch (const std::exception &e) { // no memory, no thread
        result = LXError{.domain = QLatin1StringView(CVFileCombiner::errorDomain),
                         .code = 2,
                         .description = {},
                         .reason = QString::fromLocal8Bit(e.what()),
                         .suggestion = {}};
    }
    m_combiner.setDelegate(nullptr);
    if (isCancelled())
        return endAsCancelled();
    if (!result)
        return endAsFailed(jobError(result.error()));
    if (m_hasFailure)
        return endAsFailed(m_failure);
    const auto delivered =
        folders.deliver(m_combiner.combineFileName(), splitSetName(m_combiner.files().first()));
    if (!delivered)
        return endAsFailed(delivered.error());
    if (endOnce())
        delegate()->operationCompletedWithFilesAtPath(this, delivered.value(), false);
}

void CVCombineFilesOperation::combineWillVerifyChecksums(CVFileCombiner &)
{
    delegate()->operationHasIndeterminateProgress(this);
}

void CVCombineFilesOperation::combineHasMadeProgress(CVFileCombiner &, quint64 bytesWritten,
                                                     quint64 totalBytes)
{
    delegate()->operationHasMadeProgress(this, static_cast<double>(bytesWritten),
                                         static_cast<double>(totalBytes));
}

void CVCombineFilesOperation::combineFailed(CVFileCombiner &, const LXError &error)
{
    m_failure = error;
    m_hasFailure = true;
}
