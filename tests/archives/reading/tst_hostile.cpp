#include "archives/reading/XADArchive.h"
#include "support/ArchiveBytes.h"
#include "support/TestTree.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <cstdio>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using ArchiveBytes::Item;
using Type = ArchiveBytes::Item::Type;

namespace {

constexpr int timeLimitMs = 30'000;
constexpr long peakLimitKiB = 512 * 1024;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool measuresMemory = false; // the sanitizers keep much more than the program does
#else
constexpr bool measuresMemory = true;
#endif

/// Answers as the back end does: a damaged entry, a password or a method that is missing ends the
/// extraction, everything else is passed over; no limit is lifted.
class Delegate final : public XADArchiveDelegate
{
public:
    int questions = 0;

    void archiveNeedsPassword(XADArchive &) override {}
    void archiveExtractionProgressBytes(XADArchive &, qint64, qint64) override {}
    XADAction archiveExtractionOfEntryDidFail(XADArchive &, int, XADErrorCode error) override
    {
        return int(error) < 100 ? XADAction::Abort : XADAction::Skip;
    }
    bool archiveExtractionShouldStop(XADArchive &) override { return false; }
    bool archiveExtractionMayExceedLimit(XADArchive &, const QString &) override
    {
        ++questions;
        return false;
    }
};

/// The child that does the reading, so that a hang, a crash and the memory are its own.
int extractAndTell(const QString &path, const QString &destination)
{
    Delegate delegate;
    XADErrorCode code = XADErrorCode::None;
    QString text;
    QJsonArray skipped;
    if (const auto archive = XADArchive::recursiveArchiveForFile(path, &delegate, &code, &text)) {
        code = archive->extractTo(destination, true);
        text = archive->lastErrorText();
        for (const CVSkippedEntry &entry : archive->skippedEntries())
            skipped.append(QJsonArray{int(entry.code), entry.name.left(200), entry.reason});
    }
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const QJsonObject told{{"code", int(code)},
                           {"text", text},
                           {"skipped", skipped},
                           {"questions", delegate.questions},
                           {"peakKiB", qint64(usage.ru_maxrss)}};
    const QByteArray bytes = QJsonDocument(told).toJson(QJsonDocument::Compact);
    std::fwrite(bytes.constData(), 1, std::size_t(bytes.size()), stdout);
    return 0;
}

enum Format { Tar = 1, Zip = 2, SevenZip = 4, Xar = 8, All = Tar | Zip | SevenZip | Xar };

struct Expected
{
    QByteArray path;
    Type type = Type::File;
    QByteArray content = {}; ///< of a file, or the target of a link
    int mode = -1;           ///< permission bits where they matter
};

constexpr int refused = int(XADErrorCode::Refused);
constexpr int notMade = int(XADErrorCode::NotMade);
constexpr int damaged = int(XADErrorCode::Damaged);

struct Case
{
    const char *name;
    int formats;
    QList<Item> items;
    QList<Expected> delivered;
    QList<int> leftOut = {}; ///< codes of the entries that are reported as left out, in any order
    int code = 0;            ///< of the whole extraction
};

Item file(const QByteArray &name, const QByteArray &data = "data")
{
    Item item;
    item.name = name;
    item.data = data;
    return item;
}

Item folder(const QByteArray &name)
{
    Item item;
    item.name = name;
    item.type = Type::Directory;
    return item;
}

Item link(const QByteArray &name, const QByteArray &target, Type type = Type::Symlink)
{
    Item item;
    item.name = name;
    item.type = type;
    item.target = target;
    return item;
}

Item withMode(Item item, unsigned mode)
{
    item.mode = mode;
    item.keepMode = true;
    return item;
}

Item special(const QByteArray &name, Type type)
{
    Item item;
    item.name = name;
    item.type = type;
    return item;
}

Item claiming(Item item, std::uint64_t size)
{
    item.claimedSize = size;
    return item;
}

QByteArray nested(int depth)
{
    return QByteArray("d/").repeated(depth) + "leaf.txt";
}

/// One row for every line of the table in docs/security.md. "good.txt" stands for the rest of the
/// archive, which has to arrive whatever its neighbours are. ROOT in a name stands for the folder
/// around the destination, in which nothing may change.
QList<Case> cases()
{
    const Item good = file("good.txt", "good");
    const Expected goodThere{"good.txt", Type::File, "good"};
    const QByteArray longest(255, 'l');
    QList<Case> list = {
        {"climbing names",
         All,
         {file("../escape.txt"), file("a/../../escape.txt"), file("a/../inside.txt"), good},
         {goodThere},
         {refused, refused, refused}},
        {"sibling with the same prefix", All, {file("../out-sibling/new.txt"), good}, {goodThere}, {refused}},
        {"absolute names",
         All,
         {file("/abs/file.txt", "abs"), file("ROOT/canary.txt", "other"), good},
         {{"abs/file.txt", Type::File, "abs"}, {"ROOT/canary.txt", Type::File, "other"}, goodThere},
         {}},
        {"drive names",
         All,
         {file("C:/a/x.txt", "x"), file("C:\\b\\y.txt", "y"), good},
         {{"a/x.txt", Type::File, "x"}, {"b/y.txt", Type::File, "y"}, goodThere},
         {}},
        {"climbing backslash names",
         All,
         {file("..\\escape.txt"), file("a\\..\\..\\escape.txt"), good},
         {goodThere},
         {refused, refused}},
        {"empty and dot names",
         Zip | Xar,
         {file(""), file("."), file(".."), folder("./"), good},
         {goodThere},
         {refused, refused, refused}},
        {"dot names",
         Tar | SevenZip,
         {file("."), file(".."), folder("./"), good},
         {goodThere},
         {refused, refused}},
        {"NUL in a name", Zip, {file(QByteArray("te\0xt.txt", 9)), good}, {goodThere}, {refused}},
        {"control characters and text direction marks",
         All,
         {file("line\nbreak"), file("esc\x1b[31m"), file("safe\xe2\x80\xaetxt.exe"), good},
         {{"line\nbreak", Type::File, "data"},
          {"esc\x1b[31m", Type::File, "data"},
          {"safe\xe2\x80\xaetxt.exe", Type::File, "data"},
          goodThere},
         {}},
        {"long names",
         All,
         {file(longest), file(longest + 'l'), file(QByteArray('/' + longest.left(99)).repeated(50)), good},
         {{longest, Type::File, "data"}, goodThere},
         {refused, refused}},
        {"a thousand folders deep",
         All,
         {file(nested(1000)), good},
         {{nested(1000), Type::File, "data"}, goodThere},
         {}},
        {"three thousand folders deep", All, {file(nested(3000)), good}, {goodThere}, {refused}},
        {"same name twice, later one counts",
         Tar,
         {file("a.txt", "one"), file("a.txt", "two"), good},
         {{"a.txt", Type::File, "two"}, goodThere},
         {}},
        {"same name twice",
         Zip | SevenZip | Xar,
         {file("a.txt", "one"), file("a.txt", "two"), good},
         {{"a.txt", Type::File, "one"}, {"a 2.txt", Type::File, "two"}, goodThere},
         {notMade}},
        {"case twins",
         All,
         {file("a.txt", "one"), file("A.txt", "two"), good},
         {{"a.txt", Type::File, "one"}, {"A.txt", Type::File, "two"}, goodThere},
         {}},
        {"file, then folder of one name",
         All,
         {file("both", "file"), file("both/inside.txt", "inside"), good},
         {{"both", Type::File, "file"}, goodThere},
         {refused}},
        {"folder, then file of one name",
         All,
         {file("both/inside.txt", "inside"), file("both", "file"), good},
         {{"both/inside.txt", Type::File, "inside"}, goodThere},
         {refused}},
        {"write through a link",
         All,
         {link("up", ".."), file("up/through.txt", "in"), link("abs", "ROOT"), file("abs/canary.txt", "in"),
          good},
         {{"up/through.txt", Type::File, "in"}, {"abs/canary.txt", Type::File, "in"}, goodThere},
         {refused, refused}},
        {"chain of links",
         All,
         {link("a", "b"), link("b", "c"), link("c", ".."), folder("deep"), link("deep/e", "../a/canary.txt"),
          good},
         {{"deep", Type::Directory, {}}, goodThere},
         {refused, refused, refused, refused}},
        {"links that leave",
         All,
         {link("etc", "/etc/passwd"), link("out", "../canary.txt"), link("loop", "loop"),
          link("ok", "good.txt"), good},
         {{"ok", Type::Symlink, "good.txt"}, goodThere},
         {refused, refused, refused}},
        {"hard links that leave",
         Tar,
         {link("h1", "../canary.txt", Type::HardLink), link("h2", "ROOT/canary.txt", Type::HardLink), good,
          link("ok", "good.txt", Type::HardLink)},
         {goodThere, {"ok", Type::File, "good"}},
         {refused, notMade}},
        {"modes",
         All,
         {withMode(file("none"), 0), withMode(file("setuid"), 06777), withMode(folder("sealed"), 0),
          withMode(folder("sticky"), 07777), file("sealed/inside.txt", "in"), good},
         {{"none", Type::File, "data", 0400},
          {"setuid", Type::File, "data", 0755},
          {"sealed", Type::Directory, {}, 0500},
          {"sealed/inside.txt", Type::File, "in"},
          {"sticky", Type::Directory, {}, 0755},
          goodThere},
         {}},
        {"devices and FIFOs",
         All,
         {special("null", Type::CharacterDevice), special("pipe", Type::Fifo), good},
         {goodThere},
         {notMade, notMade}},
        // The destination holds two links from an earlier archive: "planted" to the folder outside of it,
        // "canary-link" to the file there.
        {"links planted earlier",
         All,
         {file("planted/canary.txt", "bad"), file("canary-link", "bad"), good},
         {goodThere},
         {refused, refused}},
        {"data longer than declared",
         Zip | SevenZip,
         {good, claiming(file("lie.txt", "twelve bytes"), 5)},
         {},
         {},
         damaged},
        {"data shorter than declared",
         All,
         {good, claiming(file("lie.txt", "twelve bytes"), 5000)},
         {},
         {},
         damaged},
        {"declared size beyond the disk",
         Tar,
         {claiming(file("huge.bin"), std::uint64_t(1) << 50)},
         {},
         {},
         damaged},
    };
    return list;
}

QByteArray built(const QList<Item> &items, Format format)
{
    switch (format) {
    case Tar:
        return ArchiveBytes::tar(items);
    case Zip:
        return ArchiveBytes::zip(items);
    case SevenZip:
        return ArchiveBytes::sevenZip(items);
    case Xar:
        return ArchiveBytes::xar(items);
    case All:
        break;
    }
    return {};
}

struct Told
{
    bool ended = false;
    QJsonObject object;
    QByteArray err;

    int code() const { return object["code"].toInt(); }
    QList<int> leftOut() const
    {
        QList<int> codes;
        for (const auto &entry : object["skipped"].toArray())
            codes.append(entry.toArray()[0].toInt());
        std::sort(codes.begin(), codes.end());
        return codes;
    }
};

/// A destination with things around it that must stay as they are.
class Place
{
public:
    Place()
        : m_root(QDir::tempPath() + "/hostile-XXXXXX")
    {
        for (const char *path : {"outer/out", "outer/out-sibling", "outer/outside", "outer/etc"})
            QDir(m_root.path()).mkpath(path);
        for (const char *path : {"outer/canary.txt", "outer/out-sibling/canary.txt",
                                 "outer/outside/canary.txt", "outer/etc/passwd"})
            write(path, "canary");
        m_before = around();
    }

    QByteArray outer() const { return QFile::encodeName(m_root.filePath("outer")); }
    QString destination() const { return m_root.filePath("outer/out"); }

    void plantLinks() const
    {
        QFile::link("../outside", destination() + "/planted");
        QFile::link("../outside/canary.txt", destination() + "/canary-link");
    }

    Told extract(const QByteArray &archive, const QString &suffix) const
    {
        write("archive." + suffix, archive);
        QProcess child;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        QDir(m_root.path()).mkdir("tmp");
        environment.insert("TMPDIR", m_root.filePath("tmp"));
        child.setProcessEnvironment(environment);
        child.start(QCoreApplication::applicationFilePath(),
                    {"--extract", m_root.filePath("archive." + suffix), destination()});
        Told told;
        told.ended = child.waitForFinished(timeLimitMs) && child.exitStatus() == QProcess::NormalExit &&
                     child.exitCode() == 0;
        if (child.state() != QProcess::NotRunning) {
            child.kill();
            child.waitForFinished();
        }
        told.object = QJsonDocument::fromJson(child.readAllStandardOutput()).object();
        told.err = child.readAllStandardError();
        return told;
    }

    /// Everything around the destination, in words, that is not as it was.
    QStringList changes() const
    {
        QStringList found = treeDifferences(m_before, around());
        for (const auto &[path, node] : around())
            if (const auto before = m_before.find(path);
                before != m_before.end() &&
                (before->second.mode != node.mode || before->second.inode != node.inode ||
                 before->second.changedNs != node.changedNs))
                found.append(QString::fromUtf8(path) + ": was touched");
        if (!treeFromDisk(m_root.filePath("tmp")).empty())
            found.append("something was left in the folder for temporary files");
        return found;
    }

    QByteArray content(const QByteArray &path) const
    {
        QFile file(destination() + '/' + QFile::decodeName(path));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(unreadable)");
    }

private:
    void write(const QString &path, const QByteArray &bytes) const
    {
        QFile file(m_root.filePath(path));
        if (file.open(QIODevice::WriteOnly))
            file.write(bytes);
    }

    TestTree around() const { return treeFromDisk(m_root.filePath("outer"), {"out"}); }

    QTemporaryDir m_root;
    TestTree m_before;
};

QByteArray inPlace(QByteArray name, const QByteArray &outer)
{
    return name.replace("ROOT", outer);
}

} // namespace

/// Archives built to do harm: whatever they hold, nothing outside the destination changes, and what
/// becomes of each entry is what docs/security.md says.
class tst_hostile : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void entries_data();
    void entries();
    void bombs_data();
    void bombs();
    void archivesWithoutEnd();
};

void tst_hostile::initTestCase()
{
    umask(022);
}

void tst_hostile::entries_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("format");
    const QList<Case> all = cases();
    for (int i = 0; i < all.size(); ++i)
        for (const auto &[format, name] :
             {std::pair(Tar, "tar"), std::pair(Zip, "zip"), std::pair(SevenZip, "7z"), std::pair(Xar, "xar")})
            if (all[i].formats & format)
                QTest::addRow("%s: %s", name, all[i].name) << i << int(format);
}

void tst_hostile::entries()
{
    QFETCH(int, index);
    QFETCH(int, format);
    const Case c = cases()[index];
    const Place place;
    const bool planted = qstrcmp(c.name, "links planted earlier") == 0;
    if (planted)
        place.plantLinks();

    QList<Item> items = c.items;
    for (Item &item : items) {
        item.name = inPlace(item.name, place.outer());
        item.target = inPlace(item.target, place.outer());
    }
    static const QHash<int, QString> suffixes{{Tar, "tar"}, {Zip, "zip"}, {SevenZip, "7z"}, {Xar, "xar"}};
    const Told told = place.extract(built(items, Format(format)), suffixes[format]);
    QVERIFY2(told.ended, told.err.constData());
    const QByteArray account = QJsonDocument(told.object).toJson();

    const QStringList changes = place.changes();
    QVERIFY2(changes.isEmpty(), qPrintable(changes.join('\n')));
    if (measuresMemory)
        QVERIFY2(told.object["peakKiB"].toInteger() < peakLimitKiB, account.constData());

    QCOMPARE(told.code(), c.code);
    if (c.code != 0) {
        // The rest may be there or not, but never the entry that lies.
        for (const auto &[path, node] : treeFromDisk(place.destination()))
            QCOMPARE(path, QByteArray("good.txt"));
        return;
    }
    QList<int> leftOut = c.leftOut;
    std::sort(leftOut.begin(), leftOut.end());
    QVERIFY2(told.leftOut() == leftOut, account.constData());

    const TestTree tree =
        treeFromDisk(place.destination(), planted ? QStringList{"planted", "canary-link"} : QStringList());
    TestTree expected;
    for (const Expected &item : c.delivered) {
        QByteArray path = inPlace(item.path, place.outer());
        while (path.startsWith('/'))
            path.remove(0, 1);
        for (qsizetype slash = path.indexOf('/'); slash > 0; slash = path.indexOf('/', slash + 1))
            expected.try_emplace(path.left(slash), TestNode{.type = TestNode::Type::Directory});
        TestNode node;
        if (item.type == Type::Directory)
            node.type = TestNode::Type::Directory;
        else if (item.type == Type::Symlink)
            node = {.type = TestNode::Type::Symlink, .target = item.content};
        expected[path] = node;
    }
    const QStringList differences = treeDifferences(expected, tree);
    QVERIFY2(differences.isEmpty(), qPrintable(differences.join('\n') + '\n' + account));
    for (const Expected &item : c.delivered) {
        QByteArray path = inPlace(item.path, place.outer());
        while (path.startsWith('/'))
            path.remove(0, 1);
        if (item.type == Type::File)
            QCOMPARE(place.content(path), item.content);
        if (item.mode >= 0)
            QCOMPARE(int(tree.at(path).mode & 07777), item.mode);
    }
}

void tst_hostile::bombs_data()
{
    QTest::addColumn<bool>("asZip");
    QTest::newRow("zip") << true;
    QTest::newRow("gzip") << false;
}

// Beyond a size and a ratio that no ordinary archive reaches, the person is asked; without an answer
// nothing of the entry stays.
void tst_hostile::bombs()
{
    QFETCH(bool, asZip);
    constexpr std::uint64_t size = std::uint64_t(560) << 20;
    QByteArray archive;
    if (asZip) {
        const ArchiveBytes::Zeros zeros = ArchiveBytes::deflatedZeros(size);
        archive = ArchiveBytes::zip({claiming(file("zeros", zeros.deflated), size)}, zeros.crc);
    } else {
        archive = ArchiveBytes::gzipOfZeros(size);
    }
    const Place place;
    const Told told = place.extract(archive, asZip ? "zip" : "gz");
    QVERIFY2(told.ended, told.err.constData());
    QCOMPARE(told.code(), damaged);
    QVERIFY(told.object["questions"].toInt() >= 1);
    QVERIFY(treeFromDisk(place.destination()).empty());
    QVERIFY(place.changes().isEmpty());
}

// An archive that holds itself, or very many others inside each other, is opened a few layers deep.
void tst_hostile::archivesWithoutEnd()
{
    QByteArray archive = "the core";
    for (int layer = 0; layer < 200; ++layer)
        archive = ArchiveBytes::gzip(archive);
    const Place place;
    const Told told = place.extract(archive, "gz");
    QVERIFY2(told.ended, told.err.constData());
    QVERIFY(place.changes().isEmpty());
    // Delivered is one file, still an archive, or nothing and an error: never silence.
    const TestTree tree = treeFromDisk(place.destination());
    QVERIFY(told.code() == 0 ? tree.size() == 1 : tree.empty());
}

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() == 4 && arguments[1] == "--extract")
        return extractAndTell(arguments[2], arguments[3]);
    tst_hostile test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_hostile.moc"
