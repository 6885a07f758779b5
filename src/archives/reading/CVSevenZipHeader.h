#pragma once

#include "archives/reading/CVSevenZipStreams.h"

/// What the beginning of a 7z and its checksums prove before the module unpacks anything.
enum class CVSevenZipHeader {
    Whole,    ///< the module has the next word
    TooShort, ///< the directory lies beyond the end
    Damaged,  ///< a checksum does not fit
    OtherVersion,
    TooLarge, ///< the directory would fill the memory
};

/// Of the archive at `offset`, whose mark was seen.
CVSevenZipHeader cvSevenZipCheckHeader(const CVSevenZipSource &source, qint64 offset);
