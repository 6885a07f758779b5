#include "archives/CVFallbackReader.h"

#include "archives/CVXArchive.h"

std::shared_ptr<CVXArchive> CVFallbackReader::begin()
{
    const auto reader = std::make_shared<CVXArchive>();
    reader->setDelegate(this);
    reader->singleFilesToBeExtracted = m_owner.singleFilesToBeExtracted;
    reader->password = m_owner.password;
    const std::lock_guard lock(m_mutex);
    if (m_cancelled)
        return nullptr;
    m_hasEnded = false;
    m_reader = reader;
    return reader;
}

CVFallbackReader::Result CVFallbackReader::end(const CVXArchive &reader)
{
    {
        const std::lock_guard lock(m_mutex);
        m_reader->setDelegate(nullptr);
        m_reader.reset();
    }
    m_owner.password = reader.password;
    if (!m_hasEnded) // an archive that is gone is only logged
        return {.status = CVArchive::InvalidFile};
    return {.status = reader.status(),
            .isUnknown = reader.isUnknown(),
            .skipped = reader.skippedEntries(),
            .failureReason = reader.failureReason(),
            .systemError = reader.systemError(),
            .root = reader.filePreviewsNode()};
}

CVFallbackReader::Result CVFallbackReader::extract()
{
    const auto reader = begin();
    if (!reader)
        return {.status = CVArchive::Cancelled};
    reader->open(m_owner.extractFile, m_owner.extractDestination);
    return end(*reader);
}

CVFallbackReader::Result CVFallbackReader::list()
{
    const auto reader = begin();
    if (!reader)
        return {.status = CVArchive::Cancelled};
    reader->openForPreview(m_owner.sourcePath);
    return end(*reader);
}

void CVFallbackReader::cancel()
{
    std::shared_ptr<CVXArchive> reader;
    {
        const std::lock_guard lock(m_mutex);
        m_cancelled = true;
        reader = m_reader;
    }
    if (reader)
        reader->cancelExtract();
}

void CVFallbackReader::reset()
{
    const std::lock_guard lock(m_mutex);
    m_cancelled = false;
}

void CVFallbackReader::archiveHasMadeProgress(CVArchive *, double done, double total)
{
    if (CVArchiveDelegate *const receiver = m_owner.delegate())
        receiver->archiveHasMadeProgress(&m_owner, done, total);
}

std::optional<QString> CVFallbackReader::archiveWantsPassword(CVArchive *)
{
    CVArchiveDelegate *const receiver = m_owner.delegate();
    return receiver ? receiver->archiveWantsPassword(&m_owner) : std::nullopt;
}

bool CVFallbackReader::archiveMayExceedLimit(CVArchive *, const QString &explanation)
{
    CVArchiveDelegate *const receiver = m_owner.delegate();
    return receiver && receiver->archiveMayExceedLimit(&m_owner, explanation);
}
