#include "archives/reading/cage/CVCagedEngine.h"

#include "archives/reading/CVReadingText.h"
#include "archives/reading/cage/CVReaderSession.h"

#include <algorithm>

namespace {

class CVCagedEngine final : public CVReadingEngine
{
public:
    CVCagedEngine(std::shared_ptr<CVReaderSession> session, int number)
        : m_session(std::move(session))
        , m_number(number)
    {}

    CVReaderSession::Opened open()
    {
        CVReaderSession::Opened opened = m_session->open(m_number, m_list);
        m_generation = m_session->generation();
        m_opening = opened.opening;
        m_isDamageFinal = m_opening.isDamageFinal;
        m_isListed = !m_opening.isLazy;
        m_listing = opened.listing;
        return opened;
    }

    QString formatName() const override { return m_opening.format; }
    const std::vector<XADEntry> &entries() const override
    {
        if (!m_isListed && !m_isExtracting) {
            m_listing =
                isOpen()
                    ? m_session->list(m_list)
                    : Outcome{XADErrorCode::Damaged, readingText("The file changed while it was read."), {}};
            m_isListed = true;
        }
        return m_list.entries;
    }
    bool entriesAreLazy() const override { return m_opening.isLazy; }
    bool isEncrypted() const override { return m_opening.isEncrypted; }
    bool entryIsArchive(int index) const override
    {
        (void)entries();
        return std::binary_search(m_list.archives.begin(), m_list.archives.end(), std::size_t(index));
    }
    Outcome extract(std::span<const int> indices, bool all, CVEntrySink &sink) override
    {
        if (!all)
            (void)entries();
        if (!isOpen())
            return {XADErrorCode::Damaged, readingText("The file changed while it was read."), {}};
        const bool listGrows = !m_isListed;
        if (listGrows)
            m_list.clear();
        m_isExtracting = true;
        const Outcome outcome =
            m_session->extract(indices, all, listGrows, m_list.entries, sink, m_isDamageFinal);
        m_isExtracting = false;
        m_isListed = m_isListed || (all && outcome.code == XADErrorCode::None);
        return outcome;
    }
    bool isDamageFinal() const override { return m_isDamageFinal || m_session->hasFailed(); }
    Outcome listingOutcome() const override
    {
        (void)entries();
        return m_listing;
    }
    qint64 declaredTotal() const override { return m_opening.declaredTotal; }
    bool compressedProgress(qint64 &done, qint64 &total) const override
    {
        done = m_session->position();
        total = m_session->fileSize();
        return m_opening.measuresProgress;
    }
    QStringList volumePaths() const override { return m_session->volumePaths(); }

private:
    /// The reader has it open, or again after it was stopped.
    bool isOpen() const
    {
        if (m_session->hasFailed())
            return true; // which says so itself
        if (m_session->isRunning() && m_session->generation() == m_generation)
            return true;
        CVCageList::Held list;
        const CVReaderSession::Opened opened = m_session->open(m_number, list);
        m_generation = m_session->generation();
        if (opened.code != XADErrorCode::None || opened.opening.format != m_opening.format)
            return false;
        if (!m_opening.isLazy)
            return list.entries.size() == m_list.entries.size();
        if (!m_isListed)
            return true;
        // It has to have its own list again for the numbers of entries to mean something.
        return m_session->list(list).code == XADErrorCode::None &&
               list.entries.size() == m_list.entries.size();
    }

    std::shared_ptr<CVReaderSession> m_session;
    int m_number;
    mutable int m_generation = 0;
    CVCage::Opening m_opening;
    bool m_isDamageFinal = true;
    bool m_isExtracting = false;
    mutable CVCageList::Held m_list;
    mutable bool m_isListed = false;
    mutable Outcome m_listing;
};

} // namespace

CVEngineDescriptor::OpenOutcome cvOpenCaged(const std::shared_ptr<CVReaderSession> &session, int number)
{
    auto engine = std::make_unique<CVCagedEngine>(session, number);
    const CVReaderSession::Opened opened = engine->open();
    if (opened.code != XADErrorCode::None)
        return {nullptr, opened.code, opened.detail, opened.damageIsCertain};
    return {std::move(engine), XADErrorCode::None, {}, false};
}
