#pragma once

#include <QByteArray>
#include <QStringList>

#include <cstdint>
#include <optional>
#include <vector>

/// What the block headers of a RAR 4 or RAR 5 set say about each file, so that its data can be checked:
/// the library that unpacks rar does not compare the checksums of everything it delivers.
/// Strict and bounded; reads headers only. Formats: the RAR 4 archive layout (technote.txt of RAR 4.20)
/// and the published RAR 5.0 archive format.
struct CVRarHeaders
{
    struct File
    {
        std::optional<std::uint32_t> crc32; ///< of the whole unpacked file
        qint64 size = -1;                   ///< unpacked; below zero when not stored
        bool isDirectory = false;
        bool isLink = false; ///< symbolic or hard link, or another redirection: no data of its own
        bool encrypted = false;
        bool stored = false;
        int version = 0; ///< RAR 4: version needed times ten (29, 20, …); RAR 5: 50, RAR 7: 70
    };

    bool valid = false; ///< every header was read to the end of the last volume
    bool rar5 = false;
    bool headersEncrypted = false;
    bool solid = false;
    bool multiVolume = false;
    bool missingVolume = false; ///< the set begins in the middle or does not end
    QString problem;            ///< why not valid
    std::vector<File> files;    ///< in order, a file that spans volumes once

    /// `start`: offset of the signature in the first file (self-extracting archives).
    static CVRarHeaders read(const QStringList &volumes, qint64 start);
};
