#pragma once

#include <QByteArray>
#include <QString>

// File names are bytes here, and texts are UTF-16. Between the two stands this pair, which loses nothing:
// every byte that is not part of valid UTF-8 becomes a lone surrogate U+DC80…U+DCFF and back ("surrogate
// escape", as in PEP 383). Qt's own conversion would give another name, so whatever holds names of
// strangers' files goes through here, and to the system as bytes. Any thread.

/// The text for a name or path as the system has it.
QString fileNameFromBytes(QByteArrayView bytes);

/// The name or path for the system. Lone surrogates that stand for no byte become "?".
QByteArray bytesOfFileName(QStringView name);

/// For regular expressions, which match nothing at all in a text with lone surrogates: the same length, with
/// U+FFFD in their places.
QString matchableFileName(QStringView name);
