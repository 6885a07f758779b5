#include "cli/CVExtractCommand.h"
#include "cli/CVListCommand.h"
#include "cli/CVPackCommand.h"
#include "cli/CVSplitCommand.h"
#include "cli/CVTerminal.h"
#include "cli/CVTerminalArguments.h"
#include "cli/CVTerminalPasswords.h"
#include "cli/CVTerminalSignals.h"
#include "engine/model/CVOperationQueue.h"
#include "engine/model/CVSettings.h"
#include "util/LXConfinement.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"
#include "util/LXSecrets.h"

#include <QCoreApplication>

#include <climits>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include <langinfo.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int usageStatus = 2;

CVTerminal *logTerminal = nullptr;
bool showsLog = false;

// Log lines share standard error with the progress line. Where they were written helps nobody here.
void writeLog(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type == QtDebugMsg || type == QtInfoMsg || (type != QtFatalMsg && !showsLog))
        return;
    QString shown = text;
    if (const qsizetype line = text.indexOf(u" [Line "); line >= 0) {
        if (const qsizetype end = text.indexOf(u"] ", line); end >= 0)
            shown = text.mid(end + 2).trimmed();
    }
    if (logTerminal)
        logTerminal->message(shown);
    if (type == QtFatalMsg)
        std::abort();
}

/// Without memory or threads a job cannot be ended in order. What it has made lies in its work folder, which
/// "corvane clean" takes away, as after a kill; only the words are ours.
[[noreturn]] void endWithoutMeans()
{
    const char *words = nullptr;
    try {
        if (const auto thrown = std::current_exception())
            std::rethrow_exception(thrown);
    } catch (const std::bad_alloc &) {
        words = "corvane: stopped: there is not enough memory\n";
    } catch (const std::system_error &error) {
        if (error.code() == std::errc::resource_unavailable_try_again)
            words = "corvane: stopped: the system starts no further thread\n";
    } catch (...) {
    }
    if (!words)
        std::abort();
    if (logTerminal)
        logTerminal->restoreEcho();
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, words, std::strlen(words));
    ::_exit(1);
}

// File names are UTF-8 on every desktop of today; in the C locale Qt and the readers would otherwise
// take them for ASCII.
void useUtf8Locale()
{
    std::setlocale(LC_ALL, "");
    if (std::strcmp(::nl_langinfo(CODESET), "UTF-8") != 0) {
        ::setenv("LC_ALL", "C.UTF-8", 1);
        std::setlocale(LC_ALL, "");
    }
}

int runList(const CVTerminalArguments &arguments, CVTerminal &terminal, CVTerminalPasswords &passwords)
{
    const auto form = arguments.json                ? CVListCommand::Form::Json
                      : terminal.outputIsTerminal() ? CVListCommand::Form::Table
                                                    : CVListCommand::Form::Paths;
    int status = 0;
    std::jthread worker([&](std::stop_token stop) {
        status = CVListCommand(terminal, passwords, form).run(arguments.paths, std::move(stop));
        LXMainThread::post([] { QCoreApplication::quit(); });
    });
    const CVTerminalSignals signalsToStop(terminal, [&](int) {
        worker.request_stop();
        terminal.interrupt();
        terminal.message(u"cancelled"_s);
    });
    QCoreApplication::exec();
    worker.join();
    return status;
}

bool hasDisplay()
{
    return !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") || !qEnvironmentVariableIsEmpty("DISPLAY");
}

/// Becomes the window, a program of its own beside this one, so that the terminal loads nothing of a window
/// system. Returns only where there is none.
void becomeWindow(const QStringList &paths)
{
    QByteArray program(PATH_MAX, '\0');
    const ssize_t length =
        ::readlink("/proc/self/exe", program.data(), static_cast<std::size_t>(program.size()));
    if (length <= 0 || length == program.size())
        return;
    program.truncate(program.lastIndexOf('/', length) + 1);
    program += "corvane-window";
    std::vector<QByteArray> words = {program, "--"};
    for (const QString &path : paths)
        words.push_back(bytesOfFileName(path));
    std::vector<char *> arguments;
    for (QByteArray &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    ::execv(program.constData(), arguments.data());
}

/// Files of all kinds are packed; every other command opens archives.
bool isPacking(const CVTerminalArguments &arguments)
{
    return arguments.command == CVTerminalArguments::Command::Create ||
           (arguments.command == CVTerminalArguments::Command::Open &&
            CVPackCommand::areFilesToPack(arguments.paths));
}

/// Nothing but files: no command, and nothing that only the terminal understands.
bool isOpeningOnly(const CVTerminalArguments &arguments)
{
    return arguments.command == CVTerminalArguments::Command::Open && !arguments.passwordFile;
}

int runJobs(const CVTerminalArguments &arguments, CVTerminal &terminal, CVTerminalPasswords &passwords)
{
    CVOperationQueue queue;
    CVExtractCommand extraction(queue, terminal, passwords);
    CVPackCommand packing(queue, terminal, passwords);
    CVSplitCommand splitting(queue, terminal, passwords);
    const bool packs = isPacking(arguments);
    const CVTerminalSignals signalsToCancel(terminal, [&](int) {
        terminal.message(u"cancelled"_s);
        // Two of them may take part in what was asked for; the others hear it in vain.
        for (CVJobCommand *command : std::initializer_list<CVJobCommand *>{&extraction, &packing, &splitting})
            command->cancel();
    });
    switch (arguments.command) {
    case CVTerminalArguments::Command::Extract:
        return extraction.extract(arguments);
    case CVTerminalArguments::Command::Open:
        return packs ? packing.open(arguments) : extraction.open(arguments);
    case CVTerminalArguments::Command::Clean:
        return extraction.clean();
    case CVTerminalArguments::Command::Create:
        return packing.create(arguments);
    case CVTerminalArguments::Command::Convert:
        return packing.convert(arguments);
    case CVTerminalArguments::Command::Split:
        return splitting.split(arguments, packing);
    case CVTerminalArguments::Command::Combine:
        return splitting.combine(arguments);
    case CVTerminalArguments::Command::List:
    case CVTerminalArguments::Command::Help:
    case CVTerminalArguments::Command::Version:
        break;
    }
    return usageStatus;
}

} // namespace

int main(int argc, char **argv)
{
    LXSecrets::protectThisProcess(); // the environment may hold a password already
    std::optional<QString> password = CVTerminalPasswords::takeFromEnvironment();
    useUtf8Locale();
    // A reader of our output that goes away must not take the clean-up with it.
    std::signal(SIGPIPE, SIG_IGN);
    std::set_terminate(endWithoutMeans);

    CVTerminal terminal;
    logTerminal = &terminal;
    qInstallMessageHandler(writeLog);

    QStringList words;
    for (int i = 1; i < argc; ++i)
        words.append(fileNameFromBytes(argv[i]));
    const auto parsed = CVTerminalArguments::parse(words);
    const bool isForWindow = words.isEmpty() || (parsed && isOpeningOnly(parsed.value()));
    if (isForWindow && hasDisplay())
        becomeWindow(parsed ? parsed.value().paths : QStringList());
    if (!parsed) {
        terminal.message(parsed.error().description);
        terminal.detail(u"Try “corvane --help”."_s);
        return usageStatus;
    }
    const CVTerminalArguments &arguments = parsed.value();
    showsLog = arguments.verbose;
    if (arguments.quiet)
        terminal.setQuiet();

    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(u"corvane"_s);
    QCoreApplication::setApplicationVersion(QStringLiteral(CORVANE_VERSION));
    LXMainThread::install();

    if (arguments.command == CVTerminalArguments::Command::Help)
        return terminal.writeOutput(CVTerminalArguments::help().toUtf8()) ? 0 : 1;
    if (arguments.command == CVTerminalArguments::Command::Version)
        return terminal.printResult(u"corvane "_s + QCoreApplication::applicationVersion()) &&
                       terminal.printResult(LXConfinement::description())
                   ? 0
                   : 1;

    if (arguments.passwordFile) {
        const auto read = CVTerminalPasswords::readFile(*arguments.passwordFile);
        if (!read) {
            terminal.message(read.error().description);
            terminal.detail(read.error().reason);
            return 3;
        }
        password = read.value();
    }
    if (const auto problem = CVSettings::problem()) {
        terminal.message(problem->description);
        terminal.detail(problem->reason);
        terminal.detail(problem->suggestion);
    }
    CVTerminalPasswords passwords(terminal, std::move(password));
    const int status = arguments.command == CVTerminalArguments::Command::List
                           ? runList(arguments, terminal, passwords)
                           : runJobs(arguments, terminal, passwords);
    logTerminal = nullptr;
    return status;
}
