#include "archives/xar/CVXarReader.h"

#include "archives/xar/CVXarDigest.h"
#include "archives/xar/CVXarErrors.h"
#include "archives/xar/CVXarInflater.h"
#include "archives/xar/CVXarTable.h"

#include <QtEndian>

#include <libdeflate.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

using namespace CVXarErrors;

constexpr std::size_t blockBytes = std::size_t(256) << 10;
// Up to here files are unpacked in one piece, which is faster.
constexpr std::uint64_t maxWholeBytes = std::uint64_t(2) << 20;

struct FreeDecompressor
{
    void operator()(libdeflate_decompressor *decompressor) const
    {
        libdeflate_free_decompressor(decompressor);
    }
};

/// What one thread needs to unpack, kept from file to file.
struct Workspace
{
    std::unique_ptr<libdeflate_decompressor, FreeDecompressor> decompressor{libdeflate_alloc_decompressor()};
    std::vector<char> in, out;
};

Workspace &workspace()
{
    thread_local Workspace own;
    return own;
}

LXResult<void> compare(CVXarDigest &digest, const xar_checksum &expected)
{
    if (expected.algorithm != xar_digest::none && digest.value() != expected.value)
        return damaged(text("Its checksum does not fit."));
    return {};
}

} // namespace

LXResult<std::unique_ptr<CVXarReader>> CVXarReader::open(LXFileDescriptor file)
{
    auto reader = std::make_unique<CVXarReader>();
    reader->m_fd = std::move(file);
    struct stat info;
    if (!reader->m_fd.isOpen() || ::fstat(reader->m_fd.get(), &info) != 0)
        return system(errno, {});
    if (!S_ISREG(info.st_mode))
        return system(EINVAL, {});
    reader->m_fileBytes = static_cast<std::uint64_t>(info.st_size);
    if (auto result = reader->readTable(); !result)
        return result.error();
    return reader;
}

LXResult<void> CVXarReader::read(std::uint64_t offset, std::uint64_t size,
                                 const std::function<LXResult<void>(std::span<const char>)> &take) const
{
    std::vector<char> &block = workspace().in;
    while (size > 0) {
        const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(size, blockBytes));
        block.resize(std::max(block.size(), wanted));
        const ssize_t n = ::pread(m_fd.get(), block.data(), wanted, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return system(errno, {});
        if (n == 0)
            return damaged(text("It is cut off."));
        if (auto result = take({block.data(), static_cast<std::size_t>(n)}); !result)
            return result;
        offset += static_cast<std::uint64_t>(n);
        size -= static_cast<std::uint64_t>(n);
    }
    return {};
}

LXResult<void> CVXarReader::readTable()
{
    QByteArray header;
    const auto takeHeader = [&](std::span<const char> data) -> LXResult<void> {
        header.append(data.data(), static_cast<qsizetype>(data.size()));
        return {};
    };
    if (m_fileBytes < CVXarTable::headerBytes)
        return damaged(text("It is no XAR archive."));
    if (auto result = read(0, std::min<std::uint64_t>(m_fileBytes, 128), takeHeader); !result)
        return result;
    const char *const bytes = header.constData();
    const std::uint64_t headerSize = qFromBigEndian<quint16>(bytes + 4);
    const std::uint64_t packed = qFromBigEndian<quint64>(bytes + 8);
    const std::uint64_t plain = qFromBigEndian<quint64>(bytes + 16);
    const std::uint32_t number = qFromBigEndian<quint32>(bytes + 24);
    if (!header.startsWith("xar!") || headerSize < CVXarTable::headerBytes || headerSize > m_fileBytes)
        return damaged(text("It is no XAR archive."));
    if (packed > m_fileBytes - headerSize)
        return damaged(text("It is cut off."));
    if (packed > maxPackedTableBytes || plain > CVXarTableParser::maxTableBytes)
        return damaged(text("Its table of contents is too large."));
    m_heapAt = headerSize + packed;

    static constexpr xar_digest numbered[] = {xar_digest::none, xar_digest::sha1, xar_digest::md5,
                                              xar_digest::sha256, xar_digest::sha512};
    xar_digest algorithm = number < std::size(numbered) ? numbered[number] : xar_digest::unknown;
    // A longer header names the algorithm instead.
    if (number >= 3 && headerSize >= 32 && header.size() >= 32) {
        const QByteArray name = header.mid(28, static_cast<qsizetype>(headerSize) - 28);
        const xar_digest named =
            CVXarDigest::fromName(QString::fromLatin1(name.left(std::max<qsizetype>(0, name.indexOf('\0')))));
        if (named != xar_digest::unknown)
            algorithm = named;
    }
    if (algorithm == xar_digest::unknown)
        return notSupported(text("Its table of contents has a checksum of an unknown kind."));

    CVXarDigest digest(algorithm);
    CVXarTableParser parser(m_files);
    const auto inflater = CVXarInflater::create(xar_file::Encoding::zlib, decoderMemoryLimit);
    QByteArray piece(static_cast<qsizetype>(blockBytes), Qt::Uninitialized);
    std::uint64_t made = 0;
    bool ended = false;
    auto result = read(headerSize, packed, [&](std::span<const char> in) -> LXResult<void> {
        digest.add(in);
        while (!ended) {
            std::size_t count = 0;
            const auto step =
                inflater->step(in, {piece.data(), static_cast<std::size_t>(piece.size())}, count);
            made += count;
            if (step == CVXarInflater::Step::Damaged || made > plain)
                return damaged(text("Its table of contents is damaged."));
            if (!parser.add(piece.left(static_cast<qsizetype>(count))))
                return damaged(parser.error());
            ended = step == CVXarInflater::Step::Ended;
            if (in.empty() && count < static_cast<std::size_t>(piece.size()))
                break;
        }
        return {};
    });
    if (!result)
        return result;
    if (!ended || made != plain)
        return damaged(text("Its table of contents is damaged."));
    if (!parser.finish())
        return damaged(parser.error());
    if (algorithm == xar_digest::none)
        return {};

    const auto place = parser.checksum();
    const QByteArray expected = digest.value();
    const std::uint64_t heapBytes = m_fileBytes - m_heapAt;
    if (!place || place->algorithm != algorithm || place->offset > heapBytes ||
        place->size > heapBytes - place->offset || place->size != static_cast<std::uint64_t>(expected.size()))
        return damaged(text("The checksum of its table of contents is missing."));
    QByteArray stored;
    result = read(m_heapAt + place->offset, place->size, [&](std::span<const char> in) -> LXResult<void> {
        stored.append(in.data(), static_cast<qsizetype>(in.size()));
        return {};
    });
    if (result && stored != expected)
        return damaged(text("The checksum of its table of contents does not fit."));
    return result;
}

LXResult<void> CVXarReader::extract(const xar_file &file, const xar_receiver &receiver) const
{
    if (!file.hasData)
        return file.size == 0 ? LXResult<void>() : damaged(text("It has no data."));
    const std::uint64_t heapBytes = m_fileBytes - m_heapAt;
    if (file.offset > heapBytes || file.length > heapBytes - file.offset)
        return damaged(text("Its data is outside of the file; the archive may be cut off."));
    const auto inflater = CVXarInflater::create(file.encoding, decoderMemoryLimit);
    if (!inflater)
        return notSupported(text("It is compressed by an unknown method."));
    if (file.archived.algorithm == xar_digest::unknown || file.extracted.algorithm == xar_digest::unknown)
        return notSupported(text("Its checksum is of an unknown kind."));
    if (file.encoding == xar_file::Encoding::zlib && file.length <= maxWholeBytes &&
        file.size <= maxWholeBytes) {
        bool done = false;
        if (auto result = extractWhole(file, receiver, done); done || !result)
            return result;
    }

    CVXarDigest archived(file.archived.algorithm);
    CVXarDigest extracted(file.extracted.algorithm);
    std::vector<char> &out = workspace().out;
    out.resize(std::max(out.size(), blockBytes));
    std::uint64_t made = 0;
    bool ended = file.encoding == xar_file::Encoding::raw;
    bool sawEnd = false;
    auto result = read(m_heapAt + file.offset, file.length, [&](std::span<const char> in) -> LXResult<void> {
        archived.add(in);
        while (!sawEnd) {
            std::size_t count = 0;
            const auto step = inflater->step(in, {out.data(), blockBytes}, count);
            if (step == CVXarInflater::Step::Damaged)
                return damaged(text("Its data is damaged."));
            if (step == CVXarInflater::Step::TooLarge)
                return notSupported(text("Unpacking it needs too much memory."));
            if (count > file.size - made)
                return damaged(text("It is longer than the archive says."));
            made += count;
            extracted.add(out.data(), count);
            if (count > 0 && !receiver(out.data(), count))
                return stopped();
            sawEnd = step == CVXarInflater::Step::Ended;
            if (in.empty() && count < blockBytes)
                break;
        }
        return {};
    });
    if (!result)
        return result;
    if (!ended && !sawEnd)
        return damaged(text("Its data is cut off."));
    if (made != file.size)
        return damaged(text("It is shorter than the archive says."));
    if (result = compare(archived, file.archived); !result)
        return result;
    return compare(extracted, file.extracted);
}

/// `done` stays false when it is something that only the slower way can tell or do.
LXResult<void> CVXarReader::extractWhole(const xar_file &file, const xar_receiver &receiver, bool &done) const
{
    Workspace &space = workspace();
    std::vector<char> packed;
    packed.reserve(static_cast<std::size_t>(file.length));
    auto result = read(m_heapAt + file.offset, file.length, [&](std::span<const char> in) -> LXResult<void> {
        packed.insert(packed.end(), in.begin(), in.end());
        return {};
    });
    if (!result)
        return result;
    const auto size = static_cast<std::size_t>(file.size);
    space.out.resize(std::max(space.out.size(), std::max<std::size_t>(size, 1)));
    std::size_t made = 0;
    if (libdeflate_zlib_decompress(space.decompressor.get(), packed.data(), packed.size(), space.out.data(),
                                   size, &made) != LIBDEFLATE_SUCCESS ||
        made != size)
        return {};
    CVXarDigest archived(file.archived.algorithm);
    archived.add(packed);
    CVXarDigest extracted(file.extracted.algorithm);
    extracted.add(space.out.data(), size);
    done = true;
    if (result = compare(archived, file.archived); !result)
        return result;
    if (result = compare(extracted, file.extracted); !result)
        return result;
    for (std::size_t at = 0; at < size; at += blockBytes)
        if (!receiver(space.out.data() + at, std::min(blockBytes, size - at)))
            return stopped();
    return {};
}
