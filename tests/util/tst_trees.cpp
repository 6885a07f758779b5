#include "util/LXCopyFile.h"
#include "util/LXCopyTree.h"
#include "util/LXRemoveTree.h"
#include "util/unique_destination.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <functional>
#include <set>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr uid_t nobody = 65534;

bool writeFile(const QString &path, const QByteArray &data = "data")
{
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly) &&
           file.write(data) == data.size();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

int changeMode(const QString &path, mode_t mode)
{
    return ::chmod(QFile::encodeName(path).constData(), mode);
}

// Modes bind nobody who is root, so what is about them runs in a child that is not.
int asOrdinaryUser(const std::function<int()> &work)
{
    const pid_t child = ::fork();
    if (child == 0) {
        if (::geteuid() == 0 && (::setgid(nobody) != 0 || ::setuid(nobody) != 0))
            ::_exit(99);
        ::_exit(work());
    }
    int status = -1;
    return ::waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

class TestTrees : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void removesManyKinds();
    void removesWhatIsClosedToItsOwner();
    void removesVeryDeepFolders();
    void removeReportsAndGoesOn();
    void removeStops();
    void uniqueNames_data();
    void uniqueNames();
    void movesNeverReplace();
    void movesFoldersThatCannotBeWritten();
    void movesAcrossFileSystems();
    void failedMoveLeavesTheSource();
    void copiesFilesWithTheirHoles_data();
    void copiesFilesWithTheirHoles();
    void copiesWhatHasNoSize();
    void copiesStop();

private:
    QString at(const QString &name) const { return m_dir->filePath(name); }

    std::unique_ptr<QTemporaryDir> m_dir;
};

void TestTrees::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
}

void TestTrees::removesManyKinds()
{
    QVERIFY(writeFile(at(u"outside/keep"_s)));
    QVERIFY(writeFile(at(u"t/a/b/c/f"_s)));
    QVERIFY(writeFile(at(u"t/x"_s)));
    QVERIFY(QDir().mkpath(at(u"t/empty"_s)));
    QVERIFY(QFile::link(at(u"outside"_s), at(u"t/a/link"_s)));
    QCOMPARE(::mkfifo(QFile::encodeName(at(u"t/fifo"_s)).constData(), 0600), 0);
    QVERIFY(removeTree(at(u"t/"_s)));
    QVERIFY(!QFile::exists(at(u"t"_s)));

    // A link is removed itself, also with a slash after its name.
    QVERIFY(QFile::link(at(u"outside"_s), at(u"link"_s)));
    QVERIFY(removeTree(at(u"link/"_s)));
    QVERIFY(!QFileInfo(at(u"link"_s)).isSymbolicLink());
    QCOMPARE(readFile(at(u"outside/keep"_s)), QByteArray("data"));
    QCOMPARE(removeTree(at(u"t"_s)).error().code, ENOENT);
}

void TestTrees::removesWhatIsClosedToItsOwner()
{
    QCOMPARE(changeMode(m_dir->path(), 0777), 0);
    const QString top = at(u"t"_s);
    const int result = asOrdinaryUser([&] {
        if (!writeFile(top + u"/a/b/f"_s) || !writeFile(top + u"/c/f"_s))
            return 1;
        if (changeMode(top + u"/a/b"_s, 0) != 0 || changeMode(top + u"/a"_s, 0111) != 0 ||
            changeMode(top + u"/c"_s, 0555) != 0 || changeMode(top, 0) != 0)
            return 2;
        return removeTree(top) ? 0 : 3;
    });
    if (result == 99)
        QSKIP("cannot become an ordinary user here");
    QCOMPARE(result, 0);
    QVERIFY(!QFile::exists(top));
}

void TestTrees::removesVeryDeepFolders()
{
    // Deeper than a path can be long and than a process can have files open. In memory where that is
    // possible: some disks take milliseconds for every folder removed.
    constexpr int depth = 3000;
    const bool inMemory = ::access("/dev/shm", W_OK) == 0;
    QTemporaryDir dir((inMemory ? u"/dev/shm"_s : QDir::tempPath()) + u"/corvane-test-XXXXXX"_s);
    const QString top = dir.filePath(u"t"_s);
    QVERIFY(QDir().mkpath(top));
    int folder = ::open(QFile::encodeName(top).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int i = 0; i < depth; ++i) {
        QCOMPARE(::mkdirat(folder, "d", 0700), 0);
        const int next = ::openat(folder, "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(folder);
        folder = next;
    }
    ::close(folder);
    QVERIFY(removeTree(top));
    QVERIFY(!QFile::exists(top));
}

void TestTrees::removeReportsAndGoesOn()
{
    if (::geteuid() != 0)
        QSKIP("needs two users");
    // A folder of somebody else inside ours cannot be emptied; the rest still goes.
    QVERIFY(writeFile(at(u"t/theirs/f"_s)));
    QVERIFY(writeFile(at(u"t/ours/f"_s)));
    for (const QString &path : {at(u"t"_s), at(u"t/ours"_s), at(u"t/ours/f"_s)})
        QCOMPARE(::chown(QFile::encodeName(path).constData(), nobody, nobody), 0);
    QCOMPARE(changeMode(m_dir->path(), 0777), 0);
    const int result = asOrdinaryUser([&] { return removeTree(at(u"t"_s)) ? 0 : 7; });
    QCOMPARE(result, 7);
    QVERIFY(!QFile::exists(at(u"t/ours"_s)));
    QVERIFY(QFile::exists(at(u"t/theirs/f"_s)));
}

void TestTrees::removeStops()
{
    QVERIFY(writeFile(at(u"t/a"_s)));
    std::stop_source source;
    source.request_stop();
    QCOMPARE(removeTree(at(u"t"_s), source.get_token()).error().code, ECANCELED);
    QVERIFY(QFile::exists(at(u"t/a"_s)));
}

void TestTrees::uniqueNames_data()
{
    QTest::addColumn<QStringList>("existing");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("unique");
    QTest::newRow("free") << QStringList{} << u"photos.zip"_s << u"photos.zip"_s;
    QTest::newRow("taken") << QStringList{u"photos.zip"_s} << u"photos.zip"_s << u"photos 2.zip"_s;
    QTest::newRow("taken twice") << QStringList{u"photos.zip"_s, u"photos 2.zip"_s} << u"photos.zip"_s
                                 << u"photos 3.zip"_s;
    QTest::newRow("gap") << QStringList{u"a"_s, u"a 3"_s} << u"a"_s << u"a 2"_s;
    QTest::newRow("only the last extension")
        << QStringList{u"a.tar.gz"_s} << u"a.tar.gz"_s << u"a.tar 2.gz"_s;
    QTest::newRow("hidden") << QStringList{u".profile"_s} << u".profile"_s << u".profile 2"_s;
    QTest::newRow("dot at the end") << QStringList{u"a."_s} << u"a."_s << u"a. 2"_s;
    const QString longest = QString(251, u'x') + u".zip"_s;
    QTest::newRow("no room for a counter")
        << QStringList{longest} << longest << QString(249, u'x') + u" 2.zip"_s;
}

void TestTrees::uniqueNames()
{
    QFETCH(QStringList, existing);
    QFETCH(QString, name);
    QFETCH(QString, unique);
    for (const QString &taken : existing)
        QVERIFY(QFile::link(u"/nowhere"_s, at(taken)));
    QCOMPARE(findUniqueDestinationForFile(name, m_dir->path()), at(unique));
    QTemporaryDir work;
    for (const bool folder : {false, true}) {
        const QString source = work.filePath(u"item"_s);
        QVERIFY(folder ? QDir().mkpath(source) : writeFile(source));
        const auto moved = moveToUniqueDestination(source, m_dir->path(), name);
        QVERIFY(moved);
        QCOMPARE(moved.value(), at(unique));
        QVERIFY(QFileInfo::exists(at(unique)) && !QFileInfo::exists(source));
        QVERIFY(removeTree(at(unique)));
    }
}

void TestTrees::movesNeverReplace()
{
    QTemporaryDir work;
    constexpr int each = 40;
    for (int i = 0; i < 3 * each; ++i)
        QVERIFY(writeFile(work.filePath(QString::number(i)), QByteArray::number(i)));
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < 3; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < each; ++i)
                    (void)moveToUniqueDestination(work.filePath(QString::number(t * each + i)), m_dir->path(),
                                                  u"same.txt"_s);
            });
        }
    }
    std::set<QByteArray> contents;
    for (const QString &name : QDir(m_dir->path()).entryList(QDir::Files))
        contents.insert(readFile(at(name)));
    QCOMPARE(contents.size(), std::size_t(3 * each));
}

void TestTrees::movesFoldersThatCannotBeWritten()
{
    QCOMPARE(changeMode(m_dir->path(), 0777), 0);
    const QString result = at(u"out/d"_s);
    const int exit = asOrdinaryUser([&] {
        if (!writeFile(at(u"work/d/f"_s)) || !QDir().mkpath(at(u"out"_s)) ||
            changeMode(at(u"work/d"_s), 0555) != 0)
            return 1;
        return moveToUniqueDestination(at(u"work/d"_s), at(u"out"_s), u"d"_s) ? 0 : 2;
    });
    if (exit == 99)
        QSKIP("cannot become an ordinary user here");
    QCOMPARE(exit, 0);
    QCOMPARE(readFile(result + u"/f"_s), QByteArray("data"));
    struct stat facts;
    QCOMPARE(::stat(QFile::encodeName(result).constData(), &facts), 0);
    QCOMPARE(facts.st_mode & 07777, mode_t(0555));
    changeMode(result, 0755);
}

void TestTrees::movesAcrossFileSystems()
{
    struct stat here;
    struct stat there;
    if (::stat("/dev/shm", &there) != 0 || ::access("/dev/shm", W_OK) != 0 ||
        ::stat(QFile::encodeName(m_dir->path()).constData(), &here) != 0 || here.st_dev == there.st_dev)
        QSKIP("no second file system here");
    QTemporaryDir other(u"/dev/shm/corvane-test-XXXXXX"_s);
    const QString source = other.filePath(u"d"_s);
    QVERIFY(writeFile(source + u"/a/f"_s, QByteArray(100'000, 'x')));
    QVERIFY(QFile::link(u"a/f"_s, source + u"/link"_s));
    QCOMPARE(changeMode(source + u"/a"_s, 0750), 0);
    const auto moved = moveToUniqueDestination(source, m_dir->path(), u"d"_s);
    QVERIFY(moved);
    QCOMPARE(readFile(at(u"d/a/f"_s)).size(), 100'000);
    QCOMPARE(QFile::symLinkTarget(at(u"d/link"_s)), at(u"d/a/f"_s));
    QVERIFY(!QFile::exists(source));
    QCOMPARE(QDir(m_dir->path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList{u"d"_s});
}

void TestTrees::failedMoveLeavesTheSource()
{
    QVERIFY(writeFile(at(u"f"_s)));
    const auto moved = moveToUniqueDestination(at(u"f"_s), at(u"gone"_s), u"f"_s);
    QVERIFY(!moved);
    QCOMPARE(moved.error().code, ENOENT);
    QCOMPARE(readFile(at(u"f"_s)), QByteArray("data"));
    QVERIFY(!moveToUniqueDestination(at(u"none"_s), m_dir->path(), u"f"_s));
}

void TestTrees::copiesFilesWithTheirHoles_data()
{
    QTest::addColumn<bool>("otherFileSystem");
    QTest::newRow("same file system") << false;
    QTest::newRow("another one") << true;
}

void TestTrees::copiesFilesWithTheirHoles()
{
    QFETCH(bool, otherFileSystem);
    const QString folder = otherFileSystem ? u"/dev/shm"_s : m_dir->path();
    if (::access(folder.toUtf8().constData(), W_OK) != 0)
        QSKIP("no second file system here");
    constexpr qint64 size = qint64(3) << 30;
    QFile file(at(u"sparse"_s));
    QVERIFY(file.open(QIODevice::ReadWrite));
    for (const qint64 place : {qint64(0), qint64(1) << 20, (qint64(2) << 30) + 12'345})
        QVERIFY(file.seek(place) && file.write(QByteArray(70'000, 'x')) == 70'000);
    QVERIFY(file.resize(size)); // and a hole at the end
    file.close();
    QCOMPARE(changeMode(at(u"sparse"_s), 0640), 0);
    const timespec times[] = {{1'000'000'000, 5}, {1'000'000'000, 5}};
    QCOMPARE(::utimensat(AT_FDCWD, QFile::encodeName(at(u"sparse"_s)).constData(), times, 0), 0);

    QTemporaryDir target(folder + u"/corvane-test-XXXXXX"_s);
    const QString copy = target.filePath(u"copy"_s);
    const auto outcome = copyFile(QFile::encodeName(at(u"sparse"_s)), AT_FDCWD, QFile::encodeName(copy));
    QCOMPARE(outcome.failure, 0);
    QVERIFY(!outcome.changed);
    struct stat facts;
    QCOMPARE(::stat(QFile::encodeName(copy).constData(), &facts), 0);
    QCOMPARE(facts.st_size, size);
    QCOMPARE(facts.st_mode & 07777, 0640u);
    QCOMPARE(facts.st_mtim.tv_sec, 1'000'000'000);
    QVERIFY(facts.st_blocks * 512 < 2 << 20);
    QFile copied(copy);
    QVERIFY(copied.open(QIODevice::ReadOnly));
    for (const qint64 place : {qint64(0), qint64(1) << 20, (qint64(2) << 30) + 12'345}) {
        QVERIFY(copied.seek(place));
        QCOMPARE(copied.read(70'001), QByteArray(70'000, 'x') + '\0');
    }
    QCOMPARE(copyFile(QFile::encodeName(at(u"sparse"_s)), AT_FDCWD, QFile::encodeName(copy)).failure, EEXIST);
    QVERIFY(copied.exists());
}

// The kernel's own files have contents, but say that they have none.
void TestTrees::copiesWhatHasNoSize()
{
    const QByteArray copy = QFile::encodeName(at(u"copy"_s));
    QCOMPARE(copyFile("/proc/version", AT_FDCWD, copy).failure, 0);
    QVERIFY(readFile(at(u"copy"_s)).contains("Linux"));
}

void TestTrees::copiesStop()
{
    QVERIFY(writeFile(at(u"file"_s)));
    std::stop_source stop;
    stop.request_stop();
    const QByteArray copy = QFile::encodeName(at(u"copy"_s));
    QCOMPARE(copyFile(QFile::encodeName(at(u"file"_s)), AT_FDCWD, copy, stop.get_token()).failure, ECANCELED);
    QVERIFY(!QFile::exists(at(u"copy"_s)));
}

QTEST_GUILESS_MAIN(TestTrees)
#include "tst_trees.moc"
