#pragma once

#include "util/LXResult.h"

#include <QByteArray>
#include <QMap>
#include <QString>

/// Property lists, as far as one dictionary of texts goes. Written in the XML form; read in that and in the
/// binary form ("bplist00"). Pure; any thread.
namespace LXPropertyList {

/// Whether the XML form has all of its characters. It lacks most control characters and everything that is no
/// text, which names of files may hold.
bool canHold(const QString &string);

/// Of strings that it can hold.
QByteArray fromStrings(const QMap<QString, QString> &strings);

/// Fails for anything else than a dictionary whose values are all texts, for a key that comes twice, and for
/// what would take much more memory than it has bytes.
LXResult<QMap<QString, QString>> toStrings(const QByteArray &data);

} // namespace LXPropertyList
