#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <optional>
#include <vector>

class CVArchiveSource;

/// One file of a RAR archive, its parts in several volumes taken together.
struct CVRarFile
{
    QByteArray name;       ///< as stored; RAR 4 names with a Unicode form keep both parts
    QByteArray linkTarget; ///< RAR 5 redirections
    qint64 packedSize = 0;
    qint64 size = -1; ///< below zero: not stored
    std::optional<std::uint32_t> crc32;
    bool isDirectory = false;
    bool isStored = false;
    bool isEncrypted = false;
    bool isSolid = false;
    bool hasUnicodeName = false;
    bool isUnixHost = false;
    bool isFileCopy = false;   ///< RAR 5: the contents are those of linkTarget
    bool isRedirected = false; ///< RAR 5: link of any kind
    bool isComplete = true;    ///< all parts were found
    int unpackVersion = 0;     ///< RAR 4: 15, 20, 26, 29, 36; RAR 5: 50 and more
};

/// What the block headers of a RAR archive say. The decoder below does not compare the check sums of
/// all data itself, so these are needed to tell good data from bad.
struct CVRarHeaders
{
    enum class State {
        Good,
        NotRar,
        Damaged,          ///< a header is cut or its check sum is wrong
        HeadersEncrypted, ///< nothing beyond the main header can be known
        Unsupported,      ///< RAR 1.4, comments inside headers
    };

    State state = State::NotRar;
    int generation = 4; ///< 4 or 5
    bool isVolume = false;
    bool isSolid = false;
    bool usesPartNumbers = false; ///< name.part1.rar, name.part2.rar instead of name.rar, name.r00
    bool isFirstVolume = true;
    bool wantsNextVolume = false; ///< the last volume read is not the last of the set
    std::vector<CVRarFile> files;

    /// Reads all volumes of the source; `offset` is where the signature stands in the first.
    static CVRarHeaders read(const CVArchiveSource &source, qint64 offset);
};

/// The first volume of the set that the file belongs to, going by its name.
QString cvFirstRarVolume(const QString &path, bool usesPartNumbers);

/// The volumes that exist, from the first on, up to the first one missing.
QStringList cvRarVolumes(const QString &firstVolume, bool usesPartNumbers);
