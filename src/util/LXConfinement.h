#pragma once

#include "util/LXFileDescriptor.h"
#include "util/LXResult.h"
#include "util/LXSystemCallFilter.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

/// What a process can still do once it is confined. Everything is off until it is granted; what it has open
/// already stays usable. Paths stand for a file, or for a folder and all beneath it.
struct LXConfinementRules
{
    QStringList readable = {};
    QStringList writable = {}; ///< make, write, move and remove; no devices, FIFOs or sockets. Not read
    QStringList executable =
        {}; ///< programs that it may start and read; what loads or interprets them is added
    /// The same for what is open: of ours, for a folder or file, O_PATH is enough.
    QList<int> readableDescriptors = {};
    QList<int> writableDescriptors = {};

    /// Modes, owners, times and attributes of files. Landlock has no word on them.
    enum class Changes {
        None,
        ByDescriptor, ///< of what it has open
        ByPath,       ///< modes, owners and times of every file of the person, wherever it is
    };
    Changes changes = Changes::None;
    bool mayFork = false; ///< threads are always allowed
    bool mayUseSockets = false;

    /// The newest version of Landlock to be made use of: tests stand in for an older kernel. 0: none.
    int newestLandlock = 7;

    /// Without anything to open, nothing can be looked at by path either.
    bool opensFiles() const;
};

/// What holds for a confined process.
struct LXProtection
{
    int landlock = 0; ///< the version; 0: none
    bool systemCallFilter = false;

    bool operator==(const LXProtection &) const = default;
};

/// Confines a process by Landlock and by a filter of system calls, for good, with all that it starts. Where
/// the kernel (or a container) has only one of the two, that one holds; where it has none, the process runs
/// as it is. Refused calls answer with an error; no process is ended.
class LXConfinement
{
public:
    /// What the kernel offers.
    static LXProtection available();

    /// The same in words for the person, a line without an end.
    static QString description(const LXProtection &protection = available());

    /// Confines this process, which can then signal nobody but itself. To be called in main, after libraries
    /// are loaded and before any thread: threads that run already get the filter, but not Landlock. Fails
    /// where the kernel has a protection and setting it up goes wrong; the process is to end then.
    /// In a build with the address sanitizer leaks are looked for here, because that cannot be done later.
    static LXResult<LXProtection> confineThisProcess(const LXConfinementRules &rules);

    /// The same for a child that applies it between fork and exec. `program` is the very pointer with which
    /// the child calls execve: without `executable` in the rules this start, by this address, is the only
    /// one that passes.
    static LXResult<LXConfinement> prepare(LXConfinementRules rules, const char *program);

    /// The same for a child that goes on without exec.
    static LXResult<LXConfinement> prepare(const LXConfinementRules &rules);

    /// In the child. Safe in a signal handler. False with errno.
    bool apply() const noexcept;

    static constexpr const char *errorDomain = "LXConfinement";

private:
    LXConfinement() = default;
    bool apply(LXSystemCallFilter::Reach reach, LXProtection &protection) const noexcept;

    LXFileDescriptor m_ruleset;
    int m_landlock = 0;
    std::optional<LXSystemCallFilter> m_filter;
};
