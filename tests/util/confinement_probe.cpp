// Confines itself and tries what must not be possible: one line an attempt, "name result", where the result
// is 0 or the number of the error. It is what a decoder becomes that somebody has taken over.
//
// confinement_probe RULES NEWEST-LANDLOCK ALLOWED-FOLDER OTHER-FOLDER

#include "util/LXConfinement.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <termios.h>

namespace {

struct Attempt
{
    const char *name;
    std::function<long()> run; ///< below zero: failed, with errno
};

LXConfinementRules rulesNamed(const std::string &name, const QString &allowed)
{
    LXConfinementRules rules;
    if (name == "reader")
        return rules;
    rules.readable = {QStringLiteral("/usr"), allowed};
    rules.writable = {allowed};
    rules.changes =
        name == "unpacker" ? LXConfinementRules::Changes::ByPath : LXConfinementRules::Changes::ByDescriptor;
    if (name == "starter") {
        rules.mayFork = true;
        rules.executable = {QStringLiteral("/usr/bin/true")};
    }
    return rules;
}

/// Opened and closed again.
long opened(int fd)
{
    return fd < 0 ? -1 : ::close(fd);
}

/// The status with which a started process ended, when it could be started.
long started(const char *program)
{
    pid_t pid = 0;
    char *const arguments[] = {const_cast<char *>(program), nullptr};
    if (const int error = ::posix_spawn(&pid, program, nullptr, nullptr, arguments, environ); error != 0) {
        errno = error;
        return -1;
    }
    int status = 0;
    return ::waitpid(pid, &status, 0) == pid ? WEXITSTATUS(status) : -1;
}

long connected(int family, const sockaddr *address, socklen_t size)
{
    const LXFileDescriptor socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return socket.isOpen() ? ::connect(socket.get(), address, size) : -1;
}

long byThread()
{
    long result = -1;
    std::thread([&] { result = 0; }).join();
    return result;
}

std::vector<Attempt> attempts(const std::string &allowed, const std::string &other, int archive, int folder,
                              int parentLink)
{
    static std::string inside, outside, made, bus, self;
    inside = allowed + "/existing";
    outside = other + "/existing";
    made = allowed + "/made";
    bus = other + "/bus";
    self = "/proc/self/fd/" + std::to_string(archive);
    const pid_t parent = ::getppid();
    return
    {
        // What a reader needs
        {"read a descriptor",
         [=] {
             char c;
             return ::pread(archive, &c, 1, 0) - 1;
         }},
            {"write a descriptor", [=] { return ::write(parentLink, "", 0); }}, {"thread", byThread},
            {"memory",
             [] {
                 const LXFileDescriptor f(::memfd_create("m", MFD_CLOEXEC));
                 return f.isOpen() ? ::ftruncate(f.get(), 4096) : -1L;
             }},
            {"status of a descriptor",
             [=] {
                 struct stat s;
                 return ::fstat(archive, &s);
             }},
            {"signal to itself", [] { return ::raise(0); }},
            {"own limit",
             [] {
                 const rlimit l{0, 0};
                 return ::setrlimit(RLIMIT_CORE, &l);
             }},
            // Files
            {"read inside", [] { return opened(::open(inside.c_str(), O_RDONLY)); }},
            {"read outside", [] { return opened(::open(outside.c_str(), O_RDONLY)); }},
            {"path outside", [] { return opened(::open(outside.c_str(), O_PATH)); }},
            {"write inside", [] { return opened(::open(made.c_str(), O_WRONLY | O_CREAT, 0600)); }},
            {"write outside", [] { return opened(::open(outside.c_str(), O_WRONLY)); }},
            {"create outside",
             [=] { return opened(::open((other + "/new").c_str(), O_WRONLY | O_CREAT, 0600)); }},
            {"create by openat2",
             [=] {
                 const std::uint64_t how[3] = {O_WRONLY | O_CREAT, 0600, 0};
                 return opened(static_cast<int>(::syscall(SYS_openat2, folder, "new", how, sizeof how)));
             }},
            {"create beneath a folder's descriptor",
             [=] { return opened(::openat(folder, "new", O_WRONLY | O_CREAT, 0600)); }},
            {"write through /proc/self/fd", [] { return opened(::open(self.c_str(), O_WRONLY)); }},
            {"truncate outside", [] { return ::truncate(outside.c_str(), 4); }},
            {"remove outside", [=] { return ::unlink((other + "/victim").c_str()); }},
            {"link outside", [=] { return ::link(outside.c_str(), (other + "/link").c_str()); }},
            {"folder outside", [=] { return ::mkdir((other + "/folder").c_str(), 0700); }},
            {"fifo inside", [=] { return ::mkfifo((allowed + "/fifo").c_str(), 0600); }},
            {"status outside", [] { return ::access(outside.c_str(), F_OK); }},
            {"enter outside", [=] { return ::chdir(other.c_str()); }},
            // Modes and times
            {"chmod outside", [] { return ::chmod(outside.c_str(), 0600); }},
            {"chmod of a descriptor", [=] { return ::fchmod(archive, 0600); }},
            {"fchmodat2", [] { return ::syscall(452, AT_FDCWD, outside.c_str(), 0600, 0); }},
            {"chown outside", [] { return ::lchown(outside.c_str(), ::getuid(), ::getgid()); }},
            {"times outside", [] { return ::utimensat(AT_FDCWD, outside.c_str(), nullptr, 0); }},
            {"times of a descriptor", [=] { return ::futimens(archive, nullptr); }},
            {"attribute outside", [] { return ::setxattr(outside.c_str(), "user.x", "x", 1, 0); }},
            {"attribute of a descriptor", [=] { return ::fremovexattr(archive, "user.nothing"); }},
            // Others
            {"session bus",
             [] {
                 sockaddr_un a{AF_UNIX, {}};
                 std::strncpy(a.sun_path, bus.c_str(), sizeof a.sun_path - 1);
                 return connected(AF_UNIX, reinterpret_cast<const sockaddr *>(&a), sizeof a);
             }},
            {"tcp",
             [] {
                 sockaddr_in a{};
                 a.sin_family = AF_INET;
                 a.sin_port = htons(9);
                 a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
                 return connected(AF_INET, reinterpret_cast<const sockaddr *>(&a), sizeof a);
             }},
            {"udp", [] { return opened(::socket(AF_INET, SOCK_DGRAM, 0)); }},
            {"pair of sockets",
             [] {
                 int p[2];
                 return ::socketpair(AF_UNIX, SOCK_DGRAM, 0, p);
             }},
            {"signal to the parent", [=] { return ::kill(parent, 0); }},
            {"signal to the group", [] { return ::kill(0, 0); }},
            {"signal to a thread elsewhere", [=] { return ::syscall(SYS_tkill, parent, 0); }},
            {"signal by a descriptor", [=] { return ::fcntl(parentLink, F_SETOWN, parent); }},
            {"limit of the parent",
             [=] {
                 const rlimit l{1, 1};
                 return ::prlimit(parent, RLIMIT_CPU, nullptr, nullptr) + 0 * l.rlim_cur;
             }},
            {"trace the parent", [=] { return ::ptrace(PTRACE_SEIZE, parent, nullptr, nullptr); }},
            {"memory of the parent",
             [=] {
                 char c;
                 iovec l{&c, 1};
                 iovec r{&c, 1};
                 return ::process_vm_readv(parent, &l, 1, &r, 1, 0);
             }},
            {"outlive the parent", [] { return ::prctl(PR_SET_PDEATHSIG, 0); }},
            {"session of its own", [] { return ::syscall(SYS_setsid); }},
            {"type into the terminal", [=] { return ::ioctl(parentLink, TIOCSTI, "x"); }},
            // Programs
            {"start /usr/bin/true", [] { return started("/usr/bin/true"); }},
            {"start /usr/bin/id", [] { return started("/usr/bin/id"); }},
            {"start from memory",
             [] {
                 const LXFileDescriptor f(::memfd_create("m", 0));
                 char *const none[] = {nullptr};
                 return f.isOpen() ? ::syscall(SYS_execveat, f.get(), "", none, none, AT_EMPTY_PATH) : -1L;
             }},
            {"namespace", [] { return ::unshare(CLONE_NEWUSER); }},
            // The kernel
            {"clone3", [] { return ::syscall(SYS_clone3, nullptr, 0); }},
            {"io_uring", [] { return ::syscall(SYS_io_uring_setup, 1, nullptr); }},
            {"bpf", [] { return ::syscall(SYS_bpf, 0, nullptr, 0); }},
            {"keys", [] { return ::syscall(SYS_keyctl, 0, -3, 0); }},
            {"mount", [] { return ::syscall(SYS_mount, nullptr, nullptr, nullptr, 0, nullptr); }},
            {"shared memory", [] { return ::syscall(SYS_shmget, 0, 4096, 01600); }},
            {"unknown call", [] { return ::syscall(500); }},
#if defined(__x86_64__)
            {"x32", [] { return ::syscall(0x40000000 + SYS_getpid); }},
            {"32 bits", [] {
                 long r = 20 /* getpid */;
                 asm volatile("int $0x80" : "+a"(r) : : "memory", "cc", "r8", "r9", "r10", "r11");
                 if (r < 0) {
                     errno = static_cast<int>(-r);
                     return -1L;
                 }
                 return 0L;
             }},
#endif
    };
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 5)
        return 2;
    const std::string allowed = argv[3];
    const std::string other = argv[4];
    const int archive = ::open((other + "/existing").c_str(), O_RDONLY | O_CLOEXEC);
    const int folder = ::open(other.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    LXConfinementRules rules = rulesNamed(argv[1], QString::fromStdString(allowed));
    rules.newestLandlock = std::atoi(argv[2]);
    const auto result = LXConfinement::confineThisProcess(rules);
    if (archive < 0 || folder < 0 || !result || result.value().landlock > rules.newestLandlock)
        return 3;
    std::printf("landlock\t%d\nfilter\t%d\n", result.value().landlock, result.value().systemCallFilter);
    for (const Attempt &attempt : attempts(allowed, other, archive, folder, 1)) {
        errno = 0;
        const long value = attempt.run();
        std::printf("%s\t%d\n", attempt.name, value < 0 ? errno : value == 0 ? 0 : -1);
        std::fflush(stdout); // the next attempt may end us
    }
    return 0;
}
