#pragma once

#include "archives/reading/CVReadingEngine.h"

/// Our own reader for plain ZIP files (and what is one under another name: jar, war, apk, epub,
/// self-extracting programs, office documents).
///
/// It exists for speed only. The 7-Zip library reads these files too, but unpacks one entry after the
/// other, with two or more system calls for each small one. Here entries are unpacked by all processors at
/// once with a faster inflater, neighbours are read together, and a directory of a million entries is taken
/// over without an object for each name.
///
/// So it takes only what is ordinary (see CVZipDirectory) and leaves encryption, other methods, volumes
/// and everything contradictory to the other engines by answering NotSupported on opening. An entry that
/// does not keep what the directory promises (header, sizes, checksum, overlap) fails as Damaged.
///
/// Bids: 90 for a file that begins as a ZIP and has the end of one; 85 for a program or script with
/// the end of a ZIP exactly at its end; 30 for any other such file, since it may as well be
/// another archive whose last member is a ZIP; else 0.
CVEngineDescriptor cvZipEngineDescriptor();
