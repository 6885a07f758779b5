#include "cli/CVTerminal.h"

#include "cli/CVTerminalProgress.h"
#include "cli/terminal_text.h"
#include "util/write_all.h"

#include <cerrno>
#include <memory>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr auto redrawPeriod = std::chrono::milliseconds(100);
// A bar for work that is over before it can be read is only a flicker.
constexpr auto progressDelay = std::chrono::milliseconds(150);
constexpr qsizetype longestAnswer = 4096;

int columns(int fd)
{
    winsize size = {};
    if (::ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    return 80;
}

} // namespace

struct CVTerminal::SavedMode
{
    termios mode = {};
};

CVTerminal::CVTerminal()
    : CVTerminal(STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, "/dev/tty")
{}

CVTerminal::CVTerminal(int in, int out, int err, QByteArray terminalPath)
    : m_in(in)
    , m_out(out)
    , m_err(err)
    , m_terminalPath(std::move(terminalPath))
    , m_outputIsTerminal(::isatty(out) == 1)
    , m_errorIsTerminal(::isatty(err) == 1)
    , m_wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    , m_saved(std::make_unique<SavedMode>())
{
    const QByteArray kind = qgetenv("TERM");
    m_progressWanted = m_errorIsTerminal && kind != "dumb";
    // Somebody in front of a terminal has at least one of these two on it. A service or a script run
    // from one may still have the terminal in reach; it must not be stopped by a question there.
    m_canAsk = ::isatty(in) == 1 || m_errorIsTerminal;
}

CVTerminal::~CVTerminal()
{
    clearProgress();
}

void CVTerminal::writeErrorLocked(const QByteArray &bytes)
{
    writeAll(m_err, bytes);
}

bool CVTerminal::printResult(const QString &line)
{
    return writeOutput(terminalText(line) + '\n');
}

bool CVTerminal::writeOutput(const QByteArray &bytes)
{
    const std::lock_guard lock(m_mutex);
    if (m_outputIsTerminal)
        eraseProgressLocked();
    return writeAll(m_out, bytes);
}

void CVTerminal::message(const QString &text)
{
    const std::lock_guard lock(m_mutex);
    eraseProgressLocked();
    writeErrorLocked("corvane: " + terminalText(text) + '\n');
}

void CVTerminal::note(const QString &text)
{
    if (!m_quiet)
        message(text);
}

void CVTerminal::detail(const QString &text)
{
    const std::lock_guard lock(m_mutex);
    eraseProgressLocked();
    writeErrorLocked("  " + terminalText(text) + '\n');
}

void CVTerminal::setProgressTitle(const QString &title)
{
    const std::lock_guard lock(m_mutex);
    m_title = QString::fromUtf8(terminalText(title));
    m_titleSince = Clock::now();
    m_rate.restart(m_titleSince);
}

void CVTerminal::showProgress(double done, double total, LXProgressUnit unit)
{
    if (!m_progressWanted || m_quiet)
        return;
    const std::lock_guard lock(m_mutex);
    const auto now = Clock::now();
    m_rate.update(done, total, unit, now);
    if (m_asking || now - m_lastDrawn < redrawPeriod)
        return;
    if (!m_progressShown && now - m_titleSince < progressDelay)
        return;
    m_lastDrawn = now;
    drawProgressLocked(done, total, unit);
}

void CVTerminal::drawProgressLocked(double done, double total, LXProgressUnit unit)
{
    const CVTerminalProgress progress = {.done = done,
                                         .total = total,
                                         .rate = m_rate.perSecond(),
                                         .title = m_title,
                                         .inBytes = unit == LXProgressUnit::Bytes};
    // One cell short of the edge, where some terminals wrap.
    writeErrorLocked("\r" + progress.line(columns(m_err) - 1).toUtf8() + "\033[K");
    m_progressShown = true;
}

void CVTerminal::eraseProgressLocked()
{
    if (!m_progressShown)
        return;
    writeErrorLocked("\r\033[K");
    m_progressShown = false;
}

void CVTerminal::clearProgress()
{
    const std::lock_guard lock(m_mutex);
    eraseProgressLocked();
}

void CVTerminal::interrupt()
{
    m_interrupted.store(true);
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto n = ::write(m_wake.get(), &one, sizeof one);
}

void CVTerminal::restoreEcho()
{
    if (const int fd = m_silentFd.exchange(-1); fd >= 0)
        ::tcsetattr(fd, TCSANOW, &m_saved->mode);
}

std::optional<QByteArray> CVTerminal::readAnswer(const QByteArray &prompt, bool echo)
{
    if (!m_canAsk || m_interrupted.load())
        return std::nullopt;
    const std::lock_guard one(m_askMutex);
    LXFileDescriptor own(::open(m_terminalPath.constData(), O_RDWR | O_CLOEXEC | O_NOCTTY));
    const int fd = own.isOpen() ? own.get() : m_in;
    if (!own.isOpen() && ::isatty(m_in) != 1)
        return std::nullopt;
    const int promptFd = m_errorIsTerminal || !own.isOpen() ? m_err : own.get();
    {
        const std::lock_guard lock(m_mutex);
        eraseProgressLocked();
        m_asking = true;
        if (!echo && ::tcgetattr(fd, &m_saved->mode) == 0) {
            termios silent = m_saved->mode;
            silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
            silent.c_lflag |= ICANON | ISIG;
            // What was typed ahead was not meant for a prompt that nobody had seen.
            if (::tcsetattr(fd, TCSAFLUSH, &silent) == 0)
                m_silentFd = fd;
        }
        writeAll(promptFd, prompt);
    }
    QByteArray answer;
    bool complete = false;
    while (!complete) {
        pollfd waits[] = {{fd, POLLIN, 0}, {m_wake.get(), POLLIN, 0}};
        if (::poll(waits, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        if (waits[1].revents)
            break;
        char buffer[512];
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0 || answer.size() > longestAnswer)
            break;
        answer.append(buffer, n);
        if (answer.endsWith('\n')) {
            answer.chop(1);
            complete = true;
        }
        ::explicit_bzero(buffer, sizeof buffer);
    }
    restoreEcho();
    {
        const std::lock_guard lock(m_mutex);
        // The typed newline was not shown, or never came.
        if (!echo || !complete)
            writeAll(promptFd, "\n");
        m_asking = false;
        m_titleSince = Clock::now();
        m_rate.resume(m_titleSince);
    }
    if (!complete)
        return std::nullopt;
    return answer;
}

std::optional<QString> CVTerminal::askPassword(const QString &prompt)
{
    auto answer = readAnswer(terminalText(prompt), false);
    if (!answer)
        return std::nullopt;
    const QString password = QString::fromUtf8(*answer);
    answer->fill('\0');
    return password;
}

bool CVTerminal::askYesNo(const QString &question)
{
    const auto answer = readAnswer(terminalText(question) + " [y/N] ", true);
    if (!answer)
        return false;
    const QByteArray word = answer->trimmed().toLower();
    return word == "y" || word == "yes";
}
