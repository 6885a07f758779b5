#include "jobs/CVConvertArchiveOperation.h"

#include "archives/archive_string.h"
#include "engine/model/CVOperationDelegate.h"
#include "engine/model/CVOperationHelper.h"
#include "jobs/CVArchiveDelivery.h"
#include "jobs/CVExtractArchivesOperation.h"
#include "jobs/CVJobFolders.h"
#include "util/LXDisplay.h"
#include "util/LXFileName.h"
#include "util/path_parts.h"

#include <QCoreApplication>

#include <utility>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("CVConvertArchiveOperation", text);
}

/// With the slash at its end.
QString folderPath(const QString &path)
{
    return path.left(path.lastIndexOf(u'/') + 1);
}

} // namespace

CVConvertArchiveOperation::CVConvertArchiveOperation(std::shared_ptr<CVConvertOperationDataBinding> data)
    : m_convertOperationData(std::move(data))
{}

CVConvertArchiveOperation::~CVConvertArchiveOperation() = default;

QString CVConvertArchiveOperation::taskDescription() const
{
    return tr("Convert “%1” to “%2”")
        .arg(LXDisplay::displayName(m_convertOperationData->sourcePath()),
             LXDisplay::displayEscaped(m_convertOperationData->outputArchiveName()));
}

void CVConvertArchiveOperation::cancel()
{
    CVOperation::cancel();
    std::shared_ptr<CVArchiveConverter> converter;
    {
        const std::lock_guard lock(m_mutex);
        converter = m_archiveConverter;
    }
    if (converter)
        converter->cancelConvert();
}

void CVConvertArchiveOperation::main()
{
    if (m_convertOperationData->shouldUseZipCompressionForCorvaneFormat()) {
        m_convertOperationData->setToZip();
        m_usingCorvaneZipCompression = true;
    }
    m_source = chooseSource();
    const QString name = m_convertOperationData->outputArchiveName();
    delegate()->operationWorkingOnJob(
        this,
        tr("Converting “%1” to “%2”").arg(LXDisplay::displayName(m_source), LXDisplay::displayEscaped(name)));
    delegate()->operationProgressIconForFilename(this, name, false);
    if (!passwordFits() || !chooseFolders() || !mayWriteDestination())
        return;
    while (convert() == End::Again) {
    }
}

QString CVConvertArchiveOperation::chooseSource()
{
    const QString given = delegate()->operationPathToInputFile(this);
    if (!given.isEmpty())
        m_convertOperationData->setSourcePath(given);
    // A set of volumes is opened by its first one, whichever was named.
    return CVExtractArchivesOperation::sourcePathsByFlatteningSourcePaths(
               {m_convertOperationData->sourcePath()})
        .value(0);
}

bool CVConvertArchiveOperation::userWantsPassword() const
{
    // A ZIP that stands for the own format is never encrypted, just as that format.
    return !m_usingCorvaneZipCompression && m_convertOperationData->canEncrypt() &&
           m_convertOperationData->shouldEncrypt();
}

bool CVConvertArchiveOperation::passwordFits()
{
    if (!userWantsPassword())
        return true;
    const CVConvertOperationDataBinding &data = *m_convertOperationData;
    LXError error;
    if (data.password() != data.passwordConfirmation())
        error = CVOperationHelper::errorWithMessage(tr("The passwords don't match."),
                                                    tr("Please enter your password again."));
    else if (data.password().isEmpty()) // who asked for encryption must not get an archive without it
        error = CVOperationHelper::errorWithMessage(data.passwordMessage(), {});
    else
        return true;
    if (endOnce())
        delegate()->operationFailedWithPasswordMismatchError(error);
    return false;
}

bool CVConvertArchiveOperation::chooseFolders()
{
    const auto chosen = CVJobFolders::choose(*this, u"Create"_s, m_source);
    if (!chosen) {
        endAsFailed(chosen.error());
        return false;
    }
    m_folders = chosen.value().folders;
    if (!m_folders) {
        endAsCancelled();
        return false;
    }
    m_workDir = m_folders->workDirectory();
    m_outputDirectory = m_folders->outputDirectory();
    const auto separator = m_outputDirectory.endsWith(u'/') ? QLatin1StringView() : "/"_L1;
    m_destinationPath = m_outputDirectory + separator + m_convertOperationData->outputArchiveName();
    return true;
}

// By the folder and the name, not by the file: to replace another name of the same file does the archive no
// harm.
bool CVConvertArchiveOperation::belongsToSource(const QString &path) const
{
    const auto folderOf = [](const QString &item) {
        struct stat status = {};
        const bool found = ::stat(bytesOfFileName(folderPath(item)).constData(), &status) == 0;
        return found ? std::pair(status.st_dev, status.st_ino) : std::pair(dev_t(0), ino_t(0));
    };
    if (folderOf(path) != folderOf(m_source))
        return false;
    return lastComponent(path) == lastComponent(m_source) ||
           (isMultipartArchive(m_source) &&
            pathsBelongingToArchiveAtPath(m_source).contains(folderPath(m_source) + lastComponent(path)));
}

bool CVConvertArchiveOperation::mayWriteDestination()
{
    const QStringList inTheWay = CVArchiveDelivery::itemsInTheWay(m_destinationPath, makesVolumes());
    for (const QString &item : inTheWay) {
        if (!belongsToSource(item))
            continue;
        endAsFailed(CVOperationHelper::errorWithMessage(
            tr("“%1” can’t be converted to itself.").arg(LXDisplay::displayName(m_source)),
            tr("Please choose another name or another folder.")));
        return false;
    }
    return inTheWay.isEmpty() || mayReplace(inTheWay.first());
}

bool CVConvertArchiveOperation::mayReplace(const QString &path)
{
    m_mayReplace =
        delegate()->operationNeedsToAskWhetherToReplaceFileAtPath(this, path) == CVAlertResult::Default &&
        !isCancelled();
    if (!m_mayReplace)
        endAsCancelled();
    return m_mayReplace;
}

bool CVConvertArchiveOperation::makesVolumes() const
{
    return m_convertOperationData->chunkSize() > 0 &&
           CVArchive::archiveForCreating(m_destinationPath)->canWriteVolumes();
}

CVConvertArchiveOperation::End CVConvertArchiveOperation::convert()
{
    const CVConvertOperationDataBinding &data = *m_convertOperationData;
    const auto converter =
        std::make_shared<CVArchiveConverter>(static_cast<CVArchiveConverterDelegate &>(*this));
    if (userWantsPassword())
        converter->password = data.password();
    if (data.canSetCompressionLevel())
        converter->compressionLevel = data.compressionLevel();
    converter->chunkSize = data.chunkSize();
    if (m_usingCorvaneZipCompression || data.canManipulateMultimedia()) {
        converter->shouldUseZipCompression = m_usingCorvaneZipCompression;
        converter->imageFileFormat = data.imageFileFormat();
        converter->audioFileFormat = data.audioFileFormat();
    }
    {
        const std::lock_guard lock(m_mutex);
        m_archiveConverter = converter;
    }
    if (isCancelled()) // which may have come before the converter was there
        converter->cancelConvert();
    m_passwordAsked = false;
    // Ends with one of the two reports below, on this thread.
    converter->convert(m_source, CVArchiveDelivery(m_workDir, m_destinationPath).stagedPath());
    const bool again =
        m_status == CVArchive::InvalidPassword && std::exchange(m_passwordAsked, false) && !isCancelled();
    if (again)
        m_passwordInvalid = true;
    else if (m_status == CVArchive::Success && !isCancelled())
        deliver();
    else
        failed(m_status);
    {
        const std::lock_guard lock(m_mutex);
        m_archiveConverter.reset();
    }
    return again ? End::Again : End::Done;
}

void CVConvertArchiveOperation::deliver()
{
    const CVArchiveDelivery delivery(m_workDir, m_destinationPath);
    for (;;) {
        const CVArchiveDelivery::Result result =
            makesVolumes() ? delivery.deliverVolumes(m_mayReplace) : delivery.deliverFile(m_mayReplace);
        if (const auto *const path = std::get_if<QString>(&result))
            return completed(*path);
        if (const auto *const error = std::get_if<LXError>(&result))
            return endAsFailed(*error);
        // It was not there when the work began.
        if (!mayReplace(std::get<CVArchiveDelivery::Exists>(result).path))
            return;
    }
}

void CVConvertArchiveOperation::completed(const QString &path)
{
    const auto &skipped = m_archiveConverter->skippedEntries();
    m_folders.reset();
    if (!skipped.empty())
        delegate()->operationSkippedEntries(this, m_source, skipped);
    if (!endOnce())
        return;
    if (makesVolumes())
        delegate()->operationCompletedWithFilesAtPaths(this, {path}, true);
    else
        delegate()->operationCompletedWithFilesAtPath(this, path, false);
}

void CVConvertArchiveOperation::failed(std::int32_t status)
{
    if (status == CVArchive::Cancelled || isCancelled())
        endAsCancelled();
    else
        endAsFailed(errorForStatus());
}

LXError CVConvertArchiveOperation::errorForStatus() const
{
    const CVArchiveConverter &converter = *m_archiveConverter;
    // A full or read-only disk is not the archive's fault; the person can do something about it.
    if (converter.systemError() != 0)
        return CVOperationHelper::errorForSystemError(
            converter.systemError(), m_source,
            converter.failedInTemporaryFolder() && !converter.temporaryFolder().isEmpty()
                ? converter.temporaryFolder().left(converter.temporaryFolder().lastIndexOf(u'/'))
                : m_outputDirectory);
    LXError error = CVOperationHelper::errorWithMessage(
        tr("The file “%1” could not be opened.").arg(LXDisplay::displayName(m_source)),
        tr("The archive could not be opened, possibly because it is incomplete or corrupt."));
    error.suggestion = converter.failureReason();
    if (error.suggestion.isEmpty() && !converter.failedInTemporaryFolder())
        error.suggestion = tr("It was unpacked, but “%1” could not be written.")
                               .arg(LXDisplay::displayName(m_destinationPath));
    return error;
}

void CVConvertArchiveOperation::endAsCancelled()
{
    m_folders.reset();
    if (endOnce())
        delegate()->operationWasCancelled(this);
}

void CVConvertArchiveOperation::endAsFailed(const LXError &error)
{
    m_folders.reset();
    if (endOnce())
        delegate()->operationFailedWithError(this, error);
}

void CVConvertArchiveOperation::archiveConverterHasMadeProgress(CVArchiveConverter *, double done,
                                                                double total)
{
    if (!isCancelled())
        delegate()->operationHasMadeProgress(this, done, total);
}

void CVConvertArchiveOperation::archiveConverterHasFinished(CVArchiveConverter *)
{
    m_status = CVArchive::Success;
}

void CVConvertArchiveOperation::archiveConverterFailedWithStatus(CVArchiveConverter *, std::int32_t status)
{
    m_status = status;
}

std::optional<QString> CVConvertArchiveOperation::archiveConverterWantsPassword(CVArchiveConverter *)
{
    if (isCancelled())
        return std::nullopt;
    m_passwordAsked = true;
    return delegate()->operationNeedsPasswordForFileAtPath(this, m_source,
                                                           std::exchange(m_passwordInvalid, false));
}

bool CVConvertArchiveOperation::archiveConverterMayExceedLimit(CVArchiveConverter *,
                                                               const QString &explanation)
{
    return !isCancelled() && delegate()->operationNeedsToAskWhetherToExceedLimit(this, m_source, explanation);
}
