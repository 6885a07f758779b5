#include "TerminalRun.h"
#include "support/TestTree.h"

#include "util/LXFileName.h"
#include "util/LXRemoveTree.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>
#include <csignal>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

/// `corvane create` and `corvane convert`, as a script and as a person at a terminal would run them.
class tst_packing : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void makesEveryFormat_data();
    void makesEveryFormat();
    void packsByTheSettings();
    void wrongUse_data();
    void wrongUse();
    void newPassword_data();
    void newPassword();
    void twoPasswordsAreAskedForByName();
    void existing_data();
    void existing();
    void optionsWork();
    void namesThatAreNoTextComeBack_data();
    void namesThatAreNoTextComeBack();
    void tellsWhatIsLeftOut();
    void interrupted_data();
    void interrupted();
    void fullDisk_data();
    void fullDisk();

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
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    QByteArray noise(qsizetype size) const
    {
        QByteArray bytes(size, Qt::Uninitialized);
        quint32 state = 1;
        for (char &byte : bytes)
            byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
        return bytes;
    }
    void tool(const QString &program, const QStringList &arguments) const
    {
        QProcess process;
        process.setWorkingDirectory(m_root->path());
        process.start(program, arguments);
        QVERIFY2(process.waitForFinished(60000) && process.exitCode() == 0,
                 process.readAllStandardError().constData());
    }
    TerminalRun corvane(TerminalRun::Setup setup) const
    {
        setup.folder = m_root->path();
        setup.environment.push_back("TMPDIR=" + QFile::encodeName(path(u"tmp"_s)));
        return TerminalRun::run(QStringLiteral(CORVANE_BINARY), setup);
    }
    TerminalRun corvane(const QString &words) const
    {
        return corvane(TerminalRun::Setup{.arguments = words.split(u' ')});
    }
    QStringList names(const QString &folder) const
    {
        return QDir(path(folder))
            .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    }
    /// Files, a link and an empty folder in docs/, and the archive docs.7z of them.
    void makeInput() const;

    std::unique_ptr<QTemporaryDir> m_root;
};

void tst_packing::init()
{
    m_root = std::make_unique<QTemporaryDir>();
    QVERIFY(m_root->isValid());
    QDir(m_root->path()).mkdir(u"tmp"_s);
}

void tst_packing::cleanup()
{
    QVERIFY(removeTree(m_root->path())); // Qt's own removal does not find every name
}

void tst_packing::makeInput() const
{
    QDir(m_root->path()).mkpath(u"docs/empty"_s);
    write(u"docs/a.txt"_s, "words");
    write(u"docs/b"_s, noise(300000));
    QVERIFY(QFile::link(u"a.txt"_s, path(u"docs/link"_s)));
    tool(u"7z"_s, {u"a"_s, u"-bd"_s, u"-snl"_s, u"docs.7z"_s, u"docs"_s});
}

void tst_packing::makesEveryFormat_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<QString>("command");
    for (const char *format : {"zip", "7z", "corvane", "tar", "tar.gz", "tar.bz2", "tar.xz", "tar.Z"}) {
        QTest::addRow("create %s", format)
            << QString::fromLatin1(format) << u"create --format %1 --to new docs"_s;
        QTest::addRow("convert %s", format)
            << QString::fromLatin1(format) << u"convert --format %1 --to new docs.7z"_s;
    }
}

void tst_packing::makesEveryFormat()
{
    QFETCH(QString, format);
    QFETCH(QString, command);
    makeInput();
    const TestTree before = treeFromDisk(m_root->path());

    const TerminalRun run = corvane(command.arg(format));

    QVERIFY2(run.exitCode == 0, run.err.constData());
    QCOMPARE(run.outLines(), QStringList{path(u"new/docs."_s + format)});
    // Nothing but the one thing that somebody may not expect.
    QCOMPARE(run.err, format == u"tar.xz"
                          ? QByteArray("corvane: note: tar.xz is written without compression\n")
                          : QByteArray());
    QCOMPARE(names(u"new"_s), QStringList{u"docs."_s + format});
    QCOMPARE(names(u"tmp"_s), QStringList());
    QDir(m_root->path()).mkdir(u"back"_s);
    if (format == u"zip" || format == u"7z")
        tool(u"7z"_s, {u"x"_s, u"-bd"_s, u"-snl"_s, u"-oback"_s, u"new/docs."_s + format});
    else
        tool(u"bsdtar"_s, {u"-xf"_s, u"new/docs."_s + format, u"-C"_s, u"back"_s});
    const QStringList differences =
        treeDifferences(treeBelow(treeFromDisk(path(u"docs"_s)), "docs"), treeFromDisk(path(u"back"_s)));
    QVERIFY2(differences.isEmpty(), qPrintable(differences.join(u'\n')));
    const TestTree after = treeFromDisk(m_root->path(), {u"new"_s, u"back"_s, u".config"_s, u".local"_s});
    QCOMPARE(treeDifferences(before, after), QStringList());
    // An option is for its run only.
    QVERIFY(!read(u".config/corvane/corvane.conf"_s).contains("Format"));
}

void tst_packing::packsByTheSettings()
{
    makeInput();
    QDir(m_root->path()).mkpath(u".config/corvane"_s);
    write(u".config/corvane/corvane.conf"_s, "[General]\nCreateArchiveFormat = \"tar.gz\"\n");
    const TerminalRun folder = corvane(u"docs/"_s);
    QVERIFY2(folder.exitCode == 0, folder.err.constData());
    QVERIFY2(folder.outLines().first().startsWith(path(u"docs."_s)), folder.out.constData());
    write(u"one.txt"_s, "1");
    const TerminalRun several = corvane(u"docs one.txt"_s);
    QVERIFY2(several.outLines().first().startsWith(path(u"Archive."_s)), several.out.constData());
    // Whether this batch should be packed or unpacked nobody can know.
    const TerminalRun mixed = corvane(u"one.txt docs.7z"_s);
    QCOMPARE(mixed.exitCode, 1);
    QVERIFY2(mixed.err.contains("one.txt") && mixed.err.contains("create"), mixed.err.constData());
    QCOMPARE(mixed.out, QByteArray());
}

void tst_packing::wrongUse_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QByteArray>("password"); // in the environment
    QTest::addColumn<QByteArray>("mentions");
    QTest::newRow("no such file") << u"create --format zip docs none"_s << QByteArray() << QByteArray("none");
    QTest::newRow("no such archive") << u"convert --format zip none.7z"_s << QByteArray()
                                     << QByteArray("none.7z");
    QTest::newRow("a folder to convert")
        << u"convert --format zip docs"_s << QByteArray() << QByteArray("create");
    QTest::newRow("to itself") << u"convert --format 7z docs.7z"_s << QByteArray() << QByteArray("--name");
    QTest::newRow("in place of its file")
        << u"create --format 7z --name docs docs.7z"_s << QByteArray() << QByteArray("--name");
    QTest::newRow("in place of its file, by another way")
        << u"convert --format 7z --to ./docs/.. docs.7z"_s << QByteArray() << QByteArray("--name");
    QTest::newRow("two of one name") << u"create --format zip docs/a.txt ./a.txt"_s << QByteArray()
                                     << QByteArray("a.txt");
    QTest::newRow("everything") << u"create --format zip /"_s << QByteArray() << QByteArray("folder");
    QTest::newRow("more volumes than numbers")
        << u"create --format 7z --volume 70KB huge"_s << QByteArray() << QByteArray("999");
    QTest::newRow("beyond ASCII for zip")
        << u"create --format zip --encrypt docs"_s << QByteArray("p\xc3\xa4ss") << QByteArray("7z");
    QTest::newRow("beginning with =")
        << u"convert --format 7z --encrypt --name x docs.7z"_s << QByteArray("=x") << QByteArray("=");
    QTest::newRow("empty password file") << u"create --format 7z --encrypt --password-file nothing docs"_s
                                         << QByteArray() << QByteArray("empty");
    QTest::newRow("name too long with its extension")
        << u"create --format zip "_s + QString(250, u'n') << QByteArray() << QByteArray("--name");
}

void tst_packing::wrongUse()
{
    QFETCH(QString, words);
    QFETCH(QByteArray, password);
    QFETCH(QByteArray, mentions);
    makeInput();
    write(u"a.txt"_s, "another");
    write(u"nothing"_s, "\n");
    write(QString(250, u'n'), "x");
    write(u"huge"_s, {});
    QVERIFY(QFile::resize(path(u"huge"_s), 1'000'000'000)); // a hole
    const QStringList before = names(u"."_s);
    TerminalRun::Setup setup = {.arguments = words.split(u' ')};
    if (!password.isEmpty())
        setup.environment.push_back("CORVANE_PASSWORD=" + password);

    const TerminalRun run = corvane(setup);

    QVERIFY2(run.exitCode == 2, run.err.constData());
    QVERIFY2(run.err.contains(mentions), run.err.constData());
    QCOMPARE(run.err.count('\n'), 1);
    QCOMPARE(run.out, QByteArray());
    QStringList after = names(u"."_s);
    after.removeAll(u".config"_s);
    QCOMPARE(after, before);
}

void tst_packing::newPassword_data()
{
    QTest::addColumn<bool>("atTerminal");
    QTest::addColumn<QList<QByteArray>>("typed"); // to the prompts in turn
    QTest::addColumn<QByteArray>("environment");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("password"); // that the archive has
    const QByteArray none;
    QTest::newRow("typed twice") << true << QList<QByteArray>{"se cret\n", "se cret\n"} << none << 0
                                 << QByteArray("se cret");
    QTest::newRow("not the same, then the same")
        << true << QList<QByteArray>{"a\n", "b\n", "c\n", "c\n"} << none << 0 << QByteArray("c");
    QTest::newRow("never the same") << true << QList<QByteArray>{"a\n", "b\n", "a\n", "b\n", "a\n", "b\n"}
                                    << none << 3 << none;
    QTest::newRow("not fit, then fit")
        << true << QList<QByteArray>{"=a\n", "a\n", "a\n"} << none << 0 << QByteArray("a");
    QTest::newRow("Ctrl-D") << true << QList<QByteArray>{"\x04"} << none << 3 << none;
    QTest::newRow("Ctrl-C") << true << QList<QByteArray>{"x\x03"} << none << 130 << none;
    QTest::newRow("from the environment")
        << true << QList<QByteArray>{} << QByteArray("env $x") << 0 << QByteArray("env $x");
    QTest::newRow("nobody to ask") << false << QList<QByteArray>{} << none << 3 << none;
}

void tst_packing::newPassword()
{
    QFETCH(bool, atTerminal);
    QFETCH(QList<QByteArray>, typed);
    QFETCH(QByteArray, environment);
    QFETCH(int, status);
    QFETCH(QByteArray, password);
    makeInput();
    TerminalRun::Setup setup = {.arguments = u"create --format zip --encrypt --to new docs"_s.split(u' '),
                                .atTerminal = atTerminal};
    // What was refused is asked for anew, so not every second prompt is one for the second time.
    bool again = false;
    for (const QByteArray &line : typed) {
        setup.dialogue.push_back({again ? "once more: " : "Password for the new archive “docs.zip”: ", line});
        again = !again && !line.startsWith('=');
    }
    if (!environment.isEmpty())
        setup.environment.push_back("CORVANE_PASSWORD=" + environment);

    const TerminalRun run = corvane(setup);

    QVERIFY2(run.exitCode == status, run.err.constData());
    QVERIFY(run.echoAfterwards);
    QVERIFY2(!run.err.contains("cret"), run.err.constData());
    QCOMPARE(QFile::exists(path(u"new"_s)), status == 0); // made for nothing, so taken back
    if (status == 0) {
        tool(u"7z"_s, {u"t"_s, u"-p"_s + QString::fromUtf8(password), u"new/docs.zip"_s});
        QVERIFY(QProcess::execute(
                    u"7z"_s, {u"t"_s, u"-bso0"_s, u"-bse0"_s, u"-pwrong"_s, path(u"new/docs.zip"_s)}) != 0);
    }
}

void tst_packing::twoPasswordsAreAskedForByName()
{
    makeInput();
    tool(u"7z"_s, {u"a"_s, u"-mhe=on"_s, u"-pold"_s, u"locked.7z"_s, u"docs"_s});
    const TerminalRun run =
        corvane({.arguments = u"convert --format zip --encrypt --name new locked.7z"_s.split(u' '),
                 .atTerminal = true,
                 .dialogue = {{"Password for the new archive “new.zip”", "fresh\n"},
                              {"once more", "fresh\n"},
                              {"Please enter the password to open “locked.7z”", "wrong\n"},
                              {"please try again", "old\n"}}});
    QVERIFY2(run.exitCode == 0, run.err.constData());
    tool(u"7z"_s, {u"t"_s, u"-pfresh"_s, u"new.zip"_s});
    // One given password is for both.
    const TerminalRun both =
        corvane({.arguments = u"convert --format zip --encrypt --name both locked.7z"_s.split(u' '),
                 .environment = {"CORVANE_PASSWORD=old"}});
    QVERIFY2(both.exitCode == 0, both.err.constData());
    tool(u"7z"_s, {u"t"_s, u"-pold"_s, u"both.zip"_s});
    const TerminalRun wrong = corvane({.arguments = u"convert --format tar --name w locked.7z"_s.split(u' '),
                                       .environment = {"CORVANE_PASSWORD=no"}});
    QCOMPARE(wrong.exitCode, 3);
    QCOMPARE(names(u"."_s).filter(u".corvane-"_s) + names(u"tmp"_s), QStringList());
}

void tst_packing::existing_data()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<bool>("atTerminal");
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<int>("status");
    for (const char *command : {"create --format zip docs", "convert --format zip docs.7z"}) {
        const QString words = QString::fromLatin1(command);
        const QByteArray name = words.section(u' ', 0, 0).toLatin1();
        QTest::addRow("%s, yes", name.constData()) << words << true << QByteArray("y\n") << 0;
        QTest::addRow("%s, no", name.constData()) << words << true << QByteArray("n\n") << 1;
        QTest::addRow("%s, Ctrl-C", name.constData()) << words << true << QByteArray("\x03") << 130;
        QTest::addRow("%s, nobody there", name.constData()) << words << false << QByteArray() << 1;
        QTest::addRow("%s, agreed before", name.constData())
            << words + u" --replace"_s << false << QByteArray() << 0;
    }
}

void tst_packing::existing()
{
    QFETCH(QString, options);
    QFETCH(bool, atTerminal);
    QFETCH(QByteArray, answer);
    QFETCH(int, status);
    makeInput();
    write(u"docs.zip"_s, "an older one");
    TerminalRun::Setup setup = {.arguments = options.split(u' '), .atTerminal = atTerminal};
    if (!answer.isEmpty())
        setup.dialogue = {{"already exists. Do you want to replace it?", answer}};
    const TerminalRun run = corvane(setup);
    QVERIFY2(run.exitCode == status, run.err.constData());
    QCOMPARE(read(u"docs.zip"_s) == "an older one", status != 0);
    QCOMPARE(run.out.isEmpty(), status != 0);
    if (status == 1)
        QVERIFY2(run.err.contains("kept"), run.err.constData());
    QCOMPARE(names(u"."_s).filter(u".corvane-"_s) + names(u"tmp"_s), QStringList());
}

void tst_packing::optionsWork()
{
    makeInput();
    write(u"zeros"_s, QByteArray(1'000'000, '\0'));
    QCOMPARE(corvane(u"create --format zip --level 0 --name Stored.ZIP zeros"_s).outLines(),
             QStringList{path(u"Stored.ZIP"_s)});
    QVERIFY(QFileInfo(path(u"Stored.ZIP"_s)).size() > 1'000'000);
    QCOMPARE(corvane(u"create --format zip --level 9 zeros"_s).exitCode, 0);
    QVERIFY(QFileInfo(path(u"zeros.zip"_s)).size() < 10'000);
    QVERIFY(QDir().mkpath(path(u"v1.2"_s)));
    QCOMPARE(corvane(u"create --format tar v1.2"_s).outLines(), QStringList{path(u"v1.2.tar"_s)});
    const TerminalRun volumes = corvane(u"create --format 7z --volume 64KiB --name cut docs"_s);
    QCOMPARE(volumes.outLines(), QStringList{path(u"cut"_s)});
    QCOMPARE(QFileInfo(path(u"cut/cut.7z.001"_s)).size(), 65536);
    // Volumes are opened by any of them, and the name is that of the set.
    const TerminalRun converted = corvane(u"convert --format tar --to back cut/cut.7z.003"_s);
    QVERIFY2(converted.outLines() == QStringList{path(u"back/cut.tar"_s)}, converted.err.constData());
    const TerminalRun images = corvane(u"convert --format corvane --images 1 docs.7z"_s);
    QCOMPARE(images.exitCode, 0);
    QCOMPARE(images.err.count('\n'), 1);
    QVERIFY2(images.err.contains("images as they are"), images.err.constData());
}

void tst_packing::namesThatAreNoTextComeBack_data()
{
    QTest::addColumn<QString>("format");
    for (const char *format : {"zip", "7z", "corvane", "tar", "tar.gz"})
        QTest::newRow(format) << QString::fromLatin1(format);
}

void tst_packing::namesThatAreNoTextComeBack()
{
    QFETCH(QString, format);
    const QByteArray bytes = "\xff\xfe.bin";
    const QString name = fileNameFromBytes(bytes);
    QDir(m_root->path()).mkdir(u"in"_s);
    const QByteArray file = QFile::encodeName(path(u"in"_s)) + '/' + bytes;
    const int fd = ::open(file.constData(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    QVERIFY(fd >= 0 && ::write(fd, "odd", 3) == 3 && ::close(fd) == 0);

    const auto run = [this](const QStringList &words) {
        const TerminalRun result = corvane({.arguments = words});
        if (result.exitCode != 0)
            qWarning("%s: %s", qUtf8Printable(words.join(u' ')), result.err.constData());
        return result.exitCode == 0;
    };
    const auto isThere = [this](const QString &place) {
        struct stat info;
        return ::lstat(bytesOfFileName(path(place)).constData(), &info) == 0;
    };
    // The archive has an odd name, too.
    const QString archive = name + u'.' + format;
    QVERIFY(run({u"create"_s, u"--format"_s, format, u"--name"_s, archive, u"in"_s}));
    QVERIFY(isThere(archive));
    const TerminalRun list = corvane({.arguments = {u"list"_s, archive}});
    QVERIFY2(list.out.contains("in/\\u{dcff}\\u{dcfe}.bin"), list.out.constData());
    QVERIFY(run({u"extract"_s, u"--to"_s, u"all"_s, archive}));
    QVERIFY(isThere(u"all/in/"_s + name));
    QVERIFY(run({u"extract"_s, u"--to"_s, u"one"_s, u"--entry"_s, u"in/"_s + name, archive}));
    QVERIFY(isThere(u"one/"_s + name));
    QVERIFY(
        run({u"extract"_s, u"--to"_s, u"shown"_s, u"--entry"_s, u"in/\\u{dcff}\\u{dcfe}.bin"_s, archive}));
    QVERIFY(isThere(u"shown/"_s + name));
    QVERIFY(run({u"convert"_s, u"--format"_s, u"tar"_s, u"--to"_s, u"new"_s, archive}));
    QCOMPARE(QFile::exists(path(u"new"_s)), true);
    QVERIFY(run({u"extract"_s, u"--to"_s, u"again"_s, u"new/"_s + name + u".tar"}));
    QVERIFY(isThere(u"again/in/"_s + name));
}

void tst_packing::tellsWhatIsLeftOut()
{
    makeInput();
    QCOMPARE(::mkfifo(QFile::encodeName(path(u"docs/pipe"_s)).constData(), 0644), 0);
    const TerminalRun create = corvane(u"create --format zip docs"_s);
    QVERIFY2(create.exitCode == 4 && create.err.contains("pipe"), create.err.constData());
    // What the archive holds but the new one does not would be lost with it.
    tool(u"tar"_s, {u"-cf"_s, u"x.tar"_s, u"docs"_s});
    const TerminalRun convert = corvane(u"convert --format zip x.tar"_s);
    QVERIFY2(convert.exitCode == 4 && convert.err.contains("pipe"), convert.err.constData());
    QCOMPARE(convert.outLines(), QStringList{path(u"x.zip"_s)});
}

void tst_packing::interrupted_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<int>("signal");
    for (const int signal : {SIGINT, SIGKILL}) {
        const char *how = signal == SIGINT ? "Ctrl-C" : "killed";
        for (const char *format : {"zip", "7z", "corvane", "tar.bz2"}) {
            QTest::addRow("create %s, %s", format, how)
                << u"create --format %1 --to out docs"_s.arg(QLatin1StringView(format)) << signal;
            QTest::addRow("convert %s, %s", format, how)
                << u"convert --format %1 --to out docs.tar"_s.arg(QLatin1StringView(format)) << signal;
        }
    }
}

// While the archive is written: nothing under its name, and nothing left but what clean clears.
void tst_packing::interrupted()
{
    QFETCH(QString, words);
    QFETCH(int, signal);
    QDir(m_root->path()).mkdir(u"docs"_s);
    QDir(m_root->path()).mkdir(u"out"_s);
    write(u"docs/big"_s, noise(40'000'000));
    tool(u"tar"_s, {u"-cf"_s, u"docs.tar"_s, u"docs"_s});
    TerminalRun::Setup setup = {.arguments = words.split(u' ')};
    bool writing = false;
    setup.meanwhile = [&](pid_t pid) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!writing && std::chrono::steady_clock::now() < deadline) {
            // The work folders may hold the tree as well as the archive.
            QDirIterator files(path(u"out"_s), {u"docs.*"_s}, QDir::Files | QDir::Hidden,
                               QDirIterator::Subdirectories);
            writing = files.hasNext();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        ::kill(pid, signal);
    };
    const TerminalRun run = corvane(setup);
    QVERIFY(writing);
    QCOMPARE(run.out, QByteArray());
    if (signal == SIGINT) {
        QCOMPARE(run.exitCode, 130);
    } else {
        QCOMPARE(run.exitCode, 128 + SIGKILL);
        QCOMPARE(names(u"out"_s).filter(QRegularExpression(u"^[^.]"_s)), QStringList());
        // The tool ends with its parent, or soon after.
        for (int i = 0; i < 50 && !names(u"out"_s).isEmpty(); ++i) {
            QCOMPARE(corvane(u"clean"_s).exitCode, 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    QCOMPARE(names(u"out"_s), QStringList());
    QCOMPARE(names(u"tmp"_s), QStringList());
    QCOMPARE(QFileInfo(path(u"docs/big"_s)).size(), 40'000'000);
}

void tst_packing::fullDisk_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("small"); // the folder that is full
    for (const char *format : {"zip", "7z", "corvane", "tar", "tar.gz"}) {
        QTest::addRow("create %s", format)
            << u"create --format %1 --to out docs"_s.arg(QLatin1StringView(format)) << u"out"_s;
        QTest::addRow("convert to %s", format)
            << u"convert --format %1 --to out docs.tar"_s.arg(QLatin1StringView(format)) << u"out"_s;
    }
    QTest::newRow("unpacking to convert") << u"convert --format zip --to out docs.tar"_s << u"tmp"_s;
}

void tst_packing::fullDisk()
{
    QFETCH(QString, words);
    QFETCH(QString, small);
    if (::geteuid() != 0 || QProcess::execute(u"unshare"_s, {u"-m"_s, u"mount"_s, u"-t"_s, u"tmpfs"_s,
                                                             u"none"_s, m_root->path()}) != 0)
        QSKIP("Needs the right to mount a small file system.");
    makeInput();
    QDir(m_root->path()).mkdir(u"out"_s);
    write(u"docs/big"_s, noise(2'000'000));
    tool(u"tar"_s, {u"-cf"_s, u"docs.tar"_s, u"docs"_s});
    // An archive of the name is there already; what replaces it does not fit beside it.
    const QString script =
        u"mount -t tmpfs -o size=1m none %1 && for f in zip 7z corvane tar tar.gz; do echo old > "
        u"out/docs.$f; "
        "done; '%2' %3 --replace; s=$?; cat out/docs.*; ls -A out tmp | grep -v '^docs'; exit $s"_s.arg(
            small, QStringLiteral(CORVANE_BINARY), words);
    const TerminalRun run = TerminalRun::run(
        u"/usr/bin/unshare"_s, {.arguments = {u"-m"_s, u"/bin/sh"_s, u"-c"_s, script},
                                .folder = m_root->path(),
                                .environment = {"TMPDIR=" + QFile::encodeName(path(u"tmp"_s))}});
    const QByteArray seen = QByteArray::number(run.exitCode) + run.out + run.err;
    if (small == u"tmp") { // there is room where the result goes
        QVERIFY2(run.exitCode == 0, seen.constData());
        QVERIFY2(run.out.endsWith("out:\n\ntmp:\n"), seen.constData());
        return;
    }
    QVERIFY2(run.exitCode == 1, seen.constData());
    QVERIFY2(run.err.contains("full") || run.err.contains("enough disk space"), run.err.constData());
    QCOMPARE(run.out, QByteArray("old\nold\nold\nold\nold\nout:\n\ntmp:\n"));
}

QTEST_GUILESS_MAIN(tst_packing)
#include "tst_packing.moc"
