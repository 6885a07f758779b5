#include "archives/zip/CVZipVolumes.h"
#include "archives/zip/CVZipWriter.h"
#include "archives/zip/zip_line.h"
#include "util/LXConfinement.h"
#include "util/LXFileName.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <exception>
#include <iostream>
#include <mutex>

#include <sys/prctl.h>
#include <unistd.h>

namespace {

// As the tool of 7-Zip ends.
enum Status { Good = 0, Warning = 1, Fatal = 2, BadLine = 7, Stopped = 255 };

/// As that tool says it, because the program that reads it looks for these words.
void complain(const char *kind, int error, const std::string &path)
{
    std::fprintf(stderr, "\n%serrno=%d : %s\n", kind, error, std::strerror(error));
    if (!path.empty())
        std::fprintf(stderr, "./%s\n", path.c_str());
    std::fputc('\n', stderr);
}

/// It reads the current folder and writes into that of the archive; nothing else is open to it.
LXResult<LXProtection> confine(const std::string &archive)
{
    ::tzset(); // reads a file
    const std::size_t slash = archive.rfind('/');
    LXConfinementRules rules;
    rules.readable = {QStringLiteral(".")};
    rules.writable = {slash == std::string::npos
                          ? QStringLiteral(".")
                          : fileNameFromBytes(QByteArray::fromStdString(archive.substr(0, slash + 1)))};
    return LXConfinement::confineThisProcess(rules);
}

/// Signals come here only; what was made is removed at once, whatever the others are doing.
void endOnSignals(CVZipVolumes &volumes, const sigset_t &signals)
{
    std::thread([&volumes, signals] {
        int signal = 0;
        while (::sigwait(&signals, &signal) != 0) {
        }
        volumes.abandon();
        ::_exit(Stopped);
    }).detach();
}

int run(const ZipLine &line)
{
    CVZipWriter::Options options;
    options.level = line.level;
    if (line.isEncrypted && !std::getline(std::cin, options.password.emplace())) {
        std::fputs("There is no password.\n", stderr);
        return Fatal;
    }
    if (const auto confined = confine(line.archive); !confined) {
        std::fprintf(stderr, "\n\nSystem ERROR:\n%s\n", qUtf8Printable(confined.error().reason));
        return Fatal;
    }
    // Leaked on purpose: the thread that waits for signals uses it to the very end.
    auto &volumes = *new CVZipVolumes(line.archive, line.volumeBytes);
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&signals, signal);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    ::signal(SIGXFSZ, SIG_IGN);
    endOnSignals(volumes, signals);

    std::mutex mutex;
    Status status = Good;
    CVZipWriter writer(volumes, std::move(options), [&](int error, const std::string &path) {
        const std::lock_guard lock(mutex);
        complain("WARNING: ", error, path);
        status = Warning;
    });
    if (const int error = writer.pack()) {
        volumes.abandon();
        complain("\nSystem ERROR:\n", error, writer.failedPath());
        return Fatal;
    }
    return status;
}

} // namespace

/// What the launcher named "7za" becomes for a line that makes a zip archive.
int main(int count, char **arguments)
{
    ::prctl(PR_SET_DUMPABLE, 0); // the password is in the memory
    ZipLine line;
    if (!readZipLine(count, arguments, line)) {
        std::fputs("usage: corvane-zip a -tzip -mx=N [-vBYTESb] [-p] ARCHIVE.zip .\n", stderr);
        return BadLine;
    }
    try {
        return run(line);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "\n\nSystem ERROR:\n%s\n", error.what());
        return Fatal;
    }
}
