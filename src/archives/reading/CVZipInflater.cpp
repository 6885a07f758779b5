#include "archives/reading/CVZipInflater.h"

#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <new>

namespace {

constexpr qint64 streamBlock = 256 * 1024;

// The shortest code for the longest match: two bits for 258 bytes.
constexpr quint64 bestRatio = 1032;

} // namespace

struct CVZipInflater::Stream
{
    Stream()
    {
        // Negative: no header around the stream, as ZIP stores it.
        if (::inflateInit2(&z, -MAX_WBITS) != Z_OK)
            throw std::bad_alloc();
    }
    ~Stream() { ::inflateEnd(&z); }
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;

    z_stream z = {};
    std::unique_ptr<char[]> in = std::make_unique_for_overwrite<char[]>(streamBlock);
    std::unique_ptr<char[]> out = std::make_unique_for_overwrite<char[]>(streamBlock);
};

void CVZipInflater::FreeDecompressor::operator()(libdeflate_decompressor *decompressor) const noexcept
{
    ::libdeflate_free_decompressor(decompressor);
}

CVZipInflater::CVZipInflater() = default;
CVZipInflater::~CVZipInflater() = default;

bool CVZipInflater::isPossible(quint64 packedSize, quint64 size)
{
    return size / bestRatio <= packedSize;
}

CVZipInflater::Result CVZipInflater::inflateWhole(const char *packed, quint64 packedSize, char *to,
                                                  quint64 size)
{
    if (!m_decompressor) {
        m_decompressor.reset(::libdeflate_alloc_decompressor());
        if (!m_decompressor)
            throw std::bad_alloc();
    }
    std::size_t used = 0;
    std::size_t made = 0;
    const libdeflate_result result =
        ::libdeflate_deflate_decompress_ex(m_decompressor.get(), packed, packedSize, to, size, &used, &made);
    return result == LIBDEFLATE_SUCCESS && used == packedSize && made == size ? Result::Done
                                                                              : Result::Damaged;
}

CVZipInflater::Result CVZipInflater::inflateStream(quint64 packedSize, quint64 size, const Source &source,
                                                   const Receiver &receiver)
{
    if (m_stream)
        ::inflateReset(&m_stream->z);
    else
        m_stream = std::make_unique<Stream>();
    z_stream &z = m_stream->z;
    z.avail_in = 0;

    quint64 unread = packedSize;
    quint64 made = 0;
    for (;;) {
        if (z.avail_in == 0 && unread > 0) {
            const qint64 wanted = qint64(std::min(unread, quint64(streamBlock)));
            if (source(m_stream->in.get(), wanted) != wanted)
                return Result::Unread;
            unread -= quint64(wanted);
            z.next_in = reinterpret_cast<Bytef *>(m_stream->in.get());
            z.avail_in = uInt(wanted);
        }
        z.next_out = reinterpret_cast<Bytef *>(m_stream->out.get());
        z.avail_out = uInt(streamBlock);
        const int state = ::inflate(&z, Z_NO_FLUSH);
        const qint64 fresh = streamBlock - qint64(z.avail_out);
        // Z_BUF_ERROR means that nothing moved: the input is at its end, but not the stream.
        if ((state != Z_OK && state != Z_STREAM_END) || quint64(fresh) > size - made)
            return Result::Damaged;
        made += quint64(fresh);
        if (fresh > 0 && !receiver(m_stream->out.get(), fresh))
            return Result::Stopped;
        if (state == Z_STREAM_END)
            return made == size && z.avail_in == 0 && unread == 0 ? Result::Done : Result::Damaged;
    }
}
