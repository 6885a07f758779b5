#include "archives/reading/cage/CVCageSocket.h"

#include "archives/reading/cage/CVCageMessages.h"

#include <cerrno>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>

namespace {

/// As many as one command carries.
constexpr std::size_t maxDescriptors = 16;

CVCageSocket::Got waitFor(int fd, int timeoutMs)
{
    if (timeoutMs < 0)
        return CVCageSocket::Got::Message;
    pollfd waiting{fd, POLLIN, 0};
    int ready = 0;
    do
        ready = ::poll(&waiting, 1, timeoutMs);
    while (ready < 0 && errno == EINTR);
    return ready > 0 ? CVCageSocket::Got::Message : CVCageSocket::Got::Nothing;
}

} // namespace

std::pair<CVCageSocket, CVCageSocket> CVCageSocket::pair()
{
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        return {};
    return {CVCageSocket(LXFileDescriptor(ends[0])), CVCageSocket(LXFileDescriptor(ends[1]))};
}

bool CVCageSocket::send(QByteArrayView message, std::span<const int> descriptors, Wait wait) const
{
    iovec part{const_cast<char *>(message.data()), std::size_t(message.size())};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(maxDescriptors * sizeof(int))] = {};
    if (!descriptors.empty()) {
        header.msg_control = control;
        header.msg_controllen = CMSG_SPACE(descriptors.size_bytes());
        cmsghdr *const attached = CMSG_FIRSTHDR(&header);
        attached->cmsg_level = SOL_SOCKET;
        attached->cmsg_type = SCM_RIGHTS;
        attached->cmsg_len = CMSG_LEN(descriptors.size_bytes());
        std::memcpy(CMSG_DATA(attached), descriptors.data(), descriptors.size_bytes());
    }
    ssize_t sent = 0;
    do
        sent = ::sendmsg(m_fd.get(), &header, MSG_NOSIGNAL | (wait == Wait::Never ? MSG_DONTWAIT : 0));
    while (sent < 0 && errno == EINTR);
    return sent == message.size();
}

CVCageSocket::Got CVCageSocket::receive(void *buffer, std::size_t capacity, std::size_t &size,
                                        int timeoutMs) const
{
    if (waitFor(m_fd.get(), timeoutMs) == Got::Nothing)
        return Got::Nothing;
    iovec part{buffer, capacity};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    ssize_t got = 0;
    do
        got = ::recvmsg(m_fd.get(), &header, MSG_CMSG_CLOEXEC);
    while (got < 0 && errno == EINTR);
    size = std::size_t(std::max<ssize_t>(got, 0));
    return got > 0 && !(header.msg_flags & MSG_TRUNC) ? Got::Message : Got::Ended;
}

CVCageSocket::Got CVCageSocket::receive(QByteArray &message, std::vector<LXFileDescriptor> *descriptors,
                                        int timeoutMs) const
{
    if (waitFor(m_fd.get(), timeoutMs) == Got::Nothing)
        return Got::Nothing;
    message.resize(CVCage::maxMessageBytes);
    iovec part{message.data(), std::size_t(message.size())};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(maxDescriptors * sizeof(int))];
    if (descriptors) {
        header.msg_control = control;
        header.msg_controllen = sizeof control;
    }
    ssize_t got = 0;
    do
        got = ::recvmsg(m_fd.get(), &header, MSG_CMSG_CLOEXEC);
    while (got < 0 && errno == EINTR);
    message.truncate(std::max<ssize_t>(got, 0));
    for (cmsghdr *attached = descriptors && got > 0 ? CMSG_FIRSTHDR(&header) : nullptr; attached;
         attached = CMSG_NXTHDR(&header, attached)) {
        if (attached->cmsg_level != SOL_SOCKET || attached->cmsg_type != SCM_RIGHTS)
            continue;
        const std::size_t count = (attached->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t i = 0; i < count; ++i) {
            int fd = -1;
            std::memcpy(&fd, CMSG_DATA(attached) + i * sizeof(int), sizeof fd);
            descriptors->emplace_back(fd);
        }
    }
    return got > 0 && !(header.msg_flags & MSG_TRUNC) ? Got::Message : Got::Ended;
}
