#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

/// Writes all of it at the descriptor's position. Raises LXFileHandleException.
void writeAll(int file, const char *data, std::size_t size);

/// Moves bytes from the position of one file to that of another: by the kernel where it can, which shares
/// the data on file systems that know how; else through a buffer. What is a hole in the former, as
/// far as a whole block goes, becomes one in the latter, which has to be new.
/// Thread: one. For files of one pair of file systems, because it remembers what did not work.
class BlockCopier
{
public:
    /// The number of bytes copied: fewer only where `from` ends. Raises LXFileHandleException.
    std::uint64_t copy(int from, int to, std::uint64_t size);

private:
    bool skipHole(int from, int to, std::uint64_t size);

    bool m_byKernel = true;
    std::int64_t m_dataFrom = -1; ///< known hole up to here
    std::vector<char> m_buffer;
};
