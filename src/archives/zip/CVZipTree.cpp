#include "archives/zip/CVZipTree.h"

#include "util/LXFileDescriptor.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>

namespace {

struct CloseFolder
{
    void operator()(DIR *folder) const { ::closedir(folder); }
};

// A folder may hold millions.
struct Item
{
    std::size_t name; ///< where it begins in the text with all of them
    mode_t mode;
    dev_t device;
    ino_t inode;
    std::uint64_t size;
    timespec modified;
};

} // namespace

CVZipTree::CVZipTree(Callbacks callbacks)
    : m_callbacks(std::move(callbacks))
{}

/// `folder` ends with a slash or is empty.
bool CVZipTree::walkFolder(const std::string &folder)
{
    LXFileDescriptor opened(
        ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    std::unique_ptr<DIR, CloseFolder> stream(opened.isOpen() ? ::fdopendir(opened.get()) : nullptr);
    if (!stream) {
        m_callbacks.failed(errno, folder);
        return true;
    }
    const int folderFile = opened.release();
    std::vector<char> names;
    std::vector<Item> items;
    for (errno = 0; const dirent *entry = ::readdir(stream.get()); errno = 0) {
        const char *const name = entry->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
            continue;
        struct stat info;
        if (::fstatat(folderFile, name, &info, AT_SYMLINK_NOFOLLOW) != 0) {
            m_callbacks.failed(errno, folder + name);
            continue;
        }
        items.push_back({names.size(), info.st_mode, info.st_dev, info.st_ino,
                         static_cast<std::uint64_t>(info.st_size), info.st_mtim});
        names.insert(names.end(), name, name + std::strlen(name) + 1);
    }
    if (errno != 0)
        m_callbacks.failed(errno, folder);
    stream.reset();
    std::sort(items.begin(), items.end(), [&names](const Item &one, const Item &other) {
        return std::strcmp(&names[one.name], &names[other.name]) < 0;
    });
    for (const Item &item : items) {
        const std::string path = folder + &names[item.name];
        if (!m_callbacks.visit({path, item.mode, item.device, item.inode, item.size, item.modified}) ||
            (S_ISDIR(item.mode) && !walkFolder(path + '/')))
            return false;
    }
    return true;
}
