#pragma once

#include "archives/reading/CVReadingEngine.h"

/// The engine for what the two in-process libraries cannot read: encrypted, multi-volume and early rar,
/// StuffIt, BinHex, MacBinary, ADF, ARC, Zoo, LHA's rarer methods, encrypted arj. It runs the programs lsar
/// (listing) and unar (data) and bids only where both are installed.
///
/// The programs are not trusted with more than they need. They see the archive and its volumes through
/// links in a private folder, so no file that happens to lie beside the archive is taken for a volume. They
/// unpack into the sink's staging folder, confined to it where the kernel offers that, with bounded
/// memory and file sizes; only regular files and links found there under the expected place are delivered,
/// each as soon as it is whole. A decoder that neither reads, writes nor prints for a while is ended.
///
/// Passwords: unar asks on a pseudo-terminal. lsar has no prompt and would take the password from its
/// arguments only; a small library of ours, loaded into it, puts the password in their place inside the
/// process, so that the process list shows an empty one.
///
/// Names of Macintosh formats and those whose charset the program is sure of come decoded by it; others
/// as stored bytes, for the detection that all engines share. Resource forks are left out.
CVEngineDescriptor cvUnarEngineDescriptor();
