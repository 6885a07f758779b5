#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

/// Reads a file and gives it compressed, as one bzip2 stream (block size 9, work factor 30) that is flushed
/// after every piece read; on all cores, so the file may be read further than was asked for.
/// The descriptor is borrowed. Thread: one.
class CVBzipFileReader
{
public:
    explicit CVBzipFileReader(int inputFile);
    ~CVBzipFileReader();
    CVBzipFileReader(const CVBzipFileReader &) = delete;
    CVBzipFileReader &operator=(const CVBzipFileReader &) = delete;

    void open();
    /// The stream's next bytes, for the next `length` bytes of the file; the first call decides on the
    /// length. Empty at the end, again and again. Raises Bzip2Exception and LXFileHandleException.
    std::string readDataWithLength(std::size_t length);
    void close();

private:
    int m_inputFile;
    bool m_isOpen = false;
    std::unique_ptr<class LXBzip2Encoder> m_encoder;
};
