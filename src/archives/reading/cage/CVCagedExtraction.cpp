#include "archives/reading/cage/CVCagedExtraction.h"

#include "archives/reading/CVReadingText.h"
#include "archives/reading/cage/CVCageList.h"
#include "archives/reading/cage/CVCageMessages.h"

#include <cstring>

namespace {

using Record = CVCageMemory::Record;
using Flow = CVEntryWriter::Flow;

/// What is looked at has to be a copy: the reader can change it in between.
QByteArray copied(const char *data, std::uint32_t bytes)
{
    return QByteArray(data, qsizetype(bytes));
}

QString text(const char *data, std::uint32_t bytes)
{
    return bytes > 0 ? readingText(copied(data, bytes).constData()) : QString();
}

} // namespace

CVCagedExtraction::CVCagedExtraction(CVCageMemory &memory, const std::vector<CVCageSocket> &sockets,
                                     CVEntrySink &sink, std::vector<XADEntry> &entries,
                                     std::span<const int> wanted, bool all, bool listGrows)
    : m_memory(memory)
    , m_sockets(sockets)
    , m_sink(sink)
    , m_entries(entries)
    , m_listGrows(listGrows)
    , m_states(listGrows ? 0 : entries.size())
    , m_streams(sockets.size())
{
    if (all)
        for (std::atomic<std::uint8_t> &state : m_states)
            state = Wanted;
    for (const int index : wanted)
        if (std::size_t(index) < m_states.size())
            m_states[std::size_t(index)] = Wanted;
    m_streams[0].isUsed = true;
}

CVCagedExtraction::~CVCagedExtraction()
{
    for (Stream &stream : m_streams)
        if (stream.thread.joinable())
            stream.thread.join();
}

bool CVCagedExtraction::use(int number)
{
    if (number <= 0 || number >= int(m_streams.size()) || m_streams[std::size_t(number)].isUsed)
        return false;
    Stream &stream = m_streams[std::size_t(number)];
    stream.isUsed = true;
    stream.thread = std::thread([this, number, &stream] {
        while (!stream.hasEnded)
            serve(number);
    });
    return true;
}

bool CVCagedExtraction::hasEnded() const
{
    for (const Stream &stream : m_streams)
        if (stream.isUsed && !stream.hasEnded)
            return false;
    return true;
}

void CVCagedExtraction::serve(int number)
{
    Stream &stream = m_streams[std::size_t(number)];
    const CVCageSocket &socket = m_sockets[std::size_t(number)];
    CVCageMemory::Filled filled{};
    std::size_t size = 0;
    const CVCageSocket::Got got = socket.receive(&filled, sizeof filled, size);
    ++m_busy;
    bool isGood = false;
    if (got == CVCageSocket::Got::Message && size == sizeof filled) {
        if (filled.slot == CVCageMemory::endOfStream) {
            isGood = !stream.isInEntry;
            stream.hasEnded = true;
        } else {
            isGood = handle(number, filled) &&
                     socket.send({reinterpret_cast<const char *>(&filled.slot), sizeof filled.slot}, {},
                                 CVCageSocket::Wait::Never);
        }
    }
    if (!isGood) {
        stream.writer.reset(); // what it holds is thrown away
        stream.hasEnded = true;
        if (got != CVCageSocket::Got::Message)
            m_isCutOff = true;
        m_isBroken = true;
    }
    ++m_signs;
    --m_busy;
}

bool CVCagedExtraction::handle(int number, CVCageMemory::Filled filled)
{
    if (filled.slot >= CVCageMemory::slotsPerStream || filled.bytes > CVCageMemory::slotBytes)
        return false;
    const char *const slot = m_memory.slot(number, filled.slot);
    for (std::uint32_t at = 0; at < filled.bytes;) {
        Record record;
        if (filled.bytes - at < sizeof record)
            return false;
        std::memcpy(&record, slot + at, sizeof record);
        std::atomic_signal_fence(std::memory_order_seq_cst); // looked at once, here
        at += std::uint32_t(sizeof record);
        if (record.bytes > filled.bytes - at || !handleRecord(number, record, slot + at))
            return false;
        at += record.bytes;
    }
    return true;
}

bool CVCagedExtraction::handleRecord(int number, const Record &record, const char *data)
{
    Stream &stream = m_streams[std::size_t(number)];
    const bool isInEntry = stream.isInEntry;
    switch (record.type) {
    case Record::Type::Entry:
        return !isInEntry && addEntry(number, data, record.bytes);
    case Record::Type::Begin:
        if (isInEntry || !mark(number, record.value, Begun))
            return false;
        stream.isInEntry = true;
        ++stream.begun;
        stream.writer = m_sink.beginEntry(int(record.value));
        if (!stream.writer)
            follow(number, Flow::SkipEntry);
        return true;
    case Record::Type::Data:
        if (stream.writer)
            follow(number, stream.writer->write(data, qsizetype(record.bytes)));
        return isInEntry;
    case Record::Type::Hole:
        if (stream.writer && record.value >= 0)
            follow(number, stream.writer->writeHole(record.value));
        return isInEntry && record.value >= 0;
    case Record::Type::Finish: {
        if (!isInEntry || record.value != int(record.value) || !CVCage::isCode(int(record.value)) ||
            record.bytes > CVCage::maxTextBytes)
            return false;
        stream.isInEntry = false;
        const auto writer = std::move(stream.writer);
        if (writer)
            follow(number, writer->finish(static_cast<XADErrorCode>(record.value), text(data, record.bytes)));
        return true;
    }
    case Record::Type::Drop:
        stream.isInEntry = false;
        stream.writer.reset();
        return isInEntry;
    case Record::Type::Failed: {
        std::int32_t code = 0;
        if (isInEntry || record.bytes < sizeof code || record.bytes > CVCage::maxTextBytes ||
            !mark(number, record.value, Failed))
            return false;
        std::memcpy(&code, data, sizeof code);
        if (!CVCage::isCode(code) || code == int(XADErrorCode::None))
            return false;
        follow(number,
               m_sink.entryFailed(int(record.value), static_cast<XADErrorCode>(code),
                                  text(data + sizeof code, record.bytes - std::uint32_t(sizeof code))));
        return true;
    }
    }
    return false;
}

bool CVCagedExtraction::addEntry(int number, const char *data, std::uint32_t bytes)
{
    if (!m_listGrows || number != 0 || m_entries.size() >= std::size_t(CVCage::maxEntries))
        return false;
    const QByteArray copy = copied(data, bytes);
    std::span<const char> from(copy.constData(), std::size_t(copy.size()));
    auto taken = CVCageList::take(from);
    if (!taken || !from.empty())
        return false;
    XADEntry &entry = taken->entry;
    entry.name = QByteArray(entry.name.constData(), entry.name.size());
    entry.linkTarget = QByteArray(entry.linkTarget.constData(), entry.linkTarget.size());
    m_entries.push_back(std::move(entry));
    m_grown.push_back(Wanted);
    return true;
}

/// Whether the entry may come to this state now; it does.
bool CVCagedExtraction::mark(int number, std::int64_t index, State state)
{
    if (index < 0)
        return false;
    if (m_listGrows) {
        if (number != 0 || std::size_t(index) >= m_grown.size() || (m_grown[std::size_t(index)] & state))
            return false;
        m_grown[std::size_t(index)] |= state;
        return true;
    }
    if (std::size_t(index) >= m_states.size())
        return false;
    const std::uint8_t before = m_states[std::size_t(index)].fetch_or(state);
    return (before & Wanted) && !(before & state);
}

void CVCagedExtraction::follow(int number, Flow flow)
{
    switch (flow) {
    case Flow::Go:
        return;
    case Flow::SkipEntry:
        m_memory.unwanted(number) = m_streams[std::size_t(number)].begun;
        return;
    case Flow::Stop:
        m_memory.stop() = 1;
        return;
    }
}
