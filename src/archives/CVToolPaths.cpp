#include "archives/CVToolPaths.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QStandardPaths>

#include <cerrno>

namespace {

struct ToolPackage
{
    const char *tool;
    const char *package;
};

constexpr ToolPackage packages[] = {
    {"unar", "unar"},       {"lsar", "unar"},      {"tar", "tar"},       {"gzip", "gzip"},
    {"bzip2", "bzip2"},     {"xz", "xz-utils"},    {"lzma", "xz-utils"}, {"zstd", "zstd"},
    {"lzip", "lzip"},       {"lzop", "lzop"},      {"lz4", "lz4"},       {"compress", "ncompress"},
    {"uncompress", "gzip"}, {"7za", "p7zip-full"}, {"7z", "p7zip-full"}, {"rar", "rar"},
    {"sh", "dash"},
};

bool isProgram(const QString &path)
{
    const QFileInfo info(path);
    return info.isFile() && info.isExecutable();
}

} // namespace

namespace CVToolPaths {

LXResult<QString> toolPath(const QString &name)
{
    QString variable = QStringLiteral("CORVANE_TOOL_");
    for (const QChar c : name.toUpper())
        variable += c.unicode() < 128 && c.isLetterOrNumber() ? c : QChar(u'_');
    const QString given = qEnvironmentVariable(variable.toLatin1().constData());
    if (!given.isEmpty()) {
        if (isProgram(given))
            return given;
        return missingTool(name,
                           QCoreApplication::translate("CVToolPaths", "%1 names “%2”, which is no program.")
                               .arg(variable, given));
    }
    const QString own = resourcesFolder() + QLatin1Char('/') + name;
    if (isProgram(own))
        return own;
    const QString found = QStandardPaths::findExecutable(name);
    if (!found.isEmpty())
        return found;
    return missingTool(name);
}

LXError missingTool(const QString &name, const QString &reason)
{
    const QString package = packageOfTool(name);
    const auto text = [](const char *source) { return QCoreApplication::translate("CVToolPaths", source); };
    return {QString::fromLatin1(errorDomain), ENOENT, text("The tool “%1” is not installed.").arg(name),
            reason, package.isEmpty() ? QString() : text("Install the package “%1”.").arg(package)};
}

bool isInstalled(const QString &name)
{
    return static_cast<bool>(toolPath(name));
}

QString packageOfTool(const QString &name)
{
    for (const ToolPackage &entry : packages)
        if (name == QLatin1String(entry.tool))
            return QString::fromLatin1(entry.package);
    return {};
}

QString resourcesFolder()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/../share/corvane/tools");
}

} // namespace CVToolPaths
