#include "ui/outline/CVQuickLookContents.h"

#include "util/LXFileName.h"

#include <QCoreApplication>
#include <QFile>
#include <QImageReader>
#include <QMimeDatabase>
#include <QStringDecoder>

#include <algorithm>
#include <array>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 mostText = 256 * 1024;
// Lines of any length would each be laid out whole.
constexpr qsizetype longestLine = 400;
// Coloured output of a terminal is text still.
constexpr qsizetype fewControls = 8;
constexpr qint64 mostExtracted = 256LL * 1024 * 1024;
constexpr qint64 mostPixels = 100'000'000;
constexpr int mostMegabytes = 512;
constexpr int largestSide = 2048;
// What they decode to is known from their first bytes. No drawings: they are programs of a kind.
constexpr std::array pixelFormats{"png", "jpeg", "jpg", "gif", "bmp", "webp",
                                  "ico", "tiff", "ppm", "pgm", "pbm"};

QString tr(const char *text)
{
    return QCoreApplication::translate("CVQuickLookContents", text);
}

CVQuickLookContents pictureIn(QFile &file)
{
    CVQuickLookContents contents;
    QImageReader reader(&file);
    reader.setDecideFormatFromContent(true);
    reader.setAllocationLimit(mostMegabytes);
    reader.setAutoTransform(true);
    const QByteArray format = reader.format();
    if (std::ranges::none_of(pixelFormats, [&](const char *known) { return format == known; }))
        return contents;
    const QSize size = reader.size();
    if (!size.isValid() || qint64(size.width()) * size.height() > mostPixels) {
        contents.problem = tr("This picture is too large to be shown here.");
        return contents;
    }
    if (std::max(size.width(), size.height()) > largestSide)
        reader.setScaledSize(
            size.scaled(largestSide, largestSide, Qt::KeepAspectRatio).expandedTo(QSize(1, 1)));
    contents.picture = reader.read();
    contents.pictureSize = size;
    if (contents.picture.isNull())
        contents.problem = tr("This picture is damaged.");
    else
        contents.kind = CVQuickLookContents::Kind::Picture;
    return contents;
}

// Lines are cut, and characters that steer instead of being shown become marks.
QString shownText(const QString &text)
{
    QString shown;
    shown.reserve(text.size());
    qsizetype inLine = 0;
    for (const QChar c : text) {
        if (c == u'\n') {
            inLine = 0;
            shown += c;
            continue;
        }
        if (c == u'\r')
            continue;
        if (++inLine > longestLine && !c.isLowSurrogate()) {
            shown += u'\n';
            inLine = 1;
        }
        const bool steers =
            c != u'\t' && (c.category() == QChar::Other_Control || c.category() == QChar::Other_Format ||
                           c.unicode() == 0x2028 || c.unicode() == 0x2029);
        shown += steers ? QChar(QChar::ReplacementCharacter) : c;
    }
    return shown;
}

CVQuickLookContents textIn(const QByteArray &bytes, bool isCut)
{
    CVQuickLookContents contents;
    const bool isWide = bytes.startsWith("\xff\xfe") || bytes.startsWith("\xfe\xff");
    const auto control = std::ranges::count_if(bytes, [](char c) {
        return static_cast<unsigned char>(c) < 0x20 && c != '\n' && c != '\r' && c != '\t' && c != '\f';
    });
    if (!isWide && (bytes.contains(char(0)) || control > bytes.size() / 100 + fewControls)) {
        contents.problem = tr("There is no preview for this kind of file.");
        return contents;
    }
    const auto encoding = isWide ? QStringConverter::encodingForData(bytes).value_or(QStringConverter::Utf16)
                                 : QStringConverter::Utf8;
    QStringDecoder decoder(encoding);
    QString decoded = decoder.decode(bytes);
    // A character cut at the end is no sign of another encoding.
    if (decoder.hasError() && !isWide && decoded.count(QChar(QChar::ReplacementCharacter)) > (isCut ? 1 : 0))
        decoded = QString::fromLatin1(bytes);
    contents.kind = CVQuickLookContents::Kind::Text;
    contents.text = shownText(decoded);
    contents.isTextCut = isCut;
    return contents;
}

} // namespace

bool CVQuickLookContents::mayShow(const QString &name, qint64 size)
{
    if (size > mostExtracted)
        return false;
    const QMimeType type = QMimeDatabase().mimeTypeForFile(name, QMimeDatabase::MatchExtension);
    return type.isDefault() ? size <= mostText * 4
                            : type.inherits(u"text/plain"_s) || type.name().startsWith("image/"_L1);
}

CVQuickLookContents CVQuickLookContents::load(const QString &path, const std::stop_token &stop)
{
    CVQuickLookContents contents;
    // A link out of the folder, a pipe or a device is nothing to look at.
    const int descriptor =
        ::open(bytesOfFileName(path).constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    struct stat facts;
    QFile file;
    if (descriptor < 0 || ::fstat(descriptor, &facts) != 0 || !S_ISREG(facts.st_mode) ||
        !file.open(descriptor, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle)) {
        if (descriptor >= 0 && !file.isOpen())
            ::close(descriptor);
        contents.problem = tr("There is nothing to be shown.");
        return contents;
    }
    contents = pictureIn(file);
    if (contents.kind != Kind::Nothing || !contents.problem.isEmpty() || stop.stop_requested())
        return contents;
    file.seek(0);
    const QByteArray beginning = file.read(mostText);
    return textIn(beginning, file.size() > beginning.size());
}
