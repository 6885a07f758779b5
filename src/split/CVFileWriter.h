#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

/// Writes what it is given into a file, perhaps changed on the way. Calls in this order: open(), any number
/// of writeData(), close(). The descriptor is borrowed and stays open.
/// Thread: one. Failures of the file are raised as LXFileHandleException.
class CVFileWriter
{
public:
    explicit CVFileWriter(int outputFile)
        : m_outputFile(outputFile)
    {}
    virtual ~CVFileWriter() = default;
    CVFileWriter(const CVFileWriter &) = delete;
    CVFileWriter &operator=(const CVFileWriter &) = delete;

    virtual void open() {}
    /// How many of the bytes were taken. The rest has to be offered again, before what follows.
    virtual std::uint64_t writeData(const char *, std::size_t) { return 0; }
    /// Everything is in the file afterwards.
    virtual void close() {}

protected:
    int m_outputFile;
};

/// Writes it as it is.
class CVRawFileWriter final : public CVFileWriter
{
public:
    using CVFileWriter::CVFileWriter;
    std::uint64_t writeData(const char *data, std::size_t size) override;
};

/// Takes the pieces of one bzip2 stream and writes what they decompress to, on all cores; so the file may be
/// behind what was taken, until close(). Raises Bzip2Exception for what is no stream, for damage,
/// without open(), and for bytes behind the end of the stream in a call of their own.
/// A call may take long, for a little can decompress to very much: before each write of at most 256 KiB it
/// asks whether to stop, and raises LXStoppedException.
class CVBzipFileWriter final : public CVFileWriter
{
public:
    explicit CVBzipFileWriter(int outputFile, std::function<bool()> shouldStop = {});
    ~CVBzipFileWriter() override;

    void open() override;
    std::uint64_t writeData(const char *data, std::size_t size) override;
    void close() override;

    /// The stream came to its end, and its checksum is right. Meant for after close().
    bool hasEnded() const;
    /// After Bzip2Exception: the bytes of all that was taken, up to the second one, among which the wrong
    /// ones are.
    std::pair<std::uint64_t, std::uint64_t> damage() const;

private:
    std::function<bool()> m_shouldStop;
    std::unique_ptr<class LXBzip2Decoder> m_decoder;
};

class CVFileWriterFactory
{
public:
    static std::unique_ptr<CVFileWriter> fileWriterWithOutputFile(int outputFile, bool shouldDecompress);
};
