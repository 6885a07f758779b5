#include "archives/CVArchiveNameGenerator.h"
#include "archives/archive_string.h"
#include "filetree/CVFileNode.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

class TestArchiveNames : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void extension_data();
    void extension();
    void sameSet_data();
    void sameSet();
    void setOnDisk_data();
    void setOnDisk();
    void kinds();
    void defaultName();
};

void TestArchiveNames::extension_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("extension");
    QTest::addColumn<QString>("base");
    QTest::addColumn<int>("type");
    QTest::newRow("zip") << u"/a/x.zip"_s << u"zip"_s << u"/a/x"_s << 0;
    QTest::newRow("compound") << u"x.tar.gz"_s << u"tar.gz"_s << u"x"_s << 0;
    QTest::newRow("capitals") << u"X.TAR.GZ"_s << u"TAR.GZ"_s << u"X"_s << 0;
    QTest::newRow("one letter stays") << u"x.z"_s << u"z"_s << u"x.z"_s << 0;
    QTest::newRow("two after tar") << u"x.tar.Z"_s << u"tar.Z"_s << u"x"_s << 0;
    QTest::newRow("none") << u"/a.b/x"_s << u""_s << u"/a.b/x"_s << 0;
    QTest::newRow("hidden file") << u"/a/.profile"_s << u""_s << u"/a/.profile"_s << 0;
    QTest::newRow("7z volume") << u"x.7z.012"_s << u"7z.012"_s << u"x"_s << 1;
    QTest::newRow("7z volume in capitals is none") << u"X.7Z.001"_s << u"7Z.001"_s << u"X"_s << 0;
    QTest::newRow("old rar") << u"x.r05"_s << u"r05"_s << u"x"_s << 2;
    QTest::newRow("plain rar") << u"x.rar"_s << u"rar"_s << u"x"_s << 0;
    QTest::newRow("new rar") << u"x.part12.rar"_s << u"part12.rar"_s << u"x"_s << 3;
    QTest::newRow("folder that looks like a part") << u"/a.r00/x.zip"_s << u"zip"_s << u"/a.r00/x"_s << 0;
    const QString odd = u"a"_s + QChar(0xdcff) + u"b\n"_s; // a byte that is no text
    QTest::newRow("no text") << odd + u".tar.gz" << u"tar.gz"_s << odd << 0;
    QTest::newRow("volume that is no text") << odd + u".7z.003" << u"7z.003"_s << odd << 1;
    QTest::newRow("empty") << u""_s << u""_s << u""_s << 0;
}

void TestArchiveNames::extension()
{
    QFETCH(QString, name);
    QTEST(archivePathExtension(name), "extension");
    QTEST(stringByDeletingArchivePathExtension(name), "base");
    QTEST(static_cast<int>(multipartArchiveType(name)), "type");
}

void TestArchiveNames::sameSet_data()
{
    QTest::addColumn<QString>("one");
    QTest::addColumn<QString>("other");
    QTest::addColumn<bool>("same");
    QTest::newRow("volumes") << u"/a/x.7z.002"_s << u"/a/x.7z.010"_s << true;
    QTest::newRow("other base") << u"/a/x.7z.002"_s << u"/a/y.7z.002"_s << false;
    QTest::newRow("other folder") << u"/a/x.r01"_s << u"/b/x.r02"_s << false;
    QTest::newRow("other kind") << u"/a/x.r01"_s << u"/a/x.part1.rar"_s << false;
    QTest::newRow("no part belongs to nothing") << u"/a/x.zip"_s << u"/a/x.zip"_s << false;
}

void TestArchiveNames::sameSet()
{
    QFETCH(QString, one);
    QFETCH(QString, other);
    QTEST(belongsToSameMultipartArchiveAsItemAtPath(one, other), "same");
    QTEST(belongsToSameMultipartArchiveAsItemAtPath(other, one), "same");
}

void TestArchiveNames::setOnDisk_data()
{
    QTest::addColumn<QString>("archive");
    QTest::addColumn<QStringList>("set");
    QTest::newRow("brackets") << u"Photos [2020](b).part1.rar"_s
                              << QStringList{u"Photos [2020](b).part1.rar"_s,
                                             u"Photos [2020](b).part2.rar"_s};
    QTest::newRow("old rar without the rar") << u"x.r05"_s << QStringList{u"x.r00"_s, u"x.r05"_s};
    QTest::newRow("numbered") << u"x.7z.002"_s << QStringList{u"x.7z.001"_s, u"x.7z.002"_s};
    QTest::newRow("a name that is a wildcard") << u"*.r00"_s << QStringList{u"*.r00"_s};
    QTest::newRow("a backslash") << u"a\\b.r00"_s << QStringList{u"a\\b.r00"_s};
    QTest::newRow("looks like a part only for the shell")
        << u"y.part1.rar"_s << QStringList{u"y.part1.rar"_s};
}

void TestArchiveNames::setOnDisk()
{
    QTemporaryDir dir;
    const QString folder = dir.filePath(u"a [1]"_s);
    QVERIFY(QDir().mkpath(folder));
    for (const QString &name :
         {u"Photos [2020](b).part1.rar"_s, u"Photos [2020](b).part2.rar"_s, u"Photos 2.part1.rar"_s,
          u"x.r00"_s, u"x.r05"_s, u"x.rar"_s, u"x.7z.001"_s, u"x.7z.002"_s, u"*.r00"_s, u"a\\b.r00"_s,
          u"y.part1.rar"_s, u"y.part1 letter to mum.rar"_s}) {
        QFile file(folder + u'/' + name);
        QVERIFY(file.open(QIODevice::WriteOnly));
    }
    QFETCH(QString, archive);
    QFETCH(QStringList, set);
    for (QString &name : set)
        name.prepend(folder + u'/');
    QCOMPARE(pathsBelongingToArchiveAtPath(folder + u'/' + archive), set);
}

void TestArchiveNames::kinds()
{
    QCOMPARE(pathsBelongingToArchiveAtPath(u"/nowhere/x.zip"_s), QStringList{u"/nowhere/x.zip"_s});
    QCOMPARE(firstPartOf7ZipArchive(u"x.7z.004"_s), u"x.7z.001"_s);
    QVERIFY(isSplitFile(u"a.aasplit"_s) == false);
    QVERIFY(isSplitFile(u"a.split"_s) && isSplitFile(u"a.zsplit"_s) && isSplitFile(u"a.chksplit"_s));
    QVERIFY(isCheckSumSplitFile(u"a.chksplit"_s) && !isCheckSumSplitFile(u"a.split"_s));
    QVERIFY(isAudioFile(u"a.mp3"_s) && !isAudioFile(u"a.MP3"_s) && !isAudioFile(u"mp3"_s));
}

void TestArchiveNames::defaultName()
{
    const auto root = CVFileNode::create();
    QCOMPARE(CVArchiveNameGenerator::defaultArchiveNameForFiles(*root), u"Archive"_s);
    root->appendChild(CVFileNode::create(u"/a/Report.pdf"_s));
    QCOMPARE(CVArchiveNameGenerator::defaultArchiveNameForFiles(*root), u"Report.pdf"_s);
    root->appendChild(CVFileNode::create(u"/a/b"_s));
    QCOMPARE(CVArchiveNameGenerator::defaultArchiveNameForFiles(*root), u"Archive"_s);
}

QTEST_GUILESS_MAIN(TestArchiveNames)
#include "tst_archive_names.moc"
