#include "archives/CVToolPaths.h"
#include "support/CreateSupport.h"
#include "support/TestTree.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"
#include "util/LXRemoveTree.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

// What the back ends make of the tools that they write with: the exact command lines, seen by a double where
// only the line matters, everything else with the real tools.

class TestCreateTools : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void commandLines_data();
    void commandLines();
    void roundTrips_data();
    void roundTrips();
    void refusedPasswords_data();
    void refusedPasswords();
    void failures_data();
    void failures();
    void unreadableFileIsNamed();
    void fullDisk_data();
    void fullDisk();
    void cancelLeavesNothing_data();
    void cancelLeavesNothing();
    void cancelBeforeTheStart();
    void passwordIsInNoProcessList();
    void launcher_data();
    void launcher();
    void missingTool_data();
    void missingTool();
    void formatsThatNobodyWrites();

private:
    QString path(const QString &name) const { return m_folder->path() + u'/' + name; }
    QString source() const { return path("in"); }
    /// An archive that is to be made at this path, and not started.
    std::shared_ptr<CVArchive> archive(const QString &archivePath);
    /// The program that is taken for the tool behind the launcher.
    void setRealTool(const QByteArray &script);

    std::unique_ptr<QTemporaryDir> m_folder;
    std::unique_ptr<ArchiveRecorder> m_recorder;
    std::shared_ptr<CVArchive> m_archive;
};

void TestCreateTools::initTestCase()
{
    LXMainThread::install();
    separateMounts();
}

void TestCreateTools::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    m_recorder = std::make_unique<ArchiveRecorder>();
    QVERIFY(QDir().mkdir(path("in")) && QDir().mkdir(path("out")));
}

void TestCreateTools::cleanup()
{
    for (const char *name : {"CORVANE_TOOL_7ZA", "CORVANE_REAL_7ZA", "CORVANE_TOOL_TAR", "CORVANE_TOOL_GZIP"})
        qunsetenv(name);
    // A test that failed may have left its job at work.
    if (m_archive) {
        m_archive->setDelegate(nullptr);
        m_archive->cancelCreate();
        m_archive.reset();
    }
    (void)removeTree(m_folder->path()); // QTemporaryDir knows no names that are not UTF-8
    m_folder.reset();
}

std::shared_ptr<CVArchive> TestCreateTools::archive(const QString &archivePath)
{
    auto result = CVArchive::archiveForCreating(archivePath);
    result->setDelegate(m_recorder.get());
    m_archive = result;
    return result;
}

void TestCreateTools::setRealTool(const QByteArray &script)
{
    const QByteArray tool = QFile::encodeName(path("double"));
    writeTestFile(path("double"), "#!/bin/sh\n" + script + '\n', 0755);
    ::chmod(tool.constData(), 0755);
    qputenv("CORVANE_REAL_7ZA", tool);
}

void TestCreateTools::commandLines_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("level");
    QTest::addColumn<double>("chunkSize");
    QTest::addColumn<QString>("password");
    QTest::addColumn<QStringList>("switches");
    const auto row = [](const char *what, const char *name, int level, double chunkSize, const char *password,
                        const QStringList &switches) {
        QTest::newRow(what) << name << level << chunkSize << password << switches;
    };
    row("zip", "x.zip", 5, 0, "", {"-tzip", "-mx=5"});
    row("7z", "x.7z", 0, 0, "", {"-t7z", "-mx=0"});
    row("volumes", "x.7z", 9, 1457664.7, "", {"-t7z", "-mx=9", "-v1457664b"});
    row("password", "x.zip", 1, 0, "a b\"$HOME`\\", {"-tzip", "-mx=1", "-pa b\"$HOME`\\"});
    row("all", "x.zip", 5, 104857600, "p", {"-tzip", "-mx=5", "-v104857600b", "-pp"});
    row("odd name", "a \"b\" $c `d` \\\n e.zip", 5, 0, "", {"-tzip", "-mx=5"});
}

void TestCreateTools::commandLines()
{
    QFETCH(QString, name);
    QFETCH(int, level);
    QFETCH(double, chunkSize);
    QFETCH(QString, password);
    QFETCH(QStringList, switches);
    // A double in place of the launcher, which would take the password away.
    writeTestFile(path("double"),
                  "#!/bin/sh\nexec > \"${0%/*}/log\"\npwd\nfor a; do printf '%s\\0' \"$a\"; done\n", 0755);
    qputenv("CORVANE_TOOL_7ZA", QFile::encodeName(path("double")));
    const auto zip = archive(path(name));
    zip->compressionLevel = level;
    zip->chunkSize = chunkSize;
    if (!password.isEmpty())
        zip->encryptWith(password);
    zip->bundle(source(), path(name));
    QTRY_COMPARE(m_recorder->events(), QStringList{"finished"});
    QCOMPARE(testFileContents(path("log")), (source() + "\na" + QChar(0) + switches.join(QChar(0)) +
                                             QChar(0) + path(name) + QChar(0) + "." + QChar(0))
                                                .toUtf8());
    QVERIFY(!qEnvironmentVariableIsSet("CORVANE_PASSWORD"));
}

void TestCreateTools::roundTrips_data()
{
    QTest::addColumn<QString>("suffix");
    QTest::addColumn<int>("level");
    QTest::addColumn<double>("chunkSize");
    QTest::addColumn<QString>("password");
    for (const QString suffix : {"zip", "7z"}) {
        for (const int level : {0, 1, 5, 9})
            QTest::addRow("%s level %d", qPrintable(suffix), level) << suffix << level << 0.0 << QString();
        QTest::addRow("%s volumes", qPrintable(suffix)) << suffix << 1 << 65536.0 << QString();
        QTest::addRow("%s password", qPrintable(suffix)) << suffix << 1 << 0.0 << " a b\"'$HOME`x`\\!*-p ~";
        QTest::addRow("%s all", qPrintable(suffix)) << suffix << 1 << 100000.0 << "-pass word";
    }
    QTest::addRow("upper case") << "ZIP" << 5 << 0.0 << QString();
    QTest::addRow("7z any language") << "7z" << 1 << 0.0 << "\u00c1\u0101\u6f22\U0001f600";
}

void TestCreateTools::roundTrips()
{
    QFETCH(QString, suffix);
    QFETCH(int, level);
    QFETCH(double, chunkSize);
    QFETCH(QString, password);
    // Both paths are as hostile as the names in the archive.
    const QString folder = path(fileNameFromBytes(hostileName()));
    QVERIFY(makeHostileTree(folder));
    const QString out = path("out") + u'/' + fileNameFromBytes(hostileName()) + u'.' + suffix;
    const auto zip = archive(out);
    QVERIFY(zip->canWriteVolumes());
    zip->compressionLevel = level;
    zip->chunkSize = chunkSize;
    if (!password.isEmpty())
        zip->encryptWith(password);
    zip->bundle(folder, out);
    QTRY_COMPARE_WITH_TIMEOUT(m_recorder->events(), QStringList{"finished"}, 30000);
    QVERIFY2(zip->createdWhole() && zip->failureReason().isEmpty(), qPrintable(zip->failureReason()));

    const QString first = chunkSize > 0 ? out + ".001" : out;
    QCOMPARE(folderNames(path("out")).size() > 1, chunkSize > 0);
    if (chunkSize > 0) {
        struct stat info;
        QCOMPARE(::stat(bytesOfFileName(first).constData(), &info), 0);
        QCOMPARE(info.st_size, static_cast<off_t>(chunkSize));
    }
    const ToolOutput unpacked =
        runTool("7za", {"x", "-y", "-o" + path("back"), first}, {}, password.toUtf8() + '\n');
    QVERIFY2(unpacked.status == 0, unpacked.text.constData());
    QCOMPARE(treeDifferences(treeFromDisk(folder), treeFromDisk(path("back"))), QStringList());
    if (!password.isEmpty())
        QVERIFY(runTool("7za", {"t", first}, {}, "wrong\n").status != 0);
    QVERIFY(!QFile::exists(path("bad")) && !QFile::exists("bad"));
}

void TestCreateTools::refusedPasswords_data()
{
    QTest::addColumn<QString>("password");
    QTest::newRow("empty") << "";
    QTest::newRow("line break") << "a\nb";
    QTest::newRow("zero") << QString::fromUtf8("a\0b", 3);
}

void TestCreateTools::refusedPasswords()
{
    QFETCH(QString, password);
    const auto zip = archive(path("out/x.7z"));
    zip->password = password;
    zip->bundle(source(), path("out/x.7z"));
    QTRY_COMPARE(m_recorder->events(), QStringList{"failed 1"});
    QVERIFY(!zip->failureReason().isEmpty());
    QCOMPARE(folderNames(path("out")), QStringList());
}

void TestCreateTools::failures_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QString>("reason");
    // The archive is the last argument but one.
    const QByteArray begun =
        "while [ $# -gt 2 ]; do shift; done; for s in '' .tmp .tmp12 .001 .002.tmp .1000; "
        "do echo part > \"$1$s\"; done\n";
    QTest::newRow("status") << begun + "exit 2"
                            << "“7za” ended with status 2.";
    QTest::newRow("status with words") << begun + "echo talk; echo 'it is broken' >&2; exit 8"
                                       << "it is broken";
    QTest::newRow("warning") << begun + "echo 'b is left out' >&2; exit 1"
                             << "b is left out";
    QTest::newRow("killed") << begun + "kill -9 $$"
                            << "“7za” was ended by signal 9.";
    QTest::newRow("floods") << begun + "seq 1 100000; seq 1 100000 >&2; exit 2"
                            << "99993\n99994\n99995\n99996\n99997\n99998\n99999\n100000";
}

void TestCreateTools::failures()
{
    QFETCH(QByteArray, script);
    QFETCH(QString, reason);
    setRealTool(script);
    const QStringList others{"x.7z.002", "x.7z.01", "x.7z.tx", "x.7zip", "y.7z"};
    for (const QString &name : others)
        writeTestFile(path("out/" + name), "not ours");
    const auto zip = archive(path("out/x.7z"));
    zip->encryptWith("secret");
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("encountered error running command:\ncd \""));
    zip->bundle(source(), path("out/x.7z"));
    QTRY_COMPARE(m_recorder->events(), QStringList{"failed 4"});
    QCOMPARE(zip->failureReason(), reason);
    QCOMPARE(folderNames(path("out")), others);
}

void TestCreateTools::unreadableFileIsNamed()
{
    writeTestFile(path("in/open"), "x");
    writeTestFile(path("in/closed"), "x", 0);
    ::chmod(QFile::encodeName(m_folder->path()).constData(), 0777);
    ::chmod(QFile::encodeName(path("out")).constData(), 0777);
    const auto zip = archive(path("out/x.zip"));
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("encountered error"));
    constexpr uid_t nobody = 65534;
    const bool wasRoot = ::geteuid() == 0;
    QVERIFY(!wasRoot || ::setresuid(nobody, nobody, 0) == 0);
    zip->bundle(source(), path("out/x.zip"));
    [&] { QTRY_COMPARE(m_recorder->events(), QStringList{"failed 4"}); }();
    QVERIFY(!wasRoot || ::setresuid(0, 0, 0) == 0);
    QVERIFY2(zip->failureReason().contains("closed"), qPrintable(zip->failureReason()));
    QCOMPARE(folderNames(path("out")), QStringList());
}

void TestCreateTools::fullDisk_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<double>("chunkSize");
    for (const QString name : {"x.zip", "x.7z"}) {
        QTest::addRow("%s", qPrintable(name)) << name << 0.0;
        QTest::addRow("%s volumes", qPrintable(name)) << name << 300000.0;
    }
}

void TestCreateTools::fullDisk()
{
    QFETCH(QString, name);
    QFETCH(double, chunkSize);
    if (!mountSmallDisk(path("out"), "1m"))
        QSKIP("needs to mount a small file system");
    writeTestFile(path("in/big"), noise(3'000'000));
    const auto zip = archive(path("out/" + name));
    zip->chunkSize = chunkSize;
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("encountered error"));
    zip->bundle(source(), path("out/" + name));
    QTRY_COMPARE_WITH_TIMEOUT(m_recorder->events(), QStringList{"failed 4"}, 30000);
    const QStringList left = folderNames(path("out"));
    unmountSmallDisk(path("out"));
    QCOMPARE(left, QStringList());
    QCOMPARE(zip->systemError(), ENOSPC);
    QVERIFY(zip->failureReason().contains("No space left"));
}

void TestCreateTools::cancelLeavesNothing_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<double>("chunkSize");
    QTest::newRow("zip") << "x.zip" << 0.0;
    QTest::newRow("7z volumes") << "x.7z" << 1'000'000.0;
}

void TestCreateTools::cancelLeavesNothing()
{
    QFETCH(QString, name);
    QFETCH(double, chunkSize);
    // Enough for the cancel to come in the middle of it.
    for (const char *file : {"a", "b", "c"})
        writeTestFile(path("in/") + file, noise(12'000'000));
    const auto zip = archive(path("out/" + name));
    zip->compressionLevel = 9;
    zip->chunkSize = chunkSize;
    zip->bundle(source(), path("out/" + name));
    QTRY_VERIFY_WITH_TIMEOUT(m_recorder->mostBytes > 0, 30000);
    zip->cancelCreate();
    QCOMPARE(m_recorder->events().value(0), QString("cancelled"));
    QCOMPARE(folderNames(path("out")), QStringList());
    QTRY_COMPARE(m_recorder->events(), (QStringList{"cancelled", "failed 2"}));
    QCOMPARE(folderNames(path("out")), QStringList());
}

void TestCreateTools::cancelBeforeTheStart()
{
    const auto zip = archive(path("out/x.zip"));
    zip->bundle(source(), path("out/x.zip")); // starts with the next turn of the loop
    zip->cancelCreate();
    QTest::qWait(50);
    QCOMPARE(m_recorder->events(), QStringList{"cancelled"});
    QCOMPARE(folderNames(path("out")), QStringList());
}

void TestCreateTools::passwordIsInNoProcessList()
{
    for (const char *file : {"a", "b"})
        writeTestFile(path("in/") + file, noise(12'000'000));
    const QByteArray secret = "xyzzy-" + QByteArray::number(::getpid()) + "-plugh";
    const auto zip = archive(path("out/x.7z"));
    zip->compressionLevel = 9;
    zip->encryptWith(secret);
    zip->bundle(source(), path("out/x.7z"));
    QTRY_VERIFY_WITH_TIMEOUT(m_recorder->mostBytes > 0, 30000);
    int rounds = 0;
    bool toolSeen = false;
    for (; m_recorder->events().isEmpty() && rounds < 50; ++rounds) {
        for (const QString &process : QDir("/proc").entryList(QDir::Dirs)) {
            const QByteArray line = testFileContents("/proc/" + process + "/cmdline");
            QVERIFY2(!line.contains(secret), line.constData());
            // The shell needs the password in its environment, which only its owner can read.
            const bool ours =
                line.contains(QFile::encodeName(path("out/x.7z"))) && !line.startsWith("/bin/sh");
            toolSeen = toolSeen || ours;
            if (ours)
                QVERIFY(!testFileContents("/proc/" + process + "/environ").contains(secret));
        }
        QTest::qWait(1);
    }
    QVERIFY(rounds > 0 && toolSeen);
    zip->cancelCreate();
}

void TestCreateTools::launcher_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<int>("status");
    const auto row = [](const char *what, const QStringList &arguments, const QByteArray &output,
                        int status) { QTest::newRow(what) << arguments << output << status; };
    row("no password", {"a", "x y", "-q"}, "[a][x y][-q]typed\n", 3);
    row("password", {"a", "-ppass  \\", "x"}, "[a][-p][x]pass  \\\npass  \\\n", 3);
    row("to be typed", {"a", "-p"}, "[a][-p]typed\n", 3);
    row("line break", {"a", "-pa\nb"}, "A password with a line break cannot be handed to 7za.\n", 127);
    row("too long", {"a", "-p" + QString(5000, 'x')}, "The password is too long to be handed to 7za.\n", 127);
}

void TestCreateTools::launcher()
{
    QFETCH(QStringList, arguments);
    setRealTool("for a; do printf '[%s]' \"$a\"; done; printf '%s' \"$CORVANE_PASSWORD\"; cat; exit 3");
    const ToolOutput result = runTool(CVToolPaths::resourcesFolder() + "/7za", arguments, {}, "typed\n");
    QTEST(result.text, "output");
    QTEST(result.status, "status");
}

void TestCreateTools::missingTool_data()
{
    QTest::addColumn<QByteArray>("variable");
    QTest::newRow("the launcher") << QByteArray("CORVANE_TOOL_7ZA");
    QTest::newRow("behind the launcher") << QByteArray("CORVANE_REAL_7ZA");
}

void TestCreateTools::missingTool()
{
    QFETCH(QByteArray, variable);
    qputenv(variable.constData(), "/no/such/tool");
    const auto zip = archive(path("out/x.zip"));
    if (variable == "CORVANE_REAL_7ZA")
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("encountered error"));
    zip->bundle(source(), path("out/x.zip"));
    QTRY_COMPARE(m_recorder->events(), QStringList{"failed 4"});
    QCOMPARE(zip->failureReason(),
             QString("The tool “7za” is not installed. Install the package “p7zip-full”."));
    QCOMPARE(folderNames(path("out")), QStringList());
}

void TestCreateTools::formatsThatNobodyWrites()
{
    for (const char *name : {"out/x.sit", "out/x", "out/x.zipx"}) {
        m_recorder = std::make_unique<ArchiveRecorder>();
        const auto other = archive(path(name));
        QVERIFY(!other->canWriteVolumes());
        other->bundle(source(), path(name));
        QTRY_COMPARE(m_recorder->events(), QStringList{"failed 3"});
    }
}

QTEST_GUILESS_MAIN(TestCreateTools)
#include "tst_create_tools.moc"
