#include "platform/desktop/LXFileIcons.h"

#include "util/LXFileName.h"

#include <QCache>
#include <QMimeDatabase>
#include <QMimeType>

#include <algorithm>
#include <span>

using namespace Qt::StringLiterals;

namespace {

/// More suffixes than that are no suffixes.
constexpr int rememberedIcons = 1000;
/// Longer ones are sentences with a full stop.
constexpr qsizetype longestSuffix = 16;

/// Archives that the MIME database has no types for.
constexpr QLatin1StringView otherArchives[] = {"aar"_L1, "corvane"_L1, "hqx"_L1, "pax"_L1,
                                               "sea"_L1, "sitx"_L1,    "war"_L1};

constexpr QLatin1StringView compressions[] = {"bz2"_L1, "gz"_L1, "lz"_L1, "lz4"_L1, "lzma"_L1,
                                              "lzo"_L1, "xz"_L1, "z"_L1,  "zst"_L1};

QIcon own(QLatin1StringView name)
{
    return QIcon(":/fileicons/"_L1 + name + ".svg"_L1);
}

QIcon named(const QString &theme, QLatin1StringView fallback)
{
    const QIcon icon = QIcon::fromTheme(theme);
    return icon.isNull() ? own(fallback) : icon;
}

bool contains(std::span<const QLatin1StringView> list, QStringView text)
{
    return std::find(list.begin(), list.end(), text) != list.end();
}

/// It says nothing about the type: "gz", and "001" of a volume.
bool leavesTheTypeOpen(const QString &suffix)
{
    return contains(compressions, suffix) ||
           (suffix.size() == 3 &&
            std::all_of(suffix.begin(), suffix.end(), [](QChar c) { return c >= u'0' && c <= u'9'; }));
}

/// A name of the same type for all names of that type: with the suffix in lower case, two of them where the
/// last one leaves it open, and the whole name where there is none ("Makefile").
QString key(const QString &name)
{
    const qsizetype dot = name.lastIndexOf(u'.');
    QString key = dot <= 0 ? name : name.mid(dot + 1).toLower();
    if (dot > 0 && leavesTheTypeOpen(key)) {
        const qsizetype before = name.lastIndexOf(u'.', dot - 1);
        if (before > 0 && dot - before <= longestSuffix)
            key = name.mid(before + 1).toLower();
    }
    if (key.size() > 2 * longestSuffix)
        return {};
    return dot <= 0 ? key : "x."_L1 + key;
}

QLatin1StringView fallbackFor(const QMimeType &type)
{
    const QString name = type.name();
    const QString generic = type.genericIconName();
    if (name.startsWith("image/"_L1) || generic == "image-x-generic"_L1)
        return "image"_L1;
    if (name.startsWith("audio/"_L1) || generic == "audio-x-generic"_L1)
        return "audio"_L1;
    if (name.startsWith("video/"_L1) || generic == "video-x-generic"_L1)
        return "video"_L1;
    // Documents before archives: many of them are zip archives inside.
    if (generic.startsWith("x-office-"_L1) || type.inherits(u"text/plain"_s) || name == "application/pdf"_L1)
        return "text"_L1;
    if (generic == "package-x-generic"_L1 || type.inherits(u"application/zip"_s))
        return "archive"_L1;
    return "file"_L1;
}

QIcon iconForKey(const QString &key)
{
    const QList<QMimeType> types = QMimeDatabase().mimeTypesForFileName(matchableFileName(key));
    if (types.isEmpty())
        return contains(otherArchives, QStringView(key).mid(2)) ? named(u"package-x-generic"_s, "archive"_L1)
                                                                : own("file"_L1);
    const QMimeType &type = types.constFirst();
    const QIcon icon = QIcon::fromTheme(type.iconName());
    return icon.isNull() ? named(type.genericIconName(), fallbackFor(type)) : icon;
}

} // namespace

// The pictures are in a static library, which takes along only what is named. Cannot stand in a namespace.
static void takeAlongPictures()
{
    Q_INIT_RESOURCE(fileicons);
}

QIcon LXFileIcons::iconForName(const QString &name, bool folder)
{
    static QCache<QString, QIcon> icons(rememberedIcons);
    static QString theme;
    static const bool hasPictures = (takeAlongPictures(), true);
    Q_UNUSED(hasPictures)
    if (theme != QIcon::themeName()) {
        theme = QIcon::themeName();
        icons.clear();
    }
    const QString wanted = folder ? u"/"_s : key(name);
    if (const QIcon *known = icons.object(wanted))
        return *known;
    const QIcon icon = folder ? named(u"folder"_s, "folder"_L1) : iconForKey(wanted);
    icons.insert(wanted, new QIcon(icon));
    return icon;
}
