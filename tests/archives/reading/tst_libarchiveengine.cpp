#include "archives/reading/CVLibarchiveEngine.h"
#include "archives/reading/CVSingleFileEngine.h"
#include "support/ArchiveBytes.h"
#include "support/RarBytes.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

#include <clocale>
#include <map>

#include <locale.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;
using Code = XADErrorCode;
using Type = XADEntry::Type;
using Files = std::map<QByteArray, QByteArray>;

namespace {

struct Host final : CVEngineHost
{
    std::optional<QString> password() override { return {}; }
    bool shouldStop() override { return false; }
};

/// Remembers what an engine delivers.
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
            ++sink->writes;
            data.append(bytes, size);
            return sink->stopAfterWrites > 0 && sink->writes >= sink->stopAfterWrites ? Flow::Stop : Flow::Go;
        }
        Flow writeHole(qint64 size) override
        {
            sink->holes += size;
            data.append(size, '\0');
            return Flow::Go;
        }
        Flow finish(Code code, const QString &) override
        {
            const XADEntry &entry = sink->engine->entries()[static_cast<std::size_t>(index)];
            const bool isShort = entry.type == Type::File && entry.size >= 0 && entry.size != data.size();
            if (code == Code::None && !isShort)
                sink->contents[entry.name] = data;
            else
                ++sink->failures;
            return Flow::Go;
        }
    };

    explicit Sink(const CVReadingEngine &e)
        : engine(&e)
    {}

    std::unique_ptr<CVEntryWriter> beginEntry(int index) override
    {
        begun.push_back(index);
        grewAhead = grewAhead && engine->entries().size() > static_cast<std::size_t>(index);
        const Type type = engine->entries()[static_cast<std::size_t>(index)].type;
        if (type != Type::File && type != Type::HardLink)
            return nullptr;
        auto writer = std::make_unique<Writer>();
        writer->sink = this;
        writer->index = index;
        return writer;
    }
    CVEntryWriter::Flow entryFailed(int, Code, const QString &) override
    {
        ++failures;
        return CVEntryWriter::Flow::Go;
    }
    bool shouldStop() override { return stopAfterWrites > 0 && writes >= stopAfterWrites; }

    const CVReadingEngine *engine;
    std::vector<int> begun;
    Files contents;
    int failures = 0;
    int writes = 0;
    int stopAfterWrites = 0;
    qint64 holes = 0;
    qsizetype largestBlock = 0;
    bool grewAhead = true;
};

struct Reading
{
    Code opened = Code::None;
    bool isCertain = false;
    CVReadingEngine::Outcome outcome;
    Files contents;
    int failures = 0;

    bool complains() const
    {
        return opened != Code::None || outcome.code != Code::None || !outcome.remark.isEmpty() ||
               failures > 0;
    }
};

CVEngineDescriptor::OpenOutcome open(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("cannot read");
    CVArchiveProbe probe{.path = path, .head = file.read(64 << 10), .tail = {}, .fileSize = file.size()};
    const CVEngineDescriptor descriptor = cvLibarchiveEngineDescriptor();
    if (descriptor.bid(probe) == 0)
        return {nullptr, Code::NotSupported, {}, false};
    static Host host; // outlives the engine
    return descriptor.open(probe, host);
}

Reading readAll(const QString &path)
{
    Reading reading;
    const auto opened = open(path);
    reading.opened = opened.code;
    reading.isCertain = opened.damageIsCertain;
    if (opened.engine) {
        Sink sink(*opened.engine);
        reading.outcome = opened.engine->extract({}, true, sink);
        reading.contents = sink.contents;
        reading.failures = sink.failures;
    }
    return reading;
}

QByteArray noise(int size)
{
    QByteArray bytes(size, '\0');
    std::uint32_t state = 12345;
    for (char &byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = char(state >> 24);
    }
    return bytes;
}

QByteArray text()
{
    QByteArray lines;
    for (int i = 0; i < 4000; ++i)
        lines += "line " + QByteArray::number(i) + " of a file that compresses well\n";
    return lines;
}

/// A rpm of these bytes: its lead and two empty headers.
QByteArray rpmOf(const QByteArray &payload)
{
    const QByteArray header = QByteArray("\x8e\xad\xe8\x01\0\0\0\0\0\0\0\0\0\0\0\0", 16);
    return QByteArray("\xed\xab\xee\xdb\x03\0", 6) + QByteArray(90, '\0') + header + header + payload;
}

/// A file stored in an LHA of header level 0.
QByteArray lhaOf(const QByteArray &name, const QByteArray &data)
{
    const auto little = [](std::uint32_t value, int bytes) {
        QByteArray result;
        for (int i = 0; i < bytes; ++i)
            result.append(char(value >> (8 * i)));
        return result;
    };
    std::uint16_t crc = 0;
    for (const char c : data) {
        crc ^= static_cast<unsigned char>(c);
        for (int bit = 0; bit < 8; ++bit)
            crc = static_cast<std::uint16_t>(crc & 1 ? (crc >> 1) ^ 0xa001 : crc >> 1);
    }
    const auto size = static_cast<std::uint32_t>(data.size());
    const QByteArray fields = "-lh0-" + little(size, 4) + little(size, 4) + little(0x50000000, 4) +
                              char(0x20) + char(0) + char(name.size()) + name + little(crc, 2);
    std::uint8_t sum = 0;
    for (const char c : fields)
        sum = static_cast<std::uint8_t>(sum + static_cast<unsigned char>(c));
    return QByteArray(1, char(fields.size())) + char(sum) + fields + data + '\0';
}

} // namespace

Q_DECLARE_METATYPE(XADErrorCode)

class tst_LibarchiveEngine : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_folder;
    Files m_files; ///< what the archives hold

    QString path(const QString &name) const { return m_folder.filePath(name); }

    QString store(const QString &name, const QByteArray &bytes) const
    {
        QFile file(path(name));
        if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
            qFatal("cannot write");
        return file.fileName();
    }

    static QByteArray load(const QString &name)
    {
        QFile file(name);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    /// Runs a line of shell in the folder of the samples; `$OUT` is the archive to make.
    bool make(const QString &command, const QString &archive) const
    {
        QProcess shell;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"OUT"_s, path(archive));
        environment.insert(u"LC_ALL"_s, u"C.UTF-8"_s);
        shell.setProcessEnvironment(environment);
        shell.setWorkingDirectory(path(u"tree"_s));
        shell.start(u"bash"_s, {u"-o"_s, u"pipefail"_s, u"-c"_s, command});
        const bool done = shell.waitForFinished(60000) && shell.exitCode() == 0;
        if (!done)
            qWarning().noquote() << command << shell.readAllStandardError();
        return done;
    }

    static QByteArray plainName(QByteArray name)
    {
        if (name.startsWith("./"))
            name.remove(0, 2);
        while (name.endsWith('/'))
            name.chop(1);
        return name;
    }

    static Files plainNames(const Files &files)
    {
        Files result;
        for (const auto &[name, data] : files)
            result[plainName(name)] = data;
        return result;
    }

    static void streams()
    {
        QTest::addColumn<QString>("pack");   ///< from standard input to standard output
        QTest::addColumn<bool>("isChecked"); ///< the format has check sums
        QTest::newRow("gzip") << u"gzip"_s << true;
        QTest::newRow("bzip2") << u"bzip2"_s << true;
        QTest::newRow("xz") << u"xz"_s << true;
        QTest::newRow("xz of blocks") << u"xz -0 --block-size=100KiB"_s << true;
        QTest::newRow("lzma") << u"xz --format=lzma"_s << false;
        QTest::newRow("lzip") << u"lzip"_s << true;
        QTest::newRow("zstd") << u"zstd -q --check"_s << true;
        QTest::newRow("lz4") << u"lz4 -q"_s << true;
        QTest::newRow("lz4 legacy") << u"lz4 -q -l"_s << false;
        QTest::newRow("lzop") << u"lzop"_s << true;
        QTest::newRow("lzop with crc") << u"lzop --crc32"_s << true;
        QTest::newRow("compress") << u"compress -f"_s << false;
        QTest::newRow("brotli") << u"brotli -q 5"_s << false;
    }

    static QString suffixOf(const char *row) { return QByteArray(row) == "brotli" ? u".br"_s : u".bin"_s; }

    /// Damages the archive at several places. It must complain, or deliver all that was in it.
    void damage(const QString &archive, const Files &good, bool alsoFlips) const
    {
        const QByteArray bytes = load(path(archive));
        QVERIFY(bytes.size() > 20);
        const QString damagedName = u"damaged-"_s + archive;
        constexpr int places = 23;
        for (int i = 0; i < places; ++i) {
            const qsizetype at = i < 4 ? bytes.size() - 1 - i : (bytes.size() - 1) * i / places;
            const Reading cut = readAll(store(damagedName, bytes.first(at)));
            QVERIFY2(cut.complains() || plainNames(cut.contents) == good, qPrintable(u"cut to %1"_s.arg(at)));
            if (!alsoFlips)
                continue;
            QByteArray flipped = bytes;
            flipped[at] = char(flipped[at] ^ (1 << (i % 8)));
            const Reading reading = readAll(store(damagedName, flipped));
            QVERIFY2(reading.complains() || plainNames(reading.contents) == good,
                     qPrintable(u"flip at %1 of %2"_s.arg(at).arg(bytes.size())));
        }
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(QDir(m_folder.path()).mkpath(u"tree/folder/deep"_s));
        m_files = {{"folder/text.txt", text()},
                   {"folder/deep/noise", noise(700'000)},
                   {"empty", ""},
                   {"gr\xc3\xbc\xc3\x9f"
                    "e \xe6\xbc\xa2.txt",
                    "unicode\n"},
                   {QByteArray("folder/") + QByteArray(180, 'n'), "long name\n"}};
        for (const auto &[name, data] : m_files)
            store(u"tree/"_s + QString::fromUtf8(name), data);
        QVERIFY(QFile::link(u"folder/text.txt"_s, path(u"tree/link"_s)));
        QVERIFY(::chmod(path(u"tree/empty"_s).toUtf8().constData(), 0750) == 0);
    }

    void readsContainers_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<bool>("hasLink");
        QTest::newRow("gnu tar") << u"tar --format=gnu -cf $OUT ."_s << true;
        QTest::newRow("ustar") << u"tar --format=posix -cf $OUT ."_s << true;
        QTest::newRow("pax by another") << u"bsdtar --format pax -cf $OUT ."_s << true;
        QTest::newRow("cpio newc") << u"find . | cpio -o --quiet -H newc > $OUT"_s << true;
        QTest::newRow("cpio crc") << u"find . | cpio -o --quiet -H crc > $OUT"_s << true;
        QTest::newRow("cpio odc") << u"find . | cpio -o --quiet -H odc > $OUT"_s << true;
        QTest::newRow("cpio bin") << u"find . | cpio -o --quiet -H bin > $OUT"_s << true;
        QTest::newRow("cpio in a stream") << u"find . | cpio -o --quiet -H newc | xz > $OUT"_s << true;
        QTest::newRow("tar in a stream") << u"tar -czf $OUT ."_s << true;
    }
    void readsContainers()
    {
        QFETCH(QString, command);
        QFETCH(bool, hasLink);
        QVERIFY(make(command, u"container"_s));
        // First without a list, as a batch does; then with one, as a window does.
        const Reading reading = readAll(path(u"container"_s));
        QCOMPARE(reading.opened, Code::None);
        QCOMPARE(reading.outcome.code, Code::None);
        QCOMPARE(reading.outcome.remark, QString());
        QCOMPARE(reading.failures, 0);
        QVERIFY(plainNames(reading.contents) == m_files);

        const auto opened = open(path(u"container"_s));
        QVERIFY(!opened.engine->isEncrypted());
        const std::vector<XADEntry> entries = opened.engine->entries();
        Sink sink(*opened.engine);
        QCOMPARE(opened.engine->extract({}, true, sink).code, Code::None);
        QVERIFY(plainNames(sink.contents) == m_files);
        QCOMPARE(sink.begun.size(), entries.size());
        bool linkSeen = false;
        for (const XADEntry &entry : entries) {
            if (plainName(entry.name) == "empty")
                QCOMPARE(entry.mode, 0750U);
            if (entry.type == Type::Symlink) {
                linkSeen = true;
                QCOMPARE(entry.linkTarget, "folder/text.txt");
            }
        }
        QCOMPARE(linkSeen, hasLink);

        // Chosen entries: the same data as in the whole.
        std::vector<int> chosen;
        for (std::size_t i = 0; i < entries.size(); ++i)
            if (entries[i].type == Type::File && i % 2 == 0)
                chosen.push_back(static_cast<int>(i));
        Sink some(*opened.engine);
        QCOMPARE(opened.engine->extract(chosen, false, some).code, Code::None);
        QCOMPARE(some.contents.size(), chosen.size());
        for (const auto &[name, data] : some.contents)
            QVERIFY(data == m_files[plainName(name)]);
    }

    void readsStreams_data() { streams(); }
    void readsStreams()
    {
        QFETCH(QString, pack);
        const QString suffix = suffixOf(QTest::currentDataTag());
        QVERIFY(make(u"tar -cf - . | %1 > $OUT"_s.arg(pack), u"s.tar"_s + suffix));
        const Reading tar = readAll(path(u"s.tar"_s + suffix));
        QCOMPARE(tar.opened, Code::None);
        QCOMPARE(tar.outcome.code, Code::None);
        QVERIFY(plainNames(tar.contents) == m_files);

        // Two members, one after the other, are one file; .lzma and brotli have no members.
        const bool joins =
            !pack.contains(u"lzma"_s) && !pack.contains(u"brotli"_s) && !pack.contains(u"compress"_s);
        const QString single = joins ? u"(%1 < folder/text.txt; %1 < folder/deep/noise) > $OUT"_s
                                     : u"cat folder/text.txt folder/deep/noise | %1 > $OUT"_s;
        QVERIFY(make(single.arg(pack), u"some.file"_s + suffix));
        const Reading one = readAll(path(u"some.file"_s + suffix));
        QCOMPARE(one.outcome.code, Code::None);
        QCOMPARE(one.contents.size(), 1U);
        QVERIFY(one.contents.at("some.file") == text() + noise(700'000));
    }

    void noticesDamageInStreams_data() { streams(); }
    void noticesDamageInStreams()
    {
        QFETCH(QString, pack);
        QFETCH(bool, isChecked);
        const QString suffix = suffixOf(QTest::currentDataTag());
        QVERIFY(make(u"tar -cf - . | %1 > $OUT"_s.arg(pack), u"d.tar"_s + suffix));
        damage(u"d.tar"_s + suffix, m_files, isChecked);
        if (!pack.contains(u"compress"_s) && !pack.contains(u"-l"_s)) {
            QVERIFY(make(u"%1 < folder/text.txt > $OUT"_s.arg(pack), u"d.txt"_s + suffix));
            damage(u"d.txt"_s + suffix, {{"damaged-d.txt", text()}}, isChecked);
        }
    }

    void noticesDamageInContainers_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<bool>("isChecked");
        QTest::newRow("tar") << u"tar -cf $OUT ."_s << false;
        QTest::newRow("tar without padding") << u"tar -b1 -cf $OUT ."_s << false;
        QTest::newRow("cpio newc") << u"find . | cpio -o --quiet -H newc > $OUT"_s << false;
        QTest::newRow("cpio in gzip") << u"find . | cpio -o --quiet -H newc | gzip > $OUT"_s << true;
    }
    void noticesDamageInContainers()
    {
        QFETCH(QString, command);
        QFETCH(bool, isChecked);
        QVERIFY(make(command, u"container"_s));
        damage(u"container"_s, m_files, isChecked);
    }

    /// The sums of cpio's "crc" kind cover the data alone.
    void comparesCpioSums()
    {
        QVERIFY(make(u"find . | cpio -o --quiet -H crc > $OUT"_s, u"sums"_s));
        QByteArray bytes = load(path(u"sums"_s));
        const qsizetype at = bytes.indexOf("line 2000 of");
        QVERIFY(at > 0);
        bytes[at] = 'L';
        const Reading reading = readAll(store(u"sums"_s, bytes));
        QCOMPARE(reading.failures, 1);
        QCOMPARE(reading.contents.size(), m_files.size() - 1);
    }

    void readsBuiltArchives_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("isChecked");
        const QByteArray big = noise(5000);
        const QList<RarBytes::Item> items{{.name = "a.txt", .data = "alpha"}, {.name = "big", .data = big}};
        QTest::newRow("RAR 4") << RarBytes::rar4(items) << true;
        QTest::newRow("RAR 5") << RarBytes::rar5(items) << true;
        // Computed by another program.
        const QByteArray sumOfSmall =
            QByteArray::fromHex("e7b6a63eb62a407278eba65a7f4d88a0c1942289c318452b722e2a143b88b0cd");
        const QByteArray sumOfBig =
            QByteArray::fromHex("c3647f1591f5f42c47ee0201b8dbb190d65eda042954ea8676a972339c0d478c");
        QTest::newRow("RAR 5 with BLAKE2 only")
            << RarBytes::rar5({{.name = "a.txt", .data = "alpha", .blake2sp = sumOfSmall},
                               {.name = "big", .data = big, .blake2sp = sumOfBig}})
            << true;
        QTest::newRow("RAR behind a program")
            << "MZ" + QByteArray(3000, '\1') + "Rar!\x1a\x07 is looked for" + QByteArray(100, '\2') +
                   RarBytes::rar5(items)
            << false;
        const QByteArray lha = lhaOf("a.txt", "alpha").chopped(1) + lhaOf("big", big);
        QTest::newRow("LHA") << lha << true;
        QTest::newRow("LHA behind a program") << "MZ" + QByteArray(3000, '\1') + "-lh5- -lzs-" + lha << false;
        const auto cpio = [&](const QByteArray &name, const QByteArray &data) -> QByteArray {
            const auto hex = [](qsizetype value) {
                return QByteArray::number(value, 16).rightJustified(8, '0');
            };
            const auto padded = [](const QByteArray &part) -> QByteArray {
                return part + QByteArray((4 - part.size() % 4) % 4, '\0');
            };
            return padded("070701" + hex(7) + hex(0100644) + hex(0) + hex(0) + hex(1) + hex(0) +
                          hex(data.size()) + hex(0) + hex(0) + hex(0) + hex(0) + hex(name.size() + 1) +
                          hex(0) + name + '\0') +
                   padded(data);
        };
        const QByteArray payload = cpio("a.txt", "alpha") + cpio("big", big) + cpio("TRAILER!!!", "");
        QTest::newRow("RPM") << rpmOf(ArchiveBytes::gzip(payload)) << true;
    }
    void readsBuiltArchives()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(bool, isChecked);
        const Files files{{"a.txt", "alpha"}, {"big", noise(5000)}};
        const Reading reading = readAll(store(u"built"_s, bytes));
        QCOMPARE(reading.opened, Code::None);
        QCOMPARE(reading.outcome.code, Code::None);
        QVERIFY(reading.contents == files);
        damage(u"built"_s, files, isChecked);
    }

    /// LHA has a check sum of the data, though none of its first headers that deserves the name.
    void comparesLhaSums()
    {
        QByteArray bytes = lhaOf("a", noise(3000));
        bytes[1000] = char(bytes[1000] ^ 1);
        QVERIFY(readAll(store(u"x.lzh"_s, bytes)).complains());
    }

    void leavesToOthers_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("encrypted file, 4") << RarBytes::rar4({{.name = "a", .data = "x", .encrypted = true}});
        QTest::newRow("encrypted file, 5") << RarBytes::rar5({{.name = "a", .data = "x", .encrypted = true}});
        QTest::newRow("encrypted headers, 4") << RarBytes::rar4({}, {.encryptedHeaders = true});
        QTest::newRow("encrypted headers, 5") << RarBytes::rar5({}, {.encryptedHeaders = true});
        QTest::newRow("solid, 4") << RarBytes::rar4({{.name = "a", .data = "x"}}, {.solid = true});
        QTest::newRow("a program and nothing else") << "MZ" + QByteArray(70000, '\1');
    }
    void leavesToOthers()
    {
        QFETCH(QByteArray, bytes);
        const auto opened = open(store(u"other"_s, bytes));
        QVERIFY(!opened.engine);
        QCOMPARE(opened.code, Code::NotSupported);
    }

    void readsRarVolumes_data()
    {
        QTest::addColumn<int>("generation");
        QTest::addColumn<QStringList>("names");
        QTest::addColumn<int>("opened");
        QTest::newRow("RAR 5") << 5 << QStringList{u"v.part1.rar"_s, u"v.part2.rar"_s} << 0;
        QTest::newRow("RAR 5, second part opened")
            << 5 << QStringList{u"v.part1.rar"_s, u"v.part2.rar"_s} << 1;
        QTest::newRow("RAR 4") << 4 << QStringList{u"w.part1.rar"_s, u"w.part2.rar"_s} << 0;
        QTest::newRow("RAR 4, old names") << 4 << QStringList{u"x.rar"_s, u"x.r00"_s} << 1;
    }
    void readsRarVolumes()
    {
        QFETCH(int, generation);
        QFETCH(QStringList, names);
        QFETCH(int, opened);
        const QByteArray data = noise(9000);
        const QByteArray whole = RarBytes::rar4({{.name = "x", .data = data}}); // to learn its check sum
        const auto crc = qFromLittleEndian<std::uint32_t>(whole.constData() + 7 + 13 + 16);
        const auto write = generation == 4 ? &RarBytes::rar4 : &RarBytes::rar5;
        const bool parts = names[0].contains(u"part"_s);
        const QString one =
            store(names[0],
                  write({{.name = "first", .data = "1"},
                         {.name = "big", .data = data.first(4000), .splitAfter = true, .wholeSize = 9000}},
                        {.volume = true, .more = true, .partNumbers = parts, .number = 0}));
        const QString two =
            store(names[1], write({{.name = "big",
                                    .data = data.sliced(4000),
                                    .crc = crc,
                                    .splitBefore = true,
                                    .wholeSize = 9000},
                                   {.name = "last", .data = "2"}},
                                  {.volume = true, .more = false, .partNumbers = parts, .number = 1}));
        const Reading reading = readAll(opened == 0 ? one : two);
        QCOMPARE(reading.opened, Code::None);
        QCOMPARE(reading.outcome.code, Code::None);
        QVERIFY(reading.contents == (Files{{"first", "1"}, {"big", data}, {"last", "2"}}));

        QVERIFY(QFile::remove(two));
        const Reading missing = readAll(one);
        QCOMPARE(missing.opened, Code::Damaged);
        QVERIFY(missing.isCertain);
    }

    void readsSpecialEntries()
    {
        using Kind = ArchiveBytes::Item::Type;
        const auto item = [](const QByteArray &name, Kind type, const QByteArray &data,
                             const QByteArray &target) {
            ArchiveBytes::Item result;
            result.name = name;
            result.type = type;
            result.data = data;
            result.target = target;
            return result;
        };
        const QByteArray odd = "r\xe9sum\xe9";
        const QByteArray bytes = ArchiveBytes::tar(
            {item(odd, Kind::File, "data", {}), item("again", Kind::HardLink, {}, odd),
             item("pipe", Kind::Fifo, {}, {}), item("device", Kind::CharacterDevice, {}, {})});
        const auto opened = open(store(u"special.tar"_s, bytes));
        const std::vector<XADEntry> &entries = opened.engine->entries();
        QCOMPARE(entries.size(), 4U);
        QCOMPARE(entries[0].name, odd); // bytes as they are stored
        QCOMPARE(entries[1].type, Type::HardLink);
        QCOMPARE(entries[1].linkTarget, odd);
        QCOMPARE(entries[2].type, Type::Special);
        QCOMPARE(entries[3].type, Type::Special);
        Sink sink(*opened.engine);
        QCOMPARE(opened.engine->extract({}, true, sink).code, Code::None);
        QVERIFY(sink.contents["again"].isEmpty());
    }

    /// cpio stores the data of all names of a file with the last of them.
    void readsHardLinksWithData()
    {
        QVERIFY(make(u"mkdir -p ../links; echo one > ../links/a; ln -f ../links/a ../links/b; cd ../links; "
                     "printf 'a\\nb\\n' | cpio -o --quiet -H newc > $OUT"_s,
                     u"links.cpio"_s));
        const auto opened = open(path(u"links.cpio"_s));
        Sink sink(*opened.engine);
        QCOMPARE(opened.engine->extract({}, true, sink).code, Code::None);
        const XADEntry &second = opened.engine->entries()[1];
        QCOMPARE(second.type, Type::HardLink);
        QCOMPARE(second.linkTarget, "a");
        QCOMPARE(sink.contents["a"], "");
        QCOMPARE(sink.contents["b"], "one\n");
    }

    /// A header that does not fit its sum ends the reading: what follows may be data and not headers.
    void stopsAtDamagedHeaders()
    {
        QVERIFY(make(u"tar --sort=name -cf $OUT ."_s, u"header.tar"_s));
        QByteArray bytes = load(path(u"header.tar"_s));
        const qsizetype at = bytes.indexOf("./folder/text.txt");
        QVERIFY(at > 0 && at % 512 == 0);
        bytes[at + 3] = 'F';
        const Reading reading = readAll(store(u"header.tar"_s, bytes));
        QCOMPARE(reading.outcome.code, Code::Damaged);
        for (const auto &[name, data] : reading.contents)
            QVERIFY(data == m_files[plainName(name)]);
    }

    void keepsHoles_data()
    {
        QTest::addColumn<QString>("format");
        QTest::newRow("gnu") << u"gnu"_s;
        QTest::newRow("pax") << u"posix"_s;
    }
    void keepsHoles()
    {
        QFETCH(QString, format);
        QVERIFY(make(u"truncate -s 3M ../holes; printf data | dd of=../holes bs=1 seek=1048576 conv=notrunc "
                     u"2>/dev/null; "
                     "tar --sparse --format=%1 -C .. -cf $OUT holes"_s.arg(format),
                     u"sparse.tar"_s));
        const auto opened = open(path(u"sparse.tar"_s));
        Sink sink(*opened.engine);
        QCOMPARE(opened.engine->extract({}, true, sink).code, Code::None);
        QCOMPARE(sink.failures, 0);
        QVERIFY(sink.contents["holes"] == load(path(u"holes"_s)));
        QVERIFY(sink.holes > 2'000'000);
    }

    /// The person's locale decides nothing about names, and is left as it was.
    void readsNamesInAnyLocale()
    {
        QVERIFY(make(u"tar --format=posix -cf $OUT ."_s, u"names.tar"_s));
        const QByteArray before = std::setlocale(LC_ALL, nullptr);
        std::setlocale(LC_ALL, "C");
        const Reading tar = readAll(path(u"names.tar"_s));
        QCOMPARE(::uselocale(nullptr), LC_GLOBAL_LOCALE);
        QCOMPARE(std::setlocale(LC_ALL, nullptr), "C");
        std::setlocale(LC_ALL, before.constData());
        QVERIFY(plainNames(tar.contents) == m_files);
    }

    void streamsWithoutAList()
    {
        QVERIFY(make(u"tar -cJf $OUT ."_s, u"lazy"_s));
        const auto opened = open(path(u"lazy"_s));
        QVERIFY(opened.engine->entriesAreLazy());
        QCOMPARE(opened.engine->formatName(), u"tar (xz)"_s);
        Sink sink(*opened.engine);
        QCOMPARE(opened.engine->extract({}, true, sink).code, Code::None);
        QVERIFY(sink.grewAhead);
        QVERIFY(sink.largestBlock <= 1 << 20);
        QCOMPARE(opened.engine->entries().size(), sink.begun.size());
        qint64 done = 0, total = 0;
        QVERIFY(opened.engine->compressedProgress(done, total));
        QCOMPARE(total, QFileInfo(path(u"lazy"_s)).size());
        QCOMPARE(done, total);

        const QByteArray bytes = load(path(u"lazy"_s));
        const auto cut = open(store(u"lazy-cut"_s, bytes.first(bytes.size() / 2)));
        QVERIFY(cut.engine);
        QCOMPARE(cut.engine->listingOutcome().code, Code::Damaged);
    }

    /// A stop ends the work within one block, with the decoder's thread, and leaves the engine usable.
    void stops()
    {
        QVERIFY(make(u"head -c 60000000 /dev/zero > ../zeros; tar -C .. -czf $OUT zeros; rm ../zeros"_s,
                     u"long.tgz"_s));
        const auto opened = open(path(u"long.tgz"_s));
        Sink stopped(*opened.engine);
        stopped.stopAfterWrites = 2;
        QCOMPARE(opened.engine->extract({}, true, stopped).code, Code::Stopped);
        QCOMPARE(stopped.writes, 2);
        QVERIFY(stopped.contents.empty());
        Sink whole(*opened.engine);
        QCOMPARE(opened.engine->extract({}, true, whole).code, Code::None);
        QCOMPARE(whole.contents["zeros"].size(), 60'000'000);
    }

    void boundsMemory_data()
    {
        QTest::addColumn<QString>("pack");
        QTest::addColumn<int>("at");
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("lzma with a window of 2 GiB")
            << u"xz --format=lzma"_s << 1 << QByteArray("\0\0\0\x80", 4);
        QTest::newRow("lzip with a window of 512 MiB") << u"lzip"_s << 5 << QByteArray("\x1d");
        // A frame header that says: window of 2 GiB, no size.
        QTest::newRow("zstd with a window of 2 GiB") << u"zstd -q"_s << 4 << QByteArray("\0\xa8", 2);
    }
    void boundsMemory()
    {
        QFETCH(QString, pack);
        QFETCH(int, at);
        QFETCH(QByteArray, bytes);
        QVERIFY(make(u"cat folder/text.txt | %1 > $OUT"_s.arg(pack), u"window"_s));
        QByteArray archive = load(path(u"window"_s));
        archive.replace(at, bytes.size(), bytes);
        QCOMPARE(readAll(store(u"window"_s, archive)).opened, Code::NotSupported);
    }

    void tellsEndsOfStreams_data()
    {
        QTest::addColumn<QByteArray>("tail");
        QTest::addColumn<bool>("isRemarked");
        QTest::addColumn<bool>("isDamaged");
        QTest::newRow("padding") << QByteArray(1000, '\0') << false << false;
        QTest::newRow("something else") << QByteArray("signature") << true << false;
        QByteArray member = ArchiveBytes::gzip("more");
        member[0] = '\x1e';
        QTest::newRow("a damaged member") << member << false << true;
    }
    void tellsEndsOfStreams()
    {
        QFETCH(QByteArray, tail);
        QFETCH(bool, isRemarked);
        QFETCH(bool, isDamaged);
        const Reading reading = readAll(store(u"end.gz"_s, ArchiveBytes::gzip("contents") + tail));
        QCOMPARE(reading.outcome.code, isDamaged ? Code::Damaged : Code::None);
        QCOMPARE(!reading.outcome.remark.isEmpty(), isRemarked);
        if (!isDamaged)
            QCOMPARE(reading.contents.at("end"), "contents");
    }

    void readsLibraries()
    {
        QVERIFY(make(u"rm -f $OUT; echo 'int f(void){return 1;}' > ../f.c; cc -c -o "
                     u"../a_module_with_a_long_name.o ../f.c; "
                     "ar rc $OUT ../a_module_with_a_long_name.o folder/text.txt"_s,
                     u"lib.a"_s));
        const Reading reading = readAll(path(u"lib.a"_s));
        QCOMPARE(reading.outcome.code, Code::None);
        QCOMPARE(reading.contents.size(), 2U); // the tables of symbols and names are no members
        QVERIFY(reading.contents.contains("a_module_with_a_long_name.o"));
        QVERIFY(reading.contents.at("text.txt") == text());
    }

    void namesSingleFiles_data()
    {
        QTest::addColumn<QString>("archive");
        QTest::addColumn<QString>("output");
        QTest::newRow("one extension") << u"/a.b/letter.txt.gz"_s << u"letter.txt"_s;
        QTest::newRow("short for tar") << u"/x/pack.TGZ"_s << u"pack.tar"_s;
        QTest::newRow("no extension") << u"/x.y/backup"_s << u"backup"_s;
        QTest::newRow("nothing but one") << u"/x/.gz"_s << u"data"_s;
    }
    void namesSingleFiles()
    {
        QFETCH(QString, archive);
        QFETCH(QString, output);
        QCOMPARE(CVSingleFileEngine::outputName(archive), output);
    }
};

QTEST_GUILESS_MAIN(tst_LibarchiveEngine)
#include "tst_libarchiveengine.moc"
