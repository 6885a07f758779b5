#include "archives/CVTarArchive.h"
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

// The tar family as the system's tools write it, and how it is noticed that they did not.

class TestCreateTar : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void roundTrips_data();
    void roundTrips();
    void notWhole_data();
    void notWhole();
    void notShrinking_data();
    void notShrinking();
    void unreadable_data();
    void unreadable();
    void fullDisk_data();
    void fullDisk();
    void environmentChangesNothing();
    void cancel_data();
    void cancel();
    void output_data();
    void output();

private:
    QString path(const QString &name) const { return m_folder->path() + u'/' + name; }
    std::shared_ptr<CVArchive> archive(const QString &archivePath);
    void useDouble(const char *variable, const QByteArray &script);

    std::unique_ptr<QTemporaryDir> m_folder;
    std::unique_ptr<ArchiveRecorder> m_recorder;
    std::shared_ptr<CVArchive> m_archive;
};

void TestCreateTar::initTestCase()
{
    LXMainThread::install();
    separateMounts();
}

void TestCreateTar::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    m_recorder = std::make_unique<ArchiveRecorder>();
    QVERIFY(QDir().mkdir(path("in")) && QDir().mkdir(path("out")));
}

void TestCreateTar::cleanup()
{
    for (const char *name : {"CORVANE_TOOL_TAR", "CORVANE_TOOL_GZIP", "CORVANE_TOOL_BZIP2", "TAR_OPTIONS",
                             "TAPE", "GZIP", "BZIP2"})
        qunsetenv(name);
    if (m_archive) {
        m_archive->setDelegate(nullptr);
        m_archive->cancelCreate();
        m_archive.reset();
    }
    (void)removeTree(m_folder->path());
    m_folder.reset();
}

std::shared_ptr<CVArchive> TestCreateTar::archive(const QString &archivePath)
{
    m_archive = CVArchive::archiveForCreating(archivePath);
    m_archive->setDelegate(m_recorder.get());
    return m_archive;
}

void TestCreateTar::useDouble(const char *variable, const QByteArray &script)
{
    const QString file = path(QString::fromLatin1(variable));
    QVERIFY(writeTestFile(file, "#!/bin/sh\n" + script + '\n', 0755));
    qputenv(variable, QFile::encodeName(file));
}

void TestCreateTar::roundTrips_data()
{
    QTest::addColumn<QString>("extension");
    QTest::addColumn<int>("level");
    QTest::addColumn<QByteArray>("magic");
    QTest::addColumn<QString>("option");
    const auto row = [](const char *extension, int level, const QByteArray &magic, const char *option) {
        QTest::addRow("%s level %d", extension, level) << extension << level << magic << option;
    };
    const QByteArray plain("./");
    row("tar", 5, plain, "");
    row("tar.xz", 5, plain, ""); // by its name alone
    row("tar.Z", 5, "\x1f\x9d", "-Z");
    row("tbz2", 5, plain, "");
    for (const int level : {1, 5, 9}) {
        row("tar.gz", level, QByteArray("\x1f\x8b\x08"), "-z");
        row("tar.bz2", level, "BZh" + QByteArray::number(level), "-j");
    }
    row("tgz", 5, QByteArray("\x1f\x8b"), "-z");
    row("tbz", 5, "BZh5", "-j");
}

void TestCreateTar::roundTrips()
{
    QFETCH(QString, extension);
    QFETCH(int, level);
    QFETCH(QByteArray, magic);
    QFETCH(QString, option);
    const QString folder = path(fileNameFromBytes(hostileName()));
    QVERIFY(makeHostileTree(folder));
    const QString out = path("out") + u'/' + fileNameFromBytes(hostileName()) + u'.' + extension;
    const auto tar = archive(out);
    QVERIFY(!tar->canWriteVolumes() && !tar->canEncrypt());
    tar->compressionLevel = level;
    tar->bundle(folder, out);
    QTRY_COMPARE(m_recorder->events(), QStringList{"finished"});
    QVERIFY2(tar->createdWhole() && tar->failureReason().isEmpty(), qPrintable(tar->failureReason()));

    QVERIFY(QDir().mkdir(path("back")));
    QStringList arguments{"-x", "-p", "-f", out, "-C", path("back")};
    if (!option.isEmpty())
        arguments.prepend(option);
    const ToolOutput unpacked = runTool("tar", arguments);
    QVERIFY2(unpacked.status == 0, unpacked.text.constData());
    const TestTree before = treeFromDisk(folder);
    const TestTree after = treeFromDisk(path("back"));
    QCOMPARE(treeDifferences(before, after), QStringList());
    for (const auto &[name, node] : before)
        QCOMPARE(after.at(name).mode, node.mode);
    QFile copy(path("copy"));
    QCOMPARE(runTool("cp", {out, copy.fileName()}).status, 0);
    QVERIFY(copy.open(QIODevice::ReadOnly));
    QCOMPARE(copy.read(magic.size()), magic);
    QVERIFY(!QFile::exists(path("bad")) && !QFile::exists("bad"));
}

void TestCreateTar::notWhole_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("variable");
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QString>("reason");
    const auto row = [](const char *what, const char *name, const char *variable, const QByteArray &script,
                        const char *reason) {
        QTest::newRow(what) << name << QByteArray(variable) << script << reason;
    };
    row("tar killed in a pipe", "x.tgz", "CORVANE_TOOL_TAR", "cat /etc/passwd; kill -9 $$", "Killed");
    row("tar killed", "x.tar", "CORVANE_TOOL_TAR", "kill -9 $$", "“tar” ended early, with status 9.");
    row("hung up, which looks like a status", "x.tar", "CORVANE_TOOL_TAR", "kill -1 $$", "ended early");
    row("tar says so", "x.tgz", "CORVANE_TOOL_TAR",
        "tar \"$@\"; echo '/usr/bin/tar: \"./a\": Read error' >&2; "
        "echo '/usr/bin/tar: Exiting with failure status due to previous errors' >&2; exit 2",
        "\"./a\": Read error");
    row("compressor fails", "x.tar.gz", "CORVANE_TOOL_GZIP", "cat; echo 'gzip: stdout: Bad luck' >&2; exit 1",
        "stdout: Bad luck");
    row("compressor killed", "x.tbz", "CORVANE_TOOL_BZIP2", "head -c 100; kill -9 $$", "");
    row("compressor reads nothing", "x.tar.bz2", "CORVANE_TOOL_BZIP2", "exit 3", "");
    row("level that gzip does not know", "x.tgz", "", "level 0", "invalid option -- '0'");
    row("level that bzip2 does not know", "x.tbz", "", "level 0", "Bad flag `-v0'");
    row("no such folder", "gone/x.tgz", "", "", "");
    row("no such folder for tar", "gone/x.tar", "", "", "No such file or directory");
    row("no gzip", "x.tgz", "CORVANE_TOOL_GZIP", "",
        "The tool “gzip” is not installed. Install the package “gzip”.");
    row("no tar", "x.tar.bz2", "CORVANE_TOOL_TAR", "",
        "The tool “tar” is not installed. Install the package “tar”.");
    row("no tar without a pipe", "x.tar", "CORVANE_TOOL_TAR", "", "The tool “tar” is not installed.");
    row("no compress", "x.tar.Z", "CORVANE_TOOL_TAR", "PATH=/no/such; exec /usr/bin/tar \"$@\"",
        "The tool “compress” is not installed. Install the package “ncompress”.");
}

void TestCreateTar::notWhole()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, variable);
    QFETCH(QByteArray, script);
    QFETCH(QString, reason);
    QVERIFY(writeTestFile(path("in/a"), noise(300'000)));
    if (script.isEmpty() && !variable.isEmpty())
        qputenv(variable.constData(), "/no/such/tool");
    else if (!variable.isEmpty())
        useDouble(variable.constData(), script);
    const auto tar = archive(path("out/" + name));
    if (script == "level 0")
        tar->compressionLevel = 0;
    if (QByteArray(QTest::currentDataTag()) == "no tar without a pipe")
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("could not be started"));
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("is not whole"));
    tar->bundle(path("in"), path("out/" + name));
    // As the delegate is told, all is well.
    QTRY_COMPARE(m_recorder->events(), QStringList{"finished"});
    QCOMPARE(tar->status(), std::int32_t(CVArchive::Success));
    QVERIFY(!tar->createdWhole());
    QVERIFY2(tar->failureReason().contains(reason) && !tar->failureReason().isEmpty(),
             qPrintable(tar->failureReason()));
    QCOMPARE(tar->systemError(), 0);
}

void TestCreateTar::notShrinking_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<bool>("whole");
    QTest::newRow("valid") << QByteArray() << true;
    // What tar says then would hide these.
    QTest::newRow("cut off") << QByteArray(
                                    "case $1 in -v) tar \"$@\"; s=$?; truncate -s -5000 \"$5\"; exit $s;; "
                                    "*) exec tar \"$@\";; esac")
                             << false;
    QTest::newRow("something left out")
        << QByteArray(
               "case $1 in -v) echo '/usr/bin/tar: \"./b\": Read error' >&2;; esac; exec /usr/bin/tar \"$@\"")
        << false;
}

void TestCreateTar::notShrinking()
{
    QFETCH(QByteArray, script);
    QVERIFY(writeTestFile(path("in/a"), noise(300'000)));
    QVERIFY(writeTestFile(path("in/Total bytes written: 5 ("), noise(100)));
    if (!script.isEmpty())
        useDouble("CORVANE_TOOL_TAR", script);
    QFETCH(bool, whole);
    if (!whole)
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("is not whole"));
    const auto tar = archive(path("out/x.tar.Z"));
    tar->bundle(path("in"), path("out/x.tar.Z"));
    QTRY_COMPARE(m_recorder->events(), QStringList{"finished"});
    QCOMPARE(tar->createdWhole(), whole);
}

void TestCreateTar::unreadable_data()
{
    QTest::addColumn<QString>("name");
    for (const char *name : {"x.tar", "x.tgz", "x.tar.bz2", "x.tar.Z", "x.tar.xz"})
        QTest::newRow(name) << name;
}

void TestCreateTar::unreadable()
{
    QFETCH(QString, name);
    QVERIFY(writeTestFile(path("in/clo\"sed\nTotal bytes written: 5 ("), "x", 0));
    QVERIFY(writeTestFile(path("in/many"), QByteArray(100'000, 'x')));
    ::chmod(QFile::encodeName(m_folder->path()).constData(), 0777);
    ::chmod(QFile::encodeName(path("out")).constData(), 0777);
    const auto tar = archive(path("out/" + name));
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("is not whole"));
    constexpr uid_t nobody = 65534;
    const bool wasRoot = ::geteuid() == 0;
    QVERIFY(!wasRoot || ::setresuid(nobody, nobody, 0) == 0);
    tar->bundle(path("in"), path("out/" + name));
    [&] { QTRY_COMPARE(m_recorder->events(), QStringList{"finished"}); }();
    QVERIFY(!wasRoot || ::setresuid(0, 0, 0) == 0);
    QVERIFY(!tar->createdWhole());
    QVERIFY2(tar->failureReason().startsWith("\"./clo\\\"sed\\nTotal") &&
                 tar->failureReason().endsWith("Permission denied"),
             qPrintable(tar->failureReason()));
}

void TestCreateTar::fullDisk_data()
{
    unreadable_data();
}

void TestCreateTar::fullDisk()
{
    QFETCH(QString, name);
    if (!mountSmallDisk(path("out"), "1m"))
        QSKIP("needs to mount a small file system");
    QVERIFY(writeTestFile(path("in/big"), noise(3'000'000)));
    const auto tar = archive(path("out/" + name));
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("is not whole: No space left on device"));
    tar->bundle(path("in"), path("out/" + name));
    [&] { QTRY_COMPARE(m_recorder->events(), QStringList{"finished"}); }();
    unmountSmallDisk(path("out"));
    QVERIFY(!tar->createdWhole());
    QCOMPARE(tar->systemError(), ENOSPC);
}

void TestCreateTar::environmentChangesNothing()
{
    qputenv("TAPE", QFile::encodeName(path("tape")));
    qputenv("TAR_OPTIONS", "--exclude=a --quoting-style=literal");
    qputenv("GZIP", "-1 --no-such-option");
    QVERIFY(writeTestFile(path("in/a"), "one"));
    const auto tar = archive(path("out/x.tgz"));
    tar->bundle(path("in"), path("out/x.tgz"));
    QTRY_COMPARE(m_recorder->events(), QStringList{"finished"});
    QVERIFY(tar->createdWhole() && !QFile::exists(path("tape")));
    QCOMPARE(runTool("tar", {"-tzf", path("out/x.tgz")}).text, QByteArray("./\n./a\n"));
}

void TestCreateTar::cancel_data()
{
    QTest::addColumn<QString>("name");
    for (const char *name : {"x.tar.bz2", "x.tar.Z"})
        QTest::newRow(name) << name;
}

void TestCreateTar::cancel()
{
    QFETCH(QString, name);
    for (const char *file : {"in/a", "in/b", "in/c", "in/d"})
        QVERIFY(writeTestFile(path(file), noise(20'000'000)));
    const auto tar = archive(path("out/" + name));
    tar->compressionLevel = 9;
    tar->bundle(path("in"), path("out/" + name));
    QTRY_VERIFY(m_recorder->mostBytes > 0);
    tar->cancelCreate();
    QCOMPARE(folderNames(path("out")), QStringList());
    QTest::qWait(100);
    QCOMPARE(m_recorder->events(), QStringList{"cancelled"});
    QCOMPARE(folderNames(path("out")), QStringList());
}

void TestCreateTar::output_data()
{
    QTest::addColumn<QStringList>("pieces");
    QTest::addColumn<bool>("total");
    QTest::addColumn<bool>("failed");
    QTest::addColumn<QString>("complaint");
    const auto row = [](const char *what, const QStringList &pieces, bool total, bool failed,
                        const char *complaint) {
        QTest::newRow(what) << pieces << total << failed << complaint;
    };
    const QString end = "Total bytes written: 10240 (10KiB, 5MiB/s)";
    row("well", {end, ""}, true, false, "");
    row("ratio in between", {" 4", "5.", "1%", end, ""}, true, false, "");
    row("cut anywhere", {"Total by", "tes writt", "en: 10240 (10KiB)"}, true, false, "");
    row("complaint in pieces", {"/usr/bin/tar: ", "\"./a\": Cannot open", ": Permission denied", "", "", end},
        true, false, "\"./a\": Cannot open: Permission denied");
    row("compressor in the middle",
        {"Total bytes written: ", "gzip: stdout: Bad luck", "10240 (10KiB, 5MiB/s)"}, true, false,
        "stdout: Bad luck");
    row("name of a total", {"tar: \"./Total bytes written\\: 5 (\": file changed as we read it"}, false,
        false, "\"./Total bytes written\\: 5 (\": file changed as we read it");
    row("name with a quote", {"tar: \"./\\\"Total bytes written: 5 (\": gone"}, false, false,
        "\"./\\\"Total bytes written: 5 (\": gone");
    row("name of a failure",
        {"tar: \"./Error is not recoverable: exiting now\": file changed as we read it", end}, true, false,
        "\"./Error is not recoverable: exiting now\": file changed as we read it");
    row("gives up", {end, "tar: x: Wrote only 5 bytes", "tar: Error is not recoverable: exiting now"}, true,
        true, "x: Wrote only 5 bytes");
}

void TestCreateTar::output()
{
    QFETCH(QStringList, pieces);
    CVTarOutput output;
    for (const QString &piece : pieces)
        output.add(piece);
    QTEST(output.hasTotal(), "total");
    QTEST(output.hasFailed(), "failed");
    QFETCH(QString, complaint);
    if (!complaint.isEmpty()) // otherwise nobody asks
        QCOMPARE(output.firstComplaint(), complaint);
    // Never more than it needs, however much comes.
    for (int i = 0; i < 100'000; ++i)
        output.add("tar: \"./x\": file changed as we read it");
    QVERIFY(output.firstComplaint().size() < 10'000);
}

QTEST_GUILESS_MAIN(TestCreateTar)
#include "tst_create_tar.moc"
