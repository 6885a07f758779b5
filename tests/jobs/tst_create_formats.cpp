#include "archives/CVToolPaths.h"
#include "engine/model/CVSettings.h"
#include "engine/model/CVWorkDirectoryManager.h"
#include "jobs/CreateJob.h"
#include "support/CreateSupport.h"
#include "support/TestTree.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"
#include "util/LXRemoveTree.h"

#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <cstdlib>
#include <map>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

// Every format at every level, with a password and in volumes where it has them, over a tree with all that
// file systems allow: made by the job, then unpacked by programs of others and compared with the source.
// Built twice: the rows that take minutes (10,000 files and one beyond 4 GiB) are a program of their own.

namespace {

/// A program that unpacks, and what it can bring back of what is in the archive.
struct Reader
{
    const char *program;
    bool whole;                                  ///< volumes, and passwords given on standard input
    enum { NoModes, FileModes, AllModes } modes; ///< some let their owner in everywhere
    bool names;                                  ///< as bytes; some rewrite names that are not UTF-8
    qint64 timeStepNs;                           ///< times are exact to this
    /// What it cannot unpack, right as it may be in the archive; null when there is nothing.
    bool (*cannot)(const QByteArray &path) = nullptr;
};

bool isNotUtf8(const QByteArray &path)
{
    return !path.isValidUtf8();
}

/// unar makes names longer on the way and loses hard links whose names it rewrote.
bool isBeyondUnar(const QByteArray &path)
{
    return path.size() == 255 || path == "plain" || path == "second name";
}

constexpr qint64 second = 1'000'000'000;
constexpr Reader sevenZip{"7za", true, Reader::FileModes, true, 1};
constexpr Reader bsdtar{"bsdtar", false, Reader::AllModes, true, 1};
constexpr Reader bsdtarForZip{"bsdtar", false, Reader::AllModes, true, 2 * second}; // the times of DOS
constexpr Reader bsdtarFor7z{"bsdtar", false, Reader::AllModes, false, 1};          // names through UTF-16
constexpr Reader bsdtarForXar{"bsdtar", false, Reader::AllModes, true, 1, isNotUtf8};
constexpr Reader xar{"xar", false, Reader::NoModes, true, 1};
constexpr Reader unar{"unar", false, Reader::AllModes, false, second, isBeyondUnar};

/// What a format can hold. Contents, names as bytes, empty folders and symbolic links: all of them.
struct Format
{
    const char *extension;
    std::vector<int> levels; ///< one for those that have none
    bool password;
    bool volumes;
    qint64 timeStepNs; ///< modification times are exact to this
    unsigned modeBits; ///< the bits of a mode that come back
    bool hardLinks;    ///< two names stay one file
    std::vector<Reader> readers;
};

/// With all that some readers do not take above everything else, they would not take anything.
const QString topFolder = u"h \"q\" 'a' $(touch bad) `touch bad` \\ \n *?[x] -"_s;

const std::vector<Format> &formats()
{
    // zip and 7z hold all bits of modes, but programs do not bring back set-user-id and its like.
    static const std::vector<Format> all{
        {"zip", {0, 1, 5, 9}, true, true, 100, 0777, false, {sevenZip, bsdtarForZip, unar}},
        {"7z", {0, 1, 5, 9}, true, true, 100, 0777, false, {sevenZip, bsdtarFor7z, unar}},
        {"tar", {5}, false, false, second, 07777, true, {bsdtar}},
        {"tar.gz", {1, 5, 9}, false, false, second, 07777, true, {bsdtar, unar}},
        {"tgz", {5}, false, false, second, 07777, true, {bsdtar}},
        {"tar.bz2", {1, 5, 9}, false, false, second, 07777, true, {bsdtar, unar}},
        {"tbz", {5}, false, false, second, 07777, true, {bsdtar}},
        {"tar.Z", {5}, false, false, second, 07777, true, {bsdtar, unar}},
        {"tar.xz", {1, 5, 9}, false, false, second, 07777, true, {bsdtar}},
        {"corvane", {5}, false, false, second, 07777, true, {xar, bsdtarForXar}},
    };
    return all;
}

void setTime(const QByteArray &path, qint64 seconds, long nanoseconds)
{
    const timespec time{seconds, nanoseconds};
    const timespec times[] = {time, time};
    QCOMPARE(::utimensat(AT_FDCWD, path.constData(), times, AT_SYMLINK_NOFOLLOW), 0);
}

/// The hostile names, many files, hard links, odd modes and times.
void makeTree(const QString &folder, int files, qint64 sparseBytes)
{
    QVERIFY(makeHostileTree(folder));
    const QByteArray root = bytesOfFileName(folder);
    const auto at = [&](const QByteArray &name) -> QByteArray { return root + '/' + name; };
    QCOMPARE(::mkdir(at("many").constData(), 0755), 0);
    for (int i = 0; i < files; ++i) {
        const QByteArray sub = at("many/" + QByteArray::number(i / 100));
        if (i % 100 == 0)
            QCOMPARE(::mkdir(sub.constData(), 0755), 0);
        QVERIFY(writeTestFile(fileNameFromBytes(sub) + u"/file %1"_s.arg(i),
                              noise(i % 977) + QByteArray(i % 3001, 'x')));
    }
    QCOMPARE(::link(at("plain").constData(), at("second name").constData()), 0);
    for (const auto &[name, mode] : {std::pair("set user id", 04755), std::pair("locked", 0),
                                     std::pair("write only", 0222), std::pair("all", 0777)})
        QVERIFY(writeTestFile(fileNameFromBytes(at(name)), name, static_cast<mode_t>(mode)));
    QCOMPARE(::chmod(at("empty").constData(), 01777), 0);
    if (sparseBytes > 0) {
        QVERIFY(writeTestFile(fileNameFromBytes(at("sparse")), "begin"));
        QCOMPARE(::truncate(at("sparse").constData(), sparseBytes), 0);
    }
    setTime(at("plain"), 1'000'000'001, 123'456'789);
    setTime(at("all"), 400'000'000, 999'999'900);
    setTime(at("link"), 1'234'567'891, 0);
    setTime(at("empty"), 1'111'111'111, 500'000'000);
    setTime(at("d\xfe"), 1'222'222'222, 0);
}

/// Contents of files that are missing in the other tree, whatever their names.
QStringList contentDifferences(const TestTree &expected, const TestTree &actual)
{
    std::map<QByteArray, std::pair<int, QByteArray>> balance;
    for (const auto &[path, node] : expected)
        if (node.type == TestNode::Type::File)
            balance[node.sha256] = {balance[node.sha256].first + 1, path};
    for (const auto &[path, node] : actual)
        if (node.type == TestNode::Type::File)
            balance[node.sha256] = {balance[node.sha256].first - 1, path};
    QStringList found;
    for (const auto &[sha256, entry] : balance)
        if (entry.first > 0)
            found << u"%1: its contents are there %2 times too few"_s.arg(QString::fromUtf8(entry.second))
                         .arg(entry.first);
    return found;
}

} // namespace

class TestCreateFormats : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();
    void agrees_data();
    void agrees();

private:
    QString at(const QString &name) const { return m_folder->path() + u'/' + name; }
    QString source() const { return m_source->path() + u'/' + topFolder; }
    /// Every difference between the source and what the reader makes of the archive.
    QStringList differences(const Format &format, const Reader &reader, const QString &archive,
                            const QString &password);

    std::unique_ptr<QTemporaryDir> m_source;
    std::unique_ptr<QTemporaryDir> m_folder;
    TestTree m_tree;
};

void TestCreateFormats::initTestCase()
{
    LXMainThread::install();
    ::umask(0); // it is not what is looked at
    m_source = std::make_unique<QTemporaryDir>();
#ifdef CORVANE_SLOW_ROWS
    makeTree(source(), 10'000, (qint64(4) << 30) + 12345);
#else
    makeTree(source(), 300, 0);
#endif
    m_tree = treeFromDisk(source());
    QVERIFY(m_tree.size() > 300);
}

void TestCreateFormats::cleanupTestCase()
{
    QVERIFY(removeTree(m_source->path()));
}

void TestCreateFormats::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    CVSettings::setStore(std::make_shared<LXSettingsStore>(at(u"settings/corvane.conf"_s)));
    QVERIFY(QDir().mkdir(at(u"out"_s)));
    CVSettings::setValue(CVSettingsKey::extractDestination,
                         static_cast<int>(CVExtractDestination::DefaultFolder));
    CVSettings::setValue(CVSettingsKey::extractDefaultDestination, at(u"out"_s));
}

void TestCreateFormats::cleanup()
{
    CVSettings::setStore(nullptr);
    QVERIFY(removeTree(m_folder->path()));
}

void TestCreateFormats::agrees_data()
{
    QTest::addColumn<int>("format");
    QTest::addColumn<int>("level");
    QTest::addColumn<QString>("password");
    QTest::addColumn<double>("chunkSize");
    for (int i = 0; i < static_cast<int>(formats().size()); ++i) {
        const Format &format = formats()[static_cast<std::size_t>(i)];
        for (const int level : format.levels) {
#ifdef CORVANE_SLOW_ROWS
            // What 4 GiB of holes cost at the other levels is the compressor's time and nothing else.
            if (level != (format.levels.size() > 1 ? 1 : 5) || format.extension[1] == 'g' ||
                format.extension[1] == 'b')
                continue; // tgz and tbz are other names for tar.gz and tar.bz2
            constexpr double volume = 1'000'000;
#else
            constexpr double volume = 100'000;
#endif
            for (const bool password : {false, true}) {
                for (const bool volumes : {false, true}) {
                    if ((password && !format.password) || (volumes && !format.volumes))
                        continue;
                    QTest::addRow("%s level %d%s%s", format.extension, level, password ? " password" : "",
                                  volumes ? " volumes" : "")
                        << i << level
                        << (password ? u"p w\"$`\\ü"_s.chopped(format.extension[0] == 'z') : QString())
                        << (volumes ? volume : 0.0);
                }
            }
        }
    }
}

QStringList TestCreateFormats::differences(const Format &format, const Reader &reader, const QString &archive,
                                           const QString &password)
{
    const QString folder = at(u"back"_s);
    (void)removeTree(folder);
    QDir().mkpath(folder);
    const QByteArray program(reader.program);
    TestTree expected = m_tree;
    if (reader.cannot)
        std::erase_if(expected, [&](const auto &item) { return reader.cannot(item.first); });
    const QStringList arguments =
        program == "7za"      ? QStringList{u"x"_s, u"-y"_s, u"-snld"_s, u"-o"_s + folder, archive}
        : program == "xar"    ? QStringList{u"-x"_s, u"-f"_s, archive}
        : program == "bsdtar" ? QStringList{u"-xpf"_s, archive, u"-C"_s, folder}
                              : QStringList{u"-q"_s, u"-f"_s, u"-D"_s, u"-o"_s, folder, archive};
    const ToolOutput output = runTool(program == "xar" ? QString(CVToolPaths::resourcesFolder() + u"/xar"_s)
                                                       : QString::fromLatin1(program),
                                      arguments, folder, password.toUtf8() + '\n');
    QStringList found;
    if (output.status != 0 && !reader.cannot)
        found << u"%1 ended with %2: %3"_s.arg(reader.program)
                     .arg(output.status)
                     .arg(QString::fromUtf8(output.text.right(500)));
    if (!reader.names)
        return found + contentDifferences(expected, treeFromDisk(folder));
    TestTree tree = treeFromDisk(folder + u'/' + topFolder);
    if (reader.cannot)
        std::erase_if(tree, [&](const auto &item) { return reader.cannot(item.first); });
    found += treeDifferences(expected, tree);
    for (const auto &[path, node] : expected) {
        const auto it = tree.find(path);
        if (it == tree.end())
            continue;
        const bool hasMode = (node.type == TestNode::Type::File && reader.modes != Reader::NoModes) ||
                             (node.type == TestNode::Type::Directory && reader.modes == Reader::AllModes);
        if (const unsigned bits = hasMode ? format.modeBits : 0;
            (it->second.mode & bits) != (node.mode & bits))
            found << u"%1: mode %2, not %3"_s.arg(QString::fromUtf8(path))
                         .arg(it->second.mode, 0, 8)
                         .arg(node.mode, 0, 8);
        if (std::abs(it->second.changedNs - node.changedNs) >= std::max(format.timeStepNs, reader.timeStepNs))
            found << u"%1: changed at %2, not %3"_s.arg(QString::fromUtf8(path))
                         .arg(it->second.changedNs)
                         .arg(node.changedNs);
    }
    if (format.hardLinks && tree.count("plain") && tree.count("second name") &&
        tree.at("plain").inode != tree.at("second name").inode)
        found << u"hard link became two files"_s;
    return found;
}

void TestCreateFormats::agrees()
{
    QFETCH(int, format);
    QFETCH(int, level);
    QFETCH(QString, password);
    QFETCH(double, chunkSize);
    const Format &wanted = formats()[static_cast<std::size_t>(format)];

    CreateJob job;
    job.recorder->inputs = {source()};
    job.data->setArchiveType(QString::fromLatin1(wanted.extension));
    job.data->setCompressionLevel(level);
    job.data->setChunkSize(chunkSize);
    if (!password.isEmpty()) {
        CVSettings::setValue(CVSettingsKey::shouldEncrypt, true);
        job.data->setPassword(password);
        job.data->setPasswordConfirmation(password);
    }
    job.run();
    QVERIFY2(job.recorder->ends() == QStringList{chunkSize > 0 ? u"completed many"_s : u"completed"_s},
             qPrintable(job.recorder->error().description + job.recorder->error().reason +
                        job.recorder->error().suggestion));
    QCOMPARE(job.recorder->skipped(), QStringList());
    QCOMPARE(CVWorkDirectoryManager::workDirs(), QStringList());
    QString archive = job.recorder->results().first();
    if (chunkSize > 0) {
        const QStringList volumes = folderNames(archive);
        QVERIFY2(volumes.size() > 1, qPrintable(volumes.join(u' ')));
        archive += u'/' + volumes.first();
    }

    const ToolOutput test = runTool(u"7z"_s, {u"t"_s, archive}, {}, password.toUtf8() + '\n');
    QVERIFY2(test.status == 0, test.text.constData());
    for (const Reader &reader : wanted.readers) {
        if ((!password.isEmpty() || chunkSize > 0) && !reader.whole)
            continue;
        // One level is enough for those that come second.
        if (&reader != &wanted.readers.front() && level != 5)
            continue;
        const QStringList found = differences(wanted, reader, archive, password);
        QVERIFY2(found.isEmpty(),
                 qPrintable(QString::fromLatin1(reader.program) + u": "_s + found.mid(0, 40).join(u'\n')));
    }
}

int main(int argc, char **argv)
{
    // A row with 4 GiB may take longer than the five minutes that a test function has; ctest has a limit,
    // too.
    qputenv("QTEST_FUNCTION_TIMEOUT", "3600000");
    QCoreApplication application(argc, argv);
    TestCreateFormats test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_create_formats.moc"
