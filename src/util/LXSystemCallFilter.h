#pragma once

#include <optional>
#include <vector>

#include <linux/filter.h>
#include <sys/types.h>

struct LXConfinementRules;

/// The kernel's filter of system calls (seccomp), for what Landlock does not cover, and for all that matters
/// most where there is no Landlock.
///
/// It refuses what is dangerous and never ends the process: a refused call answers EPERM, or EACCES where it
/// would open or look at a path, and what no program may know of (other architectures, calls newer than this
/// list, clone3, io_uring) answers ENOSYS, for which every library has another way.
/// It cannot see paths: with files to open, only Landlock says which. fstat() and a look at a path by
/// AT_EMPTY_PATH are the same call to it, so even a process without paths can learn that a path exists.
class LXSystemCallFilter
{
public:
    /// Whose signals to itself pass, and which program may still be started.
    struct Process
    {
        pid_t own = 0;                 ///< 0: not known yet
        bool isScoped = false;         ///< Landlock keeps its signals to those that it started
        const char *program = nullptr; ///< the address of the path with which execve is called once
    };

    static bool isAvailable();

    /// Nothing when the library cannot make one for this machine.
    static std::optional<LXSystemCallFilter> prepared(const LXConfinementRules &rules, Process process);

    /// Puts the calling thread, or every thread of the process, under the filter. Safe in a signal handler.
    /// Needs "no new privileges". False with errno.
    enum class Reach { Thread, Process };
    bool enter(Reach reach) const noexcept;

private:
    std::vector<sock_filter> m_instructions;
};
