#include "archives/CVToolPaths.h"
#include "archives/zip/CVZipRecords.h"
#include "archives/zip/CVZipWriter.h"
#include "archives/zip/zip_line.h"
#include "support/CreateSupport.h"
#include "support/TestTree.h"
#include "util/LXFileName.h"
#include "util/LXRemoveTree.h"

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

// Our own program for zip archives, asked as the back end asks it. What it writes has to be read by others.

class TestZipWriter : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void knownLines_data();
    void knownLines();
    void times_data();
    void times();
    void randomTrees_data();
    void randomTrees();
    void bytesDependOnTheInputAlone_data();
    void bytesDependOnTheInputAlone();
    void limits_data();
    void limits();
    void whatIsLeftOut();
    void ownFilesAreNotPacked();
    void leavesOthersAlone_data();
    void leavesOthersAlone();
    void changesBetweenWalkAndReading();

private:
    QString path(const QString &name) const { return m_folder->path() + u'/' + name; }
    ToolOutput pack(const QStringList &switches, const QString &to) const;

    std::unique_ptr<QTemporaryDir> m_folder;
};

void TestZipWriter::init()
{
    qputenv("CORVANE_OWN_ZIP", "1");
    m_folder = std::make_unique<QTemporaryDir>();
    QVERIFY(QDir().mkdir(path("in")) && QDir().mkdir(path("out")));
}

void TestZipWriter::cleanup()
{
    (void)removeTree(m_folder->path());
    m_folder.reset();
}

ToolOutput TestZipWriter::pack(const QStringList &switches, const QString &to) const
{
    return runTool(CVToolPaths::resourcesFolder() + u"/7za"_s,
                   QStringList{u"a"_s, u"-tzip"_s} + switches + QStringList{to, u"."_s}, path(u"in"_s));
}

void TestZipWriter::knownLines_data()
{
    QTest::addColumn<QByteArrayList>("arguments");
    QTest::addColumn<bool>("isKnown");
    const auto row = [](const char *what, const QByteArrayList &arguments, bool isKnown) {
        QTest::newRow(what) << arguments << isKnown;
    };
    row("plain", {"a", "-tzip", "-mx=5", "x.zip", "."}, true);
    row("all", {"a", "-tZIP", "-mx=0", "-v1b", "-p", "/a b/x.Zip", "."}, true);
    row("7z", {"a", "-t7z", "-mx=5", "x.7z", "."}, false);
    row("no type", {"a", "-mx=5", "x.zip", "."}, false);
    row("other command", {"u", "-tzip", "-mx=5", "x.zip", "."}, false);
    row("level", {"a", "-tzip", "-mx=10", "x.zip", "."}, false);
    row("volumes in another unit", {"a", "-tzip", "-v1m", "x.zip", "."}, false);
    row("volume of nothing", {"a", "-tzip", "-v0b", "x.zip", "."}, false);
    row("volume beyond numbers", {"a", "-tzip", "-v99999999999999999999b", "x.zip", "."}, false);
    row("other switch", {"a", "-tzip", "-mem=AES256", "x.zip", "."}, false);
    row("names", {"a", "-tzip", "x.zip", "name"}, false);
    row("no extension", {"a", "-tzip", "x", "."}, false);
    row("list", {"a", "-tzip", "@x.zip", "."}, false);
    row("nothing", {}, false);
}

void TestZipWriter::knownLines()
{
    QFETCH(QByteArrayList, arguments);
    arguments.prepend("7za");
    std::vector<char *> pointers;
    for (QByteArray &argument : arguments)
        pointers.push_back(argument.data());
    ZipLine line;
    QTEST(readZipLine(static_cast<int>(pointers.size()), pointers.data(), line), "isKnown");
}

void TestZipWriter::times_data()
{
    QTest::addColumn<qint64>("seconds");
    QTest::addColumn<quint32>("nanoseconds");
    QTest::addColumn<quint32>("dos");
    const auto date = [](unsigned year, unsigned month, unsigned day) {
        return (year - 1980) << 25 | month << 21 | day << 16;
    };
    QTest::newRow("before") << qint64(-1) << 0U << date(1980, 1, 1);
    QTest::newRow("even") << qint64(1577836802) << 0U << (date(2020, 1, 1) | 1);
    QTest::newRow("odd") << qint64(1577836801) << 0U << (date(2020, 1, 1) | 1);
    QTest::newRow("a little later") << qint64(1577836802) << 1U << (date(2020, 1, 1) | 2);
    QTest::newRow("into the next year") << qint64(1577836799) << 0U << date(2020, 1, 1);
    QTest::newRow("last") << qint64(5'000'000'000) << 0U << (date(2107, 12, 31) | 23 << 11 | 59 << 5 | 29);
    QTest::newRow("no year") << std::numeric_limits<qint64>::max() - 2 << 0U
                             << (date(2107, 12, 31) | 23 << 11 | 59 << 5 | 29);
}

void TestZipWriter::times()
{
    QFETCH(qint64, seconds);
    QFETCH(quint32, nanoseconds);
    QTEST(CVZipRecords::dosTime(seconds, nanoseconds), "dos");
}

namespace {

QByteArray randomContents(QRandomGenerator &random)
{
    constexpr qsizetype sizes[] = {0, 1, 100, 16384, 65536, 70000, 600'000, 4194304, 4194305, 9'000'000};
    // Rarely the large ones.
    const qsizetype size = sizes[random.bounded(random.bounded(8) == 0 ? 10 : 7)];
    QByteArray data = noise(size);
    switch (random.bounded(4)) {
    case 0:
        return data;
    case 1:
        return QByteArray(size, '\0');
    case 2:
        for (char &c : data)
            c = static_cast<char>('a' + (c & 7));
        return data;
    default: // one half of each
        return data.first(size / 2) + QByteArray(size - size / 2, 'x');
    }
}

/// With names, sizes, contents, modes and times of all kinds.
void makeRandomTree(const QByteArray &folder, quint32 seed)
{
    QRandomGenerator random(seed);
    const QByteArrayList names{"a",          "two words", "\xc3\xa4", "n\xff\x81", "back\\s",
                               "new\nline",  "-p",        "@l",       "*",         "\xed\xa0\x80",
                               "esc\x1b[1m", "C:x",       "end ",     "end."};
    QByteArrayList folders{folder};
    const int count = random.bounded(40);
    for (int i = 0; i < count; ++i) {
        const QByteArray name = names[random.bounded(names.size())] + QByteArray::number(i);
        const QByteArray path = folders[random.bounded(folders.size())] + '/' + name;
        switch (random.bounded(8)) {
        case 0:
            ::mkdir(path.constData(), 0750);
            folders << path;
            break;
        case 1:
            (void)!::symlink(i % 2 ? "a" : "no/such", path.constData());
            break;
        default:
            writeTestFile(fileNameFromBytes(path), randomContents(random), random.bounded(2) ? 0644 : 0500);
        }
        const timespec times[2] = {{0, UTIME_OMIT},
                                   {random.bounded(2'000'000'000), random.bounded(1'000'000)}};
        ::utimensat(AT_FDCWD, path.constData(), times, AT_SYMLINK_NOFOLLOW);
    }
}

} // namespace

void TestZipWriter::randomTrees_data()
{
    QTest::addColumn<quint32>("seed");
    QTest::addColumn<QStringList>("switches");
    const QStringList all[] = {
        {"-mx=0"}, {"-mx=1"}, {"-mx=5"}, {"-mx=7"}, {"-mx=9"}, {"-mx=1", "-v65536b"}, {"-mx=5", "-psecret"}};
    for (quint32 seed = 0; seed < 21; ++seed)
        QTest::addRow("%u", seed) << seed << all[seed % std::size(all)];
}

void TestZipWriter::randomTrees()
{
    QFETCH(quint32, seed);
    QFETCH(QStringList, switches);
    makeRandomTree(QFile::encodeName(path("in")), seed);
    const ToolOutput made = pack(switches, path("out/x.zip"));
    QVERIFY2(made.status == 0 && made.text.isEmpty(), made.text.constData());
    const bool hasVolumes = switches.last().startsWith("-v");
    const QString first = path(hasVolumes ? "out/x.zip.001" : "out/x.zip");
    const ToolOutput unpacked =
        runTool("7za", {"x", "-y", "-psecret", "-o" + path("back"), first}, {}, QByteArray());
    QVERIFY2(unpacked.status == 0 && !unpacked.text.contains("WARN"), unpacked.text.constData());
    const TestTree before = treeFromDisk(path("in")), after = treeFromDisk(path("back"));
    QCOMPARE(treeDifferences(before, after), QStringList());
    for (const auto &[name, node] : before) {
        const TestNode &back = after.at(name);
        QVERIFY2(node.type == TestNode::Type::Symlink ||
                     (node.mode == back.mode && node.changedNs / 100 == back.changedNs / 100),
                 name.constData());
    }
    if (!hasVolumes && !before.empty()) {
        const ToolOutput tested = runTool("unzip", {"-tq", "-P", "secret", first}, {}, {});
        QVERIFY2(tested.status == 0, tested.text.constData());
        const ToolOutput python =
            runTool("python3",
                    {"-c",
                     "import sys,zipfile\nz=zipfile.ZipFile(sys.argv[1])\nz.setpassword(b'secret')\n"
                     "for i in z.infolist():\n  if i.file_size < 100000: z.read(i)\n",
                     first},
                    {}, {});
        QVERIFY2(python.status == 0, python.text.constData());
    }
}

void TestZipWriter::bytesDependOnTheInputAlone_data()
{
    QTest::addColumn<int>("level");
    for (const int level : {0, 1, 5, 9})
        QTest::addRow("level %d", level) << level;
}

void TestZipWriter::bytesDependOnTheInputAlone()
{
    QFETCH(int, level);
    makeRandomTree(QFile::encodeName(path("in")), 7);
    writeTestFile(path("in/large"), noise(5'000'000) + QByteArray(5'000'000, 'x'));
    const QString before = QDir::currentPath();
    QVERIFY(QDir::setCurrent(path("in")));
    for (const unsigned threads : {1U, 7U}) {
        CVZipVolumes volumes(QFile::encodeName(path("out/%1").arg(threads)).toStdString(), 0);
        CVZipWriter writer(volumes, {.level = level, .password = {}, .threads = threads},
                           [](int, const std::string &name) { QFAIL(name.c_str()); });
        QCOMPARE(writer.pack(), 0);
    }
    QVERIFY(QDir::setCurrent(before));
    QVERIFY(testFileContents(path("out/1")) == testFileContents(path("out/7")));

    // Volumes are the same bytes, cut.
    QCOMPARE(pack({u"-mx=%1"_s.arg(level), u"-v700001b"_s}, path("out/x.zip")).status, 0);
    QByteArray joined;
    for (const QString &name : folderNames(path("out")).filter(".zip."))
        joined += testFileContents(path("out/" + name));
    QVERIFY(joined == testFileContents(path("out/1")));
}

void TestZipWriter::limits_data()
{
    QTest::addColumn<int>("entries");
    QTest::addColumn<qint64>("size");
    QTest::newRow("65534 entries") << 65534 << qint64(0);
    QTest::newRow("65535 entries") << 65535 << qint64(0);
    QTest::newRow("4 GiB less one") << 1 << (qint64(1) << 32) - 1;
    QTest::newRow("more than 4 GiB") << 1 << (qint64(1) << 32) + 5;
}

void TestZipWriter::limits()
{
    QFETCH(int, entries);
    QFETCH(qint64, size);
    const QByteArray folder = QFile::encodeName(path("in")) + '/';
    for (int i = 0; i < entries; ++i) {
        const QByteArray name = folder + QByteArray::number(i);
        const int fd = ::open(name.constData(), O_WRONLY | O_CREAT, 0600);
        QVERIFY(::ftruncate(fd, size) == 0 && ::close(fd) == 0);
    }
    const ToolOutput made = pack({u"-mx=1"_s}, path("out/x.zip"));
    QVERIFY2(made.status == 0, made.text.constData());
    const ToolOutput listed = runTool("python3",
                                      {"-c",
                                       "import sys,zipfile\nz=zipfile.ZipFile(sys.argv[1]).infolist()\n"
                                       "print(len(z), z[-1].file_size)\n",
                                       path("out/x.zip")},
                                      {}, {});
    QCOMPARE(listed.text, QByteArray::number(entries) + ' ' + QByteArray::number(size) + '\n');
    const ToolOutput tested = runTool("7za", {"t", path("out/x.zip")}, {}, {});
    QVERIFY2(tested.status == 0 && tested.text.contains("Everything is Ok"), tested.text.constData());
}

void TestZipWriter::whatIsLeftOut()
{
    writeTestFile(path("in/file"), "x");
    QCOMPARE(::mkfifo(QFile::encodeName(path("in/pipe")).constData(), 0600), 0);
    const ToolOutput made = pack({u"-mx=5"_s}, path("out/x.zip"));
    QCOMPARE(made.status, 1);
    QVERIFY2(made.text.contains("WARNING: errno=95") && made.text.contains("./pipe"), made.text.constData());
    QCOMPARE(runTool("unzip", {"-Z1", path("out/x.zip")}, {}, {}).text, "file\n");
}

void TestZipWriter::ownFilesAreNotPacked()
{
    writeTestFile(path("in/z"), noise(3'000'000));
    QCOMPARE(pack({u"-mx=0"_s, u"-v1000000b"_s}, u"x.zip"_s).status, 0);
    QCOMPARE(folderNames(path("in")), (QStringList{"x.zip.001", "x.zip.002", "x.zip.003", "x.zip.004", "z"}));
    const ToolOutput listed = runTool("7za", {"l", "-ba", "-slt", path("in/x.zip.001")}, {}, {});
    QCOMPARE(listed.text.count("Path = "), 1);
}

void TestZipWriter::leavesOthersAlone_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("half of one") << "x.zip.tmp";
    QTest::newRow("volume") << "x.zip.002.tmp";
}

void TestZipWriter::leavesOthersAlone()
{
    QFETCH(QString, name);
    writeTestFile(path("in/z"), noise(300'000));
    writeTestFile(path("out/" + name), "not ours");
    QStringList switches{u"-mx=5"_s};
    if (name.contains(".002"))
        switches << u"-v100000b"_s;
    const ToolOutput made = pack(switches, path("out/x.zip"));
    QCOMPARE(made.status, 2);
    QVERIFY2(made.text.contains("errno=17 "), made.text.constData());
    QCOMPARE(folderNames(path("out")), QStringList{name});
    QCOMPARE(testFileContents(path("out/" + name)), "not ours");
}

/// What the walk saw and what is read are apart; the archive has to be whole all the same.
void TestZipWriter::changesBetweenWalkAndReading()
{
    const QByteArray folder = QFile::encodeName(path("in")) + '/';
    const QByteArrayList files{folder + "0large", folder + "1small", folder + "2other"};
    for (const QByteArray &file : files)
        writeTestFile(fileNameFromBytes(file), noise(6'000'000));
    std::jthread changer([&](const std::stop_token &stop) {
        for (off_t size = 0; !stop.stop_requested(); size = (size + 1'234'567) % 9'000'000)
            for (const QByteArray &file : files)
                (void)!::truncate(file.constData(), size);
    });
    for (int round = 0; round < 20; ++round) {
        const QString archive = path(u"out/%1.zip"_s.arg(round));
        QCOMPARE(pack({u"-mx=1"_s}, archive).status, 0);
        const ToolOutput tested = runTool("7za", {"t", archive}, {}, {});
        QVERIFY2(tested.status == 0 && tested.text.contains("Everything is Ok"), tested.text.constData());
    }
}

QTEST_GUILESS_MAIN(TestZipWriter)
#include "tst_zip_writer.moc"
