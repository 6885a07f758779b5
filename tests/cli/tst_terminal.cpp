#include "TerminalRun.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSettings>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>
#include <csignal>
#include <thread>

#include <unistd.h>

using namespace Qt::StringLiterals;

/// Runs the program itself, as a script and as a person at a terminal would.
class tst_terminal : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void exitStatus_data();
    void exitStatus();
    void resultsAreOneEscapedPathALine();
    void takesNamesThatLookLikeOptions();
    void makesTheDestination();
    void extractsChosenEntries();
    void deletesOnlyWhenAsked();
    void listsAsJson();
    void listsAsTable();
    void passwordWithoutTerminal_data();
    void passwordWithoutTerminal();
    void passwordTyped_data();
    void passwordTyped();
    void asksWhetherToGoOn_data();
    void asksWhetherToGoOn();
    void stopsOnInterrupt();
    void cleansUpAfterACrash();
    void destinationCannotTakeIt_data();
    void destinationCannotTakeIt();
    void thousandArchives();

private:
    QString path(const QString &name) const { return m_root->filePath(name); }
    void write(const QString &name, const QByteArray &content) const
    {
        QFile file(path(name));
        if (file.open(QIODevice::WriteOnly))
            file.write(content);
    }
    void archive(const QString &name, const QStringList &files, const QStringList &options = {}) const;
    TerminalRun corvane(const QStringList &arguments) const
    {
        return TerminalRun::run(QStringLiteral(CORVANE_BINARY),
                                {.arguments = arguments, .folder = m_root->path()});
    }
    TerminalRun corvane(TerminalRun::Setup setup) const
    {
        setup.folder = m_root->path();
        return TerminalRun::run(QStringLiteral(CORVANE_BINARY), setup);
    }
    QStringList names(const QString &folder) const
    {
        return QDir(path(folder))
            .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    }

    std::unique_ptr<QTemporaryDir> m_root;
};

void tst_terminal::init()
{
    m_root = std::make_unique<QTemporaryDir>();
    QVERIFY(m_root->isValid());
}

// Packs files of the test's folder, and removes them.
void tst_terminal::archive(const QString &name, const QStringList &files, const QStringList &options) const
{
    QProcess tool;
    tool.setWorkingDirectory(m_root->path());
    tool.start(u"7z"_s,
               QStringList{u"a"_s, u"-bd"_s, u"-snl"_s} + options + QStringList{u"--"_s, name} + files);
    QVERIFY2(tool.waitForFinished(60000) && tool.exitCode() == 0, tool.readAllStandardOutput().constData());
    for (const QString &file : files) {
        if (QFileInfo(path(file)).isDir())
            QDir(path(file)).removeRecursively();
        else
            QFile::remove(path(file));
    }
}

void tst_terminal::exitStatus_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("mentions"); // on standard error
    QTest::newRow("help") << QStringList{u"--help"_s} << 0 << QByteArray();
    QTest::newRow("version") << QStringList{u"--version"_s} << 0 << QByteArray();
    QTest::newRow("nothing") << QStringList{} << 2 << QByteArray("--help");
    QTest::newRow("unknown option") << QStringList{u"extract"_s, u"--fast"_s, u"good.zip"_s} << 2
                                    << QByteArray("--fast");
    QTest::newRow("command of another version")
        << QStringList{u"install-rar"_s} << 2 << QByteArray("install-rar");
    QTest::newRow("good") << QStringList{u"extract"_s, u"good.zip"_s} << 0 << QByteArray();
    QTest::newRow("no command") << QStringList{u"good.zip"_s} << 0 << QByteArray();
    QTest::newRow("not an archive by name")
        << QStringList{u"good.zip"_s, u"notes.txt"_s} << 1 << QByteArray("notes.txt");
    QTest::newRow("missing") << QStringList{u"extract"_s, u"none.zip"_s} << 1 << QByteArray("none.zip");
    QTest::newRow("missing, list") << QStringList{u"list"_s, u"none.zip"_s} << 1 << QByteArray("none.zip");
    QTest::newRow("a folder") << QStringList{u"extract"_s, u"folder"_s} << 1 << QByteArray("folder");
    QTest::newRow("a folder, list") << QStringList{u"list"_s, u"folder"_s} << 1 << QByteArray("folder");
    QTest::newRow("a device") << QStringList{u"list"_s, u"/dev/zero"_s} << 1 << QByteArray("/dev/zero");
    QTest::newRow("empty") << QStringList{u"extract"_s, u"empty.zip"_s} << 1 << QByteArray("empty.zip");
    QTest::newRow("text") << QStringList{u"extract"_s, u"notes.txt"_s} << 1 << QByteArray("notes.txt");
    QTest::newRow("text, list") << QStringList{u"list"_s, u"notes.txt"_s} << 1 << QByteArray("notes.txt");
    QTest::newRow("cut off") << QStringList{u"extract"_s, u"cut.zip"_s} << 1 << QByteArray("cut.zip");
    QTest::newRow("one of two missing")
        << QStringList{u"extract"_s, u"none.zip"_s, u"good.zip"_s} << 4 << QByteArray("none.zip");
    QTest::newRow("one of two bad, the last")
        << QStringList{u"extract"_s, u"good.zip"_s, u"notes.txt"_s} << 4 << QByteArray("notes.txt");
    QTest::newRow("one of two bad, the first")
        << QStringList{u"extract"_s, u"cut.zip"_s, u"good.zip"_s} << 4 << QByteArray("cut.zip");
    QTest::newRow("list, one of two missing")
        << QStringList{u"list"_s, u"none.zip"_s, u"good.zip"_s} << 4 << QByteArray("none.zip");
    QTest::newRow("destination is a file")
        << QStringList{u"extract"_s, u"--to"_s, u"notes.txt"_s, u"good.zip"_s} << 1
        << QByteArray("notes.txt");
    QTest::newRow("entry that is not there")
        << QStringList{u"extract"_s, u"--entry"_s, u"zzz"_s, u"good.zip"_s} << 1 << QByteArray("zzz");
    QTest::newRow("entry that climbs")
        << QStringList{u"extract"_s, u"--entry"_s, u"../notes.txt"_s, u"good.zip"_s} << 1
        << QByteArray("notes.txt");
    QTest::newRow("password file missing")
        << QStringList{u"extract"_s, u"--password-file"_s, u"none"_s, u"good.zip"_s} << 3
        << QByteArray("none");
    QTest::newRow("nothing to clean") << QStringList{u"clean"_s} << 0 << QByteArray();
}

void tst_terminal::exitStatus()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, status);
    QFETCH(QByteArray, mentions);
    write(u"a.txt"_s, QByteArray(100000, 'x'));
    archive(u"good.zip"_s, {u"a.txt"_s});
    write(u"notes.txt"_s, "just some words\n");
    write(u"empty.zip"_s, {});
    QDir(m_root->path()).mkdir(u"folder"_s);
    QFile good(path(u"good.zip"_s));
    QVERIFY(good.open(QIODevice::ReadOnly));
    write(u"cut.zip"_s, good.readAll().left(60));
    const QStringList before = names(u"."_s);

    const TerminalRun run = corvane(arguments);

    QVERIFY2(run.exitCode == status, run.err.constData());
    QVERIFY2(run.err.contains(mentions), run.err.constData());
    // Whoever fails says so; whoever extracts nothing leaves nothing.
    QCOMPARE(run.err.isEmpty(), status == 0 && arguments != QStringList{u"clean"_s});
    QStringList after = names(u"."_s);
    after.removeAll(u".config"_s);
    after.removeAll(u"a.txt"_s);
    QCOMPARE(after, before);
    QCOMPARE(QFile::exists(path(u"a.txt"_s)),
             !run.out.isEmpty() && (arguments.first() == u"extract"_s || arguments.first() == u"good.zip"_s));
}

void tst_terminal::resultsAreOneEscapedPathALine()
{
    const QString name = u"line\nbreak\x1b[2J"_s;
    write(name, "x");
    archive(u"a.zip"_s, {name});
    const TerminalRun run = corvane({u"extract"_s, u"a.zip"_s});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, path(u"line\\nbreak\\x1b[2J\n"_s).toUtf8());
    QVERIFY(QFile::exists(path(name)));
    const TerminalRun list = corvane({u"list"_s, u"a.zip"_s});
    QCOMPARE(list.out, QByteArray("line\\nbreak\\x1b[2J\n"));
}

void tst_terminal::takesNamesThatLookLikeOptions()
{
    write(u"a"_s, "x");
    archive(u"-x.zip"_s, {u"a"_s});
    QCOMPARE(corvane({u"extract"_s, u"-x.zip"_s}).exitCode, 2);
    QCOMPARE(corvane({u"extract"_s, u"--"_s, u"-x.zip"_s}).outLines(), QStringList{path(u"a"_s)});
}

void tst_terminal::makesTheDestination()
{
    write(u"a"_s, "x");
    archive(u"a.zip"_s, {u"a"_s});
    write(u"bad.zip"_s, "no archive");
    QCOMPARE(corvane({u"extract"_s, u"--to"_s, u"new/er"_s, u"bad.zip"_s}).exitCode, 1);
    QVERIFY(!QFile::exists(path(u"new"_s))); // made for nothing, so taken back
    const TerminalRun run = corvane({u"extract"_s, u"--to"_s, u"new/er"_s, u"a.zip"_s});
    QCOMPARE(run.outLines(), QStringList{path(u"new/er/a"_s)});
    QCOMPARE(names(u"new/er"_s), QStringList{u"a"_s});
    // However the way there is written, the result's path is the plain one.
    QDir(m_root->path()).mkdir(u"in"_s);
    QVERIFY(QFile::link(path(u"in"_s), path(u"new/link"_s)));
    QVERIFY(QFile::copy(path(u"a.zip"_s), path(u"in/a.zip"_s)));
    QCOMPARE(corvane({u"extract"_s, u"./new/link/../in//a.zip"_s}).outLines(), QStringList{path(u"in/a"_s)});
    QCOMPARE(corvane({u"extract"_s, u"--to"_s, u"./new/link/."_s, u"a.zip"_s}).outLines(),
             QStringList{path(u"in/a 2"_s)});
    // For this run only.
    QCOMPARE(corvane({u"extract"_s, u"a.zip"_s}).outLines(), QStringList{path(u"a"_s)});
}

void tst_terminal::extractsChosenEntries()
{
    QDir(m_root->path()).mkpath(u"docs/sub"_s);
    write(u"docs/sub/b"_s, "b");
    write(u"docs/a"_s, "a");
    write(u"c"_s, "c");
    archive(u"x.7z"_s, {u"docs"_s, u"c"_s});
    const TerminalRun run = corvane(
        {u"extract"_s, u"--to"_s, u"out"_s, u"--entry"_s, u"docs/sub"_s, u"--entry"_s, u"c"_s, u"x.7z"_s});
    QVERIFY2(run.exitCode == 0, run.err.constData());
    QCOMPARE(run.outLines(), QStringList({path(u"out/sub"_s), path(u"out/c"_s)}));
    QCOMPARE(names(u"out"_s), QStringList({u"c"_s, u"sub"_s}));
    QCOMPARE(names(u"out/sub"_s), QStringList{u"b"_s});
}

void tst_terminal::deletesOnlyWhenAsked()
{
    write(u"a"_s, "x");
    archive(u"a.zip"_s, {u"a"_s});
    QCOMPARE(corvane({u"extract"_s, u"--to"_s, u"out"_s, u"a.zip"_s}).exitCode, 0);
    QVERIFY(QFile::exists(path(u"a.zip"_s)));
    QCOMPARE(corvane({u"extract"_s, u"--to"_s, u"out"_s, u"--after"_s, u"delete"_s, u"a.zip"_s}).exitCode, 0);
    QVERIFY(!QFile::exists(path(u"a.zip"_s)));
    QCOMPARE(names(u"out"_s), QStringList({u"a"_s, u"a 2"_s}));
}

void tst_terminal::listsAsJson()
{
    QDir(m_root->path()).mkdir(u"docs"_s);
    write(u"docs/a \"b\""_s, "12345");
    QVERIFY(QFile::link(u"a \"b\""_s, path(u"docs/link"_s)));
    archive(u"x.tar"_s, {u"docs"_s}, {u"-ttar"_s});
    write(u"c"_s, "");
    archive(u"y.zip"_s, {u"c"_s});
    const TerminalRun run = corvane({u"list"_s, u"--json"_s, u"x.tar"_s, u"y.zip"_s});
    QVERIFY2(run.exitCode == 0, run.err.constData());
    const QStringList lines = run.outLines();
    QCOMPARE(lines.size(), 2);
    const QJsonObject object = QJsonDocument::fromJson(lines[0].toUtf8()).object();
    QCOMPARE(object[u"path"_s].toString(), u"x.tar"_s);
    QCOMPARE(object[u"encrypted"_s].toBool(true), false);
    QVERIFY(!object[u"format"_s].toString().isEmpty());
    QHash<QString, QJsonObject> entries;
    for (const auto &entry : object[u"entries"_s].toArray())
        entries.insert(entry.toObject()[u"path"_s].toString(), entry.toObject());
    QCOMPARE(entries.size(), 3);
    QCOMPARE(entries[u"docs"_s][u"type"_s].toString(), u"dir"_s);
    QCOMPARE(entries[u"docs/a \"b\""_s][u"type"_s].toString(), u"file"_s);
    QCOMPARE(entries[u"docs/a \"b\""_s][u"size"_s].toInt(), 5);
    QVERIFY(QDateTime::fromString(entries[u"docs/a \"b\""_s][u"modified"_s].toString(), Qt::ISODate)
                .secsTo(QDateTime::currentDateTime()) < 3600);
    QCOMPARE(entries[u"docs/link"_s][u"type"_s].toString(), u"symlink"_s);
    QCOMPARE(entries[u"docs/link"_s][u"target"_s].toString(), u"a \"b\""_s);
    QCOMPARE(QJsonDocument::fromJson(lines[1].toUtf8()).object()[u"path"_s].toString(), u"y.zip"_s);
}

void tst_terminal::listsAsTable()
{
    write(u"a"_s, QByteArray(1234, 'x'));
    archive(u"a.zip"_s, {u"a"_s});
    // The table is for people: the run's standard output has to be the terminal.
    TerminalRun::Setup setup = {
        .arguments = {u"-c"_s, u"exec '%1' list a.zip >/dev/tty"_s.arg(QStringLiteral(CORVANE_BINARY))},
        .folder = m_root->path(),
        .atTerminal = true};
    const TerminalRun run = TerminalRun::run(u"/bin/sh"_s, setup);
    QCOMPARE(run.exitCode, 0);
    QVERIFY2(run.err.contains("1234") && run.err.contains("1 file and 0 folders"), run.err.constData());
}

void tst_terminal::passwordWithoutTerminal_data()
{
    QTest::addColumn<QString>("archiveName");
    QTest::addColumn<QByteArray>("environment");
    QTest::addColumn<QByteArray>("input"); // with --password-file -
    QTest::addColumn<int>("status");
    QTest::addColumn<int>("listStatus");
    for (const QString &name : {u"data.zip"_s, u"data.7z"_s, u"names.7z"_s}) {
        const QByteArray right = name.endsWith(u"zip") ? "pa ss" : "pä ss";
        const int listLocked = name == u"names.7z" ? 3 : 0;
        const QByteArray tag = name.toUtf8();
        QTest::addRow("%s, none", tag.constData()) << name << QByteArray() << QByteArray() << 3 << listLocked;
        QTest::addRow("%s, wrong", tag.constData())
            << name << QByteArray("wrong") << QByteArray() << 3 << listLocked;
        QTest::addRow("%s, environment", tag.constData()) << name << right << QByteArray() << 0 << 0;
        QTest::addRow("%s, standard input", tag.constData())
            << name << QByteArray() << QByteArray(right + "\n") << 0 << 0;
        QTest::addRow("%s, two newlines", tag.constData())
            << name << QByteArray() << QByteArray(right + "\n\n") << 3 << listLocked;
    }
}

void tst_terminal::passwordWithoutTerminal()
{
    QFETCH(QString, archiveName);
    QFETCH(QByteArray, environment);
    QFETCH(QByteArray, input);
    QFETCH(int, status);
    QFETCH(int, listStatus);
    write(u"a"_s, "secret");
    QStringList options = {archiveName.endsWith(u"zip") ? u"-ppa ss"_s : u"-ppä ss"_s};
    if (archiveName == u"names.7z")
        options.append(u"-mhe=on"_s);
    if (archiveName.endsWith(u"zip"))
        options.append(u"-mem=AES256"_s);
    archive(archiveName, {u"a"_s}, options);
    TerminalRun::Setup setup;
    if (!environment.isEmpty())
        setup.environment.push_back("CORVANE_PASSWORD=" + environment);
    setup.input = input;
    const QStringList option = input.isEmpty() ? QStringList() : QStringList{u"--password-file"_s, u"-"_s};

    setup.arguments = QStringList{u"extract"_s, u"--to"_s, u"out"_s} + option + QStringList{archiveName};
    const TerminalRun run = corvane(setup);
    QVERIFY2(run.exitCode == status, run.err.constData());
    QCOMPARE(QFile::exists(path(u"out/a"_s)), status == 0);
    QCOMPARE(QFile::exists(path(u"out"_s)), status == 0);

    setup.arguments = QStringList{u"list"_s} + option + QStringList{archiveName};
    const TerminalRun list = corvane(setup);
    QVERIFY2(list.exitCode == listStatus, list.err.constData());
}

void tst_terminal::passwordTyped_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QList<QByteArray>>("typed");
    QTest::addColumn<int>("status");
    QTest::addColumn<int>("questions");
    for (const QString &command : {u"extract"_s, u"list"_s}) {
        const QByteArray tag = command.toUtf8();
        QTest::addRow("%s, right", tag.constData()) << command << QList<QByteArray>{"hidden\n"} << 0 << 1;
        QTest::addRow("%s, wrong, then right", tag.constData())
            << command << QList<QByteArray>{"no\n", "hidden\n"} << 0 << 2;
        QTest::addRow("%s, wrong three times", tag.constData())
            << command << QList<QByteArray>{"x\n", "y\n", "z\n"} << 3 << 3;
        QTest::addRow("%s, nothing (Ctrl-D)", tag.constData())
            << command << QList<QByteArray>{"\x04"} << 3 << 1;
        QTest::addRow("%s, Ctrl-C", tag.constData()) << command << QList<QByteArray>{"hid\x03"} << 130 << 1;
    }
}

void tst_terminal::passwordTyped()
{
    QFETCH(QString, command);
    QFETCH(QList<QByteArray>, typed);
    QFETCH(int, status);
    QFETCH(int, questions);
    write(u"a"_s, "secret");
    archive(u"x.7z"_s, {u"a"_s}, {u"-phidden"_s, u"-mhe=on"_s});
    TerminalRun::Setup setup = {.arguments = {command, u"x.7z"_s}, .atTerminal = true};
    for (qsizetype i = 0; i < typed.size(); ++i)
        setup.dialogue.push_back(
            {i == 0 ? "Please enter the password to open “x.7z”" : "please try again.", typed[i]});
    const TerminalRun run = corvane(setup);
    QVERIFY2(run.exitCode == status, run.err.constData());
    QCOMPARE(run.err.count("Please enter") + run.err.count("try again"), questions);
    QVERIFY2(!run.err.contains("hid"), run.err.constData());
    QVERIFY(run.echoAfterwards);
    QCOMPARE(names(u"."_s).filter(u".corvane-"_s).size(), 0);
    QCOMPARE(QFile::exists(path(u"a"_s)), status == 0 && command == u"extract");
}

void tst_terminal::asksWhetherToGoOn_data()
{
    QTest::addColumn<bool>("atTerminal");
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<int>("status");
    QTest::newRow("yes") << true << QByteArray("y\n") << 4;
    QTest::newRow("no") << true << QByteArray("\n") << 1;
    QTest::newRow("nobody there") << false << QByteArray() << 4;
}

void tst_terminal::asksWhetherToGoOn()
{
    QFETCH(bool, atTerminal);
    QFETCH(QByteArray, answer);
    QFETCH(int, status);
    write(u"b"_s, "x");
    archive(u"b.zip"_s, {u"b"_s});
    write(u"a.zip"_s, "no archive");
    const TerminalRun run = corvane({.arguments = {u"extract"_s, u"a.zip"_s, u"b.zip"_s},
                                     .atTerminal = atTerminal,
                                     .dialogue = {{"Go on", answer}}});
    QVERIFY2(run.exitCode == status, run.err.constData());
    QCOMPARE(QFile::exists(path(u"b"_s)), status == 4);
}

// Sent while the work directory fills: status 130, and neither it nor anything else is left.
void tst_terminal::stopsOnInterrupt()
{
    {
        QFile big(path(u"big"_s));
        QVERIFY(big.open(QIODevice::WriteOnly));
        QByteArray block(1 << 20, Qt::Uninitialized);
        for (int i = 0; i < 400; ++i) {
            for (qsizetype at = 0; at < block.size(); at += 64)
                block[at] = static_cast<char>(i + at / 64);
            big.write(block);
        }
    }
    archive(u"big.zip"_s, {u"big"_s}, {u"-mx0"_s});
    QDir(m_root->path()).mkdir(u"out"_s);
    bool started = false;
    TerminalRun::Setup setup = {.arguments = {u"extract"_s, u"--to"_s, u"out"_s, u"big.zip"_s}};
    setup.meanwhile = [&](pid_t pid) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!started && std::chrono::steady_clock::now() < deadline) {
            started = !names(u"out"_s).isEmpty();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        ::kill(pid, SIGINT);
    };
    const TerminalRun run = corvane(setup);
    QVERIFY(started);
    QCOMPARE(run.exitCode, 130);
    QCOMPARE(names(u"out"_s), QStringList());
    QVERIFY(QFile::exists(path(u"big.zip"_s)));
    QVERIFY(!corvane({u"clean"_s}).err.contains("removed"));
}

void tst_terminal::cleansUpAfterACrash()
{
    {
        QFile big(path(u"big"_s));
        QVERIFY(big.open(QIODevice::WriteOnly));
        const QByteArray block(1 << 20, 'x');
        for (int i = 0; i < 300; ++i)
            big.write(block);
    }
    archive(u"big.zip"_s, {u"big"_s}, {u"-mx0"_s});
    QDir(m_root->path()).mkdir(u"out"_s);
    TerminalRun::Setup setup = {.arguments = {u"extract"_s, u"--to"_s, u"out"_s, u"big.zip"_s}};
    setup.meanwhile = [&](pid_t pid) {
        while (names(u"out"_s).isEmpty() && ::kill(pid, 0) == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        // It is on the list before anything is written into it.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ::kill(pid, SIGKILL);
    };
    QCOMPARE(corvane(setup).exitCode, 128 + SIGKILL);
    const QStringList left = names(u"out"_s);
    QCOMPARE(left.size(), 1);
    QVERIFY(left.first().startsWith(u".corvane-"));
    QCOMPARE(corvane({u"clean"_s}).exitCode, 0);
    QCOMPARE(names(u"out"_s), QStringList());
}

void tst_terminal::destinationCannotTakeIt_data()
{
    QTest::addColumn<QString>("mount");
    QTest::addColumn<QByteArray>("says");
    QTest::newRow("full") << u"size=64k"_s << QByteArray("is full");
    QTest::newRow("read-only") << u"ro,size=64k"_s << QByteArray("is read-only");
}

void tst_terminal::destinationCannotTakeIt()
{
    QFETCH(QString, mount);
    QFETCH(QByteArray, says);
    if (::geteuid() != 0 || QProcess::execute(u"unshare"_s, {u"-m"_s, u"mount"_s, u"-t"_s, u"tmpfs"_s,
                                                             u"none"_s, m_root->path()}) != 0)
        QSKIP("Needs the right to mount a small file system.");
    QByteArray noise(1 << 20, Qt::Uninitialized);
    quint32 state = 1;
    for (char &byte : noise)
        byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    write(u"a"_s, noise);
    archive(u"a.zip"_s, {u"a"_s});
    QDir(m_root->path()).mkdir(u"small"_s);
    const QString script = u"mount -t tmpfs -o %1 none small && '%2' extract --to small a.zip; s=$?; "
                           "ls -A small; exit $s"_s.arg(mount, QStringLiteral(CORVANE_BINARY));
    const TerminalRun run =
        TerminalRun::run(u"/usr/bin/unshare"_s,
                         {.arguments = {u"-m"_s, u"/bin/sh"_s, u"-c"_s, script}, .folder = m_root->path()});
    QCOMPARE(run.exitCode, 1);
    QVERIFY2(run.err.contains(says), run.err.constData());
    QCOMPARE(run.out, QByteArray());
}

void tst_terminal::thousandArchives()
{
    write(u"a"_s, "x");
    archive(u"0.zip"_s, {u"a"_s});
    QStringList words = {u"extract"_s, u"--to"_s, u"out"_s, u"0.zip"_s};
    for (int i = 1; i < 1000; ++i) {
        const QString name = QString::number(i) + u".zip"_s;
        QVERIFY(QFile::copy(path(u"0.zip"_s), path(name)));
        words.append(name);
    }
    const TerminalRun run = corvane(words);
    QVERIFY2(run.exitCode == 0, run.err.constData());
    const QStringList lines = run.outLines();
    QCOMPARE(lines.size(), 1000);
    QCOMPARE(QSet<QString>(lines.begin(), lines.end()).size(), 1000);
    QCOMPARE(names(u"out"_s).size(), 1000);
    QVERIFY(QFile::exists(path(u"out/a 1000"_s)));
}

QTEST_GUILESS_MAIN(tst_terminal)
#include "tst_terminal.moc"
