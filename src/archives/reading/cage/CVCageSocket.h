#pragma once

#include "util/LXFileDescriptor.h"

#include <QByteArray>

#include <span>
#include <utility>
#include <vector>

/// One end of a pair of sockets that keeps messages apart and can pass descriptors.
/// Thread: one that sends and one that receives.
class CVCageSocket
{
public:
    CVCageSocket() = default;
    explicit CVCageSocket(LXFileDescriptor fd)
        : m_fd(std::move(fd))
    {}

    /// Two ends; not open when the system has none left.
    static std::pair<CVCageSocket, CVCageSocket> pair();

    int fd() const { return m_fd.get(); }
    bool isOpen() const { return m_fd.isOpen(); }
    void close() { m_fd.reset(); }

    enum class Wait {
        ForRoom,
        Never, ///< fails when the other side does not read
    };
    bool send(QByteArrayView message, std::span<const int> descriptors = {}, Wait wait = Wait::ForRoom) const;

    enum class Got {
        Message,
        Ended, ///< or nothing that could be understood: the other side is gone or speaks nonsense
        Nothing,
    };
    /// The next message. Descriptors that are not asked for are closed. `timeoutMs` below zero: for ever.
    Got receive(QByteArray &message, std::vector<LXFileDescriptor> *descriptors = nullptr,
                int timeoutMs = -1) const;
    /// The same into a buffer, `size` is what came.
    Got receive(void *buffer, std::size_t capacity, std::size_t &size, int timeoutMs = -1) const;

private:
    LXFileDescriptor m_fd;
};
