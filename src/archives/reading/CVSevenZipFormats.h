#pragma once

#include "archives/reading/CVSevenZipLibrary.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <vector>

/// What the bytes of a file look like to the 7-Zip module.
struct CVSevenZipGuess
{
    int format = -1;   ///< position in CVSevenZipLibrary::formats()
    int bid = 0;       ///< 0-100, see the table in CVSevenZipFormats.cpp
    qint64 offset = 0; ///< where the archive begins (behind a self-extractor's program)
};

struct CVSevenZipBytes
{
    QByteArray head; ///< from the beginning, up to 64 KiB
    QByteArray tail; ///< up to the end, at least 64 KiB + 22 where there is as much
    qint64 size = 0;
    /// More of the file, for programs that may carry an archive; may be empty.
    std::function<QByteArray(qint64 offset, qint64 size)> more;
};

/// Every format that may read these bytes, the best first; formats that this module lists but cannot
/// unpack (rar) and those that are no archives to a person (programs, films) never come up.
std::vector<CVSevenZipGuess> cvSevenZipGuesses(const CVSevenZipLibrary &library,
                                               const CVSevenZipBytes &bytes);

/// The name of a format in people's words.
QString cvSevenZipFormatName(const QByteArray &format);

/// True for formats that hold one compressed stream and no name worth keeping.
bool cvSevenZipIsSingleStream(const QByteArray &format);

/// Bytes of the largest window or model that a method text of the module names ("LZMA2:26",
/// "BCJ LZMA:48m", "PPMD:o32:mem1536m"); a bare number is a power of two. 0 for other methods.
qint64 cvSevenZipDecoderMemory(const QString &methods);
