#pragma once

#include "archives/xar/CVXarHeap.h"
#include "archives/xar/xar.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <thread>
#include <vector>

class CVXarDeflater;

/// An archive that is written. Files are read and compressed by several threads, large ones in pieces,
/// and come into the heap in the order in which they were added, so that the archive depends on the
/// files alone. See xar_open(), xar_add_frompath(), xar_close().
class CVXarWriter
{
public:
    /// Files up to this size are compressed as a whole, others in pieces of pieceBytes: a cancel takes effect
    /// after one of them, and the threads share the work on a single large file.
    static constexpr std::uint64_t maxWholeBytes = std::uint64_t(2) << 20;
    static constexpr std::uint64_t pieceBytes = std::uint64_t(1) << 20;
    /// What may be read and compressed ahead of what is written.
    static constexpr std::uint64_t maxBytesAhead = std::uint64_t(48) << 20;
    static constexpr std::size_t maxItemsAhead = 256;

    static LXResult<std::unique_ptr<CVXarWriter>> open(const QByteArray &path);
    ~CVXarWriter();

    xar_file_t add(xar_file_t parent, const QByteArray &name, const QByteArray &path);
    LXResult<void> close();
    void cancel();

    const std::deque<xar_file> &files() const { return m_files; }
    /// The first error counts: close() has it, and nothing more is added.
    void fail(const LXError &error);

private:
    struct Piece;
    struct Item;

    CVXarWriter();
    void work();
    bool claim(std::unique_lock<std::mutex> &lock, CVXarDeflater &deflater);
    bool mayTake(std::uint64_t bytes, bool isNext) const;
    static void openItem(Item &item, CVXarDeflater &deflater);
    static void packWhole(Item &item, std::uint64_t size, CVXarDeflater &deflater);
    static void packPiece(const Item &item, Piece &piece, CVXarDeflater &deflater);
    void commit(std::unique_lock<std::mutex> &lock);
    LXResult<void> commitWhole(Item &item);
    LXResult<void> commitPiece(Item &item, Piece &piece);
    LXResult<void> commitEnd(Item &item);
    LXResult<void> append(std::span<const char> data);
    void stopThreads();

    QByteArray m_path;
    CVXarHeap m_heap; // of whoever commits
    std::deque<xar_file> m_files;
    std::map<std::pair<std::uint64_t, std::uint64_t>, xar_file *> m_linked; ///< by device and inode
    std::map<std::uint32_t, QByteArray> m_users, m_groups;
    std::atomic<bool> m_cancelled = false;

    std::mutex m_mutex; // what follows
    std::condition_variable m_changed;
    std::deque<std::unique_ptr<Item>> m_items; ///< that are not yet in the heap
    std::uint64_t m_bytesAhead = 0;
    std::optional<LXError> m_error;
    bool m_committing = false;
    bool m_ending = false;
    std::vector<std::thread> m_threads;
};
