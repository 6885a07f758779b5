#include "archives/xar/CVXarErrors.h"

#include "util/LXFileName.h"

#include <QCoreApplication>

#include <cstring>

namespace CVXarErrors {

QString text(const char *source)
{
    return QCoreApplication::translate("xar", source);
}

LXError damaged(const QString &reason)
{
    return {QString::fromLatin1(xar_domain),
            static_cast<int>(xar_error::damaged),
            text("The archive is damaged."),
            reason,
            {}};
}

LXError notSupported(const QString &reason)
{
    return {QString::fromLatin1(xar_domain),
            static_cast<int>(xar_error::not_supported),
            text("The archive cannot be read."),
            reason,
            {}};
}

LXError stopped()
{
    return {QString::fromLatin1(xar_domain),
            static_cast<int>(xar_error::stopped),
            text("It was stopped."),
            {},
            {}};
}

LXError system(int error, const QByteArray &path)
{
    return {QString::fromLatin1(xar_system_domain),
            error,
            text("“%1” cannot be used.").arg(fileNameFromBytes(path)),
            QString::fromLocal8Bit(std::strerror(error)),
            {}};
}

} // namespace CVXarErrors
