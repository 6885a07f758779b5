#include "archives/reading/cage/CVCageServer.h"

#include "archives/reading/CVReadingEngine.h"
#include "archives/reading/cage/CVCageMessages.h"
#include "archives/reading/cage/CVCageReader.h"
#include "util/LXConfinement.h"

#include <QLoggingCategory>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <ctime>
#include <map>

#include <fcntl.h>
#include <iconv.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define CORVANE_SANITIZED_READER 1
#endif

Q_LOGGING_CATEGORY(lcCage, "corvane.reading.cage", QtWarningMsg)

namespace {

// Every reader gets its descriptors under these numbers, whatever is open in the server.
constexpr int conversationDescriptor = 3;

/// The largest dictionaries of the usual formats take 1.5 GiB.
constexpr rlim_t leastMemory = rlim_t(2) << 30;
/// Nothing that reads archives can use more.
constexpr rlim_t mostMemory = rlim_t(16) << 30;

void limit(__rlimit_resource what, rlim_t soft)
{
    const rlimit value{soft, soft};
    ::setrlimit(what, &value);
}

void limitResources()
{
    limit(RLIMIT_CORE, 0);                             // it may know a password
    limit(RLIMIT_FSIZE, rlim_t(CVCage::maxListBytes)); // lists are all that it writes
    ::signal(SIGXFSZ, SIG_IGN);
#ifndef CORVANE_SANITIZED_READER
    // An archive that asks for all the memory fails alone, before others are ended for it. Addresses that are
    // only set aside count too, so there is a quarter for them.
    struct sysinfo machine = {};
    ::sysinfo(&machine);
    limit(RLIMIT_AS,
          std::clamp(rlim_t(machine.totalram) * machine.mem_unit / 4 * 3, leastMemory, mostMemory));
#endif
    rlimit files = {};
    if (::getrlimit(RLIMIT_NOFILE, &files) == 0) { // sets have many volumes
        files.rlim_cur = files.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &files);
    }
}

/// Where memory runs out for all, readers go before the person's other programs.
void goFirst()
{
    const LXFileDescriptor score(::open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC));
    if (score.isOpen() && ::write(score.get(), "500", 3) != 3)
        qCInfo(lcCage) << "the score of this process stays";
}

/// Whatever is loaded at the first use cannot be loaded in a reader any more.
void loadEverything()
{
    ::tzset();
    ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    // What libarchive converts names from; each stays loaded while somebody has it open.
    for (const char *charset : {"CP932", "CP437", "CP1252", "UTF-16LE", "UTF-16BE"})
        (void)::iconv_open("UTF-8", charset);
    for (const CVEngineDescriptor &engine : cvReadingEngines())
        (void)engine.bid({QStringLiteral("none"), QByteArray(16, '\0'), QByteArray(16, '\0'), 16});
}

/// In the forked child, from its first instruction to its end.
[[noreturn]] void beReader(int conversation, const LXConfinement &confinement, const sigset_t &mask,
                           pid_t server)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != server)
        ::_exit(0);
    ::sigprocmask(SIG_SETMASK, &mask, nullptr);
    ::prctl(PR_SET_DUMPABLE, 0); // nor can others of the person look into it
    limitResources();
    if (!confinement.apply())
        ::_exit(1);
    // Nothing of the server and of other readers stays open.
    if (::dup2(conversation, conversationDescriptor) < 0 ||
        ::syscall(SYS_close_range, conversationDescriptor + 1, ~0U, 0) != 0)
        ::_exit(1);
    ::fcntl(conversationDescriptor, F_SETFD, FD_CLOEXEC);
    cvReadOneArchive(CVCageSocket(LXFileDescriptor(conversationDescriptor)));
    ::_exit(0);
}

} // namespace

int cvServeReaders(CVCageSocket requests)
{
    goFirst();
    loadEverything();
    const LXResult<LXConfinement> confinement = LXConfinement::prepare(LXConfinementRules{});
    if (!confinement) {
        qCCritical(lcCage) << confinement.error().reason;
        return 1;
    }

    sigset_t children;
    sigset_t before;
    ::sigemptyset(&children);
    ::sigaddset(&children, SIGCHLD);
    ::sigprocmask(SIG_BLOCK, &children, &before);
    const LXFileDescriptor ends(::signalfd(-1, &children, SFD_CLOEXEC | SFD_NONBLOCK));
    const pid_t server = ::getpid();
    std::map<pid_t, CVCageSocket> news;
    for (;;) {
        pollfd waiting[] = {{requests.fd(), POLLIN, 0}, {ends.get(), POLLIN, 0}};
        if (::poll(waiting, 2, -1) < 0 && errno != EINTR)
            return 1;
        if (waiting[1].revents) {
            signalfd_siginfo info;
            while (::read(ends.get(), &info, sizeof info) > 0) {
            }
            int status = 0;
            for (pid_t ended = 0; (ended = ::waitpid(-1, &status, WNOHANG)) > 0;) {
                const CVCageServer::Ended end{status};
                if (const auto it = news.find(ended); it != news.end()) {
                    it->second.send({reinterpret_cast<const char *>(&end), sizeof end}, {},
                                    CVCageSocket::Wait::Never);
                    news.erase(it);
                }
            }
        }
        if (!waiting[0].revents)
            continue;
        QByteArray message;
        std::vector<LXFileDescriptor> descriptors;
        if (requests.receive(message, &descriptors) != CVCageSocket::Got::Message)
            return 0;
        if (descriptors.size() != 2)
            continue;
        const pid_t child = ::fork();
        if (child == 0)
            beReader(descriptors[0].get(), confinement.value(), before, server);
        CVCageSocket about(std::move(descriptors[1]));
        if (child < 0)
            continue; // both ends close, which says it
        const LXFileDescriptor process(int(::syscall(SYS_pidfd_open, child, 0)));
        const CVCageServer::Started started{child};
        const int handle = process.get();
        about.send({reinterpret_cast<const char *>(&started), sizeof started},
                   {&handle, process.isOpen() ? std::size_t(1) : std::size_t(0)}, CVCageSocket::Wait::Never);
        news.emplace(child, std::move(about));
    }
}
