#include "jobs/media/CVImageFileConverter.h"
#include "jobs/media/MediaFolder.h"

#include <QColorSpace>
#include <QFile>
#include <QImage>
#include <QPoint>
#include <QProcess>
#include <QTest>

#include <exiv2/exiv2.hpp>

#include <zlib.h>

using namespace Qt::StringLiterals;

namespace {

/// Each channel within what a lossy format may do to it.
bool isLike(const QList<int> &colour, const QList<int> &expected, int distance)
{
    if (colour.size() < expected.size())
        return false;
    for (qsizetype i = 0; i < expected.size(); ++i)
        if (qAbs(colour[i] - expected[i]) > distance)
            return false;
    return true;
}

QString text(const QList<int> &colour)
{
    QStringList numbers;
    for (const int value : colour)
        numbers << QString::number(value);
    return numbers.join(u' ');
}

/// The corners in reading order: red, green, blue, black.
const QString fourCorners =
    u"-size 40x20 xc:red xc:lime +append ( -size 40x20 xc:blue xc:black +append ) -append -depth 8"_s;

QByteArray chunk(const QByteArray &type, const QByteArray &data)
{
    const auto number = [](quint32 value) {
        QByteArray bytes;
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes += static_cast<char>(value >> shift);
        return bytes;
    };
    const QByteArray content = type + data;
    const auto sum =
        ::crc32(0, reinterpret_cast<const Bytef *>(content.constData()), static_cast<uInt>(content.size()));
    return number(static_cast<quint32>(data.size())) + content + number(static_cast<quint32>(sum));
}

/// A few bytes that say they are 60,000 × 60,000 pixels.
QByteArray hugePng()
{
    const QByteArray header = QByteArray::fromHex("0000ea600000ea600802000000");
    return QByteArray::fromHex("89504e470d0a1a0a") + chunk("IHDR", header) +
           chunk("IDAT", qCompress(QByteArray(200000, '\0')).mid(4)) + chunk("IEND", {});
}

} // namespace

class ImageConverterTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void writesEveryType_data();
    void writesEveryType();
    void qualityGoverns();
    void readsEverything_data();
    void readsEverything();
    void turnsUpright_data();
    void turnsUpright();
    void keepsTags_data();
    void keepsTags();
    void keepsColours_data();
    void keepsColours();
    void transparency_data();
    void transparency();
    void refuses_data();
    void refuses();
    void cutOff_data();
    void cutOff();
    void byPath();
};

void ImageConverterTest::writesEveryType_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("extension");
    QTest::addColumn<QByteArray>("format");
    QTest::addColumn<int>("distance");
    const struct
    {
        const char *extension;
        const char *format;
        int distance;
    } types[] = {
        {"jpg", "JPEG", 12}, {"jpg", "JPEG", 8}, {"jpg", "JPEG", 4}, {"png", "PNG", 0}, {"tiff", "TIFF", 0},
        {"tga", "TGA", 0},   {"sgi", "SGI", 0},  {"psd", "PSD", 0},  {"pdf", "PDF", 0}, {"bmp", "BMP3", 0},
        {"gif", "GIF", 0},   {"jp2", "JP2", 2},  {"exr", "EXR", 2},
    };
    int number = 0;
    for (const auto &type : types) {
        ++number;
        QTest::addRow("%d %s", number, type.extension)
            << number << QString::fromLatin1(type.extension) << QByteArray(type.format) << type.distance;
    }
}

void ImageConverterTest::writesEveryType()
{
    QFETCH(int, type);
    QFETCH(QString, extension);
    QFETCH(QByteArray, format);
    QFETCH(int, distance);
    const MediaFolder folder;
    QVERIFY(folder.image(fourCorners, "picture.ppm"));
    const auto result = folder.convert(type, 0);
    QVERIFY2(result.succeeded, qPrintable(result.reason));
    const QByteArray name = "picture." + extension.toLatin1();
    QCOMPARE(folder.names(), QList<QByteArray>{name});
    if (format == "PDF") {
        const QByteArray contents = folder.read(name);
        QVERIFY(contents.startsWith("%PDF-"));
        QVERIFY(contents.contains("/MediaBox [0 0 60"));
        QVERIFY(contents.contains("/Subtype /Image"));
        return;
    }
    const QString path = folder.path(name.constData());
    QCOMPARE(identify(path, u"%m %w %h"_s), format + " 80 40");
    const QList<QList<int>> corners{{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {0, 0, 0}};
    const QList<QPoint> points{{10, 5}, {70, 5}, {10, 35}, {70, 35}};
    for (int i = 0; i < 4; ++i) {
        const auto colour = colourAt(path, points[i].x(), points[i].y());
        QVERIFY2(isLike(colour, corners[i], distance), qPrintable(text(colour)));
    }
}

void ImageConverterTest::qualityGoverns()
{
    QList<qint64> sizes;
    for (int type = 1; type <= 3; ++type) {
        const MediaFolder folder;
        QVERIFY(folder.image(u"-size 400x300 -seed 1 plasma:red-blue"_s, "IMG.PNG"));
        QVERIFY(folder.convert(type, 0).succeeded);
        sizes << folder.read("IMG.jpg").size();
        QCOMPARE(identify(folder.path("IMG.jpg"), u"%Q"_s).toInt(), QList<int>({60, 80, 100})[type - 1]);
    }
    QVERIFY(sizes[0] > 0 && sizes[0] < sizes[1] && sizes[1] < sizes[2]);
}

void ImageConverterTest::readsEverything_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QString>("prefix");
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<int>("distance");
    const auto row = [](const char *title, const char *name, const QString &more = {},
                        const QString &prefix = {}, int distance = 2) {
        QTest::newRow(title) << more << prefix << QByteArray(name) << distance;
    };
    row("jpg", "a.jpg", u"-quality 100"_s, {}, 6);
    row("grey jpg", "a.JPEG", u"-colorspace Gray"_s, {}, 60);
    row("CMYK jpg", "a.jpe", u"-colorspace CMYK -quality 100"_s, {}, 8);
    row("png", "a.png");
    row("16 bit png", "a.PNG", u"-depth 16"_s, u"png48:"_s);
    row("png of a palette", "a.png", {}, u"png8:"_s);
    row("gif, several", "a.gif", u"( +clone -negate )"_s);
    row("tiff", "a.tif");
    row("16 bit tiff", "a.tiff", u"-depth 16"_s);
    row("CMYK tiff", "a.TIF", u"-colorspace CMYK"_s, {}, 8);
    row("float tiff", "a.tif", u"-compress zip -define quantum:format=floating-point -depth 32"_s);
    row("bmp", "a.bmp");
    row("tga", "a.tga");
    row("psd", "a.psd");
    row("sgi", "a.sgi");
    row("jp2", "a.jp2");
    row("exr", "a.exr");
    row("webp", "a.webp", u"-define webp:lossless=true"_s);
    row("heic", "a.heic", u"-quality 95"_s, {}, 12);
    row("ico", "a.ico");
    row("pcx", "a.pcx");
    row("dds", "a.dds", {}, {}, 10);
    row("pgm", "a.pgm", u"-colorspace Gray"_s, {}, 60);
    row("hdr", "a.hdr", {}, {}, 6);
    row("xpm", "a.xpm");
    row("jpg that is called png", "a.png", u"-quality 100"_s, u"jpg:"_s, 6);
}

void ImageConverterTest::readsEverything()
{
    QFETCH(QString, arguments);
    QFETCH(QString, prefix);
    QFETCH(QByteArray, name);
    QFETCH(int, distance);
    const MediaFolder folder;
    QStringList all = QProcess::splitCommand(fourCorners) + QProcess::splitCommand(arguments);
    all << prefix + folder.path(name.constData());
    QVERIFY(!outputOf(u"convert"_s, all).isNull());
    const auto before = colourAt(folder.path(name.constData()), 10, 35);
    const auto result = folder.convert(10, 0);
    QVERIFY2(result.succeeded, qPrintable(result.reason));
    QCOMPARE(folder.names(), QList<QByteArray>{"a.bmp"});
    QCOMPARE(identify(folder.path("a.bmp"), u"%w %h"_s), "80 40");
    const auto after = colourAt(folder.path("a.bmp"), 10, 35);
    if (distance >= 60) // grey: another reader is the measure
        QVERIFY2(isLike(after, before.first(3), 4), qPrintable(text(before) + u" / "_s + text(after)));
    else
        QVERIFY2(isLike(after, {0, 0, 255}, distance), qPrintable(text(after)));
}

void ImageConverterTest::turnsUpright_data()
{
    QTest::addColumn<int>("orientation");
    QTest::addColumn<QString>("source");
    QTest::addColumn<int>("type");
    for (int orientation = 1; orientation <= 8; ++orientation)
        QTest::addRow("%d to png", orientation) << orientation << u"jpg"_s << 4;
    QTest::newRow("jpg to itself") << 6 << u"jpg"_s << 3;
    QTest::newRow("tiff to jpg") << 8 << u"tiff"_s << 3;
    QTest::newRow("png to gif") << 6 << u"png"_s << 11;
}

void ImageConverterTest::turnsUpright()
{
    QFETCH(int, orientation);
    QFETCH(QString, source);
    QFETCH(int, type);
    const MediaFolder folder;
    const QByteArray name = "a." + source.toLatin1();
    QVERIFY(folder.image(fourCorners + u" -quality 100 -sampling-factor 1x1"_s, name.constData()));
    {
        const auto image = Exiv2::ImageFactory::open(folder.path(name.constData()).toStdString());
        image->readMetadata();
        image->exifData()["Exif.Image.Orientation"] = static_cast<std::uint16_t>(orientation);
        image->writeMetadata();
    }
    // Another program's turning is the measure.
    QVERIFY(!outputOf(u"convert"_s,
                      {u"-auto-orient"_s, folder.path(name.constData()), u"bmp:"_s + folder.path("expected")})
                 .isNull());
    const auto result = folder.convert(type, 0);
    QVERIFY2(result.succeeded, qPrintable(result.reason));
    const QString path = folder.path() + u"/a."_s + CVImageFileConverter::imageFormatExtensionForType(type);
    QCOMPARE(identify(path, u"%w %h"_s), identify(folder.path("expected"), u"%w %h"_s));
    QCOMPARE(identify(path, u"%w %h"_s), orientation > 4 ? "40 80" : "80 40");
    QVERIFY(QByteArrayList({"TopLeft", "Undefined"}).contains(identify(path, u"%[orientation]"_s)));
    const int right = orientation > 4 ? 30 : 70;
    const int bottom = orientation > 4 ? 70 : 30;
    for (const QPoint point :
         {QPoint(10, 10), QPoint(right, 10), QPoint(10, bottom), QPoint(right, bottom)}) {
        const auto colour = colourAt(path, point.x(), point.y());
        const auto expected = colourAt(folder.path("expected"), point.x(), point.y());
        QVERIFY2(isLike(colour, expected.first(3), 10), qPrintable(text(colour) + u" / "_s + text(expected)));
    }
}

void ImageConverterTest::keepsTags_data()
{
    QTest::addColumn<QByteArray>("source");
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("target");
    QTest::newRow("jpg to jpg") << QByteArray("a.jpg") << 1 << u"a.jpg"_s;
    QTest::newRow("jpg to png") << QByteArray("a.jpg") << 4 << u"a.png"_s;
    QTest::newRow("jpg to tiff") << QByteArray("a.jpg") << 5 << u"a.tiff"_s;
    QTest::newRow("jpg to psd") << QByteArray("a.jpg") << 8 << u"a.psd"_s;
    QTest::newRow("jpg to jp2") << QByteArray("a.jpg") << 12 << u"a.jp2"_s;
    QTest::newRow("png to jpg") << QByteArray("a.png") << 2 << u"a.jpg"_s;
    QTest::newRow("tiff to jpg") << QByteArray("a.tif") << 3 << u"a.jpg"_s;
    QTest::newRow("tiff to tiff") << QByteArray("a.tif") << 5 << u"a.tiff"_s;
}

void ImageConverterTest::keepsTags()
{
    QFETCH(QByteArray, source);
    QFETCH(int, type);
    QFETCH(QString, target);
    const MediaFolder folder;
    QVERIFY(folder.image(fourCorners, source.constData()));
    {
        const auto image = Exiv2::ImageFactory::open(folder.path(source.constData()).toStdString());
        image->readMetadata();
        image->exifData()["Exif.Image.Make"] = "Maker";
        image->exifData()["Exif.Photo.DateTimeOriginal"] = "2020:02:03 04:05:06";
        image->exifData()["Exif.GPSInfo.GPSLatitudeRef"] = "N";
        image->exifData()["Exif.Photo.PixelXDimension"] = std::uint32_t{1};
        image->iptcData()["Iptc.Application2.Caption"] = "A caption";
        image->xmpData()["Xmp.dc.creator"] = "Somebody";
        image->writeMetadata();
    }
    const auto result = folder.convert(type, 0);
    QVERIFY2(result.succeeded, qPrintable(result.reason));
    const auto image = Exiv2::ImageFactory::open(folder.path(target.toLatin1().constData()).toStdString());
    image->readMetadata();
    QCOMPARE(QByteArray::fromStdString(image->exifData()["Exif.Image.Make"].toString()), "Maker");
    QCOMPARE(QByteArray::fromStdString(image->exifData()["Exif.Photo.DateTimeOriginal"].toString()),
             "2020:02:03 04:05:06");
    QCOMPARE(QByteArray::fromStdString(image->exifData()["Exif.GPSInfo.GPSLatitudeRef"].toString()), "N");
    QCOMPARE(image->exifData()["Exif.Photo.PixelXDimension"].toLong(), 80);
    QCOMPARE(QByteArray::fromStdString(image->iptcData()["Iptc.Application2.Caption"].toString()),
             "A caption");
    QCOMPARE(QByteArray::fromStdString(image->xmpData()["Xmp.dc.creator"].toString()), "Somebody");
    QCOMPARE(identify(folder.path() + u'/' + target, u"%w %h"_s), "80 40");
    const auto colour = colourAt(folder.path() + u'/' + target, 10, 35);
    QVERIFY2(isLike(colour, {0, 0, 255}, 12), qPrintable(text(colour)));
}

void ImageConverterTest::keepsColours_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<bool>("keepsProfile");
    QTest::newRow("jpg") << 3 << true;
    QTest::newRow("png") << 4 << true;
    QTest::newRow("tiff") << 5 << true;
    QTest::newRow("psd") << 8 << true;
    QTest::newRow("bmp") << 10 << false;
    QTest::newRow("gif") << 11 << false;
    QTest::newRow("tga") << 6 << false;
}

void ImageConverterTest::keepsColours()
{
    QFETCH(int, type);
    QFETCH(bool, keepsProfile);
    const MediaFolder folder;
    // Qt writes a wide colour space into a file, without another tool's profiles at hand.
    {
        QImage image(40, 30, QImage::Format_RGB32);
        image.fill(QColor(200, 60, 30));
        image.setColorSpace(QColorSpace(QColorSpace::AdobeRgb));
        QVERIFY(image.save(folder.path("a.png")));
    }
    const QByteArray name = "a." + CVImageFileConverter::imageFormatExtensionForType(type).toLatin1();
    const auto result = folder.convert(type, 0);
    QVERIFY2(result.succeeded, qPrintable(result.reason));
    const QString path = folder.path(name.constData());
    if (keepsProfile) {
        QVERIFY(!outputOf(u"convert"_s, {path + u"[0]"_s, u"icc:"_s + folder.path("profile")}).isNull());
        QVERIFY(QColorSpace::fromIccProfile(folder.read("profile")) == QColorSpace(QColorSpace::AdobeRgb));
        QVERIFY(isLike(colourAt(path, 5, 5), {200, 60, 30}, 3));
    } else {
        // The same colour, told in sRGB.
        QImage expected(1, 1, QImage::Format_RGB32);
        expected.fill(QColor(200, 60, 30));
        expected.setColorSpace(QColorSpace(QColorSpace::AdobeRgb));
        expected.convertToColorSpace(QColorSpace(QColorSpace::SRgb));
        const QColor colour = expected.pixelColor(0, 0);
        QVERIFY(qAbs(colour.red() - 200) > 10);
        const auto found = colourAt(path, 5, 5);
        QVERIFY2(isLike(found, {colour.red(), colour.green(), colour.blue()}, 3), qPrintable(text(found)));
    }
}

void ImageConverterTest::transparency_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QList<int>>("colour");
    const QList<int> white{255, 255, 255, 255};
    QTest::newRow("jpg") << 3 << white;
    QTest::newRow("bmp") << 10 << white;
    for (const int type : {4, 5, 6, 7, 8, 11, 12, 13})
        QTest::addRow("type %d", type) << type << QList<int>();
}

void ImageConverterTest::transparency()
{
    QFETCH(int, type);
    QFETCH(QList<int>, colour);
    const MediaFolder folder;
    QVERIFY(folder.image(u"-size 40x20 xc:none xc:red +append"_s, "a.png"));
    const auto result = folder.convert(type, 0);
    QVERIFY2(result.succeeded, qPrintable(result.reason));
    const QString path = folder.path(folder.names().first().constData());
    const auto clear = colourAt(path, 10, 10);
    const auto full = colourAt(path, 70, 10);
    if (colour.isEmpty())
        QCOMPARE(clear.value(3), 0);
    else
        QVERIFY2(isLike(clear, colour, 2), qPrintable(text(clear)));
    QVERIFY2(isLike(full, {255, 0, 0, 255}, 4), qPrintable(text(full)));
}

void ImageConverterTest::refuses_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QByteArray>("contents");
    QTest::newRow("empty") << QByteArray("a.png") << QByteArray();
    QTest::newRow("junk") << QByteArray("a.jpg") << QByteArray(5000, 'j');
    QTest::newRow("bomb") << QByteArray("a.png") << hugePng();
    QTest::newRow("bomb, psd") << QByteArray("a.psd")
                               << QByteArray::fromHex(
                                      "3842505300010000000000000003000493e0000493e000080003") +
                                      QByteArray(64, '\0');
    QTest::newRow("drawing that names another file")
        << QByteArray("a.png")
        << QByteArray("<svg xmlns='http://www.w3.org/2000/svg' width='9' height='9'><image "
                      "href='/etc/passwd'/></svg>");
    QTest::newRow("script for the image library")
        << QByteArray("a.tga") << QByteArray("push graphic-context\nimage over 0,0 9,9 '/etc/hostname'\n");
    QTest::newRow("name for the image library") << QByteArray("a.gif") << QByteArray("@/etc/passwd");
}

void ImageConverterTest::refuses()
{
    QFETCH(QByteArray, name);
    QFETCH(QByteArray, contents);
    const MediaFolder folder;
    folder.write(name, contents);
    for (const int type : {1, 11}) {
        const auto result = folder.convert(type, 0);
        QVERIFY(!result.succeeded);
        QCOMPARE(result.failedFile.toLatin1(), name);
        QVERIFY(!result.reason.isEmpty());
        QVERIFY2(!result.reason.contains(u"sudden"_s), qPrintable(result.reason));
        QCOMPARE(folder.names(), QList<QByteArray>{name});
        QCOMPARE(folder.read(name), contents);
    }
}

void ImageConverterTest::cutOff_data()
{
    QTest::addColumn<QByteArray>("name");
    for (const char *name : {"a.jpg", "a.png", "a.gif", "a.tiff", "a.bmp", "a.tga", "a.psd", "a.sgi", "a.jp2",
                             "a.exr", "a.webp", "a.heic", "a.ppm", "a.pcx"})
        QTest::newRow(name) << QByteArray(name);
}

void ImageConverterTest::cutOff()
{
    QFETCH(QByteArray, name);
    const MediaFolder folder;
    QVERIFY(folder.image(u"-size 300x200 -seed 1 plasma:red-blue -depth 8"_s, name.constData()));
    const QByteArray whole = folder.read(name);
    for (const int percent : {5, 60, 95}) {
        folder.write(name, whole.left(whole.size() * percent / 100));
        const auto result = folder.convert(4, 0);
        QVERIFY2(!result.succeeded, qPrintable(QString::number(percent)));
        QCOMPARE(folder.names(), QList<QByteArray>{name});
    }
}

void ImageConverterTest::byPath()
{
    const MediaFolder folder;
    QVERIFY(folder.image(fourCorners, "a.gif"));
    folder.write("a.png", "in the way");
    CVImageFileConverter converter;
    QVERIFY(!converter.manipulateImageFile(folder.path("a.gif"), 14));
    QVERIFY2(converter.manipulateImageFile(folder.path("a.gif"), 4), qPrintable(converter.failureReason()));
    QVERIFY(!converter.manipulateImageFile(folder.path("a.gif"), 4));
    QCOMPARE(folder.names(), (QList<QByteArray>{"a 2.png", "a.png"}));
    QCOMPARE(folder.read("a.png"), "in the way");
    for (const int type : {-1, 0, 14}) {
        QVERIFY(CVImageFileConverter::imageFormatExtensionForType(type).isNull());
        QCOMPARE(CVImageFileConverter::qualityForType(type), -1.0);
    }
}

QTEST_GUILESS_MAIN(ImageConverterTest)
#include "tst_imageconverter.moc"
