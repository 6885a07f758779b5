#include "archives/CVArchive.h"
#include "engine/control/CVOperationFactory.h"
#include "engine/model/CVOperationDelegate.h"
#include "engine/model/CVOperationQueue.h"
#include "engine/model/CVSettings.h"
#include "filetree/CVFileNode.h"
#include "jobs/CVExtractArchivesOperation.h"
#include "jobs/CVPreviewArchiveContentsOperation.h"
#include "support/ArchiveBytes.h"
#include "util/LXMainThread.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <map>
#include <mutex>
#include <thread>

using namespace Qt::StringLiterals;

namespace {

/// Answers the job's questions and writes down what it says.
class Recorder final : public CVOperationDelegate
{
public:
    QStringList inputs;
    std::map<QString, QStringList> passwords; ///< by file name, in the order of the questions
    std::function<void()> onQuestion = [] {};
    std::function<void()> onProgress = [] {};

    QStringList ends;
    QStringList questions;
    QStringList listed; ///< per archive: its name, and its entries in order of the tree
    QStringList failed;

    QStringList operationPathsToInputFiles(CVOperation *) override { return inputs; }
    void operationHasPreviewedFiles(CVOperation *, qint64, qint64) override { onProgress(); }
    std::optional<QString> operationNeedsPasswordForFileAtPath(CVOperation *, const QString &path,
                                                               bool again) override
    {
        const QString name = QFileInfo(path).fileName();
        questions.append(again ? name + u" again"_s : name);
        onQuestion();
        QStringList &left = passwords[name];
        if (left.isEmpty())
            return std::nullopt;
        return left.takeFirst();
    }
    void operationCompleted(CVOperation *) override { end(u"completed"_s); }
    void operationCompletedWithPreviewFiles(CVOperation *,
                                            const std::vector<std::shared_ptr<CVArchive>> &archives) override
    {
        end(u"listed"_s);
        take(archives);
    }
    void previewOperationFailedWithPreviewFiles(CVOperation *,
                                                const std::vector<std::shared_ptr<CVArchive>> &archives,
                                                const QStringList &failedArchives) override
    {
        end(u"failed"_s);
        take(archives);
        for (const QString &path : failedArchives)
            failed.append(QFileInfo(path).fileName());
    }
    void operationFailedWithError(CVOperation *, const LXError &) override { end(u"error"_s); }
    void operationWasCancelled(CVOperation *) override { end(u"cancelled while waiting"_s); }
    void operationCancelledShowingNotification(CVOperation *, bool show) override
    {
        end(show ? u"cancelled aloud"_s : u"cancelled"_s);
    }

private:
    void end(const QString &how)
    {
        const std::lock_guard lock(m_mutex);
        ends.append(how);
    }
    void take(const std::vector<std::shared_ptr<CVArchive>> &archives)
    {
        for (const auto &archive : archives) {
            QStringList names;
            for (const auto &node : archive->filePreviewsNode()->preorder()) {
                if (!node->isRoot())
                    names.append(node->filename());
            }
            names.sort();
            listed.append(QFileInfo(archive->sourcePath).fileName() + u": "_s + names.join(u' '));
        }
    }

    std::mutex m_mutex;
};

bool write(const QString &path, const QByteArray &contents)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size();
}

ArchiveBytes::Item item(const QByteArray &name, const QByteArray &data = {})
{
    ArchiveBytes::Item item;
    item.name = name;
    item.data = data;
    return item;
}

QByteArray zipOf(const QByteArray &name)
{
    return ArchiveBytes::zip({item(name, "contents")});
}

} // namespace

class tst_previewoperation : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanupTestCase() { CVSettings::setStore(nullptr); }
    void lists_data();
    void lists();
    void cancel_data();
    void cancel();
    void keepsPasswordForExtraction();
    void manyArchives();
    void describesItself();

private:
    QString path(const QString &name) const { return m_root.filePath(name); }
    void run(const std::shared_ptr<CVOperation> &operation);

    QTemporaryDir m_root;
    std::shared_ptr<Recorder> m_recorder;
};

void tst_previewoperation::initTestCase()
{
    LXMainThread::install();
    CVSettings::setStore(std::make_shared<LXSettingsStore>(path(u"settings/corvane.conf"_s)));
    const auto pack = [this](const QStringList &arguments) {
        QProcess packer;
        packer.setWorkingDirectory(m_root.path());
        packer.start(u"7za"_s, QStringList{u"a"_s, u"-bd"_s} + arguments);
        return packer.waitForFinished() && packer.exitCode() == 0;
    };
    QByteArray noise;
    for (unsigned i = 0; i < 20000; ++i)
        noise.append(static_cast<char>((i * i + i / 7) * 31 % 251));
    QVERIFY(write(path(u"noise"_s), noise));
    QVERIFY(QDir(m_root.path()).mkpath(u"d/e"_s));
    QVERIFY(write(path(u"d/e/f"_s), "f"));

    QVERIFY(write(path(u"a.zip"_s), zipOf("a.txt")));
    QVERIFY(write(path(u"b.zip"_s), zipOf("b.txt")));
    QVERIFY(write(path(u"broken.zip"_s), "PK\x03\x04 and nothing that follows from it"));
    QVERIFY(write(path(u"broken2.7z"_s), "7z\xbc\xaf\x27\x1c and so on"));
    QVERIFY(pack({u"tree.7z"_s, u"d"_s, u"noise"_s}));
    QVERIFY(pack({u"-mx=0"_s, u"-v8k"_s, u"set.7z"_s, u"noise"_s}));
    QVERIFY(pack({u"-mx=0"_s, u"-v8k"_s, u"torn.7z"_s, u"noise"_s}));
    QVERIFY(QFile::remove(path(u"torn.7z.002"_s)));
    QVERIFY(pack({u"-mhe=on"_s, u"-pright"_s, u"locked.7z"_s, u"d"_s}));
    QVERIFY(pack({u"-tzip"_s, u"-pright"_s, u"locked.zip"_s, u"noise"_s}));
}

void tst_previewoperation::init()
{
    m_recorder = std::make_shared<Recorder>();
}

void tst_previewoperation::run(const std::shared_ptr<CVOperation> &operation)
{
    operation->setDelegate(m_recorder);
    CVOperationQueue queue(1);
    queue.add(operation);
    queue.waitUntilEmpty();
    QVERIFY(operation->isFinished());
}

void tst_previewoperation::lists_data()
{
    QTest::addColumn<QStringList>("inputs");
    QTest::addColumn<QStringList>("passwords");
    QTest::addColumn<QString>("end");
    QTest::addColumn<QStringList>("listed");
    QTest::addColumn<QStringList>("failed");
    QTest::addColumn<QStringList>("questions");
    const QStringList none;
    const QString a = u"a.zip: a.txt"_s;
    const QString b = u"b.zip: b.txt"_s;
    const QString locked = u"locked.7z: d d/e d/e/f"_s;

    QTest::newRow("nothing") << none << none << u"cancelled"_s << none << none << none;
    QTest::newRow("folders") << QStringList{u"tree.7z"_s} << none << u"listed"_s
                             << QStringList{u"tree.7z: d d/e d/e/f noise"_s} << none << none;
    QTest::newRow("two, sorted") << QStringList{u"b.zip"_s, u"a.zip"_s} << none << u"listed"_s
                                 << QStringList{a, b} << none << none;
    QTest::newRow("one of two is broken") << QStringList{u"broken.zip"_s, u"a.zip"_s} << none << u"failed"_s
                                          << QStringList{a} << QStringList{u"broken.zip"_s} << none;
    QTest::newRow("the middle one of three")
        << QStringList{u"a.zip"_s, u"b.zip"_s, u"aa.zip"_s} << none << u"failed"_s << QStringList{a, b}
        << QStringList{u"aa.zip"_s} << none;
    QTest::newRow("all broken") << QStringList{u"broken.zip"_s, u"broken2.7z"_s} << none << u"failed"_s
                                << none << QStringList{u"broken.zip"_s, u"broken2.7z"_s} << none;
    QTest::newRow("volumes, by a later one")
        << QStringList{u"set.7z.002"_s, u"set.7z.003"_s} << none << u"listed"_s
        << QStringList{u"set.7z.001: noise"_s} << none << none;
    QTest::newRow("a volume is missing") << QStringList{u"torn.7z.001"_s} << none << u"failed"_s << none
                                         << QStringList{u"torn.7z.001"_s} << none;
    QTest::newRow("a volume is missing, others follow")
        << QStringList{u"a.zip"_s, u"torn.7z.001"_s, u"tree.7z"_s} << none << u"failed"_s
        << QStringList{a, u"tree.7z: d d/e d/e/f noise"_s} << QStringList{u"torn.7z.001"_s} << none;
    QTest::newRow("password") << QStringList{u"locked.7z"_s} << QStringList{u"right"_s} << u"listed"_s
                              << QStringList{locked} << none << QStringList{u"locked.7z"_s};
    QTest::newRow("wrong twice, then right")
        << QStringList{u"locked.7z"_s} << QStringList{u"wrong"_s, u""_s, u"right"_s} << u"listed"_s
        << QStringList{locked} << none
        << QStringList{u"locked.7z"_s, u"locked.7z again"_s, u"locked.7z again"_s};
    QTest::newRow("wrong, then given up")
        << QStringList{u"a.zip"_s, u"locked.zip"_s} << QStringList{u"wrong"_s} << u"cancelled"_s << none
        << none << QStringList{u"locked.zip"_s, u"locked.zip again"_s};
    QTest::newRow("given up at once, others wait")
        << QStringList{u"locked.7z"_s, u"tree.7z"_s} << none << u"cancelled"_s << none << none
        << QStringList{u"locked.7z"_s};
}

void tst_previewoperation::lists()
{
    QFETCH(QStringList, inputs);
    QFETCH(QStringList, passwords);
    QFETCH(QString, end);
    QFETCH(QStringList, listed);
    QFETCH(QStringList, failed);
    QFETCH(QStringList, questions);
    for (const QString &input : inputs) {
        m_recorder->inputs.append(path(input));
        m_recorder->passwords[input] = passwords;
    }
    run(CVOperationFactory::previewOperation());
    QCOMPARE(m_recorder->ends, QStringList{end});
    QCOMPARE(m_recorder->listed, listed);
    QCOMPARE(m_recorder->failed, failed);
    QCOMPARE(m_recorder->questions, questions);
}

void tst_previewoperation::cancel_data()
{
    QTest::addColumn<QString>("when");
    QTest::newRow("while it waits") << u"waiting"_s;
    QTest::newRow("before the back end starts") << u"made"_s;
    QTest::newRow("before the back end of the own format starts") << u"made corvane"_s;
    QTest::newRow("while the archive is read") << u"reading"_s;
    QTest::newRow("while the tree is built") << u"building"_s;
    QTest::newRow("while a password is asked for") << u"asking"_s;
}

void tst_previewoperation::cancel()
{
    QFETCH(QString, when);
    const auto operation =
        std::static_pointer_cast<CVPreviewArchiveContentsOperation>(CVOperationFactory::previewOperation());
    std::thread canceller;
    if (when == u"waiting") {
        m_recorder->inputs = {path(u"a.zip"_s)};
        operation->cancel();
    } else if (when.startsWith(u"made")) {
        const QString name = when == u"made" ? u"a.zip"_s : u"a.corvane"_s;
        if (!QFile::exists(path(name)))
            QVERIFY(write(path(name), ArchiveBytes::xar({item("a.txt", "a")})));
        m_recorder->inputs = {path(name), path(u"b.zip"_s)};
        operation->setArchiveMaker([&](const QString &file) {
            operation->cancel();
            return CVArchive::archiveForPreviewing(file);
        });
    } else if (when == u"reading") {
        // To know what comes after the one big file, some 32 GB would have to be unpacked.
        constexpr std::uint64_t piece = std::uint64_t(256) << 20;
        ArchiveBytes::Item zeros = item("zeros");
        zeros.claimedSize = 128 * piece;
        const QByteArray header = ArchiveBytes::tar({zeros}).first(512);
        QVERIFY(write(path(u"long.tar.gz"_s),
                      ArchiveBytes::gzip(header) + ArchiveBytes::gzipOfZeros(piece).repeated(128)));
        m_recorder->inputs = {path(u"long.tar.gz"_s)};
        operation->setArchiveMaker([&](const QString &file) {
            canceller = std::thread([&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(300));
                operation->cancel();
            });
            return CVArchive::archiveForPreviewing(file);
        });
    } else if (when == u"building") {
        QList<ArchiveBytes::Item> items;
        for (int i = 0; i < 20000; ++i)
            items.append(item("d/" + QByteArray::number(i)));
        QVERIFY(write(path(u"many.tar"_s), ArchiveBytes::tar(items)));
        m_recorder->inputs = {path(u"many.tar"_s)};
        m_recorder->onProgress = [&] { operation->cancel(); };
    } else {
        m_recorder->inputs = {path(u"locked.7z"_s)};
        m_recorder->passwords[u"locked.7z"_s] = {u"right"_s};
        m_recorder->onQuestion = [&] { operation->cancel(); };
    }
    run(operation);
    if (canceller.joinable())
        canceller.join();
    const QStringList ends = m_recorder->ends;
    QCOMPARE(ends, QStringList{when == u"waiting" ? u"cancelled while waiting"_s : u"cancelled"_s});
    QCOMPARE(m_recorder->listed, QStringList());
}

// The person typed it once and is not to be asked again when the archive is extracted.
void tst_previewoperation::keepsPasswordForExtraction()
{
    class Keeper final : public CVOperationDelegate
    {
    public:
        QStringList inputs;
        std::vector<std::shared_ptr<CVArchive>> archives;
        int questions = 0;
        QStringList operationPathsToInputFiles(CVOperation *) override { return inputs; }
        std::optional<QString> operationNeedsPasswordForFileAtPath(CVOperation *, const QString &,
                                                                   bool) override
        {
            ++questions;
            return u"right"_s;
        }
        void
        operationCompletedWithPreviewFiles(CVOperation *,
                                           const std::vector<std::shared_ptr<CVArchive>> &listed) override
        {
            archives = listed;
        }
    };
    const auto keeper = std::make_shared<Keeper>();
    keeper->inputs = {path(u"locked.7z"_s)};
    const auto preview = CVOperationFactory::previewOperation();
    preview->setDelegate(keeper);
    QVERIFY(QDir(m_root.path()).mkpath(u"out"_s));
    CVOperationQueue queue(1);
    queue.add(preview);
    queue.waitUntilEmpty();
    QCOMPARE(keeper->archives.size(), std::size_t(1));
    const std::shared_ptr<CVOperation> extraction =
        CVOperationFactory::singleFilesExtractOperationWithArchive(keeper->archives[0], {u"d/e/f"_s},
                                                                   path(u"out"_s));
    extraction->setDelegate(keeper);
    queue.add(extraction);
    queue.waitUntilEmpty();
    QVERIFY(QFile::exists(path(u"out/f"_s)));
    QCOMPARE(keeper->questions, 1);
}

void tst_previewoperation::manyArchives()
{
    QDir(m_root.path()).mkpath(u"many"_s);
    const QByteArray good = zipOf("x");
    for (int i = 0; i < 1000; ++i) {
        const QString name = path(u"many/%1.zip"_s.arg(i));
        QVERIFY(write(name, i % 10 == 3 ? QByteArray("PK\x03\x04") : good));
        m_recorder->inputs.append(name);
    }
    // Files of each archive must not stay open.
    const qsizetype open = QDir(u"/proc/self/fd"_s).entryList(QDir::AllEntries | QDir::System).size();
    qsizetype openAtEnd = 0;
    const auto operation = CVOperationFactory::previewOperation();
    operation->observeFinished([&](CVOperation &) {
        openAtEnd = QDir(u"/proc/self/fd"_s).entryList(QDir::AllEntries | QDir::System).size();
    });
    run(operation);
    QCOMPARE(m_recorder->ends, QStringList{u"failed"_s});
    QCOMPARE(m_recorder->listed.size(), 900);
    QCOMPARE(m_recorder->failed.size(), 100);
    QVERIFY2(openAtEnd < open + 50, qPrintable(u"%1 files open"_s.arg(openAtEnd)));
}

void tst_previewoperation::describesItself()
{
    const auto described = [this](const QStringList &names) {
        m_recorder->inputs.clear();
        for (const QString &name : names)
            m_recorder->inputs.append(path(name));
        const auto operation = CVOperationFactory::previewOperation();
        run(operation);
        return operation->taskDescription();
    };
    QCOMPARE(described({}), QString());
    QCOMPARE(described({u"set.7z.002"_s, u"set.7z.001"_s}), u"Preview “set.7z.001”"_s);
    QCOMPARE(described({u"b.zip"_s, u"a.zip"_s}), u"Preview:\n- a.zip\n- b.zip"_s);
    QVERIFY(CVOperationFactory::operationIsPreviewOperation(CVOperationFactory::previewOperation().get()));
    QVERIFY(!CVOperationFactory::operationIsPreviewOperation(
        CVOperationFactory::extractArchivesOperation().get()));
    QVERIFY(!CVOperationFactory::operationIsPreviewOperation(nullptr));
}

QTEST_GUILESS_MAIN(tst_previewoperation)
#include "tst_previewoperation.moc"
