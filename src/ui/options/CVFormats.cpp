#include "ui/options/CVFormats.h"

#include "ui/base/CVTheme.h"

#include <QCoreApplication>

#include <algorithm>
#include <array>

using namespace Qt::StringLiterals;

namespace {

struct Format
{
    QLatin1StringView extension;
    QLatin1StringView image;
    const char *name;
};

// Indexed by the tag.
constexpr std::array formats = {
    Format{"zip"_L1, "format/zip"_L1, QT_TRANSLATE_NOOP("CVFormats", "ZIP")},
    Format{"corvane"_L1, "format/corvane"_L1, QT_TRANSLATE_NOOP("CVFormats", "Corvane")},
    Format{"7z"_L1, "format/7zip"_L1, QT_TRANSLATE_NOOP("CVFormats", "7-Zip")},
    Format{"rar"_L1, "format/rar"_L1, QT_TRANSLATE_NOOP("CVFormats", "RAR")},
    Format{"tar.gz"_L1, "format/tar-gz"_L1, QT_TRANSLATE_NOOP("CVFormats", "gzip tar")},
    Format{"tar.bz2"_L1, "format/tar-bz"_L1, QT_TRANSLATE_NOOP("CVFormats", "bzip2 tar")},
    Format{"tar.Z"_L1, "format/tar-z"_L1, QT_TRANSLATE_NOOP("CVFormats", "Z tar")},
    Format{"tar"_L1, "format/tar"_L1, QT_TRANSLATE_NOOP("CVFormats", "tar")},
};

constexpr std::array bar = {0, 1, 2, CVFormats::rarTag, 4, 4, 5, 6, 7};

const Format *formatOf(int tag)
{
    return tag < 0 || static_cast<std::size_t>(tag) >= formats.size()
               ? nullptr
               : &formats[static_cast<std::size_t>(tag)];
}

} // namespace

QString CVFormats::formatForTag(int tag)
{
    const Format *format = formatOf(tag);
    return format ? QString(format->extension) : QString();
}

int CVFormats::tagForFormat(const QString &format)
{
    const auto found = std::ranges::find(formats, format, &Format::extension);
    return found == formats.end() ? -1 : static_cast<int>(found - formats.begin());
}

QString CVFormats::nameForTag(int tag)
{
    const Format *format = formatOf(tag);
    return format ? QCoreApplication::translate("CVFormats", format->name) : QString();
}

QIcon CVFormats::iconForTag(int tag)
{
    const Format *format = formatOf(tag);
    return format ? CVTheme::icon(format->image) : QIcon();
}

std::span<const int> CVFormats::barTags()
{
    return bar;
}

bool CVFormats::isAlwaysCompressed(const QString &format)
{
    return format == "tar.gz"_L1 || format == "tar.bz2"_L1;
}
