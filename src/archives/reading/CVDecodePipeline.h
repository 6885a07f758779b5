#pragma once

#include "archives/reading/CVStreamDecoders.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

/// Decodes a compressed stream in a thread of its own, a bounded number of blocks ahead of whoever
/// reads them, so that decoding and writing overlap.
/// Thread: next() and result() from one thread. The destructor stops and joins the decoder; it stops at
/// the latest when its current block is full.
class CVDecodePipeline
{
public:
    /// 16 blocks of 256 KiB: enough to ride out a slow write, small enough to stay in the cache.
    static constexpr std::size_t blockBytes = std::size_t(256) << 10;
    static constexpr std::size_t maxBlocksAhead = 16;

    CVDecodePipeline(std::shared_ptr<const CVArchiveSource> source, qint64 offset, CVStreamKind kind);
    ~CVDecodePipeline();

    /// The next block, valid until the next call. Empty: the stream ended, see result().
    std::span<const char> next();

    /// How the stream ended; only after next() returned nothing.
    const CVDecodeResult &result() const { return m_result; }

private:
    struct Block
    {
        std::vector<char> data;
        std::size_t used = 0;
    };
    class Output;

    void run();
    bool takeFree(Block &block);
    void hand(Block &&block);

    std::shared_ptr<const CVArchiveSource> m_source;
    qint64 m_offset;
    CVStreamKind m_kind;

    std::mutex m_mutex; // what follows
    std::condition_variable m_filled, m_freed;
    std::deque<Block> m_ready;
    std::vector<Block> m_free;
    std::size_t m_made = 0;
    bool m_abort = false;
    bool m_ended = false;
    CVDecodeResult m_endResult;

    Block m_current; // of the reading side
    CVDecodeResult m_result;
    std::thread m_thread; // last: everything above exists when it starts
};
