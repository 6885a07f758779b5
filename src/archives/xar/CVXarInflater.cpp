#include "archives/xar/CVXarInflater.h"

#include <bzlib.h>
#include <lzma.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

namespace {

template <typename Size> Size atMost(std::size_t size)
{
    return static_cast<Size>(std::min<std::size_t>(size, std::numeric_limits<Size>::max()));
}

class Raw final : public CVXarInflater
{
public:
    Step step(std::span<const char> &in, std::span<char> out, std::size_t &made) override
    {
        made = std::min(in.size(), out.size());
        std::memcpy(out.data(), in.data(), made);
        in = in.subspan(made);
        return Step::Going;
    }
};

class Zlib final : public CVXarInflater
{
public:
    Zlib()
    {
        // 32: zlib or gzip, whichever it is; the name of the encoding means the one and says the other.
        if (inflateInit2(&m_stream, MAX_WBITS + 32) != Z_OK)
            throw std::bad_alloc();
    }
    ~Zlib() override { inflateEnd(&m_stream); }

    Step step(std::span<const char> &in, std::span<char> out, std::size_t &made) override
    {
        const auto given = atMost<uInt>(in.size());
        const auto room = atMost<uInt>(out.size());
        m_stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(in.data()));
        m_stream.avail_in = given;
        m_stream.next_out = reinterpret_cast<Bytef *>(out.data());
        m_stream.avail_out = room;
        const int result = inflate(&m_stream, Z_NO_FLUSH);
        in = in.subspan(given - m_stream.avail_in);
        made = room - m_stream.avail_out;
        return result == Z_STREAM_END                    ? Step::Ended
               : result == Z_OK || result == Z_BUF_ERROR ? Step::Going
                                                         : Step::Damaged;
    }

private:
    z_stream m_stream{};
};

class Bzip2 final : public CVXarInflater
{
public:
    Bzip2()
    {
        if (BZ2_bzDecompressInit(&m_stream, 0, 0) != BZ_OK)
            throw std::bad_alloc();
    }
    ~Bzip2() override { BZ2_bzDecompressEnd(&m_stream); }

    Step step(std::span<const char> &in, std::span<char> out, std::size_t &made) override
    {
        const auto given = atMost<unsigned>(in.size());
        const auto room = atMost<unsigned>(out.size());
        m_stream.next_in = const_cast<char *>(in.data());
        m_stream.avail_in = given;
        m_stream.next_out = out.data();
        m_stream.avail_out = room;
        const int result = BZ2_bzDecompress(&m_stream);
        in = in.subspan(given - m_stream.avail_in);
        made = room - m_stream.avail_out;
        return result == BZ_STREAM_END ? Step::Ended : result == BZ_OK ? Step::Going : Step::Damaged;
    }

private:
    bz_stream m_stream{};
};

class Xz final : public CVXarInflater
{
public:
    explicit Xz(std::uint64_t memoryLimit)
    {
        // .xz as well as the older .lzma.
        if (lzma_auto_decoder(&m_stream, memoryLimit, 0) != LZMA_OK)
            throw std::bad_alloc();
    }
    ~Xz() override { lzma_end(&m_stream); }

    Step step(std::span<const char> &in, std::span<char> out, std::size_t &made) override
    {
        m_stream.next_in = reinterpret_cast<const std::uint8_t *>(in.data());
        m_stream.avail_in = in.size();
        m_stream.next_out = reinterpret_cast<std::uint8_t *>(out.data());
        m_stream.avail_out = out.size();
        const lzma_ret result = lzma_code(&m_stream, LZMA_RUN);
        in = in.last(m_stream.avail_in);
        made = out.size() - m_stream.avail_out;
        return result == LZMA_STREAM_END                       ? Step::Ended
               : result == LZMA_OK || result == LZMA_BUF_ERROR ? Step::Going
               : result == LZMA_MEMLIMIT_ERROR                 ? Step::TooLarge
                                                               : Step::Damaged;
    }

private:
    lzma_stream m_stream = LZMA_STREAM_INIT;
};

} // namespace

std::unique_ptr<CVXarInflater> CVXarInflater::create(xar_file::Encoding encoding, std::uint64_t memoryLimit)
{
    switch (encoding) {
    case xar_file::Encoding::raw:
        return std::make_unique<Raw>();
    case xar_file::Encoding::zlib:
        return std::make_unique<Zlib>();
    case xar_file::Encoding::bzip2:
        return std::make_unique<Bzip2>();
    case xar_file::Encoding::xz:
        return std::make_unique<Xz>(memoryLimit);
    case xar_file::Encoding::unknown:
        break;
    }
    return nullptr;
}
