#include "platform/LXFileUri.h"

#include "util/LXFileName.h"

#include <QSysInfo>

using namespace Qt::StringLiterals;

QByteArray LXFileUri::uriOfPath(const QString &path)
{
    return "file://" + bytesOfFileName(path).toPercentEncoding("/");
}

std::optional<QString> LXFileUri::pathOfUri(const QString &uri)
{
    constexpr QLatin1StringView scheme("file:");
    if (!uri.startsWith(scheme, Qt::CaseInsensitive))
        return std::nullopt;
    QStringView rest = QStringView(uri).mid(scheme.size());
    if (rest.startsWith("//"_L1)) {
        rest = rest.mid(2);
        const qsizetype slash = rest.indexOf(u'/');
        if (slash < 0)
            return std::nullopt;
        const QStringView host = rest.left(slash);
        if (!host.isEmpty() && host.compare("localhost"_L1, Qt::CaseInsensitive) != 0 &&
            host.compare(QSysInfo::machineHostName(), Qt::CaseInsensitive) != 0)
            return std::nullopt;
        rest = rest.mid(slash);
    }
    const QByteArray path = QByteArray::fromPercentEncoding(rest.toUtf8());
    if (!path.startsWith('/') || path.contains('\0'))
        return std::nullopt;
    return fileNameFromBytes(path);
}
