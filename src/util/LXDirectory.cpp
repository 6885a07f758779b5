#include "util/LXDirectory.h"

#include <cerrno>
#include <cstring>

LXDirectory readDirectory(LXFileDescriptor folder)
{
    LXDirectory directory(::fdopendir(folder.get()));
    if (directory)
        (void)folder.release();
    return directory;
}

std::optional<std::vector<QByteArray>> namesInDirectory(LXFileDescriptor folder, std::size_t limit)
{
    const LXDirectory directory = readDirectory(std::move(folder));
    if (!directory)
        return std::nullopt;
    std::vector<QByteArray> names;
    while (names.size() < limit) {
        errno = 0;
        const dirent *entry = ::readdir(directory.get());
        if (!entry) {
            if (errno != 0)
                return std::nullopt;
            break;
        }
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            names.emplace_back(entry->d_name);
    }
    return names;
}
