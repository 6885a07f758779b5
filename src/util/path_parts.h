#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringView>

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

inline QByteArray parentPath(const QByteArray &path)
{
    return path.left(std::max<qsizetype>(path.lastIndexOf('/'), 0));
}

/// The path without components that do not count: "./a//b/" and "a/b" are the same place. Nothing for the
/// place itself ("./"). A slash at the start stays.
inline QString canonicalPath(const QString &path)
{
    const bool isOdd = path == u"." || path.startsWith(u"./") || path.contains(u"//") ||
                       path.contains(u"/./") || path.endsWith(u"/.") || path.endsWith(u'/');
    if (!isOdd)
        return path;
    QString result;
    for (const QStringView part : QStringView(path).split(u'/', Qt::SkipEmptyParts)) {
        if (part == u".")
            continue;
        if (!result.isEmpty() || path.startsWith(u'/'))
            result += u'/';
        result += part;
    }
    return result;
}
