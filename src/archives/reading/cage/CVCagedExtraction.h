#pragma once

#include "archives/reading/CVReadingEngine.h"
#include "archives/reading/cage/CVCageMemory.h"
#include "archives/reading/cage/CVCageSocket.h"

#include <atomic>
#include <thread>
#include <vector>

/// In the program: takes what a reader delivers in one extraction and gives it to the sink. The first stream
/// is served by the caller's thread, each other one by a thread of its own.
///
/// What the reader sends is not believed: an index, a length or an order that cannot be ends the extraction.
class CVCagedExtraction
{
public:
    /// All borrowed. `wanted`: the entries that may be begun, each once, unless `all` may. While the list
    /// grows with the extraction, `entries` does.
    CVCagedExtraction(CVCageMemory &memory, const std::vector<CVCageSocket> &sockets, CVEntrySink &sink,
                      std::vector<XADEntry> &entries, std::span<const int> wanted, bool all, bool listGrows);
    /// Waits for the threads, which end with the reader at the latest.
    ~CVCagedExtraction();

    /// The reader began to use a stream. False: it cannot have.
    bool use(int stream);

    /// Takes one message of the first stream; blocks until there is one.
    void serveFirst() { serve(0); }

    int firstSocket() const { return m_sockets[0].fd(); }
    bool hasFirstEnded() const { return m_streams[0].hasEnded; }
    /// Every stream that was used has.
    bool hasEnded() const;
    /// The reader spoke nonsense, or nothing comes any more.
    bool isBroken() const { return m_isBroken; }
    bool isCutOff() const { return m_isCutOff; }
    /// Changes whenever something arrives.
    std::uint32_t signs() const { return m_signs; }
    /// Something is being written, or a person asked: whatever waits now waits for us.
    bool isBusy() const { return m_busy > 0; }

private:
    struct Stream
    {
        std::unique_ptr<CVEntryWriter> writer;
        std::uint32_t begun = 0;
        bool isInEntry = false;
        bool isUsed = false;
        std::atomic<bool> hasEnded = false;
        std::thread thread;
    };
    enum State : std::uint8_t { Unwanted = 0, Wanted = 1, Begun = 2, Failed = 4 };

    void serve(int number);
    bool handle(int number, CVCageMemory::Filled filled);
    bool handleRecord(int number, const CVCageMemory::Record &record, const char *data);
    bool addEntry(int number, const char *data, std::uint32_t bytes);
    bool mark(int number, std::int64_t index, State state);
    void follow(int number, CVEntryWriter::Flow flow);

    CVCageMemory &m_memory;
    const std::vector<CVCageSocket> &m_sockets;
    CVEntrySink &m_sink;
    std::vector<XADEntry> &m_entries;
    const bool m_listGrows;
    std::vector<std::atomic<std::uint8_t>> m_states;
    std::vector<std::uint8_t> m_grown; ///< the same for a list that grows
    std::atomic<bool> m_isBroken = false;
    std::atomic<bool> m_isCutOff = false;
    std::atomic<std::uint32_t> m_signs = 0;
    std::atomic<int> m_busy = 0;
    std::vector<Stream> m_streams;
};
