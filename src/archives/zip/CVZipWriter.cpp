#include "archives/zip/CVZipWriter.h"

#include "archives/zip/CVZipCipher.h"
#include "util/LXDeflater.h"

#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr std::size_t kibi = 1024, mebi = kibi * kibi;

// Larger files are cut into pieces of equal size, at most this. Every piece begins without knowing what was
// before it, which costs a thousandth.
constexpr std::size_t maxPieceBytes = 4 * mebi;
// What is given to a thread at once.
constexpr std::size_t maxGroupBytes = 512 * kibi;
constexpr std::size_t maxGroupEntries = 256;
// What may be compressed ahead of what is written; each thread has a file and its compressor's memory
// besides.
constexpr std::size_t maxBytesAhead = 64 * mebi;
constexpr std::size_t maxUnitsAhead = 512;
constexpr unsigned maxThreads = 16, maxSlowThreads = 10;

// Most large files are media that have been compressed already. A few places tell.
constexpr std::size_t probeBytes = 16 * kibi;
constexpr std::size_t fewestBytesToProbe = 4 * probeBytes;
constexpr std::size_t probesOfWhole = 3, probesOfLarge = 16;
constexpr int probeLevel = 1;
constexpr std::size_t leastGain = 2; // in hundredths

/// Of the library, so that the result is no larger than that of 7-Zip at the given level, by a thousandth at
/// most from 7 on and below 4. In the middle the library has nothing between two hundredths larger in a
/// quarter of the time and one smaller in the same; there the time counts.
int libraryLevel(int level)
{
    constexpr int levels[] = {0, 4, 4, 4, 8, 8, 8, 10, 10, 12};
    return levels[std::clamp(level, 0, 9)];
}

/// Up to `size` bytes, fewer when the file ends. Below zero: failed, see errno.
ssize_t readAt(int file, std::uint64_t offset, char *to, std::size_t size)
{
    std::size_t got = 0;
    while (got < size) {
        const ssize_t n = ::pread(file, to + got, size - got, static_cast<off_t>(offset + got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        got += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(got);
}

/// A regular file. Neither a link nor a pipe that came into its place is followed or waited for.
int openFile(const std::string &path, LXFileDescriptor &file)
{
    file = LXFileDescriptor(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat info;
    if (!file.isOpen() || ::fstat(file.get(), &info) != 0)
        return errno;
    return S_ISREG(info.st_mode) ? 0 : ESTALE;
}

bool isGain(std::size_t packed, std::size_t plain)
{
    return packed < plain && plain - packed >= plain * leastGain / 100;
}

} // namespace

/// A file in pieces.
struct CVZipWriter::Large
{
    CVZipEntry entry;
    LXFileDescriptor file;
    std::uint64_t size = 0; ///< when it was opened
    std::once_flag isProbed;
    bool compress = true;

    // Of whoever commits.
    bool isBegun = false;
    bool hasEnded = false; ///< earlier than it should
    std::optional<CVZipCipher> cipher;
};

/// What a thread does at once: some entries or a piece of a large file.
struct CVZipWriter::Unit
{
    std::vector<CVZipEntry> entries;
    std::vector<int> errors; ///< for each entry
    std::unique_ptr<char[]> data;
    std::size_t dataBytes = 0;

    std::shared_ptr<Large> large;
    std::uint64_t offset = 0;
    std::size_t size = 0;
    bool isLast = false;
    std::vector<char> packed;
    std::uint32_t checksum = 0;
    std::size_t plainBytes = 0;
    int error = 0;

    std::size_t bytes = 0; ///< of memory
    bool isDone = false;
};

/// What each thread has.
class CVZipWriter::Tools
{
public:
    explicit Tools(int level)
        : m_deflater(std::max(libraryLevel(level), 1))
        , m_prober(probeLevel)
        , m_plain(std::make_unique_for_overwrite<char[]>(maxPieceBytes))
    {}

    LXDeflater &deflater() { return m_deflater; }
    char *plain() { return m_plain.get(); }

    bool shrinks(std::span<const char> plain)
    {
        char packed[probeBytes];
        const std::size_t size = m_prober.whole(plain, packed, sizeof packed);
        return size > 0 && isGain(size, plain.size());
    }

    /// Of all that is in memory.
    bool mayShrink(std::span<const char> plain)
    {
        if (plain.size() < fewestBytesToProbe)
            return true;
        for (std::size_t i = 0; i < probesOfWhole; ++i)
            if (shrinks(plain.subspan((plain.size() - probeBytes) / (probesOfWhole - 1) * i, probeBytes)))
                return true;
        return false;
    }

private:
    LXDeflater m_deflater, m_prober;
    std::unique_ptr<char[]> m_plain;
};

CVZipWriter::CVZipWriter(CVZipVolumes &volumes, Options options, Complain left)
    : m_volumes(volumes)
    , m_options(std::move(options))
    , m_left(std::move(left))
{}

CVZipWriter::~CVZipWriter() = default;

int CVZipWriter::pack()
{
    const bool isSlow = libraryLevel(m_options.level) >= LXDeflater::slowLevel;
    const unsigned cores = m_options.threads ? m_options.threads : std::thread::hardware_concurrency();
    {
        std::vector<std::jthread> threads(std::clamp(cores, 1U, isSlow ? maxSlowThreads : maxThreads));
        for (std::jthread &thread : threads)
            thread = std::jthread([this] { work(); });
        CVZipTree tree({[this](CVZipTree::Node &&node) { return visit(std::move(node)); },
                        [this](int error, const std::string &path) { m_left(error, path); }});
        try {
            tree.walk();
            addGroup();
        } catch (const std::bad_alloc &) {
            fail(ENOMEM, {}); // the others are to end before it goes on
        }
        {
            const std::lock_guard lock(m_mutex);
            m_isWalked = true;
        }
        m_changed.notify_all();
    }
    if (m_error == 0)
        fail(writeEnd(), {});
    return m_error;
}

int CVZipWriter::writeEnd()
{
    const std::uint64_t at = m_volumes.size();
    for (const std::string &block : m_central)
        if (const int error = m_volumes.append(block))
            return error;
    if (const int error = m_volumes.append(CVZipRecords::end(m_entries, at, m_volumes.size() - at)))
        return error;
    return m_volumes.finish();
}

// ---- walking ----

bool CVZipWriter::visit(CVZipTree::Node &&node)
{
    const bool isFile = S_ISREG(node.mode);
    if (isFile && m_volumes.isOwn(node.device, node.inode))
        return true;
    if (!isFile && !S_ISDIR(node.mode) && !S_ISLNK(node.mode)) {
        m_left(ENOTSUP, node.path);
        return true;
    }
    CVZipEntry entry;
    entry.name = std::move(node.path);
    if (S_ISDIR(node.mode))
        entry.name += '/';
    entry.mode = node.mode;
    entry.seconds = node.modified.tv_sec;
    entry.nanoseconds = static_cast<std::uint32_t>(node.modified.tv_nsec);
    entry.isEncrypted = m_options.password && !S_ISDIR(node.mode);
    entry.size = S_ISDIR(node.mode) ? 0 : node.size;
    if (isFile && entry.size > maxPieceBytes)
        return addGroup() && addLarge(std::move(entry));

    const std::size_t bytes =
        CVZipRecords::localBytes(entry) + CVZipCipher::headBytes + static_cast<std::size_t>(entry.size);
    if (m_group && (m_group->bytes + bytes > maxGroupBytes || m_group->entries.size() == maxGroupEntries))
        if (!addGroup())
            return false;
    if (!m_group)
        m_group = std::make_unique<Unit>();
    m_group->bytes += bytes;
    m_group->entries.push_back(std::move(entry));
    return true;
}

bool CVZipWriter::addGroup()
{
    return !m_group || push(std::move(m_group));
}

bool CVZipWriter::addLarge(CVZipEntry &&entry)
{
    const auto large = std::make_shared<Large>();
    if (const int error = openFile(entry.name, large->file)) {
        m_left(error, entry.name);
        return true;
    }
    large->size = entry.size;
    large->entry = std::move(entry);
    const std::uint64_t pieces = (large->size + maxPieceBytes - 1) / maxPieceBytes;
    const std::uint64_t each = (large->size + pieces - 1) / pieces;
    for (std::uint64_t at = 0; at < large->size; at += each) {
        auto unit = std::make_unique<Unit>();
        unit->large = large;
        unit->offset = at;
        unit->size = static_cast<std::size_t>(std::min(each, large->size - at));
        unit->bytes = unit->size;
        unit->isLast = at + each >= large->size;
        if (!push(std::move(unit)))
            return false;
    }
    return true;
}

bool CVZipWriter::push(std::unique_ptr<Unit> unit)
{
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_units.size() < maxUnitsAhead || m_error; });
        if (m_error)
            return false;
        m_units.push_back(std::move(unit));
    }
    m_changed.notify_all();
    return true;
}

// ---- reading and compressing ----

void CVZipWriter::work()
try {
    Tools tools(m_options.level);
    std::unique_lock lock(m_mutex);
    while (!m_error && !(m_isWalked && m_units.empty())) {
        if (claim(lock, tools))
            commit(lock);
        else
            m_changed.wait(lock);
    }
} catch (const std::bad_alloc &) {
    fail(ENOMEM, {});
}

/// Does the next thing that nobody else does. False: there is nothing to do now.
bool CVZipWriter::claim(std::unique_lock<std::mutex> &lock, Tools &tools)
{
    if (m_claimed == m_units.size())
        return false;
    Unit &unit = *m_units[m_claimed];
    // The first one is always let through: everything else waits for it.
    if (m_claimed > 0 && m_bytesAhead + unit.bytes > maxBytesAhead)
        return false;
    m_bytesAhead += unit.bytes;
    ++m_claimed;
    lock.unlock();
    if (unit.large)
        packPiece(unit, tools);
    else
        packGroup(unit, tools);
    lock.lock();
    unit.isDone = true;
    return true;
}

void CVZipWriter::packGroup(Unit &unit, Tools &tools) const
{
    unit.data = std::make_unique_for_overwrite<char[]>(unit.bytes);
    unit.errors.assign(unit.entries.size(), 0);
    for (std::size_t i = 0; i < unit.entries.size(); ++i) {
        CVZipEntry &entry = unit.entries[i];
        entry.offset = unit.dataBytes; // in this group, for now
        char *const record = unit.data.get() + unit.dataBytes;
        char *const data = record + CVZipRecords::localBytes(entry);
        int error = 0;
        if (S_ISREG(entry.mode))
            error = packFile(entry, data + (entry.isEncrypted ? CVZipCipher::headBytes : 0), tools);
        else if (S_ISLNK(entry.mode))
            error = storeLink(entry, data + (entry.isEncrypted ? CVZipCipher::headBytes : 0));
        if (error == 0 && entry.isEncrypted)
            error = encrypt(entry, data);
        unit.errors[i] = error;
        if (error != 0)
            continue;
        CVZipRecords::putLocal(entry, record);
        unit.dataBytes += CVZipRecords::localBytes(entry) + static_cast<std::size_t>(entry.packedBytes);
    }
}

/// There is room for as many bytes as the file had when it was seen; more are not taken.
int CVZipWriter::packFile(CVZipEntry &entry, char *to, Tools &tools) const
{
    LXFileDescriptor file;
    if (const int error = openFile(entry.name, file))
        return error;
    const bool compress = libraryLevel(m_options.level) > 0;
    char *const plain = compress ? tools.plain() : to;
    const ssize_t got = readAt(file.get(), 0, plain, static_cast<std::size_t>(entry.size));
    if (got < 0)
        return errno;
    const std::span<const char> data(plain, static_cast<std::size_t>(got));
    entry.size = entry.packedBytes = data.size();
    entry.checksum = libdeflate_crc32(0, data.data(), data.size());
    if (!compress || data.empty())
        return 0;
    const std::size_t packed = tools.mayShrink(data) ? tools.deflater().whole(data, to, data.size() - 1) : 0;
    if (packed > 0) {
        entry.method = CVZipEntry::Method::Deflated;
        entry.packedBytes = packed;
    } else {
        std::memcpy(to, data.data(), data.size());
    }
    return 0;
}

int CVZipWriter::storeLink(CVZipEntry &entry, char *to) const
{
    char target[PATH_MAX];
    const ssize_t size = ::readlink(entry.name.c_str(), target, sizeof target);
    if (size < 0)
        return errno;
    if (static_cast<std::uint64_t>(size) > entry.size)
        return ESTALE;
    std::memcpy(to, target, static_cast<std::size_t>(size));
    entry.size = entry.packedBytes = static_cast<std::uint64_t>(size);
    entry.checksum = libdeflate_crc32(0, target, static_cast<std::size_t>(size));
    return 0;
}

int CVZipWriter::encrypt(CVZipEntry &entry, char *head) const
{
    CVZipCipher cipher(*m_options.password);
    if (!cipher.head(static_cast<std::uint8_t>(entry.checksum >> 24),
                     std::span<char, CVZipCipher::headBytes>(head, CVZipCipher::headBytes)))
        return errno;
    cipher.encrypt({head + CVZipCipher::headBytes, static_cast<std::size_t>(entry.packedBytes)});
    entry.packedBytes += CVZipCipher::headBytes;
    return 0;
}

void CVZipWriter::packPiece(Unit &unit, Tools &tools) const
{
    Large &large = *unit.large;
    const int file = large.file.get();
    std::call_once(large.isProbed, [&] {
        large.compress = false;
        if (libraryLevel(m_options.level) == 0)
            return;
        for (std::size_t i = 0; i < probesOfLarge && !large.compress; ++i) {
            const std::uint64_t at = (large.size - probeBytes) / (probesOfLarge - 1) * i;
            const ssize_t got = readAt(file, at, tools.plain(), probeBytes);
            large.compress = got > 0 && tools.shrinks({tools.plain(), static_cast<std::size_t>(got)});
        }
    });
    if (!large.compress)
        unit.packed.resize(unit.size);
    char *const plain = large.compress ? tools.plain() : unit.packed.data();
    const ssize_t got = readAt(file, unit.offset, plain, unit.size);
    if (got < 0) {
        unit.error = errno;
        return;
    }
    const std::span<const char> data(plain, static_cast<std::size_t>(got));
    unit.plainBytes = data.size();
    unit.checksum = libdeflate_crc32(0, data.data(), data.size());
    if (!large.compress)
        unit.packed.resize(data.size());
    else if (tools.mayShrink(data))
        tools.deflater().piece(data, unit.packed);
    else
        LXDeflater::appendStored(data, unit.packed);
}

// ---- writing ----

/// Writes what is next and ready. By one thread at a time, which takes along what the others get ready.
void CVZipWriter::commit(std::unique_lock<std::mutex> &lock)
{
    if (m_isCommitting)
        return;
    m_isCommitting = true;
    while (m_claimed > 0 && m_units.front()->isDone && !m_error) {
        Unit &unit = *m_units.front();
        lock.unlock();
        const int error = unit.error ? unit.error : unit.large ? commitPiece(unit) : commitGroup(unit);
        const std::string path = unit.error ? unit.large->entry.name : std::string();
        fail(error, path);
        lock.lock();
        m_bytesAhead -= unit.bytes;
        --m_claimed;
        const std::unique_ptr<Unit> gone = std::move(m_units.front());
        m_units.pop_front();
        m_changed.notify_all();
    }
    m_isCommitting = false;
}

int CVZipWriter::commitGroup(Unit &unit)
{
    const std::uint64_t at = m_volumes.size();
    for (std::size_t i = 0; i < unit.entries.size(); ++i) {
        CVZipEntry &entry = unit.entries[i];
        if (unit.errors[i] != 0) {
            m_left(unit.errors[i], entry.name);
            continue;
        }
        entry.offset += at;
        addToCentral(entry);
    }
    return m_volumes.append({unit.data.get(), unit.dataBytes});
}

int CVZipWriter::commitPiece(Unit &unit)
{
    Large &large = *unit.large;
    int error = large.isBegun ? 0 : beginLarge(large);
    // What comes after an end that was not there before belongs to no one state of the file.
    if (!large.hasEnded && error == 0) {
        CVZipEntry &entry = large.entry;
        entry.checksum = static_cast<std::uint32_t>(
            ::crc32_combine(entry.checksum, unit.checksum, static_cast<z_off_t>(unit.plainBytes)));
        entry.size += unit.plainBytes;
        large.hasEnded = unit.plainBytes < unit.size;
        if (unit.isLast || large.hasEnded)
            if (large.compress)
                unit.packed.insert(unit.packed.end(), std::begin(LXDeflater::endOfPieces),
                                   std::end(LXDeflater::endOfPieces));
        if (large.cipher)
            large.cipher->encrypt(unit.packed);
        entry.packedBytes += unit.packed.size();
        error = m_volumes.append(unit.packed);
    }
    return unit.isLast && error == 0 ? endLarge(large) : error;
}

/// The record before the data has its place only; what it says is known at the end.
int CVZipWriter::beginLarge(Large &large)
{
    constexpr std::uint64_t largeFrom = std::uint64_t(1) << 32;
    CVZipEntry &entry = large.entry;
    large.isBegun = true;
    entry.method = large.compress ? CVZipEntry::Method::Deflated : CVZipEntry::Method::Stored;
    // Where nothing shrinks every 64 KiB get five bytes more.
    entry.isLarge = large.size + large.size / kibi + mebi >= largeFrom;
    entry.offset = m_volumes.size();
    entry.size = 0;
    std::vector<char> head(CVZipRecords::localBytes(entry));
    if (entry.isEncrypted) {
        entry.hasDescriptor = true; // its checksum is not known yet, and readers compare the time then
        entry.packedBytes = CVZipCipher::headBytes;
        head.resize(head.size() + CVZipCipher::headBytes);
        large.cipher.emplace(*m_options.password);
        const std::uint32_t time = CVZipRecords::dosTime(entry.seconds, entry.nanoseconds);
        if (!large.cipher->head(static_cast<std::uint8_t>(time >> 8),
                                std::span(head).last<CVZipCipher::headBytes>()))
            return errno;
    }
    return m_volumes.append(head);
}

int CVZipWriter::endLarge(Large &large)
{
    const CVZipEntry &entry = large.entry;
    if (entry.hasDescriptor)
        if (const int error = m_volumes.append(CVZipRecords::descriptor(entry)))
            return error;
    std::vector<char> record(CVZipRecords::localBytes(entry));
    CVZipRecords::putLocal(entry, record.data());
    addToCentral(entry);
    return m_volumes.writeAt(entry.offset, record);
}

void CVZipWriter::addToCentral(const CVZipEntry &entry)
{
    if (m_central.empty() || m_central.back().size() > mebi) {
        m_central.emplace_back();
        m_central.back().reserve(mebi + 128 * kibi); // a record has at most 64 KiB and a little
    }
    CVZipRecords::appendCentral(entry, m_central.back());
    ++m_entries;
}

void CVZipWriter::fail(int error, const std::string &path)
{
    {
        const std::lock_guard lock(m_mutex);
        if (error == 0 || m_error != 0)
            return;
        m_error = error;
        m_failedPath = path;
    }
    m_changed.notify_all();
}
