#pragma once

#include "util/LXFileDescriptor.h"

#include <QString>

#include <cstddef>
#include <cstdint>
#include <vector>

/// Opens it for reading, from begin to end. Not open where it is no regular file: a pipe would be waited for,
/// and a device has no end.
LXFileDescriptor openRegularFile(const QString &path);

/// Writes all of it at the descriptor's position. Raises LXFileHandleException.
void writeOrThrow(int file, const char *data, std::size_t size);

/// Takes ranges out of one file: the kernel moves them where it can, which shares the data on file systems
/// that know how; else they go through a buffer. What is a hole there becomes one where it goes to, which has
/// to be new from `target` on. The descriptors' positions mean nothing.
/// Thread: one an object; several may read one descriptor.
class BlockCopier
{
public:
    /// Borrowed.
    explicit BlockCopier(int from)
        : m_from(from)
    {}

    /// The number of bytes copied: fewer only where the file ends. Raises LXFileHandleException.
    std::uint64_t copy(std::uint64_t at, int to, std::uint64_t target, std::uint64_t size);

private:
    void findExtent(std::uint64_t at);
    std::uint64_t copyData(std::uint64_t at, int to, std::uint64_t target, std::uint64_t size);

    int m_from;
    bool m_byKernel = true;
    // What is known of the file: one stretch, all data or all hole.
    std::uint64_t m_extentStart = 0;
    std::uint64_t m_extentEnd = 0;
    bool m_extentIsHole = false;
    std::vector<char> m_buffer;
};
