#include "TerminalRun.h"

#include "util/LXRemoveTree.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>
#include <csignal>
#include <random>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

/// `corvane split` and `corvane combine`, as a script and as a person at a terminal would run them.
class tst_splitting : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void otherToolsAgree_data();
    void otherToolsAgree();
    void combinesWhatIsNamed();
    void wrongUse_data();
    void wrongUse();
    void tellsWhichPartIsBad_data();
    void tellsWhichPartIsBad();
    void showsProgress();
    void interrupted_data();
    void interrupted();
    void killedWhileItDelivers_data();
    void killedWhileItDelivers();
    void fullDisk_data();
    void fullDisk();
    void setThatCannotBeWrittenTo();

private:
    QString path(const QString &name) const { return m_root->filePath(name); }
    void write(const QString &name, const QByteArray &content) const
    {
        QFile file(path(name));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
    }
    QByteArray read(const QString &name) const
    {
        QFile file(path(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("cannot be read");
    }
    /// Every third byte is zero, so that it can be compressed.
    QByteArray noise(qsizetype size) const
    {
        QByteArray bytes(size, '\0');
        quint32 state = 1;
        for (qsizetype i = 0; i < size; ++i)
            if (i % 3 != 0)
                bytes[i] = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
        return bytes;
    }
    QByteArray shell(const QString &script) const
    {
        QProcess process;
        process.setWorkingDirectory(m_root->path());
        process.start(u"sh"_s, {u"-c"_s, script});
        const bool good = process.waitForFinished(60000) && process.exitCode() == 0;
        return good ? process.readAllStandardOutput() : "failed: " + process.readAllStandardError();
    }
    TerminalRun corvane(TerminalRun::Setup setup) const
    {
        setup.folder = m_root->path();
        return TerminalRun::run(QStringLiteral(CORVANE_BINARY), setup);
    }
    TerminalRun corvane(const QString &words) const
    {
        return corvane(TerminalRun::Setup{.arguments = words.split(u' ', Qt::SkipEmptyParts)});
    }
    /// Runs it where file systems may be mounted. A script: $CORVANE is the program.
    bool canMount() const
    {
        return ::geteuid() == 0 && QProcess::execute(u"unshare"_s, {u"-m"_s, u"mount"_s, u"-t"_s, u"tmpfs"_s,
                                                                    u"none"_s, m_root->path()}) == 0;
    }
    TerminalRun withMounts(const QString &script) const
    {
        return TerminalRun::run(u"/usr/bin/unshare"_s, {.arguments = {u"-m"_s, u"/bin/sh"_s, u"-c"_s, script},
                                                        .folder = m_root->path(),
                                                        .environment = {"CORVANE=" CORVANE_BINARY}});
    }
    QStringList names(const QString &folder) const
    {
        return QDir(path(folder))
            .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    }

    std::unique_ptr<QTemporaryDir> m_root;
};

void tst_splitting::init()
{
    m_root = std::make_unique<QTemporaryDir>();
    QVERIFY(m_root->isValid());
}

void tst_splitting::cleanup()
{
    QVERIFY(removeTree(m_root->path()));
}

void tst_splitting::otherToolsAgree_data()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<int>("parts");
    QTest::addColumn<QString>("joins"); ///< the tool that does it
    const QString raw = u"cat set/data/data.bin.*.split"_s;
    const QString bzip2 = u"cat set/data/data.bin.*.zsplit | bzip2 -dc"_s;
    QTest::newRow("raw") << u"--size 1"_s << 3 << raw;
    QTest::newRow("raw with sums") << u"--size 0.1 --checksum"_s << 26 << raw;
    QTest::newRow("compressed") << u"--compress bzip2 --size 100 --unit kb"_s << 18 << bzip2;
    QTest::newRow("compressed with sums")
        << u"--checksum --compress=bzip2 --size=3000 --unit=B"_s << 608 << bzip2;
}

void tst_splitting::otherToolsAgree()
{
    QFETCH(QString, options);
    QFETCH(int, parts);
    QFETCH(QString, joins);
    write(u"data.bin"_s, noise(2'700'000));
    const TerminalRun cut = corvane(u"split --to set data.bin "_s + options);
    QVERIFY2(cut.exitCode == 0 && cut.err.isEmpty(), cut.err.constData());
    QCOMPARE(cut.outLines(), QStringList{path(u"set/data"_s)});
    const bool hasSums = options.contains(u"--checksum");
    const QStringList made = names(u"set/data"_s);
    QCOMPARE(made.size() - (hasSums ? 1 : 0), parts);
    QCOMPARE(shell(joins + u" | cmp - data.bin"), QByteArray());
    if (hasSums)
        QCOMPARE(
            shell(
                u"python3 -c 'import plistlib; [print(v, \"\", k) for k, v in plistlib.load("
                "open(\"set/data/data.bin.chksplit\", \"rb\")).items()]' | (cd set/data; sha1sum -c --quiet)"_s),
            QByteArray());
    // From any part, and from the list of sums.
    for (const QString &given : {made.first(), made[made.size() / 2], made.last()}) {
        const TerminalRun joined = corvane(u"combine --to back set/data/"_s + given);
        QVERIFY2(joined.exitCode == 0 && joined.err.isEmpty(), joined.err.constData());
        QCOMPARE(joined.outLines(), QStringList{path(u"back/data.bin"_s)});
        QCOMPARE(shell(u"cmp back/data.bin data.bin && rm back/data.bin"_s), QByteArray());
    }
    QCOMPARE(names(u"back"_s) + names(u"set"_s), QStringList{u"data"_s});
}

void tst_splitting::combinesWhatIsNamed()
{
    write(u"one"_s, noise(2500));
    write(u"two.txt"_s, noise(3500));
    // The files that it made, one path a line, are what the next command takes.
    QCOMPARE(corvane(u"split --size 1 --unit KB one"_s).outLines(), QStringList{path(u"one 2"_s)});
    QCOMPARE(corvane(u"split --size 1 --unit KB two.txt"_s).outLines(), QStringList{path(u"two"_s)});
    QCOMPARE(corvane(u"split two.txt"_s).outLines(), QStringList{path(u"two.txt.a.split"_s)});
    const TerminalRun both = corvane({.arguments = {u"combine"_s, u"one 2/one.c.split"_s,
                                                    u"two/two.txt.b.split"_s, u"one 2/one.a.split"_s}});
    QCOMPARE(both.exitCode, 0);
    QCOMPARE(both.outLines(), (QStringList{path(u"one 2/one"_s), path(u"two/two.txt"_s)}));
    QCOMPARE(shell(u"cmp one 'one 2/one' && cmp two.txt two/two.txt"_s), QByteArray());
    // One that works and one that does not.
    write(u"half.b.split"_s, "x");
    const TerminalRun mixed = corvane(u"combine --to new half.b.split two.txt.a.split"_s);
    QCOMPARE(mixed.exitCode, 4);
    QCOMPARE(mixed.outLines(), QStringList{path(u"new/two.txt"_s)});
    QVERIFY2(mixed.err.contains("half.a.split"), mixed.err.constData());
    // An empty file: no raw part, but one of a compressed set, which is joined to it again.
    write(u"none.dat"_s, {});
    QCOMPARE(corvane(u"split --to raw none.dat"_s).outLines(), QStringList{path(u"raw/none"_s)});
    QCOMPARE(names(u"raw/none"_s), QStringList());
    QCOMPARE(corvane(u"split --compress bzip2 none.dat"_s).outLines(),
             QStringList{path(u"none.dat.a.zsplit"_s)});
    QCOMPARE(corvane(u"combine --to back none.dat.a.zsplit"_s).outLines(),
             QStringList{path(u"back/none.dat"_s)});
    QCOMPARE(read(u"back/none.dat"_s), QByteArray());
    // Names are shown without what a terminal would obey.
    write(u"e\x1b[2J\n.c"_s, noise(2500));
    const TerminalRun odd = corvane({.arguments = {u"split"_s, u"--checksum"_s, u"e\x1b[2J\n.c"_s}});
    QVERIFY2(odd.exitCode == 1 && odd.err.contains("without checksums") && !odd.err.contains('\x1b'),
             odd.err.constData());
    const TerminalRun oddName = corvane({.arguments = {u"split"_s, u"e\x1b[2J\n.c"_s}});
    QCOMPARE(oddName.outLines().size(), 1);
    QVERIFY(oddName.exitCode == 0 && !oddName.out.contains('\x1b'));
}

void tst_splitting::wrongUse_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("mentions");
    QTest::newRow("no such file") << u"split none"_s << 2 << QByteArray("none");
    QTest::newRow("a folder") << u"split folder"_s << 2 << QByteArray("--volume");
    QTest::newRow("a pipe") << u"split pipe"_s << 2 << QByteArray("regular");
    QTest::newRow("into a file") << u"split --to file file"_s << 1 << QByteArray("file");
    QTest::newRow("a name without room")
        << u"split "_s + QString(250, u'n') << 1 << QByteArray("name too long");
    QTest::newRow("no part") << u"combine file"_s << 2 << QByteArray("no part");
    QTest::newRow("a part of no name") << u"combine .a.split"_s << 1 << QByteArray("no part");
    QTest::newRow("a folder called a part")
        << u"combine folder.a.split"_s << 1 << QByteArray("folder.a.split");
    QTest::newRow("a pipe called a part") << u"combine pipe.a.split"_s << 1 << QByteArray("pipe.a.split");
    QTest::newRow("only sums") << u"combine sums.chksplit"_s << 1 << QByteArray("single checksum file");
    QTest::newRow("more compressed than the names can number")
        << u"split --compress bzip2 --unit B --size 100 file"_s << 1 << QByteArray("without compression");
}

void tst_splitting::wrongUse()
{
    QFETCH(QString, words);
    QFETCH(QByteArray, mentions);
    write(u"file"_s, QByteArray::fromHex("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
    write(u".a.split"_s, "x");
    write(QString(250, u'n'), "x");
    write(u"sums.chksplit"_s, "<plist><dict></dict></plist>");
    QDir(m_root->path()).mkdir(u"folder"_s);
    QDir(m_root->path()).mkdir(u"folder.a.split"_s);
    QCOMPARE(::mkfifo(QFile::encodeName(path(u"pipe"_s)).constData(), 0600), 0);
    QCOMPARE(::mkfifo(QFile::encodeName(path(u"pipe.a.split"_s)).constData(), 0600), 0);
    if (words.contains(u"--unit B"))
        write(u"file"_s, noise(3880).replace('\0', "")); // 26 parts, as many as one letter numbers
    const QStringList before = names(u"."_s);
    const TerminalRun run = corvane(words);
    QTEST(run.exitCode, "status");
    QVERIFY2(run.err.contains(mentions), run.err.constData());
    QCOMPARE(run.out, QByteArray());
    QStringList after = names(u"."_s);
    after.removeIf([](const QString &name) { return name == u".config" || name == u".local"; });
    QCOMPARE(after, before);
}

void tst_splitting::tellsWhichPartIsBad_data()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<QString>("damage");
    QTest::addColumn<QByteArray>("mentions");
    const QString flip = u"printf XXXX | dd of=%1 bs=1 seek=50000 conv=notrunc status=none"_s;
    QTest::newRow("damaged, with sums")
        << u"--checksum"_s << flip.arg(u"data.b.split"_s) << QByteArray("“data.b.split” was modified");
    QTest::newRow("damaged, compressed")
        << u"--compress bzip2"_s << flip.arg(u"data.b.zsplit"_s) << QByteArray("“data.b.zsplit” is damaged");
    QTest::newRow("missing") << u""_s << u"rm data.b.split"_s << QByteArray("“data.b.split” is missing");
    QTest::newRow("cut off, compressed") << u"--compress bzip2"_s << u"rm data.c.zsplit"_s
                                         << QByteArray("after the part “data.b.zsplit” there are more");
    QTest::newRow("swapped") << u"--checksum"_s
                             << u"mv data.a.split x; mv data.b.split data.a.split; mv x data.b.split"_s
                             << QByteArray("“data.a.split” was modified");
    QTest::newRow("short") << u""_s << u"truncate -s -1 data.b.split"_s
                           << QByteArray("“data.b.split” has not the size");
}

void tst_splitting::tellsWhichPartIsBad()
{
    QFETCH(QString, options);
    QFETCH(QString, damage);
    QFETCH(QByteArray, mentions);
    write(u"data"_s, noise(6'000'000));
    QCOMPARE(corvane(u"split --size 1.5 --to set data "_s + options).exitCode, 0);
    QDir(m_root->path()).mkdir(u"out"_s);
    QCOMPARE(shell(u"cd 'set/data' && "_s + damage), QByteArray());
    const QString given = path(u"set/data/data.a."_s + (options.contains(u"bzip2") ? u"zsplit" : u"split"));
    const TerminalRun run = corvane({.arguments = {u"combine"_s, u"--to"_s, u"out"_s, given}});
    QCOMPARE(run.exitCode, 1);
    QVERIFY2(run.err.contains(mentions), run.err.constData());
    QVERIFY2(run.err.count("corvane: ") == 1, run.err.constData()); // no log beside the message
    QCOMPARE(run.out, QByteArray());
    QCOMPARE(names(u"out"_s), QStringList());
}

void tst_splitting::showsProgress()
{
    write(u"data"_s, noise(12'000'000));
    TerminalRun::Setup setup = {.arguments = u"split --size 1 --compress bzip2 --to set data"_s.split(u' '),
                                .atTerminal = true};
    const TerminalRun cut = corvane(setup);
    QCOMPARE(cut.exitCode, 0);
    QCOMPARE(cut.outLines(), QStringList{path(u"set/data"_s)});
    setup.arguments = u"combine --to back set/data/data.a.zsplit"_s.split(u' ');
    const TerminalRun joined = corvane(setup);
    QCOMPARE(joined.outLines(), QStringList{path(u"back/data"_s)});
    for (const TerminalRun &run : {cut, joined})
        QVERIFY2(run.err.contains(" MB of ") && run.err.contains('%'), run.err.constData());
    // Joining may be over before there is a rate.
    QVERIFY2(cut.err.contains("B/s") && cut.err.contains(" left"), cut.err.constData());
}

void tst_splitting::interrupted_data()
{
    QTest::addColumn<QString>("input"); ///< what is made: noise, or a large hole
    QTest::addColumn<QString>("cuts");  ///< options of a split that goes before; none: the split is the test
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("moment"); ///< the files in the work folder
    QTest::addColumn<int>("signal");
    for (const int signal : {SIGINT, SIGKILL}) {
        const char *how = signal == SIGINT ? "Ctrl-C" : "killed";
        QTest::addRow("reading, %s", how)
            << u"noise"_s << QString() << u"split --unit KB --size 1 --to out data"_s << u"*.split"_s
            << signal;
        QTest::addRow("compressing, %s", how)
            << u"noise"_s << QString() << u"split --size 1 --compress bzip2 --to out data"_s << u"*.zsplit"_s
            << signal;
        QTest::addRow("checksums, %s", how)
            << u"hole"_s << QString() << u"split --size 2 --unit GB --checksum --to out data"_s
            << u"data.b.split"_s << signal;
        QTest::addRow("verifying, %s", how)
            << u"hole"_s << u"--size 2 --unit GB --checksum"_s << u"combine --to out set/data/data.a.split"_s
            << QString() << signal;
        QTest::addRow("combining, %s", how)
            << u"noise"_s << u"--size 1 --unit KB"_s << u"combine --to out set/data/data.aaa.split"_s
            << u"data"_s << signal;
        QTest::addRow("decompressing, %s", how)
            << u"noise"_s << u"--size 1 --compress bzip2"_s << u"combine --to out set/data/data.a.zsplit"_s
            << u"data"_s << signal;
    }
}

// Nothing under a name that lasts, and nothing left but what clean clears.
void tst_splitting::interrupted()
{
    QFETCH(QString, input);
    QFETCH(QString, cuts);
    QFETCH(QString, words);
    QFETCH(QString, moment);
    QFETCH(int, signal);
    const QByteArray data = input == u"noise" ? noise(6'000'000) : QByteArray();
    write(u"data"_s, data);
    if (input == u"hole")
        QVERIFY(QFile::resize(path(u"data"_s), 4LL << 30));
    if (!cuts.isEmpty()) {
        const TerminalRun cut = corvane(u"split --to set data "_s + cuts);
        QVERIFY2(cut.exitCode == 0, cut.err.constData());
    }
    const QString script = u"find set data -type f -printf '%p %s %T@\\n' 2>&1 | sort"_s;
    const QByteArray before = shell(script + u" ; true"_s);
    QDir(m_root->path()).mkdir(u"out"_s);
    TerminalRun::Setup setup = {.arguments = words.split(u' ')};
    bool reached = false;
    setup.meanwhile = [&](pid_t pid) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!reached && std::chrono::steady_clock::now() < deadline) {
            if (moment.isEmpty()) {
                reached = !names(u"out"_s).isEmpty();
            } else {
                QDirIterator files(path(u"out"_s), {moment}, QDir::Files | QDir::Hidden,
                                   QDirIterator::Subdirectories);
                reached = files.hasNext();
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        // A few moments later, so that the stage has begun and the work folder is on the list.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ::kill(pid, signal);
    };
    const TerminalRun run = corvane(setup);
    QVERIFY(reached);
    QCOMPARE(run.out, QByteArray());
    QCOMPARE(run.exitCode, signal == SIGINT ? 130 : 128 + SIGKILL);
    if (signal == SIGKILL) {
        const QStringList left = names(u"out"_s);
        QCOMPARE(left.size(), 1);
        QVERIFY(left.first().startsWith(u".corvane-"));
        QVERIFY(read(u".config/corvane/corvane.conf"_s).contains(left.first().toUtf8()));
        QCOMPARE(corvane(u"clean"_s).exitCode, 0);
    }
    QCOMPARE(names(u"out"_s), QStringList());
    QVERIFY(!corvane(u"clean"_s).err.contains("removed"));
    QCOMPARE(shell(script + u" ; true"_s), before);
    if (input == u"noise")
        QVERIFY(read(u"data"_s) == data);
}

void tst_splitting::killedWhileItDelivers_data()
{
    QTest::addColumn<QString>("cuts"); ///< options of a split that goes before; none: the split is the test
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("proof"); ///< compares the result
    QTest::newRow("split") << QString() << u"split --size 1 --to out data.bin"_s
                           << u"cat out/data/*.split | cmp - data.bin"_s;
    QTest::newRow("combine") << u"--size 1"_s << u"combine --to out set/data/data.bin.a.split"_s
                             << u"cmp out/data.bin data.bin"_s;
    QTest::newRow("combine, compressed")
        << u"--compress bzip2 --size 1"_s << u"combine --to out set/data/data.bin.a.zsplit"_s
        << u"cmp out/data.bin data.bin"_s;
}

// There is the whole result or none, and nothing beside it that clean does not clear. The moment comes closer
// to that of the delivery from run to run: earlier after one that delivered, later after one that did not.
void tst_splitting::killedWhileItDelivers()
{
    QFETCH(QString, cuts);
    QFETCH(QString, words);
    QFETCH(QString, proof);
    write(u"data.bin"_s, noise(3'504'000));
    if (!cuts.isEmpty())
        QCOMPARE(corvane(u"split --to set data.bin "_s + cuts).exitCode, 0);
    std::mt19937 random(1);
    int delay = 2000; // microseconds after the first file
    for (int round = 0; round < 15; ++round) {
        QDir(m_root->path()).mkdir(u"out"_s);
        TerminalRun::Setup setup = {.arguments = words.split(u' ')};
        bool reached = false;
        setup.meanwhile = [&](pid_t pid) {
            using Clock = std::chrono::steady_clock;
            const auto deadline = Clock::now() + std::chrono::seconds(30);
            while (!reached && Clock::now() < deadline)
                reached =
                    QDirIterator(path(u"out"_s), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories)
                        .hasNext();
            const auto moment =
                Clock::now() + std::chrono::microseconds(delay * static_cast<int>(90 + random() % 20) / 100);
            while (Clock::now() < moment)
                std::this_thread::yield();
            ::kill(pid, SIGKILL);
        };
        const TerminalRun run = corvane(setup);
        QVERIFY(reached);
        QStringList left = names(u"out"_s);
        left.removeIf([](const QString &name) { return name.startsWith(u".corvane-"); });
        if (!left.isEmpty())
            QCOMPARE(shell(proof), QByteArray());
        // What was told is there; what is there need not have been told.
        QVERIFY(run.out.isEmpty() || left.size() == 1);
        QCOMPARE(corvane(u"clean"_s).exitCode, 0);
        QCOMPARE(names(u"out"_s), left);
        delay = left.isEmpty() ? delay * 5 / 4 + 10 : delay * 3 / 4;
        QVERIFY(removeTree(path(u"out"_s)));
    }
}

void tst_splitting::fullDisk_data()
{
    QTest::addColumn<QString>("cuts");
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("space");
    QTest::newRow("split") << QString() << u"split --size 1"_s << u"size=2m"_s;
    QTest::newRow("split and compress") << QString() << u"split --size 1 --compress bzip2"_s << u"size=2m"_s;
    QTest::newRow("split, no more files") << QString() << u"split --size 1"_s << u"nr_inodes=4"_s;
    QTest::newRow("split, none for the sums")
        << QString() << u"split --size 1 --checksum"_s << u"nr_inodes=5"_s;
    QTest::newRow("combine") << u"--size 1"_s << u"combine"_s << u"size=2m"_s;
    QTest::newRow("combine with sums") << u"--size 1 --checksum"_s << u"combine"_s << u"size=2m"_s;
    QTest::newRow("decompress") << u"--size 1 --compress bzip2"_s << u"combine"_s << u"size=2m"_s;
}

void tst_splitting::fullDisk()
{
    QFETCH(QString, cuts);
    QFETCH(QString, words);
    QFETCH(QString, space);
    if (!canMount())
        QSKIP("Needs the right to mount a small file system.");
    write(u"data"_s, noise(3 << 20));
    QDir(m_root->path()).mkdir(u"out"_s);
    QString given = u"data"_s;
    if (!cuts.isEmpty()) {
        QCOMPARE(corvane(u"split --to set data "_s + cuts).exitCode, 0);
        given = u"set/data/data.a."_s + (cuts.contains(u"bzip2") ? u"zsplit" : u"split");
    }
    const QByteArray before = shell(u"find set data -type f 2>/dev/null | sort | xargs sha1sum"_s);
    const TerminalRun run = withMounts(u"mount -t tmpfs -o %1 none out; \"$CORVANE\" %2 --to out %3; s=$?; "
                                       "ls -A out; \"$CORVANE\" clean; exit $s"_s.arg(space, words, given));
    QVERIFY2(run.exitCode == 1, QByteArray(run.out + run.err).constData());
    QVERIFY2(run.err.contains("because the disk is full") || run.err.contains("enough disk space"),
             run.err.constData());
    QCOMPARE(run.out, QByteArray());
    QVERIFY2(!run.err.contains("removed"), run.err.constData());
    QCOMPARE(shell(u"find set data -type f 2>/dev/null | sort | xargs sha1sum"_s), before);
}

void tst_splitting::setThatCannotBeWrittenTo()
{
    if (!canMount())
        QSKIP("Needs the right to mount a small file system.");
    write(u"data"_s, noise(25'000));
    QCOMPARE(corvane(u"split --size 10 --unit KB --checksum --to set data"_s).exitCode, 0);
    QDir(m_root->path()).mkdir(u"out"_s);
    const TerminalRun run =
        withMounts(u"mount --bind set set && mount -o remount,ro,bind set && \"$CORVANE\" combine "
                   u"set/data/data.b.split; "
                   "\"$CORVANE\" combine --to out set/data/data.b.split && cmp out/data data"_s);
    QVERIFY2(run.exitCode == 0, run.err.constData());
    QCOMPARE(run.outLines(), QStringList{path(u"out/data"_s)});
    QCOMPARE(run.err.count("corvane: "), 1);
}

QTEST_GUILESS_MAIN(tst_splitting)
#include "tst_splitting.moc"
