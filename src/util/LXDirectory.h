#pragma once

#include "util/LXFileDescriptor.h"

#include <QByteArray>

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include <dirent.h>

struct LXDirectoryClose
{
    void operator()(DIR *directory) const noexcept { ::closedir(directory); }
};

/// A folder that is being read.
using LXDirectory = std::unique_ptr<DIR, LXDirectoryClose>;

/// Reads the folder of the descriptor, which goes with the result. Null and errno on failure.
[[nodiscard]] LXDirectory readDirectory(LXFileDescriptor folder);

/// The names in a folder, at most `limit` of them, in the order of the file system. Nothing and errno when
/// they could not all be read: a folder that cannot be read is not an empty one.
[[nodiscard]] std::optional<std::vector<QByteArray>> namesInDirectory(LXFileDescriptor folder,
                                                                      std::size_t limit);
