#include "archives/xar/xar.h"
#include "util/LXRemoveTree.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

#include <csignal>
#include <thread>

#include <sys/resource.h>
#include <sys/stat.h>

namespace {

struct Output
{
    int status = -1;
    QByteArray text;
};

Output shell(const QString &command, const QString &folder)
{
    QProcess process;
    process.setWorkingDirectory(folder);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("/bin/sh"), {QStringLiteral("-ec"), command});
    if (!process.waitForFinished(60000))
        return {};
    return {process.exitCode(), process.readAll()};
}

QString tool()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/../share/corvane/tools/xar");
}

QByteArray noise(int bytes)
{
    QRandomGenerator generator(static_cast<quint32>(bytes));
    QByteArray result(bytes & ~3, Qt::Uninitialized);
    generator.fillRange(reinterpret_cast<quint32 *>(result.data()), result.size() / 4);
    return result;
}

void writeFile(const QByteArray &path, const QByteArray &data)
{
    FILE *const file = std::fopen(path.constData(), "we");
    QVERIFY(file);
    QCOMPARE(std::fwrite(data.constData(), 1, static_cast<std::size_t>(data.size()), file),
             static_cast<std::size_t>(data.size()));
    std::fclose(file);
}

QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

LXResult<void> pack(const QString &folder, const QString &archive)
{
    auto opened = xar_open(archive.toUtf8(), xar_mode::write);
    if (!opened)
        return opened.error();
    xar_add_beneath(*opened.value(), nullptr, folder.toUtf8(), [] { return true; });
    return xar_close(*opened.value());
}

/// Everything of a tree but its times of change and inodes.
constexpr const char *describe = "find . -mindepth 1 -printf '%P|%y|%m|%T@|%l|%n\\n' | LC_ALL=C sort";

/// An archive of this table and heap; the table's checksum goes to the front of the heap.
QByteArray archiveOf(const QByteArray &table, const QByteArray &data, quint64 claimedSize = 0)
{
    const QByteArray packed = qCompress(table).mid(4);
    QByteArray header(28, '\0');
    header.replace(0, 4, "xar!");
    qToBigEndian<quint16>(28, header.data() + 4);
    qToBigEndian<quint16>(1, header.data() + 6);
    qToBigEndian<quint64>(static_cast<quint64>(packed.size()), header.data() + 8);
    qToBigEndian<quint64>(claimedSize ? claimedSize : static_cast<quint64>(table.size()), header.data() + 16);
    qToBigEndian<quint32>(1, header.data() + 24);
    return header + packed + QCryptographicHash::hash(packed, QCryptographicHash::Sha1) + data;
}

QByteArray tableOf(const QByteArray &files)
{
    return "<?xml version=\"1.0\"?><xar><toc><checksum style=\"sha1\"><offset>0</offset><size>20</size>"
           "</checksum>" +
           files + "</toc></xar>";
}

constexpr const char *dataOfGood = "hello";

QByteArray dataElement(const QByteArray &offset = "20", const QByteArray &length = "5",
                       const QByteArray &size = "5", const QByteArray &more = "",
                       const QByteArray &encoding = "application/octet-stream")
{
    return "<data><length>" + length + "</length><offset>" + offset + "</offset><size>" + size +
           "</size><encoding style=\"" + encoding + "\"/>" + more + "</data>";
}

QByteArray fileElement(const QByteArray &name, const QByteArray &data, const QByteArray &id)
{
    return "<file id=\"" + id + "\">" + data + "<type>file</type><name>" + name + "</name></file>";
}

QByteArray linkElement(const QByteArray &name, const QByteArray &target, const QByteArray &id)
{
    return "<file id=\"" + id + "\"><type>symlink</type><name>" + name + "</name><link type=\"broken\">" +
           target + "</link></file>";
}

/// What becomes of an archive that nobody should have made.
enum class Fate {
    Refused,  ///< it does not even open
    Without,  ///< the good entry comes out, another one does not
    Harmless, ///< everything comes out, inside of the destination
};

} // namespace
Q_DECLARE_METATYPE(Fate)

class TestXar : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup() { QVERIFY(removeTree(m_dir->path())); } // Qt cannot: there are names that are no text
    void keepsEverything();
    void othersReadIt_data();
    void othersReadIt();
    void readsOthers_data();
    void readsOthers();
    void largeData_data();
    void largeData();
    void dependsOnTheFilesAlone();
    void hostile_data();
    void hostile();
    void cutOffAnywhere();
    void filesThatShrink();
    void unreadableFiles();
    void cancelLeavesNothing();
    void fullDiskLeavesNothing();
    void selectedEntries();

private:
    void makeTree(bool withBytesThatAreNoText);

    std::unique_ptr<QTemporaryDir> m_dir;
    QString m_source, m_archive, m_out;
};

void TestXar::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    m_source = m_dir->filePath("source");
    m_archive = m_dir->filePath("archive.xar");
    m_out = m_dir->filePath("inner/out");
    QVERIFY(QDir().mkpath(m_source) && QDir().mkpath(m_out));
}

void TestXar::makeTree(bool withBytesThatAreNoText)
{
    const QByteArray source = m_source.toUtf8() + '/';
    QVERIFY(QDir(m_source).mkpath("empty") && QDir(m_source).mkpath("a b/c/d"));
    const QList<QPair<QByteArray, QByteArray>> files{
        {"zero", ""},
        {"one", "1"},
        {"text", QByteArray("all work and no play ").repeated(500)},
        {"a b/noise", noise(70000)},
        {"a b/c/two  blanks and one behind ", "x"},
        {"large text", QByteArray("makes a dull boy ").repeated(300000)},
        {"large noise", noise(5 << 20)},
        {"zeros", QByteArray((3 << 20) + 17, '\0')},
        {"日本 & <語> \"quoted\" $x `y`", "unicode"},
        {"line\nbreak\tand tab", "odd"},
        {QByteArray(255, 'n'), "long"},
        {"foo- 7 bar", "like a listing"},
    };
    for (const auto &[name, data] : files)
        writeFile(source + name, data);
    if (withBytesThatAreNoText) {
        writeFile(source + "no text \xff\xfe", "1");
        writeFile(source + "control \x01\x1b[31m", "2");
        writeFile(source + "back\\slash", "3");
    }
    const Output made = shell("ln text 'a b/hard'; ln -s text soft; ln -s 'c/d' 'a b/down'; chmod 700 empty; "
                              "chmod 4751 one; chmod 400 text; find . -exec touch -h -d @1600000007 {} +",
                              m_source);
    QVERIFY2(made.status == 0, made.text.constData());
}

void TestXar::keepsEverything()
{
    makeTree(true);
    const auto packed = pack(m_source, m_archive);
    QVERIFY2(packed, qPrintable(packed ? QString() : packed.error().reason));
    const Output extracted = shell('"' + tool() + "\" --distribution -v -x -f ../../archive.xar", m_out);
    QVERIFY2(extracted.status == 0, extracted.text.constData());
    // One line each, whatever the names.
    const Output count = shell("find . -mindepth 1 -printf 'x\\n' | wc -l", m_source);
    QCOMPARE(extracted.text.count('\n'), count.text.trimmed().toInt());
    // Only set-user bits are left out.
    shell("chmod 751 one", m_source);
    QCOMPARE(shell(describe, m_out).text, shell(describe, m_source).text);
    const Output difference = shell("diff -r --no-dereference . ../inner/out", m_source);
    QVERIFY2(difference.status == 0, difference.text.constData());
}

void TestXar::othersReadIt_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("7z") << "7z t ../../archive.xar && 7z x ../../archive.xar && rm '[TOC].xml'";
    QTest::newRow("bsdtar") << "bsdtar -xf ../../archive.xar";
    QTest::newRow("unar") << "unar -q -o . -D ../../archive.xar";
}

void TestXar::othersReadIt()
{
    QFETCH(QString, command);
    makeTree(false);
    QVERIFY(pack(m_source, m_archive));
    const Output extracted = shell(command, m_out);
    QVERIFY2(extracted.status == 0, extracted.text.constData());
    const Output difference = shell("diff -r --no-dereference . ../inner/out", m_source);
    QVERIFY2(difference.status == 0, difference.text.constData());
}

void TestXar::readsOthers_data()
{
    QTest::addColumn<QString>("options");
    for (const char *options :
         {"compression=none", "compression=gzip", "compression=bzip2", "compression=lzma", "compression=xz",
          "checksum=md5", "toc-checksum=none", "toc-checksum=md5,checksum=none"})
        QTest::newRow(options) << options;
}

void TestXar::readsOthers()
{
    QFETCH(QString, options);
    makeTree(false);
    QString quoted;
    for (const QString &option : options.split(','))
        quoted += (quoted.isEmpty() ? "xar:" : ",xar:") + option;
    const Output made =
        shell("find . -mindepth 1 -maxdepth 1 -printf '%P\\0' | bsdtar --format xar --options '" + quoted +
                  "' --null -T - -cf ../archive.xar",
              m_source);
    QVERIFY2(made.status == 0, made.text.constData());
    const Output extracted = shell('"' + tool() + "\" -x -f ../../archive.xar", m_out);
    QVERIFY2(extracted.status == 0, extracted.text.constData());
    const Output difference = shell("diff -r --no-dereference . ../inner/out", m_source);
    QVERIFY2(difference.status == 0, difference.text.constData());
}

void TestXar::largeData_data()
{
    QTest::addColumn<int>("files");
    QTest::addColumn<bool>("fitsBefore");
    // The data is written before the table is known, behind a gap for it.
    QTest::newRow("the table fits before the data") << 20 << true;
    QTest::newRow("the data has to move") << 9000 << false;
}

void TestXar::largeData()
{
    QFETCH(int, files);
    QFETCH(bool, fitsBefore);
    writeFile(m_source.toUtf8() + "/noise", noise(26 << 20));
    QRandomGenerator generator(1);
    for (int i = 0; i < files; ++i) {
        QByteArray name;
        while (name.size() < 140)
            name += QByteArray::number(generator.generate64(), 36);
        writeFile(m_source.toUtf8() + '/' + name, QByteArray::number(i));
    }
    QVERIFY(pack(m_source, m_archive));
    const QByteArray head = contents(m_archive).left(28);
    QCOMPARE(qFromBigEndian<quint64>(head.constData() + 8) < (1 << 20), fitsBefore);
    const Output extracted = shell('"' + tool() + "\" -x -f ../../archive.xar", m_out);
    QVERIFY2(extracted.status == 0, extracted.text.constData());
    QCOMPARE(shell("diff -r . ../inner/out", m_source).status, 0);
    const Output other = shell("rm -rf *; bsdtar -xf ../../archive.xar; diff -r . ../../source", m_out);
    QVERIFY2(other.status == 0, other.text.constData());
}

void TestXar::dependsOnTheFilesAlone()
{
    makeTree(true);
    for (int i = 0; i < 300; ++i)
        writeFile(m_source.toUtf8() + "/f" + QByteArray::number(i), noise(i * 977 % 60000).toHex());
    QVERIFY(pack(m_source, m_archive));
    const QByteArray first = contents(m_archive);
    for (int again = 0; again < 3; ++again) {
        QVERIFY(pack(m_source, m_archive));
        QVERIFY(contents(m_archive) == first);
    }
}

void TestXar::hostile_data()
{
    QTest::addColumn<QByteArray>("archive");
    QTest::addColumn<Fate>("fate");
    const QByteArray good = fileElement("good", dataElement(), "1");
    const auto row = [&](const char *what, Fate fate, const QByteArray &files) {
        QTest::newRow(what) << archiveOf(tableOf(good + files), dataOfGood) << fate;
    };
    const auto other = [](const QByteArray &data) { return fileElement("other", data, "2"); };
    const auto sum = [](const char *element, const char *style) -> QByteArray {
        return QByteArray("<") + element + " style=\"" + style + "\">00112233</" + element + ">";
    };
    row("offset behind the end", Fate::Without, other(dataElement("26", "5")));
    row("length over the end", Fate::Without, other(dataElement("20", "6", "6")));
    row("offset and length overflow", Fate::Without, other(dataElement("18446744073709551610", "20", "20")));
    row("length overflows", Fate::Without, other(dataElement("20", "18446744073709551615", "5")));
    row("size larger than a file can be", Fate::Refused,
        other(dataElement("20", "5", "9223372036854775808")));
    row("no number", Fate::Refused, other(dataElement("-20")));
    row("larger than it says", Fate::Without, other(dataElement("20", "5", "4")));
    row("smaller than it says", Fate::Without, other(dataElement("20", "5", "6")));
    row("no data", Fate::Without, other("<data><size>5</size></data>"));
    row("not compressed as it says", Fate::Without,
        other(dataElement("20", "5", "5", "", "application/x-gzip")));
    row("unknown compression", Fate::Without, other(dataElement("20", "5", "5", "", "application/x-new")));
    row("archived checksum", Fate::Without,
        other(dataElement("20", "5", "5", sum("archived-checksum", "sha1"))));
    row("extracted checksum", Fate::Without,
        other(dataElement("20", "5", "5", sum("extracted-checksum", "md5"))));
    row("unknown checksum", Fate::Without,
        other(dataElement("20", "5", "5", sum("extracted-checksum", "new"))));
    row("parent", Fate::Without, fileElement("..", dataElement(), "2"));
    row("climbs", Fate::Without, fileElement("x/../../../escaped", dataElement(), "2"));
    row("absolute", Fate::Harmless, fileElement("/tmp-escaped", dataElement(), "2"));
    row("base64 that climbs", Fate::Without,
        "<file id=\"2\">" + dataElement() + "<type>file</type><name enctype=\"base64\">" +
            QByteArray("../escaped").toBase64() + "</name></file>");
    row("through a link", Fate::Without,
        linkElement("out", "../../..", "2") + fileElement("out/escaped", dataElement(), "3"));
    row("link out", Fate::Without, linkElement("out", "../../escaped", "2"));
    row("device", Fate::Without, "<file id=\"2\"><type>character special</type><name>dev</name></file>");
    row("hard link to nothing", Fate::Refused,
        "<file id=\"2\"><type link=\"9\">hardlink</type><name>h</name></file>");
    row("hard links in a circle", Fate::Refused,
        "<file id=\"2\"><type link=\"3\">hardlink</type><name>h</name></file>"
        "<file id=\"3\"><type link=\"2\">hardlink</type><name>i</name></file>");
    row("same number twice", Fate::Refused, fileElement("other", dataElement(), "1"));
    row("two names", Fate::Refused, "<file id=\"2\"><name>a</name><name>b</name></file>");
    row("no name", Fate::Refused, "<file id=\"2\"><type>file</type></file>");
    row("name too long for a name", Fate::Without, fileElement(QByteArray(300, 'n'), dataElement(), "2"));
    row("text without end", Fate::Refused, fileElement(QByteArray(1 << 20, 'n'), dataElement(), "2"));
    row("nested too deeply", Fate::Refused,
        QByteArray("<file><name>d</name>").repeated(5000) + QByteArray("</file>").repeated(5000));
    row("unknown elements nested too deeply", Fate::Refused,
        QByteArray("<x>").repeated(100000) + QByteArray("</x>").repeated(100000));
    row("unknown entity", Fate::Refused, fileElement("&lol;", dataElement(), "2"));
    row("not closed", Fate::Refused, "<file id=\"2\"><name>a");
    row("a token without end", Fate::Refused, "<!-- " + QByteArray(8 << 20, '-'));

    QByteArray laughs = "<!DOCTYPE xar [<!ENTITY l0 \"lol\">";
    for (int i = 1; i < 10; ++i)
        laughs += "<!ENTITY l" + QByteArray::number(i) + " \"" +
                  QByteArray("&l" + QByteArray::number(i - 1) + ';').repeated(10) + "\">";
    QByteArray table = tableOf(good + fileElement("&l9;", dataElement(), "2"));
    table.insert(table.indexOf("<xar>"), laughs + "]>");
    QTest::newRow("a billion laughs") << archiveOf(table, dataOfGood) << Fate::Refused;
    QTest::newRow("an outer document")
        << archiveOf("<!DOCTYPE xar SYSTEM \"file:///etc/passwd\">" + tableOf(good), dataOfGood)
        << Fate::Refused;
    QTest::newRow("another document") << archiveOf("<tar/>", dataOfGood) << Fate::Refused;
    QTest::newRow("no table") << archiveOf("<xar></xar>", dataOfGood) << Fate::Refused;
    QTest::newRow("table larger than it says") << archiveOf(tableOf(good), dataOfGood, 100) << Fate::Refused;
    QTest::newRow("table smaller than it says")
        << archiveOf(tableOf(good), dataOfGood, 1 << 20) << Fate::Refused;
    QTest::newRow("absurd table") << archiveOf(tableOf(good), dataOfGood, quint64(1) << 40) << Fate::Refused;
    const QByteArray whole = archiveOf(tableOf(good), dataOfGood);
    const auto changed = [&](const char *what, int at, char value) {
        QByteArray bytes = whole;
        bytes[at] = value;
        QTest::newRow(what) << bytes << Fate::Refused;
    };
    changed("checksum of the table", static_cast<int>(whole.size()) - 6, '!');
    changed("table damaged", 60, '!');
    changed("header larger than the file", 4, '\x7f');
    changed("header smaller than a header", 5, '\x08');
    changed("table larger than the file", 8, '\xff');
    changed("unknown checksum of the table", 27, '\x77');
}

void TestXar::hostile()
{
    QFETCH(QByteArray, archive);
    QFETCH(Fate, fate);
    writeFile(m_archive.toUtf8(), archive);
    QCOMPARE(static_cast<bool>(xar_open(m_archive.toUtf8(), xar_mode::read)), fate != Fate::Refused);
    const QByteArray before = shell("find ../.. -path ../../inner/out -prune -o -print | sort", m_out).text;
    const Output extracted = shell('"' + tool() + "\" -x -f ../../archive.xar", m_out);
    QCOMPARE(extracted.status, fate == Fate::Harmless ? 0 : 1);
    QVERIFY(fate == Fate::Harmless || extracted.text.startsWith("xar: "));
    QCOMPARE(shell("find ../.. -path ../../inner/out -prune -o -print | sort", m_out).text, before);
    const QStringList names = QDir(m_out).entryList(QDir::Files | QDir::Hidden | QDir::System);
    QCOMPARE(names, fate == Fate::Refused   ? QStringList()
                    : fate == Fate::Without ? QStringList{"good"}
                                            : QStringList({"good", "tmp-escaped"}));
}

void TestXar::cutOffAnywhere()
{
    writeFile(m_source.toUtf8() + "/a", QByteArray("some text ").repeated(20));
    writeFile(m_source.toUtf8() + "/b", noise(300));
    QVERIFY(pack(m_source, m_archive));
    const QByteArray whole = contents(m_archive);
    for (qsizetype size = 0; size < whole.size(); ++size) {
        writeFile(m_archive.toUtf8(), whole.left(size));
        const auto opened = xar_open(m_archive.toUtf8(), xar_mode::read);
        if (!opened)
            continue;
        bool isWhole = true;
        const xar_iter_t iterator = xar_iter_new();
        for (xar_file_t file = xar_file_first(*opened.value(), *iterator); file;
             file = xar_file_next(*opened.value(), *iterator))
            isWhole = xar_extract(*opened.value(), *file, [](const char *, std::size_t) { return true; }) &&
                      isWhole;
        QVERIFY2(!isWhole, qPrintable(QString::number(size)));
    }
}

void TestXar::filesThatShrink()
{
    auto opened = xar_open(m_archive.toUtf8(), xar_mode::write);
    QVERIFY(opened);
    // Files there have the size of a page but less in them.
    const QByteArray claims = "/sys/devices/system/cpu/online";
    QVERIFY(xar_add_frompath(*opened.value(), nullptr, "claims", claims));
    const QByteArray large = m_source.toUtf8() + "/large";
    writeFile(large, QByteArray("0123456789abcdef").repeated(4 << 20));
    QVERIFY(xar_add_frompath(*opened.value(), nullptr, "large", large));
    QCOMPARE(::truncate(large.constData(), (20 << 20) + 5), 0);
    QVERIFY(xar_close(*opened.value()));

    const auto read = xar_open(m_archive.toUtf8(), xar_mode::read);
    QVERIFY(read);
    const xar_iter_t iterator = xar_iter_new();
    const xar_file_t first = xar_file_first(*read.value(), *iterator);
    const xar_file_t second = xar_file_next(*read.value(), *iterator);
    QByteArray text;
    QVERIFY(xar_extract(*read.value(), *first, [&](const char *data, std::size_t size) {
        text.append(data, static_cast<qsizetype>(size));
        return true;
    }));
    QCOMPARE(text, contents(QString::fromUtf8(claims)));
    // How much of it was still there is a matter of time; but what there is fits together.
    QVERIFY(second->size <= (64 << 20));
    QVERIFY(xar_extract(*read.value(), *second, [](const char *, std::size_t) { return true; }));
}

void TestXar::unreadableFiles()
{
    QVERIFY(shell("mkfifo pipe", m_source).status == 0);
    auto result = pack(m_source, m_archive);
    QVERIFY(!result);
    QVERIFY(result.error().description.contains("pipe"));
    QVERIFY(!QFile::exists(m_archive));
    // A loop has to end at the file, not in it.
    QVERIFY(shell("rm pipe; ln -s . loop; echo x > x", m_source).status == 0);
    QVERIFY(pack(m_source, m_archive));
    auto opened = xar_open(m_archive.toUtf8(), xar_mode::write);
    QVERIFY(opened);
    QVERIFY(!xar_add_frompath(*opened.value(), nullptr, "gone", "/nonexistent/gone"));
    result = xar_close(*opened.value());
    QVERIFY(!result);
    QCOMPARE(result.error().code, ENOENT);
    QVERIFY(!QFile::exists(m_archive));
}

void TestXar::cancelLeavesNothing()
{
    writeFile(m_source.toUtf8() + "/large", QByteArray(64 << 20, 'x'));
    auto opened = xar_open(m_archive.toUtf8(), xar_mode::write);
    QVERIFY(opened);
    QVERIFY(xar_add_frompath(*opened.value(), nullptr, "large", m_source.toUtf8() + "/large"));
    std::thread canceller([&] { xar_cancel(*opened.value()); });
    const auto result = xar_close(*opened.value());
    canceller.join();
    if (!result)
        QCOMPARE(result.error().code, static_cast<int>(xar_error::stopped));
    QCOMPARE(QFile::exists(m_archive), static_cast<bool>(result));

    opened = xar_open(m_archive.toUtf8(), xar_mode::write);
    QVERIFY(opened);
    xar_cancel(*opened.value());
    QVERIFY(!xar_add_frompath(*opened.value(), nullptr, "large", m_source.toUtf8() + "/large"));
    QVERIFY(!xar_close(*opened.value()));
    QVERIFY(!QFile::exists(m_archive));
}

void TestXar::fullDiskLeavesNothing()
{
    // A file that must not grow ends like one on a full disk.
    rlimit before{};
    QCOMPARE(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    for (const int size : {4 << 20, 40 << 20}) {
        writeFile(m_source.toUtf8() + "/noise", noise(size));
        const rlimit limit{1 << 20, before.rlim_max};
        QCOMPARE(::setrlimit(RLIMIT_FSIZE, &limit), 0);
        const auto result = pack(m_source, m_archive);
        ::setrlimit(RLIMIT_FSIZE, &before);
        QVERIFY(!result);
        QCOMPARE(result.error().code, EFBIG);
        QVERIFY(!QFile::exists(m_archive));
    }
    std::signal(SIGXFSZ, previous);
}

void TestXar::selectedEntries()
{
    QVERIFY(
        shell("mkdir -p a/b; echo 1 > a/b/1; echo 2 > a/2; echo 3 > -x; ln a/2 a/b/link", m_source).status ==
        0);
    QVERIFY(pack(m_source, m_archive));
    const auto run = [&](const QString &names) -> QString {
        const Output ran = shell("rm -rf -- *; '" + tool() + "' -x -f ../../archive.xar " + names +
                                     "; find . -type f -printf '%P\\n' | sort | tr '\\n' ' '",
                                 m_out);
        return QString::number(ran.status) + ' ' + QString::fromUtf8(ran.text).split('\n').last();
    };
    QCOMPARE(run("a/b/"), "0 a/b/1 a/b/link ");
    QCOMPARE(run("-x ./a/2"), "0 -x a/2 ");
    QCOMPARE(contents(m_out + "/a/2"), QByteArray("2\n"));
    QVERIFY(run("a/b/link").startsWith("0 a/b/link"));
    QCOMPARE(contents(m_out + "/a/b/link"), QByteArray("2\n"));
    QVERIFY(run("a/missing").startsWith('1'));
}

QTEST_GUILESS_MAIN(TestXar)
#include "tst_xar.moc"
