#pragma once

#include <QString>

#include <cstdint>
#include <cstdlib>

#include <sys/mman.h>
#include <unistd.h>

/// The bytes of one try as a file with a name, without a disk.
class MemoryFile
{
public:
    MemoryFile(const std::uint8_t *data, std::size_t size)
        : m_file(::memfd_create("fuzz", MFD_CLOEXEC))
    {
        if (m_file < 0 || ::write(m_file, data, size) != static_cast<ssize_t>(size))
            std::abort();
    }
    ~MemoryFile() { ::close(m_file); }
    MemoryFile(const MemoryFile &) = delete;
    MemoryFile &operator=(const MemoryFile &) = delete;

    QString path() const { return QStringLiteral("/proc/self/fd/%1").arg(m_file); }

private:
    int m_file;
};
