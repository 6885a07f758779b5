#include "archives/reading/CVSafePath.h"
#include "archives/reading/CVSafeWriter.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <thread>

#include <sys/resource.h>
#include <sys/stat.h>

using Type = XADEntry::Type;
using Flow = CVEntryWriter::Flow;

namespace {

/// An archive that is just a list of entries with their data.
class ListedEngine final : public CVReadingEngine
{
public:
    void add(Type type, const QByteArray &name, const QByteArray &data = {}, const QByteArray &target = {},
             std::uint32_t mode = 0644)
    {
        XADEntry entry;
        entry.name = name;
        entry.type = type;
        entry.linkTarget = target;
        entry.size = type == Type::File ? data.size() : -1;
        entry.mode = mode;
        entry.hasMode = true;
        m_entries.push_back(entry);
        m_data.push_back(data);
    }
    XADEntry &last() { return m_entries.back(); }

    QString formatName() const override { return QStringLiteral("list"); }
    const std::vector<XADEntry> &entries() const override { return m_entries; }
    bool isEncrypted() const override { return false; }
    Outcome extract(std::span<const int>, bool, CVEntrySink &sink) override
    {
        for (std::size_t i = 0; i < m_entries.size(); ++i) {
            const auto writer = sink.beginEntry(static_cast<int>(i));
            if (!writer)
                continue;
            Flow flow = Flow::Go;
            if (!m_data[i].isEmpty())
                flow = writer->write(m_data[i].constData(), m_data[i].size());
            if (flow != Flow::Stop)
                flow = writer->finish(XADErrorCode::None);
            if (flow == Flow::Stop)
                return {XADErrorCode::Stopped, {}};
        }
        return {};
    }

private:
    std::vector<XADEntry> m_entries;
    std::vector<QByteArray> m_data;
};

QByteArray contentsOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

/// Every path below `root` as text: "d name", "f name", "l name -> target", sorted.
QStringList treeOf(const QString &root)
{
    QStringList lines;
    std::vector<QByteArray> todo{QByteArray()};
    while (!todo.empty()) {
        const QByteArray folder = todo.back();
        todo.pop_back();
        const CVDestination here(root.toUtf8() + '/' + folder);
        for (const QByteArray &name : here.topLevelNames(100000).value_or(std::vector<QByteArray>())) {
            const QByteArray path = folder.isEmpty() ? name : QByteArray(folder + '/' + name);
            const QByteArray full = root.toUtf8() + '/' + path;
            struct stat info;
            if (::lstat(full.constData(), &info) != 0)
                continue;
            if (S_ISDIR(info.st_mode)) {
                lines << "d " + QString::fromUtf8(path);
                todo.push_back(path);
            } else if (S_ISLNK(info.st_mode)) {
                char target[4096];
                const ssize_t n = ::readlink(full.constData(), target, sizeof target);
                lines << QStringLiteral("l %1 -> %2")
                             .arg(QString::fromUtf8(path), QString::fromUtf8(target, n));
            } else {
                lines << "f " + QString::fromUtf8(path);
            }
        }
    }
    lines.sort();
    return lines;
}

/// Answers of a delegate that skips all but damage and agrees to nothing.
CVSafeWriter::Callbacks cautious()
{
    CVSafeWriter::Callbacks callbacks;
    callbacks.decode = [](const QByteArray &raw, CVNameEncoding) { return QString::fromUtf8(raw); };
    callbacks.progress = [](qint64) {};
    callbacks.entryDidFail = [](int, XADErrorCode code) {
        return code == XADErrorCode::Damaged ? XADAction::Abort : XADAction::Skip;
    };
    callbacks.shouldStop = [] { return false; };
    callbacks.mayExceedLimit = [](const QString &) { return false; };
    return callbacks;
}

struct Run
{
    XADErrorCode outcome = XADErrorCode::None;
    QStringList skipped;
};

Run extractAll(ListedEngine &engine, const QString &folder, CVSafeWriter::Options options = {})
{
    CVDestination destination(folder.toUtf8());
    CVSafeWriter writer(destination, engine, cautious(), options);
    engine.extract({}, true, writer);
    writer.finishTree();
    Run run{writer.outcome(), {}};
    for (const CVSkippedEntry &entry : writer.takeSkipped())
        run.skipped << entry.name;
    run.skipped.sort();
    return run;
}

} // namespace

class CVSafeWriterTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void decidesByName_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("written"); // empty: refused
        const auto row = [](const char *what, const QString &name, const QString &written) {
            QTest::newRow(what) << name << written;
        };
        row("plain", "a/b.txt", "a/b.txt");
        row("dots in a name", "a..b/c..", "a..b/c..");
        row("current folder", "./a/./b", "a/b");
        row("doubled slashes", "a//b", "a/b");
        row("absolute", "/etc/passwd", "etc/passwd");
        row("climbs", "../a", {});
        row("climbs inside", "a/../../b", {});
        row("climbs and returns", "a/../b", {});
        row("climbs at the end", "a/..", {});
        row("climbs by backslash", "..\\..\\a", {});
        row("climbs by backslash inside", "a\\..\\b", {});
        row("backslash is a name", "back\\slash", "back\\slash");
        row("drive", "C:/a", "a");
        row("drive with backslashes", "C:\\a\\b", "a/b");
        row("drive, then climbs", "C:\\..\\b", {});
        row("drive-like name", "C:a", "C:a");
        row("zero byte", QString::fromUtf8("a\0b", 3), {});
        row("newline", "a\nb", "a\nb");
        row("empty", "", {});
        row("dot", ".", {});
        row("slash", "/", {});
        row("component of 255 bytes", QString(255, 'x'), QString(255, 'x'));
        row("component of 256 bytes", QString(256, 'x'), {});
        row("component of 258 bytes in 86 characters", QString(86, QChar(0x3042)), {});
        row("path too long", QString("abcdefg/").repeated(600), {});
        row("name of a work folder", "x/.corvane-1/y", {});
    }

    void decidesByName()
    {
        QFETCH(QString, name);
        QFETCH(QString, written);
        const CVSafePath path = CVSafePath::fromName(name, false);
        QCOMPARE(path.verdict == CVSafePath::Verdict::Write, !written.isEmpty());
        QCOMPARE(QString::fromUtf8(path.joined()), written);
        QCOMPARE(path.reason.isEmpty(), !written.isEmpty());
    }

    void stagingIsPrivateAndGoes()
    {
        QTemporaryDir folder;
        ListedEngine engine;
        CVDestination destination(folder.path().toUtf8());
        QString staging;
        {
            CVSafeWriter writer(destination, engine, cautious(), {});
            staging = writer.stagingFolder();
            QCOMPARE(writer.stagingFolder(), staging);
            QCOMPARE(QFileInfo(staging).absolutePath(), QFileInfo(folder.path()).canonicalFilePath());
            QCOMPARE(QFileInfo(staging).permissions() & (QFile::ReadGroup | QFile::ReadOther),
                     QFile::Permissions());
            QVERIFY(QDir(staging).mkpath(QStringLiteral("a/b")));
            writer.finishTree();
            QVERIFY(!QFileInfo::exists(staging));
            staging = writer.stagingFolder();
            QVERIFY(QFileInfo::exists(staging));
        }
        QVERIFY(!QFileInfo::exists(staging));
    }

    void folderThatIsTheDestination()
    {
        QCOMPARE(CVSafePath::fromName("./", true).verdict, CVSafePath::Verdict::Destination);
    }

    void links_data()
    {
        QTest::addColumn<QStringList>("links"); // "path>target", "path=hard target", "path" for a file
        QTest::addColumn<QStringList>("refused");
        const auto row = [](const char *what, const QStringList &links, const QStringList &refused) {
            QTest::newRow(what) << links << refused;
        };
        row("inside", {"keep", "l>d/f", "d/f", "d/up>../keep"}, {});
        row("dangling inside", {"keep", "l>later"}, {});
        row("absolute", {"keep", "l>/etc/passwd"}, {"l"});
        row("climbs", {"keep", "l>../x"}, {"l"});
        row("climbs from below", {"keep", "d/l>../../x"}, {"d/l"});
        row("climbs behind a missing folder", {"keep", "l>none/../../x"}, {"l"});
        row("chain that climbs", {"keep", "d/up>..", "out>d/up/.."}, {"out"});
        row("chain of three", {"keep", "a/b/c>../..", "x>a/b/c", "y>x/.."}, {"y"});
        row("to itself", {"keep", "l>l"}, {"l"});
        row("the folder itself", {"keep", "l>."}, {});
        row("hard, inside", {"keep", "h=keep"}, {});
        row("hard, before its original in a chain", {"keep", "h1=h2", "h2=keep"}, {});
        row("hard, climbs", {"keep", "h=../../etc/passwd"}, {"h"});
        row("hard, original missing", {"keep", "h=none"}, {"h"});
        row("hard to a folder", {"keep", "d/f", "h=d"}, {"h"});
        row("write through a link", {"keep", "out>..", "out/pwned"}, {"out"});
        row("write through a link to a folder inside", {"d/f", "l>d", "l/g"}, {"l"});
        row("single top-level folder, link beside it", {"top/f", "top/l>../other"}, {"top/l"});
        row("single top-level folder, link inside", {"top/f", "top/d/l>../f"}, {});
        row("by the name of the single folder", {"top/f", "top/d/l>../../top/f"}, {});
        row("by its name and on", {"top/f", "top/d/l>../../top/../x"}, {"top/d/l"});
        row("where the single folder lies", {"top/f", "top/l>.."}, {"top/l"});
        row("a lone link", {"l>x"}, {});
        row("a lone link that climbs", {"l>../x"}, {"l"});
    }

    void links()
    {
        QFETCH(QStringList, links);
        QFETCH(QStringList, refused);
        QTemporaryDir outer;
        const QString folder = outer.filePath("in");
        QVERIFY(QDir().mkdir(folder));
        ListedEngine engine;
        QStringList expected;
        for (const QString &line : links) {
            const QString path = line.section(QRegularExpression("[>=]"), 0, 0);
            const QByteArray target = line.mid(path.size() + 1).toUtf8();
            if (line.contains('>')) {
                engine.add(Type::Symlink, path.toUtf8(), {}, target);
                if (!refused.contains(path))
                    expected << QStringLiteral("l %1 -> %2").arg(path, QString::fromUtf8(target));
            } else if (line.contains('=')) {
                engine.add(Type::HardLink, path.toUtf8(), {}, target);
                if (!refused.contains(path))
                    expected << "f " + path;
            } else {
                engine.add(Type::File, path.toUtf8(), "data");
                expected << "f " + path;
            }
        }
        const Run run = extractAll(engine, folder);
        QCOMPARE(run.outcome, XADErrorCode::None);
        QCOMPARE(run.skipped, refused);
        QStringList found = treeOf(folder);
        found.removeIf([](const QString &line) { return line.startsWith("d "); });
        expected.sort();
        QCOMPARE(found, expected);
        QCOMPARE(QDir(outer.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
                 QStringList{"in"});
    }

    void namesThatMeet_data()
    {
        QTest::addColumn<bool>("laterReplaces");
        QTest::addColumn<QStringList>("tree");
        QTest::addColumn<QStringList>("reported");
        QTest::newRow("both stay") << false << QStringList{"d both", "f a 2.txt", "f a.txt", "f both/x"}
                                   << QStringList{"a.txt", "both"};
        QTest::newRow("the later one replaces")
            << true << QStringList{"d both", "f a.txt", "f both/x"} << QStringList{"both"};
    }

    void namesThatMeet()
    {
        QFETCH(bool, laterReplaces);
        QFETCH(QStringList, tree);
        QFETCH(QStringList, reported);
        QTemporaryDir folder;
        ListedEngine engine;
        engine.add(Type::File, "a.txt", "first");
        engine.add(Type::File, "a.txt", "second");
        engine.add(Type::File, "both/x", "x");
        engine.add(Type::File, "both", "file where a folder is");
        const Run run = extractAll(engine, folder.path(), {.laterReplaces = laterReplaces});
        QCOMPARE(treeOf(folder.path()), tree);
        QCOMPARE(contentsOf(folder.filePath("a.txt")), QByteArray(laterReplaces ? "second" : "first"));
        QCOMPARE(run.skipped, reported);
    }

    void whatWasThereStays()
    {
        QTemporaryDir folder;
        QTemporaryDir outside;
        QVERIFY(QFile::link(outside.path(), folder.filePath("planted")));
        QVERIFY(QFile::link(outside.filePath("new"), folder.filePath("file")));
        ListedEngine engine;
        engine.add(Type::File, "planted/x", "through a folder link");
        engine.add(Type::File, "file", "through a file link");
        engine.add(Type::Directory, "planted");
        const Run run = extractAll(engine, folder.path());
        QCOMPARE(run.skipped, QStringList({"file", "planted", "planted/x"}));
        QVERIFY(QDir(outside.path()).isEmpty());
    }

    void dataOfALinkReachesAllNames()
    {
        QTemporaryDir folder;
        ListedEngine engine;
        engine.add(Type::File, "first");
        engine.add(Type::HardLink, "second", {}, "first");
        engine.add(Type::HardLink, "third", "data", "first");
        engine.add(Type::HardLink, "away", "data", "../first");
        const Run run = extractAll(engine, folder.path(), {.ownsContents = true});
        for (const char *name : {"first", "second", "third", "away"})
            QCOMPARE(contentsOf(folder.filePath(name)), QByteArray("data"));
        QCOMPARE(run.skipped, QStringList());
    }

    void modesAndKinds()
    {
        QTemporaryDir folder;
        ListedEngine engine;
        engine.add(Type::File, "setid", "x", {}, 06777);
        engine.add(Type::File, "none", "x", {}, 0000);
        engine.add(Type::Directory, "closed", {}, {}, 01000);
        engine.add(Type::File, "closed/in", "x", {}, 0444);
        engine.add(Type::Special, "device");
        const Run run = extractAll(engine, folder.path());
        QCOMPARE(run.skipped, QStringList{"device"});
        const auto mode = [&](const char *name) {
            struct stat info;
            const QByteArray path = folder.filePath(name).toUtf8();
            return ::lstat(path.constData(), &info) == 0 ? int(info.st_mode & 07777) : -1;
        };
        QCOMPARE(mode("setid") & 07000, 0);
        QCOMPARE(mode("setid") & 0700, 0700);
        QCOMPARE(mode("none"), 0400);
        QCOMPARE(mode("closed"), 0500);
        QCOMPARE(mode("closed/in"), 0444);
        QCOMPARE(mode("device"), -1);
    }

    void nothingIsOpenMeanwhile()
    {
        QTemporaryDir folder;
        ListedEngine engine;
        engine.add(Type::Directory, "shown", {}, {}, 0555);
        engine.add(Type::File, "shown/made/in", {}, {}, 0644);
        engine.last().size = 1;
        const auto mode = [&](const char *name) {
            struct stat info;
            const QByteArray path = folder.filePath(name).toUtf8();
            return ::lstat(path.constData(), &info) == 0 ? int(info.st_mode & 07777) : -1;
        };
        const mode_t before = ::umask(022);
        ::umask(before);
        CVDestination destination(folder.path().toUtf8());
        CVSafeWriter writer(destination, engine, cautious(), {});
        QVERIFY(!writer.beginEntry(0));
        const auto file = writer.beginEntry(1);
        QVERIFY(file && file->write("x", 1) == Flow::Go);
        for (const char *name : {"shown", "shown/made"})
            QCOMPARE(mode(name), 0700);
        QCOMPARE(mode("shown/made/in"), 0600);
        QCOMPARE(file->finish(XADErrorCode::None), Flow::Go);
        writer.finishTree();
        QCOMPARE(mode("shown"), int(0555 & ~before));
        QCOMPARE(mode("shown/made"), int(0777 & ~before));
        QCOMPARE(mode("shown/made/in"), int(0644 & ~before));
    }

    void withoutDescriptorsItFails_data()
    {
        QTest::addColumn<int>("entriesBefore");
        QTest::newRow("a folder") << 0;
        QTest::newRow("a file") << 1;
        QTest::newRow("links") << 3;
    }

    void withoutDescriptorsItFails()
    {
        QFETCH(int, entriesBefore);
        QTemporaryDir folder;
        ListedEngine engine;
        engine.add(Type::Directory, "d");
        engine.add(Type::File, "e/f", "x");
        engine.add(Type::Symlink, "l", {}, "e/f");
        engine.last().size = -1;
        CVDestination destination(folder.path().toUtf8());
        CVSafeWriter writer(destination, engine, cautious(), {});
        struct rlimit limit;
        QCOMPARE(::getrlimit(RLIMIT_NOFILE, &limit), 0);
        const auto allow = [&limit](rlim_t descriptors) {
            const struct rlimit changed
            {
                std::min(descriptors, limit.rlim_cur), limit.rlim_max
            };
            ::setrlimit(RLIMIT_NOFILE, &changed);
        };
        for (int i = 0; i < 3; ++i) {
            if (i == entriesBefore)
                allow(0);
            const auto entry = writer.beginEntry(i);
            if (entry && entry->write("x", 1) == Flow::Go)
                entry->finish(XADErrorCode::None);
        }
        allow(0);
        writer.finishTree();
        allow(limit.rlim_cur);
        QCOMPARE(writer.outcome(), XADErrorCode::Damaged);
        QCOMPARE(writer.systemError(), EMFILE);
    }

    void sizesAreNotBelieved_data()
    {
        QTest::addColumn<qint64>("declared");
        QTest::addColumn<bool>("delivered");
        QTest::newRow("right") << qint64(4) << true;
        QTest::newRow("unknown") << qint64(-1) << true;
        QTest::newRow("longer than declared") << qint64(3) << false;
        QTest::newRow("shorter than declared") << (qint64(1) << 50) << false;
        QTest::newRow("nothing declared") << qint64(0) << false;
    }

    void sizesAreNotBelieved()
    {
        QFETCH(qint64, declared);
        QFETCH(bool, delivered);
        QTemporaryDir folder;
        ListedEngine engine;
        engine.add(Type::File, "f", "data");
        engine.last().size = declared;
        const Run run = extractAll(engine, folder.path());
        QCOMPARE(run.outcome, delivered ? XADErrorCode::None : XADErrorCode::Damaged);
        QCOMPARE(treeOf(folder.path()), delivered ? QStringList{"f f"} : QStringList{});
    }

    void growthNeedsConsent_data()
    {
        QTest::addColumn<bool>("consent");
        QTest::newRow("given") << true;
        QTest::newRow("not given") << false;
    }

    void growthNeedsConsent()
    {
        QFETCH(bool, consent);
        QTemporaryDir folder;
        ListedEngine engine;
        const QByteArray block(1 << 20, '\0');
        engine.add(Type::File, "bomb");
        engine.last().size = -1;
        CVDestination destination(folder.path().toUtf8());
        int asked = 0;
        CVSafeWriter::Callbacks callbacks = cautious();
        callbacks.mayExceedLimit = [&](const QString &) {
            ++asked;
            return consent;
        };
        CVSafeWriter writer(destination, engine, callbacks, {.archiveBytes = 1000});
        auto entry = writer.beginEntry(0);
        QVERIFY(entry);
        Flow flow = Flow::Go;
        for (qint64 done = 0; done < CVWriteLimits::bombFloorBytes + (40 << 20) && flow == Flow::Go;
             done += 1 << 20)
            flow = entry->write(block.constData(), block.size());
        QCOMPARE(asked, 1);
        QCOMPARE(flow, consent ? Flow::Go : Flow::Stop);
        QCOMPARE(writer.outcome(), consent ? XADErrorCode::None : XADErrorCode::Damaged);
        entry.reset();
        QCOMPARE(treeOf(folder.path()), QStringList{});
    }

    void manyWritersAtOnce()
    {
        QTemporaryDir folder;
        ListedEngine engine;
        constexpr int count = 3000;
        for (int i = 0; i < count; ++i) {
            engine.add(Type::File, "d" + QByteArray::number(i % 7) + "/e/" + QByteArray::number(i));
            engine.last().size = 3;
        }
        CVDestination destination(folder.path().toUtf8());
        std::atomic<int> inside = 0;
        std::atomic<bool> overlapped = false;
        const auto enter = [&] {
            if (++inside > 1)
                overlapped = true;
            --inside;
        };
        CVSafeWriter::Callbacks callbacks = cautious();
        callbacks.progress = [&](qint64) { enter(); };
        callbacks.shouldStop = [&] {
            enter();
            return false;
        };
        CVSafeWriter writer(destination, engine, callbacks, {});
        std::vector<std::thread> workers;
        for (int w = 0; w < 4; ++w)
            workers.emplace_back([&, w] {
                for (int i = w; i < count; i += 4) {
                    const auto entry = writer.beginEntry(i);
                    if (entry && entry->write("abc", 3) == Flow::Go)
                        entry->finish(XADErrorCode::None);
                }
            });
        for (std::thread &worker : workers)
            worker.join();
        writer.finishTree();
        QVERIFY(!overlapped);
        QVERIFY(writer.takeSkipped().empty());
        QCOMPARE(treeOf(folder.path()).filter("f ").size(), count);
    }

    void removesDeepTrees()
    {
        QTemporaryDir folder;
        CVDestination destination(folder.path().toUtf8());
        QVERIFY(destination.folder(QByteArray("d/").repeated(1500) + "e"));
        QVERIFY(destination.folder("closed"));
        ::chmod(folder.filePath("closed").toUtf8().constData(), 0);
        destination.empty();
        QCOMPARE(treeOf(folder.path()), QStringList{});
    }
};

QTEST_GUILESS_MAIN(CVSafeWriterTest)
#include "tst_safewriter.moc"
