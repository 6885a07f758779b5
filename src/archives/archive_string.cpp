#include "archives/archive_string.h"

#include "util/LXFileName.h"
#include "util/glob.h"

#include <QRegularExpression>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

QStringView withoutTrailingSlashes(QStringView path)
{
    while (path.size() > 1 && path.endsWith(u'/'))
        path.chop(1);
    return path;
}

QStringView lastComponent(QStringView path)
{
    path = withoutTrailingSlashes(path);
    return path.mid(path.lastIndexOf(u'/') + 1);
}

QStringView ordinaryExtension(QStringView path)
{
    const QStringView name = lastComponent(path);
    const qsizetype dot = name.lastIndexOf(u'.');
    return dot > 0 ? name.mid(dot + 1) : QStringView();
}

QStringView archiveExtension(QStringView path)
{
    static const QRegularExpression compound(uR"(\.(tar\.(gz|bz2|z|xz)|7z\.\d{3}|part\d+\.rar)$)"_s,
                                             QRegularExpression::CaseInsensitiveOption);
    const QStringView name = lastComponent(path);
    const auto match = compound.match(matchableFileName(name));
    if (match.hasMatch())
        return name.mid(match.capturedStart() + 1, match.capturedLength() - 1);
    return ordinaryExtension(name);
}

bool hasMatch(const QRegularExpression &expression, const QString &text)
{
    return expression.match(matchableFileName(text)).hasMatch();
}

QLatin1StringView globSuffix(CVMultipartArchiveType type)
{
    switch (type) {
    case CVMultipartArchiveType::None:
        break;
    case CVMultipartArchiveType::SevenZip:
        return "7z.[0-9][0-9][0-9]"_L1;
    case CVMultipartArchiveType::OldRar:
        return "r[0-9][0-9]"_L1;
    case CVMultipartArchiveType::NewRar:
        return "part[0-9]*.rar"_L1;
    }
    return {};
}

} // namespace

QString archivePathExtension(const QString &path)
{
    return archiveExtension(path).toString();
}

QString stringByDeletingArchivePathExtension(const QString &path)
{
    const qsizetype length = archiveExtension(path).size();
    if (length < 2)
        return path;
    QStringView base = withoutTrailingSlashes(path);
    base.chop(length + 1);
    return base.toString();
}

CVMultipartArchiveType multipartArchiveType(const QString &path)
{
    static const QRegularExpression any(uR"((\.7z\.\d{3})|(\.r\d{2})|(\.part\d+\.rar))"_s);
    static const QRegularExpression sevenZip(uR"(\.7z\.\d{3})"_s);
    static const QRegularExpression oldRar(uR"(\.r\d{2})"_s);
    // A folder above that looks like a part must not turn its files into parts.
    const QString name = lastComponent(path).toString();
    if (!hasMatch(any, name))
        return CVMultipartArchiveType::None;
    if (hasMatch(sevenZip, name))
        return CVMultipartArchiveType::SevenZip;
    return hasMatch(oldRar, name) ? CVMultipartArchiveType::OldRar : CVMultipartArchiveType::NewRar;
}

bool isMultipartArchive(const QString &path)
{
    return multipartArchiveType(path) != CVMultipartArchiveType::None;
}

bool belongsToSameMultipartArchiveAsItemAtPath(const QString &path, const QString &otherPath)
{
    const CVMultipartArchiveType type = multipartArchiveType(path);
    return type != CVMultipartArchiveType::None && type == multipartArchiveType(otherPath) &&
           stringByDeletingArchivePathExtension(path) == stringByDeletingArchivePathExtension(otherPath);
}

QString firstPartOf7ZipArchive(const QString &path)
{
    return QStringView(path).chopped(std::min<qsizetype>(3, path.size())) + "001"_L1;
}

QStringList pathsBelongingToArchiveAtPath(const QString &path)
{
    const CVMultipartArchiveType type = multipartArchiveType(path);
    if (type == CVMultipartArchiveType::None)
        return {path};
    const QString name = lastComponent(path).toString();
    QString base = stringByDeletingArchivePathExtension(name);
    for (const QChar special : {u'\\', u'[', u'(', u']', u')'})
        base.replace(special, "\\"_L1 + special);
    const QString pattern = base + u'.' + globSuffix(type);
    const qsizetype slash = withoutTrailingSlashes(path).lastIndexOf(u'/');
    const QString folder = slash < 0 ? u"."_s : path.left(std::max<qsizetype>(slash, 1));
    QStringList found = arrayWithFilesMatchingPattern(pattern, folder);
    // The other wildcards in a name are not escaped above, so a set called "*" finds its neighbours
    // too; they are no parts of it.
    const QString own = stringByDeletingArchivePathExtension(name);
    found.removeIf([&](const QString &candidate) {
        const QString other = lastComponent(candidate).toString();
        return stringByDeletingArchivePathExtension(other) != own || multipartArchiveType(other) != type;
    });
    return found;
}

bool isSplitFile(const QString &path)
{
    static const QRegularExpression split(uR"(\.(z|chk)?split$)"_s);
    return hasMatch(split, path);
}

bool isCheckSumSplitFile(const QString &path)
{
    static const QRegularExpression checkSum(uR"(\.chksplit$)"_s);
    return hasMatch(checkSum, path);
}

bool isAudioFile(const QString &path)
{
    static const QRegularExpression audio(uR"(\.(mp3|wav|aifc|aif|aiff|wav|au|snd|m4a))"_s);
    return hasMatch(audio, path);
}
