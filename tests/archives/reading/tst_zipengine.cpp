#include "archives/reading/CVZipEngine.h"
#include "archives/reading/RecordingSink.h"
#include "support/ArchiveBytes.h"

#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <zlib.h>

#include <numeric>
#include <optional>

#include <sys/stat.h>

namespace {

/// One entry, and in what its headers differ from the truth.
struct Part
{
    QByteArray name = {};
    QByteArray data = {};
    bool deflate = false;
    QByteArray packed = {}; ///< instead of what `data` packs to
    quint16 flags = 0;
    quint16 localFlags = 0;
    quint16 method = 0xffff; ///< as the directory has it
    quint8 host = 3;
    quint32 attributes = 0100644u << 16;
    quint32 dosTime = 0x52345678; ///< date and time
    quint16 disk = 0;
    QByteArray extra = {};
    QByteArray localExtra = {};
    std::optional<QByteArray> localName = {};
    std::optional<quint32> crc = {}; ///< in the directory
    std::optional<quint32> localCrc = {};
    std::optional<quint32> size = {};       ///< in both
    std::optional<quint32> packedSize = {}; ///< in the directory
    std::optional<quint32> localSizes = {}; ///< both sizes in the local header
    std::optional<quint32> offset = {};
    QByteArray gap = {}; ///< behind the data
    bool hasDescriptor = false;
};

struct Frame
{
    QByteArray prefix = {};
    bool offsetsCountPrefix = false;
    QByteArray comment = {};
    quint16 statedCommentSize = 0xffff; ///< or the true one
    QByteArray behind = {};
    QByteArray beforeEnd = {};
    int countError = 0;
    int directorySizeError = 0;
    quint16 disk = 0;
    bool wide = false;     ///< ZIP64 end records
    bool reversed = false; ///< directory in the other order than the data
};

QByteArray le(quint64 value, int bytes)
{
    QByteArray out;
    for (int i = 0; i < bytes; ++i)
        out.append(char(value >> (8 * i)));
    return out;
}

QByteArray field(quint16 id, const QByteArray &data)
{
    return le(id, 2) + le(quint64(data.size()), 2) + data;
}

quint32 crcOf(const QByteArray &data)
{
    return quint32(::crc32(0, reinterpret_cast<const Bytef *>(data.constData()), uInt(data.size())));
}

QByteArray deflated(const QByteArray &data)
{
    const QByteArray wrapped = qCompress(data); // length, zlib header, stream, checksum
    return wrapped.mid(6, wrapped.size() - 10);
}

QByteArray zipOf(const QList<Part> &parts, const Frame &frame = {})
{
    QByteArray out = frame.prefix;
    const quint64 base = frame.offsetsCountPrefix ? 0 : quint64(frame.prefix.size());
    QList<QByteArray> directory;
    for (const Part &part : parts) {
        const QByteArray packed = !part.packed.isEmpty() ? part.packed
                                  : part.deflate         ? deflated(part.data)
                                                         : part.data;
        const quint32 crc = crcOf(part.data);
        const quint16 method = part.deflate ? 8 : 0;
        const QByteArray localName = part.localName.value_or(part.name);
        const quint32 size = part.size.value_or(quint32(part.data.size()));
        const quint64 offset = quint64(out.size()) - base;
        const bool later = part.hasDescriptor;
        const quint16 flags = part.flags | (later ? 8 : 0);
        out += le(0x04034b50, 4) + le(20, 2) + le(flags | part.localFlags, 2) + le(method, 2) +
               le(part.dosTime, 4) + le(later ? 0 : part.localCrc.value_or(crc), 4) +
               le(later ? 0 : part.localSizes.value_or(quint32(packed.size())), 4) +
               le(later ? 0 : part.localSizes.value_or(size), 4) + le(quint64(localName.size()), 2) +
               le(quint64(part.localExtra.size()), 2) + localName + part.localExtra + packed;
        if (later)
            out += le(0x08074b50, 4) + le(crc, 4) + le(quint64(packed.size()), 4) + le(size, 4);
        out += part.gap;
        directory += le(0x02014b50, 4) + le(quint64(part.host) << 8 | 30, 2) + le(20, 2) + le(flags, 2) +
                     le(part.method == 0xffff ? method : part.method, 2) + le(part.dosTime, 4) +
                     le(part.crc.value_or(crc), 4) + le(part.packedSize.value_or(quint32(packed.size())), 4) +
                     le(size, 4) + le(quint64(part.name.size()), 2) + le(quint64(part.extra.size()), 2) +
                     le(0, 2) + le(part.disk, 2) + le(0, 2) + le(part.attributes, 4) +
                     le(part.offset.value_or(quint32(offset)), 4) + part.name + part.extra;
    }
    if (frame.reversed)
        std::reverse(directory.begin(), directory.end());
    const quint64 start = quint64(out.size()) - base;
    const QByteArray records = directory.join();
    out += records + frame.beforeEnd;
    const quint64 size = quint64(qint64(records.size()) + frame.directorySizeError);
    const quint64 count = quint64(parts.size() + frame.countError);
    if (frame.wide) {
        const quint64 end64 = quint64(out.size()) - base;
        out += le(0x06064b50, 4) + le(44, 8) + le(45, 2) + le(45, 2) + le(0, 8) + le(count, 8) +
               le(count, 8) + le(size, 8) + le(start, 8);
        out += le(0x07064b50, 4) + le(0, 4) + le(end64, 8) + le(1, 4);
    }
    const quint64 commentSize =
        frame.statedCommentSize == 0xffff ? quint64(frame.comment.size()) : frame.statedCommentSize;
    out += le(0x06054b50, 4) + le(frame.disk, 2) + le(frame.disk, 2) + le(frame.wide ? 0xffff : count, 2) +
           le(frame.wide ? 0xffff : count, 2) + le(frame.wide ? 0xffffffff : size, 4) +
           le(frame.wide ? 0xffffffff : start, 4) + le(commentSize, 2) + frame.comment;
    return out + frame.behind;
}

QByteArray words(int count)
{
    QByteArray out;
    for (int i = 0; i < count; ++i)
        out += "line " + QByteArray::number(i * i) + '\n';
    return out;
}

QString place(const QTemporaryDir &folder, const QByteArray &bytes)
{
    const QString path = folder.filePath(QStringLiteral("a.zip"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        qFatal("cannot write the test's archive");
    return path;
}

CVEngineDescriptor::OpenOutcome open(const QString &path)
{
    RecordingHost host;
    return cvZipEngineDescriptor().open(probeOf(path), host);
}

CVReadingEngine::Outcome extractAll(CVReadingEngine &engine, CVEntrySink &sink)
{
    std::vector<int> indices(engine.entries().size());
    std::iota(indices.begin(), indices.end(), 0);
    return engine.extract(indices, true, sink);
}

const Part good{.name = "good.txt", .data = "good", .deflate = true};

} // namespace

class tst_ZipEngine : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void takesOnlyWhatIsOrdinary_data();
    void takesOnlyWhatIsOrdinary();
    void describesEntries_data();
    void describesEntries();
    void tellsDamageFromData_data();
    void tellsDamageFromData();
    void entriesThatShareDataFail();
    void missesWhatTheDirectoryDoesNotName_data();
    void missesWhatTheDirectoryDoesNotName();
    void readsArchivesOfTools_data();
    void readsArchivesOfTools();
    void streamsWhatIsTooLarge_data();
    void streamsWhatIsTooLarge();
    void manyEntriesAtOnce_data();
    void manyEntriesAtOnce();
    void chosenEntriesOnly();
    void stopsWithinABlock();
    void survivesAFileCutShort();
};

void tst_ZipEngine::takesOnlyWhatIsOrdinary_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("bid");
    QTest::addColumn<int>("entries"); // below zero: left to other engines

    const auto row = [](const char *name, const QByteArray &bytes, int bid, int entries) {
        QTest::newRow(name) << bytes << bid << entries;
    };
    const QByteArray plain = zipOf({good});
    row("plain", plain, 90, 1);
    row("nothing in it", zipOf({}), 90, 0);
    row("comment", zipOf({good}, {.comment = "said"}), 90, 1);
    row("comment of full length", zipOf({good}, {.comment = QByteArray(0xffff - 1, 'c')}), 90, 1);
    row("end mark within the comment", zipOf({good}, {.comment = "PK\x05\x06 and so on, for twenty bytes"}),
        90, 1);
    row("comment cut off", zipOf({good}, {.comment = "said", .statedCommentSize = 9}), 0, -1);
    row("something behind", zipOf({good}, {.behind = QByteArray(1000, '\0')}), 90, 1);
    row("program in front", zipOf({good}, {.prefix = "MZ" + QByteArray(500, 'x')}), 85, 1);
    row("script in front, offsets whole",
        zipOf({good}, {.prefix = "#!/bin/sh\n", .offsetsCountPrefix = true}), 85, 1);
    row("something in front, wide", zipOf({good}, {.prefix = "junk", .wide = true}), 30, 1);
    row("other archive with a zip inside",
        zipOf({good}, {.prefix = "ustar", .behind = QByteArray(512, '\0')}), 0, 1);
    row("mark of a set in front", zipOf({good}, {.prefix = "PK\x07\x08", .offsetsCountPrefix = true}), 90, 1);
    row("wide", zipOf({good}, {.wide = true}), 90, 1);
    QByteArray narrowToo = zipOf({good}, {.wide = true});
    narrowToo.replace(narrowToo.size() - 10, 8, QByteArray(le(500, 4) + le(8, 4)));
    row("wide, narrow fields false", narrowToo, 90, 1);
    row("wide, with a false place", QByteArray(narrowToo).replace(narrowToo.size() - 50, 1, "\xff"), 90, -1);
    row("gap before the directory", zipOf({{.name = "a", .gap = QByteArray(5000, 'g')}}), 90, 1);

    row("cut off", plain.first(plain.size() - 30), 0, -1);
    row("one entry more than stated", zipOf({good, good}, {.countError = -1}), 90, -1);
    row("one entry less than stated", zipOf({good}, {.countError = 1}), 90, -1);
    row("wide with a false count", zipOf({good}, {.countError = 1000000, .wide = true}), 90, -1);
    row("directory too short", zipOf({good}, {.directorySizeError = -1}), 90, -1);
    row("directory too long", zipOf({good}, {.directorySizeError = 1}), 90, -1);
    row("directory beyond the file", zipOf({good}, {.directorySizeError = 1 << 30}), 90, -1);
    row("something before the end", zipOf({good}, {.beforeEnd = QByteArray(9, 'x')}), 90, -1);
    row("second disk", zipOf({good}, {.disk = 1}), 0, -1);
    row("entry on a second disk", zipOf({good, {.name = "a", .disk = 1}}), 90, -1);
    row("encrypted", zipOf({good, {.name = "a", .data = "x", .flags = 1}}), 90, -1);
    row("other method", zipOf({good, {.name = "a", .data = "x", .method = 12}}), 90, -1);
    row("entry beyond the directory", zipOf({good, {.name = "a", .data = "x", .packedSize = 500}}), 90, -1);
    row("offset beyond the directory", zipOf({good, {.name = "a", .data = "x", .offset = 5000}}), 90, -1);
    row("no entry at the first offset", zipOf({{.name = "a", .data = "xxxx", .offset = 1, .gap = "gap"}}), 90,
        -1);
    row("wide field missing", zipOf({{.name = "a", .data = "x", .size = 0xffffffff}}), 90, -1);
    row("wide field too short",
        zipOf({{.name = "a", .data = "x", .extra = field(1, le(1, 4)), .size = 0xffffffff}}), 90, -1);
    row("wide packed size that overflows",
        zipOf({{.name = "a", .data = "x", .extra = field(1, le(~quint64(0), 8)), .packedSize = 0xffffffff}}),
        90, -1);
    row("two names", zipOf({{.name = "a", .extra = field(0x7075, "\1" + le(77, 4) + "b")}}), 90, -1);
    row("not a zip", QByteArray(5000, 'P'), 0, -1);
    row("first bytes only", "PK\x03\x04", 0, -1);
}

void tst_ZipEngine::takesOnlyWhatIsOrdinary()
{
    QFETCH(QByteArray, bytes);
    QFETCH(int, entries);
    QTemporaryDir folder;
    const QString path = place(folder, bytes);

    QTEST(cvZipEngineDescriptor().bid(probeOf(path)), "bid");
    const CVEngineDescriptor::OpenOutcome outcome = open(path);
    if (entries < 0) {
        QVERIFY(!outcome.engine);
        QCOMPARE(int(outcome.code), int(XADErrorCode::NotSupported));
        return;
    }
    QVERIFY2(outcome.engine, qPrintable(outcome.detail));
    QCOMPARE(int(outcome.engine->entries().size()), entries);
    RecordingSink sink(*outcome.engine);
    QCOMPARE(int(extractAll(*outcome.engine, sink).code), int(XADErrorCode::None));
    for (const auto &[index, record] : sink.records)
        QVERIFY2(record.code == XADErrorCode::None, qPrintable(record.detail));
    QCOMPARE(int(sink.records.size()), entries);
}

void tst_ZipEngine::describesEntries_data()
{
    QTest::addColumn<Part>("part");
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("mode"); // below zero: none
    QTest::addColumn<bool>("isUtf8");
    QTest::addColumn<qint64>("modified"); // seconds

    using Type = XADEntry::Type;
    const auto row = [](const char *label, const Part &part, const QByteArray &name, Type type, int mode,
                        bool utf8, qint64 seconds) {
        QTest::newRow(label) << part << name << int(type) << mode << utf8 << seconds;
    };
    const quint32 dosTime =
        (quint32(40 << 9 | 2 << 5 | 29) << 16) | (13 << 11 | 14 << 5 | 8); // 2020-02-29 13:14:16
    const qint64 asUtc = 1582982056;
    row("file", {.name = "a/b", .dosTime = dosTime}, "a/b", Type::File, 0644, false, asUtc);
    row("no time", {.name = "a", .dosTime = 0}, "a", Type::File, 0644, false, -1);
    row("unix time before 1970", {.name = "a", .extra = field(0x5455, "\1" + le(quint32(-5), 4))}, "a",
        Type::File, 0644, false, -5);
    row("ntfs time",
        {.name = "a",
         .extra = field(0xa, le(0, 4) + le(1, 2) + le(24, 2) + le(116444736000000000 + 70000000, 8) +
                                 le(0, 8) + le(0, 8))},
        "a", Type::File, 0644, false, 7);
    row("fields cut off", {.name = "a", .dosTime = dosTime, .extra = field(0xa, "12345") + "\x55"}, "a",
        Type::File, 0644, false, asUtc);
    row("set-uid mode", {.name = "a", .attributes = 0104755u << 16, .dosTime = 0}, "a", Type::File, 04755,
        false, -1);
    row("folder by name", {.name = "a/", .dosTime = 0}, "a/", Type::Directory, 0644, false, -1);
    row("folder by mode", {.name = "a", .attributes = 040700u << 16, .dosTime = 0}, "a", Type::Directory,
        0700, false, -1);
    row("folder by dos attribute", {.name = "a", .host = 0, .attributes = 0x10, .dosTime = 0}, "a",
        Type::Directory, -1, false, -1);
    row("link", {.name = "a", .data = "b", .host = 19, .attributes = 0120777u << 16, .dosTime = 0}, "a",
        Type::Symlink, 0777, false, -1);
    row("device", {.name = "a", .attributes = 020666u << 16, .dosTime = 0}, "a", Type::Special, 0666, false,
        -1);
    row("packed from a pipe", {.name = "-", .data = "x", .attributes = 010600u << 16, .dosTime = 0}, "-",
        Type::File, 0600, false, -1);
    row("link longer than any path",
        {.name = "a", .data = QByteArray(4096, 'x'), .attributes = 0120777u << 16, .dosTime = 0}, "a",
        Type::File, 0777, false, -1);
    row("data that is called a folder",
        {.name = "a", .data = "x", .host = 0, .attributes = 0x10, .dosTime = 0}, "a", Type::File, -1, false,
        -1);
    row("backslashes of dos", {.name = "a\\b\\c", .host = 0, .attributes = 0x20, .dosTime = 0}, "a/b/c",
        Type::File, -1, false, -1);
    row("folder by backslash", {.name = "a\\", .host = 10 + 1, .attributes = 0x20, .dosTime = 0}, "a/",
        Type::Directory, -1, false, -1);
    row("backslash in another charset", {.name = "\x95\\x", .host = 0, .attributes = 0, .dosTime = 0},
        "\x95\\x", Type::File, -1, false, -1);
    row("backslash of unix", {.name = "a\\b", .dosTime = 0}, "a\\b", Type::File, 0644, false, -1);
    row("utf-8", {.name = "\xc3\xa4", .flags = 0x800, .dosTime = 0}, "\xc3\xa4", Type::File, 0644, true, -1);
    row("utf-8 mark on other bytes", {.name = "\xe4", .flags = 0x800, .dosTime = 0}, "\xe4", Type::File, 0644,
        false, -1);
    row("second name",
        {.name = "\x84", .dosTime = 0, .extra = field(0x7075, "\1" + le(crcOf("\x84"), 4) + "\xc3\xa4")},
        "\xc3\xa4", Type::File, 0644, true, -1);
    row("NUL in the name", {.name = QByteArray("a\0b", 3), .dosTime = 0}, QByteArray("a\0b", 3), Type::File,
        0644, false, -1);
    row("no name", {.name = "", .dosTime = 0}, "", Type::File, 0644, false, -1);
}

void tst_ZipEngine::describesEntries()
{
    QFETCH(Part, part);
    QFETCH(int, mode);
    QFETCH(qint64, modified);
    QTemporaryDir folder;
    const auto outcome = open(place(folder, zipOf({part})));
    QVERIFY2(outcome.engine, qPrintable(outcome.detail));
    const XADEntry &entry = outcome.engine->entries().at(0);
    QTEST(entry.name, "name");
    QTEST(int(entry.type), "type");
    QCOMPARE(entry.hasMode, mode >= 0);
    if (mode >= 0)
        QCOMPARE(int(entry.mode), mode);
    QTEST(entry.nameEncoding == CVNameEncoding::Utf8, "isUtf8");
    QCOMPARE(entry.size, part.data.size());
    QCOMPARE(entry.modified, modified == -1 ? XADEntry::unknownTime : modified * 1000000000);

    RecordingSink sink(*outcome.engine);
    extractAll(*outcome.engine, sink);
    QCOMPARE(int(sink.records.at(0).code), int(XADErrorCode::None));
    QCOMPARE(sink.records.at(0).bytes, part.data);
}

void tst_ZipEngine::tellsDamageFromData_data()
{
    QTest::addColumn<Part>("part");
    QTest::addColumn<bool>("isGood");

    const QByteArray text = words(3000);
    const QByteArray packed = deflated(text);
    const quint32 size = quint32(text.size());
    const auto row = [](const char *name, const Part &part, bool isGood) {
        QTest::newRow(name) << part << isGood;
    };
    row("deflated", {.name = "a", .data = text, .deflate = true}, true);
    row("stored", {.name = "a", .data = text}, true);
    row("empty", {.name = "a"}, true);
    row("empty, deflated", {.name = "a", .deflate = true}, true);
    row("descriptor", {.name = "a", .data = text, .deflate = true, .hasDescriptor = true}, true);
    row("descriptor behind stored data", {.name = "a", .data = text, .hasDescriptor = true}, true);
    row("descriptor only the local header knows of",
        {.name = "a", .data = text, .deflate = true, .localFlags = 8, .localCrc = 0, .localSizes = 0}, true);
    row("no sizes in the local header", {.name = "a", .data = text, .localCrc = 0, .localSizes = 0}, true);
    row("long local extra field",
        {.name = "a", .data = text, .localExtra = field(0x9999, QByteArray(60000, 'e'))}, true);
    row("broken local extra field", {.name = "a", .data = text, .localExtra = "\x01\x02\xff\xff\x05"}, true);
    row("gap behind the data", {.name = "a", .data = text, .gap = QByteArray(100000, 'g')}, true);
    row("wide fields",
        {.name = "a",
         .data = text,
         .extra = field(1, le(size, 8) + le(size, 8)),
         .localExtra = field(1, le(size, 8) + le(size, 8)),
         .size = 0xffffffff,
         .packedSize = 0xffffffff,
         .localSizes = 0xffffffff},
        true);
    row("wide descriptor without a mark",
        {.name = "a",
         .data = text,
         .localFlags = 8,
         .localCrc = 0,
         .localSizes = 0,
         .gap = le(crcOf(text), 4) + le(size, 8) + le(size, 8)},
        true);
    row("separator differs", {.name = "a/b", .data = text, .localName = "a\\b"}, true);

    row("wide sizes differ",
        {.name = "a",
         .data = text,
         .localExtra = field(1, le(size + 1, 8) + le(size, 8)),
         .localSizes = 0xffffffff},
        false);
    row("local wide field missing", {.name = "a", .data = text, .localSizes = 0xffffffff}, false);
    row("checksum", {.name = "a", .data = text, .deflate = true, .crc = 1, .localCrc = 1}, false);
    row("checksum of stored data", {.name = "a", .data = text, .crc = 1, .localCrc = 1}, false);
    row("checksum of nothing", {.name = "a", .crc = 1, .localCrc = 1}, false);
    row("local checksum", {.name = "a", .data = text, .localCrc = 1}, false);
    row("directory's checksum", {.name = "a", .data = text, .crc = 1}, false);
    row("local sizes", {.name = "a", .data = text, .localSizes = 1}, false);
    row("descriptor's checksum",
        {.name = "a",
         .data = text,
         .localFlags = 8,
         .localCrc = 0,
         .localSizes = 0,
         .gap = le(0x08074b50, 4) + le(1, 4) + le(size, 4) + le(size, 4)},
        false);
    row("local name", {.name = "a", .data = text, .localName = "b"}, false);
    row("local name longer", {.name = "a", .data = text, .localName = "ab"}, false);
    row("method", {.name = "a", .data = text, .method = 8}, false);
    row("encrypted locally", {.name = "a", .data = text, .localFlags = 1}, false);
    row("stream longer than declared", {.name = "a", .data = text, .deflate = true, .size = size - 1}, false);
    row("stream shorter than declared", {.name = "a", .data = text, .deflate = true, .size = size + 1},
        false);
    row("size deflate cannot reach", {.name = "a", .data = text, .deflate = true, .size = 0xfffffff0}, false);
    row("stored sizes differ", {.name = "a", .data = text, .size = size - 1}, false);
    row("stream broken off", {.name = "a", .data = text, .deflate = true, .packed = packed.chopped(5)},
        false);
    row("something behind the stream", {.name = "a", .data = text, .deflate = true, .packed = packed + "x"},
        false);
    row("nothing deflated", {.name = "a", .data = text, .deflate = true, .packedSize = 0}, false);
    QByteArray flipped = packed;
    flipped[flipped.size() / 2] = char(flipped[flipped.size() / 2] ^ 0x10);
    row("one bit", {.name = "a", .data = text, .deflate = true, .packed = flipped}, false);
}

/// Whatever one entry is like, its neighbours stay whole.
void tst_ZipEngine::tellsDamageFromData()
{
    QFETCH(Part, part);
    QFETCH(bool, isGood);
    QTemporaryDir folder;
    const auto outcome = open(place(folder, zipOf({good, part, good})));
    QVERIFY2(outcome.engine, qPrintable(outcome.detail));
    RecordingSink sink(*outcome.engine);
    sink.keepBytes = 1 << 20;
    QCOMPARE(int(extractAll(*outcome.engine, sink).code), int(XADErrorCode::None));
    for (const int neighbour : {0, 2}) {
        QCOMPARE(int(sink.records.at(neighbour).code), int(XADErrorCode::None));
        QCOMPARE(sink.records.at(neighbour).bytes, good.data);
    }
    const RecordingSink::Record &record = sink.records.at(1);
    QVERIFY2((record.code == XADErrorCode::None) == isGood, qPrintable(record.detail));
    if (isGood) {
        QCOMPARE(record.bytes, part.data);
    } else {
        QCOMPARE(int(record.code), int(XADErrorCode::Damaged));
        QVERIFY2(!sink.begun.contains(1), "a file was begun for data that is known to be bad");
    }
}

void tst_ZipEngine::entriesThatShareDataFail()
{
    QTemporaryDir folder;
    const Part zeros{.name = "a", .data = QByteArray(100000, '\0'), .deflate = true};
    Part again = zeros;
    again.offset = 0;
    // The third claims to reach into the fourth.
    const Part over{.name = "b", .data = "short", .packed = "short", .size = 30, .packedSize = 30};
    const auto outcome = open(place(folder, zipOf({zeros, again, over, good, good})));
    QVERIFY2(outcome.engine, qPrintable(outcome.detail));
    RecordingSink sink(*outcome.engine);
    extractAll(*outcome.engine, sink);
    for (const int index : {0, 1, 2})
        QCOMPARE(int(sink.records.at(index).code), int(XADErrorCode::Damaged));
    QCOMPARE(int(sink.records.at(4).code), int(XADErrorCode::None));
    QCOMPARE(sink.written, 2 * good.data.size());
    QVERIFY(outcome.engine->isDamageFinal());
}

void tst_ZipEngine::missesWhatTheDirectoryDoesNotName_data()
{
    QTest::addColumn<QByteArray>("bytes");
    const QByteArray whole = zipOf({{.name = "hidden", .data = "x", .hasDescriptor = true}});
    const QByteArray hidden = whole.first(whole.indexOf("PK\x01\x02"));
    QTest::newRow("in front") << zipOf({good}, {.prefix = hidden, .offsetsCountPrefix = true});
    QTest::newRow("between") << zipOf({{.name = "a", .data = "x", .gap = hidden}, good});
    QTest::newRow("behind a descriptor")
        << zipOf({good, {.name = "a", .data = "x", .gap = hidden, .hasDescriptor = true}});
    QTest::newRow("all of them") << zipOf({}, {.prefix = hidden, .offsetsCountPrefix = true});
}

/// What is there comes out, and the archive does not pass for whole.
void tst_ZipEngine::missesWhatTheDirectoryDoesNotName()
{
    QFETCH(QByteArray, bytes);
    QTemporaryDir folder;
    const auto outcome = open(place(folder, bytes));
    QVERIFY2(outcome.engine, qPrintable(outcome.detail));
    RecordingSink sink(*outcome.engine);
    QCOMPARE(int(extractAll(*outcome.engine, sink).code), int(XADErrorCode::Damaged));
    for (const auto &[index, record] : sink.records)
        QCOMPARE(int(record.code), int(XADErrorCode::None));
}

void tst_ZipEngine::readsArchivesOfTools_data()
{
    QTest::addColumn<QString>("command"); // in a folder with "in", makes "out.zip"
    QTest::newRow("zip") << QStringLiteral("zip -qry out.zip in");
    // The zip of Debian 12.0 cannot store links into a pipe; its later releases can.
    QTest::newRow("zip to a pipe") << QStringLiteral("zip -qry - in 2>zip.err | cat > out.zip\n"
                                                     "test -s zip.err || exit 0\n"
                                                     "bsdtar -c --format zip -f - in | cat > out.zip");
    QTest::newRow("zip of standard input, wide") << QStringLiteral("zip -qry -fz out.zip in");
    QTest::newRow("7z") << QStringLiteral("7z a -tzip -snl out.zip in");
    QTest::newRow("bsdtar") << QStringLiteral("bsdtar -c --format zip -f out.zip in");
    QTest::newRow("python, wide and to a pipe") << QStringLiteral(
        "python3 -c '\n"
        "import os, sys, zipfile\n"
        "with zipfile.ZipFile(sys.stdout.buffer, \"w\", zipfile.ZIP_DEFLATED) as z:\n"
        "    for n in [\"in/deep/er/text\", \"in/empty\", \"in/one\"]:\n"
        "        with z.open(n, \"w\", force_zip64=True) as f: f.write(open(n, \"rb\").read())\n"
        "    i = zipfile.ZipInfo(\"in/link\"); i.create_system = 3; i.external_attr = 0o120777 << 16\n"
        "    z.writestr(i, \"one\")' | cat > out.zip");
}

void tst_ZipEngine::readsArchivesOfTools()
{
    QFETCH(QString, command);
    QTemporaryDir folder;
    const QMap<QByteArray, QByteArray> files{
        {"in/deep/er/text", words(20000)}, {"in/empty", {}}, {"in/one", "1"}, {"in/link", "one"}};
    QVERIFY(QDir(folder.path()).mkpath(QStringLiteral("in/deep/er")));
    for (auto file = files.begin(); file != files.end(); ++file) {
        QFile out(folder.filePath(QString::fromLatin1(file.key())));
        if (file.key() == "in/link")
            QVERIFY(QFile::link(QStringLiteral("one"), out.fileName()));
        else
            QVERIFY(out.open(QIODevice::WriteOnly) && out.write(file.value()) == file.value().size());
    }
    QProcess tool;
    tool.setWorkingDirectory(folder.path());
    tool.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), command});
    QVERIFY(tool.waitForFinished());
    QCOMPARE(tool.exitCode(), 0);

    const auto outcome = open(folder.filePath(QStringLiteral("out.zip")));
    QVERIFY2(outcome.engine, qPrintable(outcome.detail));
    RecordingSink sink(*outcome.engine);
    sink.keepBytes = 1 << 20;
    QCOMPARE(int(extractAll(*outcome.engine, sink).code), int(XADErrorCode::None));
    QMap<QByteArray, QByteArray> found;
    for (const auto &[index, record] : sink.records) {
        const XADEntry &entry = outcome.engine->entries()[std::size_t(index)];
        QVERIFY2(record.code == XADErrorCode::None, qPrintable(record.detail));
        if (entry.type != XADEntry::Type::Directory)
            found.insert(entry.name, record.bytes);
        if (entry.name == "in/link")
            QCOMPARE(int(entry.type), int(XADEntry::Type::Symlink));
    }
    QCOMPARE(found, files);
}

void tst_ZipEngine::streamsWhatIsTooLarge_data()
{
    QTest::addColumn<int>("declaredMore");
    QTest::addColumn<bool>("isGood");
    QTest::newRow("true size") << 0 << true;
    QTest::newRow("stream longer than declared") << -1000000 << false;
    QTest::newRow("stream shorter than declared") << 1 << false;
}

void tst_ZipEngine::streamsWhatIsTooLarge()
{
    QFETCH(int, declaredMore);
    QFETCH(bool, isGood);
    // More than one worker may hold, so it cannot be unpacked in one piece.
    constexpr quint64 size = quint64(260) << 20;
    const ArchiveBytes::Zeros zeros = ArchiveBytes::deflatedZeros(size);
    QTemporaryDir folder;
    const auto outcome = open(place(folder, zipOf({{.name = "zeros",
                                                    .deflate = true,
                                                    .packed = zeros.deflated,
                                                    .crc = zeros.crc,
                                                    .localCrc = zeros.crc,
                                                    .size = quint32(qint64(size) + declaredMore)},
                                                   good})));
    QVERIFY2(outcome.engine, qPrintable(outcome.detail));
    RecordingSink sink(*outcome.engine);
    QCOMPARE(int(extractAll(*outcome.engine, sink).code), int(XADErrorCode::None));
    QCOMPARE(int(sink.records.at(0).code), int(isGood ? XADErrorCode::None : XADErrorCode::Damaged));
    QCOMPARE(int(sink.records.at(1).code), int(XADErrorCode::None));
    QVERIFY(sink.records.at(0).size <= outcome.engine->entries()[0].size);
    if (isGood)
        QCOMPARE(sink.records.at(0).size, qint64(size));
    QVERIFY(sink.largestBlock <= 1 << 20);
}

void tst_ZipEngine::manyEntriesAtOnce_data()
{
    QTest::addColumn<bool>("reversed");
    QTest::newRow("in order") << false;
    QTest::newRow("directory in the other order") << true;
}

void tst_ZipEngine::manyEntriesAtOnce()
{
    QFETCH(bool, reversed);
    QList<Part> parts;
    for (int i = 0; i < 4000; ++i) {
        const QByteArray name = "d" + QByteArray::number(i / 100) + "/f" + QByteArray::number(i);
        if (i % 1000 == 7)
            parts += Part{.name = name, .data = QByteArray(3000000 + i, char(i)), .deflate = i % 2000 == 7};
        else if (i % 500 == 3)
            parts += Part{.name = name, .data = words(10), .crc = 1};
        else
            parts += Part{.name = name, .data = name + words(i % 150), .deflate = i % 3 != 0};
    }
    QTemporaryDir folder;
    const auto outcome = open(place(folder, zipOf(parts, {.reversed = reversed})));
    QVERIFY2(outcome.engine, qPrintable(outcome.detail));
    if (reversed)
        std::reverse(parts.begin(), parts.end());
    RecordingSink sink(*outcome.engine);
    QCOMPARE(int(extractAll(*outcome.engine, sink).code), int(XADErrorCode::None));
    QCOMPARE(int(sink.records.size()), int(parts.size()));
    for (const auto &[index, record] : sink.records) {
        const Part &part = parts[index];
        QCOMPARE(outcome.engine->entries()[std::size_t(index)].name, part.name);
        QCOMPARE(int(record.code), int(part.crc ? XADErrorCode::Damaged : XADErrorCode::None));
        if (!part.crc)
            QCOMPARE(record.hash, QCryptographicHash::hash(part.data, QCryptographicHash::Sha256));
    }
    QVERIFY(sink.largestBlock <= 1 << 20);
}

void tst_ZipEngine::chosenEntriesOnly()
{
    QTemporaryDir folder;
    QList<Part> parts;
    for (int i = 0; i < 20; ++i)
        parts += Part{.name = "f" + QByteArray::number(i), .data = words(i)};
    const auto outcome = open(place(folder, zipOf(parts, {.reversed = true})));
    QVERIFY2(outcome.engine, qPrintable(outcome.detail));
    RecordingSink sink(*outcome.engine);
    const std::vector<int> chosen{2, 3, 17};
    QCOMPARE(int(outcome.engine->extract(chosen, false, sink).code), int(XADErrorCode::None));
    QCOMPARE(sink.begun, std::set<int>(chosen.begin(), chosen.end()));
    QCOMPARE(sink.records.at(17).bytes, words(2));
}

void tst_ZipEngine::stopsWithinABlock()
{
    QTemporaryDir folder;
    QList<Part> parts{{.name = "large", .data = QByteArray(8 << 20, 'x')}};
    for (int i = 0; i < 2000; ++i)
        parts += Part{.name = QByteArray::number(i), .data = words(100), .deflate = true};
    const auto outcome = open(place(folder, zipOf(parts)));
    QVERIFY2(outcome.engine, qPrintable(outcome.detail));
    RecordingSink sink(*outcome.engine);
    sink.stopAfterBytes = 100000;
    QCOMPARE(int(extractAll(*outcome.engine, sink).code), int(XADErrorCode::Stopped));
    // Each worker may have one block on its way.
    const qint64 workers = std::max(1u, std::thread::hardware_concurrency());
    QVERIFY(sink.written <= sink.stopAfterBytes + (workers + 1) * (1 << 20));
}

void tst_ZipEngine::survivesAFileCutShort()
{
    QTemporaryDir folder;
    QList<Part> parts{good, {.name = "large", .data = QByteArray(5 << 20, 'x')}};
    for (int i = 0; i < 100; ++i)
        parts += good;
    const QString path = place(folder, zipOf(parts));
    const auto outcome = open(path);
    QVERIFY2(outcome.engine, qPrintable(outcome.detail));
    QVERIFY(QFile::resize(path, 100000));
    RecordingSink sink(*outcome.engine);
    extractAll(*outcome.engine, sink);
    QCOMPARE(int(sink.records.size()), int(parts.size()));
    QCOMPARE(int(sink.records.at(0).code), int(XADErrorCode::None));
    for (int index = 1; index < int(parts.size()); ++index)
        QCOMPARE(int(sink.records.at(index).code), int(XADErrorCode::Damaged));
}

QTEST_GUILESS_MAIN(tst_ZipEngine)
#include "tst_zipengine.moc"
