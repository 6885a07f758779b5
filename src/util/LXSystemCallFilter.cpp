#include "util/LXSystemCallFilter.h"

#include "util/LXConfinement.h"
#include "util/LXFileDescriptor.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <initializer_list>
#include <memory>

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/seccomp.h>
#include <linux/sockios.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace {

/// Numbers of calls are the same on all machines from 424 on. Later ones (the first: cachestat, then
/// fchmodat2 and setxattrat, which do by path what is refused below) are not known to exist.
constexpr std::uint32_t newestKnownCall = 450;

struct FilterRelease
{
    void operator()(void *filter) const noexcept { ::seccomp_release(filter); }
};
using Filter = std::unique_ptr<void, FilterRelease>;
using Names = std::initializer_list<const char *>;

// Nobody who reads, writes or converts files has a use for these.
constexpr const char *never[] = {
    // other processes: their memory, descriptors, priority and signals
    "ptrace", "process_vm_readv", "process_vm_writev", "process_madvise", "process_mrelease", "pidfd_getfd",
    "pidfd_send_signal", "rt_sigqueueinfo", "rt_tgsigqueueinfo", "tkill", "kcmp", "move_pages",
    "migrate_pages", "perf_event_open",
    // out of the group that is ended as one
    "setsid", "setpgid",
    // shared with other programs by name
    "shmget", "shmat", "shmctl", "semget", "semop", "semtimedop", "semctl", "msgget", "msgsnd", "msgrcv",
    "msgctl", "mq_open", "mq_unlink", "add_key", "keyctl", "request_key",
    // the view of files
    "mount", "umount", "umount2", "move_mount", "open_tree", "mount_setattr", "fsopen", "fsconfig", "fsmount",
    "fspick", "pivot_root", "chroot", "setns", "unshare", "name_to_handle_at", "open_by_handle_at",
    "fanotify_init", "fanotify_mark", "quotactl", "quotactl_fd", "swapon", "swapoff", "mknod", "mknodat",
    // the machine
    "bpf", "userfaultfd", "memfd_secret", "modify_ldt", "vmsplice", "remap_file_pages", "uselib", "vhangup",
    "iopl", "ioperm", "init_module", "finit_module", "delete_module", "kexec_load", "kexec_file_load",
    "reboot", "acct", "syslog", "settimeofday", "clock_settime", "clock_adjtime", "adjtimex", "sethostname",
    "setdomainname", "nfsservctl", "lookup_dcookie",
    // by path, where a descriptor does; the first is beyond Landlock before version 3
    "truncate", "truncate64", "setxattr", "lsetxattr", "removexattr", "lremovexattr"};

constexpr const char *opening[] = {"open",     "openat", "openat2",  "creat",    "mkdir",     "mkdirat",
                                   "rmdir",    "link",   "linkat",   "symlink",  "symlinkat", "unlink",
                                   "unlinkat", "rename", "renameat", "renameat2"};
constexpr const char *looking[] = {"stat",      "stat64",           "lstat",     "lstat64",    "access",
                                   "faccessat", "faccessat2",       "readlink",  "readlinkat", "statfs",
                                   "statfs64",  "getxattr",         "lgetxattr", "listxattr",  "llistxattr",
                                   "chdir",     "inotify_add_watch"};
constexpr const char *changingByPath[] = {"chmod",    "fchmodat", "chown",  "lchown",
                                          "fchownat", "utime",    "utimes", "futimesat"};
constexpr const char *changingByDescriptor[] = {"fchmod", "fchown", "fsetxattr", "fremovexattr"};
constexpr const char *reachingOut[] = {"socket", "socketpair", "connect", "bind",
                                       "listen", "accept",     "accept4"};

/// Collects the rules; remembers whether one could not be made.
class Refusals
{
public:
    explicit Refusals(void *filter)
        : m_filter(filter)
    {}

    template <typename List> void all(const List &names, int error)
    {
        for (const char *name : names)
            add(name, error, nullptr, 0);
    }

    /// Where the comparison holds.
    void where(const char *name, scmp_arg_cmp comparison, int error = EPERM)
    {
        add(name, error, &comparison, 1);
    }

    /// For a parameter of type int, of which the kernel reads the lower half alone.
    void whereInt(const char *name, unsigned argument, std::uint32_t value, int error = EPERM)
    {
        where(name, SCMP_CMP64(argument, SCMP_CMP_MASKED_EQ, 0xffffffffU, value), error);
    }

    bool areComplete() const { return m_complete; }

private:
    void add(const char *name, int error, const scmp_arg_cmp *comparison, unsigned count)
    {
        const int number = ::seccomp_syscall_resolve_name(name);
        if (number < 0)
            return; // this machine has no such call
        if (::seccomp_rule_add_array(m_filter, SCMP_ACT_ERRNO(static_cast<std::uint32_t>(error)), number,
                                     count, comparison) != 0)
            m_complete = false;
    }

    void *m_filter;
    bool m_complete = true;
};

void refuseOtherProcesses(Refusals &refuse, const LXConfinementRules &rules,
                          LXSystemCallFilter::Process process)
{
    if (const pid_t own = process.own; own > 0) {
        refuse.where("kill", SCMP_CMP64(0, SCMP_CMP_NE, static_cast<scmp_datum_t>(own)));
        refuse.where("tgkill", SCMP_CMP64(0, SCMP_CMP_NE, static_cast<scmp_datum_t>(own)));
    } else if (!rules.mayFork || !process.isScoped) {
        refuse.all(Names{"kill", "tgkill"}, EPERM);
    }
    // A descriptor that is ready can be told to signal somebody, by any signal.
    for (const std::uint32_t command : {F_SETOWN, 15 /* F_SETOWN_EX */, 10 /* F_SETSIG */})
        for (const char *name : {"fcntl", "fcntl64"})
            refuse.whereInt(name, 1, command);
    for (const unsigned long request : {FIOSETOWN, SIOCSPGRP})
        refuse.whereInt("ioctl", 1, static_cast<std::uint32_t>(request));
    // Somebody else's limits, processors and priority: a limit on processor time kills.
    for (const char *name :
         {"prlimit64", "sched_setaffinity", "sched_setparam", "sched_setscheduler", "sched_setattr"})
        refuse.where(name, SCMP_CMP64(0, SCMP_CMP_NE, 0));
    for (const char *name : {"setpriority", "ioprio_set"})
        refuse.where(name, SCMP_CMP64(1, SCMP_CMP_NE, 0));
    // Typing into the terminal that we were started from.
    for (const unsigned long request : {static_cast<unsigned long>(TIOCSTI), 0x541cUL /* TIOCLINUX */})
        refuse.whereInt("ioctl", 1, static_cast<std::uint32_t>(request));
    // Its death with ours is not its own to undo.
    if (!rules.mayFork)
        refuse.whereInt("prctl", 0, PR_SET_PDEATHSIG);
}

void refuseProcesses(Refusals &refuse, const LXConfinementRules &rules, const char *program)
{
    // Its flags stand in memory, where no filter can look. Threads fall back to clone.
    refuse.all(Names{"clone3"}, ENOSYS);
#if defined(__s390__)
    constexpr unsigned flags = 1;
#else
    constexpr unsigned flags = 0;
#endif
    constexpr std::uint64_t newNamespaces[] = {CLONE_NEWNS,   CLONE_NEWCGROUP, CLONE_NEWUTS, CLONE_NEWIPC,
                                               CLONE_NEWUSER, CLONE_NEWPID,    CLONE_NEWNET};
    for (const std::uint64_t bit : newNamespaces)
        refuse.where("clone", SCMP_CMP64(flags, SCMP_CMP_MASKED_EQ, bit, bit));
    if (!rules.mayFork) {
        refuse.all(Names{"fork", "vfork"}, EPERM);
        refuse.where("clone", SCMP_CMP64(flags, SCMP_CMP_MASKED_EQ, CLONE_THREAD, 0));
    }
    if (rules.executable.isEmpty()) {
        // The one start of a child's own program is known by where its path stands in the memory of the
        // process that is about to become it.
        if (program)
            refuse.where("execve", SCMP_CMP64(0, SCMP_CMP_NE, reinterpret_cast<std::uintptr_t>(program)));
        else
            refuse.all(Names{"execve"}, EPERM);
    } else {
        refuse.all(Names{"memfd_create"}, EPERM); // no path, so no rule for paths would reach what is in it
    }
    refuse.all(Names{"execveat"}, EPERM);
}

void refuseFiles(Refusals &refuse, const LXConfinementRules &rules)
{
    using Changes = LXConfinementRules::Changes;
    if (!rules.opensFiles()) {
        refuse.all(opening, EACCES);
        refuse.all(looking, EACCES);
        for (const char *name : {"newfstatat", "fstatat64"})
            refuse.where(name, SCMP_CMP64(3, SCMP_CMP_MASKED_EQ, AT_EMPTY_PATH, 0), EACCES);
        refuse.where("statx", SCMP_CMP64(2, SCMP_CMP_MASKED_EQ, AT_EMPTY_PATH, 0), EACCES);
    }
    if (rules.changes != Changes::ByPath)
        refuse.all(changingByPath, EPERM);
    // Without a path it changes what the descriptor stands for.
    for (const char *name : {"utimensat", "utimensat_time64"}) {
        if (rules.changes == Changes::None)
            refuse.all(Names{name}, EPERM);
        else if (rules.changes == Changes::ByDescriptor)
            refuse.where(name, SCMP_CMP64(1, SCMP_CMP_NE, 0));
    }
    if (rules.changes == Changes::None) {
        // A descriptor for reading is enough for each of them.
        refuse.all(changingByDescriptor, EPERM);
        for (const unsigned long request : {FS_IOC_SETFLAGS, FS_IOC_FSSETXATTR})
            refuse.whereInt("ioctl", 1, static_cast<std::uint32_t>(request));
    }
}

/// The instructions of a filter. The library gives them to descriptors alone.
std::vector<sock_filter> exported(void *filter)
{
    const LXFileDescriptor memory(::memfd_create("filter", MFD_CLOEXEC));
    struct stat status
    {};
    if (!memory.isOpen() || ::seccomp_export_bpf(filter, memory.get()) != 0 ||
        ::fstat(memory.get(), &status) != 0)
        return {};
    std::vector<sock_filter> result(static_cast<std::size_t>(status.st_size) / sizeof(sock_filter));
    if (::pread(memory.get(), result.data(), static_cast<std::size_t>(status.st_size), 0) != status.st_size)
        return {};
    return result;
}

} // namespace

bool LXSystemCallFilter::isAvailable()
{
    static const bool available = [] {
        std::uint32_t action = SECCOMP_RET_ERRNO;
        return ::syscall(SYS_seccomp, SECCOMP_GET_ACTION_AVAIL, 0, &action) == 0;
    }();
    return available;
}

std::optional<LXSystemCallFilter> LXSystemCallFilter::prepared(const LXConfinementRules &rules,
                                                               Process process)
{
    const Filter filter(::seccomp_init(SCMP_ACT_ALLOW));
    if (!filter || ::seccomp_attr_set(filter.get(), SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_ERRNO(ENOSYS)) != 0)
        return std::nullopt;
    Refusals refuse(filter.get());
    refuse.all(never, EPERM);
    refuse.all(Names{"io_uring_setup", "io_uring_enter", "io_uring_register"}, ENOSYS);
    refuse.where("personality", SCMP_CMP64(0, SCMP_CMP_NE, 0xffffffffU)); // asking is allowed
    refuseOtherProcesses(refuse, rules, process);
    refuseProcesses(refuse, rules, process.program);
    refuseFiles(refuse, rules);
    if (!rules.mayUseSockets) {
        refuse.all(reachingOut, EPERM);
        refuse.where("sendto", SCMP_CMP64(4, SCMP_CMP_NE, 0)); // to somebody else than the other end
    }
    if (!refuse.areComplete())
        return std::nullopt;
    const std::vector<sock_filter> instructions = exported(filter.get());
    if (instructions.empty())
        return std::nullopt;
    LXSystemCallFilter result;
    result.m_instructions = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, newestKnownCall, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
    };
    result.m_instructions.insert(result.m_instructions.end(), instructions.begin(), instructions.end());
    return result;
}

bool LXSystemCallFilter::enter(Reach reach) const noexcept
{
    sock_fprog program{};
    program.len = static_cast<unsigned short>(m_instructions.size());
    program.filter = const_cast<sock_filter *>(m_instructions.data());
    const unsigned flags = reach == Reach::Process ? SECCOMP_FILTER_FLAG_TSYNC : 0;
    const long result = ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, flags, &program);
    if (result > 0)
        errno = ESRCH; // a thread that has another filter
    return result == 0;
}
