#include "platform/LXSettingsStore.h"

#include "util/LXBackground.h"
#include "util/LXMainThread.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class TestSettingsStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void valuesSurvive_data();
    void valuesSurvive();
    void defaultsAreNotWritten();
    void overrideIsNeverWritten();
    void observers();
    void changesOfOthersAreSeen();
    void processesDoNotLoseEachOthersEntries();
    void threadsDoNotLoseEachOthersEntries();
    void handEditedFile();
    void unreadableFileIsNeverReplaced_data();
    void unreadableFileIsNeverReplaced();
    void wrongValuesAreDefaults();
    void mainThreadIsSpared();
    void folderThatCannotBeWritten();
    void linkedFileStaysLinked();

private:
    static QByteArray contents(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("no file");
    }
    static void write(const QString &path, const QByteArray &text)
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(text) == text.size());
    }
    QString path() const { return m_dir->filePath(u"config/corvane.conf"_s); }

    std::unique_ptr<QTemporaryDir> m_dir;
};

void TestSettingsStore::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
}

void TestSettingsStore::valuesSurvive_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::newRow("true") << QVariant(true);
    QTest::newRow("number") << QVariant(-7);
    QTest::newRow("large number") << QVariant(qint64(1) << 52);
    QTest::newRow("text") << QVariant(u"a \"b\" = [c]\\ ; #\n\t日本"_s);
    QTest::newRow("text like a number") << QVariant(u"0123"_s);
    QTest::newRow("text like a list") << QVariant(u"[1]"_s);
    QTest::newRow("empty text") << QVariant(u""_s);
    QTest::newRow("bytes") << QVariant(QByteArray("\0\xff\n=", 4));
    QTest::newRow("list") << QVariant(QStringList{u"/a b/.corvane-1"_s, u"with, comma"_s, u"line\nbreak"_s});
    QTest::newRow("empty list") << QVariant(QStringList());
    QTest::newRow("list of bytes") << QVariant::fromValue(QByteArrayList{QByteArray("\0a", 2), "b"});
}

void TestSettingsStore::valuesSurvive()
{
    QFETCH(QVariant, value);
    LXSettingsStore(path()).setValue(u"Key"_s, value);
    QCOMPARE(LXSettingsStore(path()).value(u"Key"_s), value);
    QCOMPARE(QFileInfo(path()).permissions() & (QFile::ReadGroup | QFile::ReadOther), QFile::Permissions());
}

void TestSettingsStore::defaultsAreNotWritten()
{
    LXSettingsStore store(path());
    store.registerDefaults({{u"Level"_s, 5}, {u"Sound"_s, true}});
    QCOMPARE(store.integer(u"Level"_s), 5);
    QVERIFY(!QFile::exists(path()));
    store.setValue(u"Level"_s, 0);
    QCOMPARE(store.integer(u"Level"_s), 0);
    QVERIFY(store.isStored(u"Level"_s) && !store.isStored(u"Sound"_s));
    store.remove(u"Level"_s);
    QCOMPARE(store.integer(u"Level"_s), 5);
}

void TestSettingsStore::overrideIsNeverWritten()
{
    LXSettingsStore store(path());
    store.setValue(u"Level"_s, 1);
    store.setOverride(u"Level"_s, 9);
    QCOMPARE(store.integer(u"Level"_s), 9);
    store.setValue(u"Level"_s, 8);
    QCOMPARE(store.integer(u"Level"_s), 8);
    QCOMPARE(LXSettingsStore(path()).integer(u"Level"_s), 1);
    store.setOverride(u"Level"_s, {});
    QCOMPARE(store.integer(u"Level"_s), 1);
}

void TestSettingsStore::observers()
{
    LXSettingsStore store(path());
    store.registerDefaults({{u"Level"_s, 5}});
    QList<qint64> seen;
    const int id = store.observe(u"Level"_s, [&](const QString &key) { seen.append(store.integer(key)); });
    store.setValue(u"Level"_s, 5); // the same for everybody who reads it
    store.setValue(u"Level"_s, 6);
    store.setValue(u"Other"_s, 1);
    store.setOverride(u"Level"_s, 7);
    store.setOverride(u"Level"_s, {});
    store.remove(u"Level"_s);
    store.removeObserver(id);
    store.setValue(u"Level"_s, 1);
    QCOMPARE(seen, QList<qint64>({6, 7, 6, 5}));
}

void TestSettingsStore::changesOfOthersAreSeen()
{
    LXSettingsStore mine(path());
    LXSettingsStore other(path());
    int told = 0;
    mine.observe(u"A"_s, [&](const QString &) { ++told; });
    mine.setValue(u"B"_s, 2);
    other.setValue(u"A"_s, 1);
    QCOMPARE(mine.integer(u"A"_s), 1);
    QCOMPARE(told, 1);
    mine.setValue(u"B"_s, 3);
    QCOMPARE(LXSettingsStore(path()).integer(u"A"_s), 1);
    QVERIFY(QFile::remove(path()));
    QVERIFY(!mine.isStored(u"A"_s));
}

void TestSettingsStore::processesDoNotLoseEachOthersEntries()
{
    constexpr int processes = 3;
    constexpr int entries = 60;
    std::vector<pid_t> children;
    for (int p = 0; p < processes; ++p) {
        const pid_t child = ::fork();
        QVERIFY(child >= 0);
        if (child == 0) {
            LXSettingsStore store(path());
            bool allWritten = true;
            for (int i = 0; i < entries; ++i) {
                const QString entry = u"%1-%2"_s.arg(p).arg(i);
                allWritten &= bool(store.update(u"TempDirs"_s, [&](const QVariant &stored) {
                    return QVariant(stored.toStringList() << entry << u"gone"_s);
                }));
                allWritten &= bool(store.update(u"TempDirs"_s, [&](const QVariant &stored) {
                    QStringList list = stored.toStringList();
                    list.removeOne(u"gone"_s);
                    return QVariant(list);
                }));
            }
            ::_exit(allWritten ? 0 : 1);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = -1;
        QCOMPARE(::waitpid(child, &status, 0), child);
        QCOMPARE(status, 0);
    }
    QStringList list = LXSettingsStore(path()).stringList(u"TempDirs"_s);
    QCOMPARE(list.size(), processes * entries);
    list.removeDuplicates();
    QCOMPARE(list.size(), processes * entries);
}

void TestSettingsStore::threadsDoNotLoseEachOthersEntries()
{
    LXSettingsStore store(path());
    int told = 0;
    std::mutex mutex;
    store.observe(u"List"_s, [&](const QString &) {
        const std::lock_guard lock(mutex);
        ++told;
    });
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 25; ++i) {
                    (void)store.update(u"List"_s, [&](const QVariant &stored) {
                        return QVariant(stored.toStringList() << u"%1-%2"_s.arg(t).arg(i));
                    });
                    (void)store.stringList(u"List"_s);
                }
            });
        }
    }
    QCOMPARE(store.stringList(u"List"_s).size(), 100);
    QCOMPARE(told, 100);
}

void TestSettingsStore::handEditedFile()
{
    LXSettingsStore(path()).setValue(u"A"_s, 1);
    QFile file(path());
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("# comment\n[General]\nA=2\nB = plain words\nno value\n=x\nC = [\"open\nD = true\n");
    file.close();
    LXSettingsStore store(path());
    QCOMPARE(store.integer(u"A"_s), 2);
    QCOMPARE(store.string(u"B"_s), u"plain words"_s);
    QCOMPARE(store.string(u"C"_s), u"[\"open"_s);
    QVERIFY(store.boolean(u"D"_s));
    // A change is about one line.
    store.setValue(u"A"_s, 3);
    store.remove(u"D"_s);
    store.setValue(u"E"_s, u"new"_s);
    QCOMPARE(contents(path()),
             "# comment\n[General]\nA = 3\nB = plain words\nno value\n=x\nC = [\"open\nE = \"new\"\n");
}

void TestSettingsStore::unreadableFileIsNeverReplaced_data()
{
    QTest::addColumn<QByteArray>("written"); // nothing: another thing is in its place
    QTest::addColumn<QString>("linkedTo");
    QTest::newRow("folder in its place") << QByteArray() << QString();
    QTest::newRow("error while reading") << QByteArray() << u"/proc/self/mem"_s;
    QTest::newRow("device") << QByteArray() << u"/dev/zero"_s;
    QTest::newRow("linked to a disk that is not there") << QByteArray() << u"/nowhere/corvane.conf"_s;
    QTest::newRow("half a value") << QByteArray("[General]\nA = 1\nTempDirs = [\"/tmp/x\",\"/t") << QString();
    QTest::newRow("half a key") << QByteArray("[General]\nA = 1\nTempD") << QString();
    QTest::newRow("zeros after a crash") << QByteArray("[General]\nA = 1\n\0\0\0\0", 20) << QString();
}

void TestSettingsStore::unreadableFileIsNeverReplaced()
{
    QFETCH(QByteArray, written);
    QFETCH(QString, linkedTo);
    QVERIFY(QDir().mkpath(QFileInfo(path()).path()));
    if (!written.isEmpty())
        write(path(), written);
    else if (!linkedTo.isEmpty())
        QVERIFY(QFile::link(linkedTo, path()));
    else
        QVERIFY(QDir().mkpath(path()));
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"could not be saved"_s));
    LXSettingsStore store(path());
    QVERIFY(store.readProblem());
    store.setValue(u"B"_s, 2);
    store.setValue(u"B"_s, 3);
    QVERIFY(!store.update(u"C"_s, [](const QVariant &) { return QVariant(4); }));
    QCOMPARE(store.integer(u"B"_s), 3);
    QCOMPARE(store.integer(u"C"_s), 4);
    QVERIFY(!store.flush());
    if (!written.isEmpty())
        QCOMPARE(contents(path()), written);
    else
        QVERIFY(linkedTo.isEmpty() ? QFileInfo(path()).isDir() : QFileInfo(path()).isSymbolicLink());
    QVERIFY(!QFile::exists(path() + u".new"_s));

    // What was changed meanwhile is not lost when it can be read again.
    QVERIFY(QFile::remove(path()) || QDir().rmdir(path()));
    write(path(), "A = 9\n");
    QVERIFY(store.flush());
    QVERIFY(!store.readProblem());
    QCOMPARE(contents(path()), "A = 9\nB = 3\nC = 4\n");
}

void TestSettingsStore::wrongValuesAreDefaults()
{
    QVERIFY(QDir().mkpath(QFileInfo(path()).path()));
    write(path(), "Level = -3\nOther = -3\n");
    LXSettingsStore store(path());
    store.registerDefaults({{u"Level"_s, 5}});
    store.registerChecks({{u"Level"_s, [](const QVariant &stored) { return stored.toInt() >= 0; }}});
    QCOMPARE(store.integer(u"Level"_s), 5);
    QCOMPARE(store.integer(u"Other"_s), -3);
    QCOMPARE(store.wrongValues(), QStringList{u"Level"_s});
    store.setValue(u"Level"_s, 7);
    QCOMPARE(store.integer(u"Level"_s), 7);
    QCOMPARE(store.wrongValues(), QStringList());
}

void TestSettingsStore::mainThreadIsSpared()
{
    LXMainThread::install();
    LXSettingsStore store(path());
    store.spareMainThread();
    QCOMPARE(store.integer(u"A"_s), 0);
    // Who holds the lock of the file keeps a writer waiting for seconds.
    const int lockFile = [this] {
        (void)QDir().mkpath(QFileInfo(path()).path());
        return ::open(QFile::encodeName(path() + u".lock"_s).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    }();
    QVERIFY(lockFile >= 0 && ::flock(lockFile, LOCK_EX) == 0);
    QElapsedTimer timer;
    timer.start();
    for (int i = 1; i <= 1000; ++i)
        store.setValue(u"A"_s, i);
    QCOMPARE(store.integer(u"A"_s), 1000);
    QVERIFY2(timer.elapsed() < 1000, qPrintable(QString::number(timer.elapsed())));
    ::close(lockFile);
    QVERIFY(store.flush());
    QCOMPARE(LXSettingsStore(path()).integer(u"A"_s), 1000);
    // What others change is seen all the same.
    LXSettingsStore(path()).setValue(u"A"_s, 7);
    QTRY_COMPARE(store.integer(u"A"_s), 7);
    waitForBackground();
}

void TestSettingsStore::folderThatCannotBeWritten()
{
    LXSettingsStore store(u"/proc/nowhere/corvane.conf"_s);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"could not be saved"_s));
    store.setValue(u"A"_s, 1);
    QCOMPARE(store.integer(u"A"_s), 1);
    QVERIFY(!store.flush());
}

void TestSettingsStore::linkedFileStaysLinked()
{
    const QString real = m_dir->filePath(u"elsewhere.conf"_s);
    LXSettingsStore(real).setValue(u"A"_s, 1);
    QVERIFY(QDir().mkpath(QFileInfo(path()).path()));
    QVERIFY(QFile::link(real, path()));
    LXSettingsStore(path()).setValue(u"A"_s, 2);
    QVERIFY(QFileInfo(path()).isSymbolicLink());
    QCOMPARE(LXSettingsStore(real).integer(u"A"_s), 2);
}

QTEST_GUILESS_MAIN(TestSettingsStore)
#include "tst_settings_store.moc"
