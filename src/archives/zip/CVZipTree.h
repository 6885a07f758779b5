#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <sys/stat.h>

/// Walks through the current folder in an order that depends on the names alone: by their bytes, a folder
/// before what is in it. Links are not followed.
class CVZipTree
{
public:
    struct Node
    {
        std::string path; ///< from the top folder on
        mode_t mode = 0;
        dev_t device = 0;
        ino_t inode = 0;
        std::uint64_t size = 0;
        timespec modified = {};
    };
    struct Callbacks
    {
        std::function<bool(Node &&node)> visit; ///< false ends the walk
        std::function<void(int error, const std::string &path)> failed;
    };

    explicit CVZipTree(Callbacks callbacks);
    void walk() { walkFolder({}); }

private:
    bool walkFolder(const std::string &folder);

    Callbacks m_callbacks;
};
