#include "util/LXBzip2Decoder.h"

#include "util/LXBzip2Bits.h"

#include <bzlib.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

using namespace LXBzip2;

namespace {

constexpr std::size_t chunkBytes = 256 * 1024;
// Output that a block may have waiting while blocks before it are not through.
constexpr std::size_t chunksAhead = 16;
// No block of the format is longer: 900,000 symbols of at most 20 bits, and its tables.
constexpr std::size_t longestBlockBits = 8 * (4U << 20);
// Bits that look like a mark but are none come once in 2^48; three in one block do not come.
constexpr int joinsAllowed = 3;

/// For two bytes of a stream: at which of the eight bit offsets a mark may begin three bytes before them.
/// Almost always at none.
class MarkTable
{
public:
    MarkTable()
    {
        for (const std::uint64_t mark : {blockMark, endMark})
            for (int offset = 0; offset < 8; ++offset)
                m_offsets[(mark >> (8 + offset)) & 0xffff] |= static_cast<unsigned char>(1U << offset);
    }
    unsigned offsets(unsigned twoBytes) const { return m_offsets[twoBytes]; }

private:
    std::array<unsigned char, 65536> m_offsets{};
};

/// A stretch of the stream from one mark to the next.
struct Block
{
    Bits bits;               ///< from its mark on
    std::size_t from = 0;    ///< byte of the stream in which it begins
    std::size_t to = 0;      ///< and the one before which it ends, with the mark behind it
    bool beforeEnd = false;  ///< what follows is the mark of the end
    std::uint32_t sum = 0;   ///< beforeEnd: the stream's checksum as stored there
    std::size_t endByte = 0; ///< beforeEnd: bytes of the stream up to its end

    // Under the decoder's mutex.
    std::deque<std::string> output;
    int status = BZ_OK; ///< BZ_STREAM_END: decoded and its checksum is right
    bool started = false;
    bool done = false;
    bool dropped = false; ///< nobody wants its output
};

} // namespace

struct LXBzip2Decoder::Private
{
    Write write;
    std::size_t window = 0;
    std::string buffer; ///< bytes of the stream from bufferStart on
    std::size_t bufferStart = 0;
    std::size_t scanned = 0;    ///< byte of the stream in which the next mark may begin
    std::size_t blockStart = 0; ///< bit of the stream where the open block begins
    int blockLevel = 0;         ///< 0: the header is not complete yet
    std::uint32_t checksum = 0;
    bool ended = false;
    std::pair<std::size_t, std::size_t> damage;

    std::mutex mutex; // what follows
    std::condition_variable changed;
    std::deque<std::shared_ptr<Block>> blocks;
    bool stopping = false;
    std::vector<std::jthread> workers;

    void work();
    using Sink = std::function<bool(std::string)>; ///< false: no more is wanted
    int decode(const Block &block, Allocator &allocator, const Sink &sink) const;
    bool put(Block &block, std::string chunk);
    bool readHeader();
    void scan();
    void foundMark(std::size_t bit, bool isEnd);
    void add(std::shared_ptr<Block> block);
    bool takeFirst();
    bool joinFirst(std::unique_lock<std::mutex> &lock, int status);
    [[noreturn]] void fail(int status, std::size_t from, std::size_t to);
};

void LXBzip2Decoder::Private::fail(int status, std::size_t from, std::size_t to)
{
    damage = {from, to};
    throw LXBzip2Error("BZ2_bzDecompress failed with status " + std::to_string(status), status);
}

// ---- the workers ----

void LXBzip2Decoder::Private::work()
{
    Allocator allocator;
    std::unique_lock lock(mutex);
    const auto next = [this] {
        return std::ranges::find_if(blocks, [](const auto &block) { return !block->started; });
    };
    for (;;) {
        changed.wait(lock, [&] { return stopping || next() != blocks.end(); });
        if (stopping)
            return;
        const std::shared_ptr<Block> block = *next();
        block->started = true;
        lock.unlock();
        const int status =
            decode(*block, allocator, [&](std::string chunk) { return put(*block, std::move(chunk)); });
        lock.lock();
        block->status = status;
        block->done = true;
        changed.notify_all();
    }
}

/// Waits while there is much from this block, until its turn has come and somebody takes it.
bool LXBzip2Decoder::Private::put(Block &block, std::string chunk)
{
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return stopping || block.dropped || block.output.size() < chunksAhead; });
    if (stopping || block.dropped)
        return false;
    block.output.push_back(std::move(chunk));
    changed.notify_all();
    return true;
}

int LXBzip2Decoder::Private::decode(const Block &block, Allocator &allocator, const Sink &sink) const
{
    if (block.bits.size() < markBits + checksumBits)
        return BZ_DATA_ERROR;
    // The block as a stream of its own, whose checksum is the block's.
    Bits wrapped;
    for (const char byte : {'B', 'Z', 'h', static_cast<char>('0' + blockLevel)})
        wrapped.append(static_cast<unsigned char>(byte), 8);
    wrapped.append(block.bits);
    wrapped.append(endMark, markBits);
    wrapped.append(bitsAt(block.bits.bytes().data(), markBits, checksumBits), checksumBits);

    bz_stream stream{};
    stream.bzalloc = Allocator::allocate;
    stream.bzfree = Allocator::release;
    stream.opaque = &allocator;
    if (const int status = BZ2_bzDecompressInit(&stream, 0, 0); status != BZ_OK)
        return status;
    struct End
    {
        bz_stream &stream;
        ~End() { BZ2_bzDecompressEnd(&stream); }
    };
    const End end{stream}; // the sink may throw
    std::string input = wrapped.bytes();
    stream.next_in = input.data();
    stream.avail_in = static_cast<unsigned>(input.size());
    int status = BZ_OK;
    while (status == BZ_OK) {
        std::string chunk(chunkBytes, '\0');
        stream.next_out = chunk.data();
        stream.avail_out = static_cast<unsigned>(chunk.size());
        status = BZ2_bzDecompress(&stream);
        chunk.resize(chunk.size() - stream.avail_out);
        if (status == BZ_OK && chunk.empty()) // it wants more than there is
            status = BZ_DATA_ERROR;
        if ((status == BZ_OK || status == BZ_STREAM_END) && !chunk.empty() && !sink(std::move(chunk)))
            status = BZ_SEQUENCE_ERROR;
    }
    // Anything behind its end means that the mark it ends with was none.
    if (status == BZ_STREAM_END && stream.avail_in != 0)
        status = BZ_DATA_ERROR;
    return status;
}

// ---- finding the blocks ----

bool LXBzip2Decoder::Private::readHeader()
{
    constexpr std::string_view magic = "BZh";
    const std::size_t known = std::min(buffer.size(), magic.size());
    if (std::string_view(buffer).substr(0, known) != magic.substr(0, known))
        fail(BZ_DATA_ERROR_MAGIC, 0, known);
    constexpr std::size_t headerBytes = (headerBits + markBits) / 8;
    if (buffer.size() < headerBytes)
        return false;
    if (buffer[3] < '1' || buffer[3] > '9')
        fail(BZ_DATA_ERROR_MAGIC, 0, magic.size() + 1);
    const std::uint64_t first = bitsAt(buffer.data(), headerBits, markBits);
    if (first != blockMark && first != endMark)
        fail(BZ_DATA_ERROR, headerBits / 8, headerBytes);
    blockLevel = buffer[3] - '0';
    scanned = headerBits / 8;
    blockStart = headerBits;
    return true;
}

void LXBzip2Decoder::Private::scan()
{
    static const MarkTable table;
    constexpr std::size_t reach = 7; // bytes that a mark may touch
    const std::size_t known = bufferStart + buffer.size();
    while (!ended && scanned + reach <= known) {
        const char *const at = buffer.data() + (scanned - bufferStart);
        const unsigned twoBytes =
            static_cast<unsigned>(static_cast<unsigned char>(at[3])) << 8 | static_cast<unsigned char>(at[4]);
        // Bytes 3 and 4 of the window hold bits 24 to 39, which are the mark's from 24 - offset on.
        unsigned offsets = table.offsets(twoBytes);
        for (std::size_t offset = 0; offsets != 0 && !ended; ++offset, offsets >>= 1) {
            if ((offsets & 1) == 0)
                continue;
            const std::uint64_t mark = bitsAt(at, offset, markBits);
            if (mark == endMark && scanned * 8 + offset + markBits + checksumBits > known * 8)
                return; // its checksum is still to come
            if (mark == blockMark || mark == endMark)
                foundMark(scanned * 8 + offset, mark == endMark);
        }
        ++scanned;
    }
    if (!ended && scanned * 8 > blockStart + longestBlockBits)
        fail(BZ_DATA_ERROR, blockStart / 8, known);
    // What was cut out or passed is not needed any more.
    if (const std::size_t keep = std::min(scanned, blockStart / 8); keep > bufferStart) {
        buffer.erase(0, keep - bufferStart);
        bufferStart = keep;
    }
}

void LXBzip2Decoder::Private::foundMark(std::size_t bit, bool isEnd)
{
    if (bit < blockStart)
        return;
    if (bit == blockStart && !isEnd)
        return; // the open block's own
    const char *const bytes = buffer.data();
    const std::size_t base = bufferStart * 8;
    auto block = std::make_shared<Block>();
    block->bits.append(bytes, blockStart - base, bit - base);
    block->from = blockStart / 8;
    block->to = (bit + markBits + 7) / 8;
    if (isEnd) {
        block->beforeEnd = true;
        block->sum = static_cast<std::uint32_t>(bitsAt(bytes, bit - base + markBits, checksumBits));
        block->endByte = (bit + markBits + checksumBits + 7) / 8;
    }
    blockStart = bit;
    add(std::move(block));
    // Whether this is the end decides what the caller may keep.
    while (isEnd && !ended && takeFirst()) {
    }
}

void LXBzip2Decoder::Private::add(std::shared_ptr<Block> block)
{
    {
        const std::lock_guard lock(mutex);
        // A stream without any block: only its end.
        if (block->bits.size() == 0) {
            block->started = true;
            block->done = true;
            block->status = BZ_STREAM_END;
        }
        blocks.push_back(std::move(block));
    }
    changed.notify_all();
    for (;;) {
        {
            const std::lock_guard lock(mutex);
            if (blocks.size() < window && !(blocks.size() > 1 && blocks.front()->done))
                return;
        }
        if (!takeFirst())
            return;
    }
}

/// Waits for the first block and writes it. False when there is none, when it was the last one, or when
/// more input is needed to tell.
bool LXBzip2Decoder::Private::takeFirst()
{
    std::unique_lock lock(mutex);
    if (blocks.empty())
        return false;
    const std::shared_ptr<Block> block = blocks.front();
    bool hasOutput = false;
    for (;;) {
        changed.wait(lock, [&] { return !block->output.empty() || block->done; });
        if (block->output.empty())
            break;
        const std::string chunk = std::move(block->output.front());
        block->output.pop_front();
        hasOutput = true;
        changed.notify_all();
        lock.unlock();
        write(chunk.data(), chunk.size());
        lock.lock();
    }
    if (block->status != BZ_STREAM_END) {
        // What came out before it failed is out, as it would be from libbz2.
        if (hasOutput || block->status != BZ_DATA_ERROR)
            fail(block->status, block->from, block->to);
        return joinFirst(lock, block->status);
    }
    if (block->bits.size() > 0)
        checksum = foldChecksum(
            checksum, static_cast<std::uint32_t>(bitsAt(block->bits.bytes().data(), markBits, checksumBits)));
    if (block->beforeEnd) {
        if (checksum != block->sum)
            fail(BZ_DATA_ERROR, 0, block->endByte); // blocks are missing or in another order
        ended = true;
        return false;
    }
    blocks.pop_front();
    return !blocks.empty();
}

/// The first block does not decode: perhaps the mark behind it is none, and it goes on in the next one.
/// Decodes on this thread, because the workers may all be waiting for blocks before theirs.
bool LXBzip2Decoder::Private::joinFirst(std::unique_lock<std::mutex> &lock, int status)
{
    auto joined = std::make_shared<Block>();
    joined->bits = blocks.front()->bits;
    for (std::size_t i = 1; i < blocks.size() && i <= joinsAllowed; ++i) {
        const std::shared_ptr<Block> next = blocks[i];
        joined->bits.append(next->bits);
        joined->beforeEnd = next->beforeEnd;
        joined->sum = next->sum;
        joined->endByte = next->endByte;
        lock.unlock();
        Allocator allocator;
        bool hasOutput = false;
        const int result = decode(*joined, allocator, [&](const std::string &chunk) {
            write(chunk.data(), chunk.size());
            return hasOutput = true;
        });
        lock.lock();
        if (result == BZ_STREAM_END) {
            for (std::size_t gone = 0; gone < i; ++gone) {
                blocks[1]->dropped = true;
                blocks[1]->started = true;
                blocks.pop_front();
            }
            joined->started = true;
            joined->done = true;
            joined->status = result;
            blocks.front() = std::move(joined);
            changed.notify_all();
            return true;
        }
        if (hasOutput)
            fail(result, blocks.front()->from, next->to);
    }
    if (blocks.size() > joinsAllowed)
        fail(status, blocks.front()->from, blocks.front()->to);
    return false;
}

// ---- the face ----

LXBzip2Decoder::LXBzip2Decoder(Write write, unsigned threads)
    : d(std::make_unique<Private>())
{
    d->write = std::move(write);
    if (threads == 0)
        threads = std::max(1U, std::thread::hardware_concurrency());
    d->window = 2 * threads + 1;
    for (unsigned i = 0; i < threads; ++i)
        d->workers.emplace_back([p = d.get()] { p->work(); });
}

LXBzip2Decoder::~LXBzip2Decoder()
{
    {
        const std::lock_guard lock(d->mutex);
        d->stopping = true;
    }
    d->changed.notify_all();
    d->workers.clear();
}

std::pair<std::size_t, std::size_t> LXBzip2Decoder::damage() const
{
    return d->damage;
}

bool LXBzip2Decoder::hasEnded() const
{
    return d->ended;
}

std::size_t LXBzip2Decoder::feed(const char *data, std::size_t size)
{
    if (d->ended) {
        const std::size_t end = d->blocks.front()->endByte;
        d->fail(BZ_SEQUENCE_ERROR, end, end + size);
    }
    const std::size_t before = d->bufferStart + d->buffer.size();
    d->buffer.append(data, size);
    if (d->blockLevel == 0 && !d->readHeader())
        return size;
    d->scan();
    if (!d->ended)
        return size;
    const std::size_t end = d->blocks.front()->endByte;
    return end > before ? end - before : 0;
}

void LXBzip2Decoder::finish()
{
    while (!d->ended && d->takeFirst()) {
    }
    // What is left did not decode, and nothing that it could go on in will come.
    if (!d->ended && !d->blocks.empty())
        d->fail(BZ_DATA_ERROR, d->blocks.front()->from, d->blocks.front()->to);
}
