#include "util/write_all.h"

#include <cerrno>

#include <poll.h>
#include <unistd.h>

namespace {

template <typename Write> bool writeOut(int file, const void *data, std::size_t size, Write write)
{
    const auto *bytes = static_cast<const char *>(data);
    for (std::size_t done = 0; done < size;) {
        const ssize_t n = write(bytes + done, size - done, done);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
        } else if (n == 0) {
            errno = EIO; // it would be asked for ever
            return false;
        } else if (errno == EAGAIN) {
            pollfd wait = {file, POLLOUT, 0};
            ::poll(&wait, 1, -1);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

} // namespace

bool writeAll(int file, const void *data, std::size_t size)
{
    return writeOut(file, data, size, [file](const char *from, std::size_t count, std::size_t) {
        return ::write(file, from, count);
    });
}

bool writeAllAt(int file, const void *data, std::size_t size, off_t at)
{
    return writeOut(file, data, size, [file, at](const char *from, std::size_t count, std::size_t done) {
        return ::pwrite(file, from, count, at + static_cast<off_t>(done));
    });
}
