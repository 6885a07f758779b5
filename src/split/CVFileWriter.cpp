#include "split/CVFileWriter.h"

#include "split/block_copy.h"
#include "split/split_exceptions.h"
#include "util/LXBzip2Decoder.h"

#include <string>

namespace {

constexpr int sequenceError = -1; // libbz2's, for calls in the wrong order

[[noreturn]] void raise(int status)
{
    throw Bzip2Exception("BZ2_bzDecompress failed with status " + std::to_string(status) +
                         ", perhaps you didn't call the open method?");
}

} // namespace

std::uint64_t CVRawFileWriter::writeData(const char *data, std::size_t size)
{
    writeOrThrow(m_outputFile, data, size);
    return size;
}

CVBzipFileWriter::CVBzipFileWriter(int outputFile, std::function<bool()> shouldStop)
    : CVFileWriter(outputFile)
    , m_shouldStop(std::move(shouldStop))
{}

CVBzipFileWriter::~CVBzipFileWriter() = default;

void CVBzipFileWriter::open()
{
    m_decoder = std::make_unique<LXBzip2Decoder>([this](const char *data, std::size_t size) {
        if (m_shouldStop && m_shouldStop())
            throw LXStoppedException();
        writeOrThrow(m_outputFile, data, size);
    });
}

std::uint64_t CVBzipFileWriter::writeData(const char *data, std::size_t size)
{
    if (!m_decoder)
        raise(sequenceError);
    try {
        return m_decoder->feed(data, size);
    } catch (const LXBzip2Error &e) {
        raise(e.status());
    }
}

void CVBzipFileWriter::close()
{
    if (!m_decoder)
        return;
    try {
        m_decoder->finish();
    } catch (const LXBzip2Error &e) {
        raise(e.status());
    }
}

bool CVBzipFileWriter::hasEnded() const
{
    return m_decoder && m_decoder->hasEnded();
}

std::pair<std::uint64_t, std::uint64_t> CVBzipFileWriter::damage() const
{
    return m_decoder ? m_decoder->damage() : std::pair<std::size_t, std::size_t>();
}

std::unique_ptr<CVFileWriter> CVFileWriterFactory::fileWriterWithOutputFile(int outputFile,
                                                                            bool shouldDecompress)
{
    if (shouldDecompress)
        return std::make_unique<CVBzipFileWriter>(outputFile);
    return std::make_unique<CVRawFileWriter>(outputFile);
}
