#include "jobs/media/CVMagickImage.h"

#include <Magick++.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <mutex>
#include <string>

#include <unistd.h>

namespace {

void start()
{
    static std::once_flag once;
    std::call_once(once, [] { Magick::InitializeMagick(nullptr); });
}

struct Signature
{
    const char *format;
    qsizetype offset;
    QByteArrayView bytes;
};

constexpr char sgi[] = {0x01, static_cast<char>(0xda)};
constexpr char jp2[] = {0, 0, 0, 12, 'j', 'P', ' ', ' '};
constexpr char j2k[] = {static_cast<char>(0xff), 0x4f, static_cast<char>(0xff), 0x51};
constexpr char exr[] = {0x76, 0x2f, 0x31, 0x01};
constexpr char littleTiff[] = {'I', 'I', 42, 0};
constexpr char bigTiff[] = {'M', 'M', 0, 42};

const Signature signatures[] = {
    {"PSD", 0, "8BPS"},
    {"SGI", 0, {sgi, sizeof sgi}},
    {"JP2", 0, {jp2, sizeof jp2}},
    {"J2K", 0, {j2k, sizeof j2k}},
    {"EXR", 0, {exr, sizeof exr}},
    {"HDR", 0, "#?RADIANCE"},
    {"HDR", 0, "#?RGBE"},
    {"DDS", 0, "DDS "},
    {"HEIC", 4, "ftypheic"},
    {"HEIC", 4, "ftypheix"},
    {"HEIC", 4, "ftypheim"},
    {"HEIC", 4, "ftypheis"},
    {"HEIC", 4, "ftypmif1"},
    {"AVIF", 4, "ftypavif"},
    // Qt reads most of these, but not every kind of them.
    {"TIFF", 0, {littleTiff, sizeof littleTiff}},
    {"TIFF", 0, {bigTiff, sizeof bigTiff}},
};

QByteArray bytesOf(const Magick::Blob &blob)
{
    return {static_cast<const char *>(blob.data()), static_cast<qsizetype>(blob.length())};
}

/// The system's policy gives the library about a gibibyte, which its GIF and EXR writers take for some
/// sixty megapixels.
LXError tooLarge()
{
    return pictureError(QStringLiteral("The image is too large for this format."));
}

bool hasAlpha(const Magick::Image &image)
{
#if MagickLibVersion >= 0x700
    return image.alpha();
#else
    return image.matte();
#endif
}

bool isHeif(const char *format)
{
    return std::strcmp(format, "HEIC") == 0 || std::strcmp(format, "AVIF") == 0;
}

} // namespace

namespace CVMagickImage {

const char *formatOf(int descriptor, const QByteArray &extension)
{
    char start[16] = {};
    const ssize_t got = ::pread(descriptor, start, sizeof start, 0);
    const QByteArrayView bytes(start, got > 0 ? got : 0);
    for (const Signature &signature : signatures)
        if (bytes.size() >= signature.offset + signature.bytes.size() &&
            bytes.sliced(signature.offset, signature.bytes.size()) == signature.bytes)
            return signature.format;
    if (extension == "pcx" && bytes.startsWith('\x0a'))
        return "PCX";
    if (extension == "tga")
        return "TGA";
    return nullptr;
}

LXResult<CVPicture> read(const QByteArray &path, const char *format)
{
    start();
    const std::string source = std::string(format) + ':' + path.constData() + "[0]";
    try {
        Magick::Image image;
        const auto isTooLarge = [&image] {
            return image.columns() == 0 || image.rows() == 0 ||
                   static_cast<qint64>(image.columns()) >
                       pictureMaximumPixels / static_cast<qint64>(image.rows());
        };
        try {
            image.ping(source);
        } catch (const Magick::Warning &) {
        }
        if (isTooLarge())
            return pictureError(QStringLiteral("Its dimensions are beyond all reason."));
        try {
            image.read(source);
        } catch (const Magick::WarningCorruptImage &warning) {
            return pictureError(QString::fromLocal8Bit(warning.what()));
        } catch (const Magick::Warning &) {
            // Tags that nobody knows, mostly.
        }
        if (isTooLarge())
            return pictureError(QStringLiteral("Its dimensions are beyond all reason."));
        CVPicture picture;
        picture.isUpright = isHeif(format);
        const auto profile = bytesOf(image.profile("icc"));
        const bool isRgb = image.colorSpace() == Magick::sRGBColorspace;
        if (!isRgb)
            image.colorSpace(Magick::sRGBColorspace);
        const bool deep = image.depth() > 8;
        const bool clear = hasAlpha(image);
        const QSize size(static_cast<int>(image.columns()), static_cast<int>(image.rows()));
        const QImage::Format layout = deep ? (clear ? QImage::Format_RGBA64 : QImage::Format_RGBX64)
                                           : (clear ? QImage::Format_RGBA8888 : QImage::Format_RGBX8888);
        picture.pixels = QImage(size, layout);
        if (picture.pixels.isNull())
            return pictureError(QStringLiteral("There is not enough memory for it."));
        image.write(0, 0, image.columns(), image.rows(), "RGBA",
                    deep ? Magick::ShortPixel : Magick::CharPixel, picture.pixels.bits());
        if (isRgb && !profile.isEmpty())
            picture.tags.setColourProfile(profile);
        if (const auto exif = bytesOf(image.profile("exif")); !exif.isEmpty())
            picture.tags.addExif(exif);
        return picture;
    } catch (const std::exception &error) {
        return pictureError(QString::fromLocal8Bit(error.what()));
    }
}

LXResult<void> write(const QImage &pixels, const QByteArray &path, const QByteArray &extension,
                     const QByteArray &profile)
{
    start();
    try {
        // Only this one of them holds more than eight bits to a purpose.
        const bool deep = extension == "exr" && pixels.depth() > 32;
        const bool clear = pixels.hasAlphaChannel();
        const QImage packed = pixels.convertToFormat(
            deep ? QImage::Format_RGBA64 : (clear ? QImage::Format_RGBA8888 : QImage::Format_RGBX8888));
        if (packed.isNull())
            return pictureError(QStringLiteral("There is not enough memory for it."));
        Magick::Image image(static_cast<std::size_t>(packed.width()),
                            static_cast<std::size_t>(packed.height()), clear ? "RGBA" : "RGBP",
                            deep ? Magick::ShortPixel : Magick::CharPixel, packed.constBits());
        image.depth(deep ? 16 : 8);
        image.magick(extension.toUpper().toStdString());
        if (!profile.isEmpty())
            image.profile("icc", Magick::Blob(profile.constData(), static_cast<std::size_t>(profile.size())));
        if (extension == "jp2") {
            // By itself it halves small images more often than they can be.
            const int side = std::min(packed.width(), packed.height());
            int resolutions = 1;
            while (resolutions < 6 && side >> resolutions >= 8)
                ++resolutions;
            image.defineValue("jp2", "number-resolutions", std::to_string(resolutions));
        }
        if (extension == "exr")
            image.compressType(Magick::ZipCompression);
        else if (extension == "tga" || extension == "sgi" || extension == "psd")
            image.compressType(Magick::RLECompression);
        try {
            image.write(extension.toUpper().toStdString() + ':' + path.toStdString());
        } catch (const Magick::Warning &) {
        }
    } catch (const Magick::ErrorCache &) {
        return tooLarge();
    } catch (const Magick::ErrorResourceLimit &) {
        return tooLarge();
    } catch (const std::exception &error) {
        return pictureError(QString::fromLocal8Bit(error.what()));
    }
    return {};
}

} // namespace CVMagickImage
