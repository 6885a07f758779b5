#pragma once

#include "util/LXFileDescriptor.h"

#include <atomic>
#include <cstdint>
#include <functional>

/// One file that is to be cut into parts of one size.
struct PartCopy
{
    int input = -1; ///< borrowed
    std::uint64_t inputBytes = 0;
    std::uint64_t partBytes = 0;
    unsigned threads = 1;
    /// Makes the next part. Called in the order of the parts, by one thread at a time, perhaps not the
    /// caller's.
    std::function<LXFileDescriptor()> newPart;
    /// Bytes copied since it was told the last time. On the caller's thread.
    std::function<void(std::uint64_t)> tell;
    const std::atomic<bool> &stop;
};

/// Copies it, several parts at once where there are threads; stops at the next block of 1 MiB. Raises what
/// newPart() and tell() raise, LXFileHandleException, and FileSplitterIOException when the input ends too
/// early.
void copyParts(const PartCopy &copy);

/// How many threads are worth while between these two: copying from memory to memory is work for the
/// processor, while a disk is slowed down by being at two places.
unsigned threadsToCopy(int fromFile, const char *toFolder);
