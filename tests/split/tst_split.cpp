#include "SplitSets.h"

#include "split/CVBzipFileReader.h"
#include "split/CVFileCombiner.h"
#include "split/CVFileSplitter.h"
#include "split/CVFileWriter.h"
#include "split/LXChecksum.h"
#include "split/block_copy.h"
#include "split/split_exceptions.h"
#include "split/split_names.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"
#include "util/LXRemoveTree.h"

#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <functional>
#include <random>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

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
    void namesThatAreNoText();
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
    QVERIFY(removeTree(folder.path())); // QTemporaryDir does not see such names
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
