#pragma once

#include <QString>
#include <QStringList>

// How the files of a split set are called: NAME.code.split for raw parts, NAME.code.zsplit for compressed
// ones, NAME.chksplit for their checksums. The code is the number of the part, from 0, in letters: base 26,
// all of one width. Pure; any thread.

/// Letters a code of this set has, for the number of parts that is expected.
int partCodeLength(quint64 numberOfParts);

/// Throws LXAssertionException for a number that takes more letters.
QString partCode(quint64 number, int length);

/// The number that the letters stand for.
quint64 partNumber(QStringView code);

/// The letters in the name of a part; empty when it is none.
QString partCodeOfPath(const QString &path);

/// "a/m.mp4.b.split" and "a/m.mp4.chksplit" give "m.mp4".
QString splitSetName(const QString &path);

/// Those of the paths that are parts of the set of that name, whatever their folder.
QStringList partsOfSplitSet(const QStringList &paths, const QString &name);

/// In the order of their codes.
void sortParts(QStringList &parts);
