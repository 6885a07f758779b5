#pragma once

#include <QByteArray>
#include <QString>

#include <algorithm>

// Parts of a path by its text alone: nothing is resolved, and a slash at the end is followed by an empty
// name. Any thread.

/// What follows the last slash.
inline QString lastComponent(const QString &path)
{
    return path.mid(path.lastIndexOf(u'/') + 1);
}

inline QByteArray lastComponent(const QByteArray &path)
{
    return path.mid(path.lastIndexOf('/') + 1);
}

/// What stands before the last slash; nothing where there is none.
inline QString parentPath(const QString &path)
{
    return path.left(std::max<qsizetype>(path.lastIndexOf(u'/'), 0));
}
