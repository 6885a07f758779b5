#pragma once

#include "archives/xar/xar.h"

#include <memory>
#include <span>

/// Unpacks the data of one file as it comes. One thread.
class CVXarInflater
{
public:
    virtual ~CVXarInflater() = default;

    enum class Step {
        Going, ///< call again, with more input when `in` is empty
        Ended,
        Damaged,
        TooLarge, ///< it needs more memory than it may have
    };
    /// Takes from the front of `in`, puts `made` bytes to the front of `out`, which is not empty.
    virtual Step step(std::span<const char> &in, std::span<char> out, std::size_t &made) = 0;

    /// Null for an unknown encoding.
    static std::unique_ptr<CVXarInflater> create(xar_file::Encoding encoding, std::uint64_t memoryLimit);
};
