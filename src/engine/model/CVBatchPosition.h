#pragma once

#include <QtGlobal>

/// Where a job is that works on several archives one after the other. Shares are of the whole batch, 0 to 1,
/// by the sizes of the files.
struct CVBatchPosition
{
    qsizetype number = 1; ///< of the archive at work, from 1
    qsizetype count = 1;
    double shareBefore = 0; ///< of the archives that are done
    double shareAfter = 1;  ///< with the one at work
};
