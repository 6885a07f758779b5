#include "archives/reading/CVByteStream.h"

#include "util/LXFileDescriptor.h"

#include <QCoreApplication>
#include <QFile>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include <archive.h>
#include <brotli/decode.h>
#include <fcntl.h>
#include <lzma.h>
#include <zlib.h>

namespace {

using State = CVByteStream::State;
using Kind = CVByteStream::Kind;

// 256 KiB a block suits caches and keeps hand-overs rare; 16 of them absorb the writer's hiccups.
constexpr qsizetype blockBytes = qsizetype(256) << 10;
constexpr std::size_t blocksAhead = 16;

QString text(const char *source)
{
    return QCoreApplication::translate("CVByteStream", source);
}

/// The compressed file, read in blocks; counts what was taken.
class Input
{
public:
    Input(const QString &path, qint64 offset)
        : m_fd(::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC))
    {
        if (offset > 0)
            ::lseek(m_fd.get(), offset, SEEK_SET);
        m_position = offset;
    }
    bool isOpen() const { return m_fd.isOpen(); }
    /// Below zero on an error.
    qsizetype read(char *data, qsizetype size)
    {
        ssize_t n;
        do
            n = ::read(m_fd.get(), data, static_cast<std::size_t>(size));
        while (n < 0 && errno == EINTR);
        if (n > 0)
            m_position += n;
        return n;
    }
    qint64 position() const { return m_position; }

private:
    LXFileDescriptor m_fd;
    std::atomic<qint64> m_position = 0;
};

struct Failure
{
    State state;
    QString why;
};

/// Unpacks in a loop of its own; emit() answers false when nobody listens any more.
class Decoder
{
public:
    using Emit = std::function<bool(QByteArray &&)>;
    virtual ~Decoder() = default;
    /// End, or why not.
    virtual Failure run(Input &input, const Emit &emit) = 0;
};

Failure truncated()
{
    return {State::Damaged, text("The file ends before its data does.")};
}

Failure corrupt()
{
    return {State::Damaged, text("The compressed data is damaged.")};
}

class CopyDecoder final : public Decoder
{
    Failure run(Input &input, const Emit &emit) override
    {
        for (;;) {
            QByteArray block(blockBytes, Qt::Uninitialized);
            const qsizetype n = input.read(block.data(), block.size());
            if (n < 0)
                return {State::Damaged, text("The file cannot be read.")};
            if (n == 0)
                return {State::End, {}};
            block.truncate(n);
            if (!emit(std::move(block)))
                return {State::End, {}};
        }
    }
};

// zlib checks the CRC and the length of every member, which the library behind the other formats does not.
class GzipDecoder final : public Decoder
{
    Failure run(Input &input, const Emit &emit) override
    {
        z_stream stream{};
        if (inflateInit2(&stream, 15 + 16) != Z_OK)
            return {State::Damaged, text("There is not enough memory.")};
        const std::unique_ptr<z_stream, decltype(&inflateEnd)> guard(&stream, &inflateEnd);
        QByteArray in(blockBytes, Qt::Uninitialized);
        QByteArray out(blockBytes, Qt::Uninitialized);
        stream.next_out = reinterpret_cast<Bytef *>(out.data());
        stream.avail_out = static_cast<uInt>(out.size());
        bool atMemberStart = true, firstMember = true, ended = false;
        for (;;) {
            if (stream.avail_in == 0 && !ended) {
                const qsizetype n = input.read(in.data(), in.size());
                if (n < 0)
                    return {State::Damaged, text("The file cannot be read.")};
                ended = n == 0;
                stream.next_in = reinterpret_cast<Bytef *>(in.data());
                stream.avail_in = static_cast<uInt>(n);
            }
            if (atMemberStart && !firstMember) {
                // Zero padding (tapes) may follow the last member; another member begins with its mark.
                while (stream.avail_in > 0 && *stream.next_in == 0) {
                    ++stream.next_in;
                    --stream.avail_in;
                }
                if (stream.avail_in == 0) {
                    if (ended)
                        break;
                    continue;
                }
                if (*stream.next_in != 0x1f)
                    break; // what follows is not ours; gzip ignores it too
                inflateReset(&stream);
            }
            atMemberStart = false;
            const int result = inflate(&stream, Z_NO_FLUSH);
            if (stream.avail_out == 0 || (result == Z_STREAM_END && stream.avail_out < uInt(out.size()))) {
                out.truncate(out.size() - qsizetype(stream.avail_out));
                if (!emit(std::move(out)))
                    return {State::End, {}};
                out = QByteArray(blockBytes, Qt::Uninitialized);
                stream.next_out = reinterpret_cast<Bytef *>(out.data());
                stream.avail_out = static_cast<uInt>(out.size());
            }
            if (result == Z_STREAM_END) {
                atMemberStart = true;
                firstMember = false;
            } else if (result == Z_BUF_ERROR || result == Z_OK) {
                if (ended && stream.avail_in == 0 && stream.avail_out > 0)
                    return truncated();
            } else {
                return corrupt();
            }
        }
        return {State::End, {}};
    }
};

// liblzma itself, because its multi-threaded decoder unpacks files of several blocks on all cores.
class LzmaDecoder final : public Decoder
{
public:
    explicit LzmaDecoder(Kind kind)
        : m_kind(kind)
    {}

private:
    Failure run(Input &input, const Emit &emit) override
    {
        lzma_stream stream = LZMA_STREAM_INIT;
        const std::unique_ptr<lzma_stream, decltype(&lzma_end)> guard(&stream, &lzma_end);
        lzma_ret result = LZMA_PROG_ERROR;
        if (m_kind == Kind::Xz) {
            lzma_mt options{};
            options.flags = LZMA_CONCATENATED;
            options.threads = std::max(1U, std::min(8U, std::thread::hardware_concurrency()));
            options.timeout = 0;
            options.memlimit_threading = CVByteStream::maxDecoderMemory;
            options.memlimit_stop = CVByteStream::maxDecoderMemory;
            result = lzma_stream_decoder_mt(&stream, &options);
        } else if (m_kind == Kind::Lzip) {
            result = lzma_lzip_decoder(&stream, CVByteStream::maxDecoderMemory, LZMA_CONCATENATED);
        } else {
            result = lzma_alone_decoder(&stream, CVByteStream::maxDecoderMemory);
        }
        if (result != LZMA_OK)
            return {State::Damaged, text("There is not enough memory.")};
        QByteArray in(blockBytes, Qt::Uninitialized);
        QByteArray out(blockBytes, Qt::Uninitialized);
        stream.next_out = reinterpret_cast<std::uint8_t *>(out.data());
        stream.avail_out = static_cast<std::size_t>(out.size());
        bool ended = false;
        for (;;) {
            if (stream.avail_in == 0 && !ended) {
                const qsizetype n = input.read(in.data(), in.size());
                if (n < 0)
                    return {State::Damaged, text("The file cannot be read.")};
                ended = n == 0;
                stream.next_in = reinterpret_cast<const std::uint8_t *>(in.constData());
                stream.avail_in = static_cast<std::size_t>(n);
            }
            result = lzma_code(&stream, ended ? LZMA_FINISH : LZMA_RUN);
            if (stream.avail_out == 0 || result == LZMA_STREAM_END) {
                out.truncate(out.size() - qsizetype(stream.avail_out));
                if (!out.isEmpty() && !emit(std::move(out)))
                    return {State::End, {}};
                out = QByteArray(blockBytes, Qt::Uninitialized);
                stream.next_out = reinterpret_cast<std::uint8_t *>(out.data());
                stream.avail_out = static_cast<std::size_t>(out.size());
            }
            switch (result) {
            case LZMA_OK:
                continue;
            case LZMA_STREAM_END:
                return {State::End, {}};
            case LZMA_BUF_ERROR:
                return truncated();
            case LZMA_MEMLIMIT_ERROR:
                return {State::NotSupported, text("Its dictionary is larger than this program allows.")};
            case LZMA_UNSUPPORTED_CHECK:
            case LZMA_OPTIONS_ERROR:
                return {State::NotSupported, text("It uses a compression option that is not known here.")};
            default:
                return corrupt();
            }
        }
    }

    Kind m_kind;
};

class BrotliDecoder final : public Decoder
{
    Failure run(Input &input, const Emit &emit) override
    {
        const std::unique_ptr<BrotliDecoderState, decltype(&BrotliDecoderDestroyInstance)> state(
            BrotliDecoderCreateInstance(nullptr, nullptr, nullptr), &BrotliDecoderDestroyInstance);
        QByteArray in(blockBytes, Qt::Uninitialized);
        const std::uint8_t *nextIn = nullptr;
        std::size_t availableIn = 0;
        for (;;) {
            QByteArray out(blockBytes, Qt::Uninitialized);
            auto *nextOut = reinterpret_cast<std::uint8_t *>(out.data());
            auto availableOut = static_cast<std::size_t>(out.size());
            const auto result = BrotliDecoderDecompressStream(state.get(), &availableIn, &nextIn,
                                                              &availableOut, &nextOut, nullptr);
            out.truncate(out.size() - qsizetype(availableOut));
            if (result == BROTLI_DECODER_RESULT_ERROR)
                return corrupt();
            if (!out.isEmpty() && !emit(std::move(out)))
                return {State::End, {}};
            if (result == BROTLI_DECODER_RESULT_SUCCESS) {
                char more;
                return availableIn > 0 || input.read(&more, 1) > 0 ? corrupt() : Failure{State::End, {}};
            }
            if (result == BROTLI_DECODER_RESULT_NEEDS_MORE_INPUT) {
                const qsizetype n = input.read(in.data(), in.size());
                if (n <= 0)
                    return truncated();
                nextIn = reinterpret_cast<const std::uint8_t *>(in.constData());
                availableIn = static_cast<std::size_t>(n);
            }
        }
    }
};

// The formats whose checks libarchive does itself.
class LibarchiveDecoder final : public Decoder
{
public:
    explicit LibarchiveDecoder(Kind kind)
        : m_kind(kind)
    {}

private:
    struct Feed
    {
        Input &input;
        QByteArray block{blockBytes, Qt::Uninitialized};
    };

    static la_ssize_t read(archive *, void *data, const void **buffer)
    {
        auto &feed = *static_cast<Feed *>(data);
        *buffer = feed.block.constData();
        return feed.input.read(feed.block.data(), feed.block.size());
    }

    int support(archive *a) const
    {
        switch (m_kind) {
        case Kind::Bzip2:
            return archive_read_support_filter_bzip2(a);
        case Kind::Zstd:
            return archive_read_support_filter_zstd(a);
        case Kind::Lz4:
            return archive_read_support_filter_lz4(a);
        case Kind::Compress:
            return archive_read_support_filter_compress(a);
        case Kind::Lzop:
            return archive_read_support_filter_lzop(a);
        default:
            return ARCHIVE_FATAL;
        }
    }

    Failure run(Input &input, const Emit &emit) override
    {
        const std::unique_ptr<archive, decltype(&archive_read_free)> a(archive_read_new(),
                                                                       &archive_read_free);
        if (support(a.get()) == ARCHIVE_FATAL)
            return {State::NotSupported, QString::fromUtf8(archive_error_string(a.get()))};
        archive_read_support_format_raw(a.get());
        archive_read_support_format_empty(a.get());
        Feed feed{input};
        const auto fail = [&]() -> Failure {
            return {State::Damaged, QString::fromUtf8(archive_error_string(a.get()))};
        };
        archive_entry *entry = nullptr;
        if (archive_read_open(a.get(), &feed, nullptr, read, nullptr) != ARCHIVE_OK)
            return fail();
        const int header = archive_read_next_header(a.get(), &entry);
        if (header == ARCHIVE_EOF)
            return {State::End, {}};
        if (header < ARCHIVE_WARN)
            return fail();
        if (archive_filter_count(a.get()) < 2)
            return corrupt();
        for (;;) {
            const void *data = nullptr;
            std::size_t size = 0;
            la_int64_t offset = 0;
            const int result = archive_read_data_block(a.get(), &data, &size, &offset);
            if (result == ARCHIVE_EOF)
                return {State::End, {}};
            if (result != ARCHIVE_OK)
                return fail();
            for (std::size_t done = 0; done < size; done += std::size_t(1) << 20)
                if (!emit(QByteArray(static_cast<const char *>(data) + done,
                                     static_cast<qsizetype>(std::min(size - done, std::size_t(1) << 20)))))
                    return {State::End, {}};
        }
    }

    Kind m_kind;
};

class ThreadedStream final : public CVByteStream
{
public:
    ThreadedStream(const QString &path, qint64 offset, std::unique_ptr<Decoder> decoder)
        : m_input(path, offset)
        , m_decoder(std::move(decoder))
    {
        m_thread = std::thread([this] { decode(); });
    }

    ~ThreadedStream() override
    {
        {
            const std::lock_guard lock(m_mutex);
            m_abandoned = true;
        }
        m_changed.notify_all();
        m_thread.join();
    }

    State next(QByteArray &bytes) override
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return !m_blocks.empty() || m_result.state != State::Data; });
        if (m_blocks.empty()) {
            bytes.clear();
            return m_result.state;
        }
        bytes = std::move(m_blocks.front());
        m_blocks.pop_front();
        lock.unlock();
        m_changed.notify_all();
        return State::Data;
    }

    QString errorText() const override
    {
        const std::lock_guard lock(m_mutex);
        return m_result.why;
    }

    qint64 position() const override { return m_input.position(); }

private:
    void decode()
    {
        Failure result = m_input.isOpen()
                             ? m_decoder->run(m_input, [this](QByteArray &&b) { return put(std::move(b)); })
                             : Failure{State::Damaged, text("The file cannot be read.")};
        {
            const std::lock_guard lock(m_mutex);
            m_result = std::move(result);
        }
        m_changed.notify_all();
    }

    bool put(QByteArray &&block)
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_blocks.size() < blocksAhead || m_abandoned; });
        if (m_abandoned)
            return false;
        m_blocks.push_back(std::move(block));
        lock.unlock();
        m_changed.notify_all();
        return true;
    }

    Input m_input;
    std::unique_ptr<Decoder> m_decoder;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<QByteArray> m_blocks;
    Failure m_result{State::Data, {}};
    bool m_abandoned = false;
    std::thread m_thread;
};

} // namespace

CVByteStream::Kind CVByteStream::kindOf(const QByteArray &head, const QString &path)
{
    const auto starts = [&head](const char *bytes, qsizetype size) {
        return head.startsWith(QByteArrayView(bytes, size));
    };
    if (starts("\x1f\x8b\x08", 3))
        return Kind::Gzip;
    if (starts("BZh", 3) && head.size() > 10 && head[3] >= '1' && head[3] <= '9' &&
        (head.mid(4, 6) == QByteArrayView("1AY&SY") ||
         head.mid(4, 6) == QByteArrayView("\x17\x72\x45\x38\x50\x90")))
        return Kind::Bzip2;
    if (starts("\xfd"
               "7zXZ\0",
               6))
        return Kind::Xz;
    if (starts("LZIP", 4) && head.size() > 6 && (head[4] == 0 || head[4] == 1))
        return Kind::Lzip;
    if (starts("\x28\xb5\x2f\xfd", 4))
        return Kind::Zstd;
    // A skippable frame first (pzstd, seekable files) belongs to zstd as well as to lz4.
    if (head.size() > 4 && (static_cast<unsigned char>(head[0]) & 0xf0) == 0x50 &&
        head.mid(1, 3) == QByteArrayView("\x2a\x4d\x18"))
        return Kind::Zstd;
    if (starts("\x04\x22\x4d\x18", 4) || starts("\x02\x21\x4c\x18", 4))
        return Kind::Lz4;
    if (starts("\x1f\x9d", 2))
        return Kind::Compress;
    if (starts("\x89LZO\0\r\n\x1a\n", 9))
        return Kind::Lzop;
    // "LZMA alone": properties below 225, a dictionary of a customary size, a plausible size.
    if (head.size() > 13 && static_cast<unsigned char>(head[0]) < 225 && head[1] == 0 && head[2] == 0 &&
        head[12] == head[11] && head[13] == 0 && (head[12] == 0 || head[12] == '\xff')) {
        const unsigned dictionary =
            static_cast<unsigned char>(head[3]) | unsigned(static_cast<unsigned char>(head[4])) << 8;
        const bool customary = dictionary != 0 && ((dictionary & (dictionary - 1)) == 0 ||
                                                   ((dictionary / 3) & (dictionary / 3 - 1)) == 0);
        if (customary)
            return Kind::Lzma;
    }
    if (path.endsWith(QLatin1StringView(".br"), Qt::CaseInsensitive) ||
        path.endsWith(QLatin1StringView(".tbr"), Qt::CaseInsensitive))
        return Kind::Brotli;
    return Kind::None;
}

const char *CVByteStream::nameOf(Kind kind)
{
    switch (kind) {
    case Kind::None:
        return "";
    case Kind::Gzip:
        return "gzip";
    case Kind::Bzip2:
        return "bzip2";
    case Kind::Xz:
        return "xz";
    case Kind::Lzma:
        return "lzma";
    case Kind::Lzip:
        return "lzip";
    case Kind::Zstd:
        return "zstd";
    case Kind::Lz4:
        return "lz4";
    case Kind::Compress:
        return "compress";
    case Kind::Lzop:
        return "lzop";
    case Kind::Brotli:
        return "brotli";
    }
    return "";
}

std::unique_ptr<CVByteStream> CVByteStream::open(const QString &path, Kind kind, qint64 offset)
{
    std::unique_ptr<Decoder> decoder;
    switch (kind) {
    case Kind::None:
        decoder = std::make_unique<CopyDecoder>();
        break;
    case Kind::Gzip:
        decoder = std::make_unique<GzipDecoder>();
        break;
    case Kind::Xz:
    case Kind::Lzma:
    case Kind::Lzip:
        decoder = std::make_unique<LzmaDecoder>(kind);
        break;
    case Kind::Brotli:
        decoder = std::make_unique<BrotliDecoder>();
        break;
    case Kind::Bzip2:
    case Kind::Zstd:
    case Kind::Lz4:
    case Kind::Compress:
    case Kind::Lzop:
        decoder = std::make_unique<LibarchiveDecoder>(kind);
        break;
    }
    return std::make_unique<ThreadedStream>(path, offset, std::move(decoder));
}
