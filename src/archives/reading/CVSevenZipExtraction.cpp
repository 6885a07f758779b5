#include "archives/reading/CVSevenZipExtraction.h"

#include <algorithm>

using namespace sevenzip;

namespace {

constexpr qint64 mebibyte = 1024 * 1024;
/// What a writer takes at once: a cancel takes effect within it.
constexpr std::uint32_t maximumBlock = std::uint32_t(mebibyte);

} // namespace

void CVSevenZipExtraction::abandon(const QString &why)
{
    if (m_writer)
        m_run.follow(m_writer->finish(XADErrorCode::Damaged, why));
    m_writer.reset();
}

Result CVSevenZipExtraction::QueryInterface(const Guid &iid, void **out)
{
    *out = nullptr;
    if (iid == IdUnknown || iid == ExtractCallback::id || iid == Progress::id)
        *out = static_cast<ExtractCallback *>(this);
    else if (iid == CryptoGetTextPassword::id)
        *out = static_cast<CryptoGetTextPassword *>(this);
    else if (iid == SequentialOutStream::id)
        *out = static_cast<SequentialOutStream *>(this);
    return *out ? Ok : NoInterface;
}

Result CVSevenZipExtraction::SetCompleted(const std::uint64_t *completed)
{
    if (completed)
        m_run.progress.store(qint64(*completed), std::memory_order_relaxed);
    return checkStop();
}

Result CVSevenZipExtraction::GetStream(std::uint32_t item, SequentialOutStream **stream, std::int32_t askMode)
{
    *stream = nullptr;
    abandon(QStringLiteral("The entry did not end."));
    if (const Result result = checkStop(); result != Ok)
        return result;
    const int index = item < m_run.entryOfItem.size() ? m_run.entryOfItem[item] : -1;
    m_index = -1;
    if (index < 0 || !m_run.wanted[std::size_t(index)] || m_run.delivered[std::size_t(index)])
        return Ok;
    m_index = index;
    m_item = item;
    // Behind damage the module only names the entries that are lost with it, in another mode.
    if (askMode != AskExtract)
        return Ok;
    m_run.delivered[std::size_t(index)] = 1;
    m_received = 0;
    m_skipping = false;
    m_writer = m_run.sink.beginEntry(index);
    if (m_writer)
        *stream = this;
    return Ok;
}

Result CVSevenZipExtraction::SetOperationResult(std::int32_t result)
{
    if (!m_writer && m_index >= 0 && result != OperationOk && !m_run.delivered[std::size_t(m_index)]) {
        m_run.delivered[std::size_t(m_index)] = 1;
        const CVSevenZipFailure failure = failureOf(result);
        return m_run.follow(m_run.sink.entryFailed(m_index, failure.code, failure.text)) ? Ok : Abort;
    }
    if (!m_writer)
        return checkStop();
    const auto writer = std::move(m_writer);
    const XADEntry &entry = m_run.entries[std::size_t(m_index)];
    CVSevenZipFailure failure = m_skipping ? CVSevenZipFailure{} : failureOf(result);
    if (failure.code == XADErrorCode::None && !m_skipping) {
        if (m_received > 0 && m_run.checksumsAreCertain && !hasChecksum())
            failure = {XADErrorCode::Damaged, QStringLiteral("The entry has no checksum.")};
        else if (entry.encrypted && m_received > 0)
            m_run.passwordFits = true;
    }
    return m_run.follow(writer->finish(failure.code, failure.text)) ? Ok : Abort;
}

Result CVSevenZipExtraction::GetTextPassword(ModuleString *password)
{
    if (!m_run.password)
        m_run.fail(XADErrorCode::Password, QStringLiteral("A password is needed."));
    return cvSevenZipGivePassword(m_run.library, m_run.password, password);
}

Result CVSevenZipExtraction::Write(const void *data, std::uint32_t size, std::uint32_t *processed)
{
    if (processed)
        *processed = size;
    m_received += size;
    if (!m_writer || m_skipping)
        return checkStop();
    const char *next = static_cast<const char *>(data);
    for (std::uint32_t left = size; left > 0;) {
        const std::uint32_t block = std::min(left, maximumBlock);
        switch (m_writer->write(next, block)) {
        case CVEntryWriter::Flow::Go:
            break;
        case CVEntryWriter::Flow::SkipEntry:
            m_skipping = true;
            return Ok;
        case CVEntryWriter::Flow::Stop:
            m_run.stop();
            return Abort;
        }
        next += block;
        left -= block;
    }
    return m_run.isOver() ? Abort : Ok;
}

Result CVSevenZipExtraction::checkStop()
{
    if (!m_run.isOver() && m_run.sink.shouldStop())
        m_run.stop();
    return m_run.isOver() ? Abort : Ok;
}

bool CVSevenZipExtraction::hasChecksum()
{
    CVSevenZipValue crc(m_run.library);
    return m_archive.GetProperty(m_item, PropertyCrc, crc.out()) == Ok && !crc.isEmpty();
}

bool CVSevenZipExtraction::passwordWasChecked()
{
    CVSevenZipValue method(m_run.library);
    return m_run.isZip && m_archive.GetProperty(m_item, PropertyMethod, method.out()) == Ok &&
           method.string().startsWith(QLatin1String("AES"));
}

CVSevenZipFailure CVSevenZipExtraction::failureOf(std::int32_t result)
{
    switch (result) {
    case OperationOk:
        return {};
    case OperationUnsupportedMethod:
        return {XADErrorCode::NotSupported, QStringLiteral("The compression method is not supported.")};
    case OperationWrongPassword:
        if (m_run.passwordFits)
            return {XADErrorCode::Damaged, QStringLiteral("The data is damaged.")};
        return {XADErrorCode::Password, QStringLiteral("The password is wrong.")};
    case OperationMemoryError:
        return {XADErrorCode::NotSupported,
                QStringLiteral("There is not enough memory to unpack the entry.")};
    case OperationDataError:
    case OperationCrcError:
        if (m_run.entries[std::size_t(m_index)].encrypted && !m_run.headersAreEncrypted &&
            !m_run.passwordFits && !passwordWasChecked())
            return {XADErrorCode::PasswordOrDamage,
                    QStringLiteral("The password is wrong, or the data is damaged.")};
        return {XADErrorCode::Damaged, result == OperationCrcError
                                           ? QStringLiteral("The checksum does not fit.")
                                           : QStringLiteral("The data is damaged.")};
    case OperationUnavailable:
        return {XADErrorCode::Damaged, QStringLiteral("The data is not there; a volume may be missing.")};
    case OperationUnexpectedEnd:
        return {XADErrorCode::Damaged, QStringLiteral("The data ends too early.")};
    case OperationDataAfterEnd:
        return {XADErrorCode::Damaged, QStringLiteral("There is more data than there should be.")};
    case OperationHeadersError:
        return {XADErrorCode::Damaged, QStringLiteral("The header of the entry is damaged.")};
    default:
        return {XADErrorCode::Damaged, QStringLiteral("The data cannot be read.")};
    }
}
