// Loaded into lsar only. It has no prompt and takes a password from its arguments alone, where every user
// of the machine could read it. We start it with an empty one and put the real one, which comes through
// a pipe, in its place in this process's memory. The process list keeps showing the empty one.
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace {

char password[4097];

[[gnu::constructor]] void takePassword(int argc, char **argv)
{
    const char *number = std::getenv("CORVANE_PASSWORD_DESCRIPTOR");
    if (!number)
        return;
    const int fd = std::atoi(number);
    std::size_t size = 0;
    ssize_t n;
    while (size < sizeof password - 1 && (n = ::read(fd, password + size, sizeof password - 1 - size)) > 0)
        size += static_cast<std::size_t>(n);
    ::close(fd);
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "-p") == 0) {
            argv[i + 1] = password;
            break;
        }
    }
    ::unsetenv("LD_PRELOAD");
    ::unsetenv("CORVANE_PASSWORD_DESCRIPTOR");
}

} // namespace
