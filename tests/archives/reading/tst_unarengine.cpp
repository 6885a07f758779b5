#include "archives/CVToolPaths.h"
#include "archives/reading/CVCabChecksum.h"
#include "archives/reading/CVLsarListing.h"
#include "archives/reading/CVUnarBids.h"
#include "archives/reading/CVUnarEngine.h"
#include "archives/reading/CVUnarOutput.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

#include <map>
#include <numeric>

using Code = XADErrorCode;

namespace {

struct Host final : CVEngineHost
{
    std::optional<QString> answer;
    int asked = 0;
    bool stop = false;
    std::optional<QString> password() override
    {
        ++asked;
        return answer;
    }
    bool shouldStop() override { return stop; }
};

/// Keeps what an engine delivers: the contents of entries that ended well, the codes of the others.
struct Sink final : CVEntrySink
{
    struct Writer final : CVEntryWriter
    {
        Sink *sink = nullptr;
        int index = 0;
        QByteArray data;
        Flow write(const char *bytes, qsizetype size) override
        {
            sink->largestBlock = std::max(sink->largestBlock, size);
            data.append(bytes, size);
            return sink->stop ? Flow::Stop : Flow::Go;
        }
        Flow writeHole(qint64 size) override
        {
            data.append(size, '\0');
            return Flow::Go;
        }
        Flow finish(Code code, const QString &) override
        {
            if (code == Code::None)
                sink->contents[index] = data;
            else
                sink->failures[index] = code;
            return Flow::Go;
        }
    };
    const std::vector<XADEntry> *entries = nullptr;

    QTemporaryDir staging;
    std::map<int, QByteArray> contents;
    std::map<int, Code> failures;
    qsizetype largestBlock = 0;
    bool stop = false;

    std::unique_ptr<CVEntryWriter> beginEntry(int index) override
    {
        if (entries && (*entries)[static_cast<std::size_t>(index)].type != XADEntry::Type::File)
            return nullptr;
        auto writer = std::make_unique<Writer>();
        writer->sink = this;
        writer->index = index;
        return writer;
    }
    CVEntryWriter::Flow entryFailed(int index, Code code, const QString &) override
    {
        failures[index] = code;
        return CVEntryWriter::Flow::Go;
    }
    bool shouldStop() override { return stop; }
    QString stagingFolder() override { return staging.path(); }
};

void writeFile(const QString &path, const QByteArray &data)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(data), data.size());
}

void runTool(const QString &program, const QStringList &arguments, const QString &folder)
{
    QProcess process;
    process.setWorkingDirectory(folder);
    process.start(program, arguments);
    QVERIFY2(process.waitForFinished() && process.exitCode() == 0, process.readAll().constData());
}

CVArchiveProbe probeOf(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    CVArchiveProbe probe;
    probe.path = path;
    probe.head = file.read(64 * 1024);
    probe.fileSize = file.size();
    return probe;
}

template <typename T> QByteArray little(T value)
{
    QByteArray bytes(sizeof(T), '\0');
    qToLittleEndian(value, bytes.data());
    return bytes;
}

/// One entry of an LHA archive, stored, with the oldest header.
QByteArray lhaEntry(const QByteArray &name, const QByteArray &data, bool damaged = false)
{
    std::uint16_t crc = 0;
    for (const char c : data) {
        crc ^= static_cast<unsigned char>(c);
        for (int bit = 0; bit < 8; ++bit)
            crc = static_cast<std::uint16_t>(crc & 1 ? (crc >> 1) ^ 0xa001 : crc >> 1);
    }
    const QByteArray body = "-lh0-" + little<quint32>(static_cast<quint32>(data.size())) +
                            little<quint32>(static_cast<quint32>(data.size())) +
                            little<quint32>(0x5a21'6000) + ' ' + '\0' + static_cast<char>(name.size()) +
                            name + little<quint16>(damaged ? crc ^ 1 : crc);
    unsigned sum = 0;
    for (const char c : body)
        sum += static_cast<unsigned char>(c);
    return static_cast<char>(body.size()) + QByteArray(1, static_cast<char>(sum & 0xff)) + body + data;
}

QByteArray lha(const QByteArrayList &entries)
{
    return entries.join() + '\0';
}

/// A cabinet of one stored file in one data block, with the block's check sum.
QByteArray cabinet(const QByteArray &name, const QByteArray &data)
{
    const QByteArray sizes = little<quint16>(static_cast<quint16>(data.size())) +
                             little<quint16>(static_cast<quint16>(data.size()));
    quint32 sum = qFromLittleEndian<quint32>(sizes.constData());
    Q_ASSERT(data.size() % 4 == 0);
    for (qsizetype i = 0; i < data.size(); i += 4)
        sum ^= qFromLittleEndian<quint32>(data.constData() + i);
    const QByteArray file = little<quint32>(static_cast<quint32>(data.size())) + little<quint32>(0) +
                            little<quint16>(0) + little<quint16>(0x5a21) + little<quint16>(0) +
                            little<quint16>(0x20) + name + '\0';
    const quint32 filesAt = 36 + 8;
    const quint32 dataAt = filesAt + static_cast<quint32>(file.size());
    const QByteArray block = little<quint32>(sum) + sizes + data;
    return "MSCF" + little<quint32>(0) + little<quint32>(dataAt + static_cast<quint32>(block.size())) +
           little<quint32>(0) + little<quint32>(filesAt) + little<quint32>(0) + QByteArray("\x03\x01", 2) +
           little<quint16>(1) + little<quint16>(1) + little<quint16>(0) + little<quint32>(0) +
           little<quint32>(dataAt) + little<quint16>(1) + little<quint16>(0) + file + block;
}

} // namespace

class TestUnarEngine : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void bids_data();
    void bids();
    void listingSurvivesBrokenText();
    void output_data();
    void output();
    void encryptedEntries_data();
    void encryptedEntries();
    void tellsDamageFromWrongPasswords_data();
    void tellsDamageFromWrongPasswords();
    void encryptedNames_data();
    void encryptedNames();
    void namesInTheWayOfEachOther();
    void selectedEntriesOnly();
    void damagedEntryFailsAlone();
    void damagedCabinetFails();
    void legacyNamesKeepTheirBytes();
    void neighboursAreNotVolumes();
    void stopEndsExtraction();
    void passwordIsNowhereToBeRead();
    void plantedLinkIsNotFollowed();

private:
    std::unique_ptr<CVReadingEngine> openEngine(const QString &path, Code *code = nullptr);
    CVReadingEngine::Outcome extractAll(CVReadingEngine &engine, Sink &sink);
    QString path(const char *name) const { return m_folder->filePath(QString::fromLatin1(name)); }
    void installDouble(const char *variable, const QByteArray &script);

    std::unique_ptr<QTemporaryDir> m_folder;
    Host m_host;
};

void TestUnarEngine::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    m_host = {};
    if (!CVToolPaths::isInstalled(QStringLiteral("unar")) ||
        !CVToolPaths::isInstalled(QStringLiteral("lsar")))
        QSKIP("unar is not installed");
}

void TestUnarEngine::cleanup()
{
    qunsetenv("CORVANE_TOOL_UNAR");
    qunsetenv("CORVANE_TOOL_LSAR");
}

std::unique_ptr<CVReadingEngine> TestUnarEngine::openEngine(const QString &path, Code *code)
{
    CVEngineDescriptor::OpenOutcome outcome = cvUnarEngineDescriptor().open(probeOf(path), m_host);
    if (code)
        *code = outcome.code;
    return std::move(outcome.engine);
}

CVReadingEngine::Outcome TestUnarEngine::extractAll(CVReadingEngine &engine, Sink &sink)
{
    sink.entries = &engine.entries();
    std::vector<int> indices(engine.entries().size());
    std::iota(indices.begin(), indices.end(), 0);
    return engine.extract(indices, true, sink);
}

void TestUnarEngine::installDouble(const char *variable, const QByteArray &script)
{
    const QString file = path(variable);
    writeFile(file, "#!/bin/sh\n" + script);
    QVERIFY(QFile::setPermissions(file, QFile::ReadOwner | QFile::ExeOwner));
    qputenv(variable, QFile::encodeName(file));
}

void TestUnarEngine::bids_data()
{
    QTest::addColumn<QByteArray>("head");
    QTest::addColumn<int>("points");
    const QByteArray arjMain =
        QByteArray("\x60\xea", 2) + little<quint16>(34) + QByteArray("\x22\x0b\x01\x02", 4);
    const QByteArray arjRest = QByteArray(29, 'x') + QByteArray(4, 'c') + little<quint16>(0);
    const QByteArray arjFile =
        QByteArray("\x60\xea", 2) + little<quint16>(40) + QByteArray("\x2e\x0b\x01\x02", 4);
    QTest::newRow("rar 4") << QByteArray("Rar!\x1a\x07\x00", 7) << 50;
    QTest::newRow("rar 5") << QByteArray("Rar!\x1a\x07\x01\x00", 8) << 50;
    QTest::newRow("program with rar") << QByteArray("MZ") + QByteArray(3000, 'x') + "Rar!\x1a\x07" << 50;
    QTest::newRow("text that mentions rar") << QByteArray("see Rar!\x1a\x07") << 0;
    QTest::newRow("program") << QByteArray("MZ") + QByteArray(3000, 'x') << 5;
    QTest::newRow("StuffIt") << QByteArray("SIT!\0\x01\0\0\0\x10rLau\x01", 15) << 60;
    QTest::newRow("StuffIt 5") << QByteArray("StuffIt (c)1997-2001 Aladdin") << 60;
    QTest::newRow("StuffIt X") << QByteArray("StuffIt!") + QByteArray(30, 'x') << 60;
    QTest::newRow("BinHex") << QByteArray("Hi,\n(This file must be converted with BinHex 4.0)\n:") << 60;
    QTest::newRow("ARC") << QByteArray("\x1a\x02"
                                       "A.TXT\0",
                                       8) +
                                QByteArray(7, '\0') + little<quint32>(1) + QByteArray(10, '\0') + "x\x1a"
                         << 60;
    QTest::newRow("end-of-file mark, no ARC") << QByteArray("\x1a\x02 not an archive at all") << 0;
    QTest::newRow("arj") << arjMain + '\0' + arjRest + arjFile + '\0' << 30;
    QTest::newRow("arj, first entry encrypted") << arjMain + '\0' + arjRest + arjFile + '\x01' << 70;
    QTest::newRow("cab") << cabinet("plain.txt", "1234") << 30;
    QTest::newRow("cab with legacy names") << cabinet("\x95\x5c.txt", "1234") << 70;
    QTest::newRow("lha") << lha({lhaEntry("a", "x")}) << 30;
    QTest::newRow("zip") << QByteArray("PK\x03\x04") << 10;
    QTest::newRow("tar") << QByteArray("file") + QByteArray(253, '\0') + "ustar" << 0;
    QTest::newRow("nothing") << QByteArray() << 0;
    QTest::newRow("zeros") << QByteArray(2000, '\0') << 0;
}

void TestUnarEngine::bids()
{
    QFETCH(QByteArray, head);
    CVArchiveProbe probe;
    probe.head = head;
    probe.fileSize = head.size();
    QTEST(cvUnarBid(probe), "points");
}

void TestUnarEngine::listingSurvivesBrokenText()
{
    const QByteArray text =
        "{\n  \"lsarFormatVersion\": 2,\n"
        "This archive requires a password to unpack. Use the -p option to provide one.\n"
        "  \"lsarContents\": [\n"
        "    {\n      \"XADFileName\": \"a\\n    }\\u00e4\",\n      \"XADIndex\": 0\n    },\n"
        "    {\n      \"XADFileName\": \"cut\n    },\n"
        "    {\n      \"XADIndex\": 2,\n      \"XADFileName\": \"c\"\n    }\n"
        "  ],\n  \"lsarError\": 2,\n  \"lsarFormatName\": \"RAR 5\"\n";
    for (const qsizetype step : {qsizetype(1), qsizetype(7), text.size()}) {
        QStringList names;
        CVLsarListing listing([&](const QJsonObject &object) {
            names << object.value(QLatin1String("XADFileName")).toString();
            return true;
        });
        for (qsizetype at = 0; at < text.size(); at += step)
            QVERIFY(listing.add(QByteArrayView(text).sliced(at, std::min(step, text.size() - at))));
        QCOMPARE(names, (QStringList{QStringLiteral("a\n    }ä"), QStringLiteral("c")}));
        QCOMPARE(listing.brokenEntries(), 1);
        QCOMPARE(listing.error(), 2);
        QVERIFY(listing.needsPassword());
        QCOMPARE(listing.formatName(), QStringLiteral("RAR 5"));
    }
    CVLsarListing cut([](const QJsonObject &) { return true; });
    QVERIFY(cut.add("{\n  \"lsarContents\": [\n"));
    QVERIFY(cut.error() < 0);
    CVLsarListing endless([](const QJsonObject &) { return true; });
    bool taken = true;
    for (int i = 0; i < 100 && taken; ++i)
        taken = endless.add(QByteArray(100'000, 'x'));
    QVERIFY(!taken);
}

void TestUnarEngine::output_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArrayList>("results");
    QTest::newRow("both kinds")
        << QByteArray("x.rar: RAR\n  a b  (5 B)... OK.\n  c  (5 B)... Failed! (Wrong checksum)\n")
        << QByteArrayList{"a b  (5 B)+", "c  (5 B)-Wrong checksum"};
    QTest::newRow("prompt in between")
        << QByteArray("x.arj: ARJ\n  a  (1 B)... This archive requires a password to unpack.\n"
                      "Password (will not be shown): \nOK.\n  b  (1 B)... OK.\n")
        << QByteArrayList{"a  (1 B)+", "b  (1 B)+"};
    QTest::newRow("name with dots") << QByteArray("  wait... OK.  (1 B)... Failed! (Unknown error)\n")
                                    << QByteArrayList{"wait... OK.  (1 B)-Unknown error"};
    QTest::newRow("no entries") << QByteArray("OK.\nSuccessfully extracted to \"o\".\n") << QByteArrayList{};
}

void TestUnarEngine::output()
{
    QFETCH(QByteArray, text);
    CVUnarOutput parser;
    for (const char c : text)
        parser.add(QByteArrayView(&c, 1));
    QByteArrayList results;
    for (const CVUnarOutput::Result &result : parser.results())
        results << result.line + (result.ok ? '+' : '-') + result.reason;
    QTEST(results, "results");
    QVERIFY(!parser.isPrompting());
    parser.add("  x  (1 B)... This archive requires a password to unpack.\nPassword (will not be shown): ");
    QVERIFY(parser.isPrompting());
}

void TestUnarEngine::encryptedEntries_data()
{
    QTest::addColumn<QString>("archiver");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("password");
    QTest::newRow("arj") << "arj" << QStringList{"a", "-y", "-r", "-gsecret word", "made.arj", "data"}
                         << "secret word";
    QTest::newRow("zip") << "zip" << QStringList{"-r", "-e", "-P", "secret", "made.zip", "data"} << "secret";
    QTest::newRow("7z") << "7za" << QStringList{"a", "-psecrét", "made.7z", "data"} << "secrét";
}

void TestUnarEngine::encryptedEntries()
{
    QFETCH(QString, archiver);
    QFETCH(QStringList, arguments);
    QFETCH(QString, password);
    if (QStandardPaths::findExecutable(archiver).isEmpty())
        QSKIP("the archiver is not installed");
    QVERIFY(QDir(m_folder->path()).mkpath(QStringLiteral("data/deep")));
    const QByteArray big(3'000'000, 'b');
    writeFile(path("data/one.txt"), "first contents");
    writeFile(path("data/deep/two.bin"), big);
    runTool(archiver, arguments, m_folder->path());
    const QString archive = m_folder->filePath(arguments.filter(QStringLiteral("made.")).value(0));

    for (const bool right : {true, false}) {
        m_host.answer = right ? password : QStringLiteral("wrong");
        Code code = Code::None;
        const auto engine = openEngine(archive, &code);
        if (!right && (code == Code::PasswordWrongOpening || code == Code::PasswordOrDamage))
            continue; // some archives need it for the list already
        QVERIFY(engine);
        QVERIFY(engine->isEncrypted());
        Sink sink;
        QCOMPARE(extractAll(*engine, sink).code, Code::None);
        int files = 0;
        for (std::size_t i = 0; i < engine->entries().size(); ++i) {
            const XADEntry &entry = engine->entries()[i];
            const int index = static_cast<int>(i);
            if (entry.type != XADEntry::Type::File)
                continue;
            ++files;
            if (right) {
                QVERIFY2(sink.contents.contains(index), entry.name.constData());
                QCOMPARE(sink.contents[index],
                         entry.name == "data/one.txt" ? QByteArray("first contents") : big);
            } else {
                QVERIFY2(!sink.contents.contains(index), entry.name.constData());
                // Which of the two it is, the old formats do not tell.
                QVERIFY(sink.failures[index] == Code::Password ||
                        sink.failures[index] == Code::PasswordOrDamage);
            }
        }
        QCOMPARE(files, 2);
        QVERIFY(sink.largestBlock <= 1 << 20);
    }
    m_host = {};
    Code code = Code::None;
    const auto engine = openEngine(archive, &code);
    if (code == Code::PasswordMissing)
        return;
    QVERIFY(engine);
    Sink sink;
    extractAll(*engine, sink);
    QVERIFY(std::none_of(sink.contents.begin(), sink.contents.end(),
                         [](const auto &c) { return !c.second.isEmpty(); }));
    QVERIFY(std::all_of(sink.failures.begin(), sink.failures.end(),
                        [](const auto &f) { return f.second == Code::Password; }));
    QVERIFY(!sink.failures.empty());
}

void TestUnarEngine::tellsDamageFromWrongPasswords_data()
{
    QTest::addColumn<QString>("password");
    QTest::addColumn<int>("flipped");
    QTest::addColumn<Code>("code");
    QTest::newRow("right") << "secret" << -1 << Code::None;
    QTest::newRow("wrong") << "Secret" << -1 << Code::Password;
    QTest::newRow("damaged") << "secret" << 130 << Code::Damaged;
    QTest::newRow("wrong and damaged") << "Secret" << 130 << Code::Password;
}

/// A RAR 5, written by another program from the format's description, with a stored file whose only sum is
/// a keyed BLAKE2sp.
void TestUnarEngine::tellsDamageFromWrongPasswords()
{
    QFETCH(QString, password);
    QFETCH(int, flipped);
    QFETCH(Code, code);
    QByteArray bytes =
        QByteArray::fromHex("526172211a070100c51a33320301000007d5354d61020354200014a4830200010161300100030400"
                            "0102030405060708090a0b0c0d0e0f32333435363738393a3b3c3d3e3f40417fb24d71142fbac2da"
                            "8da503220200da8c3b30df470551b7b3c3e51abcbf7fc03a529d5a7ca75338bdebd6335bd5a0925d"
                            "66bb49c9380accdfbb1e30750aa03ff9e232de4c71b65e786c53441242b819b23a3503050000");
    if (flipped >= 0)
        bytes[flipped] = char(bytes[flipped] ^ 1);
    writeFile(path("key.rar"), bytes);
    m_host.answer = password;
    const auto engine = openEngine(path("key.rar"));
    QVERIFY(engine);
    Sink sink;
    QCOMPARE(extractAll(*engine, sink).code, Code::None);
    if (code == Code::None)
        QCOMPARE(sink.contents[0], "contents under a key");
    else
        QCOMPARE(sink.failures[0], code);
}

void TestUnarEngine::encryptedNames_data()
{
    QTest::addColumn<QString>("answer");
    QTest::addColumn<int>("code");
    QTest::newRow("right") << "sécret $x" << static_cast<int>(Code::None);
    QTest::newRow("wrong") << "other" << static_cast<int>(Code::PasswordOrDamage);
    QTest::newRow("none") << QString() << static_cast<int>(Code::PasswordMissing);
}

void TestUnarEngine::encryptedNames()
{
    QFETCH(QString, answer);
    QFETCH(int, code);
    if (QStandardPaths::findExecutable(QStringLiteral("7za")).isEmpty())
        QSKIP("7za is not installed");
    writeFile(path("hidden.txt"), "hidden contents");
    runTool(QStringLiteral("7za"), {"a", "-psécret $x", "-mhe=on", "made.7z", "hidden.txt"},
            m_folder->path());
    if (!answer.isNull())
        m_host.answer = answer;
    Code got = Code::Damaged;
    const auto engine = openEngine(path("made.7z"), &got);
    QCOMPARE(static_cast<int>(got), code);
    QCOMPARE(engine != nullptr, got == Code::None);
    if (!engine)
        return;
    QCOMPARE(engine->entries().size(), 1U);
    QCOMPARE(engine->entries()[0].name, QByteArray("hidden.txt"));
    Sink sink;
    QCOMPARE(extractAll(*engine, sink).code, Code::None);
    QCOMPARE(sink.contents[0], QByteArray("hidden contents"));
}

void TestUnarEngine::namesInTheWayOfEachOther()
{
    // Equal names, a file where others need a folder, names that a file system cannot take.
    const QByteArrayList names{"a",
                               "a",
                               "a/b",
                               "a",
                               "c\x01"
                               "d",
                               "..",
                               "x/../../y"};
    QByteArrayList entries;
    for (qsizetype i = 0; i < names.size(); ++i)
        entries << lhaEntry(names[i], "contents " + QByteArray::number(i));
    writeFile(path("made.lzh"), lha(entries));
    const auto engine = openEngine(path("made.lzh"));
    QVERIFY(engine);
    QCOMPARE(engine->entries().size(), static_cast<std::size_t>(names.size()));
    Sink sink;
    extractAll(*engine, sink);
    for (int i = 0; i < 4; ++i)
        QCOMPARE(sink.contents[i], "contents " + QByteArray::number(i));
    // Whatever becomes of the odd ones, none gets the contents of another, and each is accounted for.
    for (int i = 4; i < names.size(); ++i) {
        QVERIFY(sink.contents.contains(i) != sink.failures.contains(i));
        if (sink.contents.contains(i))
            QCOMPARE(sink.contents[i], "contents " + QByteArray::number(i));
    }
    QVERIFY(!QFile::exists(sink.staging.filePath(QStringLiteral("../y"))));
}

void TestUnarEngine::selectedEntriesOnly()
{
    writeFile(path("made.lzh"), lha({lhaEntry("a", "one"), lhaEntry("b", "two"), lhaEntry("c", "three")}));
    const auto engine = openEngine(path("made.lzh"));
    QVERIFY(engine);
    Sink sink;
    const std::vector<int> wanted{0, 2};
    QCOMPARE(engine->extract(wanted, false, sink).code, Code::None);
    QCOMPARE(sink.contents, (std::map<int, QByteArray>{{0, "one"}, {2, "three"}}));
    QVERIFY(sink.failures.empty());
}

void TestUnarEngine::damagedEntryFailsAlone()
{
    writeFile(path("made.lzh"),
              lha({lhaEntry("a", "one"), lhaEntry("b", "two", true), lhaEntry("c", "three")}));
    const auto engine = openEngine(path("made.lzh"));
    QVERIFY(engine);
    Sink sink;
    extractAll(*engine, sink);
    QCOMPARE(sink.contents, (std::map<int, QByteArray>{{0, "one"}, {2, "three"}}));
    QCOMPARE(sink.failures, (std::map<int, Code>{{1, Code::Damaged}}));
}

void TestUnarEngine::damagedCabinetFails()
{
    QByteArray bytes = cabinet("a.txt", "contents");
    writeFile(path("good.cab"), bytes);
    QCOMPARE(cvCheckCabinet(path("good.cab"), [] { return false; }), CVCabState::Good);
    const auto good = openEngine(path("good.cab"));
    QVERIFY(good);
    Sink whole;
    QCOMPARE(extractAll(*good, whole).code, Code::None);
    QCOMPARE(whole.contents[0], QByteArray("contents"));

    bytes[bytes.size() - 1] = 'X';
    writeFile(path("bad.cab"), bytes);
    const auto bad = openEngine(path("bad.cab"));
    QVERIFY(bad);
    Sink sink;
    QCOMPARE(extractAll(*bad, sink).code, Code::Damaged);
    QVERIFY(sink.contents.empty());
    bytes.chop(3);
    writeFile(path("short.cab"), bytes);
    QCOMPARE(cvCheckCabinet(path("short.cab"), [] { return false; }), CVCabState::Damaged);
}

void TestUnarEngine::legacyNamesKeepTheirBytes()
{
    const QByteArray cp866 = "\x8f\xe0\xa8\xa2\xa5\xe2.txt";
    writeFile(path("made.lzh"), lha({lhaEntry(cp866, "one"), lhaEntry("plain", "two")}));
    const auto engine = openEngine(path("made.lzh"));
    QVERIFY(engine);
    const XADEntry &entry = engine->entries()[0];
    if (entry.nameEncoding == CVNameEncoding::Unmarked)
        QCOMPARE(entry.name, cp866);
    else
        QCOMPARE(QString::fromUtf8(entry.name), QStringLiteral("Привет.txt"));
    Sink sink;
    QCOMPARE(extractAll(*engine, sink).code, Code::None);
    QCOMPARE(sink.contents, (std::map<int, QByteArray>{{0, "one"}, {1, "two"}}));
}

void TestUnarEngine::neighboursAreNotVolumes()
{
    writeFile(path("x.arj"), QByteArray("\x60\xea", 2));
    const QByteArray archive = lha({lhaEntry("a", "one")});
    for (const char *name : {"x.a01", "x.A02", "x.arj.bak", "y.a01", "xa01"})
        writeFile(path(name), "x");
    writeFile(path("x.arj"), archive); // the bytes decide what it is, the name which files belong to it
    const auto engine = openEngine(path("x.arj"));
    QVERIFY(engine);
    QStringList volumes = engine->volumePaths();
    volumes.sort();
    QCOMPARE(volumes, (QStringList{path("x.A02"), path("x.a01"), path("x.arj")}));
}

void TestUnarEngine::stopEndsExtraction()
{
    writeFile(path("made.lzh"), lha({lhaEntry("a", QByteArray(100'000, 'x')), lhaEntry("b", "two")}));
    const auto engine = openEngine(path("made.lzh"));
    QVERIFY(engine);
    Sink sink;
    sink.stop = true;
    QCOMPARE(extractAll(*engine, sink).code, Code::Stopped);
    m_host.stop = true;
    Code code = Code::None;
    QVERIFY(!openEngine(path("made.lzh"), &code));
    QCOMPARE(code, Code::Stopped);
}

/// Doubles of unar and lsar that write down what every user of the machine could see of them, because the
/// real ones are gone too soon to look. They list one encrypted entry and take the password at the prompt.
void TestUnarEngine::passwordIsNowhereToBeRead()
{
    // Confined children cannot write here, so the doubles print it as the entry's name and contents; nor can
    // they start programs, so the shell has to do alone.
    installDouble("CORVANE_TOOL_LSAR",
                  "printf '{\\n  \"lsarContents\": [\\n    {\\n      \"XADFileName\": \"a\",\\n      "
                  "\"XADIndex\": 0,\\n"
                  "      \"XADIsEncrypted\": 1\\n    }\\n  ],\\n  \"lsarFormatName\": \"Double\"\\n}\\n'\n");
    installDouble(
        "CORVANE_TOOL_UNAR",
        "printf 'x: Double\\n  a  (1 B)... This archive requires a password to unpack.\\n'\n"
        "printf 'Password (will not be shown): '\nread -r word < /dev/tty\n"
        "read -r line < /proc/$$/cmdline\n{ echo \"$line\"; export -p; echo \"typed=$word\"; } > a\n"
        "printf '\\nOK.\\n'\n");
    writeFile(path("made.lzh"), lha({lhaEntry("a", "one")}));
    m_host.answer = QStringLiteral("top secret");
    const auto engine = openEngine(path("made.lzh"));
    QVERIFY(engine);
    Sink sink;
    QCOMPARE(extractAll(*engine, sink).code, Code::None);
    const QByteArray visible = sink.contents[0];
    QVERIFY2(visible.contains("\ntyped=top secret\n"), visible.constData());
    QCOMPARE(visible.count("top secret"), 1);
}

/// A double of unar that leaves a link where the entry should be: what it points to is never read.
void TestUnarEngine::plantedLinkIsNotFollowed()
{
    writeFile(path("outside"), "private");
    writeFile(path("made.lzh"), lha({lhaEntry("a", "one"), lhaEntry("d/b", "two")}));
    installDouble("CORVANE_TOOL_UNAR",
                  "printf 'x: Double\\n'\nmkdir real; echo private > real/b\nln -sf '" +
                      QFile::encodeName(path("outside")) +
                      "' a\nln -s real d\nprintf '  a  (3 B)... OK.\\n  d/b  (3 B)... OK.\\n'\n");
    const auto engine = openEngine(path("made.lzh"));
    QVERIFY(engine);
    Sink sink;
    extractAll(*engine, sink);
    QVERIFY(sink.contents.empty());
    QCOMPARE(sink.failures.size(), 2U);
}

QTEST_GUILESS_MAIN(TestUnarEngine)
#include "tst_unarengine.moc"
