#include "engine/control/CVOperationFactory.h"
#include "engine/model/CVOperation.h"
#include "engine/model/CVOperationDelegate.h"
#include "engine/model/CVOperationQueue.h"
#include "engine/model/CVSettings.h"
#include "engine/model/CVSplitOperationDataBinding.h"
#include "engine/model/CVWorkDirectoryManager.h"
#include "jobs/CVCombineFilesOperation.h"
#include "jobs/CVSplitFileOperation.h"
#include "util/LXMainThread.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <functional>
#include <mutex>
#include <random>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/// Writes down the end of a job.
class Recorder final : public CVOperationDelegate
{
public:
    QStringList inputs;
    std::function<void(double)> onProgress = [](double) {};
    std::function<void()> onChecks = [] {};

    QString operationPathToInputFile(CVOperation *) override { return inputs.value(0); }
    QStringList operationPathsToInputFiles(CVOperation *) override { return inputs; }
    void operationHasMadeProgress(CVOperation *, double done, double) override { onProgress(done); }
    void operationHasIndeterminateProgress(CVOperation *) override
    {
        ++checks;
        onChecks();
    }
    void operationWillCreateMultiPartArchiveOfChunkSize(CVOperation *, double size,
                                                        const QString &format) override
    {
        ends.append(u"hands over %1 %2"_s.arg(size).arg(format));
    }
    void operationCompletedWithFilesAtPaths(CVOperation *, const QStringList &paths, bool multiple) override
    {
        ends.append(multiple ? u"completed many"_s : u"completed"_s);
        results = paths;
    }
    void operationFailedWithError(CVOperation *, const LXError &failure) override
    {
        ends.append(u"failed"_s);
        error = failure;
    }
    void operationWasCancelled(CVOperation *) override { ends.append(u"cancelled"_s); }

    QStringList ends;
    QStringList results;
    LXError error;
    int checks = 0;
};

QByteArray randomBytes(qsizetype size, unsigned seed)
{
    std::mt19937 random(seed);
    QByteArray bytes(size, '\0');
    std::ranges::generate(bytes, [&] { return static_cast<char>(random()); });
    return bytes;
}

QByteArray read(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("cannot be read");
}

} // namespace

class tst_splitoperations : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { LXMainThread::install(); }
    void init();
    void cleanup() { CVSettings::setStore(nullptr); }
    void results_data();
    void results();
    void sweepsTheSetTogether_data();
    void sweepsTheSetTogether();
    void folderThatCannotBeListed();
    void refuses_data();
    void refuses();
    void handsOver();
    void noticesAChange();
    void cancelLeavesNothing_data();
    void cancelLeavesNothing();
    void fullDisk();

private:
    QString path(const QString &name) const { return m_root->filePath(name); }
    void makeFile(const QString &name, const QByteArray &data) const
    {
        QDir().mkpath(QFileInfo(path(name)).path());
        QFile file(path(name));
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(data), data.size());
    }
    /// Names in the output folder, hidden ones too.
    QStringList output() const
    {
        return QDir(m_out).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    }
    std::shared_ptr<CVSplitOperationDataBinding> binding(double size, unsigned compression,
                                                         bool checksum) const
    {
        auto data = std::make_shared<CVSplitOperationDataBinding>();
        data->splitter()->setChunkSize(size);
        data->splitter()->setChunkUnits(u"B"_s);
        data->splitter()->setShouldChecksum(checksum);
        data->setCompressionSetting(compression);
        return data;
    }
    void run(const std::shared_ptr<CVOperation> &operation, const QStringList &inputs)
    {
        m_recorder = std::make_shared<Recorder>();
        m_recorder->inputs = inputs;
        m_recorder->onProgress = m_onProgress;
        m_recorder->onChecks = m_onChecks;
        m_operation = operation;
        operation->setDelegate(m_recorder);
        CVOperationQueue queue;
        queue.add(operation);
        QVERIFY(QTest::qWaitFor([&] { return operation->isFinished(); }, 60'000));
        QCOMPARE(m_recorder->ends.size(), 1);
        QCOMPARE(CVWorkDirectoryManager::workDirs(), QStringList());
    }

    std::unique_ptr<QTemporaryDir> m_root;
    QString m_out;
    std::shared_ptr<Recorder> m_recorder;
    std::shared_ptr<CVOperation> m_operation;
    std::function<void(double)> m_onProgress;
    std::function<void()> m_onChecks;
};

void tst_splitoperations::init()
{
    m_root = std::make_unique<QTemporaryDir>();
    m_onProgress = [](double) {};
    m_onChecks = [] {};
    CVSettings::setStore(std::make_shared<LXSettingsStore>(path(u"settings/corvane.conf"_s)));
    m_out = path(u"out"_s);
    QDir().mkpath(m_out);
    CVSettings::setValue(CVSettingsKey::extractDestination,
                         static_cast<int>(CVExtractDestination::DefaultFolder));
    CVSettings::setValue(CVSettingsKey::extractDefaultDestination, m_out);
}

void tst_splitoperations::results_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("size");
    QTest::addColumn<unsigned>("compression");
    QTest::addColumn<bool>("checksum");
    QTest::addColumn<QString>("result");
    QTest::addColumn<QStringList>("contents");
    QTest::newRow("several parts") << u"movie.mp4"_s << 250 << 0U << false << u"movie"_s
                                   << QStringList{u"movie.mp4.a.split"_s, u"movie.mp4.b.split"_s,
                                                  u"movie.mp4.c.split"_s};
    QTest::newRow("one part") << u"movie.mp4"_s << 60 << 0U << false << u"movie.mp4.a.split"_s
                              << QStringList();
    QTest::newRow("one part with its sum") << u"movie.mp4"_s << 60 << 0U << true << u"movie"_s
                                           << QStringList{u"movie.mp4.a.split"_s, u"movie.mp4.chksplit"_s};
    QTest::newRow("compressed") << u"data"_s << 20'000 << 1U << false << u"data.aa.zsplit"_s << QStringList();
    QTest::newRow("empty") << u"movie.mp4"_s << 0 << 0U << false << u"movie"_s << QStringList();
    QTest::newRow("empty, with no sums")
        << u"movie.mp4"_s << 0 << 0U << true << u"movie.mp4.chksplit"_s << QStringList();
    QTest::newRow("empty, compressed")
        << u"movie.mp4"_s << 0 << 1U << false << u"movie.mp4.a.zsplit"_s << QStringList();
    QTest::newRow("empty, compressed with its sum")
        << u"movie.mp4"_s << 0 << 1U << true << u"movie"_s
        << QStringList{u"movie.mp4.a.zsplit"_s, u"movie.mp4.chksplit"_s};
}

void tst_splitoperations::results()
{
    QFETCH(QString, name);
    QFETCH(int, size);
    QFETCH(unsigned, compression);
    QFETCH(bool, checksum);
    QFETCH(QString, result);
    QFETCH(QStringList, contents);
    const QByteArray data = compression == 1 ? QByteArray(size, 'x') : randomBytes(size, 1);
    makeFile(u"in/"_s + name, data);
    const auto job =
        CVOperationFactory::splitFileOperationWithDataBinding(binding(100, compression, checksum));
    run(job, {path(u"in/"_s + name)});
    QCOMPARE(m_recorder->ends, {u"completed many"_s});
    QCOMPARE(m_recorder->results, {m_out + u'/' + result});
    QCOMPARE(output(), {result});
    QCOMPARE(m_recorder->checks, checksum ? 1 : 0);
    QCOMPARE(job->taskDescription(), u"Split “%1”"_s.arg(name));
    if (!contents.isEmpty())
        QCOMPARE(QDir(m_recorder->results.first()).entryList(QDir::Files, QDir::Name), contents);
    if (size == 0 && compression == 0) {
        if (!checksum)
            QVERIFY(QDir(m_recorder->results.first()).isEmpty());
        return; // no part to join
    }

    // And back, beside a file of the same name that stays.
    makeFile(u"out/"_s + name, "was here before");
    const QString part = contents.isEmpty() ? m_recorder->results.first()
                                            : m_recorder->results.first() + u'/' + contents.last();
    run(CVOperationFactory::combineOperation(), {part});
    QCOMPARE(m_recorder->ends, {u"completed"_s});
    QVERIFY(m_recorder->results.first() != m_out + u'/' + name);
    QCOMPARE(read(m_recorder->results.first()), data);
    QCOMPARE(read(m_out + u'/' + name), "was here before");
}

void tst_splitoperations::sweepsTheSetTogether_data()
{
    QTest::addColumn<QString>("given");
    QTest::newRow("a part from the middle") << u"m.b.split"_s;
    QTest::newRow("the checksum file") << u"m.chksplit"_s;
}

void tst_splitoperations::sweepsTheSetTogether()
{
    QFETCH(QString, given);
    const QByteArray data = randomBytes(350, 3);
    makeFile(u"in/m"_s, data);
    run(CVOperationFactory::splitFileOperationWithDataBinding(binding(100, 0, true)), {path(u"in/m"_s)});
    const QString folder = m_recorder->results.first() + u'/';
    // Others in the same folder that look much the same.
    makeFile(u"out/"_s + QFileInfo(folder.chopped(1)).fileName() + u"/mm.e.split"_s, "of another set");
    makeFile(u"out/"_s + QFileInfo(folder.chopped(1)).fileName() + u"/m.b.txt"_s, "no part");
    run(CVOperationFactory::combineOperation(), {folder + given});
    QCOMPARE(m_recorder->ends, {u"completed"_s});
    QCOMPARE(m_recorder->checks, 1);
    QCOMPARE(read(m_recorder->results.first()), data);
}

void tst_splitoperations::folderThatCannotBeListed()
{
    makeFile(u"in/m"_s, randomBytes(350, 3));
    run(CVOperationFactory::splitFileOperationWithDataBinding(binding(100, 0, true)), {path(u"in/m"_s)});
    const QString folder = m_recorder->results.first() + u'/';
    QCOMPARE(::chmod(QFile::encodeName(m_root->path()).constData(), 0711), 0);
    QCOMPARE(::chmod(QFile::encodeName(folder).constData(), 0311), 0);
    const uid_t own = ::geteuid();
    QVERIFY(own != 0 || ::seteuid(65534) == 0); // root may list everything
    QStringList found =
        CVCombineFilesOperation::sweepFilePartsAtPath(folder + u"m.a.split", u"m"_s, {folder + u"m.a.split"});
    QVERIFY(::seteuid(own) == 0 && ::chmod(QFile::encodeName(folder).constData(), 0755) == 0);
    found.sort();
    QCOMPARE(found, (QStringList{folder + u"m.b.split", folder + u"m.c.split", folder + u"m.chksplit",
                                 folder + u"m.d.split"}));
}

void tst_splitoperations::refuses_data()
{
    QTest::addColumn<QString>("damage");
    QTest::addColumn<QString>("description");
    QTest::addColumn<QString>("reason");
    QTest::newRow("missing") << u"remove m.b.zsplit"_s << u"Combine failed"_s
                             << u"The part “m.b.zsplit” is missing."_s;
    QTest::newRow("last one missing")
        << u"remove last"_s << u"Combine failed"_s << u"The set is cut off: after the part"_s;
    QTest::newRow("damaged") << u"flip m.b.zsplit"_s
                             << u"File could not be split because an unexpected error occurred."_s
                             << u"One of the parts from “m.a.zsplit” to"_s;
    QTest::newRow("not a part") << u"give other.txt"_s << u"Combine failed"_s
                                << u"“other.txt” is no part of a file that was split."_s;
}

void tst_splitoperations::refuses()
{
    QFETCH(QString, damage);
    makeFile(u"in/m"_s, randomBytes(350, 3).repeated(3));
    run(CVOperationFactory::splitFileOperationWithDataBinding(binding(100, 1, false)), {path(u"in/m"_s)});
    const QDir folder(m_recorder->results.first());
    QString given = u"m.a.zsplit"_s;
    const QString file = damage.section(u' ', 1);
    if (file == u"last") {
        QVERIFY(QFile::remove(folder.filePath(folder.entryList(QDir::Files, QDir::Name).last())));
    } else if (damage.startsWith(u"remove")) {
        QVERIFY(QFile::remove(folder.filePath(file)));
    } else if (damage.startsWith(u"flip")) {
        QByteArray part = read(folder.filePath(file));
        part.replace(50, 8, QByteArray(8, '\xff')); // a single bit may fall where the format has one to spare
        makeFile(u"out/"_s + folder.dirName() + u'/' + file, part);
    } else {
        given = file;
        makeFile(u"out/"_s + folder.dirName() + u'/' + file, "text");
    }
    const QStringList before = output();
    run(CVOperationFactory::combineOperation(), {folder.filePath(given)});
    QCOMPARE(m_recorder->ends, {u"failed"_s});
    QTEST(m_recorder->error.description, "description");
    QFETCH(QString, reason);
    QVERIFY2(m_recorder->error.reason.startsWith(reason), qPrintable(m_recorder->error.reason));
    QCOMPARE(output(), before);
}

void tst_splitoperations::handsOver()
{
    makeFile(u"in/m"_s, "data");
    run(CVOperationFactory::splitFileOperationWithDataBinding(binding(1500, 2, false)), {path(u"in/m"_s)});
    QCOMPARE(m_recorder->ends, {u"hands over 1500 7z"_s});
    QCOMPARE(output(), QStringList());

    for (const double size : {0.0, -1.0, 0.5}) {
        run(CVOperationFactory::splitFileOperationWithDataBinding(binding(size, 0, false)),
            {path(u"in/m"_s)});
        QCOMPARE(m_recorder->ends, {u"failed"_s});
        QCOMPARE(m_recorder->error.code, CVSplitFileOperation::invalidChunkSize);
        QCOMPARE(m_recorder->error.description, u"Invalid chunk size: %1"_s.arg(size));
    }
}

void tst_splitoperations::noticesAChange()
{
    makeFile(u"in/m"_s, randomBytes(4 << 20, 5));
    m_onProgress = [this](double done) {
        if (done < 2 << 20)
            return;
        m_onProgress = nullptr;
        QFile file(path(u"in/m"_s));
        if (file.open(QIODevice::ReadWrite))
            file.write("changed");
    };
    run(CVOperationFactory::splitFileOperationWithDataBinding(binding(1 << 20, 0, false)), {path(u"in/m"_s)});
    QCOMPARE(m_recorder->ends, {u"failed"_s});
    QCOMPARE(output(), QStringList());
}

void tst_splitoperations::cancelLeavesNothing_data()
{
    QTest::addColumn<bool>("combines");
    QTest::addColumn<unsigned>("compression");
    QTest::addColumn<double>("at"); ///< bytes; below zero: at the checksums
    for (const unsigned compression : {0U, 1U}) {
        const char *kind = compression ? ", compressed" : "";
        for (const bool combines : {false, true}) {
            const char *what = combines ? "combine" : "split";
            QTest::addRow("%s%s, first block", what, kind) << combines << compression << 1.0;
            QTest::addRow("%s%s, in the middle", what, kind) << combines << compression << 1048577.0;
            QTest::addRow("%s%s, checksums", what, kind) << combines << compression << -1.0;
            QTest::addRow("%s%s, last block", what, kind) << combines << compression << 6291456.0;
        }
    }
}

void tst_splitoperations::cancelLeavesNothing()
{
    QFETCH(bool, combines);
    QFETCH(unsigned, compression);
    QFETCH(double, at);
    makeFile(u"in/m"_s, randomBytes(6 << 20, 5));
    QStringList inputs{path(u"in/m"_s)};
    auto job = CVOperationFactory::splitFileOperationWithDataBinding(binding(1 << 20, compression, true));
    if (combines) {
        run(job, inputs);
        QCOMPARE(m_recorder->ends, {u"completed many"_s});
        inputs = {m_recorder->results.first() + u"/m.chksplit"_s};
        job = CVOperationFactory::combineOperation();
    }
    const QStringList before = output();
    m_onProgress = [this, at](double done) {
        if (at >= 0 && done >= at)
            m_operation->cancel();
    };
    m_onChecks = [this, at] {
        if (at < 0)
            m_operation->cancel();
    };
    run(job, inputs);
    QCOMPARE(m_recorder->ends, {u"cancelled"_s});
    QCOMPARE(output(), before);
    QCOMPARE(read(path(u"in/m"_s)), randomBytes(6 << 20, 5));
}

void tst_splitoperations::fullDisk()
{
    if (::mount("tmpfs", QFile::encodeName(m_out).constData(), "tmpfs", 0, "size=4m") != 0)
        QSKIP("A small file system cannot be mounted here.");
    makeFile(u"in/m"_s, randomBytes(6 << 20, 5));
    run(CVOperationFactory::splitFileOperationWithDataBinding(binding(1 << 20, 0, false)), {path(u"in/m"_s)});
    const QStringList ends = m_recorder->ends;
    const QStringList left = output();
    ::umount2(QFile::encodeName(m_out).constData(), MNT_DETACH);
    QCOMPARE(ends, {u"failed"_s});
    QCOMPARE(m_recorder->error.code, 1);
    QCOMPARE(m_recorder->error.description, u"File could not be split because the disk is full."_s);
    QCOMPARE(left, QStringList());
}

QTEST_GUILESS_MAIN(tst_splitoperations)
#include "tst_splitoperations.moc"
