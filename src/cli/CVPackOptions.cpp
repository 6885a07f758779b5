#include "cli/CVPackOptions.h"

#include "archives/CVArchive.h"
#include "engine/model/CVRarToolStatus.h"
#include "util/LXBytesValueTransformer.h"
#include "util/LXFileName.h"

#include <QRegularExpression>

#include <algorithm>
#include <cmath>

using namespace Qt::StringLiterals;

namespace {

const QString zip = u"zip"_s;
const QString sevenZip = u"7z"_s;
const QString ownFormat = u"corvane"_s;

// Room for the number of a volume (".001") and for the marks of files in the making.
constexpr qsizetype longestName = 255 - 4;

/// The formats for which `holds` is true, as people list things.
template <typename Predicate> QString formatsThat(Predicate holds)
{
    QStringList names;
    for (const QString &format : CVPackOptions::formats()) {
        if (holds(format, *CVArchive::archiveForCreating(u"x."_s + format)))
            names.append(format);
    }
    const QString last = names.isEmpty() ? QString() : names.takeLast();
    return names.isEmpty() ? last : names.join(u", "_s) + u" and "_s + last;
}

QString bytesText(double bytes)
{
    return LXBytesValueTransformer::formatBytes(static_cast<qint64>(bytes));
}

// The back end that bears the name of tar.xz writes it without compression.
bool takesLevels(const QString &format, const CVArchive &archive)
{
    return archive.canSetCompressionLevel() && format != u"tar.xz";
}

bool compressesAlways(const QString &format)
{
    return format == u"tar.gz" || format == u"tar.bz2";
}

} // namespace

QStringList CVPackOptions::formats()
{
    QStringList names = {zip,         sevenZip,     ownFormat,   u"tar"_s,
                         u"tar.gz"_s, u"tar.bz2"_s, u"tar.xz"_s, u"tar.Z"_s};
    if (CVRarToolStatus::shared()->isRarInstalled())
        names.append(u"rar"_s);
    return names;
}

std::optional<QString> CVPackOptions::formatNamed(const QString &word)
{
    for (const QString &format : formats()) {
        if (format.compare(word, Qt::CaseInsensitive) == 0)
            return format;
    }
    return std::nullopt;
}

std::optional<double> CVPackOptions::parseSize(const QString &text)
{
    struct Unit
    {
        QLatin1StringView name;
        double bytes;
    };
    static constexpr Unit units[] = {
        {""_L1, 1},
        {"b"_L1, 1},
        {"kb"_L1, 1e3},
        {"mb"_L1, 1e6},
        {"gb"_L1, 1e9},
        {"kib"_L1, 1024},
        {"mib"_L1, 1024.0 * 1024},
        {"gib"_L1, 1024.0 * 1024 * 1024},
    };
    static const QRegularExpression form(u"^([0-9]{1,15}(?:\\.[0-9]{1,9})?) ?([A-Za-z]*)$"_s);
    const auto match = form.match(text);
    if (!match.hasMatch())
        return std::nullopt;
    const QString name = match.captured(2).toLower();
    for (const Unit &unit : units) {
        if (name == unit.name)
            return std::floor(match.captured(1).toDouble() * unit.bytes);
    }
    return std::nullopt;
}

std::optional<QString> CVPackOptions::problem() const
{
    const auto archive = CVArchive::archiveForCreating(u"x."_s + format);
    if (encrypt && !archive->canEncrypt())
        return u"%1 archives cannot be encrypted: leave “--encrypt” out, or use %2"_s.arg(
            format, formatsThat([](const QString &, const CVArchive &a) { return a.canEncrypt(); }));
    if (level && !takesLevels(format, *archive))
        return u"%1 archives have no compression level: leave “--level” out, or use %2"_s.arg(
            format, formatsThat(takesLevels));
    if (level && *level == 0 && compressesAlways(format))
        return u"%1 cannot be written without compression: “--level” takes 1 to 9 here, or use tar"_s.arg(
            format);
    if (volumeBytes && !archive->canWriteVolumes())
        return u"%1 archives cannot be written as volumes: leave “--volume” out, or use %2"_s.arg(
            format, formatsThat([](const QString &, const CVArchive &a) { return a.canWriteVolumes(); }));
    if (volumeBytes && *volumeBytes < smallestVolume)
        return u"volumes of %1 would be little more than their own overhead: “--volume” takes %2 or more"_s
            .arg(bytesText(*volumeBytes), bytesText(smallestVolume));
    if ((images.value_or(0) != 0 || audio.value_or(0) != 0) && !archive->canManipulateMultimedia())
        return u"only the format %1 converts media: leave “%2” out"_s.arg(
            ownFormat, images.value_or(0) != 0 ? u"--images"_s : u"--audio"_s);
    if (name) {
        if (const auto problem = nameProblem(*name))
            return problem;
    }
    return std::nullopt;
}

std::optional<QString> CVPackOptions::passwordProblem(const QString &format, const QString &password)
{
    if (password.isEmpty())
        return u"the password is empty"_s;
    if (password.startsWith(u'='))
        return u"the password begins with “=”, which no new archive can have: take another first character"_s;
    if (std::ranges::any_of(password, [](QChar c) { return c == u'\n' || c == u'\r' || c.isNull(); }))
        return u"the password is more than one line"_s;
    const bool ascii = std::ranges::all_of(password, [](QChar c) { return c.unicode() < 128; });
    if (format == zip && !ascii)
        return u"a password for zip can only have letters and signs of ASCII: take another one, or use 7z"_s;
    return std::nullopt;
}

std::optional<QString> CVPackOptions::volumeProblem(double volumeBytes, double bytes)
{
    const double volumes = std::ceil(bytes / volumeBytes);
    if (volumes <= mostVolumes)
        return std::nullopt;
    const double enough = std::ceil(bytes / mostVolumes / 1e6);
    return u"volumes of %1 could become %2 files, and %3 are the most: “--volume %4MB” would do"_s.arg(
        bytesText(volumeBytes), QString::number(volumes, 'f', 0), QString::number(mostVolumes, 'f', 0),
        QString::number(enough, 'f', 0));
}

std::optional<QString> CVPackOptions::nameProblem(const QString &name)
{
    if (name.contains(u'/'))
        return u"“%1” is no name for a file: the folder goes into “--to”"_s.arg(name);
    if (name == u"." || name == u"..")
        return u"“%1” is no name for a file"_s.arg(name);
    if (bytesOfFileName(name).size() > longestName)
        return u"“%1” is too long a name for a file: give a shorter one with “--name”"_s.arg(name);
    return std::nullopt;
}
