#include "util/glob.h"

#include <QDir>
#include <QFile>

#include <glob.h>

namespace {

struct GlobResult
{
    GlobResult() = default;
    GlobResult(const GlobResult &) = delete;
    GlobResult &operator=(const GlobResult &) = delete;
    ~GlobResult() { ::globfree(&found); }
    glob_t found = {};
};

QString expanded(const QString &directory)
{
    if (directory == u'~' || directory.startsWith(QLatin1StringView("~/")))
        return QDir::homePath() + QStringView(directory).mid(1);
    return directory;
}

QString escaped(const QString &directory)
{
    QString result;
    for (const QChar c : directory) {
        if (c == u'\\' || c == u'*' || c == u'?' || c == u'[')
            result += u'\\';
        result += c;
    }
    return result;
}

} // namespace

QStringList arrayWithFilesMatchingPattern(const QString &pattern, const QString &directory)
{
    QString joined = escaped(expanded(directory));
    if (!joined.isEmpty() && !joined.endsWith(u'/'))
        joined += u'/';
    joined += pattern;
    GlobResult result;
    QStringList paths;
    if (::glob(QFile::encodeName(joined).constData(), 0, nullptr, &result.found) != 0)
        return paths;
    for (std::size_t i = 0; i < result.found.gl_pathc; ++i)
        paths.append(QFile::decodeName(result.found.gl_pathv[i]));
    return paths;
}
