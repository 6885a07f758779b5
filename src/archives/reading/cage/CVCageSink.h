#pragma once

#include "archives/reading/CVReadingEngine.h"
#include "archives/reading/cage/CVCageMemory.h"
#include "archives/reading/cage/CVCageSocket.h"

#include <array>
#include <condition_variable>
#include <mutex>
#include <vector>

/// In the reader: the sink of one extraction, which passes everything on to the program.
///
/// Each entry has a stream of its own from its beginning to its end; several small ones that follow each
/// other in a stream cross together. Nothing waits for an answer but for a slot that is free.
class CVCageSink final : public CVEntrySink
{
public:
    /// `sockets`: one for each stream. `used` hears of the first use of each but the first. All borrowed.
    CVCageSink(CVCageMemory &memory, const std::vector<CVCageSocket> &sockets, const CVReadingEngine &engine,
               std::size_t entriesKnown, std::function<void(int stream)> used);

    /// Sends what is left and the end of each stream that was used; of a growing list that is whole now, the
    /// entries that the program has not got.
    void end(bool isWhole);

    // CVEntrySink
    std::unique_ptr<CVEntryWriter> beginEntry(int index) override;
    CVEntryWriter::Flow entryFailed(int index, XADErrorCode code, const QString &detail) override;
    bool shouldStop() override;

private:
    class Writer;
    struct Stream
    {
        std::uint32_t slot = 0;
        std::uint32_t used = 0;
        std::array<bool, CVCageMemory::slotsPerStream> isFree{};
        std::uint32_t begun = 0; ///< entries so far
        bool isTaken = false;
        bool wasUsed = false;
    };

    int acquire();
    void release(int stream);
    void put(int stream, CVCageMemory::Record::Type type, std::int64_t value, QByteArrayView data = {});
    void putData(int stream, const char *data, std::size_t size);
    void putEntriesUpTo(int stream, std::size_t count);
    void reserve(int stream, std::size_t bytes);
    void flush(int stream);
    void note();

    CVCageMemory &m_memory;
    const std::vector<CVCageSocket> &m_sockets;
    const CVReadingEngine &m_engine;
    const bool m_isLazy;
    std::size_t m_entriesKnown;
    std::function<void(int)> m_used;
    std::vector<Stream> m_streams;
    std::mutex m_mutex; // of which stream is taken
    std::condition_variable m_released;
};
