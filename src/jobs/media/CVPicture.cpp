#include "jobs/media/CVPicture.h"

#include "jobs/media/CVMagickImage.h"
#include "jobs/media/image_length.h"

#include <QColorSpace>
#include <QFile>
#include <QImageReader>
#include <QImageWriter>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QTransform>

#include <algorithm>
#include <atomic>
#include <cmath>

#include <unistd.h>

namespace {

constexpr int allocationLimitMiB = 2200; // pictureMaximumPixels at 16 bits for each of four channels

/// Qt's formats that hold pixels; of what it reads beside them, nothing is an image of its own.
bool isPixelFormat(const QByteArray &format)
{
    static const QList<QByteArray> formats = {"bmp", "cur", "gif",  "icns", "ico", "jpeg", "jpg",
                                              "pbm", "pgm", "png",  "ppm",  "tga", "tif",  "tiff",
                                              "xbm", "xpm", "wbmp", "webp", "mng"};
    return formats.contains(format);
}

// Qt takes what is left of a damaged JPEG for an image and only says so in its log, so the log is read.
std::atomic<bool> damageWasTold{false};
QtMessageHandler formerHandler = nullptr;

void listen(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    // What else is told there (bytes too many between segments) cameras are known to write.
    for (const char *sign : {"remature end", "bad Huffman", "instead of RST"})
        if (text.contains(QLatin1String(sign)))
            damageWasTold = true;
    if (formerHandler)
        formerHandler(type, context, text);
}

class DamageListener
{
public:
    DamageListener()
    {
        damageWasTold = false;
        formerHandler = qInstallMessageHandler(listen);
    }
    ~DamageListener() { qInstallMessageHandler(formerHandler); }
    DamageListener(const DamageListener &) = delete;
    DamageListener &operator=(const DamageListener &) = delete;
    bool heard() const { return damageWasTold; }
};

LXResult<CVPicture> readWithQt(int descriptor, const QByteArray &extension)
{
    QImageReader::setAllocationLimit(allocationLimitMiB);
    if (::lseek(descriptor, 0, SEEK_SET) < 0)
        return pictureError(QStringLiteral("It cannot be read."));
    QFile file;
    if (!file.open(descriptor, QIODevice::ReadOnly, QFileDevice::DontCloseHandle))
        return pictureError(file.errorString());
    const DamageListener damage;
    QImageReader reader(&file);
    reader.setDecideFormatFromContent(true);
    reader.setAutoTransform(false); // done by the tags, the same way for all
    if (!reader.canRead() && isPixelFormat(extension))
        reader.setFormat(extension); // one without a mark
    if (!reader.canRead() || !isPixelFormat(reader.format()))
        return pictureError(QStringLiteral("It is no image that can be read."));
    const QSize size = reader.size();
    if (size.isValid() && static_cast<qint64>(size.width()) * size.height() > pictureMaximumPixels)
        return pictureError(QStringLiteral("Its dimensions are beyond all reason."));
    CVPicture picture;
    picture.pixels = reader.read();
    if (picture.pixels.isNull())
        return pictureError(reader.errorString());
    if (damage.heard())
        return pictureError(QStringLiteral("The image is damaged."));
    return picture;
}

QImage upright(const QImage &pixels, int orientation)
{
    switch (orientation) {
    case 2:
        return pixels.mirrored(true, false);
    case 3:
        return pixels.mirrored(true, true);
    case 4:
        return pixels.mirrored(false, true);
    case 5:
        return pixels.mirrored(true, false).transformed(QTransform().rotate(270));
    case 6:
        return pixels.transformed(QTransform().rotate(90));
    case 7:
        return pixels.mirrored(true, false).transformed(QTransform().rotate(90));
    case 8:
        return pixels.transformed(QTransform().rotate(270));
    default:
        return pixels;
    }
}

/// On white, as a viewer would show it on paper.
QImage opaque(const QImage &pixels)
{
    if (!pixels.hasAlphaChannel())
        return pixels;
    QImage paper(pixels.size(), QImage::Format_RGB32);
    paper.fill(Qt::white);
    paper.setColorSpace(pixels.colorSpace());
    paper.setDotsPerMeterX(pixels.dotsPerMeterX());
    paper.setDotsPerMeterY(pixels.dotsPerMeterY());
    QPainter painter(&paper);
    painter.drawImage(0, 0, pixels);
    return paper;
}

/// Whether the profile is made for pixels of this kind.
bool fits(const QByteArray &profile, const QImage &pixels)
{
    const QByteArray space = profile.mid(16, 4);
    return space == (pixels.isGrayscale() && pixels.depth() <= 16 ? "GRAY" : "RGB ");
}

bool holdsProfile(const QByteArray &extension)
{
    static const QList<QByteArray> formats = {"jpg", "png", "tiff", "psd", "jp2"};
    return formats.contains(extension);
}

LXResult<void> writePdf(const QImage &pixels, QFile &file)
{
    constexpr double pointsPerInch = 72;
    constexpr double largestPage = 14400; // what readers of PDF take, in points
    double resolution = pixels.dotsPerMeterX() * 0.0254;
    if (resolution < 30 || resolution > 2400)
        resolution = pointsPerInch;
    QSizeF page = QSizeF(pixels.size()) * (pointsPerInch / resolution);
    if (const double longest = std::max(page.width(), page.height()); longest > largestPage)
        page *= largestPage / longest;
    QPdfWriter writer(&file);
    writer.setResolution(1200); // of the coordinates only
    writer.setPageSize(QPageSize(page, QPageSize::Point, {}, QPageSize::ExactMatch));
    writer.setPageMargins(QMarginsF(0, 0, 0, 0));
    QPainter painter;
    if (!painter.begin(&writer))
        return pictureError(QStringLiteral("The PDF could not be begun."));
    painter.drawImage(QRectF(0, 0, writer.width(), writer.height()), pixels);
    if (!painter.end())
        return pictureError(QStringLiteral("The PDF could not be written."));
    return {};
}

LXResult<void> writeWithQt(const QImage &pixels, int descriptor, const QByteArray &extension, double quality)
{
    if (::lseek(descriptor, 0, SEEK_SET) < 0)
        return pictureError(QStringLiteral("It cannot be written."));
    QFile file;
    if (!file.open(descriptor, QIODevice::ReadWrite, QFileDevice::DontCloseHandle))
        return pictureError(file.errorString());
    if (extension == "pdf") {
        if (auto done = writePdf(pixels, file); !done)
            return done;
    } else {
        QImageWriter writer(&file, extension);
        if (quality >= 0)
            writer.setQuality(static_cast<int>(std::lround(quality * 100)));
        if (extension == "tiff")
            writer.setCompression(1); // LZW
        if (extension == "png")
            writer.setQuality(50); // zlib's level 4: as small for photos as 6, and up to three times as fast
        if (extension == "jpg")
            writer.setOptimizedWrite(true);
        if (!writer.write(pixels))
            return pictureError(writer.errorString());
    }
    if (!file.flush() || file.error() != QFileDevice::NoError)
        return pictureError(file.errorString());
    return {};
}

} // namespace

LXError pictureError(const QString &reason)
{
    return {QStringLiteral("CVPicture"), 1, QStringLiteral("The image could not be converted."), reason, {}};
}

LXResult<CVPicture> readPicture(int descriptor, const QByteArray &path, const QByteArray &extension)
{
    if (isImageCutOff(descriptor))
        return pictureError(QStringLiteral("The image is cut off."));
    const char *format = CVMagickImage::formatOf(descriptor, extension);
    const bool isForQt = !format || qstrcmp(format, "TIFF") == 0 || qstrcmp(format, "TGA") == 0;
    auto result = isForQt ? readWithQt(descriptor, extension) : CVMagickImage::read(path, format);
    if (!result && isForQt && format)
        result = CVMagickImage::read(path, format);
    if (!result)
        return result;
    CVPicture &picture = result.value();
    CVImageTags tags = CVImageTags::ofFile(path);
    if (tags.isEmpty() && tags.colourProfile().isEmpty())
        tags = std::move(picture.tags);
    if (!picture.isUpright)
        picture.pixels = upright(picture.pixels, tags.orientation());
    if (picture.pixels.isNull())
        return pictureError(QStringLiteral("There is not enough memory for it."));
    tags.setUpright(picture.pixels.size());
    picture.tags = std::move(tags);
    if (!picture.pixels.colorSpace().isValid() && fits(picture.tags.colourProfile(), picture.pixels))
        picture.pixels.setColorSpace(QColorSpace::fromIccProfile(picture.tags.colourProfile()));
    return result;
}

LXResult<void> writePicture(CVPicture picture, int descriptor, const QByteArray &path,
                            const QByteArray &extension, double quality)
{
    QImage &pixels = picture.pixels;
    if (pixels.depth() <= 8 && pixels.hasAlphaChannel())
        pixels.convertTo(QImage::Format_ARGB32); // not every writer looks for transparency in palettes
    const bool withQt = extension == "jpg" || extension == "png" || extension == "tiff" ||
                        extension == "bmp" || extension == "pdf";
    if (extension == "jpg" || extension == "bmp" || extension == "pdf")
        pixels = opaque(pixels);
    const bool withProfile = holdsProfile(extension) && fits(picture.tags.colourProfile(), pixels);
    if (!holdsProfile(extension) && pixels.colorSpace().isValid() &&
        pixels.colorSpace() != QColorSpace(QColorSpace::SRgb))
        pixels.convertToColorSpace(QColorSpace(QColorSpace::SRgb)); // what viewers take it for
    if (pixels.isNull())
        return pictureError(QStringLiteral("There is not enough memory for it."));
    auto done = withQt ? writeWithQt(pixels, descriptor, extension, quality)
                       : CVMagickImage::write(pixels, path, extension,
                                              withProfile ? picture.tags.colourProfile() : QByteArray());
    if (!done)
        return done;
    pixels = QImage();
    if (!picture.tags.isEmpty() || withProfile)
        picture.tags.write(descriptor, withProfile);
    return {};
}
