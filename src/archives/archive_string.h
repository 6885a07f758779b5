#pragma once

#include <QString>
#include <QStringList>

/// What the name of an archive says. Everything but pathsBelongingToArchiveAtPath() is pure; all may be
/// called from any thread and are cheap over many thousands of names.

/// The extension without its dot, compound ones whole: "tar.gz", "7z.001", "part3.rar", "zip"; empty
/// without one. The letters keep their case.
QString archivePathExtension(const QString &path);

/// Without that extension and its dot. Extensions of one character stay: "x.z" gives "x.z".
QString stringByDeletingArchivePathExtension(const QString &path);

enum class CVMultipartArchiveType : int {
    None = 0,
    SevenZip = 1, ///< x.7z.001
    OldRar = 2,   ///< x.r00
    NewRar = 3,   ///< x.part1.rar
};

/// By the last component, with regard to case. A plain "x.rar" is None even when x.r00 lies beside it.
CVMultipartArchiveType multipartArchiveType(const QString &path);
bool isMultipartArchive(const QString &path);

/// Both are parts of one set: same folder, same base name, same type of set. False for what is no part,
/// even of itself.
bool belongsToSameMultipartArchiveAsItemAtPath(const QString &path, const QString &otherPath);

/// "x.7z.004" gives "x.7z.001". Only for CVMultipartArchiveType::SevenZip.
QString firstPartOf7ZipArchive(const QString &path);

/// All files of the set that the path belongs to, found on disk and sorted by name; the path alone,
/// without a look at the disk, when it is no part of a set. Whatever is trashed or deleted with an
/// archive comes from here, so a file of another name is never in the list.
QStringList pathsBelongingToArchiveAtPath(const QString &path);

bool isSplitFile(const QString &path);
bool isCheckSumSplitFile(const QString &path);
bool isAudioFile(const QString &path);
