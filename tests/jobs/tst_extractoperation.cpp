#include "archives/CVArchive.h"
#include "engine/control/CVOperationFactory.h"
#include "engine/model/CVOperationQueue.h"
#include "engine/model/CVSettings.h"
#include "engine/model/CVWorkDirectoryManager.h"
#include "jobs/CVExtractArchivesOperation.h"
#include "jobs/JobRecorder.h"
#include "platform/LXTrash.h"
#include "util/LXMainThread.h"

#include <QDir>
#include <QDirIterator>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/// What a fake archive does when it is opened.
struct Script
{
    QStringList items = {}; ///< files; folders end in "/", links are "name -> target"
    std::int32_t status = CVArchive::Success;
    QString password = {};     ///< it asks, and only this one fits
    QString skippedEntry = {}; ///< left out
    int systemError = 0;
    bool hangs = false;    ///< until it is cancelled
    bool threaded = false; ///< reports later, on a thread of its own
};

/// Lets a test wait until a job has reached a place.
class Gate
{
public:
    void open()
    {
        const std::lock_guard lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    bool wait()
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(20), [this] { return m_open; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
};

class FakeArchive final : public CVArchive
{
public:
    FakeArchive(Script script, std::shared_ptr<Gate> started)
        : m_script(std::move(script))
        , m_started(std::move(started))
    {}
    ~FakeArchive() override
    {
        if (m_thread.joinable())
            m_thread.join();
    }

    void cancelExtract() override
    {
        m_cancelled.open();
        CVArchive::cancelExtract();
    }

protected:
    void extractCommand() override
    {
        m_started->open();
        if (m_script.threaded)
            m_thread = std::thread([this] { work(); });
        else
            work();
    }

private:
    void work()
    {
        if (!m_script.password.isEmpty()) {
            askForPassword();
            if (status() == Cancelled)
                return;
            if (password != m_script.password)
                setStatus(InvalidPassword);
        }
        for (const QString &item : m_script.items)
            make(item);
        hasMadeProgress(1, 1);
        if (m_script.hangs)
            m_cancelled.wait();
        if (!m_script.skippedEntry.isEmpty())
            m_skippedEntries.push_back({m_script.skippedEntry, u"it leads out"_s, XADErrorCode::Refused});
        m_systemError = m_script.systemError;
        if (m_script.status != Success) {
            setStatus(m_script.status);
            m_failureReason = u"because"_s;
        }
        extractDidFinish();
    }

    void make(const QString &item)
    {
        const QString path = extractDestination + u'/' + item.section(u" -> "_s, 0, 0);
        QDir().mkpath(path.left(path.lastIndexOf(u'/')));
        if (item.endsWith(u'/')) {
            QDir().mkpath(path);
        } else if (item.contains(u" -> ")) {
            QFile::link(item.section(u" -> "_s, 1), path);
        } else {
            QFile file(path);
            if (file.open(QIODevice::WriteOnly))
                file.write(item.toUtf8());
        }
    }

    const Script m_script;
    const std::shared_ptr<Gate> m_started;
    Gate m_cancelled;
    std::thread m_thread;
};

class Recorder final : public JobRecorder
{
public:
    using JobRecorder::JobRecorder;

    QStringList inputs;
    CVAlertResult goOn = CVAlertResult::Default;
    std::vector<CVBatchPosition> positions; ///< once the job is over

    QStringList operationPathsToInputFiles(CVOperation *) override { return inputs; }
    void operationHasReachedArchive(CVOperation *, const CVBatchPosition &position) override
    {
        positions.push_back(position);
    }
    CVAlertResult operationNeedsToAskWhetherToContinueAfterArchiveAtPath(CVOperation *, const QString &path,
                                                                         const LXError &error) override
    {
        note(u"go on? "_s + path + u": "_s + error.description);
        return goOn;
    }
};

class FakeTrash final : public LXTrash
{
public:
    LXResult<QString> moveToTrash(const QString &path) override
    {
        if (refuses)
            return LXError{
                .domain = {}, .code = 1, .description = u"no trash"_s, .reason = {}, .suggestion = {}};
        trashed.append(QFileInfo(path).fileName());
        QFile::remove(path);
        return path;
    }
    QStringList trashed;
    bool refuses = false;
};

} // namespace

class tst_extractoperation : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { LXMainThread::install(); }
    void init();
    void cleanup();
    void flattening_data();
    void flattening();
    void wholeArchives_data();
    void wholeArchives();
    void chosenEntries_data();
    void chosenEntries();
    void leavesSingleFileForOpening();
    void fullDiskIsNotTheArchivesFault();
    void fate_data();
    void fate();
    void cancel_data();
    void cancel();
    void describesItself();

private:
    QString path(const QString &name) const { return m_root->filePath(name); }
    void makeFile(const QString &name) const
    {
        QFile file(path(name));
        if (file.open(QIODevice::WriteOnly))
            file.write("archive");
    }
    std::shared_ptr<CVExtractArchivesOperation>
    prepared(std::shared_ptr<CVExtractArchivesOperation> operation);
    void run(const std::shared_ptr<CVExtractArchivesOperation> &operation);
    /// Everything below the folder but its archives; folders end in "/".
    QStringList tree(const QString &folder) const;

    std::unique_ptr<QTemporaryDir> m_root;
    std::shared_ptr<Recorder> m_recorder;
    std::shared_ptr<FakeTrash> m_trash;
    std::map<QString, Script> m_scripts; ///< by file name
    std::shared_ptr<Gate> m_started;
};

void tst_extractoperation::init()
{
    m_root = std::make_unique<QTemporaryDir>();
    m_recorder = std::make_shared<Recorder>(m_root->path());
    m_trash = std::make_shared<FakeTrash>();
    m_started = std::make_shared<Gate>();
    m_scripts.clear();
    LXTrash::setShared(m_trash);
    CVSettings::setStore(std::make_shared<LXSettingsStore>(path(u"settings/corvane.conf"_s)));
    QDir(m_root->path()).mkdir(u"out"_s);
    CVSettings::setValue(CVSettingsKey::extractDestination,
                         static_cast<int>(CVExtractDestination::DefaultFolder));
    CVSettings::setValue(CVSettingsKey::extractDefaultDestination, path(u"out"_s));
}

void tst_extractoperation::cleanup()
{
    LXTrash::setShared(nullptr);
    CVSettings::setStore(nullptr);
}

std::shared_ptr<CVExtractArchivesOperation>
tst_extractoperation::prepared(std::shared_ptr<CVExtractArchivesOperation> operation)
{
    operation->setDelegate(m_recorder);
    operation->setArchiveMaker([this](const QString &archivePath) {
        return std::make_shared<FakeArchive>(m_scripts[QFileInfo(archivePath).fileName()], m_started);
    });
    return operation;
}

void tst_extractoperation::run(const std::shared_ptr<CVExtractArchivesOperation> &operation)
{
    CVOperationQueue queue(1);
    queue.add(prepared(operation));
    queue.waitUntilEmpty();
    QVERIFY(operation->isFinished());
}

QStringList tst_extractoperation::tree(const QString &folder) const
{
    QStringList found;
    const QString base = path(folder);
    QDirIterator it(base, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString item = it.next();
        const bool isFolder = it.fileInfo().isDir() && !it.fileInfo().isSymLink();
        found.append(item.mid(base.size() + 1) + (isFolder ? u"/"_s : QString()));
    }
    found.sort();
    return found;
}

void tst_extractoperation::flattening_data()
{
    QTest::addColumn<QStringList>("onDisk");
    QTest::addColumn<QStringList>("dropped");
    QTest::addColumn<QStringList>("kept");
    const QStringList none;
    QTest::newRow("plain ones, sorted")
        << none << QStringList{u"b.zip"_s, u"a.zip"_s} << QStringList{u"a.zip"_s, u"b.zip"_s};
    QTest::newRow("a later 7-Zip part brings the first")
        << QStringList{u"s.7z.001"_s} << QStringList{u"s.7z.003"_s} << QStringList{u"s.7z.001"_s};
    QTest::newRow("without the first part")
        << none << QStringList{u"s.7z.003"_s, u"s.7z.002"_s} << QStringList{u"s.7z.002"_s};
    QTest::newRow("all 7-Zip parts") << QStringList{u"s.7z.001"_s}
                                     << QStringList{u"s.7z.002"_s, u"s.7z.001"_s, u"s.7z.003"_s}
                                     << QStringList{u"s.7z.001"_s};
    QTest::newRow("two parts of one RAR set")
        << none << QStringList{u"a.part2.rar"_s, u"a.part1.rar"_s} << QStringList{u"a.part1.rar"_s};
    QTest::newRow("old and new RAR sets of one name are two")
        << none << QStringList{u"a.r00"_s, u"a.part1.rar"_s, u"a.r01"_s}
        << QStringList{u"a.part1.rar"_s, u"a.r00"_s};
    QTest::newRow("sets of two names") << none << QStringList{u"b.part1.rar"_s, u"a.part1.rar"_s}
                                       << QStringList{u"a.part1.rar"_s, u"b.part1.rar"_s};
    QStringList many;
    for (int i = 1; i < 20000; ++i)
        many.append(u"m.part%1.rar"_s.arg(i, 5, 10, QLatin1Char('0')));
    QTest::newRow("a set of very many") << none << many << QStringList{many.first()};
}

void tst_extractoperation::flattening()
{
    QFETCH(QStringList, onDisk);
    QFETCH(QStringList, dropped);
    QFETCH(QStringList, kept);
    for (const QString &name : onDisk)
        makeFile(name);
    for (QString &name : dropped)
        name = path(name);
    QStringList result = CVExtractArchivesOperation::sourcePathsByFlatteningSourcePaths(dropped);
    for (QString &name : result)
        name = QFileInfo(name).fileName();
    QCOMPARE(result, kept);
}

// Whole archives: what was told and asked, in order, and what lies in the destination afterwards.
void tst_extractoperation::wholeArchives_data()
{
    using Scripts = std::map<QString, Script>;
    QTest::addColumn<QStringList>("inputs");
    QTest::addColumn<Scripts>("scripts");
    QTest::addColumn<QStringList>("events");
    QTest::addColumn<QStringList>("delivered");

    const Script one = {.items = {u"docs/a.txt"_s}};
    const Script bad = {.items = {u"half"_s}, .status = CVArchive::InvalidFile};
    const Script locked = {.items = {u"secret"_s}, .password = u"right"_s};
    const QString notOpened = u"The file “%1” could not be opened."_s;

    QTest::newRow("nothing dropped") << QStringList{} << Scripts{} << QStringList{u"completed"_s}
                                     << QStringList{};
    QTest::newRow("one item arrives by itself")
        << QStringList{u"x.zip"_s} << Scripts{{u"x.zip"_s, one}}
        << QStringList{u"Opening “x.zip”"_s, u"completed many: ~/out/docs"_s}
        << QStringList{u"docs/"_s, u"docs/a.txt"_s};
    QTest::newRow("a hidden one too")
        << QStringList{u"x.zip"_s} << Scripts{{u"x.zip"_s, {.items = {u".rc"_s}}}}
        << QStringList{u"Opening “x.zip”"_s, u"completed many: ~/out/.rc"_s} << QStringList{u".rc"_s};
    QTest::newRow("several in a folder named after the archive")
        << QStringList{u"photos.tar.gz"_s} << Scripts{{u"photos.tar.gz"_s, {.items = {u"a"_s, u"b"_s}}}}
        << QStringList{u"Opening “photos.tar.gz”"_s, u"completed many: ~/out/photos.tar"_s}
        << QStringList{u"photos.tar/"_s, u"photos.tar/a"_s, u"photos.tar/b"_s};
    QTest::newRow("nothing inside") << QStringList{u"e.zip"_s} << Scripts{{u"e.zip"_s, {}}}
                                    << QStringList{u"Opening “e.zip”"_s, u"completed many: ~/out/e"_s}
                                    << QStringList{u"e/"_s};
    QTest::newRow("a dangling link is one item")
        << QStringList{u"x.zip"_s} << Scripts{{u"x.zip"_s, {.items = {u"l -> nowhere"_s}}}}
        << QStringList{u"Opening “x.zip”"_s, u"completed many: ~/out/l"_s} << QStringList{u"l"_s};
    QTest::newRow("reports from another thread")
        << QStringList{u"x.zip"_s} << Scripts{{u"x.zip"_s, {.items = {u"a"_s}, .threaded = true}}}
        << QStringList{u"Opening “x.zip”"_s, u"completed many: ~/out/a"_s} << QStringList{u"a"_s};
    QTest::newRow("the same name twice")
        << QStringList{u"x.zip"_s, u"y.zip"_s} << Scripts{{u"x.zip"_s, one}, {u"y.zip"_s, one}}
        << QStringList{u"Opening “x.zip” (1 of 2)"_s, u"Opening “y.zip” (2 of 2)"_s,
                       u"completed many: ~/out/docs, ~/out/docs 2"_s}
        << QStringList{u"docs 2/"_s, u"docs 2/a.txt"_s, u"docs/"_s, u"docs/a.txt"_s};
    QTest::newRow("a taken name that its links need")
        << QStringList{u"a.zip"_s, u"b.zip"_s}
        << Scripts{{u"a.zip"_s, {.items = {u"d/x"_s}}},
                   {u"b.zip"_s, {.items = {u"d/x"_s, u"d/e/l -> ../../d/x"_s}}}}
        << QStringList{u"Opening “a.zip” (1 of 2)"_s, u"Opening “b.zip” (2 of 2)"_s,
                       u"completed many: ~/out/d, ~/out/d 2"_s}
        << QStringList{u"d 2/"_s,    u"d 2/d/"_s, u"d 2/d/e/"_s, u"d 2/d/e/l"_s,
                       u"d 2/d/x"_s, u"d/"_s,     u"d/x"_s};
    QTest::newRow("wrong password, then the right one")
        << QStringList{u"wrong then right.zip"_s} << Scripts{{u"wrong then right.zip"_s, locked}}
        << QStringList{u"Opening “wrong then right.zip”"_s, u"password? wrong then right.zip"_s,
                       u"Opening “wrong then right.zip”"_s, u"password? wrong then right.zip again"_s,
                       u"completed many: ~/out/secret"_s}
        << QStringList{u"secret"_s};
    QTest::newRow("no password") << QStringList{u"x.zip"_s} << Scripts{{u"x.zip"_s, locked}}
                                 << QStringList{u"Opening “x.zip”"_s, u"password? x.zip"_s, u"cancelled"_s}
                                 << QStringList{};
    QTest::newRow("the only one fails")
        << QStringList{u"x.zip"_s} << Scripts{{u"x.zip"_s, bad}}
        << QStringList{u"Opening “x.zip”"_s, u"failed: "_s + notOpened.arg(u"x.zip"_s)} << QStringList{};
    QTest::newRow("one fails, go on")
        << QStringList{u"x.zip"_s, u"y.zip"_s} << Scripts{{u"x.zip"_s, bad}, {u"y.zip"_s, one}}
        << QStringList{u"Opening “x.zip” (1 of 2)"_s, u"go on? x.zip: "_s + notOpened.arg(u"x.zip"_s),
                       u"Opening “y.zip” (2 of 2)"_s, u"completed many: ~/out/docs"_s}
        << QStringList{u"docs/"_s, u"docs/a.txt"_s};
    QTest::newRow("one fails, stop") << QStringList{u"stop.zip"_s, u"y.zip"_s}
                                     << Scripts{{u"stop.zip"_s, bad}, {u"y.zip"_s, one}}
                                     << QStringList{u"Opening “stop.zip” (1 of 2)"_s,
                                                    u"go on? stop.zip: "_s + notOpened.arg(u"stop.zip"_s),
                                                    u"cancelled"_s}
                                     << QStringList{};
    QTest::newRow("the last one fails")
        << QStringList{u"x.zip"_s, u"y.zip"_s} << Scripts{{u"x.zip"_s, one}, {u"y.zip"_s, bad}}
        << QStringList{u"Opening “x.zip” (1 of 2)"_s, u"Opening “y.zip” (2 of 2)"_s,
                       u"error: "_s + notOpened.arg(u"y.zip"_s), u"completed many: ~/out/docs"_s}
        << QStringList{u"docs/"_s, u"docs/a.txt"_s};
    QTest::newRow("all fail") << QStringList{u"x.zip"_s, u"y.zip"_s}
                              << Scripts{{u"x.zip"_s, bad}, {u"y.zip"_s, bad}}
                              << QStringList{u"Opening “x.zip” (1 of 2)"_s,
                                             u"go on? x.zip: "_s + notOpened.arg(u"x.zip"_s),
                                             u"Opening “y.zip” (2 of 2)"_s,
                                             u"failed: "_s + notOpened.arg(u"y.zip"_s)}
                              << QStringList{};
    QTest::newRow("something is left out")
        << QStringList{u"x.zip"_s} << Scripts{{u"x.zip"_s, {.items = {u"a"_s}, .skippedEntry = u"../b"_s}}}
        << QStringList{u"Opening “x.zip”"_s, u"left out of x.zip: ../b"_s, u"completed many: ~/out/a"_s}
        << QStringList{u"a"_s};
    QTest::newRow("the file is gone by then")
        << QStringList{u"gone.zip"_s} << Scripts{}
        << QStringList{u"Opening “gone.zip”"_s, u"failed: "_s + notOpened.arg(u"gone.zip"_s)}
        << QStringList{};
}

void tst_extractoperation::wholeArchives()
{
    using Scripts = std::map<QString, Script>;
    QFETCH(QStringList, inputs);
    QFETCH(Scripts, scripts);
    QFETCH(QStringList, events);
    QFETCH(QStringList, delivered);
    m_scripts = scripts;
    for (const QString &name : inputs) {
        if (!name.startsWith(u"gone"))
            makeFile(name);
        m_recorder->inputs.append(path(name));
    }
    m_recorder->passwords[u"wrong then right.zip"_s] = {u"wrong"_s, u"right"_s};
    if (inputs.contains(u"stop.zip"_s))
        m_recorder->goOn = CVAlertResult::Cancel;

    run(CVOperationFactory::extractArchivesOperation());

    QCOMPARE(m_recorder->events(), events);
    QCOMPARE(tree(u"out"_s), delivered);
    // Told for every archive that is begun, but for a single one; the shares cover the whole.
    double share = 0;
    for (const CVBatchPosition &position : m_recorder->positions) {
        QVERIFY(position.number >= 1 && position.number <= position.count);
        QVERIFY(position.shareBefore <= share && position.shareAfter > position.shareBefore);
        share = position.shareAfter;
    }
    const bool isBatch = events.join(u' ').contains(u"(1 of "_s);
    QCOMPARE(!m_recorder->positions.empty(), isBatch);
    if (isBatch && m_recorder->positions.back().number == m_recorder->positions.back().count)
        QCOMPARE(share, 1.0);
    QVERIFY(CVWorkDirectoryManager::workDirs().isEmpty());
}

void tst_extractoperation::chosenEntries_data()
{
    QTest::addColumn<QStringList>("entries");
    QTest::addColumn<QStringList>("delivered"); // empty: fails
    QTest::newRow("a file deep inside") << QStringList{u"docs/sub/b.txt"_s} << QStringList{u"b.txt"_s};
    QTest::newRow("a folder") << QStringList{u"docs/sub"_s} << QStringList{u"sub/"_s, u"sub/b.txt"_s};
    QTest::newRow("a folder and what is in it")
        << QStringList{u"docs/sub/b.txt"_s, u"docs/sub"_s} << QStringList{u"sub/"_s, u"sub/b.txt"_s};
    QTest::newRow("twice the same") << QStringList{u"top"_s, u"top"_s} << QStringList{u"top"_s};
    QTest::newRow("two of one name") << QStringList{u"top"_s, u"docs/top"_s}
                                     << QStringList{u"top"_s, u"top 2"_s};
    QTest::newRow("a link itself") << QStringList{u"link"_s} << QStringList{u"link"_s};
    QTest::newRow("not there") << QStringList{u"top"_s, u"nothing"_s} << QStringList{};
    QTest::newRow("climbs out") << QStringList{u"../settings/corvane.conf"_s} << QStringList{};
    QTest::newRow("through a link") << QStringList{u"link/corvane.conf"_s} << QStringList{};
    QTest::newRow("everything is no entry") << QStringList{u"."_s} << QStringList{};
}

void tst_extractoperation::chosenEntries()
{
    QFETCH(QStringList, entries);
    QFETCH(QStringList, delivered);
    makeFile(u"x.zip"_s);
    const QString leadsOut = u"link -> "_s + path(u"settings"_s);
    m_scripts[u"x.zip"_s] = {.items = {u"top"_s, u"docs/top"_s, u"docs/sub/b.txt"_s, leadsOut}};
    CVSettings::setValue(CVSettingsKey::archiveFateAfterExtract, static_cast<int>(CVArchiveFate::Delete));
    const QStringList settingsBefore = tree(u"settings"_s);
    auto archive = std::make_shared<FakeArchive>(Script(), m_started);
    archive->sourcePath = path(u"x.zip"_s);

    run(CVOperationFactory::singleFilesExtractOperationWithArchive(archive, entries, path(u"out"_s)));

    QStringList sorted = delivered;
    sorted.sort();
    QCOMPARE(tree(u"out"_s), sorted);
    QCOMPARE(m_recorder->events().last().section(u':', 0, 0),
             delivered.isEmpty() ? u"failed"_s : u"completed many"_s);
    QCOMPARE(tree(u"settings"_s), settingsBefore);
    QVERIFY(QFile::exists(path(u"x.zip"_s))); // a part was delivered, so the archive stays
    QVERIFY(CVWorkDirectoryManager::workDirs().isEmpty());
}

void tst_extractoperation::leavesSingleFileForOpening()
{
    makeFile(u"x.zip"_s);
    m_scripts[u"x.zip"_s] = {.items = {u"docs/a.txt"_s}};
    auto archive = std::make_shared<FakeArchive>(Script(), m_started);
    archive->sourcePath = path(u"x.zip"_s);
    const auto operation =
        CVOperationFactory::singleFileExtractThenOpenOperationWithArchive(archive, u"docs/a.txt"_s);
    QVERIFY(CVOperationFactory::operationExtractedSingleFileForOpening(operation.get()));
    run(operation);

    const QStringList results = operation->destinationPaths();
    QCOMPARE(results.size(), 1);
    QVERIFY(results.first().startsWith(QDir::tempPath()));
    QVERIFY(results.first().endsWith(u"/docs/a.txt"));
    QVERIFY(QFile::exists(results.first()));
    QVERIFY(tree(u"out"_s).isEmpty());
    // Whoever cleans up later has to know about it.
    const auto listed = CVWorkDirectoryManager::workDirs();
    QCOMPARE(listed.size(), 1);
    QVERIFY(results.first().startsWith(listed.first()));
    QDir(listed.first()).removeRecursively();
}

void tst_extractoperation::fullDiskIsNotTheArchivesFault()
{
    makeFile(u"x.zip"_s);
    m_scripts[u"x.zip"_s] = {.status = CVArchive::InvalidFile, .systemError = ENOSPC};
    m_recorder->inputs = {path(u"x.zip"_s)};
    run(CVOperationFactory::extractArchivesOperation());
    QCOMPARE(m_recorder->events().last(),
             u"failed: The file “x.zip” could not be opened because “out” is full."_s);
    QVERIFY(!m_recorder->error().reason.isEmpty());

    m_scripts[u"x.zip"_s] = {.status = CVArchive::InvalidFile};
    run(CVOperationFactory::extractArchivesOperation());
    QCOMPARE(m_recorder->error().reason,
             u"The archive could not be opened, possibly because it is incomplete or corrupt."_s);
    QCOMPARE(m_recorder->error().suggestion, u"because"_s);
}

void tst_extractoperation::fate_data()
{
    QTest::addColumn<int>("setting");
    QTest::addColumn<Script>("script");
    QTest::addColumn<bool>("trashRefuses");
    QTest::addColumn<QStringList>("trashed");
    QTest::addColumn<QStringList>("left"); // of the two parts and the file beside them
    const Script good = {.items = {u"a"_s}};
    const QStringList all = {u"s.part1.rar"_s, u"s.part2.rar"_s, u"st.part1.rar"_s};
    const QStringList other = {u"st.part1.rar"_s};
    QTest::newRow("keep") << 0 << good << false << QStringList{} << all;
    QTest::newRow("trash the set") << 1 << good << false << QStringList{u"s.part1.rar"_s, u"s.part2.rar"_s}
                                   << other;
    QTest::newRow("delete the set") << 2 << good << false << QStringList{} << other;
    QTest::newRow("unknown number") << 7 << good << false << QStringList{} << all;
    QTest::newRow("no trash, no loss") << 1 << good << true << QStringList{} << all;
    QTest::newRow("failed") << 2 << Script{.status = CVArchive::InvalidFile} << false << QStringList{} << all;
    QTest::newRow("something was left out")
        << 2 << Script{.items = {u"a"_s}, .skippedEntry = u"../b"_s} << false << QStringList{} << all;
}

void tst_extractoperation::fate()
{
    QFETCH(int, setting);
    QFETCH(Script, script);
    QFETCH(bool, trashRefuses);
    QFETCH(QStringList, trashed);
    QFETCH(QStringList, left);
    QDir(m_root->path()).mkdir(u"in"_s);
    for (const char *name : {"in/s.part1.rar", "in/s.part2.rar", "in/st.part1.rar"})
        makeFile(QLatin1StringView(name));
    m_scripts[u"s.part1.rar"_s] = script;
    m_trash->refuses = trashRefuses;
    CVSettings::setValue(CVSettingsKey::archiveFateAfterExtract, setting);
    m_recorder->inputs = {path(u"in/s.part1.rar"_s)};

    run(CVOperationFactory::extractArchivesOperation());

    QCOMPARE(m_trash->trashed, trashed);
    QCOMPARE(tree(u"in"_s), left);
}

// A job may be cancelled at any moment: it ends as cancelled and once, and nothing of it is left.
void tst_extractoperation::cancel_data()
{
    QTest::addColumn<QString>("moment");
    QTest::newRow("before it starts") << u"queued"_s;
    QTest::newRow("while the title is told") << u"Opening"_s;
    QTest::newRow("while the archive unpacks") << u"unpacking"_s;
    QTest::newRow("while it asks for a password") << u"password?"_s;
    QTest::newRow("while it asks whether to go on") << u"go on?"_s;
    QTest::newRow("again and again") << u"often"_s;
}

void tst_extractoperation::cancel()
{
    QFETCH(QString, moment);
    makeFile(u"x.zip"_s);
    makeFile(u"y.zip"_s);
    m_scripts[u"x.zip"_s] = {.items = {u"a"_s, u"deep/er/b"_s}};
    m_scripts[u"y.zip"_s] = m_scripts[u"x.zip"_s];
    if (moment == u"unpacking" || moment == u"often")
        m_scripts[u"x.zip"_s].hangs = true;
    if (moment == u"password?")
        m_scripts[u"x.zip"_s].password = u"p"_s;
    if (moment == u"go on?")
        m_scripts[u"x.zip"_s].status = CVArchive::InvalidFile;
    m_recorder->inputs = {path(u"x.zip"_s), path(u"y.zip"_s)};
    m_recorder->passwords[u"x.zip"_s] = {u"p"_s};
    CVSettings::setValue(CVSettingsKey::archiveFateAfterExtract, static_cast<int>(CVArchiveFate::Delete));

    const auto operation = prepared(CVOperationFactory::extractArchivesOperation());
    m_recorder->onEvent = [&](const QString &event) {
        if (event.startsWith(moment))
            operation->cancel();
    };
    if (moment == u"queued")
        operation->cancel();
    CVOperationQueue queue(1);
    queue.add(operation);
    if (moment == u"unpacking" || moment == u"often") {
        QVERIFY(m_started->wait());
        std::vector<std::thread> others;
        for (int i = 0; i < (moment == u"often" ? 4 : 0); ++i)
            others.emplace_back([&operation] { operation->cancel(); });
        operation->cancel();
        for (std::thread &other : others)
            other.join();
    }
    queue.waitUntilEmpty();

    const QStringList events = m_recorder->events();
    QCOMPARE(events.last(), u"cancelled"_s);
    QCOMPARE(events.filter(QRegularExpression(u"^(cancelled|completed|failed)"_s)).size(), 1);
    QVERIFY(tree(u"out"_s).isEmpty());
    QVERIFY(QFile::exists(path(u"x.zip"_s)) && QFile::exists(path(u"y.zip"_s)));
    QVERIFY(CVWorkDirectoryManager::workDirs().isEmpty());
}

void tst_extractoperation::describesItself()
{
    for (const char *name : {"b.zip", "a.zip"}) {
        makeFile(QLatin1StringView(name));
        m_recorder->inputs.append(path(QLatin1StringView(name)));
    }
    const auto operation = CVOperationFactory::extractArchivesOperation();
    QCOMPARE(operation->taskDescription(), QString());
    run(operation);
    QCOMPARE(operation->taskDescription(), u"Extract:\n- a.zip\n- b.zip"_s);

    auto archive = std::make_shared<FakeArchive>(Script(), m_started);
    archive->sourcePath = path(u"a.zip"_s);
    const auto chosen = CVOperationFactory::singleFilesExtractOperationWithArchive(
        archive, {u"docs/a.txt"_s, u"b"_s}, path(u"out"_s));
    QCOMPARE(chosen->taskDescription(), u"Extract from “a.zip”:\n- a.txt\n- b"_s);
}

QTEST_GUILESS_MAIN(tst_extractoperation)
#include "tst_extractoperation.moc"
