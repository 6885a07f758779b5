#include "jobs/media/CVAudioFileConverter.h"
#include "jobs/media/CVMediaTypes.h"
#include "jobs/media/MediaFolder.h"

#include <QTest>

using namespace Qt::StringLiterals;

class AudioConverterTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tableOfTypes_data();
    void tableOfTypes();
    void writesEveryType_data();
    void writesEveryType();
    void readsEverything_data();
    void readsEverything();
    void keepsTagsAndCover();
    void refuses_data();
    void refuses();
    void cutOff_data();
    void cutOff();
    void cancelLeavesTheSource();
};

void AudioConverterTest::tableOfTypes_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<quint32>("codec");
    QTest::addColumn<quint32>("container");
    QTest::addColumn<QString>("extension");
    QTest::addColumn<int>("bitRate");
    const quint32 none = 0xffffffff;
    QTest::newRow("none") << 0 << none << none << u"mp4"_s << 0;
    QTest::newRow("first") << 1 << 0x61616320U << 0x6d346166U << u"m4a"_s << 32000;
    QTest::newRow("last m4a") << 4 << 0x61616320U << 0x6d346166U << u"m4a"_s << 320000;
    QTest::newRow("first mp4") << 5 << 0x61616320U << 0x6d346166U << u"mp4"_s << 32000;
    QTest::newRow("last") << 8 << 0x61616320U << 0x6d346166U << u"mp4"_s << 320000;
    QTest::newRow("beyond") << 9 << none << none << u"mp4"_s << 0;
}

void AudioConverterTest::tableOfTypes()
{
    QFETCH(int, type);
    QTEST(quint32{CVAudioFileConverter::formatIdentifierForType(type)}, "codec");
    QTEST(quint32{CVAudioFileConverter::dataForType(type)}, "container");
    QTEST(CVAudioFileConverter::audioFormatExtensionForType(type), "extension");
    QTEST(CVAudioFileConverter::audioBitRateFortype(type), "bitRate");
}

void AudioConverterTest::writesEveryType_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("least"); // bits a second
    QTest::addColumn<int>("most");
    QTest::addColumn<QByteArray>("brand");
    for (int type = 1; type <= 8; ++type) {
        // The encoder needs no more than about 230,000 for this sound.
        const int wanted = CVMediaTypes::audioBitRate(type);
        QTest::addRow("%d", type) << type << std::min(wanted, 200000) * 8 / 10 << wanted * 12 / 10
                                  << QByteArray(type <= 4 ? "M4A " : "isom").trimmed();
    }
}

void AudioConverterTest::writesEveryType()
{
    QFETCH(int, type);
    QFETCH(int, least);
    QFETCH(int, most);
    const MediaFolder folder;
    QVERIFY(folder.tone(4, "tone.wav"));
    const auto result = folder.convert(0, type);
    QVERIFY2(result.succeeded, qPrintable(result.reason));
    const QByteArray name = type <= 4 ? "tone.m4a" : "tone.mp4";
    QCOMPARE(folder.names(), QList<QByteArray>{name});
    const QString path = folder.path(name.constData());
    const int rate = probe(path, u"stream=bit_rate"_s).toInt();
    QVERIFY2(rate >= least && rate <= most, QByteArray::number(rate).constData());
    QCOMPARE(probe(path, u"stream=codec_name,sample_rate,channels"_s).simplified(), "aac 44100 2");
    QVERIFY(qAbs(probe(path, u"format=duration"_s).toDouble() - 4) < 0.05);
    QTEST(probe(path, u"format_tags=major_brand"_s).trimmed(), "brand");
}

void AudioConverterTest::readsEverything_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QString>("more");
    QTest::addColumn<QByteArray>("expected"); // rate and channels
    const auto row = [](const char *title, const char *name, const char *more, const char *expected) {
        QTest::newRow(title) << QByteArray(name) << QString::fromLatin1(more) << QByteArray(expected);
    };
    row("mp3", "t.mp3", "", "44100 2");
    row("mp3, changing bit rate", "t.mp3", "-q:a 5", "44100 2");
    row("wav of 24 bits", "t.wav", "-c:a pcm_s24le", "44100 2");
    row("wav of floating point", "t.wav", "-c:a pcm_f32le", "44100 2");
    row("wav of 8 bits, mono", "t.wav", "-c:a pcm_u8 -ar 8000 -ac 1", "8000 1");
    row("wav beyond what AAC has", "t.wav", "-ar 192000", "96000 2");
    row("wav of an odd rate", "t.wav", "-ar 39000", "44100 2");
    row("wav of a low rate", "t.wav", "-ar 5000 -ac 1", "7350 1");
    row("wav of six channels", "t.wav", "-ac 6", "44100 6");
    row("wav of seven channels", "t.wav", "-af pan=7c|c0=c0|c1=c1|c2=c0|c3=c0|c4=c0|c5=c0|c6=c0", "44100 7");
    row("wav of sixteen channels", "t.wav", "-af pan=hexadecagonal|c0=c0|c1=c1|c2=c0|c9=c1|c15=c0",
        "44100 16");
    row("adpcm wav", "t.wav", "-c:a adpcm_ima_wav", "44100 2");
    row("aiff", "t.aiff", "", "44100 2");
    row("aif", "t.aif", "-f aiff -ar 48000", "48000 2");
    row("aifc", "t.aifc", "-f aiff -c:a pcm_alaw", "44100 2");
    row("au", "t.au", "-c:a pcm_mulaw", "44100 2");
    row("snd", "t.snd", "-f au", "44100 2");
    row("m4a, lossless", "t.m4a", "-c:a alac", "44100 2");
    row("m4a", "t.m4a", "-c:a aac", "44100 2");
    row("mp3 that is called wav", "t.wav", "-f mp3", "44100 2");
}

void AudioConverterTest::readsEverything()
{
    QFETCH(QByteArray, name);
    QFETCH(QString, more);
    QFETCH(QByteArray, expected);
    const MediaFolder folder;
    QVERIFY(folder.tone(2, name.constData(), more));
    const auto result = folder.convert(0, 6);
    QVERIFY2(result.succeeded, qPrintable(result.reason));
    QCOMPARE(folder.names(), QList<QByteArray>{"t.mp4"});
    const QString path = folder.path("t.mp4");
    QCOMPARE(probe(path, u"stream=sample_rate,channels"_s).simplified(), expected);
    QVERIFY(qAbs(probe(path, u"format=duration"_s).toDouble() - 2) < 0.1);
    // It is sound: the loudest place is about as loud as in the source.
    const QByteArray loud = outputOf(
        u"sh"_s,
        {u"-c"_s, u"ffmpeg -i \"$0\" -af volumedetect -f null - 2>&1 | sed -n 's/.*max_volume: //p'"_s,
         path});
    QVERIFY2(loud.chopped(3).toDouble() > -12, loud.constData());
}

void AudioConverterTest::keepsTagsAndCover()
{
    const MediaFolder folder;
    QVERIFY(folder.image(u"-size 64x48 xc:red"_s, "cover.jpg"));
    QVERIFY(folder.tone(1, "plain.mp3"));
    QVERIFY(
        folder.sound(u"-i %1 -i %2 -map 0 -map 1 -c copy -metadata title=Title -metadata artist=\"Ärtist\" "
                     "-metadata album=Album -metadata track=3/9 -metadata date=1999"_s.arg(
                         folder.path("plain.mp3"), folder.path("cover.jpg")),
                     "tagged.mp3"));
    const auto result = folder.convert(0, 2);
    QVERIFY2(result.succeeded, qPrintable(result.reason));
    const QString path = folder.path("tagged.m4a");
    for (const auto &[tag, value] : {std::pair{"title", "Title"},
                                     {"artist", "Ärtist"},
                                     {"album", "Album"},
                                     {"track", "3/9"},
                                     {"date", "1999"}})
        QCOMPARE(probe(path, u"format_tags=%1"_s.arg(QLatin1String(tag))), value);
    QCOMPARE(probe(path, u"stream=codec_name,width"_s).simplified(), "aac mjpeg 64");
}

void AudioConverterTest::refuses_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QByteArray>("contents");
    QTest::newRow("empty") << QByteArray("a.wav") << QByteArray();
    QTest::newRow("junk") << QByteArray("a.wav") << QByteArray(100000, 'j');
    QTest::newRow("list of addresses")
        << QByteArray("a.mp3") << QByteArray("#EXTM3U\n#EXTINF:1,\nfile:///etc/passwd\n");
    QTest::newRow("list of files") << QByteArray("a.mp3")
                                   << QByteArray("ffconcat version 1.0\nfile '/etc/passwd'\n");
    QTest::newRow("header only") << QByteArray("a.wav")
                                 << QByteArray::fromHex("524946462400000057415645666d742010000000010002"
                                                        "0044ac000010b10200040010006461746100000000");
}

void AudioConverterTest::refuses()
{
    QFETCH(QByteArray, name);
    QFETCH(QByteArray, contents);
    const MediaFolder folder;
    folder.write(name, contents);
    const auto result = folder.convert(0, 2);
    QVERIFY(!result.succeeded);
    QCOMPARE(result.failedFile.toLatin1(), name);
    QVERIFY2(!result.reason.isEmpty() && !result.reason.contains(u"sudden"_s), qPrintable(result.reason));
    QCOMPARE(folder.names(), QList<QByteArray>{name});
    QCOMPARE(folder.read(name), contents);
}

void AudioConverterTest::cutOff_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QString>("more");
    QTest::newRow("wav") << QByteArray("a.wav") << QString();
    QTest::newRow("aiff") << QByteArray("a.aiff") << QString();
    QTest::newRow("au") << QByteArray("a.au") << QString();
    QTest::newRow("mp3") << QByteArray("a.mp3") << QString();
    QTest::newRow("m4a") << QByteArray("a.m4a") << QString();
    QTest::newRow("m4a, index first") << QByteArray("a.m4a") << u"-movflags faststart"_s;
    QTest::newRow("lossless m4a") << QByteArray("a.m4a") << u"-c:a alac -movflags faststart"_s;
}

void AudioConverterTest::cutOff()
{
    QFETCH(QByteArray, name);
    QFETCH(QString, more);
    const MediaFolder folder;
    QVERIFY(folder.tone(10, name.constData(), more));
    const QByteArray whole = folder.read(name);
    for (const int percent : {2, 50, 90}) {
        folder.write(name, whole.left(whole.size() * percent / 100));
        const auto result = folder.convert(0, 6);
        QVERIFY2(!result.succeeded, qPrintable(QString::number(percent)));
        QCOMPARE(folder.names(), QList<QByteArray>{name});
    }
    // Protected: the same file with another mark before its sound.
    if (name.endsWith("m4a")) {
        QByteArray locked = whole;
        locked.replace("mp4a", "drms").replace("alac", "drms");
        folder.write(name, locked);
        QVERIFY(!folder.convert(0, 6).succeeded);
        QCOMPARE(folder.read(name), locked);
    }
    folder.write(name, whole);
    QVERIFY(folder.convert(0, 6).succeeded);
}

void AudioConverterTest::cancelLeavesTheSource()
{
    const MediaFolder folder;
    QVERIFY(folder.tone(60, "a.wav"));
    CVAudioFileConverter converter;
    int words = 0;
    converter.setProgress([&] {
        ++words;
        converter.cancel();
    });
    QVERIFY(converter.manipulateAudioFile(folder.path("a.wav"), 2));
    QCOMPARE(words, 1);
    QCOMPARE(folder.names(), QList<QByteArray>{"a.wav"});
    // Where it may go on, the name that is taken is left to its owner.
    CVAudioFileConverter other;
    folder.write("a.m4a", "in the way");
    QVERIFY2(other.manipulateAudioFile(folder.path("a.wav"), 1), qPrintable(other.failureReason()));
    QCOMPARE(folder.names(), (QList<QByteArray>{"a 2.m4a", "a.m4a"}));
    QCOMPARE(folder.read("a.m4a"), "in the way");
}

QTEST_GUILESS_MAIN(AudioConverterTest)
#include "tst_audioconverter.moc"
