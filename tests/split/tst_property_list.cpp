#include "split/LXPropertyList.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <random>

using namespace Qt::StringLiterals;

namespace {

void write(const QString &path, const QByteArray &data)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(data) == data.size());
}

QByteArray read(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("cannot be read");
}

} // namespace

class TestPropertyList : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void propertyLists();
    void brokenPropertyLists_data();
    void brokenPropertyLists();
};

void TestPropertyList::propertyLists()
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

void TestPropertyList::brokenPropertyLists_data()
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

void TestPropertyList::brokenPropertyLists()
{
    QFETCH(QByteArray, data);
    QVERIFY(!LXPropertyList::toStrings(data));
}

QTEST_GUILESS_MAIN(TestPropertyList)
#include "tst_property_list.moc"
