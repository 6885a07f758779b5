#pragma once

#include "filetree/CVFileNode.h"

#include <QStringList>

/// Adds paths on disk to a tree.
class CVFileTreeBuilder
{
public:
    /// Reads each path with everything beneath it and appends it to the root. A path that is a top-level
    /// child already is passed over. Reads the disk: not for the main thread when folders may be large.
    static void addFiles(const QStringList &paths, CVFileNode &tree);
};
