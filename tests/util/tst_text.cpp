#include "util/LXBytesValueTransformer.h"
#include "util/LXDisplay.h"
#include "util/LXFileName.h"
#include "util/LXFileWrapper.h"
#include "util/glob.h"
#include "util/string_regex.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

class TestText : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void bytes_data();
    void bytes();
    void displayEscaped_data();
    void displayEscaped();
    void fileNames_data();
    void fileNames();
    void regex_data();
    void regex();
    void patternThatDoesNotCompile();
    void globKeepsTheFolderPlain();
    void fileWrapper();
};

void TestText::bytes_data()
{
    QTest::addColumn<qint64>("bytes");
    QTest::addColumn<int>("mode");
    QTest::addColumn<QString>("text");
    QTest::newRow("none") << qint64(0) << 2 << u"0 bytes"_s;
    QTest::newRow("one") << qint64(1) << 2 << u"1 byte"_s;
    QTest::newRow("below a unit") << qint64(999) << 2 << u"999 bytes"_s;
    QTest::newRow("a unit") << qint64(1000) << 2 << u"1.0 KB"_s;
    QTest::newRow("system counts by 1000") << qint64(1000) << 0 << u"1.0 KB"_s;
    QTest::newRow("binary below a unit") << qint64(1023) << 1 << u"1023 bytes"_s;
    QTest::newRow("binary unit") << qint64(1024) << 1 << u"1.0 KB"_s;
    QTest::newRow("rounds") << qint64(1'550'000) << 2 << u"1.5 MB"_s;
    QTest::newRow("giga") << qint64(2'500'000'000) << 2 << u"2.5 GB"_s;
    QTest::newRow("stops at tera") << qint64(5'000'000'000'000'000) << 2 << u"5000.0 TB"_s;
}

void TestText::bytes()
{
    QFETCH(qint64, bytes);
    QFETCH(int, mode);
    const LXBytesValueTransformer transformer{static_cast<LXBytesValueTransformer::Mode>(mode)};
    QTEST(transformer.transformedValue(bytes), "text");
}

void TestText::displayEscaped_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("shown");
    QTest::newRow("ordinary") << u"Grüße 日本 (1).txt"_s << u"Grüße 日本 (1).txt"_s;
    QTest::newRow("steers the terminal") << u"a\x1b[2Jb\n\x7f"_s << u"a\\x1b[2Jb\\n\\x7f"_s;
    QTest::newRow("C1") << u"\u009b"
                           "31m"_s
                        << u"\\x9b31m"_s;
    QTest::newRow("turned round") << u"exe\u202Egpj"_s << u"exe\\u{202e}gpj"_s;
    QTest::newRow("isolates, marks") << u"\u2066\u200F"_s << u"\\u{2066}\\u{200f}"_s;
    QTest::newRow("picture of two words stays") << u"👩\u200D💻"_s << u"👩\u200D💻"_s;
    QTest::newRow("half a pair") << QString(QChar(0xd800)) << u"\\u{d800}"_s;
    QTest::newRow("no character") << QString(QChar(0xffff)) << u"\\u{ffff}"_s;
}

void TestText::displayEscaped()
{
    QFETCH(QString, text);
    QTEST(LXDisplay::displayEscaped(text), "shown");
    QTEST(LXDisplay::displayName(u"/a/b/"_s + text), "shown");
}

void TestText::fileNames_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("text");
    QTest::newRow("empty") << QByteArray("") << u""_s;
    QTest::newRow("ascii") << QByteArray("a b") << u"a b"_s;
    QTest::newRow("utf-8") << QByteArray("h\xc3\xa4\xf0\x9f\x98\x80.txt") << u"h\u00e4\U0001f600.txt"_s;
    QTest::newRow("latin-1") << QByteArray("h\xe4.txt") << u"h"_s + QChar(0xdce4) + u".txt"_s;
    QTest::newRow("cut character") << QByteArray("a\xe2\x82") << u"a"_s + QChar(0xdce2) + QChar(0xdc82);
    QTest::newRow("valid and not") << QByteArray("\xc3\xa4\xff\xc3\xa4")
                                   << u"\u00e4"_s + QChar(0xdcff) + u"\u00e4"_s;
    // Would read back as an escape if it counted as a character.
    QTest::newRow("surrogate in utf-8")
        << QByteArray("\xed\xb2\x80") << QString(QChar(0xdced)) + QChar(0xdcb2) + QChar(0xdc80);
    QTest::newRow("overlong") << QByteArray("\xc0\xaf") << QString(QChar(0xdcc0)) + QChar(0xdcaf);
}

void TestText::fileNames()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, text);
    QCOMPARE(fileNameFromBytes(bytes), text);
    QCOMPARE(bytesOfFileName(text), bytes);
}

void TestText::regex_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("pattern");
    QTest::addColumn<QString>("replacement");
    QTest::addColumn<QString>("all");
    QTest::addColumn<QString>("first");
    QTest::newRow("plain") << u"a.b.c"_s << u"\\."_s << u"-"_s << u"a-b-c"_s << u"a-b.c"_s;
    QTest::newRow("groups") << u"ab ab"_s << u"(a)(b)"_s << u"$2$1$0"_s << u"baab baab"_s << u"baab ab"_s;
    QTest::newRow("plain dollar") << u"a"_s << u"a"_s << u"\\$1"_s << u"$1"_s << u"$1"_s;
    QTest::newRow("no match") << u"abc"_s << u"x"_s << u"y"_s << u"abc"_s << u"abc"_s;
    QTest::newRow("empty matches") << u"ab"_s << u"x*"_s << u"-"_s << u"-a-b-"_s << u"-ab"_s;
}

void TestText::regex()
{
    QFETCH(QString, text);
    QFETCH(QString, pattern);
    QFETCH(QString, replacement);
    QTEST(stringByReplacingOccurrencesOfRegexPattern(text, pattern, replacement).value(), "all");
    QTEST(stringByReplacingFirstOccurrenceOfRegexPattern(text, pattern, replacement).value(), "first");
}

void TestText::patternThatDoesNotCompile()
{
    QVERIFY(!isValidRegexPattern(u"(a"_s));
    QVERIFY(!isMatchedByRegexPattern(u"(a"_s, u"(a"_s));
    QVERIFY(!stringByReplacingOccurrencesOfRegexPattern(u"a"_s, u"(a"_s, {}));
    QVERIFY(isMatchedByRegexPattern(u"xAx"_s, u"a"_s, false));
    QVERIFY(!isMatchedByRegexPattern(u"xAx"_s, u"a"_s));
}

void TestText::globKeepsTheFolderPlain()
{
    QTemporaryDir dir;
    const QString folder = dir.filePath(u"a[b]*\\"_s);
    QVERIFY(QDir().mkpath(folder));
    for (const QString &name : {u"2.x"_s, u"1.x"_s, u"1.y"_s}) {
        QFile file(folder + u'/' + name);
        QVERIFY(file.open(QIODevice::WriteOnly));
    }
    QCOMPARE(arrayWithFilesMatchingPattern(u"?.x"_s, folder),
             QStringList({folder + u"/1.x"_s, folder + u"/2.x"_s}));
    QCOMPARE(arrayWithFilesMatchingPattern(u"*.z"_s, folder), QStringList());
}

void TestText::fileWrapper()
{
    QTemporaryDir dir;
    QVERIFY(QDir(dir.path()).mkpath(u"x.app/in"_s));
    QFile file(dir.filePath(u"x.app/in/f"_s));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(1500, 'a'));
    file.close();
    QVERIFY(QFile::link(u"/nowhere"_s, dir.filePath(u"link.app"_s)));
    const auto bundle = LXFileWrapper::fileWrapperWithPath(dir.filePath(u"x.app"_s));
    QVERIFY(bundle.isPackage() && bundle.isDirectory() && !bundle.isSymbolicLink());
    QCOMPARE(bundle.fileSizeBytes(), 1500);
    QCOMPARE(bundle.fileSize(), u"1.5 KB"_s);
    const LXFileWrapper link(dir.filePath(u"link.app"_s));
    QVERIFY(link.isSymbolicLink() && !link.isPackage());
    QVERIFY(!LXFileWrapper(dir.filePath(u"gone"_s)).exists());
}

QTEST_GUILESS_MAIN(TestText)
#include "tst_text.moc"
