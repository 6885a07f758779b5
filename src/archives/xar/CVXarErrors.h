#pragma once

#include "archives/xar/xar.h"

#include <QString>

// The errors of this library.
namespace CVXarErrors {

LXError damaged(const QString &reason);
LXError notSupported(const QString &reason);
LXError stopped();
/// `path`: of the file that it happened with.
LXError system(int error, const QByteArray &path);

QString text(const char *source);

} // namespace CVXarErrors
