#include "split/CVBzipFileReader.h"

#include "split/split_exceptions.h"
#include "util/LXBzip2Encoder.h"

#include <unistd.h>

CVBzipFileReader::CVBzipFileReader(int inputFile)
    : m_inputFile(inputFile)
{}

CVBzipFileReader::~CVBzipFileReader() = default;

void CVBzipFileReader::open()
{
    m_isOpen = true;
}

std::string CVBzipFileReader::readDataWithLength(std::size_t length)
{
    if (!m_isOpen)
        throw Bzip2Exception("BZ2_bzCompress failed with code -1");
    if (!m_encoder) {
        m_encoder = std::make_unique<LXBzip2Encoder>(
            [this](char *buffer, std::size_t size) {
                std::size_t got = 0;
                while (got < size) {
                    const ssize_t count = ::read(m_inputFile, buffer + got, size - got);
                    if (count < 0 && errno == EINTR)
                        continue;
                    if (count < 0)
                        throw LXFileHandleException();
                    if (count == 0)
                        break;
                    got += static_cast<std::size_t>(count);
                }
                return got;
            },
            length);
    }
    try {
        return m_encoder->next();
    } catch (const LXBzip2Error &e) {
        throw Bzip2Exception("BZ2_bzCompress failed with code " + std::to_string(e.status()));
    }
}

void CVBzipFileReader::close()
{
    m_encoder.reset();
    m_isOpen = false;
}
