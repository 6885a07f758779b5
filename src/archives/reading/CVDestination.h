#pragma once

#include "util/LXFileDescriptor.h"

#include <QByteArray>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>

/// The folder that an extraction writes into, walked by descriptors only: no step follows a link and
/// none leaves the folder, whoever else may change the tree meanwhile.
/// Paths are relative to it, UTF-8, already through CVSafePath. Any thread. Errors are errno values.
class CVDestination
{
public:
    explicit CVDestination(const QByteArray &path);

    bool isOpen() const { return m_root.isOpen(); }
    int rootFd() const { return m_root.get(); }

    /// A descriptor of the folder `path` ("" is the destination itself), made with its parents where
    /// missing. Null and errno when something that is not a folder is in the way.
    std::shared_ptr<const LXFileDescriptor> folder(const QByteArray &path);

    /// As folder(), but makes nothing.
    std::shared_ptr<const LXFileDescriptor> existingFolder(const QByteArray &path) const;

    /// Forgets the kept descriptor of a folder that goes away.
    void forget(const QByteArray &path);

    /// Removes everything in the destination, not the destination itself.
    void empty();

    /// Free bytes for this user on the file system; 0 when unknown.
    std::uint64_t freeBytes() const;

    /// Names directly in the destination, at most `limit` of them.
    std::vector<QByteArray> topLevelNames(std::size_t limit) const;

private:
    int openBeneath(int at, const char *path, int flags) const;

    LXFileDescriptor m_root;
    mutable std::mutex m_mutex;
    // Neighbouring entries share their folder; a small cache saves walking the path for each of them.
    std::unordered_map<std::string, std::shared_ptr<const LXFileDescriptor>> m_kept;
};

/// Removes what is below the folder `fd`, never through a link. False when something could not be removed.
bool cvRemoveContents(int fd);
