#pragma once

#include "archives/xar/xar_private.h"
#include "util/LXFileDescriptor.h"

#include <deque>
#include <span>

/// An archive that is read. See xar_read(), xar_extract().
class CVXarReader final : public xar_reading
{
public:
    /// Compressed; a table of two million entries stays far below.
    static constexpr std::uint64_t maxPackedTableBytes = std::uint64_t(512) << 20;
    /// What a decoder may use: the largest windows of the usual tools fit, 64 MiB at xz -9.
    static constexpr std::uint64_t decoderMemoryLimit = std::uint64_t(160) << 20;

    static LXResult<std::unique_ptr<CVXarReader>> open(LXFileDescriptor file);

    const std::deque<xar_file> &files() const override { return m_files; }
    LXResult<void> extract(const xar_file &file, const xar_receiver &receiver) const override;

private:
    LXResult<void> readTable();
    /// Everything of `size` bytes at `offset`, in pieces.
    LXResult<void> read(std::uint64_t offset, std::uint64_t size,
                        const std::function<LXResult<void>(std::span<const char>)> &take) const;
    LXResult<void> extractWhole(const xar_file &file, const xar_receiver &receiver, bool &done) const;

    LXFileDescriptor m_fd;
    std::uint64_t m_fileBytes = 0;
    std::uint64_t m_heapAt = 0;
    std::deque<xar_file> m_files;
};
