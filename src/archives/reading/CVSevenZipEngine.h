#pragma once

#include "archives/reading/CVReadingEngine.h"

/// The engine over the 7-Zip module (see CVSevenZipLibrary): 7z and its volumes, every zip that needs
/// more than the plain reader has, arj, cab, disk images, installers, and a second choice for most of
/// what libarchive reads. It bids 0 where the module is not installed; the numbers are explained in
/// CVSevenZipFormats.cpp, and any recognised archive whose numbered parts lie beside it gets 95,
/// because no other reader would see past the first part.
///
/// A decoder may take a quarter of the machine's memory (at least 256 MiB, so that every preset of
/// 7-Zip can be read); entries that need more fail as not supported.
CVEngineDescriptor cvSevenZipEngineDescriptor();
