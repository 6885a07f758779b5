#pragma once

#include "archives/reading/cage/CVCageSocket.h"

/// In the reader's process: works on one archive for the program at the other end, until that closes.
/// The process is confined by then.
/// Thread: the only one, but for those of the engines.
void cvReadOneArchive(CVCageSocket control);
