#include "util/LXLandlock.h"

#include "util/LXConfinement.h"
#include "util/LXFileName.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace {

// The kernel's numbers. The headers of the oldest system we build on stop before the later ones, and the
// calls have no wrapper in the C library.
constexpr long createRuleset = 444;
constexpr long addRule = 445;
constexpr long restrictSelf = 446;
constexpr unsigned versionFlag = 1;
constexpr unsigned withoutLogging = 1; // since version 7
constexpr int pathBeneath = 1;

constexpr std::uint64_t execute = 1U << 0;
constexpr std::uint64_t writeFile = 1U << 1;
constexpr std::uint64_t readFile = 1U << 2;
constexpr std::uint64_t readFolder = 1U << 3;
constexpr std::uint64_t removeFolder = 1U << 4;
constexpr std::uint64_t removeFile = 1U << 5;
constexpr std::uint64_t makeFolder = 1U << 7;
constexpr std::uint64_t makeFile = 1U << 8;
constexpr std::uint64_t makeLink = 1U << 12;
constexpr std::uint64_t allOfVersion1 = (1U << 13) - 1; // the above and devices, sockets, FIFOs
constexpr std::uint64_t moveAcross = 1U << 13;          // since version 2
constexpr std::uint64_t shorten = 1U << 14;             // since version 3
constexpr std::uint64_t controlDevice = 1U << 15;       // since version 5

constexpr std::uint64_t rightsOfFiles = execute | writeFile | readFile | shorten | controlDevice;
constexpr std::uint64_t reading = readFile | readFolder;
constexpr std::uint64_t writing =
    writeFile | removeFolder | removeFile | makeFolder | makeFile | makeLink | moveAcross | shorten;

struct RulesetAttributes
{
    std::uint64_t files = 0;
    std::uint64_t network = 0; // since version 4
    std::uint64_t scoped = 0;  // since version 6
};

struct [[gnu::packed]] BeneathAttributes
{
    std::uint64_t access;
    std::int32_t parent;
};

std::uint64_t filesHandled(int version)
{
    return allOfVersion1 | (version >= 2 ? moveAcross : 0) | (version >= 3 ? shorten : 0) |
           (version >= 5 ? controlDevice : 0);
}

LXFileDescriptor make(int version)
{
    constexpr std::uint64_t bindAndConnect = 3;
    constexpr std::uint64_t socketsAndSignals = 3;
    const RulesetAttributes attributes{filesHandled(version), bindAndConnect, socketsAndSignals};
    const std::size_t size = version >= 6   ? sizeof attributes
                             : version >= 4 ? offsetof(RulesetAttributes, scoped)
                                            : offsetof(RulesetAttributes, network);
    return LXFileDescriptor(static_cast<int>(::syscall(createRuleset, &attributes, size, 0)));
}

void allow(int ruleset, int target, std::uint64_t access)
{
    struct stat status
    {};
    if (::fstat(target, &status) != 0)
        return;
    if (!S_ISDIR(status.st_mode))
        access &= rightsOfFiles;
    if (S_ISCHR(status.st_mode) && (access & writeFile))
        access |= controlDevice; // a terminal that may be written to may be asked for its modes
    const BeneathAttributes rule{access, target};
    ::syscall(addRule, ruleset, pathBeneath, &rule, 0);
}

/// The loader that this program was started with, and so every other dynamic one of this system.
QString loader()
{
    QString path;
    ::dl_iterate_phdr(
        [](dl_phdr_info *object, std::size_t, void *result) {
            for (int i = 0; i < object->dlpi_phnum; ++i)
                if (const auto &header = object->dlpi_phdr[i]; header.p_type == PT_INTERP)
                    *static_cast<QString *>(result) =
                        fileNameFromBytes(reinterpret_cast<const char *>(object->dlpi_addr + header.p_vaddr));
            return 1; // the program itself is the first
        },
        &path);
    return path;
}

/// What a script names in its first line; empty for other programs.
QString interpreter(const QString &program)
{
    const LXFileDescriptor file(::open(bytesOfFileName(program).constData(), O_RDONLY | O_CLOEXEC));
    std::array<char, 256> start{};
    const ssize_t size = file.isOpen() ? ::read(file.get(), start.data(), start.size()) : -1;
    const QByteArray line = QByteArray(start.data(), std::max<ssize_t>(size, 0)).split('\n').first();
    return line.startsWith("#!") ? fileNameFromBytes(line.mid(2).trimmed().split(' ').first()) : QString();
}

} // namespace

int LXLandlock::version()
{
    static const int known = [] {
        const long version = ::syscall(createRuleset, nullptr, 0, versionFlag);
        if (version <= 0)
            return 0;
        // A container may name a version and refuse the rule set all the same.
        const int result = static_cast<int>(std::min<long>(version, newestKnown));
        return make(result).isOpen() ? result : 0;
    }();
    return known;
}

LXFileDescriptor LXLandlock::prepared(const LXConfinementRules &rules)
{
    const int used = std::min(version(), rules.newestLandlock);
    if (used <= 0)
        return LXFileDescriptor();
    LXFileDescriptor ruleset = make(used);
    if (!ruleset.isOpen())
        return ruleset;
    const std::uint64_t handled = filesHandled(used);
    const auto grantPaths = [&](const QStringList &paths, std::uint64_t access) {
        for (const QString &path : paths) {
            const LXFileDescriptor target(::open(bytesOfFileName(path).constData(), O_PATH | O_CLOEXEC));
            if (target.isOpen())
                allow(ruleset.get(), target.get(), access & handled);
        }
    };
    const auto grantDescriptors = [&](const QList<int> &descriptors, std::uint64_t access) {
        for (const int descriptor : descriptors)
            allow(ruleset.get(), descriptor, access & handled);
    };
    grantPaths(rules.readable, reading);
    grantPaths(rules.writable, writing);
    for (const QString &program : rules.executable)
        grantPaths({program, interpreter(program), loader()}, execute | readFile);
    grantDescriptors(rules.readableDescriptors, reading);
    grantDescriptors(rules.writableDescriptors, writing);
    if (rules.opensFiles()) // programs write to it as a matter of course
        grantPaths({QStringLiteral("/dev/null")}, readFile | writeFile | shorten);
    return ruleset;
}

bool LXLandlock::enter(int ruleset, int version) noexcept
{
    return ::syscall(restrictSelf, ruleset, version >= 7 ? withoutLogging : 0) == 0;
}
