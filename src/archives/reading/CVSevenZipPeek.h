#pragma once

#include "archives/reading/SevenZipInterfaces.h"

#include <cstdint>

/// Whether the item begins as an archive of another format, after a look at its first bytes.
bool cvSevenZipItemIsArchive(sevenzip::InArchive &archive, std::uint32_t item);
