#include "platform/LXSettingsStore.h"

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <thread>

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
    void folderThatCannotBeWritten();
    void linkedFileStaysLinked();

private:
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
    const LXSettingsStore store(path());
    QCOMPARE(store.integer(u"A"_s), 2);
    QCOMPARE(store.string(u"B"_s), u"plain words"_s);
    QCOMPARE(store.string(u"C"_s), u"[\"open"_s);
    QVERIFY(store.boolean(u"D"_s));
}

void TestSettingsStore::folderThatCannotBeWritten()
{
    LXSettingsStore store(u"/proc/nowhere/corvane.conf"_s);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"could not save A"_s));
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
