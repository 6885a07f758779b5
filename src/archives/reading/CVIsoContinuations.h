#pragma once

class CVArchiveSource;

/// Whether a disc image's Rock Ridge attributes lead in a circle, or through more areas than any writer
/// makes for one file. libarchive 3.6 follows them without end and without reading, so that it could
/// not even be stopped.
bool cvIsoContinuesForEver(const CVArchiveSource &source);
