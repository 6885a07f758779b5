#pragma once

#include "util/LXFileDescriptor.h"

#include <cstdint>
#include <mutex>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

/// The files that an archive is written into: one, or volumes of one size (.001, .002, … behind the name).
/// Until all of it is there they have .tmp behind their names. What lies there already is left alone.
/// Errors are errno values. Thread: one, but abandon() and isOwn() any.
class CVZipVolumes
{
public:
    CVZipVolumes(std::string path, std::uint64_t volumeBytes);
    ~CVZipVolumes() { abandon(); }
    CVZipVolumes(const CVZipVolumes &) = delete;
    CVZipVolumes &operator=(const CVZipVolumes &) = delete;

    int append(std::span<const char> data);
    /// Over what was appended before.
    int writeAt(std::uint64_t offset, std::span<const char> data);
    std::uint64_t size() const { return m_size; }

    /// Everything is written: to the final names.
    int finish();

    /// Removes what was made, unless it is finished; nothing is made any more.
    void abandon();

    /// Whether this file is one of them, which must not be packed.
    bool isOwn(dev_t device, ino_t inode) const;

private:
    std::string finalName(std::size_t index) const;
    int openNext();
    int closeLast();

    const std::string m_path;
    const std::uint64_t m_volumeBytes;
    std::uint64_t m_size = 0;
    LXFileDescriptor m_last;

    mutable std::mutex m_mutex; // what follows
    std::vector<std::string> m_names;
    std::set<std::pair<dev_t, ino_t>> m_files;
    bool m_isOver = false;
};
