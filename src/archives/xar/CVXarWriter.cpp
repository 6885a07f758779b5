#include "archives/xar/CVXarWriter.h"

#include "archives/xar/CVXarDeflater.h"
#include "archives/xar/CVXarDigest.h"
#include "archives/xar/CVXarErrors.h"
#include "archives/xar/CVXarTable.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

namespace {

using namespace CVXarErrors;

// More threads than this would wait for the one that writes, and each has buffers.
constexpr unsigned maxThreads = 16;
// A file that is compressed in pieces is tried at a few places first: most large files are media that have
// been compressed already, and are only copied then.
constexpr std::size_t probeBytes = std::size_t(64) << 10;
constexpr std::uint64_t probes = 6;
// Below this gain, in hundredths, compression is not worth unpacking.
constexpr std::size_t leastGain = 3;

/// Up to `size` bytes; fewer when the file ends. Below zero: errno.
int readAt(int fd, std::uint64_t offset, std::size_t size, std::vector<char> &to)
{
    to.resize(size);
    std::size_t got = 0;
    while (got < size) {
        const ssize_t n = ::pread(fd, to.data() + got, size - got, static_cast<off_t>(offset + got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return errno;
        if (n == 0)
            break;
        got += static_cast<std::size_t>(n);
    }
    to.resize(got);
    return 0;
}

xar_checksum sha1(std::span<const char> data)
{
    CVXarDigest digest;
    digest.add(data);
    return {xar_digest::sha1, digest.value()};
}

bool isGain(std::size_t packed, std::size_t plain)
{
    return packed < plain && plain - packed >= plain * leastGain / 100;
}

template <typename Entry, typename Get>
QByteArray nameOfId(std::map<std::uint32_t, QByteArray> &known, std::uint32_t id, Get get, char *Entry::*name)
{
    const auto it = known.find(id);
    if (it != known.end())
        return it->second;
    std::vector<char> buffer(std::size_t(16) << 10);
    Entry entry{};
    Entry *found = nullptr;
    QByteArray result;
    if (get(id, &entry, buffer.data(), buffer.size(), &found) == 0 && found)
        result = found->*name;
    known.emplace(id, result);
    return result;
}

} // namespace

/// A part of a large file.
struct CVXarWriter::Piece
{
    std::uint64_t offset = 0;
    std::size_t size = 0;
    std::vector<char> plain, packed;
    int error = 0;
    bool done = false;
};

/// A file on its way into the heap. What a thread has claimed is its own until it says that it is done.
struct CVXarWriter::Item
{
    enum class State { New, Opening, Pieces, Whole, Failed };

    xar_file *file = nullptr;
    QByteArray path;
    std::uint64_t size = 0; ///< when it was added
    State state = State::New;
    int error = 0;
    bool compress = true;

    std::vector<char> data; // of a whole one, as it goes into the heap

    LXFileDescriptor fd; // of one in pieces, and what follows
    std::deque<Piece> pieces;
    std::uint64_t claimed = 0; // bytes of it
    bool begun = false;
    std::atomic<bool> endedEarly = false; // also read by who looks for work
    CVXarDigest extracted, archived;
    std::uint32_t checksum = CVXarDeflater::initialChecksum;
};

LXResult<std::unique_ptr<CVXarWriter>> CVXarWriter::open(const QByteArray &path)
{
    std::unique_ptr<CVXarWriter> writer(new CVXarWriter);
    writer->m_path = path;
    if (const int error = writer->m_heap.open(path))
        return system(error, path);
    const unsigned threads = std::clamp(std::thread::hardware_concurrency(), 1U, maxThreads);
    for (unsigned i = 0; i < threads; ++i)
        writer->m_threads.emplace_back([w = writer.get()] { w->work(); });
    return writer;
}

CVXarWriter::CVXarWriter() = default;

CVXarWriter::~CVXarWriter()
{
    cancel();
    stopThreads();
    m_heap.abandon();
}

void CVXarWriter::cancel()
{
    m_cancelled = true;
    {
        const std::lock_guard lock(m_mutex);
        if (!m_error)
            m_error = stopped();
    }
    m_changed.notify_all();
}

void CVXarWriter::stopThreads()
{
    {
        const std::lock_guard lock(m_mutex);
        m_ending = true;
    }
    m_changed.notify_all();
    for (std::thread &thread : m_threads)
        thread.join();
    m_threads.clear();
}

void CVXarWriter::fail(const LXError &error)
{
    const std::lock_guard lock(m_mutex);
    if (!m_error)
        m_error = error;
    m_changed.notify_all();
}

// ---- adding ----

xar_file_t CVXarWriter::add(xar_file_t parent, const QByteArray &name, const QByteArray &path)
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_error)
            return nullptr;
    }
    struct stat info;
    if (::lstat(path.constData(), &info) != 0) {
        fail(system(errno, path));
        return nullptr;
    }
    xar_file file;
    file.parent = parent;
    file.id = m_files.size() + 1;
    file.name = name;
    file.mode = info.st_mode & 07777U;
    file.hasMode = true;
    file.uid = info.st_uid;
    file.gid = info.st_gid;
    file.user = nameOfId<passwd>(m_users, info.st_uid, ::getpwuid_r, &passwd::pw_name);
    file.group = nameOfId<group>(m_groups, info.st_gid, ::getgrgid_r, &group::gr_name);
    // When it was read or linked to last says something about the packing, not about the file, and would make
    // every archive of the same files another one.
    file.modified = info.st_mtim.tv_sec;

    if (S_ISDIR(info.st_mode)) {
        file.type = xar_file::Type::directory;
    } else if (S_ISLNK(info.st_mode)) {
        file.type = xar_file::Type::symlink;
        file.target.resize(PATH_MAX);
        const ssize_t size = ::readlink(path.constData(), file.target.data(), PATH_MAX);
        if (size < 0) {
            fail(system(errno, path));
            return nullptr;
        }
        file.target.truncate(size);
    } else if (!S_ISREG(info.st_mode)) {
        LXError error = system(ENOTSUP, path);
        error.reason = text("It is a device, a pipe or a socket.");
        fail(error);
        return nullptr;
    }
    if (file.type != xar_file::Type::file)
        return &m_files.emplace_back(std::move(file));

    if (info.st_nlink > 1) {
        xar_file *&known = m_linked[{info.st_dev, info.st_ino}];
        if (known) {
            known->isOriginal = true;
            file.type = xar_file::Type::hardlink;
            file.original = known;
            return &m_files.emplace_back(std::move(file));
        }
        known = &m_files.emplace_back(std::move(file));
    } else {
        m_files.push_back(std::move(file));
    }
    if (info.st_size == 0)
        return &m_files.back();

    auto item = std::make_unique<Item>();
    item->file = &m_files.back();
    item->path = path;
    item->size = static_cast<std::uint64_t>(info.st_size);
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_items.size() < maxItemsAhead || m_error; });
    if (m_error)
        return nullptr;
    m_items.push_back(std::move(item));
    lock.unlock();
    m_changed.notify_all();
    return &m_files.back();
}

// ---- reading and compressing ----

void CVXarWriter::work()
{
    CVXarDeflater deflater;
    std::unique_lock lock(m_mutex);
    while (!m_error && !(m_ending && m_items.empty())) {
        if (claim(lock, deflater))
            commit(lock);
        else
            m_changed.wait(lock);
    }
}

bool CVXarWriter::mayTake(std::uint64_t bytes, bool isNext) const
{
    // The next one is always let through: everything else waits for it.
    return isNext || m_bytesAhead + bytes <= maxBytesAhead;
}

/// Does the next thing that nobody else does. False: there is nothing to do now.
bool CVXarWriter::claim(std::unique_lock<std::mutex> &lock, CVXarDeflater &deflater)
{
    for (const std::unique_ptr<Item> &candidate : m_items) {
        Item &item = *candidate;
        const bool isNext = candidate == m_items.front();
        if (item.state == Item::State::New) {
            // Its data and what becomes of it.
            const std::uint64_t bytes = item.size <= maxWholeBytes ? 2 * item.size : 0;
            if (!mayTake(bytes, isNext))
                return false;
            m_bytesAhead += bytes;
            item.state = Item::State::Opening;
            lock.unlock();
            openItem(item, deflater);
            lock.lock();
            if (bytes > 0)
                m_bytesAhead -= bytes - item.data.size();
            item.state = item.error ? Item::State::Failed : bytes ? Item::State::Whole : Item::State::Pieces;
            m_changed.notify_all();
            return true;
        }
        if (item.state == Item::State::Pieces && item.claimed < item.size && !item.endedEarly) {
            const std::uint64_t size = std::min(pieceBytes, item.size - item.claimed);
            if (!mayTake(2 * size, isNext && item.pieces.empty()))
                return false;
            m_bytesAhead += 2 * size;
            Piece &piece = item.pieces.emplace_back();
            piece.offset = item.claimed;
            piece.size = static_cast<std::size_t>(size);
            item.claimed += size;
            lock.unlock();
            packPiece(item, piece, deflater);
            lock.lock();
            piece.done = true;
            return true;
        }
    }
    return false;
}

void CVXarWriter::openItem(Item &item, CVXarDeflater &deflater)
{
    // O_NONBLOCK: should it have become a pipe meanwhile.
    item.fd = LXFileDescriptor(::open(item.path.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat info;
    if (!item.fd.isOpen() || ::fstat(item.fd.get(), &info) != 0) {
        item.error = errno;
        return;
    }
    if (!S_ISREG(info.st_mode)) {
        item.error = ESTALE;
        return;
    }
    if (item.size <= maxWholeBytes) {
        packWhole(item, item.size, deflater);
        item.fd.reset();
        return;
    }
    std::vector<char> plain, packed;
    std::size_t before = 0, after = 0;
    for (std::uint64_t i = 0; i < probes && item.error == 0; ++i) {
        item.error = readAt(item.fd.get(), (item.size - probeBytes) / (probes - 1) * i, probeBytes, plain);
        if (plain.empty())
            continue;
        deflater.piece(plain, packed);
        before += plain.size();
        after += packed.size();
    }
    item.compress = isGain(after, before);
}

void CVXarWriter::packWhole(Item &item, std::uint64_t size, CVXarDeflater &deflater)
{
    // Kept for the next file: fresh memory costs more than small files do.
    thread_local std::vector<char> plain, packed;
    item.error = readAt(item.fd.get(), 0, static_cast<std::size_t>(size), plain);
    xar_file &file = *item.file;
    file.size = plain.size();
    file.extracted = sha1(plain);
    deflater.whole(plain, packed);
    item.compress = packed.size() < plain.size();
    const std::vector<char> &data = item.compress ? packed : plain;
    item.data.assign(data.begin(), data.end());
    file.archived = item.compress ? sha1(item.data) : file.extracted;
}

void CVXarWriter::packPiece(const Item &item, Piece &piece, CVXarDeflater &deflater)
{
    piece.error = readAt(item.fd.get(), piece.offset, piece.size, piece.plain);
    if (item.compress && !piece.plain.empty())
        deflater.piece(piece.plain, piece.packed);
}

// ---- writing ----

/// Puts into the heap what is next and ready. By one thread at a time, which takes along what the others
/// get ready meanwhile.
void CVXarWriter::commit(std::unique_lock<std::mutex> &lock)
{
    if (m_committing)
        return;
    m_committing = true;
    while (!m_items.empty() && !m_error) {
        Item &item = *m_items.front();
        LXResult<void> result;
        bool finished = false;
        if (item.state == Item::State::Failed) {
            result = system(item.error, item.path);
        } else if (item.state == Item::State::Whole) {
            lock.unlock();
            result = commitWhole(item);
            lock.lock();
            m_bytesAhead -= item.data.size();
            finished = true;
        } else if (item.state == Item::State::Pieces && !item.pieces.empty() && item.pieces.front().done) {
            // Others may append pieces meanwhile; that leaves this one where it is.
            Piece &piece = item.pieces.front();
            lock.unlock();
            result = commitPiece(item, piece);
            lock.lock();
            m_bytesAhead -= 2 * piece.size;
            item.pieces.pop_front();
            finished = item.pieces.empty() && (item.claimed == item.size || item.endedEarly);
            if (finished && result) {
                lock.unlock();
                result = commitEnd(item);
                lock.lock();
            }
        } else {
            break;
        }
        if (!result && !m_error)
            m_error = result.error();
        if (finished)
            m_items.pop_front();
        m_changed.notify_all();
    }
    m_committing = false;
}

LXResult<void> CVXarWriter::append(std::span<const char> data)
{
    if (const int error = m_heap.append(data))
        return system(error, m_path);
    return {};
}

LXResult<void> CVXarWriter::commitWhole(Item &item)
{
    xar_file &file = *item.file;
    file.hasData = !item.data.empty();
    file.offset = m_heap.size();
    file.length = item.data.size();
    file.encoding = item.compress ? xar_file::Encoding::zlib : xar_file::Encoding::raw;
    return append(item.data);
}

LXResult<void> CVXarWriter::commitPiece(Item &item, Piece &piece)
{
    if (piece.error)
        return system(piece.error, item.path);
    xar_file &file = *item.file;
    const auto put = [&](std::span<const char> data) {
        item.archived.add(data);
        file.length += data.size();
        return append(data);
    };
    if (!item.begun) {
        item.begun = true;
        file.hasData = true;
        file.offset = m_heap.size();
        file.encoding = item.compress ? xar_file::Encoding::zlib : xar_file::Encoding::raw;
        if (item.compress)
            if (auto result = put(CVXarDeflater::head()); !result)
                return result;
    }
    // What comes after an end that was not there before belongs to no one state of the file.
    if (item.endedEarly)
        return {};
    item.endedEarly = piece.plain.size() < piece.size;
    file.size += piece.plain.size();
    item.extracted.add(piece.plain);
    item.checksum = CVXarDeflater::checksum(item.checksum, piece.plain);
    return put(item.compress ? piece.packed : piece.plain);
}

LXResult<void> CVXarWriter::commitEnd(Item &item)
{
    xar_file &file = *item.file;
    file.extracted = {xar_digest::sha1, item.extracted.value()};
    if (!item.compress) {
        file.archived = file.extracted;
        file.hasData = file.size > 0;
        return {};
    }
    const std::vector<char> end = CVXarDeflater::end(item.checksum);
    item.archived.add(end);
    file.length += end.size();
    file.archived = {xar_digest::sha1, item.archived.value()};
    return append(end);
}

LXResult<void> CVXarWriter::close()
{
    stopThreads();
    {
        const std::lock_guard lock(m_mutex);
        if (m_error) {
            m_heap.abandon();
            return *m_error;
        }
    }
    CVXarDeflater deflater;
    const std::vector<char> front = CVXarTable::front(m_files, m_heap.spilledAt(), deflater, m_cancelled);
    int error = front.empty() ? ECANCELED : m_heap.finish(front, m_cancelled);
    if (m_cancelled)
        error = ECANCELED;
    if (error == 0)
        return {};
    m_heap.abandon();
    return error == ECANCELED ? stopped() : system(error, m_path);
}
