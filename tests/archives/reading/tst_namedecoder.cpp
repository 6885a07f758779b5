#include "archives/reading/CVNameDecoder.h"

#include <QHash>
#include <QRandomGenerator>
#include <QTest>

using Family = CVNameDecoder::Family;

class TestNameDecoder : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readsUtf8AsItIs_data();
    void readsUtf8AsItIs();
    void showsWhatCannotBeRead();
    void keepsRandomNamesApart_data();
    void keepsRandomNamesApart();
    void keepsMixedNamesApart();
};

void TestNameDecoder::readsUtf8AsItIs_data()
{
    QTest::addColumn<QByteArray>("raw");
    QTest::addColumn<QString>("text");
    QTest::newRow("empty") << QByteArray() << QString();
    QTest::newRow("ascii") << QByteArray("a/b.txt") << QStringLiteral("a/b.txt");
    QTest::newRow("nul") << QByteArray("a\0b", 3) << QStringLiteral("a%1b").arg(QChar(0));
    QTest::newRow("escape character") << QByteArray("a\x1b[0m") << QStringLiteral("a\u001b[0m");
    QTest::newRow("umlaut") << QByteArray("\xc3\xbc") << QStringLiteral("ü");
    QTest::newRow("beyond the BMP") << QByteArray("\xf0\x9f\x91\x8b") << QStringLiteral("👋");
    QTest::newRow("byte order marks")
        << QByteArray("\xef\xbb\xbf\xef\xbb\xbfx") << QStringLiteral("\ufeff\ufeffx");
    QTest::newRow("replacement character") << QByteArray("\xef\xbf\xbd") << QStringLiteral("\ufffd");
}

void TestNameDecoder::readsUtf8AsItIs()
{
    QFETCH(QByteArray, raw);
    QFETCH(QString, text);
    for (const Family family : {Family::Zip, Family::Tar, Family::Lha}) {
        CVNameDecoder decoder(family);
        decoder.observe(raw);
        decoder.decide();
        QVERIFY(decoder.isAllUtf8());
        QCOMPARE(decoder.charsetName(), QStringLiteral("UTF-8"));
        QCOMPARE(decoder.decode(raw, CVNameEncoding::Unmarked), text);
        QCOMPARE(decoder.decode(raw, CVNameEncoding::Utf8), text);
    }
}

void TestNameDecoder::showsWhatCannotBeRead()
{
    CVNameDecoder decoder(Family::Tar); // reads windows-1252 when it knows nothing
    QCOMPARE(decoder.decode("a\x81"
                            "b",
                            CVNameEncoding::Unmarked),
             QStringLiteral("a‰81b"));
    QCOMPARE(decoder.decode("\xe9t\xe9", CVNameEncoding::Utf8), QStringLiteral("été"));
    // Somebody typed the visible form.
    QCOMPARE(decoder.decode("a\x89"
                            "81b",
                            CVNameEncoding::Unmarked),
             QStringLiteral("a‰8981b"));
    QCOMPARE(decoder.decode("a‰81b", CVNameEncoding::Utf8), QStringLiteral("a‰E2‰80‰B081b"));
    QCOMPARE(decoder.decode("12‰ rot", CVNameEncoding::Utf8), QStringLiteral("12‰ rot"));
}

void TestNameDecoder::keepsRandomNamesApart_data()
{
    // Names that make each kind of charset the chosen one.
    QTest::addColumn<Family>("family");
    QTest::addColumn<QByteArray>("hint");
    QTest::addColumn<QString>("charset");
    QTest::newRow("single byte") << Family::Zip << QByteArray("\x8f\xe0\xa8\xa2\xa5\xe2 \xac\xa8\xe0")
                                 << "IBM866";
    QTest::newRow("single byte with gaps")
        << Family::Tar << QByteArray("gar\xe7on tr\xe8s \xe9l\xe9gant") << "windows-1252";
    QTest::newRow("double byte") << Family::Lha
                                 << QByteArray("\x90\x56\x82\xb5\x82\xa2\x83\x74\x83\x48\x83\x8b\x83\x5f")
                                 << "windows-31j";
    QTest::newRow("up to four bytes")
        << Family::Zip
        << QByteArray("\xd1\xb9\xcb\xf5\xce\xc4\xbc\xfe\xb2\xe2\xca\xd4\xd7\xca\xc1\xcf\xc4\xbf\xc2\xbc")
        << "GB18030";
}

void TestNameDecoder::keepsRandomNamesApart()
{
    QFETCH(Family, family);
    QFETCH(QByteArray, hint);
    QFETCH(QString, charset);
    QList<QByteArray> names;
    for (int a = 0x80; a < 0x100; ++a) {
        names += QByteArray(1, char(a));
        for (int b = 0x20; b < 0x100; ++b)
            names += QByteArray(1, char(a)) + QByteArray(1, char(b));
    }
    QRandomGenerator random(20240511);
    for (int i = 0; i < 20000; ++i) {
        QByteArray name;
        for (int n = int(random.bounded(1, 7)); n > 0; --n)
            name += char(random.bounded(4) == 0 ? random.bounded(0x20, 0x80) : random.bounded(0x80, 0x100));
        names += name;
    }
    names += {"a‰81b",
              "\x89"
              "81",
              "\x89"
              "81\xff",
              "‰E2‰80‰B081"};

    CVNameDecoder decoder(family);
    for (int i = 0; i < 50; ++i)
        decoder.observe(hint);
    decoder.decide();
    QCOMPARE(decoder.charsetName(), charset);
    QHash<QString, QByteArray> seen;
    for (const QByteArray &name : std::as_const(names)) {
        const QString text = decoder.decode(name, CVNameEncoding::Unmarked);
        QVERIFY(!text.isEmpty());
        if (name.isValidUtf8()) // may meet a name in the charset; that takes observing both, see below
            continue;
        QVERIFY2(!text.contains(QChar(0xFFFD)), name.toHex().constData());
        const auto known = seen.constFind(text);
        QVERIFY2(known == seen.constEnd() || *known == name,
                 qPrintable(text + u' ' + QString::fromLatin1(name.toHex())));
        seen.insert(text, name);
    }
}

void TestNameDecoder::keepsMixedNamesApart()
{
    // The same word once in the code page and once in UTF-8, marked or not.
    const QByteArray inCodePage = "\x8f\xe0\xa8\xa2\xa5\xe2 \xac\xa8\xe0";
    const QByteArray inUtf8 = "Привет мир";
    CVNameDecoder decoder(Family::Zip);
    decoder.observe(inCodePage);
    decoder.observe(inUtf8);
    decoder.decide();
    QVERIFY(!decoder.isAllUtf8());
    QCOMPARE(decoder.decode(inCodePage, CVNameEncoding::Unmarked), QStringLiteral("Привет мир"));
    QVERIFY(decoder.decode(inUtf8, CVNameEncoding::Unmarked) != QStringLiteral("Привет мир"));
    QVERIFY(decoder.decode(inUtf8, CVNameEncoding::Utf8) != QStringLiteral("Привет мир"));
    QCOMPARE(decoder.decode("Другой мир", CVNameEncoding::Unmarked), QStringLiteral("Другой мир"));
}

QTEST_GUILESS_MAIN(TestNameDecoder)
#include "tst_namedecoder.moc"
