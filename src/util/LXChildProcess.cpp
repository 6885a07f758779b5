#include "util/LXChildProcess.h"

#include "util/LXFileName.h"

#include <QCoreApplication>
#include <QProcessEnvironment>
#include <QStandardPaths>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>

namespace {

using namespace std::chrono_literals;

constexpr auto terminationGrace = 200ms;
constexpr qsizetype chunkBytes = 64 * 1024;
constexpr qsizetype keptBytes = 1024 * 1024;

LXError failure(int code, const QString &program, const QString &what)
{
    return {QString::fromLatin1(LXChildProcess::errorDomain), code,
            QCoreApplication::translate("LXChildProcess", "“%1” could not be started.").arg(program),
            QStringLiteral("%1: %2").arg(what, QString::fromLocal8Bit(std::strerror(code))), QString()};
}

/// A copy of the descriptor above the standard ones, so that putting streams in their places in the
/// child can never overwrite one that is still needed.
LXFileDescriptor raised(LXFileDescriptor fd)
{
    if (!fd.isOpen() || fd.get() > 2)
        return fd;
    return LXFileDescriptor(::fcntl(fd.get(), F_DUPFD_CLOEXEC, 3));
}

struct Pipe
{
    LXFileDescriptor reading;
    LXFileDescriptor writing;
};

bool makePipe(Pipe &pipe)
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return false;
    pipe.reading = raised(LXFileDescriptor(fds[0]));
    pipe.writing = raised(LXFileDescriptor(fds[1]));
    return pipe.reading.isOpen() && pipe.writing.isOpen();
}

bool setNonBlocking(int fd)
{
    const int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

/// A pseudo-terminal whose output is not rewritten and that echoes nothing, so what is read from it
/// is what the child printed and what is typed (a password) never comes back.
bool makeTerminal(Pipe &terminal)
{
    terminal.reading = raised(LXFileDescriptor(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)));
    char name[128];
    if (!terminal.reading.isOpen() || ::grantpt(terminal.reading.get()) != 0 ||
        ::unlockpt(terminal.reading.get()) != 0 ||
        ::ptsname_r(terminal.reading.get(), name, sizeof name) != 0)
        return false;
    terminal.writing = raised(LXFileDescriptor(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC)));
    termios modes{};
    if (!terminal.writing.isOpen() || ::tcgetattr(terminal.writing.get(), &modes) != 0)
        return false;
    modes.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    modes.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHOE | ECHOK | ECHONL);
    return ::tcsetattr(terminal.writing.get(), TCSANOW, &modes) == 0;
}

std::vector<QByteArray> environmentFor(const QMap<QString, QString> &own)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    // Options that would come on top of ours, and another language in spite of LC_ALL.
    for (const char *name : {"TAPE", "TAR_OPTIONS", "GZIP", "BZIP", "BZIP2", "LANGUAGE", "CORVANE_PASSWORD"})
        environment.remove(QString::fromLatin1(name));
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    if (!environment.contains(QStringLiteral("TZ")))
        environment.insert(QStringLiteral("TZ"), QStringLiteral(":/etc/localtime"));
#if defined(__SANITIZE_ADDRESS__)
    // Looking for leaks traces the process, which a confined one cannot do; the last option wins.
    environment.insert(QStringLiteral("ASAN_OPTIONS"),
                       environment.value(QStringLiteral("ASAN_OPTIONS")) + QStringLiteral(":detect_leaks=0"));
#endif
    for (auto it = own.begin(); it != own.end(); ++it)
        environment.insert(it.key(), it.value());
    std::vector<QByteArray> result;
    const QStringList names = environment.keys();
    result.reserve(static_cast<std::size_t>(names.size()));
    for (const QString &name : names)
        result.push_back(bytesOfFileName(name) + '=' + bytesOfFileName(environment.value(name)));
    return result;
}

std::vector<char *> pointers(std::vector<QByteArray> &strings)
{
    std::vector<char *> result;
    result.reserve(strings.size() + 1);
    for (QByteArray &string : strings)
        result.push_back(string.data());
    result.push_back(nullptr);
    return result;
}

/// Everything the child needs between fork and exec, made before, because after fork only calls that
/// are safe in a signal handler are allowed.
struct ChildSetup
{
    int input = -1;
    int output = -1;
    int error = -1;
    int terminal = -1;
    int leash = -1;
    int report = -1;
    const LXConfinement *confinement = nullptr;
    pid_t parent = 0;
    const char *folder = nullptr;
    const char *program = nullptr;
    char *const *arguments = nullptr;
    char *const *environment = nullptr;
    const int *inherited = nullptr;
    std::size_t inheritedCount = 0;
    LXChildLimits limits;
};

enum class Stage : int { Session, Streams, Folder, Limits, Confinement, Execute };

struct Report
{
    int error;
    Stage stage;
};

[[noreturn]] void giveUp(const ChildSetup &setup, Stage stage)
{
    const Report report{errno, stage};
    [[maybe_unused]] const auto n = ::write(setup.report, &report, sizeof report);
    ::_exit(127);
}

void limit(const ChildSetup &setup, __rlimit_resource_t which, qint64 value)
{
    if (value <= 0)
        return;
    const rlimit bound{static_cast<rlim_t>(value), static_cast<rlim_t>(value)};
    rlimit present{};
    if (::getrlimit(which, &present) == 0 && present.rlim_max != RLIM_INFINITY &&
        present.rlim_max < bound.rlim_max)
        return; // already narrower
    if (::setrlimit(which, &bound) != 0)
        giveUp(setup, Stage::Limits);
}

[[noreturn]] void runChild(const ChildSetup &setup)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != setup.parent)
        ::_exit(127); // we were gone before the line above took effect
    if (::setsid() < 0)
        giveUp(setup, Stage::Session);
    if (setup.terminal >= 0 && ::ioctl(setup.terminal, TIOCSCTTY, 0) != 0)
        giveUp(setup, Stage::Session);
    if (setup.leash >= 0)
        ::ioctl(setup.leash, TIOCSCTTY, 0);
    if (::dup2(setup.input, 0) < 0 || ::dup2(setup.output, 1) < 0 || ::dup2(setup.error, 2) < 0)
        giveUp(setup, Stage::Streams);
    if (setup.folder && ::chdir(setup.folder) != 0)
        giveUp(setup, Stage::Folder);

    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal)
        ::sigaction(signal, &standard, nullptr);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);

    limit(setup, RLIMIT_AS, setup.limits.addressSpaceBytes);
    limit(setup, RLIMIT_FSIZE, setup.limits.fileSizeBytes);
    limit(setup, RLIMIT_CPU, setup.limits.cpuSeconds);
    limit(setup, RLIMIT_NPROC, setup.limits.processes);
    const rlimit noCore{0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);

    // Marked instead of closed: the report below must still get out when exec fails.
    if (::syscall(SYS_close_range, 3U, ~0U, 4U /* CLOSE_RANGE_CLOEXEC */) != 0)
        for (int fd = 3; fd < 65536; ++fd)
            ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    for (std::size_t i = 0; i < setup.inheritedCount; ++i)
        ::fcntl(setup.inherited[i], F_SETFD, 0);
    if (setup.leash >= 0)
        ::fcntl(setup.leash, F_SETFD, 0);

    if (setup.confinement && !setup.confinement->apply())
        giveUp(setup, Stage::Confinement);
    ::execve(setup.program, setup.arguments, setup.environment);
    giveUp(setup, Stage::Execute);
}

QString stageText(Stage stage, const LXChildOptions &options)
{
    switch (stage) {
    case Stage::Session:
        return QStringLiteral("no session");
    case Stage::Streams:
        return QStringLiteral("no streams");
    case Stage::Folder:
        return options.workingFolder;
    case Stage::Limits:
        return QStringLiteral("limits");
    case Stage::Confinement:
        return QStringLiteral("confinement");
    case Stage::Execute:
        break;
    }
    return options.program;
}

/// Keeps a write to a broken pipe from ending our whole program, whatever the program's own handling
/// of the signal is, and takes back the signal that it raised.
class NoBrokenPipeSignal
{
public:
    NoBrokenPipeSignal()
    {
        ::sigemptyset(&m_pipe);
        ::sigaddset(&m_pipe, SIGPIPE);
        sigset_t pending;
        ::sigpending(&pending);
        m_wasPending = ::sigismember(&pending, SIGPIPE) == 1;
        ::pthread_sigmask(SIG_BLOCK, &m_pipe, &m_before);
    }
    ~NoBrokenPipeSignal()
    {
        if (!m_wasPending) {
            const timespec now{};
            while (::sigtimedwait(&m_pipe, nullptr, &now) < 0 && errno == EINTR) {
            }
        }
        ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }
    NoBrokenPipeSignal(const NoBrokenPipeSignal &) = delete;
    NoBrokenPipeSignal &operator=(const NoBrokenPipeSignal &) = delete;

private:
    sigset_t m_pipe{};
    sigset_t m_before{};
    bool m_wasPending = false;
};

} // namespace

struct LXChildProcess::Private
{
    pid_t pid = -1;
    LXFileDescriptor process; // readable when the child has ended
    LXFileDescriptor wake;    // an event counter: stop requests
    LXFileDescriptor poke;    // another: read() is to return once
    LXFileDescriptor leash;   // the other end of the terminal that holds the group together
    LXFileDescriptor input;
    LXFileDescriptor output;
    LXFileDescriptor error;
    bool inputIsTerminal = false;
    std::optional<Exit> exit;
    std::vector<Chunk> kept;
    qsizetype keptSize = 0;
    bool lostOutput = false;

    bool hasEnded() const
    {
        pollfd one{process.get(), POLLIN, 0};
        return ::poll(&one, 1, 0) > 0;
    }

    /// Whether the stream gave something into `chunk`. Ends the stream at its end.
    bool take(LXFileDescriptor &stream, Chunk::Kind kind, Chunk &chunk)
    {
        if (!stream.isOpen())
            return false;
        QByteArray buffer(chunkBytes, Qt::Uninitialized);
        ssize_t n;
        do {
            n = ::read(stream.get(), buffer.data(), static_cast<std::size_t>(buffer.size()));
        } while (n < 0 && errno == EINTR);
        if (n > 0) {
            buffer.truncate(n);
            chunk = {kind, std::move(buffer)};
            return true;
        }
        if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK))
            stream.reset(); // a terminal ends with EIO
        return false;
    }

    void keep(Chunk chunk)
    {
        if (keptSize + chunk.data.size() > keptBytes) {
            lostOutput = true;
            return;
        }
        keptSize += chunk.data.size();
        kept.push_back(std::move(chunk));
    }

    void reap()
    {
        if (exit)
            return;
        // The zombie still holds the group's number, so this reaches nobody else.
        ::kill(-pid, SIGKILL);
        int status = 0;
        pid_t got;
        do {
            got = ::waitpid(pid, &status, 0);
        } while (got < 0 && errno == EINTR);
        Exit result;
        if (got == pid && WIFEXITED(status))
            result = {true, WEXITSTATUS(status)};
        else if (got == pid && WIFSIGNALED(status))
            result = {false, WTERMSIG(status)};
        exit = result;
    }
};

LXChildProcess::LXChildProcess()
    : d(std::make_unique<Private>())
{}

LXResult<std::unique_ptr<LXChildProcess>> LXChildProcess::start(const LXChildOptions &options)
{
    using Stream = LXChildOptions::Stream;

    QString program = options.program;
    if (!program.contains(u'/'))
        program = QStandardPaths::findExecutable(program);
    if (program.isEmpty())
        return failure(ENOENT, options.program, options.program);

    std::unique_ptr<LXChildProcess> child(new LXChildProcess);
    Private &d = *child->d;

    Pipe input;
    Pipe output;
    Pipe error;
    Pipe terminal;
    Pipe report;
    const LXFileDescriptor null = raised(LXFileDescriptor(::open("/dev/null", O_RDWR | O_CLOEXEC)));
    const bool wantsTerminal = options.input == Stream::Terminal || options.output == Stream::Terminal ||
                               options.error == Stream::Terminal;
    if (!null.isOpen() || !makePipe(report) || (wantsTerminal && !makeTerminal(terminal)) ||
        (options.input == Stream::Pipe && !makePipe(input)) ||
        (options.output == Stream::Pipe && !makePipe(output)) ||
        (options.error == Stream::Pipe && !makePipe(error)))
        return failure(errno, options.program, QStringLiteral("streams"));
    d.wake = LXFileDescriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    d.poke = LXFileDescriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));

    // Nobody reads or writes it. It only makes the kernel hang up on all that the child started, when the
    // child ends or when we do: the signal that ends the child with us does not reach those.
    Pipe leash;
    const bool mayStartOthers = !options.confinement || options.confinement->mayFork;
    if (mayStartOthers && !wantsTerminal && !makeTerminal(leash))
        leash = Pipe(); // a system without terminals has to do without

    std::vector<QByteArray> arguments{bytesOfFileName(program)};
    for (const QString &argument : options.arguments)
        arguments.push_back(bytesOfFileName(argument));
    std::vector<QByteArray> environment = environmentFor(options.environment);
    const std::vector<char *> argumentPointers = pointers(arguments);
    const std::vector<char *> environmentPointers = pointers(environment);
    const QByteArray programPath = bytesOfFileName(program);
    const QByteArray folder = bytesOfFileName(options.workingFolder);
    const std::vector<int> inherited(options.inheritedDescriptors.begin(),
                                     options.inheritedDescriptors.end());

    std::optional<LXConfinement> confinement;
    if (options.confinement) {
        auto prepared = LXConfinement::prepare(*options.confinement, programPath.constData());
        if (!prepared)
            return failure(prepared.error().code, options.program, prepared.error().description);
        confinement = std::move(prepared).value();
    }

    ChildSetup setup;
    setup.input = options.input == Stream::Pipe       ? input.reading.get()
                  : options.input == Stream::Terminal ? terminal.writing.get()
                                                      : null.get();
    setup.output = options.output == Stream::Pipe       ? output.writing.get()
                   : options.output == Stream::Terminal ? terminal.writing.get()
                                                        : null.get();
    setup.error = options.error == Stream::Pipe       ? error.writing.get()
                  : options.error == Stream::Terminal ? terminal.writing.get()
                  : options.error == Stream::Merge    ? setup.output
                                                      : null.get();
    setup.terminal = terminal.writing.get();
    setup.leash = leash.writing.get();
    setup.report = report.writing.get();
    setup.confinement = confinement ? &*confinement : nullptr;
    setup.parent = ::getpid();
    setup.folder = folder.isEmpty() ? nullptr : folder.constData();
    setup.program = programPath.constData();
    setup.arguments = argumentPointers.data();
    setup.environment = environmentPointers.data();
    setup.inherited = inherited.data();
    setup.inheritedCount = inherited.size();
    setup.limits = options.limits;

    // No handler of ours may run in the child before its signals are reset.
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    d.pid = ::fork();
    if (d.pid == 0)
        runChild(setup);
    const int forkError = errno;
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (d.pid < 0)
        return failure(forkError, options.program, QStringLiteral("fork"));

    report.writing.reset();
    Report problem{};
    ssize_t n;
    do {
        n = ::read(report.reading.get(), &problem, sizeof problem);
    } while (n < 0 && errno == EINTR);
    if (n == sizeof problem) {
        d.reap();
        return failure(problem.error, options.program, stageText(problem.stage, options));
    }
    d.process = LXFileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, d.pid, 0U)));
    if (!d.process.isOpen() || !d.wake.isOpen() || !d.poke.isOpen()) {
        const int code = errno;
        d.reap();
        return failure(code, options.program, QStringLiteral("process handle"));
    }

    d.leash = std::move(leash.reading);
    input.reading.reset();
    if (options.input == Stream::Pipe)
        d.input = std::move(input.writing);
    if (options.output == Stream::Pipe)
        d.output = std::move(output.reading);
    if (options.error == Stream::Pipe)
        d.error = std::move(error.reading);
    if (options.input == Stream::Terminal) {
        d.input = LXFileDescriptor(::fcntl(terminal.reading.get(), F_DUPFD_CLOEXEC, 3));
        d.inputIsTerminal = true;
    }
    if (wantsTerminal) {
        if (!d.output.isOpen())
            d.output = std::move(terminal.reading);
        else if (!d.error.isOpen())
            d.error = std::move(terminal.reading);
    }
    for (const LXFileDescriptor *stream : {&d.input, &d.output, &d.error})
        if (stream->isOpen())
            setNonBlocking(stream->get());
    return child;
}

LXChildProcess::~LXChildProcess()
{
    if (d->pid > 0 && !d->exit)
        d->reap();
}

LXChildProcess::Chunk LXChildProcess::read(std::stop_token stop, std::chrono::milliseconds timeout)
{
    if (!d->kept.empty()) {
        Chunk chunk = std::move(d->kept.front());
        d->kept.erase(d->kept.begin());
        d->keptSize -= chunk.data.size();
        return chunk;
    }
    const std::stop_callback wakeUp(stop, [this] { requestStop(); });
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        const bool ended = d->exit || d->hasEnded();
        pollfd fds[5];
        nfds_t count = 0;
        fds[count++] = {d->wake.get(), POLLIN, 0};
        fds[count++] = {d->poke.get(), POLLIN, 0};
        const auto add = [&](int fd) { fds[count++] = {fd, POLLIN, 0}; };
        if (d->output.isOpen())
            add(d->output.get());
        if (d->error.isOpen())
            add(d->error.get());
        if (count == 2)
            return {Chunk::Kind::Closed, {}};
        if (!ended)
            add(d->process.get());
        int wait = -1;
        if (timeout >= 0ms) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            wait = static_cast<int>(std::clamp<qint64>(left.count(), 0, 1'000'000'000));
        }
        // After the child's end only what is already there is taken: somebody whom it left behind
        // may hold the stream open for ever.
        const int ready = ::poll(fds, count, ended ? 0 : wait);
        if (ready < 0 && errno != EINTR)
            return {Chunk::Kind::Closed, {}};
        if (fds[0].revents & POLLIN)
            return {Chunk::Kind::Stopped, {}};
        if (std::uint64_t pokes = 0;
            (fds[1].revents & POLLIN) && ::read(d->poke.get(), &pokes, sizeof pokes) > 0)
            return {Chunk::Kind::TimedOut, {}};
        Chunk chunk;
        if (d->take(d->output, Chunk::Kind::Output, chunk) || d->take(d->error, Chunk::Kind::Error, chunk))
            return chunk;
        if (ended)
            return {Chunk::Kind::Closed, {}};
        if (ready == 0 && timeout >= 0ms && std::chrono::steady_clock::now() >= deadline)
            return {Chunk::Kind::TimedOut, {}};
    }
}

LXChildProcess::WriteResult LXChildProcess::write(const char *data, qsizetype size, std::stop_token stop)
{
    const std::stop_callback wakeUp(stop, [this] { requestStop(); });
    const NoBrokenPipeSignal guard;
    while (size > 0) {
        if (!d->input.isOpen())
            return WriteResult::Broken;
        const ssize_t n = ::write(d->input.get(), data, static_cast<std::size_t>(size));
        if (n > 0) {
            data += n;
            size -= n;
            if (size == 0)
                break;
        } else if (n < 0 && errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
            d->input.reset();
            return WriteResult::Broken;
        }
        pollfd fds[5];
        nfds_t count = 0;
        fds[count++] = {d->wake.get(), POLLIN, 0};
        fds[count++] = {d->input.get(), POLLOUT, 0};
        fds[count++] = {d->process.get(), POLLIN, 0};
        if (d->output.isOpen())
            fds[count++] = {d->output.get(), POLLIN, 0};
        if (d->error.isOpen())
            fds[count++] = {d->error.get(), POLLIN, 0};
        if (::poll(fds, count, -1) < 0 && errno != EINTR)
            return WriteResult::Broken;
        if (fds[0].revents & POLLIN)
            return WriteResult::Stopped;
        Chunk chunk;
        if (d->take(d->output, Chunk::Kind::Output, chunk))
            d->keep(std::move(chunk));
        if (d->take(d->error, Chunk::Kind::Error, chunk))
            d->keep(std::move(chunk));
        if ((fds[2].revents & POLLIN) && !(fds[1].revents & POLLOUT))
            return WriteResult::Broken;
    }
    pollfd stopped{d->wake.get(), POLLIN, 0};
    return ::poll(&stopped, 1, 0) > 0 ? WriteResult::Stopped : WriteResult::Written;
}

bool LXChildProcess::hasLostOutput() const
{
    return d->lostOutput;
}

void LXChildProcess::closeInput()
{
    if (d->inputIsTerminal && d->input.isOpen()) {
        const char endOfFile = 4;
        [[maybe_unused]] const auto n = ::write(d->input.get(), &endOfFile, 1);
    }
    d->input.reset();
}

std::optional<LXChildProcess::Exit> LXChildProcess::wait(std::stop_token stop)
{
    if (d->exit)
        return d->exit;
    closeInput();
    while (true) {
        const Chunk chunk = read(stop);
        if (chunk.kind == Chunk::Kind::Stopped)
            return std::nullopt;
        if (chunk.kind == Chunk::Kind::Closed)
            break;
    }
    const std::stop_callback wakeUp(stop, [this] { requestStop(); });
    while (!d->hasEnded()) {
        pollfd fds[2] = {{d->wake.get(), POLLIN, 0}, {d->process.get(), POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno != EINTR)
            break;
        if (fds[0].revents & POLLIN)
            return std::nullopt;
    }
    d->reap();
    return d->exit;
}

LXChildProcess::Exit LXChildProcess::terminate()
{
    if (d->exit)
        return *d->exit;
    ::kill(-d->pid, SIGTERM);
    ::kill(-d->pid, SIGCONT); // a stopped one hears nothing else
    const auto deadline = std::chrono::steady_clock::now() + terminationGrace;
    while (!d->hasEnded()) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left <= 0ms)
            break;
        pollfd one{d->process.get(), POLLIN, 0};
        ::poll(&one, 1, static_cast<int>(left.count()));
    }
    d->reap();
    return *d->exit;
}

void LXChildProcess::requestStop()
{
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto n = ::write(d->wake.get(), &one, sizeof one);
}

void LXChildProcess::interruptRead()
{
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto n = ::write(d->poke.get(), &one, sizeof one);
}

pid_t LXChildProcess::processId() const
{
    return d->pid;
}
