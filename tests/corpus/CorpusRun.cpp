#include "CorpusRun.h"

#include <QDir>
#include <QFile>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::chrono::seconds timeLimit(30);

QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

CorpusRun CorpusRun::run(const QString &program, const QStringList &arguments, const QString &home)
{
    const QString outPath = home + "/stdout";
    const QString errPath = home + "/stderr";
    std::vector<QByteArray> environment = {
        "PATH=" + qgetenv("PATH"),         "LC_ALL=C.UTF-8", "TZ=UTC", "QT_QPA_PLATFORM=offscreen",
        "HOME=" + QFile::encodeName(home),
    };
    for (const auto &[name, folder] :
         {std::pair("XDG_CONFIG_HOME", "config"), std::pair("XDG_CACHE_HOME", "cache"),
          std::pair("XDG_DATA_HOME", "data"), std::pair("XDG_STATE_HOME", "state"),
          std::pair("XDG_RUNTIME_DIR", "runtime"), std::pair("TMPDIR", "tmp")}) {
        const QString path = home + '/' + folder;
        QDir().mkpath(path);
        QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        environment.push_back(QByteArray(name) + '=' + QFile::encodeName(path));
    }
    for (const char *name : {"ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"})
        if (qEnvironmentVariableIsSet(name))
            environment.push_back(QByteArray(name) + '=' + qgetenv(name));

    std::vector<QByteArray> words = {QFile::encodeName(program)};
    for (const QString &argument : arguments)
        words.push_back(QFile::encodeName(argument));
    const auto pointers = [](std::vector<QByteArray> &list) {
        std::vector<char *> result;
        for (QByteArray &item : list)
            result.push_back(item.data());
        result.push_back(nullptr);
        return result;
    };

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, QFile::encodeName(outPath).constData(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, QFile::encodeName(errPath).constData(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addchdir_np(&actions, QFile::encodeName(home).constData());
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // A session of its own: no terminal to ask for a password on, and one group to kill.
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);

    CorpusRun result;
    pid_t pid = -1;
    const int failed = posix_spawn(&pid, words[0].constData(), &actions, &attributes, pointers(words).data(),
                                   pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (failed != 0) {
        result.err = "could not be started";
        return result;
    }

    const auto deadline = std::chrono::steady_clock::now() + timeLimit;
    int status = 0;
    rusage usage = {};
    while (wait4(pid, &status, WNOHANG, &usage) == 0) {
        if (!result.hung && std::chrono::steady_clock::now() > deadline) {
            result.hung = true;
            kill(-pid, SIGKILL);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.peakKiB = usage.ru_maxrss;
    result.out = contents(outPath);
    result.err = contents(errPath);
    return result;
}
