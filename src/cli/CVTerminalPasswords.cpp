#include "cli/CVTerminalPasswords.h"

#include "cli/CVTerminal.h"
#include "util/LXFileDescriptor.h"
#include "util/LXFileName.h"
#include "util/path_parts.h"

#include <QCoreApplication>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype longestPassword = 64 * 1024; // a wrong file, a device for instance, ends here

LXError passwordError(const QString &reason)
{
    return LXError{.domain = u"CorvaneErrorDomain"_s,
                   .code = 1,
                   .description = u"the password file could not be read"_s,
                   .reason = reason,
                   .suggestion = {}};
}

} // namespace

CVTerminalPasswords::CVTerminalPasswords(CVTerminal &terminal, std::optional<QString> given)
    : m_terminal(terminal)
    , m_given(std::move(given))
{}

std::optional<QString> CVTerminalPasswords::forFile(const QString &path, bool failed)
{
    const QString name = lastComponent(path);
    if (!failed || path != m_path) {
        m_path = path;
        m_tries = 0;
        m_givenUsed = false;
    }
    m_lack = Lack::None;
    if (m_given && !m_givenUsed) {
        m_givenUsed = true;
        return m_given;
    }
    if (failed && m_tries >= triesAllowed) {
        m_lack = Lack::Wrong;
        m_terminal.message(u"wrong password for “%1” three times, giving up"_s.arg(name));
        return std::nullopt;
    }
    if (!m_terminal.canAsk()) {
        m_lack = failed ? Lack::Wrong : Lack::Missing;
        m_terminal.message(
            failed ? u"the password for “%1” is wrong"_s.arg(name)
                   : u"“%1” needs a password: give it by --password-file or CORVANE_PASSWORD"_s.arg(name));
        return std::nullopt;
    }
    const QString prompt =
        failed
            ? QCoreApplication::translate("CVOperationController",
                                          "Invalid password for “%1”, please try again.")
                      .arg(name) +
                  u" Password: "_s
            : QCoreApplication::translate("CVOperationController", "Please enter the password to open “%1”")
                      .arg(name) +
                  u": "_s;
    ++m_tries;
    auto answer = m_terminal.askPassword(prompt);
    if (!answer) {
        m_lack = failed ? Lack::Wrong : Lack::Missing;
        if (!m_terminal.wasInterrupted())
            m_terminal.message(u"no password for “%1”"_s.arg(name));
    }
    return answer;
}

std::optional<QString> CVTerminalPasswords::forNewArchive(const QString &name, const Check &check)
{
    m_lack = Lack::None;
    if (m_given) {
        if (const auto problem = check(*m_given)) {
            m_lack = Lack::Unfit;
            m_terminal.message(*problem);
            return std::nullopt;
        }
        return m_given;
    }
    if (!m_terminal.canAsk()) {
        m_lack = Lack::Missing;
        m_terminal.message(
            u"no password for the new archive “%1”; use --password-file or CORVANE_PASSWORD"_s.arg(name));
        return std::nullopt;
    }
    for (int i = 0; i < triesAllowed; ++i) {
        const auto answer = m_terminal.askPassword(u"Password for the new archive “%1”: "_s.arg(name));
        if (!answer)
            break;
        if (const auto problem = check(*answer)) {
            m_terminal.message(*problem);
            continue;
        }
        const auto again = m_terminal.askPassword(u"The same once more: "_s);
        if (!again)
            break;
        if (*again == *answer)
            return answer;
        m_terminal.message(u"the passwords do not match"_s);
    }
    m_lack = Lack::Missing;
    if (!m_terminal.wasInterrupted())
        m_terminal.message(u"no password for the new archive “%1”"_s.arg(name));
    return std::nullopt;
}

LXResult<QString> CVTerminalPasswords::readFile(const QString &path)
{
    LXFileDescriptor own;
    int fd = STDIN_FILENO;
    if (path != u"-") {
        own = LXFileDescriptor(::open(bytesOfFileName(path).constData(), O_RDONLY | O_CLOEXEC));
        if (!own.isOpen())
            return passwordError(u"%1: %2"_s.arg(path, QString::fromLocal8Bit(std::strerror(errno))));
        fd = own.get();
    }
    QByteArray bytes;
    bytes.reserve(longestPassword + 1024);
    while (bytes.size() <= longestPassword) {
        char buffer[1024];
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return passwordError(u"%1: %2"_s.arg(path, QString::fromLocal8Bit(std::strerror(errno))));
        if (n == 0)
            break;
        bytes.append(buffer, n);
        ::explicit_bzero(buffer, sizeof buffer);
    }
    if (bytes.size() > longestPassword)
        return passwordError(u"%1 is too long for a password"_s.arg(path));
    if (bytes.endsWith('\n'))
        bytes.chop(bytes.endsWith("\r\n") ? 2 : 1);
    QString password = QString::fromUtf8(bytes);
    bytes.fill('\0');
    return password;
}

std::optional<QString> CVTerminalPasswords::takeFromEnvironment()
{
    constexpr const char *name = "CORVANE_PASSWORD";
    char *value = std::getenv(name);
    if (!value)
        return std::nullopt;
    const QString password = QString::fromUtf8(value);
    // unsetenv alone leaves the text where the kernel shows it as /proc/<pid>/environ.
    ::explicit_bzero(value, std::strlen(value));
    ::unsetenv(name);
    // Set to nothing is how scripts unset a variable.
    if (password.isEmpty())
        return std::nullopt;
    return password;
}
