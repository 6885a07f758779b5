#include "jobs/media/CVMediaTypes.h"

#include "archives/archive_string.h"
#include "util/LXFileName.h"
#include "util/path_parts.h"

#include <QSet>

#include <climits>

namespace {

constexpr std::uint32_t fourCharacters(const char (&text)[5])
{
    std::uint32_t code = 0;
    for (int i = 0; i < 4; ++i)
        code = code << 8 | static_cast<unsigned char>(text[i]);
    return code;
}

constexpr int bitRates[] = {32000, 128000, 256000, 320000};

bool isAudioType(int type)
{
    return type >= 1 && type <= 8;
}

struct ImageType
{
    const char *extension;
    double quality;
};

constexpr ImageType imageTypes[] = {
    {"jpg", 0.6}, {"jpg", 0.8}, {"jpg", 1.0}, {"png", -1}, {"tiff", -1}, {"tga", -1}, {"sgi", -1},
    {"psd", -1},  {"pdf", -1},  {"bmp", -1},  {"gif", -1}, {"jp2", -1},  {"exr", -1},
};

bool isImageType(int type)
{
    return type >= 1 && type <= static_cast<int>(std::size(imageTypes));
}

// Raw photographs are not here: nobody wants their negatives replaced, and we could not read them.
constexpr const char *readable[] = {
    "avif", "bmp",  "cur", "dds", "dib",  "exr", "gif",  "hdr",  "heic", "heif", "icns", "ico",
    "j2k",  "jfif", "jp2", "jpe", "jpeg", "jpg", "jpx",  "pbm",  "pcx",  "pdf",  "pgm",  "png",
    "pnm",  "ppm",  "psd", "sgi", "tga",  "tif", "tiff", "wbmp", "webp", "xbm",  "xpm",
};

} // namespace

namespace CVMediaTypes {

std::uint32_t audioCodec(int type)
{
    return isAudioType(type) ? fourCharacters("aac ") : noFormat;
}

std::uint32_t audioContainer(int type)
{
    return isAudioType(type) ? fourCharacters("m4af") : noFormat;
}

QString audioExtension(int type)
{
    return type >= 1 && type <= 4 ? QStringLiteral("m4a") : QStringLiteral("mp4");
}

int audioBitRate(int type)
{
    return isAudioType(type) ? bitRates[(type - 1) % 4] : 0;
}

QString imageExtension(int type)
{
    return isImageType(type) ? QString::fromLatin1(imageTypes[type - 1].extension) : QString();
}

double imageQuality(int type)
{
    return isImageType(type) ? imageTypes[type - 1].quality : -1;
}

const QStringList &imageFileTypes()
{
    static const QStringList types = [] {
        QStringList list;
        for (const char *extension : readable)
            list << QString::fromLatin1(extension) << QString::fromLatin1(extension).toUpper();
        return list;
    }();
    return types;
}

Kind kindOfFile(const QByteArray &path, int imageType, int audioType)
{
    // As Latin 1, because patterns match nothing in a text with bytes that are no UTF-8; what is looked
    // for is ASCII.
    const QString text = QString::fromLatin1(path);
    const QString extension = QString::fromLatin1(extensionOfName(lastComponent(path)));
    if (audioType != 0 && extension != audioExtension(audioType) && isAudioFile(text))
        return Kind::Audio;
    static const QSet<QString> images(imageFileTypes().begin(), imageFileTypes().end());
    if (imageType != 0 && images.contains(extension) && extension.toLower() != QLatin1String("pdf"))
        return Kind::Image;
    return Kind::None;
}

QByteArray extensionOfName(const QByteArray &name)
{
    const qsizetype dot = name.lastIndexOf('.');
    return dot > 0 ? name.mid(dot + 1) : QByteArray();
}

QByteArray nameWithExtension(const QByteArray &name, const QByteArray &extension, qint64 counter)
{
    const qsizetype dot = name.lastIndexOf('.');
    QByteArray base = dot > 0 ? name.left(dot) : name;
    QByteArray tail;
    if (counter > 1)
        tail = ' ' + QByteArray::number(counter);
    tail += '.' + extension;
    if (base.size() + tail.size() > NAME_MAX) {
        QString text = fileNameFromBytes(base);
        do
            text.chop(text.size() > 1 && text.back().isLowSurrogate() &&
                              text[text.size() - 2].isHighSurrogate()
                          ? 2
                          : 1);
        while (!text.isEmpty() && bytesOfFileName(text).size() + tail.size() > NAME_MAX);
        base = bytesOfFileName(text);
    }
    return base + tail;
}

} // namespace CVMediaTypes
