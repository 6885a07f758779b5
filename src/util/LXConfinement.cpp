#include "util/LXConfinement.h"

#include "util/LXFileName.h"
#include "util/LXLandlock.h"

#include <QCoreApplication>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/prctl.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

/// Whether the kernel, or who runs the container, simply does not let us have it.
bool isNotOffered(int error)
{
    return error == ENOSYS || error == EINVAL || error == EPERM || error == EACCES || error == EOPNOTSUPP;
}

LXError failure(int code)
{
    return {QString::fromLatin1(LXConfinement::errorDomain), code,
            QCoreApplication::translate("LXConfinement", "The process could not be confined."),
            QString::fromLocal8Bit(std::strerror(code)), QString()};
}

} // namespace

bool LXConfinementRules::opensFiles() const
{
    return !readable.isEmpty() || !writable.isEmpty() || !executable.isEmpty() ||
           !readableDescriptors.isEmpty() || !writableDescriptors.isEmpty();
}

LXProtection LXConfinement::available()
{
    return {LXLandlock::version(), LXSystemCallFilter::isAvailable()};
}

QString LXConfinement::description(const LXProtection &protection)
{
    const auto text = [](const char *source) { return QCoreApplication::translate("LXConfinement", source); };
    if (protection.landlock > 0 && protection.systemCallFilter)
        return text("Decoders and tools are confined by Landlock (version %1) and by a filter of system "
                    "calls (seccomp).")
            .arg(protection.landlock);
    if (protection.landlock > 0)
        return text("Decoders and tools are confined by Landlock (version %1) alone; this system offers no "
                    "filter of system calls (seccomp).")
            .arg(protection.landlock);
    if (protection.systemCallFilter)
        return text("Decoders and tools are confined by a filter of system calls (seccomp) alone; this "
                    "system offers no Landlock.");
    return text("Decoders and tools are not confined: this system offers neither Landlock nor a filter of "
                "system calls (seccomp).");
}

LXResult<LXProtection> LXConfinement::confineThisProcess(const LXConfinementRules &rules)
{
#if defined(__SANITIZE_ADDRESS__)
    __lsan_do_leak_check(); // it traces this process; the check at the end does not come any more
#endif
    LXConfinement confinement;
    confinement.m_ruleset = LXLandlock::prepared(rules);
    confinement.m_landlock = std::min(LXLandlock::version(), rules.newestLandlock);
    confinement.m_filter =
        LXSystemCallFilter::prepared(rules, {.own = ::getpid(), .isScoped = false, .program = nullptr});
    if (!confinement.m_filter)
        return failure(ENOTSUP);
    LXProtection protection;
    if (!confinement.apply(LXSystemCallFilter::Reach::Process, protection))
        return failure(errno);
    return protection;
}

LXResult<LXConfinement> LXConfinement::prepare(LXConfinementRules rules, const char *program)
{
    const bool startsOthers = !rules.executable.isEmpty();
    LXConfinementRules forFiles = rules;
    forFiles.executable += fileNameFromBytes(program);
    LXConfinement result;
    result.m_ruleset = LXLandlock::prepared(forFiles);
    result.m_landlock = std::min(LXLandlock::version(), rules.newestLandlock);
    // A program opens its libraries, whatever the rules have for it.
    rules.readable += fileNameFromBytes(program);
    result.m_filter = LXSystemCallFilter::prepared(
        rules, {.own = 0,
                .isScoped = result.m_ruleset.isOpen() && result.m_landlock >= LXLandlock::scopesSignals,
                .program = startsOthers ? nullptr : program});
    if (!result.m_filter)
        return failure(ENOTSUP);
    return result;
}

LXResult<LXConfinement> LXConfinement::prepare(const LXConfinementRules &rules)
{
    LXConfinement result;
    result.m_ruleset = LXLandlock::prepared(rules);
    result.m_landlock = std::min(LXLandlock::version(), rules.newestLandlock);
    result.m_filter = LXSystemCallFilter::prepared(rules, {.own = 0, .program = nullptr});
    if (!result.m_filter)
        return failure(ENOTSUP);
    return result;
}

bool LXConfinement::apply() const noexcept
{
    LXProtection protection;
    return apply(LXSystemCallFilter::Reach::Thread, protection);
}

bool LXConfinement::apply(LXSystemCallFilter::Reach reach, LXProtection &protection) const noexcept
{
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        return false;
    if (m_ruleset.isOpen()) {
        if (LXLandlock::enter(m_ruleset.get(), m_landlock))
            protection.landlock = m_landlock;
        else if (!isNotOffered(errno))
            return false;
    }
    protection.systemCallFilter = m_filter->enter(reach);
    return protection.systemCallFilter || isNotOffered(errno);
}
