#include "util/LXChildProcess.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <csignal>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

using Kind = LXChildProcess::Chunk::Kind;
using Stream = LXChildOptions::Stream;

namespace {

LXChildOptions shell(const QString &command)
{
    LXChildOptions options;
    options.program = QStringLiteral("/bin/sh");
    options.arguments = {QStringLiteral("-c"), command};
    return options;
}

struct Collected
{
    QByteArray output;
    QByteArray error;
    Kind end = Kind::Closed;
};

Collected collect(LXChildProcess &child, std::stop_token stop = {})
{
    Collected result;
    while (true) {
        const LXChildProcess::Chunk chunk = child.read(stop);
        if (chunk.kind == Kind::Output)
            result.output += chunk.data;
        else if (chunk.kind == Kind::Error)
            result.error += chunk.data;
        else {
            result.end = chunk.kind;
            return result;
        }
    }
}

bool isAlive(pid_t pid)
{
    if (::kill(pid, 0) != 0)
        return false;
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
    return file.open(QIODevice::ReadOnly) && !file.readAll().contains(") Z ");
}

} // namespace

class TestChildProcess : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void endsAndOutput_data();
    void endsAndOutput();
    void programThatIsMissing();
    void feedsMoreThanAPipeHolds();
    void brokenPipeIsAResult();
    void environmentIsTheChildsOwn();
    void folderAndDescriptorsAreTheChildsOwn();
    void stopTokenEndsEveryWait();
    void terminateReachesTheWholeGroup();
    void stubbornChildIsKilled();
    void leftBehindGrandchildDoesNotHoldTheOutput();
    void passwordThroughATerminal();
    void confinedChildWritesOnlyWhereAllowed();
    void limitsHold();
    void whatItStartedEndsWithUs_data();
    void whatItStartedEndsWithUs();
    void destructorLeavesNothing();
};

void TestChildProcess::endsAndOutput_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<QByteArray>("error");
    QTest::addColumn<bool>("normal");
    QTest::addColumn<int>("status");
    QTest::newRow("silent") << "true" << QByteArray() << QByteArray() << true << 0;
    QTest::newRow("status") << "exit 7" << QByteArray() << QByteArray() << true << 7;
    QTest::newRow("both streams") << "echo a; echo b >&2; printf c" << QByteArray("a\nc") << QByteArray("b\n")
                                  << true << 0;
    QTest::newRow("signal") << "echo a; kill -USR1 $$" << QByteArray("a\n") << QByteArray() << false
                            << SIGUSR1;
    QTest::newRow("not text") << "printf '\\377\\000\\n'" << QByteArray("\377\0\n", 3) << QByteArray() << true
                              << 0;
}

void TestChildProcess::endsAndOutput()
{
    QFETCH(QString, command);
    QFETCH(bool, normal);
    QFETCH(int, status);
    auto child = LXChildProcess::start(shell(command));
    QVERIFY(child);
    const Collected got = collect(*child.value());
    QTEST(got.output, "output");
    QTEST(got.error, "error");
    QCOMPARE(got.end, Kind::Closed);
    const auto exit = child.value()->wait();
    QVERIFY(exit);
    QCOMPARE(exit->normal, normal);
    QCOMPARE(exit->status, status);
}

void TestChildProcess::programThatIsMissing()
{
    LXChildOptions options;
    options.program = QStringLiteral("/nowhere/at-all");
    auto child = LXChildProcess::start(options);
    QVERIFY(!child);
    QCOMPARE(child.error().code, ENOENT);
    QVERIFY(child.error().description.contains(options.program));
    options = shell(QStringLiteral("true"));
    options.workingFolder = QStringLiteral("/nowhere/at-all");
    auto elsewhere = LXChildProcess::start(options);
    QVERIFY(!elsewhere);
    QVERIFY(elsewhere.error().reason.contains(options.workingFolder));
}

void TestChildProcess::feedsMoreThanAPipeHolds()
{
    // The child writes as much as it reads: feeding it without taking its output would stand still.
    LXChildOptions options = shell(QStringLiteral("tee /dev/stderr | wc -c"));
    options.input = Stream::Pipe;
    auto child = LXChildProcess::start(options);
    QVERIFY(child);
    const QByteArray block(300'000, 'x');
    for (int i = 0; i < 10; ++i)
        QCOMPARE(child.value()->write(block.constData(), block.size()), LXChildProcess::WriteResult::Written);
    child.value()->closeInput();
    QCOMPARE(collect(*child.value()).output.trimmed(), QByteArray("3000000"));
    QVERIFY(child.value()->wait()->succeeded());
}

void TestChildProcess::brokenPipeIsAResult()
{
    LXChildOptions options = shell(QStringLiteral("exec 0<&-; echo closed; sleep 60"));
    options.input = Stream::Pipe;
    auto child = LXChildProcess::start(options);
    QVERIFY(child);
    QCOMPARE(child.value()->read().data, QByteArray("closed\n"));
    const QByteArray block(300'000, 'x');
    QCOMPARE(child.value()->write(block.constData(), block.size()), LXChildProcess::WriteResult::Broken);
    QVERIFY(!child.value()->terminate().normal);
}

void TestChildProcess::environmentIsTheChildsOwn()
{
    for (const char *name : {"TAPE", "TAR_OPTIONS", "CORVANE_PASSWORD"})
        qputenv(name, "ours");
    qputenv("LC_ALL", "C");
    qunsetenv("TZ");
    LXChildOptions options = shell(
        QStringLiteral("echo \"$TAPE|$TAR_OPTIONS|$CORVANE_PASSWORD|$LC_ALL|${TZ:+set}|$DESTINATION\""));
    options.environment.insert(QStringLiteral("DESTINATION"), QStringLiteral("/töö \"x\""));
    auto child = LXChildProcess::start(options);
    QVERIFY(child);
    QCOMPARE(collect(*child.value()).output, QByteArray("|||C.UTF-8|set|/t\xc3\xb6\xc3\xb6 \"x\"\n"));
    QVERIFY(!qEnvironmentVariableIsSet("DESTINATION"));
    QCOMPARE(qgetenv("TAPE"), QByteArray("ours"));
}

void TestChildProcess::folderAndDescriptorsAreTheChildsOwn()
{
    QTemporaryDir folder;
    // Without close-on-exec, as a careless library would open it.
    const LXFileDescriptor careless(::dup(2));
    const LXFileDescriptor handed(::dup(2));
    LXChildOptions options = shell(QStringLiteral("pwd; ls /proc/self/fd | sort -n | tr '\\n' ' '"));
    options.workingFolder = folder.path();
    options.inheritedDescriptors = {handed.get()};
    auto child = LXChildProcess::start(options);
    QVERIFY(child);
    const QByteArrayList lines = collect(*child.value()).output.split('\n');
    QCOMPARE(lines.value(0), folder.path().toUtf8());
    QList<int> open;
    for (const QByteArray &number : lines.value(1).trimmed().split(' '))
        if (number.toInt() > 2)
            open << number.toInt();
    QVERIFY2(open.contains(handed.get()) && !open.contains(careless.get()), lines.value(1).constData());
}

void TestChildProcess::stopTokenEndsEveryWait()
{
    for (const int what : {0, 1, 2}) {
        LXChildOptions options = shell(QStringLiteral("sleep 60"));
        options.input = Stream::Pipe;
        auto child = LXChildProcess::start(options);
        QVERIFY(child);
        std::stop_source source;
        std::thread other([&] { source.request_stop(); });
        const QByteArray block(1'000'000, 'x');
        switch (what) {
        case 0:
            QCOMPARE(child.value()->read(source.get_token()).kind, Kind::Stopped);
            break;
        case 1:
            QCOMPARE(child.value()->write(block.constData(), block.size(), source.get_token()),
                     LXChildProcess::WriteResult::Stopped);
            break;
        default:
            QVERIFY(!child.value()->wait(source.get_token()));
        }
        other.join();
        const LXChildProcess::Exit exit = child.value()->terminate();
        QVERIFY(!exit.normal);
        QCOMPARE(exit.status, SIGTERM);
    }
}

void TestChildProcess::terminateReachesTheWholeGroup()
{
    auto child = LXChildProcess::start(shell(QStringLiteral("sleep 60 & echo $!; wait")));
    QVERIFY(child);
    const pid_t grandchild = child.value()->read().data.trimmed().toInt();
    QVERIFY(isAlive(grandchild));
    child.value()->terminate();
    QTRY_VERIFY(!isAlive(grandchild));
}

void TestChildProcess::stubbornChildIsKilled()
{
    auto child =
        LXChildProcess::start(shell(QStringLiteral("trap '' TERM; echo ready; while :; do sleep 60; done")));
    QVERIFY(child);
    QCOMPARE(child.value()->read().data, QByteArray("ready\n"));
    const LXChildProcess::Exit exit = child.value()->terminate();
    QVERIFY(!exit.normal);
    QCOMPARE(exit.status, SIGKILL);
}

void TestChildProcess::leftBehindGrandchildDoesNotHoldTheOutput()
{
    auto child = LXChildProcess::start(shell(QStringLiteral("sleep 60 & echo $!")));
    QVERIFY(child);
    const Collected got = collect(*child.value());
    QCOMPARE(got.end, Kind::Closed);
    QVERIFY(child.value()->wait()->succeeded());
    const pid_t grandchild = got.output.trimmed().toInt();
    QVERIFY(grandchild > 0);
    QTRY_VERIFY(!isAlive(grandchild));
}

void TestChildProcess::passwordThroughATerminal()
{
    LXChildOptions options =
        shell(QStringLiteral("printf 'Password: ' > /dev/tty; read -r word; printf 'got %s' \"$word\""));
    options.input = options.output = options.error = Stream::Terminal;
    auto child = LXChildProcess::start(options);
    QVERIFY(child);
    QByteArray seen;
    while (!seen.endsWith(": ")) {
        const LXChildProcess::Chunk chunk = child.value()->read();
        QCOMPARE(chunk.kind, Kind::Output);
        seen += chunk.data;
    }
    QCOMPARE(child.value()->write("gehe\xc3\xadm $x\n", 12), LXChildProcess::WriteResult::Written);
    // Only once: the terminal does not echo what is typed.
    QCOMPARE(collect(*child.value()).output, QByteArray("got gehe\xc3\xadm $x"));
    QVERIFY(child.value()->wait()->succeeded());
}

void TestChildProcess::confinedChildWritesOnlyWhereAllowed()
{
    if (LXConfinement::available().landlock == 0)
        QSKIP("the kernel has no Landlock");
    QTemporaryDir allowed;
    QTemporaryDir other;
    QFile existing(other.filePath(QStringLiteral("existing")));
    QVERIFY(existing.open(QIODevice::WriteOnly) && existing.write("safe") == 4);
    existing.close();
    LXChildOptions options = shell(QStringLiteral("cd \"$A\" && echo x > file && mkdir d && mv file d/file "
                                                  "&& ln -s \"$O\" out && echo x > /dev/null && echo inside; "
                                                  "echo x > \"$O/new\"; echo x > \"$O/existing\"; rm -f "
                                                  "\"$O/existing\"; mkdir \"$O/dir\"; echo x > out/new; "
                                                  "mv d/file \"$O/moved\"; mkfifo fifo; true"));
    options.environment = {{QStringLiteral("A"), allowed.path()}, {QStringLiteral("O"), other.path()}};
    options.confinement = LXConfinementRules{
        .readable = {QStringLiteral("/")}, .writable = {allowed.path()}, .executable = {QStringLiteral("/")}};
    options.confinement->mayFork = true;
    auto child = LXChildProcess::start(options);
    QVERIFY(child);
    const Collected got = collect(*child.value());
    QVERIFY2(got.output == "inside\n", got.error.constData());
    QCOMPARE(QDir(other.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
             QStringList{QStringLiteral("existing")});
    QVERIFY(existing.open(QIODevice::ReadOnly));
    QCOMPARE(existing.readAll(), QByteArray("safe"));
    QVERIFY(!QFile::exists(allowed.filePath(QStringLiteral("fifo"))));
}

void TestChildProcess::limitsHold()
{
    QTemporaryDir folder;
    LXChildOptions options = shell(
        QStringLiteral("head -c 100000 /dev/zero > file; ls -l file | cut -d' ' -f5; ulimit -v; ulimit -t"));
    options.workingFolder = folder.path();
    options.limits = {
        .addressSpaceBytes = 512LL << 20, .fileSizeBytes = 4096, .cpuSeconds = 77, .processes = 0};
    auto child = LXChildProcess::start(options);
    QVERIFY(child);
    QCOMPARE(collect(*child.value()).output, QByteArray("4096\n524288\n77\n"));
}

void TestChildProcess::whatItStartedEndsWithUs_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("line of the shell") << "sh -c 'echo $$; exec sleep 60' | (cat; echo; sleep 60)";
    QTest::newRow("in the background") << "sleep 60 & echo $!; wait";
    QTest::newRow("of a grandchild") << "sh -c 'sleep 60 & echo $!; wait'; true";
    QTest::newRow("one that ignores its input's end") << "sh -c 'sleep 60 & echo $!; wait' | cat";
}

// Killed as nobody can prepare for.
void TestChildProcess::whatItStartedEndsWithUs()
{
    QFETCH(QString, command);
    int ends[2];
    QVERIFY(::pipe(ends) == 0);
    const LXFileDescriptor told(ends[0]);
    const pid_t program = ::fork();
    if (program == 0) {
        auto child = LXChildProcess::start(shell(command));
        const QByteArray line = child ? child.value()->read().data : QByteArray("0\n");
        [[maybe_unused]] const auto n =
            ::write(ends[1], line.constData(), static_cast<std::size_t>(line.size()));
        while (true)
            ::pause();
    }
    ::close(ends[1]);
    char line[32] = {};
    QVERIFY(::read(told.get(), line, sizeof line - 1) > 0);
    const pid_t grandchild = QByteArray(line).split('\n').first().toInt();
    QVERIFY(grandchild > 0 && isAlive(grandchild));
    ::kill(program, SIGKILL);
    ::waitpid(program, nullptr, 0);
    QTRY_VERIFY(!isAlive(grandchild));
}

void TestChildProcess::destructorLeavesNothing()
{
    pid_t grandchild = 0;
    pid_t own = 0;
    {
        auto child = LXChildProcess::start(shell(QStringLiteral("sleep 60 & echo $!; wait")));
        QVERIFY(child);
        own = child.value()->processId();
        grandchild = child.value()->read().data.trimmed().toInt();
    }
    QVERIFY(::kill(own, 0) != 0);
    QTRY_VERIFY(!isAlive(grandchild));
}

QTEST_GUILESS_MAIN(TestChildProcess)
#include "tst_childprocess.moc"
