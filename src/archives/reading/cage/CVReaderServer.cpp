#include "archives/reading/cage/CVReaderServer.h"

#include "archives/CVToolPaths.h"
#include "archives/reading/cage/CVCageServer.h"
#include "util/LXFileName.h"

#include <QCoreApplication>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

namespace {

LXError failure(int error)
{
    const auto text = [](const char *source) {
        return QCoreApplication::translate("CVReaderServer", source);
    };
    return {QStringLiteral("CVReaderServer"), error, text("The reader of archives could not be started."),
            QString::fromLocal8Bit(std::strerror(error)), text("Try again when other programs have ended.")};
}

/// Our environment, but for what is nobody's business there.
std::vector<char *> environment()
{
    static char locale[] = "LC_ALL=C.UTF-8";
    std::vector<char *> result;
    for (char **variable = ::environ; *variable; ++variable) {
        const std::string_view text(*variable);
        if (!text.starts_with("LC_ALL=") && !text.starts_with("CORVANE_PASSWORD="))
            result.push_back(*variable);
    }
    result.push_back(locale);
    result.push_back(nullptr);
    return result;
}

} // namespace

CVReaderServer &CVReaderServer::instance()
{
    static CVReaderServer server;
    return server;
}

CVReaderServer::~CVReaderServer()
{
    forget();
}

/// It ends by itself once nobody holds the other end of its requests.
void CVReaderServer::forget()
{
    m_requests.close();
    if (m_process > 0)
        while (::waitpid(m_process, nullptr, 0) < 0 && errno == EINTR) {
        }
    m_process = -1;
}

LXResult<void> CVReaderServer::launch(const QString &program)
{
    auto [ours, theirs] = CVCageSocket::pair();
    if (!ours.isOpen())
        return failure(errno);
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    ::posix_spawn_file_actions_init(&files);
    ::posix_spawnattr_init(&attributes);
    ::posix_spawn_file_actions_adddup2(&files, theirs.fd(), CVCageServer::requestsDescriptor);
    ::posix_spawn_file_actions_addclosefrom_np(&files, CVCageServer::requestsDescriptor + 1);
    ::posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    // Out of our group: a key on the terminal asks us, who end it in order.
    ::posix_spawnattr_setflags(&attributes,
                               POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    sigset_t signals;
    ::sigemptyset(&signals);
    ::posix_spawnattr_setsigmask(&attributes, &signals);
    ::sigfillset(&signals);
    ::posix_spawnattr_setsigdefault(&attributes, &signals);
    const QByteArray path = bytesOfFileName(program);
    char *const arguments[] = {const_cast<char *>(path.constData()), nullptr};
    const int error =
        ::posix_spawn(&m_process, path.constData(), &files, &attributes, arguments, environment().data());
    ::posix_spawn_file_actions_destroy(&files);
    ::posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        m_process = -1;
        return failure(error);
    }
    m_requests = std::move(ours);
    return {};
}

LXResult<CVReaderServer::Reader> CVReaderServer::start()
{
    LXResult<QString> program = CVToolPaths::toolPath(QStringLiteral("corvane-reader"));
    if (!program)
        return program.error();
    auto [conversation, readersEnd] = CVCageSocket::pair();
    auto [news, serversEnd] = CVCageSocket::pair();
    if (!conversation.isOpen() || !news.isOpen())
        return failure(errno);
    const std::lock_guard lock(m_mutex);
    const QByteArray settings = qgetenv("CORVANE_7Z_LIBRARY") + '\n' + qgetenv("TZ");
    if (m_requests.isOpen() && (m_program != program.value() || m_settings != settings))
        forget();
    const int ends[] = {readersEnd.fd(), serversEnd.fd()};
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!m_requests.isOpen()) {
            m_program = program.value();
            m_settings = settings;
            if (auto launched = launch(m_program); !launched)
                return launched.error();
        }
        if (m_requests.send("r", ends))
            return Reader{std::move(conversation), std::move(news)};
        forget(); // it has died
    }
    return failure(EPIPE);
}
