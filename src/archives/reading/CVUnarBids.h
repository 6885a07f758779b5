#pragma once

#include "archives/reading/CVReadingEngine.h"

/// How much unar suits a file, by the file's bytes alone, whether or not it is installed. 0: not at all.
///   60  formats that nothing else here reads: StuffIt, BinHex, MacBinary, ADF, ARC, Zoo, …
///   70  arj with encrypted entries, cabinets with names in a legacy charset: others read them, but not right
///   50  rar: behind the library that reads the ordinary ones faster, before all others
///   30  lha, cab, arj
///   10  zip and 7z, 5 programs that may hold an archive: last resort
int cvUnarBid(const CVArchiveProbe &probe);
