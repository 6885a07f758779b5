#pragma once

#include "archives/reading/CVRarKeys.h"

#include <QByteArray>

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
    /// Of the whole contents; keyed where `encryption` says so.
    struct Sums
    {
        std::optional<std::uint32_t> crc32;
        QByteArray blake2sp; ///< 32 bytes, or empty
    };
    Sums sums;
    std::optional<CVRarEncryption> encryption; ///< RAR 5
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

/// What the block headers of a RAR archive say. The decoders do not compare the check sums of all data
/// and pass over blocks that they do not know, so these are needed to tell good data from bad and whether
/// any file got lost: every header has to follow the one before, be of a known kind and fit its sum.
struct CVRarHeaders
{
    enum class State {
        Good,
        NotRar,
        Damaged,          ///< a header is cut, unknown, or its check sum is wrong
        HeadersEncrypted, ///< nothing beyond the main header can be known
        PasswordWrong,
        PasswordWrongOrDamaged, ///< the first encrypted header makes no sense; RAR 4 has nothing to tell by
        Unsupported,            ///< RAR 1.4, comments inside headers
    };

    State state = State::NotRar;
    int generation = 4; ///< 4 or 5
    bool isVolume = false;
    bool isSolid = false;
    bool usesPartNumbers = false; ///< name.part1.rar, name.part2.rar instead of name.rar, name.r00
    bool isFirstVolume = true;
    bool wantsNextVolume = false; ///< the last volume read is not the last of the set
    std::vector<CVRarFile> files;

    /// Reads all volumes of the source; `offset` is where the signature stands in the first. `keys` are for
    /// encrypted headers.
    static CVRarHeaders read(const CVArchiveSource &source, qint64 offset, CVRarKeys *keys = nullptr);
};
