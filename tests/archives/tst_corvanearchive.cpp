#include "archives/CVCorvaneArchive.h"
#include "archives/CVXArchive.h"
#include "archives/xar/xar.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"
#include "util/LXRemoveTree.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

#include <sys/resource.h>

namespace {

class Recorder final : public CVArchiveDelegate
{
public:
    std::mutex mutex;
    QStringList events;
    double done = 0;
    double total = 0;
    int reports = 0;
    std::function<void()> onProgress;

    void add(const QString &event)
    {
        const std::lock_guard lock(mutex);
        events << event;
    }
    QStringList all()
    {
        const std::lock_guard lock(mutex);
        return events;
    }
    void archiveFinished(CVArchive *) override { add("finished"); }
    void archiveFailed(CVArchive *, std::int32_t status) override { add(QString("failed %1").arg(status)); }
    void archiveCancelled(CVArchive *) override { add("cancelled"); }
    void archiveHasMadeProgress(CVArchive *, double d, double t) override
    {
        {
            const std::lock_guard lock(mutex);
            done = d;
            total = t;
            ++reports;
        }
        if (onProgress)
            onProgress();
    }
    std::optional<QString> archiveWantsPassword(CVArchive *) override { return std::nullopt; }
};

QByteArray shell(const QString &command, const QString &folder)
{
    QProcess process;
    process.setWorkingDirectory(folder);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start("/bin/sh", {"-ec", command});
    const bool good = process.waitForFinished() && process.exitCode() == 0;
    const QByteArray text = process.readAll();
    return good ? text : "failed: " + text;
}

QStringList pathsBelow(const CVFileNode &node)
{
    QStringList paths;
    for (const auto &child : node.children()) {
        paths << child->filename() + (child->isDirectory() ? "/" : "");
        paths += pathsBelow(*child);
    }
    return paths;
}

} // namespace

class TestCorvaneArchive : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { LXMainThread::install(); }
    void init();
    void cleanup();
    void factory();
    void shellLine();
    void createsAndExtracts();
    void emptyFolder();
    void failuresLeaveNothing_data();
    void failuresLeaveNothing();
    void cancelEndsOnce_data();
    void cancelEndsOnce();
    void selectedEntries();
    void readerDoesTheRest_data();
    void readerDoesTheRest();
    void previewNames();
    void previewReportsLongLists_data();
    void previewReportsLongLists();
    void previewOfWhatIsNone();

private:
    /// Waits for the end of a create and tells all that was heard.
    QStringList create(const std::shared_ptr<CVArchive> &archive);
    QStringList extract(CVArchive &archive);

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<Recorder> m_recorder;
    QString m_source, m_archive, m_out;
};

void TestCorvaneArchive::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    m_recorder = std::make_unique<Recorder>();
    m_source = m_dir->filePath("source");
    m_archive = m_dir->filePath("made.corvane");
    m_out = m_dir->filePath("out");
    QVERIFY(QDir().mkpath(m_source) && QDir().mkpath(m_out));
}

void TestCorvaneArchive::cleanup()
{
    qunsetenv("CORVANE_TOOL_XAR");
    QVERIFY(removeTree(m_dir->path())); // Qt cannot: there are names that are no text
}

QStringList TestCorvaneArchive::create(const std::shared_ptr<CVArchive> &archive)
{
    archive->setDelegate(m_recorder.get());
    archive->bundle(m_source, m_archive);
    [&] { QTRY_VERIFY_WITH_TIMEOUT(!m_recorder->all().isEmpty(), 60000); }();
    QTest::qWait(50); // a second end would be a fault
    archive->setDelegate(nullptr);
    return m_recorder->all();
}

QStringList TestCorvaneArchive::extract(CVArchive &archive)
{
    m_recorder->events.clear();
    archive.setDelegate(m_recorder.get());
    archive.open(m_archive, m_out);
    return m_recorder->all();
}

void TestCorvaneArchive::factory()
{
    for (const char *name : {"a.corvane", "A.CORVANE"}) {
        const auto created = CVArchive::archiveForCreating(name);
        QVERIFY(dynamic_cast<CVCorvaneArchive *>(created.get()));
        QVERIFY(dynamic_cast<CVCorvaneArchive *>(CVArchive::archiveForExtracting(name).get()));
        QVERIFY(dynamic_cast<CVCorvaneArchive *>(CVArchive::archiveForPreviewing(name).get()));
        QVERIFY(created->canManipulateMultimedia() && created->canPreview());
        QVERIFY(!created->canEncrypt() && !created->canSetCompressionLevel());
    }
}

void TestCorvaneArchive::shellLine()
{
    QCOMPARE(
        CVCorvaneArchive::previewShellCommand("/usr/bin/xar", "/a/b c.corvane"),
        QStringLiteral("/usr/bin/xar --distribution -vtf \"/a/b c.corvane\" | awk '{ s = \"\"; for (i = 6; "
                       "i <= NF; i++) s = s $i \" \"; print $1 \" \" $3 \" \" s }'"));
    QVERIFY(
        CVCorvaneArchive::previewShellCommand("/usr/bin/xar", "$(x)`y`\"").contains("\"\\$(x)\\`y\\`\\\"\""));
}

void TestCorvaneArchive::createsAndExtracts()
{
    QVERIFY(
        shell("mkdir -p a/b empty; seq 1000 > a/b/numbers; ln a/b/numbers hard; ln -s hard soft; echo x > "
              "\"$(printf 'no text \\377')\"; chmod 750 a; find . -exec touch -h -d @1500000001 {} +",
              m_source)
            .isEmpty());
    QCOMPARE(create(std::make_shared<CVCorvaneArchive>()), QStringList{"finished"});
    QCOMPARE(m_recorder->done, 7.0);
    QCOMPARE(m_recorder->total, 7.0);
    m_recorder->reports = 0;
    const QString before = QDir::currentPath();
    CVCorvaneArchive archive;
    QCOMPARE(extract(archive), QStringList{"finished"});
    QCOMPARE(m_recorder->reports, 7);
    QCOMPARE(QDir::currentPath(), before);
    const char *const describe = "find . -mindepth 1 -printf '%P %y %m %T@ %l %n\\n' | LC_ALL=C sort";
    QCOMPARE(shell(describe, m_out), shell(describe, m_source));
    QCOMPARE(shell("diff -r --no-dereference . ../out", m_source), QByteArray());
}

void TestCorvaneArchive::emptyFolder()
{
    QCOMPARE(create(std::make_shared<CVCorvaneArchive>()), QStringList{"finished"});
    QVERIFY(!shell("bsdtar -tf made.corvane", m_dir->path()).startsWith("failed"));
    CVCorvaneArchive archive;
    QCOMPARE(extract(archive), QStringList{"finished"});
    QVERIFY(QDir(m_out).isEmpty());
}

void TestCorvaneArchive::failuresLeaveNothing_data()
{
    QTest::addColumn<QString>("prepare");
    QTest::addColumn<bool>("full");
    QTest::addColumn<QString>("reason");
    QTest::newRow("no folder for it")
        << "rm -rf ../made.corvane; ln -s gone/made.corvane ../made.corvane" << false << "made.corvane";
    QTest::newRow("a pipe in it") << "mkfifo pipe" << false << "pipe";
    QTest::newRow("full disk") << "head -c 5000000 /dev/urandom > noise" << true << "made.corvane";
}

void TestCorvaneArchive::failuresLeaveNothing()
{
    QFETCH(QString, prepare);
    QFETCH(bool, full);
    QFETCH(QString, reason);
    QVERIFY(shell(prepare, m_source).isEmpty());
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    if (full) {
        const rlimit limit{1 << 20, before.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    const auto archive = std::make_shared<CVCorvaneArchive>();
    const QStringList events = create(archive);
    ::setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, previous);
    QCOMPARE(events, QStringList{"failed 4"});
    QVERIFY2(archive->failureReason().contains(reason), qPrintable(archive->failureReason()));
    QCOMPARE(archive->systemError(), full ? EFBIG : 0);
    QVERIFY(!QFile::exists(m_archive));
}

void TestCorvaneArchive::cancelEndsOnce_data()
{
    QTest::addColumn<QString>("when");
    for (const char *when :
         {"at once", "before it begins", "in the middle", "from its own progress", "after the end"})
        QTest::newRow(when) << when;
}

void TestCorvaneArchive::cancelEndsOnce()
{
    QFETCH(QString, when);
    QVERIFY(
        shell("head -c 60000000 /dev/zero > zeros; for i in 1 2 3 4 5 6 7 8 9; do cp zeros $i; done; head -c "
              "9000000 /dev/urandom > a",
              m_source)
            .isEmpty());
    const auto archive = std::make_shared<CVCorvaneArchive>();
    archive->setDelegate(m_recorder.get());
    if (when == "from its own progress")
        m_recorder->onProgress = [&] {
            m_recorder->onProgress = nullptr;
            archive->cancelCreate();
        };
    if (when == "at once")
        archive->cancelCreate();
    archive->bundle(m_source, m_archive);
    if (when == "before it begins")
        archive->cancelCreate();
    if (when == "in the middle") {
        QTRY_VERIFY(QFile::exists(m_archive));
        archive->cancelCreate();
    }
    QTRY_VERIFY_WITH_TIMEOUT(!m_recorder->all().isEmpty(), 60000);
    if (when == "after the end")
        archive->cancelCreate();
    QTest::qWait(100);
    const bool isWhole = when == "after the end";
    QCOMPARE(m_recorder->all(), QStringList{isWhole ? "finished" : "cancelled"});
    QTRY_COMPARE(QFile::exists(m_archive), isWhole);
}

void TestCorvaneArchive::selectedEntries()
{
    QVERIFY(shell("mkdir -p a/b; echo 1 > a/b/1; echo 2 > a/2; echo 3 > '-d  e '", m_source).isEmpty());
    QCOMPARE(create(std::make_shared<CVCorvaneArchive>()), QStringList{"finished"});
    CVCorvaneArchive archive;
    archive.singleFilesToBeExtracted = QStringList{"a/b", "-d  e "};
    QCOMPARE(extract(archive), QStringList{"finished"});
    QCOMPARE(shell("find . -type f | LC_ALL=C sort", m_out), QByteArray("./-d  e \n./a/b/1\n"));
}

void TestCorvaneArchive::readerDoesTheRest_data()
{
    QTest::addColumn<QString>("make");
    QTest::addColumn<QString>("tool");
    QTest::addColumn<bool>("emptyBefore");
    const QString plain = "bsdtar --format xar -cf ../made.corvane *";
    QTest::newRow("no tool") << plain << "/nonexistent" << true;
    QTest::newRow("a tool that fails") << plain << "/bin/false" << true;
    QTest::newRow("something in the destination") << plain << "" << false;
    QTest::newRow("a zip") << "bsdtar --format zip -cf ../made.corvane *"
                           << "" << true;
    QTest::newRow("a link that leads out") << "ln -s ../../escaped link; " + plain << "" << true;
    QTest::newRow("a pipe") << "mkfifo pipe; " + plain << "" << true;
    QTest::newRow("cut off") << plain + "; truncate -s -3 ../made.corvane"
                             << "" << true;
    QTest::newRow("damaged")
        << plain + "; printf X | dd of=../made.corvane bs=1 seek=200 conv=notrunc 2> /dev/null"
        << "" << true;
}

void TestCorvaneArchive::readerDoesTheRest()
{
    QFETCH(QString, make);
    QFETCH(QString, tool);
    QFETCH(bool, emptyBefore);
    QVERIFY(shell("seq 2000 > numbers; echo text > text; " + make, m_source).isEmpty());
    if (!tool.isEmpty())
        qputenv("CORVANE_TOOL_XAR", tool.toUtf8());
    if (!emptyBefore)
        QVERIFY(shell("echo mine > mine", m_out).isEmpty());

    // The same outcome as without the tool.
    CVXArchive reader;
    const QString out = m_out;
    m_out = m_dir->filePath("expected");
    QVERIFY(QDir().mkdir(m_out));
    const QStringList expected = extract(reader);
    m_out = out;
    CVCorvaneArchive archive;
    QCOMPARE(extract(archive), expected);
    QCOMPARE(archive.skippedEntries().size(), reader.skippedEntries().size());
    QCOMPARE(archive.failureReason(), reader.failureReason());
    QCOMPARE(shell("rm -f mine; find . -printf '%P %y %s\\n' | sort", m_out),
             shell("find . -printf '%P %y %s\\n' | sort", m_dir->filePath("expected")));
}

void TestCorvaneArchive::previewNames()
{
    const QByteArrayList names{"plain",
                               " blanks  all   over ",
                               "line\nbreak",
                               "tab\ttab",
                               "-rw-r--r-- 12 name",
                               "x 5 y",
                               "back\\slash \\x41",
                               "\xc3\xa9\xe2\x80\x83",
                               "no text \xff\xfe",
                               "$(touch hacked) `x` \"",
                               "a/in a folder",
                               "a/b/deeper",
                               "a b/ blank first"};
    QStringList expected;
    for (const QByteArray &name : names) {
        const QByteArray path = m_source.toUtf8() + '/' + name;
        QVERIFY(QDir().mkpath(QFile::decodeName(path.left(path.lastIndexOf('/')))));
        FILE *const file = std::fopen(path.constData(), "we");
        QVERIFY(file);
        std::fclose(file);
        expected << fileNameFromBytes(name);
    }
    expected << "a/"
             << "a/b/"
             << "a b/";
    // Also a name for the archive that the shell must not take for more.
    m_archive = m_dir->filePath("$(touch hacked) \"`x`.corvane");
    QVERIFY(shell("chmod 1777 a", m_source).isEmpty());
    QCOMPARE(create(std::make_shared<CVCorvaneArchive>()), QStringList{"finished"});
    m_recorder->events.clear();
    CVCorvaneArchive archive;
    archive.setDelegate(m_recorder.get());
    archive.openForPreview(m_archive);
    QCOMPARE(m_recorder->events, QStringList{"finished"});
    QStringList found = pathsBelow(*archive.filePreviewsNode());
    found.sort();
    expected.sort();
    QCOMPARE(found, expected);
    QCOMPARE(archive.previewedFiles().size(), std::size_t(12));
}

void TestCorvaneArchive::previewReportsLongLists_data()
{
    QTest::addColumn<int>("nested");
    QTest::addColumn<int>("reports");
    QTest::newRow("5,000") << 5000 << 0;
    QTest::newRow("5,001") << 5001 << 5001;
}

void TestCorvaneArchive::previewReportsLongLists()
{
    QFETCH(int, nested);
    QFETCH(int, reports);
    {
        auto made = xar_open(m_archive.toUtf8(), xar_mode::write);
        QVERIFY(made);
        const xar_file_t folder = xar_add_frompath(*made.value(), nullptr, "folder", m_source.toUtf8());
        // One whose folder has no line of its own hangs under the root.
        for (int i = 0; i < nested - 1; ++i)
            QVERIFY(
                xar_add_frompath(*made.value(), folder, "f" + QByteArray::number(i), "/dev/../etc/hostname"));
        QVERIFY(xar_add_frompath(*made.value(), nullptr, "missing/orphan", "/etc/hostname"));
        QVERIFY(xar_close(*made.value()));
    }
    CVCorvaneArchive archive;
    archive.setDelegate(m_recorder.get());
    archive.openForPreview(m_archive);
    QCOMPARE(m_recorder->events, QStringList{"finished"});
    QCOMPARE(m_recorder->reports, reports);
    QCOMPARE(archive.previewedFiles().size(), std::size_t(2));
    QCOMPARE(archive.previewedFiles()[0]->children().size(), std::size_t(nested - 1));
    QCOMPARE(archive.previewedFiles()[1]->filename(), QStringLiteral("missing/orphan"));
}

void TestCorvaneArchive::previewOfWhatIsNone()
{
    QVERIFY(shell("echo no archive > ../made.corvane", m_source).isEmpty());
    CVCorvaneArchive archive;
    archive.setDelegate(m_recorder.get());
    archive.openForPreview(m_archive);
    QCOMPARE(m_recorder->events, QStringList{"failed 4"});
}

QTEST_GUILESS_MAIN(TestCorvaneArchive)
#include "tst_corvanearchive.moc"
