#pragma once

#include "archives/reading/CVReadingEngine.h"

/// The engine over libarchive: tar in all dialects and compressions, cpio, rpm, ar and deb, xar, rar 4 and 5
/// without a password, lha, single compressed files, and cab behind a better reader. Not 7z, where it does
/// not compare checksums; not zip, where it takes a cut-off file for a whole one; not iso, where crafted
/// records make it run in circles.
///
/// Compressed files come through CVByteStream, so their checksums count and decoding has its own thread.
/// rar files are compared with the checksums of their headers (CVRarHeaders), because the library delivers
/// some without looking; what cannot be verified or is encrypted is left to the next engine.
///
/// Bids: streams, tar, cpio, rpm, ar, xar 80; rar, lha 60; cab 40; self-extracting programs 20.
CVEngineDescriptor cvLibarchiveEngineDescriptor();
