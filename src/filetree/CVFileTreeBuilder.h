#pragma once

#include "filetree/CVFileNode.h"

#include <QStringList>

#include <stop_token>

/// Adds paths on disk to a tree.
class CVFileTreeBuilder
{
public:
    /// Reads each path with everything beneath it and appends it to the root. A path that is a top-level
    /// child already is passed over. Reads the disk: not for the main thread when folders may be large.
    /// After a stop request the tree is incomplete.
    static void addFiles(const QStringList &paths, CVFileNode &tree, const std::stop_token &stop = {});
};
