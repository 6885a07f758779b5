#pragma once

#include "archives/reading/CVReadingEngine.h"

#include <span>

class CVZipDirectory;

/// Extracts entries of one open ZIP file, several at once.
///
/// Each worker takes runs of neighbours in the order of the file: neighbours are read with one call, and
/// they mostly lie in one folder, which only one thread at a time can add files to. The runs
/// become shorter towards the end, so that all workers end together. Little work is done on the calling
/// thread alone.
///
/// Memory: bufferBudget for all workers together, however large or false the declared sizes are.
class CVZipExtractor
{
public:
    /// Bytes that all workers together may hold of packed and unpacked data. What does not fit into
    /// a worker's share goes through a stream.
    static constexpr quint64 bufferBudget = quint64(256) << 20;
    static constexpr unsigned mostWorkers = 8;

    /// `fd` and `directory` are borrowed.
    CVZipExtractor(int fd, const CVZipDirectory &directory)
        : m_fd(fd)
        , m_directory(directory)
    {}

    /// See CVReadingEngine::extract(). Never throws.
    CVReadingEngine::Outcome extract(std::span<const int> indices, bool all, CVEntrySink &sink) const;

private:
    bool beginsWithUnlisted() const;

    int m_fd;
    const CVZipDirectory &m_directory;
};
