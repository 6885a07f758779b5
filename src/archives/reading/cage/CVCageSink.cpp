#include "archives/reading/cage/CVCageSink.h"

#include "archives/reading/cage/CVCageList.h"
#include "archives/reading/cage/CVCageMessages.h"

#include <algorithm>
#include <cstring>

#include <unistd.h>

namespace {

using Record = CVCageMemory::Record;
using Flow = CVEntryWriter::Flow;

/// A piece of data smaller than this waits for the next slot rather than being cut for the rest of this one.
constexpr std::uint32_t smallestPiece = 4096;

QByteArray shortText(const QString &text)
{
    return text.left(CVCage::maxTextBytes / 4).toUtf8();
}

} // namespace

/// One entry on its way.
class CVCageSink::Writer final : public CVEntryWriter
{
public:
    Writer(CVCageSink &owner, int stream, std::uint32_t number)
        : m_owner(owner)
        , m_stream(stream)
        , m_number(number)
    {}
    ~Writer() override
    {
        if (!m_isEnded)
            end(Record::Type::Drop, 0, {});
    }

    Flow write(const char *data, qsizetype size) override
    {
        if (const Flow flow = look(); flow != Flow::Go)
            return flow;
        m_owner.putData(m_stream, data, std::size_t(size));
        return look();
    }
    Flow writeHole(qint64 size) override
    {
        if (const Flow flow = look(); flow != Flow::Go)
            return flow;
        m_owner.put(m_stream, Record::Type::Hole, size);
        return Flow::Go;
    }
    Flow finish(XADErrorCode code, const QString &detail) override
    {
        end(Record::Type::Finish, int(code), shortText(detail));
        return m_owner.shouldStop() ? Flow::Stop : Flow::Go;
    }

private:
    Flow look()
    {
        if (m_owner.shouldStop())
            return Flow::Stop;
        return m_owner.m_memory.unwanted(m_stream) == m_number ? Flow::SkipEntry : Flow::Go;
    }
    void end(Record::Type type, std::int64_t value, QByteArrayView detail)
    {
        m_isEnded = true;
        m_owner.put(m_stream, type, value, detail);
        m_owner.release(m_stream);
    }

    CVCageSink &m_owner;
    int m_stream;
    std::uint32_t m_number;
    bool m_isEnded = false;
};

CVCageSink::CVCageSink(CVCageMemory &memory, const std::vector<CVCageSocket> &sockets,
                       const CVReadingEngine &engine, std::size_t entriesKnown, std::function<void(int)> used)
    : m_memory(memory)
    , m_sockets(sockets)
    , m_engine(engine)
    , m_isLazy(engine.entriesAreLazy())
    , m_entriesKnown(entriesKnown)
    , m_used(std::move(used))
    , m_streams(sockets.size())
{
    for (Stream &stream : m_streams) {
        stream.isFree.fill(true);
        stream.isFree[0] = false;
    }
}

bool CVCageSink::shouldStop()
{
    note();
    return m_memory.stop().load(std::memory_order_relaxed) != 0;
}

/// Says that something is being done, and how far it has come.
void CVCageSink::note()
{
    m_memory.ticks().fetch_add(1, std::memory_order_relaxed);
    qint64 done = 0;
    qint64 total = 0;
    if (m_engine.compressedProgress(done, total))
        m_memory.position().store(done, std::memory_order_relaxed);
}

int CVCageSink::acquire()
{
    // A thread stays with its stream, so that entries which are neighbours are written by one thread again.
    thread_local int preferred = 0;
    std::unique_lock lock(m_mutex);
    for (;;) {
        const auto isFree = [this](int stream) { return !m_streams[std::size_t(stream)].isTaken; };
        int found = -1;
        if (m_isLazy) // the list has to stay in order
            found = isFree(0) ? 0 : -1;
        else if (preferred < int(m_streams.size()) && isFree(preferred))
            found = preferred;
        else
            for (int stream = 0; stream < int(m_streams.size()) && found < 0; ++stream)
                found = isFree(stream) ? stream : -1;
        if (found >= 0) {
            preferred = found;
            Stream &stream = m_streams[std::size_t(found)];
            stream.isTaken = true;
            if (!std::exchange(stream.wasUsed, true) && found > 0)
                m_used(found);
            return found;
        }
        m_released.wait(lock);
    }
}

void CVCageSink::release(int stream)
{
    {
        const std::lock_guard lock(m_mutex);
        m_streams[std::size_t(stream)].isTaken = false;
    }
    m_released.notify_one();
}

void CVCageSink::flush(int number)
{
    Stream &stream = m_streams[std::size_t(number)];
    if (stream.used == 0)
        return;
    const CVCageSocket &socket = m_sockets[std::size_t(number)];
    const CVCageMemory::Filled filled{stream.slot, stream.used};
    note();
    if (!socket.send({reinterpret_cast<const char *>(&filled), sizeof filled}))
        ::_exit(0); // nobody is there who could want the rest
    stream.used = 0;
    // The slots that came back meanwhile, and one at least.
    for (;;) {
        const auto next = std::find(stream.isFree.begin(), stream.isFree.end(), true);
        std::uint32_t back = 0;
        std::size_t size = 0;
        const auto got = socket.receive(&back, sizeof back, size, next == stream.isFree.end() ? -1 : 0);
        if (got == CVCageSocket::Got::Ended)
            ::_exit(0);
        if (got == CVCageSocket::Got::Message && size == sizeof back && back < stream.isFree.size()) {
            stream.isFree[back] = true;
            continue;
        }
        stream.slot = std::uint32_t(next - stream.isFree.begin());
        *next = false;
        return;
    }
}

void CVCageSink::reserve(int number, std::size_t bytes)
{
    if (m_streams[std::size_t(number)].used + bytes > CVCageMemory::slotBytes)
        flush(number);
}

void CVCageSink::put(int number, Record::Type type, std::int64_t value, QByteArrayView data)
{
    const Record record{type, std::uint32_t(data.size()), value};
    reserve(number, sizeof record + record.bytes);
    Stream &stream = m_streams[std::size_t(number)];
    char *const at = m_memory.slot(number, stream.slot) + stream.used;
    std::memcpy(at, &record, sizeof record);
    if (record.bytes > 0)
        std::memcpy(at + sizeof record, data.data(), record.bytes);
    stream.used += std::uint32_t(sizeof record) + record.bytes;
}

void CVCageSink::putData(int number, const char *data, std::size_t size)
{
    while (size > 0) {
        Stream &stream = m_streams[std::size_t(number)];
        std::uint32_t room = CVCageMemory::slotBytes - stream.used;
        if (room < sizeof(Record) + std::min<std::size_t>(size, smallestPiece)) {
            flush(number);
            room = CVCageMemory::slotBytes;
        }
        const std::size_t piece = std::min<std::size_t>(size, room - sizeof(Record));
        put(number, Record::Type::Data, 0, {data, qsizetype(piece)});
        data += piece;
        size -= piece;
    }
}

void CVCageSink::putEntriesUpTo(int stream, std::size_t count)
{
    if (!m_isLazy)
        return;
    const std::vector<XADEntry> &entries = m_engine.entries();
    for (; m_entriesKnown < std::min(count, entries.size()); ++m_entriesKnown) {
        QByteArray bytes;
        CVCageList::append(bytes, entries[m_entriesKnown], m_engine.entryIsArchive(int(m_entriesKnown)));
        put(stream, Record::Type::Entry, 0, bytes);
    }
}

std::unique_ptr<CVEntryWriter> CVCageSink::beginEntry(int index)
{
    if (shouldStop())
        return nullptr;
    const int number = acquire();
    Stream &stream = m_streams[std::size_t(number)];
    putEntriesUpTo(number, std::size_t(index) + 1);
    ++stream.begun;
    put(number, Record::Type::Begin, index);
    const XADEntry &entry = m_engine.entries()[std::size_t(index)];
    const bool needsData = entry.type == XADEntry::Type::File || entry.type == XADEntry::Type::HardLink ||
                           (entry.type == XADEntry::Type::Symlink && entry.linkTarget.isEmpty());
    if (needsData)
        return std::make_unique<Writer>(*this, number, stream.begun);
    put(number, Record::Type::Drop, 0);
    release(number);
    return nullptr;
}

Flow CVCageSink::entryFailed(int index, XADErrorCode code, const QString &detail)
{
    const int stream = acquire();
    putEntriesUpTo(stream, std::size_t(index) + 1);
    const std::int32_t number = int(code);
    put(stream, Record::Type::Failed, index,
        QByteArray(QByteArray(reinterpret_cast<const char *>(&number), sizeof number) + shortText(detail)));
    release(stream);
    return shouldStop() ? Flow::Stop : Flow::Go;
}

void CVCageSink::end(bool isWhole)
{
    m_streams[0].wasUsed = true;
    if (m_isLazy && isWhole)
        putEntriesUpTo(0, m_engine.entries().size());
    for (int number = 0; number < int(m_streams.size()); ++number) {
        if (!m_streams[std::size_t(number)].wasUsed)
            continue;
        flush(number);
        const CVCageMemory::Filled end{CVCageMemory::endOfStream, 0};
        if (!m_sockets[std::size_t(number)].send({reinterpret_cast<const char *>(&end), sizeof end}))
            ::_exit(0);
    }
}
