#include "engine/model/CVOperation.h"
#include "engine/model/CVSettings.h"
#include "engine/model/CVWorkDirectoryCleanOperation.h"
#include "engine/model/CVWorkDirectoryManager.h"
#include "jobs/CreateJob.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QTest>

#include <csignal>

#include <sys/mount.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

// What is there when a create job ends before its time, in each of its phases.

namespace {

constexpr uid_t nobody = 65534;

const QStringList phases{u"copying"_s, u"media"_s, u"packing"_s, u"question"_s, u"late question"_s};

CreatePhase phaseNamed(const QString &name)
{
    return static_cast<CreatePhase>(phases.indexOf(name));
}

} // namespace

class TestCreatePhases : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { LXMainThread::install(); }
    void init() { m_folders = std::make_unique<CreateFolders>(); }
    void cleanup() { QVERIFY(m_folders->remove()); }
    void unreadableFilesAreNamed();
    void cancels_data();
    void cancels();
    void kills_data();
    void kills();
    void fullDisk_data();
    void fullDisk();

private:
    QString at(const QString &name) const { return m_folders->at(name); }
    QStringList results() const { return m_folders->results(); }
    TestTree inputs() const { return m_folders->inputs(); }

    std::unique_ptr<CreateFolders> m_folders;
};

// Modes bind nobody who is root, so this runs in a process that is not.
void TestCreatePhases::unreadableFilesAreNamed()
{
    for (int i = 0; i < 5; ++i) {
        QVERIFY(writeFile(at(u"in/%1"_s.arg(i)), "secret"));
        QCOMPARE(changeMode(at(u"in/%1"_s.arg(i)), 0), 0);
    }
    QVERIFY(QDir().mkpath(at(u"in/closed"_s)));
    QCOMPARE(changeMode(at(u"in/closed"_s), 0), 0);
    for (const QString &path : {at({}), at(u"out"_s), at(u"settings"_s)}) {
        QDir().mkpath(path);
        QCOMPARE(changeMode(path, 0777), 0);
    }
    QProcess child;
    child.setChildProcessModifier([] {
        if (::geteuid() == 0 && (::setgid(nobody) != 0 || ::setuid(nobody) != 0))
            ::_exit(99);
    });
    child.start(QCoreApplication::applicationFilePath(), {u"--job"_s, u"plain"_s, at({})});
    QVERIFY(child.waitForFinished());
    const QString said = QString::fromUtf8(child.readAllStandardOutput());
    QVERIFY2(said.startsWith("failed|6 of the files can't be read."_L1), qPrintable(said));
    QVERIFY2(said.contains("Permission denied"_L1) && said.contains("and 3 more"_L1), qPrintable(said));
    QCOMPARE(results(), QStringList());
    changeMode(at(u"in/closed"_s), 0700);
}

void TestCreatePhases::cancels_data()
{
    QTest::addColumn<QString>("phase");
    QTest::newRow("before the start") << QString();
    for (const QString &phase : phases)
        QTest::newRow(qPrintable(phase)) << phase;
}

void TestCreatePhases::cancels()
{
    QFETCH(QString, phase);
    const bool isMedia = phase == "media"_L1;
    const QString archive = at(isMedia ? u"out/Archive.zip"_s : u"out/Archive.tar.gz"_s);
    const bool withOlder = phase != "late question"_L1;
    QVERIFY(writeFile(at(u"in/file"_s), "contents"));
    QVERIFY(!isMedia || paint(at(u"in/picture.png"_s)));
    if (phase == "packing"_L1)
        QVERIFY(makeLongWork(at(u"in/long"_s)));
    if (withOlder)
        QVERIFY(writeFile(archive, "somebody else's"));
    const TestTree before = inputs();

    CreateJob job;
    job.data->setArchiveType(u"tar.gz"_s);
    if (isMedia)
        job.packsMedia();
    job.recorder->inputs = {at(u"in"_s)};
    // Who cancels at a question has also clicked something.
    job.recorder->answer = CVAlertResult::Default;
    if (phase.isEmpty())
        job.operation->cancel();
    else
        job.at(phaseNamed(phase), archive, [&job] { job.operation->cancel(); });
    job.run();

    QCOMPARE(job.recorder->ends(), QStringList{u"cancelled"_s});
    QCOMPARE(results(), QStringList{QFileInfo(archive).fileName()});
    QCOMPARE(readFile(archive), "somebody else's");
    QCOMPARE(treeDifferences(before, inputs()), QStringList());
    QCOMPARE(job.data->chunkSize(), 0.0);
    QVERIFY(!job.data->archive());
}

void TestCreatePhases::kills_data()
{
    QTest::addColumn<QString>("phase");
    for (const QString &phase : phases)
        QTest::newRow(qPrintable(phase)) << phase;
}

void TestCreatePhases::kills()
{
    QFETCH(QString, phase);
    const bool isMedia = phase == "media"_L1;
    const QString archive = at(isMedia ? u"out/Archive.zip"_s : u"out/Archive.tar.gz"_s);
    QVERIFY(writeFile(at(u"in/file"_s), "contents"));
    QVERIFY(makeLongWork(at(u"in/long"_s)));
    QVERIFY(writeFile(archive, "somebody else's"));
    if (phase == "late question"_L1)
        QVERIFY(QFile::remove(archive) && QFile::remove(at(u"in/long"_s)) &&
                writeFile(at(u"in/file 2"_s), "contents"));
    QVERIFY(!isMedia || paint(at(u"in/picture.png"_s)));
    const TestTree before = inputs();
    QProcess child;
    child.start(QCoreApplication::applicationFilePath(), {u"--job"_s, phase, at({})});
    QVERIFY(child.waitForFinished());
    QCOMPARE(child.exitStatus(), QProcess::CrashExit); // it has killed itself
    QCOMPARE(readFile(archive), "somebody else's");
    QCOMPARE(treeDifferences(before, inputs()), QStringList());

    CVSettings::setStore(std::make_shared<LXSettingsStore>(at(u"settings/corvane.conf"_s)));
    QCOMPARE(CVWorkDirectoryManager::workDirs().size(), 1);
    CVWorkDirectoryCleanOperation().main();
    QCOMPARE(results(), QStringList{QFileInfo(archive).fileName()});
}

void TestCreatePhases::fullDisk_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<int>("room");
    QTest::addColumn<bool>("linked");
    QTest::newRow("copying") << u"zip"_s << 256 * 1024 << false;
    QTest::newRow("media") << u"media"_s << 256 * 1024 << true;
    for (const auto &format : {u"zip"_s, u"7z"_s, u"tar"_s, u"tar.gz"_s})
        QTest::addRow("packing %s", qPrintable(format)) << format << 1536 * 1024 << true;
}

void TestCreatePhases::fullDisk()
{
    QFETCH(QString, format);
    QFETCH(int, room);
    QFETCH(bool, linked);
    const QString out = at(u"out"_s);
    const QByteArray options = "size=" + QByteArray::number(room);
    if (::mount("none", bytesOfFileName(out).constData(), "tmpfs", 0, options.constData()) != 0)
        QSKIP("only root can mount a small disk");
    const auto unmount = qScopeGuard([&out] { ::umount2(bytesOfFileName(out).constData(), MNT_DETACH); });
    const bool isMedia = format == "media"_L1;
    const QString name = isMedia ? u"Archive.zip"_s : u"Archive."_s + format;
    const QString archive = out + u'/' + name;
    QVERIFY(writeFile(archive, "somebody else's"));
    const QString input = linked ? out + u"/input.png"_s : at(u"in/input.png"_s);
    QByteArray contents(1024 * 1024, Qt::Uninitialized);
    QRandomGenerator(1).generate(contents.begin(), contents.end());
    if (isMedia) {
        QVERIFY(paint(input));
        contents = readFile(input);
    } else {
        QVERIFY(writeFile(input, contents));
    }

    CreateJob job;
    if (isMedia)
        job.packsMedia();
    else
        job.data->setArchiveType(format);
    job.recorder->inputs = {input};
    job.recorder->answer = CVAlertResult::Default;
    job.run();
    QCOMPARE(job.recorder->ends(), QStringList{u"failed"_s});
    QCOMPARE(job.recorder->error().description, u"Error creating archive"_s);
    // A converter only says that it could not write.
    const auto named = isMedia ? "input.png"_L1 : "is full"_L1;
    QVERIFY2(job.recorder->error().suggestion.contains(named), qPrintable(job.recorder->error().suggestion));
    QCOMPARE(readFile(archive), "somebody else's");
    QCOMPARE(readFile(input), contents);
    QCOMPARE(results(), QStringList{name} + (linked ? QStringList{u"input.png"_s} : QStringList()));
}

namespace {

// A job in a process of its own, which kills itself in the given phase, or tells how the job ended.
int runJob(const QString &phase, const QString &root)
{
    LXMainThread::install();
    CreateFolders::useSettings(root);
    CVSettings::setValue(CVSettingsKey::createArchiveFormat, u"tar.gz"_s);
    CreateJob job;
    job.recorder->inputs = {root + u"/in"_s};
    job.recorder->answer = CVAlertResult::Default;
    if (phase == "media"_L1)
        job.packsMedia();
    if (phases.contains(phase))
        job.at(phaseNamed(phase), root + u"/out/Archive.tar.gz"_s, [] { ::kill(::getpid(), SIGKILL); });
    job.run();
    const LXError error = job.recorder->error();
    QFile out;
    if (!out.open(STDOUT_FILENO, QIODevice::WriteOnly))
        return 1;
    out.write(
        QStringList{job.recorder->ends().join(u','), error.description, error.reason}.join(u'|').toUtf8());
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.value(1) == "--job"_L1)
        return runJob(arguments.value(2), arguments.value(3));
    TestCreatePhases test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_createphases.moc"
