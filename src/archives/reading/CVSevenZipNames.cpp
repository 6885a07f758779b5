#include "archives/reading/CVSevenZipNames.h"

#include <QFileInfo>

#include <algorithm>
#include <array>
#include <cstdint>

namespace {

/// The module gives bytes that are not UTF-8 as characters from here on: 0xEF80 for 0x80.
constexpr wchar_t escapedByteBase = 0xEF00;

} // namespace

CVSevenZipName cvSevenZipNameBytes(std::wstring_view name)
{
    CVSevenZipName result;
    result.bytes.reserve(qsizetype(name.size()));
    for (wchar_t wide : name) {
        auto c = std::uint32_t(wide);
        if (c < 0x80) {
            result.bytes += char(c);
        } else if (wide >= escapedByteBase + 0x80 && wide <= escapedByteBase + 0xFF) {
            result.bytes += char(c & 0xFF);
            result.raw = true;
        } else {
            if ((c >= 0xD800 && c < 0xE000) || c > 0x10FFFF)
                c = 0xFFFD;
            if (c < 0x800) {
                result.bytes += char(0xC0 | (c >> 6));
            } else {
                if (c < 0x10000) {
                    result.bytes += char(0xE0 | (c >> 12));
                } else {
                    result.bytes += char(0xF0 | (c >> 18));
                    result.bytes += char(0x80 | ((c >> 12) & 0x3F));
                }
                result.bytes += char(0x80 | ((c >> 6) & 0x3F));
            }
            result.bytes += char(0x80 | (c & 0x3F));
        }
    }
    return result;
}

bool cvSevenZipKeepsNamesAsBytes(const QByteArray &format)
{
    constexpr std::array names{"zip", "Cab", "Arj",      "Lzh", "tar",    "Cpio", "Ar",
                               "Rpm", "Iso", "SquashFS", "Ext", "CramFS", "Nsis"};
    return std::any_of(names.begin(), names.end(), [&](const char *name) { return format == name; });
}

QString cvSevenZipNameOfContents(const QStringList &paths)
{
    QString name = QFileInfo(paths.first()).fileName();
    if (paths.size() > 1)
        name.truncate(name.lastIndexOf(u'.'));
    const qsizetype dot = name.lastIndexOf(u'.');
    if (dot <= 0)
        return name;
    const QString extension = name.mid(dot + 1).toLower();
    const QString stem = name.left(dot);
    constexpr std::array tars{"tgz", "tpz", "tbz", "tbz2", "tb2", "txz", "tlz", "taz", "tz", "tzst"};
    const bool isTar = std::any_of(tars.begin(), tars.end(),
                                   [&](const char *tar) { return extension == QLatin1String(tar); });
    return isTar ? stem + QStringLiteral(".tar") : stem;
}
