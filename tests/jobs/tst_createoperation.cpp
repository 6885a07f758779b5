#include "engine/model/CVOperation.h"
#include "engine/model/CVSettings.h"
#include "engine/model/CVWorkDirectoryCleanOperation.h"
#include "engine/model/CVWorkDirectoryManager.h"
#include "jobs/CreateJob.h"
#include "support/TestTree.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"
#include "util/LXRemoveTree.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <cerrno>
#include <functional>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/// Every name and contents that a tar can hold, and what it cannot.
void makeOddTree(const QString &folder)
{
    QVERIFY(QDir().mkpath(folder + u"/empty"_s));
    QVERIFY(QDir().mkpath(folder + u"/closed/inner"_s));
    const QByteArrayList names{" leading and $HOME `id` \"quotes\" 'and' \\",
                               "new\nline",
                               "-dash",
                               "\xe9t\xe9 \xff\xfe",
                               QByteArray(255, 'n'),
                               "closed/file",
                               "closed/inner/deep"};
    for (const QByteArray &name : names)
        QVERIFY(writeFile(folder + u'/' + fileNameFromBytes(name), name));
    QVERIFY(writeFile(folder + u"/.DS_Store"_s, "left out"));
    const QByteArray root = bytesOfFileName(folder);
    QCOMPARE(::symlink("\xff nowhere", QByteArray(root + "/dangling").constData()), 0);
    QCOMPARE(::symlink("..", QByteArray(root + "/loop").constData()), 0);
    QCOMPARE(::link(QByteArray(root + "/-dash").constData(), QByteArray(root + "/twin").constData()), 0);
    QCOMPARE(::mkfifo(QByteArray(root + "/fifo").constData(), 0600), 0);
    QCOMPARE(changeMode(folder + u"/-dash"_s, 0640), 0);
    QCOMPARE(changeMode(folder + u"/closed/inner"_s, 0500), 0);
    QCOMPARE(changeMode(folder + u"/closed"_s, 0555), 0);
    // Long ago, folders last: a folder's time tells whether it was set after its contents came in.
    for (const char *item : {"-dash", "closed/file", "dangling", "closed/inner", "closed", "empty"}) {
        const timespec times[] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
        QCOMPARE(::utimensat(AT_FDCWD, QByteArray(root + '/' + item).constData(), times, AT_SYMLINK_NOFOLLOW),
                 0);
    }
}

} // namespace

class TestCreateOperation : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { LXMainThread::install(); }
    void init() { m_folders = std::make_unique<CreateFolders>(); }
    void cleanup() { QVERIFY(m_folders->remove()); }
    void packsOddTrees_data();
    void packsOddTrees();
    void keepsSameNamesApart();
    void packsTheFolderItWritesInto();
    void answers_data();
    void answers();
    void refusals_data();
    void refusals();
    void tellsOfChangedFiles();
    void volumes_data();
    void volumes();
    void encrypts();
    void makesMediaSmaller_data();
    void makesMediaSmaller();

private:
    QString at(const QString &name) const { return m_folders->at(name); }
    QStringList results() const { return m_folders->results(); }
    TestTree inputs() const { return m_folders->inputs(); }
    TestTree unpacked(const QString &archive) const;

    std::unique_ptr<CreateFolders> m_folders;
};

TestTree TestCreateOperation::unpacked(const QString &archive) const
{
    const QString folder = at(u"unpacked"_s);
    QDir().mkpath(folder);
    QProcess tar;
    tar.start(u"tar"_s, {u"-xpf"_s, archive, u"-C"_s, folder});
    if (!tar.waitForFinished() || tar.exitCode() != 0)
        return {};
    return treeFromDisk(folder);
}

void TestCreateOperation::packsOddTrees_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<bool>("otherFileSystem");
    QTest::newRow("linked") << u"tar"_s << false;
    QTest::newRow("copied") << u"tar.gz"_s << true;
}

void TestCreateOperation::packsOddTrees()
{
    QFETCH(QString, format);
    QFETCH(bool, otherFileSystem);
    struct stat here;
    struct stat there;
    std::unique_ptr<QTemporaryDir> other;
    QString folder = at(u"in/tree"_s);
    if (otherFileSystem) {
        other = std::make_unique<QTemporaryDir>(u"/dev/shm/corvane-XXXXXX"_s);
        folder = other->filePath(u"tree"_s);
        if (!other->isValid() || ::stat(bytesOfFileName(other->path()).constData(), &there) != 0 ||
            ::stat(bytesOfFileName(at({})).constData(), &here) != 0 || here.st_dev == there.st_dev)
            QSKIP("there is no other file system");
    }
    makeOddTree(folder);
    TestTree expected = treeBelow(treeFromDisk(folder), "tree");

    CreateJob job;
    job.recorder->inputs = {folder};
    job.data->setArchiveType(format);
    job.data->setArchiveName(u"Odd"_s);
    job.run();

    QCOMPARE(job.recorder->ends(), QStringList{u"completed"_s});
    QCOMPARE(job.recorder->results(), QStringList{at(u"out/Odd."_s + format)});
    QCOMPARE(results(), QStringList{u"Odd."_s + format});
    QCOMPARE(job.recorder->skipped(), QStringList{u"tree/fifo"_s});
    QCOMPARE(job.recorder->shownError(), LXError());
    QCOMPARE(treeDifferences(expected, treeBelow(treeFromDisk(folder), "tree")), QStringList());

    expected.erase("tree/fifo");
    expected.erase("tree/.DS_Store");
    const TestTree packed = unpacked(at(u"out/Odd."_s + format));
    QCOMPARE(treeDifferences(expected, packed), QStringList());
    QCOMPARE(packed.at("tree/-dash").inode, packed.at("tree/twin").inode);
    for (const auto &[path, node] : packed) {
        if (path == "tree")
            continue;
        QCOMPARE(node.mode, expected.at(path).mode);
        QCOMPARE(node.changedNs / 1'000'000'000, expected.at(path).changedNs / 1'000'000'000);
    }
    // Files and folders without the root; the one that was skipped counts, the hidden one does not.
    QCOMPARE(job.recorder->itemProgress(), std::pair(14.0, 2 * 15.0));
    if (other)
        QVERIFY(removeTree(folder));
}

void TestCreateOperation::keepsSameNamesApart()
{
    for (const char *folder : {"in/a", "in/b", "in/c"}) {
        QVERIFY(QDir().mkpath(at(QString::fromLatin1(folder))));
        QVERIFY(writeFile(at(QString::fromLatin1(folder) + u"/photo.jpg"_s), folder));
    }
    CreateJob job;
    job.recorder->inputs = {at(u"in/a/photo.jpg"_s), at(u"in/b/photo.jpg"_s), at(u"in/c/photo.jpg"_s)};
    job.run();
    QCOMPARE(job.recorder->ends(), QStringList{u"completed"_s});
    const TestTree packed = unpacked(job.recorder->results().value(0));
    QCOMPARE(packed.size(), 3u);
    QVERIFY(packed.contains("photo.jpg") && packed.contains("photo 2.jpg"));
    QCOMPARE(readFile(at(u"unpacked/photo 3.jpg"_s)), "in/c");
}

// The output folder is the input, and an archive of an earlier run lies in it.
void TestCreateOperation::packsTheFolderItWritesInto()
{
    QVERIFY(writeFile(at(u"out/file"_s), "contents"));
    QVERIFY(writeFile(at(u"out/Archive.tar"_s), "an earlier one"));
    QCOMPARE(::link(bytesOfFileName(at(u"out/Archive.tar"_s)).constData(),
                    bytesOfFileName(at(u"out/kept.tar"_s)).constData()),
             0);
    CreateJob job;
    job.recorder->inputs = {at(u"out"_s)};
    job.recorder->answer = CVAlertResult::Default;
    job.run();
    QCOMPARE(job.recorder->ends(), QStringList{u"completed"_s});
    QCOMPARE(job.recorder->skipped(), QStringList{u"out/Archive.tar"_s});
    QCOMPARE(results(), QStringList({u"Archive.tar"_s, u"file"_s, u"kept.tar"_s}));
    const TestTree packed = unpacked(at(u"out/Archive.tar"_s));
    QCOMPARE(packed.size(), 3u);
    QVERIFY(packed.contains("out/file") && packed.contains("out/kept.tar"));
}

void TestCreateOperation::answers_data()
{
    QTest::addColumn<QString>("phase");
    QTest::addColumn<bool>("isFolder");
    QTest::addColumn<int>("answer");
    QTest::addColumn<QString>("end");
    for (const QString &phase : {u"question"_s, u"late question"_s}) {
        const auto row = [&](const char *name, bool isFolder, int answer, const QString &end) {
            QTest::addRow("%s: %s", qPrintable(phase), name) << phase << isFolder << answer << end;
        };
        row("replace", false, 1, u"completed"_s);
        row("cancel", false, 2, u"cancelled"_s);
        row("another answer", false, 0, u"cancelled"_s);
    }
    QTest::newRow("replace a folder") << u"question"_s << true << 1 << u"completed"_s;
}

void TestCreateOperation::answers()
{
    QFETCH(QString, phase);
    QFETCH(bool, isFolder);
    QFETCH(int, answer);
    QFETCH(QString, end);
    const QString archive = at(u"out/Archive.tar"_s);
    QVERIFY(writeFile(at(u"in/file"_s), "new"));
    QVERIFY(writeFile(at(u"in/file 2"_s), "new"));
    if (isFolder)
        QVERIFY(QDir().mkpath(archive + u"/full/of"_s));
    else if (phase == "question"_L1)
        QVERIFY(writeFile(archive, "somebody else's"));
    CreateJob job;
    job.recorder->inputs = {at(u"in/file"_s), at(u"in/file 2"_s)};
    job.recorder->answer = static_cast<CVAlertResult>(answer);
    QByteArray whileAsked;
    job.at(phase == "question"_L1 ? CreatePhase::Question : CreatePhase::LateQuestion, archive,
           [&] { whileAsked = readFile(archive); });
    job.run();
    QCOMPARE(job.recorder->ends(), QStringList{end});
    QCOMPARE(job.recorder->questions(), QStringList{archive});
    QCOMPARE(results(), QStringList{u"Archive.tar"_s});
    if (!isFolder)
        QCOMPARE(whileAsked, "somebody else's");
    if (end == "completed"_L1)
        QCOMPARE(unpacked(archive).size(), 2u);
    else
        QCOMPARE(readFile(archive), "somebody else's");
}

void TestCreateOperation::refusals_data()
{
    QTest::addColumn<std::function<void(CreateJob &, const QString &)>>("prepare");
    QTest::addColumn<QString>("end");
    QTest::addColumn<QString>("words");
    using Prepare = std::function<void(CreateJob &, const QString &)>;
    const auto row = [](const char *name, const Prepare &prepare, const char *end, const char *words) {
        QTest::newRow(name) << prepare << QString::fromLatin1(end) << QString::fromUtf8(words);
    };
    row(
        "nothing", [](CreateJob &job, const QString &) { job.recorder->inputs.clear(); }, "failed",
        "nothing to pack");
    row(
        "only a FIFO",
        [](CreateJob &job, const QString &root) {
            ::mkfifo(bytesOfFileName(QString(root + u"/in/pipe"_s)).constData(), 0600);
            job.recorder->inputs = {root + u"/in/pipe"_s};
        },
        "failed", "named pipe");
    row(
        "vanished", [](CreateJob &job, const QString &root) { job.recorder->inputs += root + u"/in/gone"_s; },
        "failed", "gone”: It does not exist any more");
    row(
        "volumes that tar cannot write",
        [](CreateJob &job, const QString &) { job.data->setChunkSize(1000); }, "failed", "volumes");
    row(
        "a format that cannot be written",
        [](CreateJob &job, const QString &) { job.data->setArchiveType(u"deb"_s); }, "failed",
        "Error creating archive");
    row(
        "over its own input",
        [](CreateJob &job, const QString &root) {
            writeFile(root + u"/out/Archive.tar"_s, "precious");
            job.recorder->inputs = {root + u"/out/Archive.tar"_s};
        },
        "failed", "would take the place");
    row(
        "into a folder that cannot be made",
        [](CreateJob &, const QString &) {
            CVSettings::setValue(CVSettingsKey::extractDefaultDestination, u"/proc/nowhere"_s);
        },
        "failed", "nowhere");
    row(
        "passwords that differ",
        [](CreateJob &job, const QString &) {
            CVSettings::setValue(CVSettingsKey::shouldEncrypt, true);
            job.data->setArchiveType(u"7z"_s);
            job.data->setPassword(u"one"_s);
            job.data->setPasswordConfirmation(u"other"_s);
        },
        "mismatch", "passwords don't match");
    row(
        "encryption without a password",
        [](CreateJob &job, const QString &) {
            CVSettings::setValue(CVSettingsKey::shouldEncrypt, true);
            job.data->setArchiveType(u"7z"_s);
        },
        "mismatch", "Please enter a password");
}

void TestCreateOperation::refusals()
{
    using Prepare = std::function<void(CreateJob &, const QString &)>;
    QFETCH(Prepare, prepare);
    QFETCH(QString, end);
    QFETCH(QString, words);
    QVERIFY(writeFile(at(u"in/file"_s), "contents"));
    CreateJob job;
    job.recorder->inputs = {at(u"in/file"_s)};
    prepare(job, at({}));
    const QStringList before = namesIn(at(u"out"_s));
    job.run();
    QCOMPARE(job.recorder->ends(), QStringList{end});
    const LXError error = job.recorder->error();
    const QString said = error.description + u'|' + error.reason + u'|' + error.suggestion;
    QVERIFY2(said.contains(words), qPrintable(said));
    QVERIFY(job.recorder->questions().isEmpty());
    QCOMPARE(results(), before);
}

void TestCreateOperation::tellsOfChangedFiles()
{
    QVERIFY(makeLongWork(at(u"in/long"_s)));
    QVERIFY(writeFile(at(u"in/log"_s), "first\n"));
    QVERIFY(writeFile(at(u"in/saved"_s), "old version"));
    CreateJob job;
    job.data->setArchiveType(u"tar.gz"_s);
    job.recorder->inputs = {at(u"in"_s)};
    job.at(CreatePhase::Packing, {}, [this] {
        writeFile(at(u"in/log"_s), "first\nsecond\n");
        // An editor that saves by renaming does no harm: the old version is packed, whole.
        writeFile(at(u"in/saved.new"_s), "new version");
        ::rename(bytesOfFileName(at(u"in/saved.new"_s)).constData(),
                 bytesOfFileName(at(u"in/saved"_s)).constData());
    });
    job.run();
    QCOMPARE(job.recorder->ends(), QStringList{u"completed"_s});
    QVERIFY(job.recorder->shownError().description.contains("Archive.tar.gz"_L1));
    QCOMPARE(job.recorder->shownError().reason, u"“in/log”"_s);
}

void TestCreateOperation::volumes_data()
{
    QTest::addColumn<bool>("older");
    QTest::addColumn<int>("answer");
    QTest::newRow("none before") << false << 2;
    QTest::newRow("replace an older set") << true << 1;
    QTest::newRow("keep an older set") << true << 2;
}

void TestCreateOperation::volumes()
{
    QFETCH(bool, older);
    QFETCH(int, answer);
    QByteArray contents(250'000, Qt::Uninitialized);
    QRandomGenerator(1).generate(contents.begin(), contents.end());
    QVERIFY(writeFile(at(u"in/file"_s), contents));
    QVERIFY(QDir().mkpath(at(u"out/Archive"_s))); // the name for the folder is taken
    const QStringList set{u"Archive.7z.001"_s, u"Archive.7z.002"_s};
    const QStringList others{u"Archive"_s, u"Archive.7z.001.bak"_s, u"ArchiveX7z.001"_s};
    for (const QString &name : others.mid(1) + (older ? set : QStringList()))
        QVERIFY(writeFile(at(u"out/"_s + name), "somebody else's"));

    CreateJob job;
    job.recorder->inputs = {at(u"in/file"_s)};
    job.recorder->answer = static_cast<CVAlertResult>(answer);
    job.data->setArchiveType(u"7z"_s);
    job.data->setChunkSize(100'000);
    job.run();

    QCOMPARE(job.data->chunkSize(), 0.0);
    // One question for the whole set.
    QCOMPARE(job.recorder->questions(), older ? QStringList{at(u"out/Archive.7z.001"_s)} : QStringList());
    QStringList expected = others;
    if (older && answer != 1) {
        QCOMPARE(job.recorder->ends(), QStringList{u"cancelled"_s});
        expected += set;
    } else {
        QCOMPARE(job.recorder->ends(), QStringList{u"completed many"_s});
        QCOMPARE(job.recorder->results(), QStringList{at(u"out/Archive 2"_s)});
        QCOMPARE(namesIn(at(u"out/Archive 2"_s)),
                 QStringList({u"Archive.7z.001"_s, u"Archive.7z.002"_s, u"Archive.7z.003"_s}));
        QProcess check;
        check.start(u"7z"_s, {u"t"_s, at(u"out/Archive 2/Archive.7z.001"_s)});
        QVERIFY(check.waitForFinished() && check.exitCode() == 0);
        expected += u"Archive 2"_s;
    }
    expected.sort();
    QStringList found = results();
    found.sort();
    QCOMPARE(found, expected);
}

void TestCreateOperation::encrypts()
{
    QVERIFY(writeFile(at(u"in/file"_s), "secret"));
    CVSettings::setValue(CVSettingsKey::shouldEncrypt, true);
    CreateJob job;
    job.recorder->inputs = {at(u"in/file"_s)};
    job.data->setArchiveType(u"zip"_s);
    job.data->setPassword(u"p w\"$"_s);
    job.data->setPasswordConfirmation(u"p w\"$"_s);
    job.run();
    QCOMPARE(job.recorder->ends(), QStringList{u"completed"_s});
    for (const auto &[password, status] : {std::pair(u"p w\"$"_s, 0), std::pair(u"wrong"_s, 2)}) {
        QProcess check;
        check.start(u"7z"_s, {u"t"_s, u"-p"_s + password, at(u"out/Archive.zip"_s)});
        QVERIFY(check.waitForFinished());
        QCOMPARE(check.exitCode(), status);
    }
}

void TestCreateOperation::makesMediaSmaller_data()
{
    QTest::addColumn<bool>("broken");
    QTest::newRow("good") << false;
    QTest::newRow("broken") << true;
}

void TestCreateOperation::makesMediaSmaller()
{
    QFETCH(bool, broken);
    const QString picture = at(u"in/picture.png"_s);
    if (broken) {
        QVERIFY(writeFile(picture, "no picture"));
    } else {
        QVERIFY(paint(picture));
    }
    QVERIFY(writeFile(at(u"in/text"_s), "text"));
    QCOMPARE(changeMode(at(u"in"_s), 0555), 0);
    const TestTree before = inputs();
    CreateJob job;
    job.recorder->inputs = {at(u"in"_s)};
    job.packsMedia();
    job.run();
    QCOMPARE(treeDifferences(before, inputs()), QStringList());
    if (broken) {
        QCOMPARE(job.recorder->ends(), QStringList{u"failed"_s});
        QVERIFY2(job.recorder->error().suggestion.contains("picture.png"_L1),
                 qPrintable(job.recorder->error().suggestion));
        QCOMPARE(results(), QStringList());
        return;
    }
    QCOMPARE(job.recorder->ends(), QStringList{u"completed"_s});
    QCOMPARE(results(), QStringList{u"Archive.zip"_s});
    // Copying and media each have a third.
    QCOMPARE(job.recorder->itemProgress(), std::pair(6.0, 9.0));
    QProcess list;
    list.start(u"unzip"_s, {u"-Z1"_s, at(u"out/Archive.zip"_s)});
    QVERIFY(list.waitForFinished());
    QByteArrayList names = list.readAllStandardOutput().trimmed().split('\n');
    std::ranges::sort(names);
    QCOMPARE(names, QByteArrayList({"in/", "in/picture.bmp", "in/text"}));
}

QTEST_GUILESS_MAIN(TestCreateOperation)

#include "tst_createoperation.moc"
