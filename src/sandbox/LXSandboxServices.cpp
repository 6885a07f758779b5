#include "sandbox/LXSandboxServices.h"

#include "util/LXFileName.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <cerrno>
#include <cstring>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

LXError bookmarkError(const QString &folder, int code)
{
    return LXError{.domain = u"NSPOSIXErrorDomain"_s,
                   .code = code,
                   .description = u"“%1” cannot be accessed."_s.arg(folder),
                   .reason = QString::fromLocal8Bit(std::strerror(code)),
                   .suggestion = {}};
}

// Numbers of devices and inodes need all 64 bits, which numbers in JSON do not have.
QString identity(const struct stat &facts)
{
    return QString::number(facts.st_dev) + u':' + QString::number(facts.st_ino);
}

} // namespace

LXResult<QByteArray> LXPathBookmarks::create(const QString &folder)
{
    struct stat facts;
    if (::stat(bytesOfFileName(folder).constData(), &facts) != 0)
        return bookmarkError(folder, errno);
    if (!S_ISDIR(facts.st_mode))
        return bookmarkError(folder, ENOTDIR);
    return QJsonDocument(QJsonObject{{u"path"_s, folder}, {u"identity"_s, identity(facts)}})
        .toJson(QJsonDocument::Compact);
}

LXResult<LXFolderBookmarks::Resolved> LXPathBookmarks::resolve(const QByteArray &token)
{
    const QJsonObject object = QJsonDocument::fromJson(token).object();
    const QString path = object.value("path"_L1).toString();
    struct stat facts;
    if (!path.startsWith(u'/'))
        return bookmarkError(path, EINVAL);
    if (::stat(bytesOfFileName(path).constData(), &facts) != 0)
        return bookmarkError(path, errno);
    return Resolved{path, object.value("identity"_L1).toString() != identity(facts)};
}
