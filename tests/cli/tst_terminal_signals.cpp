#include "cli/CVTerminal.h"
#include "cli/CVTerminalSignals.h"
#include "util/LXFileDescriptor.h"

#include <QCoreApplication>
#include <QTest>

#include <csignal>
#include <thread>

#include <pty.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

/// A program whose main thread never comes back to its loop, and one that asks for a password meanwhile.
class tst_terminal_signals : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void secondOneEndsWhateverRuns_data();
    void secondOneEndsWhateverRuns();
};

void tst_terminal_signals::secondOneEndsWhateverRuns_data()
{
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("second");
    QTest::newRow("TERM twice") << SIGTERM << SIGTERM;
    QTest::newRow("Ctrl-C twice") << SIGINT << SIGINT;
    QTest::newRow("Ctrl-C, then TERM") << SIGINT << SIGTERM;
    QTest::newRow("hung up, then TERM") << SIGHUP << SIGTERM;
}

void tst_terminal_signals::secondOneEndsWhateverRuns()
{
    QFETCH(int, first);
    QFETCH(int, second);
    int master = -1;
    const pid_t pid = ::forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        CVTerminal terminal;
        const CVTerminalSignals signalsToCancel(terminal, [](int) {});
        const std::thread asking([&] { (void)terminal.askPassword(QStringLiteral("stuck")); });
        while (true)
            ::pause();
    }
    const LXFileDescriptor shown(master);
    QByteArray text;
    char letter = 0;
    while (!text.endsWith("stuck") && ::read(master, &letter, 1) == 1)
        text += letter;
    termios mode{};
    QVERIFY(::tcgetattr(master, &mode) == 0 && !(mode.c_lflag & ECHO));
    ::kill(pid, first);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    int status = 0;
    QCOMPARE(::waitpid(pid, &status, WNOHANG), 0); // it ends in order, when it can
    ::kill(pid, second);
    pid_t ended = 0;
    QTRY_VERIFY(ended != 0 || (ended = ::waitpid(pid, &status, WNOHANG)) != 0);
    QCOMPARE(ended, pid);
    QVERIFY(WIFEXITED(status));
    QCOMPARE(WEXITSTATUS(status), CVTerminalSignals::cancelledStatus);
    QVERIFY(::tcgetattr(master, &mode) == 0 && (mode.c_lflag & ECHO));
}

QTEST_GUILESS_MAIN(tst_terminal_signals)
#include "tst_terminal_signals.moc"
