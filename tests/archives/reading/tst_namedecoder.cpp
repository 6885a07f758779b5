#include "archives/reading/CVNameDecoder.h"
#include "util/LXFileName.h"

#include <QHash>
#include <QRandomGenerator>
#include <QStringConverter>
#include <QTest>

#include <atomic>
#include <thread>
#include <vector>

using Family = CVNameDecoder::Family;

namespace {

QByteArray encoded(const QString &text, const char *charset)
{
    QStringEncoder encoder(charset, QStringEncoder::Flag::Stateless);
    return encoder.isValid() ? QByteArray(encoder.encode(text)) : QByteArray();
}

} // namespace

class TestNameDecoder : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readsUtf8AsItIs_data();
    void readsUtf8AsItIs();
    void findsCharset_data();
    void findsCharset();
    void fallsBackWhereNothingIsSaid();
    void readsTheRestOfADamagedSet();
    void keepsBytesThatSayNothing();
    void doubtsShortUtf8();
    void decodesOnManyThreads();
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

void TestNameDecoder::findsCharset_data()
{
    QTest::addColumn<Family>("family");
    QTest::addColumn<QByteArray>("charset");
    QTest::addColumn<QStringList>("names");
    const auto row = [](const char *title, Family family, const char *charset, const char *names) {
        QTest::newRow(title) << family << QByteArray(charset) << QString::fromUtf8(names).split(u'|');
    };
    row("one Russian word, DOS", Family::Zip, "IBM866", "тест.txt");
    row("one Russian word, Windows", Family::Zip, "windows-1251", "привет.txt");
    row("Russian capitals", Family::Arj, "IBM866", "ПРИВЕТ|ПАСПОРТ");
    row("Russian, Unix", Family::Tar, "KOI8-R", "Курсовая работа.doc|фото.jpg");
    row("Ukrainian", Family::Zip, "windows-1251", "Довідка.doc|Українська мова.pdf");
    row("Bulgarian", Family::Other, "windows-1251", "Снимки от морето|Решение на съда.doc");
    row("one German word, DOS", Family::Zip, "IBM850", "Größe.txt");
    row("German beside ASCII names", Family::Zip, "IBM437", "readme.txt|img/0001.jpg|Übersicht/Maße.txt");
    row("letters that stand alone", Family::Zip, "IBM437", "File 1.txt|File 2 - ö.txt|File 3 - ä.txt");
    row("German, Unix", Family::Tar, "ISO-8859-15", "Grüße aus Köln.jpg|Prüfung.doc");
    row("French, DOS", Family::Zip, "IBM850", "Été 2008.jpg|Où est Charlie.txt");
    row("French, Windows", Family::Zip, "windows-1252", "Déclaration d'impôts.pdf|Forêt.jpg");
    row("Spanish", Family::Zip, "IBM850", "Año nuevo.jpg|Canción de cuna.mp3");
    row("Portuguese", Family::Rar, "windows-1252", "São Paulo.jpg|Coração.mp3");
    row("Danish", Family::Zip, "IBM850", "Fødselsdag.jpg|Spørgsmål.doc");
    row("Polish, DOS", Family::Zip, "IBM852", "Książka.pdf|Zdjęcia z wakacji");
    row("Polish, Windows", Family::Zip, "windows-1250", "Życzenia.doc|Różne|Miłość.mp3");
    row("Czech, Unix", Family::Tar, "ISO-8859-2", "Žádost o práci.doc|Příloha č. 1.pdf");
    row("Hungarian", Family::Zip, "IBM852", "Fényképek|Tűzoltó.avi");
    row("Turkish", Family::Zip, "IBM857", "Yılbaşı.jpg|Türkçe şarkılar");
    row("Greek, DOS", Family::Zip, "IBM737", "Ελλάδα.jpg");
    row("Greek, Windows", Family::Other, "windows-1253", "Φωτογραφίες");
    row("Hebrew", Family::Zip, "IBM862", "שלום.txt|תמונות מהטיול");
    row("Arabic", Family::Other, "windows-1256", "صور الرحلة|كتاب.pdf");
    row("Thai", Family::Zip, "windows-874", "สวัสดี.txt");
    row("Japanese, DOS", Family::Lha, "windows-31j", "漢字.txt|表.txt");
    row("one Japanese name", Family::Zip, "windows-31j", "新しいフォルダ");
    row("Japanese, Unix", Family::Tar, "EUC-JP", "説明書.txt|写真");
    row("Japanese, mail", Family::Other, "ISO-2022-JP", "説明書.txt|readme.txt");
    row("simplified Chinese", Family::Zip, "GB18030", "新建文件夹|照片");
    row("traditional Chinese", Family::Zip, "Big5", "新資料夾|使用手冊.pdf");
    row("Korean", Family::Zip, "EUC-KR", "새 폴더|한글 문서 이름.txt");
}

void TestNameDecoder::findsCharset()
{
    QFETCH(Family, family);
    QFETCH(QByteArray, charset);
    QFETCH(QStringList, names);
    CVNameDecoder decoder(family);
    for (const QString &name : std::as_const(names)) {
        QVERIFY(!encoded(name, charset).isEmpty());
        decoder.observe(encoded(name, charset));
    }
    decoder.decide();
    QVERIFY(!decoder.isAllUtf8());
    for (const QString &name : std::as_const(names))
        QCOMPARE(decoder.decode(encoded(name, charset), CVNameEncoding::Unmarked), name);
}

void TestNameDecoder::fallsBackWhereNothingIsSaid()
{
    // A chart of the upper half; every charset can read some of it.
    CVNameDecoder decoder(Family::Zip);
    for (int first = 0x80; first < 0x100; first += 16) {
        QByteArray chart;
        for (int i = 0; i < 16; ++i)
            chart += char(first + i);
        decoder.observe(chart);
    }
    decoder.decide();
    QCOMPARE(decoder.charsetName(), QStringLiteral("IBM437"));
    QCOMPARE(decoder.decode("\xb0\xb1\xe6", CVNameEncoding::Unmarked), QStringLiteral("░▒µ"));
}

void TestNameDecoder::readsTheRestOfADamagedSet()
{
    // One name was cut in the middle of a character by a maker with a limit on lengths.
    CVNameDecoder decoder(Family::Zip);
    const QByteArray whole = encoded(QStringLiteral("表計算ソフト"), "windows-31j");
    decoder.observe(whole.chopped(1));
    decoder.observe(encoded(QStringLiteral("新しいフォルダ"), "windows-31j"));
    decoder.observe(whole);
    decoder.decide();
    QCOMPARE(decoder.decode(whole, CVNameEncoding::Unmarked), QStringLiteral("表計算ソフト"));
    QCOMPARE(decoder.decode(whole.chopped(1), CVNameEncoding::Unmarked), QStringLiteral("表計算ソフ‰83"));
}

void TestNameDecoder::keepsBytesThatSayNothing()
{
    const QByteArray odd = "\xff\xfe.bin";
    CVNameDecoder tar(Family::Tar);
    for (const QByteArray &name : {odd, odd, QByteArray(odd + "/a"), QByteArray(odd + "/b")})
        tar.observe(name); // one name, however often it occurs
    tar.decide();
    QCOMPARE(bytesOfFileName(tar.decode(odd, CVNameEncoding::Unmarked)), odd);
}

void TestNameDecoder::doubtsShortUtf8()
{
    // These two are valid UTF-8 by chance.
    const QStringList names{QStringLiteral("一.txt"), QStringLiteral("目.txt"), QStringLiteral("压缩文件")};
    CVNameDecoder zip(Family::Zip);
    for (const QString &name : names)
        zip.observe(encoded(name, "GB18030"));
    zip.observe("é.txt"); // and this one on purpose
    zip.decide();
    QVERIFY(encoded(names.first(), "GB18030").isValidUtf8());
    for (const QString &name : names)
        QCOMPARE(zip.decode(encoded(name, "GB18030"), CVNameEncoding::Unmarked), name);
    QCOMPARE(zip.decode("é.txt", CVNameEncoding::Unmarked), QStringLiteral("é.txt"));
    QCOMPARE(zip.decode(encoded(names.first(), "GB18030"), CVNameEncoding::Utf8), QStringLiteral("һ.txt"));

    // Where Unix programs write, UTF-8 is what it looks like.
    CVNameDecoder tar(Family::Tar);
    for (const QString &name : names)
        tar.observe(encoded(name, "GB18030"));
    tar.decide();
    QCOMPARE(tar.decode(encoded(names.first(), "GB18030"), CVNameEncoding::Unmarked),
             QStringLiteral("һ.txt"));
    QCOMPARE(tar.decode(encoded(names.last(), "GB18030"), CVNameEncoding::Unmarked), names.last());
}

void TestNameDecoder::decodesOnManyThreads()
{
    const QString name = QStringLiteral("新しいフォルダ/説明書.txt");
    const QByteArray raw = encoded(name, "windows-31j");
    CVNameDecoder decoder(Family::Zip);
    decoder.observe(raw);
    decoder.decide();
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 2000; ++n)
                wrong += decoder.decode(raw, CVNameEncoding::Unmarked) != name;
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    QCOMPARE(wrong.load(), 0);
}

void TestNameDecoder::showsWhatCannotBeRead()
{
    CVNameDecoder decoder(Family::Tar); // reads windows-1252 when it knows nothing
    QCOMPARE(decoder.decode("a\x81"
                            "b",
                            CVNameEncoding::Unmarked),
             QStringLiteral("a‰81b"));
    QCOMPARE(decoder.decode("\xe9t\xe9", CVNameEncoding::Unmarked), QStringLiteral("été"));
    // The format says that it is UTF-8, so it is no text in any charset.
    QCOMPARE(bytesOfFileName(decoder.decode("\xe9t\xe9", CVNameEncoding::Utf8)), QByteArray("\xe9t\xe9"));
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
