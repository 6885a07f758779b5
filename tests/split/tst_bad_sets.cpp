#include "SplitSets.h"

#include "split/LXChecksum.h"
#include "split/LXPropertyList.h"
#include "split/split_names.h"
#include "util/LXMainThread.h"

#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <random>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

/// What is no good set is never joined to anything else than the file that it was.
class TestBadSets : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        LXMainThread::install();
        QLoggingCategory::setFilterRules(u"corvane.split.*=false"_s);
    }
    void randomDamage_data();
    void randomDamage();
    void strangeFiles_data();
    void strangeFiles();
    void refusedSets_data();
    void refusedSets();
};

void TestBadSets::randomDamage_data()
{
    QTest::addColumn<bool>("compress");
    QTest::addColumn<bool>("checksum");
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("part");
    QTest::addColumn<unsigned>("runs");
    QTest::newRow("raw with sums") << false << true << 1200 << 100 << 1050U;
    QTest::newRow("compressed with sums") << true << true << 1200 << 100 << 1050U;
    QTest::newRow("compressed") << true << false << 1200 << 100 << 1050U;
    // Parts of several blocks, and streams of several blocks of the format.
    QTest::newRow("large, raw with sums") << false << true << 9'000'000 << 2'500'000 << 35U;
    QTest::newRow("large, compressed") << true << false << 4'000'000 << 300'000 << 49U;
}

void TestBadSets::randomDamage()
{
    QFETCH(bool, compress);
    QFETCH(bool, checksum);
    QFETCH(int, size);
    QFETCH(int, part);
    QFETCH(unsigned, runs);
    const QTemporaryDir folder;
    const QString clean = folder.filePath(u"clean"_s);
    const QString out = folder.filePath(u"out"_s);
    const QString damaged = folder.filePath(u"set"_s);
    QDir().mkpath(clean);
    QDir().mkpath(out);
    QDir().mkpath(damaged);
    const QByteArray data = randomBytes(size / 4, 5).repeated(4);
    write(folder.filePath(u"m"_s), data);
    const Set set = split(folder.filePath(u"m"_s), clean, compress, checksum, part);
    QVERIFY(set.result);
    QVERIFY(set.parts.size() > 3);
    QList<QByteArray> whole;
    QStringList names;
    for (const QString &file : set.all) {
        names.append(QFileInfo(file).fileName());
        whole.append(read(file));
    }
    const QString kind = compress ? u".zsplit"_s : u".split"_s;

    unsigned refused = 0;
    bool namedTheDamage = checksum;
    for (unsigned seed = 0; seed < runs; ++seed) {
        std::mt19937 random(seed);
        const auto any = [&](qsizetype count) {
            return static_cast<qsizetype>(random() % static_cast<unsigned>(count));
        };
        QMap<QString, QByteArray> files;
        for (qsizetype i = 0; i < names.size(); ++i)
            files.insert(names[i], whole[i]);
        const auto flip = [&](QByteArray &bytes) {
            const qsizetype byte = any(bytes.size());
            bytes[byte] = static_cast<char>(bytes[byte] ^ (1 << random() % 8));
        };
        const QString victim = names[any(set.parts.size())];
        switch (seed % 7) {
        case 0:
            flip(files[victim]);
            break;
        case 1: // cut
            files[victim].truncate(any(files[victim].size()));
            break;
        case 2: // drop
            files.remove(victim);
            break;
        case 3: // swap
            std::swap(files[victim], files[names[any(set.parts.size())]]);
            break;
        case 4: { // rename
            const QByteArray bytes = files.take(victim);
            files.insert(u"m."_s + QChar(u'a' + static_cast<char16_t>(random() % 26)) + kind, bytes);
            break;
        }
        case 5: // a foreign part
            files.insert(u"m."_s + partCode(static_cast<quint64>(set.parts.size()), 1) + kind,
                         randomBytes(50, seed));
            break;
        case 6: // in the sums as well, or at two places
            flip(files[names.last()]);
            flip(files[victim]);
            break;
        }
        QStringList paths;
        for (auto it = files.cbegin(); it != files.cend(); ++it) {
            paths.append(damaged + u'/' + it.key());
            write(paths.last(), it.value());
        }
        const Joined back = combine(paths, out);
        const bool delivered = back.result && back.heard.calls.endsWith(u'c');
        QVERIFY2(delivered == back.exists || !back.result, qPrintable(QString::number(seed)));
        if (!back.result && back.result.error().reason.endsWith(u"damaged.") && seed % 7 == 0) {
            const QStringList named = back.result.error().reason.split(QRegularExpression(u"[“”]"_s));
            const QString &last = named[named.size() > 3 ? 3 : 1];
            QVERIFY2(named[1] <= victim && victim <= last, qPrintable(victim + back.result.error().reason));
            namedTheDamage = true;
        }
        // Damage that the bytes do not show (padding bits, a swap with itself) may be delivered: right.
        if (delivered)
            QVERIFY2(back.data == data, qPrintable(QString::number(seed)));
        else
            ++refused;
        for (const QString &path : paths)
            QFile::remove(path);
    }
    // All but some of the swaps and renames, which change nothing between equal parts.
    QVERIFY(namedTheDamage);
    QVERIFY2(refused > runs * 9 / 10 - 3, qPrintable(QString::number(refused)));
}

void TestBadSets::strangeFiles_data()
{
    QTest::addColumn<QString>("name"); ///< what is done to a set m of three parts with sums
    QTest::addColumn<QString>("deed");
    QTest::addColumn<QString>("reason");
    const QString modified = u"The file “%1” was modified since it was split and can't be combined."_s;
    QTest::newRow("a pipe for a part") << u"m.b.split"_s << u"pipe"_s << modified.arg(u"m.b.split"_s);
    QTest::newRow("a folder for a part") << u"m.b.split"_s << u"folder"_s << modified.arg(u"m.b.split"_s);
    QTest::newRow("a pipe for the sums")
        << u"m.chksplit"_s << u"pipe"_s << u"The file “m.chksplit” could not be read."_s;
    QTest::newRow("a device for the sums")
        << u"m.chksplit"_s << u"device"_s << u"The file “m.chksplit” could not be read."_s;
    QTest::newRow("written to while it is read")
        << u"m.c.split"_s << u"write"_s << u"The part “m.c.split” was changed while it was read."_s;
    QTest::newRow("replaced while it is read")
        << u"m.c.split"_s << u"replace"_s << u"The part “m.c.split” was changed while it was read."_s;
    const QString changed = u"The part “m.a.split” was changed while it was read."_s;
    QTest::newRow("shorter than it was, in the middle of it") << u"m.a.split"_s << u"shrink"_s << changed;
    QTest::newRow("longer than it was, in the middle of it") << u"m.a.split"_s << u"grow"_s << changed;
    QTest::newRow("a second list of sums, of another set")
        << u"m.b.split"_s << u"sums"_s << modified.arg(u"m.b.split"_s);
    QTest::newRow("linked to") << u"m.b.split"_s << u"link"_s << QString();
    QTest::newRow("listed twice") << u"m.b.split"_s << u"again"_s << QString();
}

void TestBadSets::strangeFiles()
{
    QFETCH(QString, name);
    QFETCH(QString, deed);
    const QTemporaryDir folder;
    // Parts of several blocks, where it is about what happens between two of them.
    const int part = deed == u"shrink" || deed == u"grow" ? 3 << 20 : 100;
    const QByteArray data = randomBytes(part / 2 * 5, 2);
    write(folder.filePath(u"m"_s), data);
    QDir(folder.path()).mkdir(u"set"_s);
    QDir(folder.path()).mkdir(u"out"_s);
    const QString prefix = folder.filePath(u"set/"_s);
    QStringList files = split(folder.filePath(u"m"_s), prefix.chopped(1), false, true, part).all;
    const QString path = prefix + name;
    const QByteArray nativePath = QFile::encodeName(path);
    std::function<void()> meanwhile = [] {};
    if (deed == u"pipe") {
        QVERIFY(QFile::remove(path));
        QCOMPARE(::mkfifo(nativePath.constData(), 0600), 0);
    } else if (deed == u"folder") {
        QVERIFY(QFile::remove(path) && QDir().mkdir(path));
    } else if (deed == u"device") {
        QVERIFY(QFile::remove(path) && QFile::link(u"/dev/zero"_s, path));
    } else if (deed == u"link") {
        QVERIFY(QFile::rename(path, folder.filePath(u"elsewhere"_s)) &&
                QFile::link(folder.filePath(u"elsewhere"_s), path));
    } else if (deed == u"again") {
        files.append(path);
    } else if (deed == u"write") {
        meanwhile = [path] {
            QFile file(path);
            if (file.open(QIODevice::ReadWrite))
                file.write("other");
        };
    } else if (deed == u"shrink") {
        meanwhile = [path] { QFile::resize(path, 2 << 20); };
    } else if (deed == u"grow") {
        meanwhile = [path] { QFile::resize(path, 4 << 20); };
    } else if (deed == u"replace") {
        meanwhile = [path] { write(path, QByteArray(50, 'x')); };
    } else {
        files.append(folder.filePath(u"m.chksplit"_s));
        QMap<QString, QString> sums;
        for (const char *code : {"a", "b", "c"})
            sums.insert(u"m.%1.split"_s.arg(QLatin1StringView(code)),
                        *LXChecksum::checksumFileAtPath(
                            prefix + (code[0] == 'b' ? u"m.a.split"_s
                                                     : u"m.%1.split"_s.arg(QLatin1StringView(code)))));
        write(files.last(), LXPropertyList::fromStrings(sums));
    }
    const Joined back = combine(files, folder.filePath(u"out"_s), meanwhile);
    QTEST(back.heard.error.reason, "reason");
    QCOMPARE(back.exists, back.heard.error.reason.isEmpty());
    if (back.exists)
        QCOMPARE(back.data, data);
}

void TestBadSets::refusedSets_data()
{
    QTest::addColumn<QStringList>("parts"); ///< name and size, "m.a.split 100"
    QTest::addColumn<QString>("sums");      ///< keys of a checksum file, in which every sum is right
    QTest::addColumn<QString>("reason");
    const QString none;
    QTest::newRow("gap") << QStringList{u"m.a.split 10"_s, u"m.c.split 5"_s} << none
                         << u"The part “m.b.split” is missing."_s;
    QTest::newRow("without the first")
        << QStringList{u"m.b.split 10"_s, u"m.c.split 5"_s} << none << u"The part “m.a.split” is missing."_s;
    QTest::newRow("fewer than the letters say") << QStringList{u"m.aa.split 10"_s, u"m.ab.split 5"_s} << none
                                                << u"The part “m.ac.split” is missing."_s;
    QTest::newRow("short in the middle") << QStringList{u"m.a.split 10"_s, u"m.b.split 9"_s, u"m.c.split 5"_s}
                                         << none << u"The part “m.b.split” has not the size of the others."_s;
    QTest::newRow("last one longer") << QStringList{u"m.a.split 10"_s, u"m.b.split 11"_s} << none
                                     << u"The part “m.b.split” has not the size of the others."_s;
    QTest::newRow("last one empty") << QStringList{u"m.a.split 10"_s, u"m.b.split 0"_s} << none
                                    << u"The part “m.b.split” has not the size of the others."_s;
    QTest::newRow("two widths") << QStringList{u"m.a.split 10"_s, u"m.ab.split 10"_s} << none
                                << u"The part “m.ab.split” does not belong to the same set as the others."_s;
    QTest::newRow("of no name") << QStringList{u".a.split"_s} << none
                                << u"The files could not be combined, possibly because they are corrupt."_s;
    QTest::newRow("of the folder's name")
        << QStringList{u"...a.split 10"_s} << none
        << u"The files could not be combined, possibly because they are corrupt."_s;
    QTest::newRow("only sums") << QStringList() << u"m.a.split"_s
                               << u"Cannot combine a single checksum file."_s;
    QTest::newRow("listed, but gone")
        << QStringList{u"m.a.split 10"_s} << u"m.a.split m.b.split"_s
        << u"The file “m.b.split” was modified since it was split and can't be combined."_s;
    QTest::newRow("not listed") << QStringList{u"m.a.split 10"_s, u"m.b.split 9"_s} << u"m.a.split"_s
                                << u"The part “m.b.split” is not in the list of checksums."_s;
    QTest::newRow("sums of other files")
        << QStringList{u"m.a.split 10"_s} << u"m.a.split ../m.a.split"_s
        << u"The checksum file names “m.a.split”, which is no part of this set."_s;
}

void TestBadSets::refusedSets()
{
    QFETCH(QStringList, parts);
    QFETCH(QString, sums);
    const QTemporaryDir folder;
    QStringList files;
    QMap<QString, QString> list;
    for (const QString &part : parts) {
        files.append(folder.filePath(part.section(u' ', 0, 0)));
        write(files.last(), QByteArray(part.section(u' ', 1).toInt(), 'x'));
    }
    if (!sums.isNull()) {
        for (const QString &key : sums.split(u' '))
            list.insert(key, LXChecksum::checksumFileAtPath(folder.filePath(key)).value_or(u"none"_s));
        files.append(folder.filePath(u"m.chksplit"_s));
        write(files.last(), LXPropertyList::fromStrings(list));
    }
    QDir(folder.path()).mkdir(u"out"_s);
    const Joined back = combine(files, folder.filePath(u"out"_s));
    QVERIFY(back.result);
    QCOMPARE(back.heard.calls.right(2), u"fx"_s);
    QTEST(back.heard.error.reason, "reason");
    QVERIFY(!back.exists);
}

QTEST_GUILESS_MAIN(TestBadSets)
#include "tst_bad_sets.moc"
