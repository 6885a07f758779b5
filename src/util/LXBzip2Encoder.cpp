#include "util/LXBzip2Encoder.h"

#include "util/LXBzip2Bits.h"

#include <bzlib.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

using namespace LXBzip2;

namespace {

constexpr int level = 9;
constexpr int workFactor = 30;
// What libbz2 fills a block with before it ends it.
constexpr std::size_t blockFull = 100'000 * level - 19;

/// The blocks that libbz2 makes of this input when it is flushed after it. Follows its first step, which
/// writes runs of 4 to 255 equal bytes as five.
std::size_t blockCount(const char *data, std::size_t size)
{
    std::size_t blocks = 0;
    std::size_t filled = 0;
    int run = 0;
    int runByte = -1;
    const auto endRun = [&] {
        if (run > 0)
            filled += run < 4 ? static_cast<std::size_t>(run) : 5;
    };
    for (std::size_t i = 0; i < size; ++i) {
        if (filled >= blockFull) {
            ++blocks; // the run goes on into the next block
            filled = 0;
        }
        const int byte = static_cast<unsigned char>(data[i]);
        if (byte == runByte && run < 255) {
            ++run;
        } else {
            endRun();
            runByte = byte;
            run = 1;
        }
    }
    endRun();
    return filled > 0 ? blocks + 1 : blocks;
}

struct Piece
{
    std::string input;
    std::string stream; ///< a whole stream of its own
    std::size_t blocks = 0;
    int status = BZ_OK;
    bool done = false;
};

void compress(Piece &piece, Allocator &allocator)
{
    piece.blocks = blockCount(piece.input.data(), piece.input.size());
    piece.stream.resize(piece.input.size() + piece.input.size() / 100 + 600);
    bz_stream stream{};
    stream.bzalloc = Allocator::allocate;
    stream.bzfree = Allocator::release;
    stream.opaque = &allocator;
    piece.status = BZ2_bzCompressInit(&stream, level, 0, workFactor);
    if (piece.status != BZ_OK)
        return;
    stream.next_in = piece.input.data();
    stream.avail_in = static_cast<unsigned>(piece.input.size());
    stream.next_out = piece.stream.data();
    stream.avail_out = static_cast<unsigned>(piece.stream.size());
    const int result = BZ2_bzCompress(&stream, BZ_FINISH);
    piece.status = result == BZ_STREAM_END ? BZ_OK : result;
    piece.stream.resize(piece.stream.size() - stream.avail_out);
    BZ2_bzCompressEnd(&stream);
    piece.input = {};
}

} // namespace

struct LXBzip2Encoder::Private
{
    Read read;
    std::size_t pieceBytes = 0;
    std::size_t window = 0;
    bool inputEnded = false;
    bool ended = false;
    std::uint32_t checksum = 0;
    Bits bits;

    std::mutex mutex; // what follows
    std::condition_variable changed;
    std::deque<std::shared_ptr<Piece>> pieces; ///< in the order of the input
    std::deque<std::shared_ptr<Piece>> waiting;
    bool stopping = false;
    std::vector<std::jthread> workers;

    void work();
    void readAhead();
    void join(const Piece &piece);
};

void LXBzip2Encoder::Private::work()
{
    Allocator allocator;
    std::unique_lock lock(mutex);
    for (;;) {
        changed.wait(lock, [this] { return stopping || !waiting.empty(); });
        if (stopping)
            return;
        const std::shared_ptr<Piece> piece = std::move(waiting.front());
        waiting.pop_front();
        lock.unlock();
        compress(*piece, allocator);
        lock.lock();
        piece->done = true;
        changed.notify_all();
    }
}

void LXBzip2Encoder::Private::readAhead()
{
    while (!inputEnded && pieces.size() < window) { // only this thread changes the number
        auto piece = std::make_shared<Piece>();
        piece->input.resize(pieceBytes);
        const std::size_t got = read(piece->input.data(), pieceBytes);
        inputEnded = got < pieceBytes;
        if (got == 0)
            return;
        piece->input.resize(got);
        {
            const std::lock_guard lock(mutex);
            pieces.push_back(piece);
            waiting.push_back(std::move(piece));
        }
        changed.notify_all();
    }
}

void LXBzip2Encoder::Private::join(const Piece &piece)
{
    if (piece.status != BZ_OK)
        throw LXBzip2Error("BZ2_bzCompress failed with code " + std::to_string(piece.status), piece.status);
    // The end of the piece's own stream: mark, checksum and up to seven zero bits. The mark cannot overlap
    // itself, so only one place fits.
    const std::size_t size = piece.stream.size() * 8;
    constexpr std::size_t endBits = markBits + checksumBits;
    std::size_t end = 0;
    for (std::size_t padding = 0; padding < 8 && end == 0; ++padding) {
        const std::size_t at = size - padding - endBits;
        if (bitsAt(piece.stream.data(), at, markBits) == endMark)
            end = at;
    }
    if (end == 0)
        throw LXBzip2Error("BZ2_bzCompress gave a stream without an end", BZ_SEQUENCE_ERROR);
    const auto fold = static_cast<std::uint32_t>(bitsAt(piece.stream.data(), end + markBits, checksumBits));
    bits.append(piece.stream.data(), headerBits, end);
    checksum = foldChecksum(checksum, fold, piece.blocks);
}

LXBzip2Encoder::LXBzip2Encoder(Read read, std::size_t pieceBytes, unsigned threads)
    : d(std::make_unique<Private>())
{
    d->read = std::move(read);
    d->pieceBytes = pieceBytes;
    if (threads == 0)
        threads = std::max(1U, std::thread::hardware_concurrency());
    // Two more than can be worked on, so that nobody waits for the reader or the one who takes.
    d->window = threads + 2;
    for (const char byte : {'B', 'Z', 'h', static_cast<char>('0' + level)})
        d->bits.append(static_cast<unsigned char>(byte), 8);
    for (unsigned i = 0; i < threads; ++i)
        d->workers.emplace_back([p = d.get()] { p->work(); });
}

LXBzip2Encoder::~LXBzip2Encoder()
{
    {
        const std::lock_guard lock(d->mutex);
        d->stopping = true;
    }
    d->changed.notify_all();
    d->workers.clear();
}

std::string LXBzip2Encoder::next()
{
    if (d->ended)
        return {};
    d->readAhead();
    if (d->pieces.empty()) {
        d->ended = true;
        d->bits.append(endMark, markBits);
        d->bits.append(d->checksum, checksumBits);
        return d->bits.bytes();
    }
    std::shared_ptr<Piece> piece;
    {
        std::unique_lock lock(d->mutex);
        d->changed.wait(lock, [this] { return d->pieces.front()->done; });
        piece = std::move(d->pieces.front());
        d->pieces.pop_front();
    }
    d->join(*piece);
    return d->bits.takeWholeBytes();
}
