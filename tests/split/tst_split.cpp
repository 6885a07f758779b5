#include "split/CVBzipFileReader.h"
#include "split/CVFileCombiner.h"
#include "split/CVFileSplitter.h"
#include "split/CVFileWriter.h"
#include "split/LXChecksum.h"
#include "split/LXPropertyList.h"
#include "split/block_copy.h"
#include "split/split_exceptions.h"
#include "split/split_names.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"

#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <bzlib.h>

#include <algorithm>
#include <functional>
#include <random>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr double chunk = 100; // bytes

QByteArray randomBytes(qsizetype size, unsigned seed)
{
    std::mt19937 random(seed);
    QByteArray bytes(size, '\0');
    std::ranges::generate(bytes, [&] { return static_cast<char>(random()); });
    return bytes;
}

/// In place of what was there: written over, ext4 would put it on the disk at once.
void write(const QString &path, const QByteArray &data)
{
    QFile::remove(path);
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(data), data.size());
}

QByteArray read(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("cannot be read");
}

/// What was heard, as a row of letters.
class Recorder final : public CVSplitDelegate, public CVCombineDelegate
{
public:
    void splitWillBegin(CVFileSplitter &) override { calls += u'b'; }
    void splitHasMadeProgress(CVFileSplitter &splitter, quint64 bytes, quint64) override
    {
        done = bytes;
        if (cancelAt && bytes >= *cancelAt)
            splitter.cancel();
    }
    void splitWillChecksum(CVFileSplitter &) override { calls += u's'; }
    void splitWasCancelled(CVFileSplitter &) override { calls += u'x'; }
    void splitHasCompleted(CVFileSplitter &) override { calls += u'c'; }

    void combineWillVerifyChecksums(CVFileCombiner &) override { calls += u'v'; }
    void combineHasMadeProgress(CVFileCombiner &combiner, quint64 bytes, quint64) override
    {
        done = bytes;
        meanwhile();
        if (cancelAt && bytes >= *cancelAt)
            combiner.cancel();
    }
    void combineFailed(CVFileCombiner &, const LXError &failure) override
    {
        calls += u'f';
        error = failure;
    }
    void combineHasCompleted(CVFileCombiner &) override { calls += u'c'; }
    void combineWasCancelled(CVFileCombiner &) override { calls += u'x'; }

    QString calls;
    LXError error;
    quint64 done = 0;
    std::optional<quint64> cancelAt;
    std::function<void()> meanwhile = [] {};
};

struct Set
{
    QStringList parts;
    QStringList all; ///< with the checksum file
    LXResult<void> result;
};

Set split(const QString &input, const QString &folder, bool compress, bool checksum, double size = chunk)
{
    CVFileSplitter splitter;
    splitter.setInputFileName(input);
    splitter.setDestinationPath(folder);
    splitter.setChunkSize(size);
    splitter.setChunkUnits(u"B"_s);
    splitter.setShouldCompress(compress);
    splitter.setShouldChecksum(checksum);
    LXResult<void> result = splitter.split();
    Set set{splitter.outputFiles(), splitter.outputFiles(), result};
    if (checksum)
        set.all.append(splitter.outputFileName() + u".chksplit");
    return set;
}

struct Joined
{
    LXResult<void> result;
    Recorder heard;
    bool exists = false;
    QByteArray data;
};

Joined combine(
    const QStringList &files, const QString &folder, const std::function<void()> &meanwhile = [] {})
{
    Joined joined;
    joined.heard.meanwhile = meanwhile;
    CVFileCombiner combiner;
    combiner.setFiles(files);
    combiner.setDestinationPath(folder);
    combiner.setDelegate(&joined.heard);
    joined.result = combiner.combine();
    joined.exists = QFileInfo(combiner.combineFileName()).isFile();
    if (joined.exists) {
        joined.data = read(combiner.combineFileName());
        QFile::remove(combiner.combineFileName());
    }
    return joined;
}

} // namespace

class TestSplit : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        LXMainThread::install();
        QLoggingCategory::setFilterRules(u"corvane.split.*=false"_s);
    }
    void partCodes_data();
    void partCodes();
    void sizesOfChunks_data();
    void sizesOfChunks();
    void thereAndBack_data();
    void thereAndBack();
    void oddNames_data();
    void oddNames();
    void dataAndHoles_data();
    void dataAndHoles();
    void randomDamage_data();
    void randomDamage();
    void namesThatAreNoText();
    void strangeFiles_data();
    void strangeFiles();
    void refusedSets_data();
    void refusedSets();
    void propertyLists();
    void brokenPropertyLists_data();
    void brokenPropertyLists();
    void adapters();
    void cancelled();
    void cancelledWithinABlock();
    void fullDisk();
};

void TestSplit::partCodes_data()
{
    QTest::addColumn<quint64>("count");
    QTest::addColumn<QString>("last");
    QTest::newRow("1") << quint64(1) << u"a"_s;
    QTest::newRow("2") << quint64(2) << u"b"_s;
    QTest::newRow("26") << quint64(26) << u"z"_s;
    QTest::newRow("27") << quint64(27) << u"ba"_s;
    QTest::newRow("30") << quint64(30) << u"bd"_s;
    QTest::newRow("676") << quint64(676) << u"zz"_s;
    QTest::newRow("677") << quint64(677) << u"baa"_s;
    QTest::newRow("17576") << quint64(17576) << u"zzz"_s;
}

void TestSplit::partCodes()
{
    QFETCH(quint64, count);
    QFETCH(QString, last);
    const int length = partCodeLength(count);
    QCOMPARE(partCode(count - 1, length), last);
    QCOMPARE(partNumber(last), count - 1);
    QCOMPARE(partCode(0, length), QString(length, u'a'));
    quint64 tooLarge = 1;
    for (int i = 0; i < length; ++i)
        tooLarge *= 26;
    QVERIFY_THROWS_EXCEPTION(LXAssertionException, partCode(tooLarge, length));
}

void TestSplit::sizesOfChunks_data()
{
    QTest::addColumn<double>("size");
    QTest::addColumn<QString>("units");
    QTest::addColumn<quint64>("bytes");
    QTest::newRow("fraction") << 1.5 << u"MB"_s << quint64(1'572'864);
    QTest::newRow("KB") << 3.0 << u"KB"_s << quint64(3072);
    QTest::newRow("GB") << 2.0 << u"GB"_s << quint64(2147483648);
    QTest::newRow("others count bytes") << 7.9 << u"B"_s << quint64(7);
    QTest::newRow("zero") << 0.0 << u"MB"_s << quint64(0);
    QTest::newRow("negative") << -5.0 << u"MB"_s << quint64(0);
    QTest::newRow("no number") << qQNaN() << u"MB"_s << quint64(0);
}

void TestSplit::sizesOfChunks()
{
    QFETCH(double, size);
    QFETCH(QString, units);
    CVFileSplitter splitter;
    splitter.setChunkSize(size);
    splitter.setChunkUnits(units);
    QTEST(splitter.chunkSizeInBytes(), "bytes");
}

void TestSplit::thereAndBack_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("compress");
    QTest::addColumn<bool>("checksum");
    for (const int size : {0, 1, 99, 100, 101, 200, 2600, 2700, 67'700}) {
        for (const bool compress : {false, true}) {
            for (const bool checksum : {false, true})
                QTest::addRow("%d %s %s", size, compress ? "compressed" : "raw",
                              checksum ? "sums" : "no sums")
                    << size << compress << checksum;
        }
    }
}

void TestSplit::thereAndBack()
{
    QFETCH(int, size);
    QFETCH(bool, compress);
    QFETCH(bool, checksum);
    const QTemporaryDir folder;
    const QString input = folder.filePath(u"movie.mp4"_s);
    const QString parts = folder.filePath(u"parts"_s);
    const QString out = folder.filePath(u"out"_s);
    QDir().mkpath(parts);
    QDir().mkpath(out);
    // Compressible, so that a compressed set is not longer than its names can number.
    QByteArray data = randomBytes(size / 4 + 1, 5).repeated(4).left(size);
    write(input, data);

    const Set set = split(input, parts, compress, checksum);
    QVERIFY(set.result);
    const QStringList names = QDir(parts).entryList(QDir::Files, QDir::Name);
    QCOMPARE(names.size(), set.all.size());

    QByteArray joined;
    const int length = partCodeLength(CVFileSplitter::numberOfChunksForFile(input, 100));
    for (qsizetype i = 0; i < set.parts.size(); ++i) {
        QCOMPARE(set.parts[i], parts + u"/movie.mp4." + partCode(static_cast<quint64>(i), length) +
                                   (compress ? u".zsplit" : u".split"));
        const QByteArray part = read(set.parts[i]);
        if (i + 1 < set.parts.size())
            QCOMPARE(part.size(), 100);
        else
            QVERIFY(part.size() > 0 && part.size() <= 100);
        joined += part;
    }
    if (compress) {
        write(folder.filePath(u"all.bz2"_s), joined);
        QProcess bzip2;
        bzip2.start(u"bzip2"_s, {u"-dc"_s, folder.filePath(u"all.bz2"_s)});
        QVERIFY(bzip2.waitForFinished());
        QCOMPARE(bzip2.readAllStandardOutput(), data);
    } else {
        QCOMPARE(joined, data);
        QCOMPARE(set.parts.size(), (size + 99) / 100);
    }
    if (set.parts.isEmpty())
        return; // nothing to join

    // From the first, from the last, backwards, and with the sums first.
    QStringList backwards = set.all;
    std::ranges::reverse(backwards);
    QStringList shuffled = set.all;
    std::ranges::shuffle(shuffled, std::mt19937(3));
    for (const QStringList &files : {set.all, backwards, shuffled}) {
        const Joined back = combine(files, out);
        QVERIFY2(back.result, qPrintable(back.result ? QString() : back.result.error().reason));
        QCOMPARE(back.heard.calls, checksum ? u"vc"_s : u"c"_s);
        QVERIFY(back.data == data);
    }
}

void TestSplit::oddNames_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("signs of patterns") << u"a (1) [x]+.mp4"_s;
    QTest::newRow("letters like a code") << u"x.b.split.c"_s;
    QTest::newRow("no extension") << u"data"_s;
    QTest::newRow("newlines and mark-up") << u"a\n\r<&\"'>\t.bin"_s;
    QTest::newRow("only dots") << u"..."_s;
    QTest::newRow("japanese") << u"写真.zip"_s;
}

void TestSplit::oddNames()
{
    QFETCH(QString, name);
    const QTemporaryDir folder;
    const QString out = folder.filePath(u"out"_s);
    QDir().mkpath(out);
    const QByteArray data = randomBytes(350, 8);
    write(folder.filePath(name), data);
    const Set set = split(folder.filePath(name), folder.path(), false, true);
    QVERIFY(set.result);
    // Parts of a set whose name only looks the same to a pattern are not taken in.
    QString other = name;
    other.replace(u'.', u'-');
    if (other == name)
        other += u'x';
    write(folder.filePath(other + u".e.split"), "foreign");
    const Joined back = combine(set.all + QStringList{folder.filePath(other + u".e.split")}, out);
    QCOMPARE(back.heard.calls, u"vc"_s);
    QCOMPARE(back.data, data);
}

void TestSplit::dataAndHoles_data()
{
    QTest::addColumn<qint64>("size");
    QTest::addColumn<QList<qint64>>("islands"); ///< where data of 10,000 bytes begins; none: data everywhere
    QTest::addColumn<qint64>("part");
    constexpr qint64 mib = 1 << 20;
    QTest::newRow("data in parts of several blocks") << 7 * mib + 5 << QList<qint64>() << 5 * mib / 2;
    QTest::newRow("data first") << 300 * mib << QList<qint64>{0} << 100 * mib;
    QTest::newRow("nothing but a hole") << 20 * mib << QList<qint64>{20 * mib} << 7 * mib;
    QTest::newRow("across the cut, odd, and last")
        << 300 * mib + 77 << QList<qint64>{100 * mib - 5000, 150 * mib + 13, 300 * mib - 9923} << 100 * mib;
}

void TestSplit::dataAndHoles()
{
    QFETCH(qint64, size);
    QFETCH(QList<qint64>, islands);
    QFETCH(qint64, part);
    constexpr qint64 islandBytes = 10'000;
    const QTemporaryDir folder;
    const QString input = folder.filePath(u"in"_s);
    {
        QFile file(input);
        QVERIFY(file.open(QIODevice::WriteOnly));
        const bool isFull = islands.isEmpty();
        for (const qint64 at : isFull ? QList<qint64>{0} : islands)
            QVERIFY(file.seek(at) &&
                    file.write(randomBytes(isFull ? size : std::min(islandBytes, size - at), 1)) >= 0);
        QVERIFY(file.resize(size));
    }
    const auto bytesOnDisk = [](const QString &path) -> qint64 {
        struct stat facts;
        return ::stat(QFile::encodeName(path).constData(), &facts) == 0 ? facts.st_blocks * 512 : -1;
    };
    const Set set = split(input, folder.path(), false, false, static_cast<double>(part));
    QVERIFY(set.result);
    QCOMPARE(set.parts.size(), (size + part - 1) / part);
    qint64 onDisk = 0;
    for (const QString &path : set.parts)
        onDisk += bytesOnDisk(path);

    QDir(folder.path()).mkdir(u"out"_s);
    CVFileCombiner combiner;
    combiner.setFiles(set.all);
    combiner.setDestinationPath(folder.filePath(u"out"_s));
    QVERIFY(combiner.combine());
    QCOMPARE(QProcess::execute(u"cmp"_s, {input, combiner.combineFileName()}), 0);
    // A block of the file system at each end of an island.
    const qint64 most = bytesOnDisk(input) + 65536;
    QVERIFY2(onDisk <= most, qPrintable(QString::number(onDisk)));
    QVERIFY2(bytesOnDisk(combiner.combineFileName()) <= most,
             qPrintable(QString::number(bytesOnDisk(combiner.combineFileName()))));
}

void TestSplit::randomDamage_data()
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

void TestSplit::randomDamage()
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

void TestSplit::refusedSets_data()
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

void TestSplit::refusedSets()
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

// Parts may have any name; a list of sums, which is a text, may not.
void TestSplit::namesThatAreNoText()
{
    const QTemporaryDir folder;
    QDir(folder.path()).mkdir(u"out"_s);
    const QByteArray data = randomBytes(250, 2);
    for (const QByteArray &name : {QByteArray("caf\xe9"), QByteArray("bell\a")}) {
        const QString input = folder.path() + u'/' + fileNameFromBytes(name);
        const LXFileDescriptor file(::open(bytesOfFileName(input).constData(), O_WRONLY | O_CREAT, 0600));
        QCOMPARE(::write(file.get(), data.constData(), 250), 250);
        const Set refused = split(input, folder.path(), false, true);
        QVERIFY(!refused.result);
        QVERIFY(refused.parts.isEmpty());
        const Set set = split(input, folder.path(), false, false);
        QVERIFY(set.result);
        CVFileCombiner combiner;
        combiner.setFiles(set.parts);
        combiner.setDestinationPath(folder.filePath(u"out"_s));
        QVERIFY(combiner.combine());
        const LXFileDescriptor back = openRegularFile(combiner.combineFileName());
        QByteArray bytes(300, '\0');
        QCOMPARE(::read(back.get(), bytes.data(), 300), 250);
        QCOMPARE(bytes.left(250), data);
    }
}

void TestSplit::strangeFiles_data()
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
    QTest::newRow("a second list of sums, of another set")
        << u"m.b.split"_s << u"sums"_s << modified.arg(u"m.b.split"_s);
    QTest::newRow("linked to") << u"m.b.split"_s << u"link"_s << QString();
    QTest::newRow("listed twice") << u"m.b.split"_s << u"again"_s << QString();
}

void TestSplit::strangeFiles()
{
    QFETCH(QString, name);
    QFETCH(QString, deed);
    const QTemporaryDir folder;
    const QByteArray data = randomBytes(250, 2);
    write(folder.filePath(u"m"_s), data);
    QDir(folder.path()).mkdir(u"set"_s);
    QDir(folder.path()).mkdir(u"out"_s);
    const QString prefix = folder.filePath(u"set/"_s);
    QStringList files = split(folder.filePath(u"m"_s), prefix.chopped(1), false, true).all;
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

void TestSplit::propertyLists()
{
    const QMap<QString, QString> strings{{u"m <&> \"1\".a.split"_s, u"da39"_s}, {u"写真.a.split"_s, u"0"_s}};
    const QTemporaryDir folder;
    write(folder.filePath(u"list"_s), LXPropertyList::fromStrings(strings));
    const auto again = LXPropertyList::toStrings(read(folder.filePath(u"list"_s)));
    QVERIFY(again);
    QCOMPARE(again.value(), strings);

    // Another program reads it, and writes the binary form.
    QProcess python;
    python.start(u"python3"_s,
                 {u"-c"_s,
                  u"import plistlib, sys\n"
                  "d = plistlib.load(open(sys.argv[1], 'rb'))\n"
                  "plistlib.dump(d, open(sys.argv[2], 'wb'), fmt=plistlib.FMT_BINARY)\n"
                  "plistlib.dump(d, open(sys.argv[3], 'wb'), fmt=plistlib.FMT_XML)"_s,
                  folder.filePath(u"list"_s), folder.filePath(u"binary"_s), folder.filePath(u"xml"_s)});
    QVERIFY(python.waitForFinished());
    QCOMPARE(python.exitCode(), 0);
    for (const QString &name : {u"binary"_s, u"xml"_s}) {
        const auto other = LXPropertyList::toStrings(read(folder.filePath(name)));
        QVERIFY(other);
        QCOMPARE(other.value(), strings);
    }
    // With the name of its form, as others write it.
    QVERIFY(
        LXPropertyList::toStrings("<?xml version=\"1.0\"?><!DOCTYPE plist PUBLIC \"-//A//DTD PLIST 1.0//EN\" "
                                  "\"http://localhost/p.dtd\"><plist><dict/></plist>"));
    // Whatever is cut out of the binary form is refused, without a crash.
    const QByteArray binary = read(folder.filePath(u"binary"_s));
    for (qsizetype size = 8; size < binary.size(); ++size)
        QVERIFY(!LXPropertyList::toStrings(binary.left(size)));
    std::mt19937 random(1);
    for (int i = 0; i < 2000; ++i) {
        QByteArray damaged = binary;
        damaged[8 + static_cast<qsizetype>(random() % static_cast<unsigned>(damaged.size() - 8))] =
            static_cast<char>(random());
        (void)LXPropertyList::toStrings(damaged);
    }
}

void TestSplit::brokenPropertyLists_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("text") << QByteArray("m.a.split da39");
    QTest::newRow("cut off") << QByteArray("<plist><dict><key>a</key><string>b</string>");
    QTest::newRow("numbers") << QByteArray("<plist><dict><key>a</key><integer>1</integer></dict></plist>");
    QTest::newRow("list") << QByteArray("<plist><array><string>a</string></array></plist>");
    QTest::newRow("value without key") << QByteArray("<plist><dict><string>a</string></dict></plist>");
    QTest::newRow("key twice") << QByteArray(
        "<plist><dict><key>a</key><string>1</string><key>a</key><string>2</string></dict></plist>");
    QTest::newRow("entities without end") << QByteArray(
        "<!DOCTYPE plist [<!ENTITY a \"xxxxxxxxxx\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\">"
        "<!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;\"><!ENTITY d \"&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;\">"
        "<!ENTITY e "
        "\"&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;\">]><plist><dict><key>&e;</key><string>&e;</string></dict></"
        "plist>");
    QTest::newRow("texts by reference")
        << QByteArray("<!DOCTYPE plist [<!ENTITY e \"x\">]>"
                      "<plist><dict><key>a</key><string>&e;</string></dict></plist>");
    QTest::newRow("more than a dictionary") << QByteArray("<plist><dict></dict><a></a></plist>");
    QTest::newRow("binary without anything") << QByteArray("bplist00") + QByteArray(40, '\xff');
}

void TestSplit::brokenPropertyLists()
{
    QFETCH(QByteArray, data);
    QVERIFY(!LXPropertyList::toStrings(data));
}

void TestSplit::adapters()
{
    const QTemporaryDir folder;
    const QByteArray data = randomBytes(3'000'000, 4);
    write(folder.filePath(u"in"_s), data);
    const LXFileDescriptor in(::open(QFile::encodeName(folder.filePath(u"in"_s)).constData(), O_RDONLY));
    CVBzipFileReader reader(in.get());
    QVERIFY_THROWS_EXCEPTION(Bzip2Exception, reader.readDataWithLength(100));
    reader.open();
    std::string stream;
    for (std::string block = reader.readDataWithLength(1 << 20); !block.empty();
         block = reader.readDataWithLength(1 << 20))
        stream += block;
    QVERIFY(reader.readDataWithLength(1 << 20).empty());
    reader.close();

    const LXFileDescriptor out(
        ::open(QFile::encodeName(folder.filePath(u"out"_s)).constData(), O_RDWR | O_CREAT | O_EXCL, 0600));
    CVBzipFileWriter closed(out.get());
    QVERIFY_THROWS_EXCEPTION(Bzip2Exception, closed.writeData("BZh9", 4));
    const auto writer = CVFileWriterFactory::fileWriterWithOutputFile(out.get(), true);
    writer->open();
    QCOMPARE(writer->writeData(stream.data(), stream.size()), stream.size());
    writer->close();
    QCOMPARE(read(folder.filePath(u"out"_s)), data);
    QVERIFY_THROWS_EXCEPTION(Bzip2Exception, writer->writeData("more", 4));

    QVERIFY(!LXChecksum::checksumFileAtPath(folder.filePath(u"missing"_s)));
    write(folder.filePath(u"empty"_s), {});
    QCOMPARE(LXChecksum::checksumFileAtPath(folder.filePath(u"empty"_s)),
             u"da39a3ee5e6b4b0d3255bfef95601890afd80709"_s);
    QVERIFY(!LXChecksum::verifyFileAtPath(folder.filePath(u"empty"_s),
                                          u"DA39A3EE5E6B4B0D3255BFEF95601890AFD80709"_s));
}

void TestSplit::cancelled()
{
    const QTemporaryDir folder;
    write(folder.filePath(u"in"_s), randomBytes(16 << 20, 4));
    for (const bool compress : {false, true}) {
        const QString parts = folder.filePath(compress ? u"z"_s : u"r"_s);
        QDir().mkpath(parts);
        Recorder heard;
        heard.cancelAt = 3 << 20;
        CVFileSplitter splitter;
        splitter.setInputFileName(folder.filePath(u"in"_s));
        splitter.setDestinationPath(parts);
        splitter.setChunkSize(1);
        splitter.setShouldCompress(compress);
        splitter.setShouldChecksum(true);
        splitter.setDelegate(&heard);
        QVERIFY(splitter.split());
        QCOMPARE(heard.calls, u"bx"_s);
        // Each of at most four threads may be a block ahead, and ends the one it is at.
        QVERIFY(heard.done <= 11 << 20);

        splitter.setDelegate(nullptr);
        const QString whole = folder.filePath(compress ? u"zw"_s : u"rw"_s);
        QDir().mkpath(whole);
        splitter.setDestinationPath(whole);
        QVERIFY(splitter.split());
        Recorder combining;
        combining.cancelAt = 3 << 20;
        CVFileCombiner combiner;
        combiner.setFiles(splitter.outputFiles());
        combiner.setDestinationPath(folder.path() + u"/out");
        QDir().mkpath(combiner.destinationPath());
        combiner.setDelegate(&combining);
        QVERIFY(combiner.combine());
        QCOMPARE(combining.calls, u"x"_s);
        QVERIFY(!QFile::exists(combiner.combineFileName()));
    }
}

// Zeros: a hundredth of a block of the parts is all there is to read.
void TestSplit::cancelledWithinABlock()
{
    const QTemporaryDir folder;
    constexpr qint64 size = 64 << 20;
    write(folder.filePath(u"in"_s), {});
    QVERIFY(QFile::resize(folder.filePath(u"in"_s), size));
    QDir(folder.path()).mkdir(u"out"_s);
    const Set set = split(folder.filePath(u"in"_s), folder.path(), true, false, size);
    QVERIFY(set.result);
    Recorder heard;
    CVFileCombiner combiner;
    combiner.setFiles(set.parts);
    combiner.setDestinationPath(folder.filePath(u"out"_s));
    combiner.setDelegate(&heard);
    qint64 written = 0;
    {
        const std::jthread other([&](const std::stop_token &over) {
            const QByteArray path = QFile::encodeName(combiner.combineFileName());
            struct stat facts;
            LXFileDescriptor file;
            while (!over.stop_requested()) {
                if (!file.isOpen())
                    file = LXFileDescriptor(::open(path.constData(), O_RDONLY));
                else if (::fstat(file.get(), &facts) == 0 && facts.st_size > 0)
                    combiner.requestCancel();
                std::this_thread::yield();
            }
            written = ::fstat(file.get(), &facts) == 0 ? facts.st_size : size;
        });
        QVERIFY(combiner.combine());
    }
    QCOMPARE(heard.calls, u"x"_s);
    QVERIFY2(written < size, qPrintable(QString::number(written)));
}

void TestSplit::fullDisk()
{
    const QTemporaryDir folder;
    write(folder.filePath(u"in"_s), randomBytes(3 << 20, 4));
    // The device that is always full stands for the parts: a link to it cannot be made by O_EXCL, so the
    // writer is asked directly; the whole path is tried on a small file system by the job's test.
    const LXFileDescriptor full(::open("/dev/full", O_WRONLY));
    CVRawFileWriter writer(full.get());
    QVERIFY_THROWS_EXCEPTION(LXFileHandleException, writer.writeData("x", 1));

    CVFileSplitter splitter;
    splitter.setInputFileName(folder.filePath(u"in"_s));
    splitter.setDestinationPath(folder.filePath(u"missing"_s));
    const auto result = splitter.split();
    QVERIFY(!result);
    QCOMPARE(result.error().code, 2);
    QCOMPARE(result.error().domain, u"FileSplitterErrorDomain"_s);
    QVERIFY(splitter.outputFiles().isEmpty());

    // A file that says nothing of its size must not be taken for an empty one.
    splitter.setDestinationPath(folder.path());
    splitter.setInputFileName(u"/proc/self/status"_s);
    QVERIFY(!splitter.split());
}

QTEST_GUILESS_MAIN(TestSplit)
#include "tst_split.moc"
