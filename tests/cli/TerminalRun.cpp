#include "TerminalRun.h"

#include "util/LXFileName.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr auto timeLimit = std::chrono::seconds(60);

std::vector<char *> pointers(std::vector<QByteArray> &list)
{
    std::vector<char *> result;
    for (QByteArray &item : list)
        result.push_back(item.data());
    result.push_back(nullptr);
    return result;
}

} // namespace

QStringList TerminalRun::outLines() const
{
    QStringList lines = QString::fromUtf8(out).split(u'\n');
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

TerminalRun TerminalRun::run(const QString &program, const Setup &setup)
{
    std::vector<QByteArray> words = {QFile::encodeName(program)};
    for (const QString &argument : setup.arguments)
        words.push_back(bytesOfFileName(argument));
    const QByteArray folder = QFile::encodeName(setup.folder);
    std::vector<QByteArray> environment = {
        "PATH=" + qgetenv("PATH"),
        "LC_ALL=C.UTF-8",
        "TZ=UTC",
        "TERM=xterm",
        "HOME=" + folder,
        "XDG_CONFIG_HOME=" + folder + "/.config",
        "XDG_DATA_HOME=" + folder + "/.local",
    };
    for (const char *name : {"ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
        if (qEnvironmentVariableIsSet(name))
            environment.push_back(QByteArray(name) + '=' + qgetenv(name));
    }
    const auto isTmpDir = [](const QByteArray &variable) { return variable.startsWith("TMPDIR="); };
    if (std::ranges::none_of(setup.environment, isTmpDir))
        environment.push_back("TMPDIR=/tmp");
    environment.insert(environment.end(), setup.environment.begin(), setup.environment.end());
    auto argv = pointers(words);
    auto envp = pointers(environment);

    std::array<int, 2> outPipe = {-1, -1};
    std::array<int, 2> errPipe = {-1, -1};
    std::array<int, 2> inPipe = {-1, -1};
    TerminalRun result;
    if (::pipe2(outPipe.data(), O_CLOEXEC) != 0 || ::pipe2(errPipe.data(), O_CLOEXEC) != 0 ||
        ::pipe2(inPipe.data(), O_CLOEXEC) != 0)
        return result;
    int terminal = -1;
    winsize size = {.ws_row = 24, .ws_col = 100, .ws_xpixel = 0, .ws_ypixel = 0};
    const pid_t pid = setup.atTerminal ? ::forkpty(&terminal, nullptr, nullptr, &size) : ::fork();
    if (pid == 0) {
        if (!setup.atTerminal) {
            ::setsid(); // nobody to ask
            ::dup2(inPipe[0], STDIN_FILENO);
            ::dup2(errPipe[1], STDERR_FILENO);
        }
        ::dup2(outPipe[1], STDOUT_FILENO);
        if (::chdir(folder.constData()) == 0)
            ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    ::close(inPipe[0]);
    if (!setup.input.isEmpty()) [[maybe_unused]]
        const auto n = ::write(inPipe[1], setup.input.constData(), static_cast<size_t>(setup.input.size()));
    ::close(inPipe[1]);
    if (setup.meanwhile)
        setup.meanwhile(pid);

    const int errFd = setup.atTerminal ? terminal : errPipe[0];
    std::array<pollfd, 2> waits = {pollfd{outPipe[0], POLLIN, 0}, pollfd{errFd, POLLIN, 0}};
    std::size_t line = 0;
    qsizetype answered = 0;
    const auto deadline = std::chrono::steady_clock::now() + timeLimit;
    while ((waits[0].fd >= 0 || waits[1].fd >= 0) && std::chrono::steady_clock::now() < deadline) {
        ::poll(waits.data(), waits.size(), 100);
        for (std::size_t i = 0; i < waits.size(); ++i) {
            if (waits[i].fd < 0 || !(waits[i].revents & (POLLIN | POLLHUP | POLLERR)))
                continue;
            std::array<char, 65536> buffer;
            const ssize_t n = ::read(waits[i].fd, buffer.data(), buffer.size());
            if (n <= 0)
                waits[i].fd = -1; // a terminal gives an error when the other side is closed
            else
                (i == 0 ? result.out : result.err).append(buffer.data(), n);
        }
        if (line < setup.dialogue.size()) {
            const auto &next = setup.dialogue[line];
            const qsizetype at = result.err.indexOf(next.expect, answered);
            if (at >= 0) {
                answered = at + next.expect.size();
                ++line;
                [[maybe_unused]] const auto n =
                    ::write(terminal, next.reply.constData(), static_cast<size_t>(next.reply.size()));
            }
        }
    }
    int status = 0;
    while (::waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            status = -1;
            break;
        }
        ::usleep(1000);
    }
    if (status != -1)
        result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (terminal >= 0) {
        termios mode = {};
        if (::tcgetattr(terminal, &mode) == 0)
            result.echoAfterwards = (mode.c_lflag & ECHO) != 0;
        ::close(terminal);
    }
    ::close(outPipe[0]);
    ::close(errPipe[0]);
    return result;
}
