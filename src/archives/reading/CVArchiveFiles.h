#pragma once

#include "util/LXFileDescriptor.h"

#include <QString>
#include <QStringList>

#include <functional>

/// The files that engines read: the archive and its volumes. Engines open nothing any other way, because
/// where they run nothing can be opened by name: there the descriptors come from the program that asked.
/// Any thread.
namespace CVArchiveFiles {

/// The regular file at `path`, to be read by position. Not open: errno says why.
LXFileDescriptor open(const QString &path);

/// Whether there is a regular file at `path`.
bool exists(const QString &path);

/// The file in the folder of `path` that has one of the names, exactly or else but for the case of its
/// letters; empty when there is none.
QString findBeside(const QString &path, const QStringList &names);

/// Where files come from instead of the disk, for this process; set once, before there are threads.
/// Gets the name of a file beside the archive and whether the case of its letters matters; answers with a
/// descriptor and the name that the file really has.
struct Found
{
    LXFileDescriptor file;
    QString name;
};
using Source = std::function<Found(const QString &name, bool anyCase)>;
void setSource(Source source);

} // namespace CVArchiveFiles
