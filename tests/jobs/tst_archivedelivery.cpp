#include "jobs/CVArchiveDelivery.h"
#include "jobs/CreateJob.h"
#include "util/LXFileName.h"
#include "util/LXRemoveTree.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

/// What a person cannot replace, not even root. False where the file system knows no such mark.
bool setImmutable(const QString &path, bool immutable)
{
    const int fd = ::open(bytesOfFileName(path).constData(), O_RDONLY | O_CLOEXEC);
    int flags = 0;
    const bool done = fd >= 0 && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 &&
                      (flags = immutable ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL,
                       ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0);
    ::close(fd);
    return done;
}

} // namespace

class TestArchiveDelivery : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void files_data();
    void files();
    void volumes_data();
    void volumes();
    void keepsWhatCannotBeReplaced_data();
    void keepsWhatCannotBeReplaced();
    void reportsWhatCannotBeMoved();
    void reportsWhatCannotBeListed();
    void namesOfFolders_data();
    void namesOfFolders();

private:
    QString at(const QString &name) const { return m_root->filePath(name); }

    std::unique_ptr<QTemporaryDir> m_root;
};

void TestArchiveDelivery::init()
{
    m_root = std::make_unique<QTemporaryDir>();
    QVERIFY(QDir(m_root->path()).mkdir(u"staging"_s));
}

void TestArchiveDelivery::files_data()
{
    QTest::addColumn<QString>("there"); // before; a folder ends in "/"
    QTest::addColumn<bool>("mayReplace");
    QTest::addColumn<bool>("delivered");
    QTest::newRow("free") << QString() << false << true;
    QTest::newRow("gone meanwhile") << QString() << true << true;
    QTest::newRow("taken") << u"a.zip"_s << false << false;
    QTest::newRow("replaced") << u"a.zip"_s << true << true;
    QTest::newRow("folder taken") << u"a.zip/in/side/"_s << false << false;
    QTest::newRow("folder replaced") << u"a.zip/in/side/"_s << true << true;
}

void TestArchiveDelivery::files()
{
    QFETCH(QString, there);
    QFETCH(bool, mayReplace);
    QFETCH(bool, delivered);
    const CVArchiveDelivery delivery(at(u"staging"_s), at(u"a.zip"_s));
    QVERIFY(writeFile(delivery.stagedPath(), "new"));
    if (there.endsWith(u'/'))
        QVERIFY(QDir(m_root->path()).mkpath(there));
    else if (!there.isEmpty())
        QVERIFY(writeFile(at(there), "old"));
    const auto result = delivery.deliverFile(mayReplace);
    if (delivered) {
        QCOMPARE(std::get<QString>(result), at(u"a.zip"_s));
        QCOMPARE(readFile(at(u"a.zip"_s)), "new");
        QCOMPARE(namesIn(at(u"staging"_s)), QStringList());
    } else {
        QCOMPARE(std::get<CVArchiveDelivery::Exists>(result).path, at(u"a.zip"_s));
        QVERIFY(QFileInfo::exists(at(there)));
        QCOMPARE(readFile(delivery.stagedPath()), "new");
    }
}

void TestArchiveDelivery::volumes_data()
{
    QTest::addColumn<QStringList>("there");
    QTest::addColumn<bool>("mayReplace");
    QTest::addColumn<QString>("exists");     // what is in the way
    QTest::addColumn<QStringList>("result"); // beside the new folder
    const QStringList alike{u"a.7z.001.txt"_s, u"a.7z.01"_s, u"aX7z.001"_s, u"b.a.7z.001"_s};
    QTest::newRow("free") << QStringList() << false << QString() << QStringList();
    QTest::newRow("alike") << alike << false << QString() << alike;
    QTest::newRow("alike, replacing") << alike << true << QString() << alike;
    QTest::newRow("older set") << QStringList{u"a.7z.002"_s, u"a.7z.1000"_s} << false << u"a.7z.002"_s
                               << QStringList();
    QTest::newRow("file and older set")
        << QStringList{u"a.7z.001"_s, u"a.7z"_s} << false << u"a.7z"_s << QStringList();
    QTest::newRow("replaced") << (QStringList{u"a.7z.001"_s, u"a.7z.1000"_s, u"a.7z"_s} + alike) << true
                              << QString() << alike;
}

void TestArchiveDelivery::volumes()
{
    QFETCH(QStringList, there);
    QFETCH(bool, mayReplace);
    QFETCH(QString, exists);
    QFETCH(QStringList, result);
    const QStringList set{u"a.7z.001"_s, u"a.7z.002"_s, u"a.7z.1000"_s};
    for (const QString &name : set)
        QVERIFY(writeFile(at(u"staging/"_s + name), "new"));
    for (const QString &name : std::as_const(there))
        QVERIFY(writeFile(at(name), "old"));
    const CVArchiveDelivery delivery(at(u"staging"_s), at(u"a.7z"_s));
    QVERIFY(delivery.hasStagedVolumes());
    const auto outcome = delivery.deliverVolumes(mayReplace);
    if (!exists.isEmpty()) {
        QCOMPARE(std::get<CVArchiveDelivery::Exists>(outcome).path, at(exists));
        QCOMPARE(namesIn(at(u"staging"_s)), set);
        for (const QString &name : std::as_const(there))
            QCOMPARE(readFile(at(name)), "old");
        return;
    }
    QCOMPARE(std::get<QString>(outcome), at(u"a"_s));
    QCOMPARE(namesIn(at(u"a"_s)), set);
    QStringList expected = result + QStringList{u"a"_s, u"staging"_s};
    QStringList found = namesIn(m_root->path());
    expected.sort();
    found.sort();
    QCOMPARE(found, expected);
    QCOMPARE(namesIn(at(u"staging"_s)), QStringList());
}

void TestArchiveDelivery::keepsWhatCannotBeReplaced_data()
{
    QTest::addColumn<bool>("volumes");
    QTest::newRow("file") << false;
    QTest::newRow("volumes") << true;
}

void TestArchiveDelivery::keepsWhatCannotBeReplaced()
{
    QFETCH(bool, volumes);
    const QString archive = at(u"a.7z"_s);
    const QStringList old =
        volumes ? QStringList{archive + u".001"_s, archive + u".002"_s} : QStringList{archive};
    const QString stuck = old.last();
    for (const QString &path : old)
        QVERIFY(writeFile(path, "old"));
    QVERIFY(writeFile(at(volumes ? u"staging/a.7z.001"_s : u"staging/a.7z"_s), "new"));
    if (!setImmutable(stuck, true))
        QSKIP("nothing can be made immutable here");
    const CVArchiveDelivery delivery(at(u"staging"_s), archive);
    const auto result = volumes ? delivery.deliverVolumes(true) : delivery.deliverFile(true);
    QVERIFY(setImmutable(stuck, false));
    const auto *error = std::get_if<LXError>(&result);
    QVERIFY(error);
    QCOMPARE(error->domain, u"RSErrorDomain"_s);
    QVERIFY2(error->description.contains(u"couldn’t be overwritten"_s), qPrintable(error->description));
    for (const QString &path : old)
        QCOMPARE(readFile(path), "old");
    QCOMPARE(namesIn(m_root->path()).size(), old.size() + 1);
}

void TestArchiveDelivery::reportsWhatCannotBeMoved()
{
    const QString disk = at(u"disk"_s);
    QVERIFY(QDir(m_root->path()).mkdir(u"disk"_s));
    // Room for its root, the staging folder, two volumes and an older one, and not for a folder more.
    if (::mount("none", bytesOfFileName(disk).constData(), "tmpfs", 0, "nr_inodes=5") != 0)
        QSKIP("only root can mount a small disk");
    const auto unmount = qScopeGuard([&disk] { ::umount2(bytesOfFileName(disk).constData(), MNT_DETACH); });
    QVERIFY(QDir(disk).mkdir(u"staging"_s));
    for (const auto &path : {u"/a.7z.001"_s, u"/staging/a.7z.001"_s, u"/staging/a.7z.002"_s})
        QVERIFY(writeFile(disk + path, "data"));
    const auto result = CVArchiveDelivery(disk + u"/staging"_s, disk + u"/a.7z"_s).deliverVolumes(true);
    const auto *error = std::get_if<LXError>(&result);
    QVERIFY(error);
    QCOMPARE(error->description, u"The created files couldn't be moved."_s);
    QCOMPARE(error->reason, u"Please try again."_s);
    QCOMPARE(readFile(disk + u"/a.7z.001"_s), "data");
    QCOMPARE(namesIn(disk), QStringList({u"a.7z.001"_s, u"staging"_s}));
}

void TestArchiveDelivery::reportsWhatCannotBeListed()
{
    QVERIFY(writeFile(at(u"staging/a.7z.001"_s), "data"));
    rlimit limit = {};
    QCOMPARE(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const int lowest = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(lowest);
    const rlimit none = {rlim_t(lowest), limit.rlim_max};
    QCOMPARE(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const auto result = CVArchiveDelivery(at(u"staging"_s), at(u"a.7z"_s)).deliverVolumes(true);
    ::setrlimit(RLIMIT_NOFILE, &limit);
    QVERIFY(std::holds_alternative<LXError>(result));
    // An empty folder would pass for the set, and the volumes go with the staging folder.
    QVERIFY(!QFileInfo::exists(at(u"a"_s)));
}

void TestArchiveDelivery::namesOfFolders_data()
{
    QTest::addColumn<QString>("destination");
    QTest::addColumn<QString>("name");
    QTest::newRow("plain") << u"/a/Files.7z"_s << u"Files"_s;
    QTest::newRow("one more extension goes") << u"/a/My.Files.7z"_s << u"My"_s;
    QTest::newRow("dots in the folder") << u"/a.b/Files.7z"_s << u"Files"_s;
    QTest::newRow("nothing else") << u"/a/.7z"_s << u".7z"_s;
    QTest::newRow("without extension") << u"/a/Files"_s << u"Files"_s;
}

void TestArchiveDelivery::namesOfFolders()
{
    QFETCH(QString, destination);
    QFETCH(QString, name);
    QCOMPARE(CVArchiveDelivery::folderName(destination), name);
}

QTEST_GUILESS_MAIN(TestArchiveDelivery)

#include "tst_archivedelivery.moc"
