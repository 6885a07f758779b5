#include "jobs/media/CVImageTags.h"

#include "util/write_all.h"

#include <QLoggingCategory>

#include <exiv2/exiv2.hpp>

#include <exception>

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

Q_LOGGING_CATEGORY(lcTags, "corvane.media.tags")

namespace {

void quiet()
{
    // It would write about every odd tag to the standard error.
    static const bool done = [] {
        Exiv2::LogMsg::setLevel(Exiv2::LogMsg::mute);
        Exiv2::XmpParser::initialize();
        return true;
    }();
    static_cast<void>(done);
}

/// The contents of a file, mapped. Writable, because tags are changed in place where they fit; nothing of it
/// gets into the file by itself.
class Mapping
{
public:
    explicit Mapping(int descriptor)
    {
        struct stat facts
        {};
        if (::fstat(descriptor, &facts) != 0 || facts.st_size <= 0)
            return;
        m_size = static_cast<std::size_t>(facts.st_size);
        m_data = ::mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_PRIVATE, descriptor, 0);
        if (m_data == MAP_FAILED)
            m_data = nullptr;
    }
    ~Mapping()
    {
        if (m_data)
            ::munmap(m_data, m_size);
    }
    Mapping(const Mapping &) = delete;
    Mapping &operator=(const Mapping &) = delete;

    const unsigned char *data() const { return static_cast<const unsigned char *>(m_data); }
    long size() const { return static_cast<long>(m_size); }

private:
    void *m_data = nullptr;
    std::size_t m_size = 0;
};

// The library changed these between 0.27 (Debian 12) and 0.28 (Debian 13).
#if EXIV2_TEST_VERSION(0, 28, 0)
QByteArray profileOf(const Exiv2::Image &image)
{
    const Exiv2::DataBuf &profile = image.iccProfile();
    return {reinterpret_cast<const char *>(profile.c_data()), static_cast<qsizetype>(profile.size())};
}

std::int64_t numberOf(const Exiv2::Exifdatum &tag)
{
    return tag.toInt64();
}

void setProfile(Exiv2::Image &image, const QByteArray &profile)
{
    image.setIccProfile(Exiv2::DataBuf(reinterpret_cast<const unsigned char *>(profile.constData()),
                                       static_cast<std::size_t>(profile.size())));
}
#else
QByteArray profileOf(Exiv2::Image &image)
{
    const Exiv2::DataBuf &profile = *image.iccProfile();
    return {reinterpret_cast<const char *>(profile.pData_), profile.size_};
}

std::int64_t numberOf(const Exiv2::Exifdatum &tag)
{
    return tag.toLong();
}

void setProfile(Exiv2::Image &image, const QByteArray &bytes)
{
    Exiv2::DataBuf profile(reinterpret_cast<const unsigned char *>(bytes.constData()),
                           static_cast<long>(bytes.size()));
    image.setIccProfile(profile);
}
#endif

bool holds(const Exiv2::Image &image, Exiv2::MetadataId what)
{
    return (image.checkMode(what) & Exiv2::amWrite) != 0;
}

/// What describes how the source stored its pixels says nothing true about the copy.
void dropStorageTags(Exiv2::ExifData &exif)
{
    static const char *const storage[] = {
        "Exif.Image.ImageWidth",      "Exif.Image.ImageLength",      "Exif.Image.BitsPerSample",
        "Exif.Image.Compression",     "Exif.Image.StripOffsets",     "Exif.Image.PhotometricInterpretation",
        "Exif.Image.SamplesPerPixel", "Exif.Image.RowsPerStrip",     "Exif.Image.StripByteCounts",
        "Exif.Image.TileWidth",       "Exif.Image.TileLength",       "Exif.Image.TileOffsets",
        "Exif.Image.TileByteCounts",  "Exif.Image.Predictor",        "Exif.Image.PlanarConfiguration",
        "Exif.Image.ColorMap",        "Exif.Image.JPEGTables",       "Exif.Image.InterColorProfile",
        "Exif.Image.ExtraSamples",    "Exif.Image.SampleFormat",     "Exif.Image.FillOrder",
        "Exif.Image.NewSubfileType",  "Exif.Image.ImageResources",   "Exif.Image.XMLPacket",
        "Exif.Image.IPTCNAA",         "Exif.Image.YCbCrSubSampling",
    };
    for (const char *key : storage) {
        const auto found = exif.findKey(Exiv2::ExifKey(key));
        if (found != exif.end())
            exif.erase(found);
    }
}

} // namespace

struct CVImageTags::Private
{
    Exiv2::ExifData exif;
    Exiv2::IptcData iptc;
    Exiv2::XmpData xmp;
    std::string comment;
    QByteArray profile;
};

CVImageTags::CVImageTags()
    : d(std::make_unique<Private>())
{
    quiet();
}

CVImageTags::~CVImageTags() = default;
CVImageTags::CVImageTags(CVImageTags &&) noexcept = default;
CVImageTags &CVImageTags::operator=(CVImageTags &&) noexcept = default;

CVImageTags CVImageTags::ofFile(const QByteArray &path)
{
    CVImageTags tags;
    try {
        const auto image = Exiv2::ImageFactory::open(path.toStdString());
        if (!image.get())
            return tags;
        image->readMetadata();
        tags.d->exif = image->exifData();
        tags.d->iptc = image->iptcData();
        tags.d->xmp = image->xmpData();
        tags.d->comment = image->comment();
        if (image->iccProfileDefined())
            tags.d->profile = profileOf(*image);
    } catch (const std::exception &) {
        qCDebug(lcTags) << "no tags are read from this file";
    }
    return tags;
}

void CVImageTags::addExif(const QByteArray &bytes)
{
    QByteArray tiff = bytes;
    if (tiff.startsWith(QByteArray("Exif\0\0", 6)))
        tiff.remove(0, 6);
    try {
        Exiv2::ExifParser::decode(d->exif, reinterpret_cast<const unsigned char *>(tiff.constData()),
                                  static_cast<std::uint32_t>(tiff.size()));
    } catch (const std::exception &) {
        d->exif.clear();
    }
}

void CVImageTags::setColourProfile(const QByteArray &bytes)
{
    d->profile = bytes;
}

bool CVImageTags::isEmpty() const
{
    return d->exif.empty() && d->iptc.empty() && d->xmp.empty() && d->comment.empty();
}

int CVImageTags::orientation() const
{
    try {
        const auto found = d->exif.findKey(Exiv2::ExifKey("Exif.Image.Orientation"));
        if (found == d->exif.end() || found->count() == 0)
            return 1;
        const std::int64_t value = numberOf(*found);
        return value >= 1 && value <= 8 ? static_cast<int>(value) : 1;
    } catch (const std::exception &) {
        return 1;
    }
}

void CVImageTags::setUpright(QSize size)
{
    try {
        const bool turned = orientation() != 1;
        if (const auto found = d->exif.findKey(Exiv2::ExifKey("Exif.Image.Orientation"));
            found != d->exif.end())
            *found = std::uint16_t{1};
        const auto replace = [&](const char *key, int value) {
            if (const auto found = d->exif.findKey(Exiv2::ExifKey(key)); found != d->exif.end())
                *found = static_cast<std::uint32_t>(value);
        };
        replace("Exif.Photo.PixelXDimension", size.width());
        replace("Exif.Photo.PixelYDimension", size.height());
        if (const auto found = d->xmp.findKey(Exiv2::XmpKey("Xmp.tiff.Orientation")); found != d->xmp.end())
            *found = std::string("1");
        if (turned)
            Exiv2::ExifThumb(d->exif).erase();
    } catch (const std::exception &) {
        d->exif.clear(); // better none than one that turns the image once more
        d->xmp.clear();
    }
}

const QByteArray &CVImageTags::colourProfile() const
{
    return d->profile;
}

void CVImageTags::write(int descriptor, bool withProfile) const
{
    // What cannot be stored (a maker's note that is too long, say) takes the rest with it, so a second
    // go does without the largest piece.
    for (const bool everything : {true, false}) {
        try {
            const Mapping file(descriptor);
            if (!file.data())
                return;
            const auto image = Exiv2::ImageFactory::open(file.data(), file.size());
            if (!image.get())
                return;
            image->readMetadata();
            if (holds(*image, Exiv2::mdExif) && !d->exif.empty()) {
                Exiv2::ExifData exif = d->exif;
                dropStorageTags(exif);
                if (!everything) {
                    Exiv2::ExifThumb(exif).erase();
                    if (const auto note = exif.findKey(Exiv2::ExifKey("Exif.Photo.MakerNote"));
                        note != exif.end())
                        exif.erase(note);
                }
                for (const Exiv2::Exifdatum &tag : exif)
                    image->exifData()[tag.key()] = tag.value();
            }
            if (holds(*image, Exiv2::mdIptc) && !d->iptc.empty())
                image->setIptcData(d->iptc);
            if (holds(*image, Exiv2::mdXmp) && !d->xmp.empty())
                image->setXmpData(d->xmp);
            if (holds(*image, Exiv2::mdComment) && !d->comment.empty())
                image->setComment(d->comment);
            if (withProfile && !d->profile.isEmpty())
                setProfile(*image, d->profile);
            image->writeMetadata();
            Exiv2::BasicIo &io = image->io();
            if (io.open() != 0)
                return;
            const unsigned char *bytes = io.mmap();
            const auto size = static_cast<std::size_t>(io.size());
            // The image's memory may still be the mapping itself; writing that over itself is harmless.
            if (bytes && size > 0 &&
                (!writeAllAt(descriptor, bytes, size, 0) ||
                 ::ftruncate(descriptor, static_cast<off_t>(size)) != 0))
                qCWarning(lcTags) << "the tags could not be written";
            io.munmap();
            return;
        } catch (const std::exception &error) {
            qCDebug(lcTags) << "tags left out:" << error.what();
        }
    }
}
