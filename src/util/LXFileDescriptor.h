#pragma once

#include <unistd.h>

#include <utility>

/// Owns one POSIX file descriptor and closes it. A value below zero owns nothing.
class LXFileDescriptor
{
public:
    explicit LXFileDescriptor(int fd = -1) noexcept
        : m_fd(fd)
    {}
    LXFileDescriptor(LXFileDescriptor &&other) noexcept
        : m_fd(std::exchange(other.m_fd, -1))
    {}
    LXFileDescriptor &operator=(LXFileDescriptor other) noexcept
    {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~LXFileDescriptor() { reset(); }

    [[nodiscard]] int get() const noexcept { return m_fd; }
    [[nodiscard]] bool isOpen() const noexcept { return m_fd >= 0; }
    [[nodiscard]] int release() noexcept { return std::exchange(m_fd, -1); }

    /// Closes now. False when the close itself failed: a late write error (quota, network file
    /// system) is reported only there, so whoever wrote must look.
    bool reset() noexcept
    {
        const int fd = std::exchange(m_fd, -1);
        return fd < 0 || ::close(fd) == 0;
    }

private:
    int m_fd;
};
