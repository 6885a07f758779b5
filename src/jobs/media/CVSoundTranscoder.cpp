#include "jobs/media/CVSoundTranscoder.h"

#include "util/write_all.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>

#include <sys/stat.h>
#include <unistd.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace {

constexpr int ioBytes = 64 * 1024;
constexpr qint64 coverMaximumBytes = 32LL * 1024 * 1024;
constexpr int packetsPerWord = 500; // about ten seconds of sound

// Containers of one sound. Left out are above all those that name other files or addresses.
constexpr const char *containers = "mp3,wav,w64,aiff,au,mov,mp4,m4a,3gp,3g2,mj2,caf,aac,flac,ogg";

struct Failure
{
    QString reason;
};

[[noreturn]] void fail(const QString &reason)
{
    throw Failure{reason};
}

void check(int code, const char *what)
{
    if (code >= 0)
        return;
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    fail(QStringLiteral("%1: %2").arg(QLatin1String(what), QString::fromLocal8Bit(text)));
}

template <typename T> T *checked(T *pointer)
{
    if (!pointer)
        fail(QStringLiteral("There is not enough memory."));
    return pointer;
}

int readFile(void *opaque, std::uint8_t *buffer, int size)
{
    const ssize_t n = ::read(*static_cast<int *>(opaque), buffer, static_cast<std::size_t>(size));
    return n > 0 ? static_cast<int>(n) : n == 0 ? AVERROR_EOF : AVERROR(errno);
}

// The library takes a writer of constant bytes since version 61.
#if LIBAVFORMAT_VERSION_MAJOR >= 61
using OutgoingBytes = const std::uint8_t;
#else
using OutgoingBytes = std::uint8_t;
#endif

int writeFile(void *opaque, OutgoingBytes *buffer, int size)
{
    return writeAll(*static_cast<int *>(opaque), buffer, static_cast<std::size_t>(size)) ? size
                                                                                         : AVERROR(errno);
}

std::int64_t seekFile(void *opaque, std::int64_t offset, int whence)
{
    const int descriptor = *static_cast<int *>(opaque);
    if (whence & AVSEEK_SIZE) {
        struct stat facts
        {};
        return ::fstat(descriptor, &facts) == 0 ? facts.st_size : AVERROR(errno);
    }
    const off_t at = ::lseek(descriptor, offset, whence & ~AVSEEK_FORCE);
    return at >= 0 ? at : AVERROR(errno);
}

struct IoFree
{
    void operator()(AVIOContext *io) const
    {
        av_freep(&io->buffer);
        avio_context_free(&io);
    }
};
struct InputFree
{
    void operator()(AVFormatContext *context) const { avformat_close_input(&context); }
};
struct OutputFree
{
    void operator()(AVFormatContext *context) const { avformat_free_context(context); }
};
struct CodecFree
{
    void operator()(AVCodecContext *context) const { avcodec_free_context(&context); }
};
struct SwrFree
{
    void operator()(SwrContext *context) const { swr_free(&context); }
};
struct FifoFree
{
    void operator()(AVAudioFifo *fifo) const { av_audio_fifo_free(fifo); }
};
struct FrameFree
{
    void operator()(AVFrame *frame) const { av_frame_free(&frame); }
};
struct PacketFree
{
    void operator()(AVPacket *packet) const { av_packet_free(&packet); }
};

using Io = std::unique_ptr<AVIOContext, IoFree>;
using Frame = std::unique_ptr<AVFrame, FrameFree>;
using Packet = std::unique_ptr<AVPacket, PacketFree>;

Io openIo(int &descriptor, bool forWriting)
{
    auto *buffer = static_cast<unsigned char *>(checked(av_malloc(ioBytes)));
    AVIOContext *io = avio_alloc_context(buffer, ioBytes, forWriting, &descriptor, readFile,
                                         forWriting ? writeFile : nullptr, seekFile);
    if (!io)
        av_free(buffer);
    return Io(checked(io));
}

/// Ended by a zero; null: any rate.
const int *ratesOf(const AVCodec *encoder)
{
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(61, 13, 100)
    const void *rates = nullptr;
    const int found =
        avcodec_get_supported_config(nullptr, encoder, AV_CODEC_CONFIG_SAMPLE_RATE, 0, &rates, nullptr);
    return found < 0 ? nullptr : static_cast<const int *>(rates);
#else
    return encoder->supported_samplerates;
#endif
}

int nearestRate(const AVCodec *encoder, int rate)
{
    int best = 0;
    for (const int *known = ratesOf(encoder); known && *known; ++known)
        if (best == 0 || std::abs(*known - rate) < std::abs(best - rate))
            best = *known;
    return best ? best : rate;
}

/// Does the stream carry what is needed to decrypt it?
bool hasEncryptionData(const AVStream &stream)
{
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(60, 31, 100)
    const AVCodecParameters &parameters = *stream.codecpar;
    return av_packet_side_data_get(parameters.coded_side_data, parameters.nb_coded_side_data,
                                   AV_PKT_DATA_ENCRYPTION_INIT_INFO) != nullptr;
#else
    return av_stream_get_side_data(&stream, AV_PKT_DATA_ENCRYPTION_INIT_INFO, nullptr) != nullptr;
#endif
}

bool isProtected(const AVStream &stream)
{
    const std::uint32_t tag = stream.codecpar->codec_tag;
    return tag == MKTAG('d', 'r', 'm', 's') || tag == MKTAG('e', 'n', 'c', 'a') ||
           tag == MKTAG('a', 'a', 'v', 'd') || hasEncryptionData(stream);
}

bool isCover(const AVStream &stream)
{
    return (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
}

} // namespace

struct CVSoundTranscoder::Private
{
    Request request;
    Io sourceIo;
    Io outputIo;
    std::unique_ptr<AVFormatContext, InputFree> input;
    std::unique_ptr<AVFormatContext, OutputFree> output;
    std::unique_ptr<AVCodecContext, CodecFree> decoder;
    std::unique_ptr<AVCodecContext, CodecFree> encoder;
    std::unique_ptr<SwrContext, SwrFree> resampler;
    std::unique_ptr<AVAudioFifo, FifoFree> fifo;
    Frame converted;
    AVStream *sound = nullptr;
    AVStream *cover = nullptr;
    AVStream *newSound = nullptr;
    AVStream *newCover = nullptr;
    double declaredSeconds = 0; ///< what the file says of itself; 0: nothing to rely on
    double decodedSeconds = 0;
    std::int64_t nextSample = 0;
    qint64 packets = 0;
    qint64 damagedPackets = 0;
    bool toleratesDamage = false;
    // What the resampler is set up for.
    int rate = 0;
    int format = -1;
    AVChannelLayout layout{};

    ~Private() { av_channel_layout_uninit(&layout); }

    bool isCancelled() const { return request.cancelled && *request.cancelled; }

    void openInput();
    void noteDeclaredLength();
    void openDecoder();
    void openEncoder();
    void openOutput();
    void decode(const AVPacket *packet);
    void take(const AVFrame &frame);
    void setUpResampler(const AVFrame &frame);
    void resample(const AVFrame *frame);
    void encodeFromFifo(bool all);
    void encode(const AVFrame *frame);
    void writeCover();
    void copySound();
};

void CVSoundTranscoder::Private::openInput()
{
    if (::lseek(request.source, 0, SEEK_SET) < 0)
        fail(QStringLiteral("It cannot be read."));
    sourceIo = openIo(request.source, false);
    AVFormatContext *context = checked(avformat_alloc_context());
    context->pb = sourceIo.get();
    context->flags |= AVFMT_FLAG_CUSTOM_IO;
    AVDictionary *options = nullptr;
    av_dict_set(&options, "format_whitelist", containers, 0);
    const QByteArray name = "sound." + request.sourceExtension;
    const int opened = avformat_open_input(&context, name.constData(), nullptr, &options);
    av_dict_free(&options);
    check(opened, "It is no sound file that can be read"); // it freed the context otherwise
    input.reset(context);
    for (unsigned i = 0; i < input->nb_streams; ++i)
        if (isProtected(*input->streams[i]))
            fail(QStringLiteral("The sound is protected against copying."));
    noteDeclaredLength();
    check(avformat_find_stream_info(input.get(), nullptr), "Its contents cannot be read");
    const int index = av_find_best_stream(input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (index < 0)
        fail(QStringLiteral("It holds no sound."));
    for (unsigned i = 0; i < input->nb_streams; ++i) {
        AVStream &stream = *input->streams[i];
        const bool isVideo = stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
        if (static_cast<int>(i) == index)
            sound = &stream;
        else if (isVideo && isCover(stream))
            cover = cover ? cover : &stream;
        else if (isVideo)
            fail(QStringLiteral("It is a film."));
        if (static_cast<int>(i) != index)
            stream.discard = AVDISCARD_ALL;
    }
    if (isProtected(*sound))
        fail(QStringLiteral("The sound is protected against copying."));
}

/// Before the library starts to estimate, a stream's duration is what the file's own header says.
void CVSoundTranscoder::Private::noteDeclaredLength()
{
    const QByteArray container = input->iformat->name;
    toleratesDamage = container == "mp3";
    for (unsigned i = 0; i < input->nb_streams; ++i) {
        const AVStream &stream = *input->streams[i];
        if (stream.codecpar->codec_type != AVMEDIA_TYPE_AUDIO || stream.duration <= 0 ||
            stream.duration == AV_NOPTS_VALUE)
            continue;
        // Recorders that write into a pipe put the largest number there is; nothing is missing then.
        const double bytes = static_cast<double>(stream.duration) * stream.codecpar->block_align;
        constexpr double slack = 1 << 16;
        for (const double unknown : {2147483648.0, 4294967296.0})
            if (std::abs(bytes - unknown) < slack)
                return;
        declaredSeconds = static_cast<double>(stream.duration) * av_q2d(stream.time_base);
        return;
    }
}

void CVSoundTranscoder::Private::openDecoder()
{
    const AVCodec *codec = avcodec_find_decoder(sound->codecpar->codec_id);
    if (!codec)
        fail(QStringLiteral("Its kind of sound (%1) cannot be read.")
                 .arg(QString::fromLatin1(avcodec_get_name(sound->codecpar->codec_id))));
    decoder.reset(checked(avcodec_alloc_context3(codec)));
    check(avcodec_parameters_to_context(decoder.get(), sound->codecpar), "Its sound cannot be read");
    decoder->pkt_timebase = sound->time_base;
    decoder->thread_count = 1; // several files at once keep the cores busy
    check(avcodec_open2(decoder.get(), codec, nullptr), "Its sound cannot be read");
    if (decoder->sample_rate <= 0 || decoder->ch_layout.nb_channels <= 0)
        fail(QStringLiteral("Its sound has no sample rate."));
}

void CVSoundTranscoder::Private::openEncoder()
{
    const AVCodec *codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (!codec)
        fail(QStringLiteral("There is no AAC encoder."));
    const int channels = decoder->ch_layout.nb_channels;
    const bool isNamed = decoder->ch_layout.order == AV_CHANNEL_ORDER_NATIVE;
    // What the source has; else the usual speakers for as many channels; else stereo.
    int opened = AVERROR(EINVAL);
    for (int attempt = isNamed ? 0 : 1; attempt < 3 && opened < 0; ++attempt) {
        encoder.reset(checked(avcodec_alloc_context3(codec)));
        if (attempt == 0)
            check(av_channel_layout_copy(&encoder->ch_layout, &decoder->ch_layout), "Its channels");
        else
            av_channel_layout_default(&encoder->ch_layout, attempt == 1 ? channels : 2);
        encoder->sample_rate = nearestRate(codec, decoder->sample_rate);
        encoder->sample_fmt = AV_SAMPLE_FMT_FLTP;
        encoder->time_base = {1, encoder->sample_rate};
        if (request.bitRate > 0)
            encoder->bit_rate = request.bitRate;
        encoder->thread_count = 1;
        encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        opened = avcodec_open2(encoder.get(), codec, nullptr);
    }
    check(opened, "Its sound cannot be encoded");
    fifo.reset(checked(av_audio_fifo_alloc(encoder->sample_fmt, encoder->ch_layout.nb_channels,
                                           std::max(encoder->frame_size, 1024) * 4)));
}

void CVSoundTranscoder::Private::openOutput()
{
    outputIo = openIo(request.output, true);
    AVFormatContext *context = nullptr;
    check(avformat_alloc_output_context2(&context, nullptr, request.asM4a ? "ipod" : "mp4", nullptr),
          "There is no writer for MPEG-4");
    output.reset(context);
    output->pb = outputIo.get();
    output->flags |= AVFMT_FLAG_CUSTOM_IO;
    newSound = checked(avformat_new_stream(output.get(), nullptr));
    newSound->time_base = encoder->time_base;
    check(avcodec_parameters_from_context(newSound->codecpar, encoder.get()), "The new sound");
    const bool coverFits =
        cover && cover->attached_pic.size > 0 && cover->attached_pic.size < coverMaximumBytes &&
        (cover->codecpar->codec_id == AV_CODEC_ID_MJPEG || cover->codecpar->codec_id == AV_CODEC_ID_PNG);
    if (coverFits) {
        newCover = checked(avformat_new_stream(output.get(), nullptr));
        check(avcodec_parameters_copy(newCover->codecpar, cover->codecpar), "The cover");
        newCover->codecpar->codec_tag = 0;
        newCover->disposition = AV_DISPOSITION_ATTACHED_PIC;
        newCover->time_base = {1, 90000};
    }
    av_dict_copy(&output->metadata, input->metadata, 0);
    av_dict_copy(&output->metadata, sound->metadata, AV_DICT_DONT_OVERWRITE);
    // The source's own container, not the new one's.
    for (const char *key : {"major_brand", "minor_version", "compatible_brands", "encoder", "handler_name",
                            "vendor_id", "language"})
        av_dict_set(&output->metadata, key, nullptr, 0);
    check(avformat_write_header(output.get(), nullptr), "The new file cannot be begun");
    writeCover();
}

void CVSoundTranscoder::Private::writeCover()
{
    if (!newCover)
        return;
    const Packet packet(checked(av_packet_alloc()));
    check(av_packet_ref(packet.get(), &cover->attached_pic), "The cover");
    packet->stream_index = newCover->index;
    packet->pts = 0;
    packet->dts = 0;
    check(av_interleaved_write_frame(output.get(), packet.get()), "The cover cannot be written");
}

void CVSoundTranscoder::Private::decode(const AVPacket *packet)
{
    const int sent = avcodec_send_packet(decoder.get(), packet);
    if (sent < 0 && sent != AVERROR_EOF) {
        ++damagedPackets;
        if (!toleratesDamage || sent != AVERROR_INVALIDDATA)
            check(sent, "The sound is damaged");
        return;
    }
    const Frame frame(checked(av_frame_alloc()));
    while (true) {
        const int got = avcodec_receive_frame(decoder.get(), frame.get());
        if (got == AVERROR(EAGAIN) || got == AVERROR_EOF)
            return;
        if (got < 0) {
            ++damagedPackets;
            if (!toleratesDamage)
                check(got, "The sound is damaged");
            return;
        }
        take(*frame);
        av_frame_unref(frame.get());
    }
}

void CVSoundTranscoder::Private::take(const AVFrame &frame)
{
    if (frame.nb_samples <= 0 || frame.sample_rate <= 0)
        return;
    decodedSeconds += static_cast<double>(frame.nb_samples) / frame.sample_rate;
    setUpResampler(frame);
    resample(&frame);
    encodeFromFifo(false);
}

void CVSoundTranscoder::Private::setUpResampler(const AVFrame &frame)
{
    if (resampler && rate == frame.sample_rate && format == frame.format &&
        av_channel_layout_compare(&layout, &frame.ch_layout) == 0)
        return;
    if (resampler)
        resample(nullptr); // what it still holds of the sound before
    rate = frame.sample_rate;
    format = frame.format;
    check(av_channel_layout_copy(&layout, &frame.ch_layout), "Its channels");
    // Channels that nobody named are taken for the usual ones.
    AVChannelLayout named{};
    if (frame.ch_layout.order == AV_CHANNEL_ORDER_UNSPEC)
        av_channel_layout_default(&named, frame.ch_layout.nb_channels);
    else
        check(av_channel_layout_copy(&named, &frame.ch_layout), "Its channels");
    SwrContext *made = nullptr;
    const int code =
        swr_alloc_set_opts2(&made, &encoder->ch_layout, encoder->sample_fmt, encoder->sample_rate, &named,
                            static_cast<AVSampleFormat>(frame.format), frame.sample_rate, 0, nullptr);
    av_channel_layout_uninit(&named);
    resampler.reset(made);
    check(code, "Its sound cannot be converted");
    check(swr_init(resampler.get()), "Its sound cannot be converted");
}

/// Into the queue before the encoder. Null: what the resampler still holds.
void CVSoundTranscoder::Private::resample(const AVFrame *frame)
{
    const int room = swr_get_out_samples(resampler.get(), frame ? frame->nb_samples : 0);
    check(room, "Its sound cannot be converted");
    if (room == 0)
        return;
    if (!converted || converted->nb_samples < room) {
        converted.reset(checked(av_frame_alloc()));
        converted->format = encoder->sample_fmt;
        converted->nb_samples = room;
        check(av_channel_layout_copy(&converted->ch_layout, &encoder->ch_layout), "Its channels");
        check(av_frame_get_buffer(converted.get(), 0), "There is not enough memory");
    }
    const int made = swr_convert(resampler.get(), converted->extended_data, room,
                                 frame ? const_cast<const std::uint8_t **>(frame->extended_data) : nullptr,
                                 frame ? frame->nb_samples : 0);
    check(made, "Its sound cannot be converted");
    check(av_audio_fifo_write(fifo.get(), reinterpret_cast<void **>(converted->extended_data), made),
          "There is not enough memory");
}

void CVSoundTranscoder::Private::encodeFromFifo(bool all)
{
    const int block = encoder->frame_size > 0 ? encoder->frame_size : 1024;
    while (true) {
        const int ready = av_audio_fifo_size(fifo.get());
        if (ready == 0 || (ready < block && !all))
            return;
        const Frame frame(checked(av_frame_alloc()));
        frame->format = encoder->sample_fmt;
        frame->sample_rate = encoder->sample_rate;
        frame->nb_samples = std::min(ready, block);
        check(av_channel_layout_copy(&frame->ch_layout, &encoder->ch_layout), "Its channels");
        check(av_frame_get_buffer(frame.get(), 0), "There is not enough memory");
        check(av_audio_fifo_read(fifo.get(), reinterpret_cast<void **>(frame->extended_data),
                                 frame->nb_samples),
              "There is not enough memory");
        frame->pts = nextSample;
        nextSample += frame->nb_samples;
        encode(frame.get());
    }
}

void CVSoundTranscoder::Private::encode(const AVFrame *frame)
{
    check(avcodec_send_frame(encoder.get(), frame), "Its sound cannot be encoded");
    const Packet packet(checked(av_packet_alloc()));
    while (true) {
        const int got = avcodec_receive_packet(encoder.get(), packet.get());
        if (got == AVERROR(EAGAIN) || got == AVERROR_EOF)
            return;
        check(got, "Its sound cannot be encoded");
        av_packet_rescale_ts(packet.get(), encoder->time_base, newSound->time_base);
        packet->stream_index = newSound->index;
        check(av_interleaved_write_frame(output.get(), packet.get()), "The new file cannot be written");
    }
}

void CVSoundTranscoder::Private::copySound()
{
    const Packet packet(checked(av_packet_alloc()));
    while (!isCancelled()) {
        const int got = av_read_frame(input.get(), packet.get());
        if (got == AVERROR_EOF)
            break;
        check(got, "The sound is damaged");
        if (packet->stream_index == sound->index) {
            if ((packet->flags & AV_PKT_FLAG_CORRUPT) && !toleratesDamage)
                fail(QStringLiteral("The sound is cut off."));
            decode(packet.get());
            if (++packets % packetsPerWord == 0 && request.progress)
                request.progress();
        }
        av_packet_unref(packet.get());
    }
    if (isCancelled())
        return;
    decode(nullptr);
    if (resampler)
        resample(nullptr);
    encodeFromFifo(true);
    encode(nullptr);
    // Players cope with a frame of rubbish at the start of an MP3; more than that is a broken file.
    if (damagedPackets > 2 + packets / 100)
        fail(QStringLiteral("The sound is damaged."));
    if (nextSample == 0)
        fail(QStringLiteral("It holds no sound."));
    if (decodedSeconds < declaredSeconds * 0.99 - 0.2)
        fail(QStringLiteral("The sound is cut off."));
    check(av_write_trailer(output.get()), "The new file cannot be written");
    avio_flush(output->pb);
    check(output->pb->error, "The new file cannot be written");
}

CVSoundTranscoder::CVSoundTranscoder(Request request)
    : d(std::make_unique<Private>())
{
    d->request = std::move(request);
}

CVSoundTranscoder::~CVSoundTranscoder() = default;

QString CVSoundTranscoder::run()
{
    av_log_set_level(AV_LOG_QUIET);
    try {
        d->openInput();
        d->openDecoder();
        d->openEncoder();
        d->openOutput();
        d->copySound();
    } catch (const Failure &failure) {
        return failure.reason;
    }
    return {};
}
