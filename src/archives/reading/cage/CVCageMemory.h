#pragma once

#include "util/LXFileDescriptor.h"

#include <QByteArray>

#include <atomic>
#include <cstdint>
#include <memory>

/// The memory that the program and one reader share: a few words that both look at, and for each stream of
/// entries the slots that their data crosses in. A stream's socket only passes numbers of slots.
///
/// The reader fills a slot with records and sends a Filled; the program works through it and sends the slot's
/// number back. The reader can change the memory at any time, so the program copies whatever it looks at and
/// hands data on unseen.
class CVCageMemory
{
public:
    static constexpr int maxStreams = 8;
    static constexpr int slotsPerStream = 4;
    /// Stays in the processor's cache between the one who fills it and the one who writes it out.
    static constexpr std::uint32_t slotBytes = std::uint32_t(256) << 10;

    /// Stream sockets carry these to the program and one number of a slot back.
    struct Filled
    {
        std::uint32_t slot; ///< endOfStream: nothing comes in this extraction any more
        std::uint32_t bytes;
    };
    static constexpr std::uint32_t endOfStream = 0xFFFFFFFF;

    struct Record
    {
        enum class Type : std::uint32_t {
            Entry = 1, ///< one of a growing list, as CVCageList writes it
            Begin,     ///< value: index
            Data,
            Hole,   ///< value: bytes
            Finish, ///< value: code; what follows is the detail in UTF-8
            Drop,   ///< the entry ends without a verdict
            Failed, ///< value: index; what follows is the code in four bytes and the detail
        };
        Type type;
        std::uint32_t bytes; ///< that follow this record
        std::int64_t value;
    };

    /// For the program; null when there is no memory. The size is fixed for both sides.
    static std::unique_ptr<CVCageMemory> create();
    /// For the reader.
    static std::unique_ptr<CVCageMemory> map(LXFileDescriptor file);
    ~CVCageMemory();
    CVCageMemory(const CVCageMemory &) = delete;
    CVCageMemory &operator=(const CVCageMemory &) = delete;

    int fd() const { return m_file.get(); }

    /// Written by the program: end what you do.
    std::atomic<std::uint32_t> &stop() { return words().stop; }
    /// Written by the program: the entry of the stream that was begun as this one is not wanted any more.
    std::atomic<std::uint32_t> &unwanted(int stream) { return words().unwanted[stream].value; }
    /// Written by the reader: changes as long as the engine does something.
    std::atomic<std::uint32_t> &ticks() { return words().ticks; }
    /// Written by the reader: how far it is in the archive.
    std::atomic<std::int64_t> &position() { return words().position; }

    char *slot(int stream, std::uint32_t number)
    {
        return m_base + wordsBytes + (std::size_t(stream) * slotsPerStream + number) * slotBytes;
    }

private:
    static constexpr std::size_t wordsBytes = 4096;
    static constexpr std::size_t allBytes = wordsBytes + std::size_t(maxStreams) * slotsPerStream * slotBytes;

    struct alignas(64) Word
    {
        std::atomic<std::uint32_t> value;
    };
    struct Words
    {
        alignas(64) std::atomic<std::uint32_t> stop;
        alignas(64) std::atomic<std::uint32_t> ticks;
        std::atomic<std::int64_t> position;
        Word unwanted[maxStreams];
    };
    static_assert(sizeof(Words) <= wordsBytes);
    static_assert(std::atomic<std::int64_t>::is_always_lock_free);

    CVCageMemory(LXFileDescriptor file, char *base)
        : m_file(std::move(file))
        , m_base(base)
    {}
    Words &words() { return *reinterpret_cast<Words *>(m_base); }

    LXFileDescriptor m_file;
    char *m_base;
};
