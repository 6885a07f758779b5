#pragma once

#include "util/LXFileDescriptor.h"

#include <QByteArray>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

/// The folder that an extraction writes into, walked by descriptors only: no step follows a link and
/// none leaves the folder, whoever else may change the tree meanwhile.
/// Paths are relative to it, bytes, already through CVSafePath. Any thread. Errors are errno values.
///
/// Folders are made for their owner alone: nobody else is to look into what the archive may keep private, not
/// even while it is being unpacked. Whoever ends the work gives them their modes.
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

    /// The folders that were made since the last call, each after the one it lies in.
    std::vector<QByteArray> takeMadeFolders();

    /// Removes everything in the destination, not the destination itself.
    void empty();

    /// Free bytes for this user on the file system; 0 when unknown.
    std::uint64_t freeBytes() const;

    /// Names directly in the destination, at most `limit` of them. Nothing and errno when it cannot be read.
    std::optional<std::vector<QByteArray>> topLevelNames(std::size_t limit) const;

    /// Known to hold nothing: only then may what will be in it be thrown away.
    bool isEmpty() const;

private:
    int openBeneath(int at, const char *path, int flags) const;

    LXFileDescriptor m_root;
    mutable std::mutex m_mutex; // what follows
    std::vector<QByteArray> m_made;
    // Neighbouring entries share their folder; a small cache saves walking the path for each of them.
    std::unordered_map<std::string, std::shared_ptr<const LXFileDescriptor>> m_kept;
};

/// Removes what is below the folder `fd`, never through a link. False when something could not be removed.
bool cvRemoveContents(int fd);
