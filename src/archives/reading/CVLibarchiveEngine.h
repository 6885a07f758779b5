#pragma once

#include "archives/reading/CVReadingEngine.h"

/// Reads tar, pax, cpio, rpm, ar and deb, RAR, LHA, single compressed files, and, when nothing
/// better is installed, cabinets and web archives. The container is read through
/// libarchive, compressed streams by our own decoders; see the bids in CVLibarchiveBids.cpp.
///
/// What a format can prove is proved: an entry whose check sum does not fit or that is cut fails.
/// Without any check sum, and therefore only as good as their transport, are: tar, cpio (but for its "crc"
/// kind), ar data that are not compressed, .lzma, .Z and .br, and frames of zstd and lz4 that were
/// made without one.
CVEngineDescriptor cvLibarchiveEngineDescriptor();
