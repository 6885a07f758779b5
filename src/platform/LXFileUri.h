#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

/// file: addresses and the paths they stand for, byte by byte, so that names which are no text survive. Any
/// thread.
namespace LXFileUri {

/// The path is absolute. Everything but letters, digits, "/" and "-._~" is percent-encoded.
QByteArray uriOfPath(const QString &path);

/// Nothing for other schemes, other machines, relative paths and what no path can hold.
std::optional<QString> pathOfUri(const QString &uri);

} // namespace LXFileUri
