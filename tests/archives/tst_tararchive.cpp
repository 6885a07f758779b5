#include "archives/CVTarArchive.h"
#include "util/LXMainThread.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <thread>

#include <sys/stat.h>

namespace {

class Recorder final : public CVArchiveDelegate
{
public:
    QStringList events;
    std::function<void()> onProgress;
    double done = 0;
    double total = 0;
    bool wentBack = false;

    void archiveFinished(CVArchive *) override { events << QStringLiteral("finished"); }
    void archiveFailed(CVArchive *, std::int32_t status) override
    {
        events << QStringLiteral("failed %1").arg(status);
    }
    void archiveCancelled(CVArchive *) override { events << QStringLiteral("cancelled"); }
    void archiveHasMadeProgress(CVArchive *, double d, double t) override
    {
        wentBack = wentBack || d < done;
        done = d;
        total = t;
        if (onProgress)
            onProgress();
    }
    std::optional<QString> archiveWantsPassword(CVArchive *) override { return std::nullopt; }
};

void runShell(const QString &command, const QString &folder)
{
    QProcess process;
    process.setWorkingDirectory(folder);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("/bin/sh"), {QStringLiteral("-ec"), command});
    QVERIFY2(process.waitForFinished() && process.exitCode() == 0, process.readAll().constData());
}

void writeFile(const QString &path, const QByteArray &data)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(data), data.size());
}

QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// Every path below the folder with what it is: "a/ f=data l->target".
QStringList tree(const QString &folder)
{
    QStringList result;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        const QString path = QDir(folder).relativeFilePath(info.filePath());
        struct stat s;
        if (::lstat(QFile::encodeName(info.filePath()).constData(), &s) != 0)
            continue;
        if (S_ISLNK(s.st_mode))
            result << path + QStringLiteral("->") + info.symLinkTarget().section(u'/', -1);
        else if (S_ISDIR(s.st_mode))
            result << path + u'/';
        else if (S_ISREG(s.st_mode))
            result << path + u'=' + QString::fromUtf8(contents(info.filePath()).left(20));
        else
            result << path + QStringLiteral("=special");
        if (s.st_mode & (S_ISUID | S_ISGID | S_ISVTX))
            result.last() += QStringLiteral("+bits");
    }
    result.sort();
    return result;
}

} // namespace

class TestTarArchive : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { LXMainThread::install(); }
    void init();
    void cleanup() { qunsetenv("CORVANE_TOOL_TAR"); }
    void extensions_data();
    void extensions();
    void extractCommandLine();
    void extracts_data();
    void extracts();
    void selectedEntries_data();
    void selectedEntries();
    void toolIsTheLastResort_data();
    void toolIsTheLastResort();
    void hostileArchives_data();
    void hostileArchives();
    void damagedArchives_data();
    void damagedArchives();
    void previewMakesUpFolders();
    void fullFolderIsNeverEmptied();
    void cancelEndsOnce();
    void creates_data();
    void creates();
    void cancelledCreateLeavesNothing();

private:
    QString path(const QString &name) const { return m_folder->filePath(name); }
    std::shared_ptr<CVArchive> extract(const QString &archive,
                                       const std::optional<QStringList> &entries = {});
    void installTarDouble(const QByteArray &script);

    std::unique_ptr<QTemporaryDir> m_folder;
    std::unique_ptr<Recorder> m_recorder;
    QString m_destination;
};

void TestTarArchive::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    m_recorder = std::make_unique<Recorder>();
    m_destination = path(QStringLiteral("out"));
    QVERIFY(QDir().mkdir(m_destination));
}

std::shared_ptr<CVArchive> TestTarArchive::extract(const QString &archive,
                                                   const std::optional<QStringList> &entries)
{
    auto tar = CVArchive::archiveForExtracting(archive);
    tar->setDelegate(m_recorder.get());
    tar->singleFilesToBeExtracted = entries;
    tar->open(archive, m_destination);
    return tar;
}

/// Stands in for the system's tar where the real one cannot be made to behave so.
void TestTarArchive::installTarDouble(const QByteArray &script)
{
    const QString file = path(QStringLiteral("tar-double"));
    writeFile(file, "#!/bin/sh\n" + script);
    QVERIFY(QFile::setPermissions(file, QFile::ReadOwner | QFile::ExeOwner));
    qputenv("CORVANE_TOOL_TAR", QFile::encodeName(file));
}

void TestTarArchive::extensions_data()
{
    QTest::addColumn<QString>("extension");
    QTest::addColumn<QString>("flag");
    QTest::addColumn<bool>("hasLevel");
    QTest::addColumn<QString>("description");
    const auto row = [](const char *extension, const char *flag, bool level, const char *kind) {
        QTest::newRow(extension) << QString(extension) << QString(flag) << level
                                 << QStringLiteral("TAR Archive (%1)").arg(QLatin1String(kind));
    };
    row("tar.gz", "-z", true, "GZIP compression");
    row("tgz", "-z", true, "GZIP compression");
    row("tar.bz2", "-j", true, "BZIP2 compression");
    row("tar.bz", "-j", true, "BZIP2 compression");
    row("tbz", "-j", true, "BZIP2 compression");
    row("tar.z", "-Z", false, "Lempel-Ziv compression");
    row("tar.xz", "-J", true, "Lempel-Ziv compression");
    row("tar", "", false, "uncompressed");
    row("tbz2", "", false, "uncompressed");
    row("guitar", "", false, "uncompressed");
}

void TestTarArchive::extensions()
{
    QFETCH(QString, extension);
    const auto tar = std::make_shared<CVTarArchive>(extension);
    QTEST(tar->compressionFlag().value_or(QString()), "flag");
    QTEST(tar->canSetCompressionLevel(), "hasLevel");
    QTEST(tar->archiveDescription(), "description");
    QVERIFY(!tar->canEncrypt() && !tar->canPreview());
}

void TestTarArchive::extractCommandLine()
{
    QCOMPARE(CVTarArchive::extractShellCommand({}), QStringLiteral("/usr/bin/tar -xC \"$DESTINATION\" "));
    QCOMPARE(CVTarArchive::extractShellCommand("-z"),
             QStringLiteral("/usr/bin/tar -z -xC \"$DESTINATION\" "));
}

void TestTarArchive::extracts_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("compressor");
    QTest::newRow("plain") << "x.tar"
                           << "cat";
    QTest::newRow("gzip") << "x.tar.gz"
                          << "gzip";
    QTest::newRow("tgz") << "x.TGZ"
                         << "gzip";
    QTest::newRow("bzip2") << "x.tar.bz2"
                           << "bzip2";
    QTest::newRow("tbz2") << "x.tbz2"
                          << "bzip2";
    QTest::newRow("xz") << "x.tar.xz"
                        << "xz";
    QTest::newRow("compress") << "x.tar.Z"
                              << "compress -c";
    QTest::newRow("zstd") << "x.startar"
                          << "zstd -q";
    QTest::newRow("lzip") << "x.tar2"
                          << "lzip";
    QTest::newRow("lzma") << "x.mytar"
                          << "xz --format=lzma";
    QTest::newRow("odd name") << "x.guitar"
                              << "gzip";
    QTest::newRow("name says otherwise") << "x.tar.bz2"
                                         << "gzip";
    QTest::newRow("name says compressed") << "x.tgz"
                                          << "cat";
}

void TestTarArchive::extracts()
{
    QFETCH(QString, name);
    QFETCH(QString, compressor);
    if (QStandardPaths::findExecutable(compressor.section(u' ', 0, 0)).isEmpty())
        QSKIP("the compressor is not installed");
    runShell(
        "mkdir -p in/d in/e; printf one > in/a; printf two > 'in/d/b c'; chmod 755 in/a; ln in/a in/d/hard\n"
        "ln -s a in/soft; ln -s soft in/softer; ln -s d in/folder; head -c 700000 /dev/zero > in/big\n"
        "tar -C in -cf - . | " +
            compressor + " > '" + path(name) + "'",
        m_folder->path());
    const auto tar = extract(path(name));
    QCOMPARE(m_recorder->events, QStringList{QStringLiteral("finished")});
    QCOMPARE(tar->status(), std::int32_t(CVArchive::Success));
    QVERIFY(tar->skippedEntries().empty());
    QCOMPARE(tree(m_destination), tree(path(QStringLiteral("in"))));
    QVERIFY(QFileInfo(m_destination + "/a").isExecutable());
    QVERIFY(m_recorder->total > 0);
}

void TestTarArchive::selectedEntries_data()
{
    QTest::addColumn<QString>("stored");
    QTest::addColumn<QStringList>("wanted");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("stored so") << "'a b' d" << QStringList{"a b"} << QStringList{"a b=one"};
    QTest::newRow("stored with a dot") << "./'a b' ./d" << QStringList{"a b"} << QStringList{"a b=one"};
    QTest::newRow("folder") << "'a b' d" << QStringList{"d"} << QStringList{"d/", "d/c=two"};
    QTest::newRow("an option of tar")
        << "d -- '--to-command=touch bad'" << QStringList{"--to-command=touch bad", "--checkpoint=1"}
        << QStringList{"--to-command=touch bad=four"};
    QTest::newRow("quotes") << "'a b' d \"d/\\\"\\$(touch bad)\\\"\"" << QStringList{"d/\"$(touch bad)\""}
                            << QStringList{"d/", "d/\"$(touch bad)\"=three"};
}

void TestTarArchive::selectedEntries()
{
    QFETCH(QString, stored);
    QFETCH(QStringList, wanted);
    QFETCH(QStringList, expected);
    runShell("mkdir -p in/d; cd in; printf one > 'a b'; printf two > d/c\n" +
                 QString(stored.contains(u'$') ? "printf three > \"d/\\\"\\$(touch bad)\\\"\"; " : "") +
                 "printf four > './--to-command=touch bad'; " + "tar -cf ../x.tar " + stored,
             m_folder->path());
    extract(path("x.tar"), wanted);
    QCOMPARE(m_recorder->events, QStringList{QStringLiteral("finished")});
    QCOMPARE(tree(m_destination), expected);
    QVERIFY(!QFile::exists(path("bad")) && !QFile::exists(QStringLiteral("bad")));
}

void TestTarArchive::toolIsTheLastResort_data()
{
    QTest::addColumn<QString>("archive");
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QStringList>("expected"); // nothing: the archive has failed
    QTest::addColumn<bool>("chosen");
    const QByteArray make = "cat > /dev/null; printf tool > \"$DESTINATION/made\"; ";
    const QString unknown = QStringLiteral("seq 1 9999 > x.tar");
    const auto row = [](const char *what, const QString &archive, const QByteArray &script,
                        const QStringList &expected, bool chosen = false) {
        QTest::newRow(what) << archive << script << expected << chosen;
    };
    row("the reader can", "printf one > a; tar -cf x.tar a", make, {"a=one"});
    row("the reader finds damage", "head -c 9999 /dev/zero > a; tar -cf x.tar a; truncate -s 5000 x.tar",
        make, {});
    row("unknown", unknown, make, {"made=tool"});
    row("entries are chosen", unknown, make, {}, true);
    row("status", unknown, make + "exit 2", {});
    row("killed", unknown, make + "kill -9 $$", {});
    row("has something to say", unknown, make + "echo hm >&2", {});
    row("special bits", unknown, make + "chmod 4755 \"$DESTINATION/made\"", {});
    row("link out", unknown, make + "ln -s /etc \"$DESTINATION/l\"", {});
    row("does not read", unknown, "exec 0<&-; exit 1", {});
}

void TestTarArchive::toolIsTheLastResort()
{
    QFETCH(QString, archive);
    QFETCH(QByteArray, script);
    QFETCH(QStringList, expected);
    QFETCH(bool, chosen);
    runShell(archive, m_folder->path());
    installTarDouble(script);
    extract(path("x.tar"), chosen ? std::optional(QStringList{"made"}) : std::nullopt);
    QCOMPARE(m_recorder->events, QStringList{expected.isEmpty() ? "failed 4" : "finished"});
    QTEST(tree(m_destination), "expected");
}

void TestTarArchive::hostileArchives_data()
{
    QTest::addColumn<QByteArray>("members");
    QTest::addColumn<QStringList>("expected");
    QTest::addColumn<bool>("skipped");
    const QByteArray good = "f('good', 'fine');";
    const auto row = [&](const char *what, const QByteArray &members, QStringList expected, bool skipped) {
        expected << QStringLiteral("good=fine");
        expected.sort();
        QTest::newRow(what) << members + good << expected << skipped;
    };
    row("climbing", "f('../escape', 'bad');", {}, true);
    row("absolute", "f('/abs-name', 'x');", {"abs-name=x"}, false);
    row("link out, then through it", "l('d', OUT); f('d/escape', 'x');", {"d/", "d/escape=x"}, true);
    row("link within, then through it", "f('r/a', 'x'); l('d', 'r'); f('d/b', 'y');",
        {"d/", "d/b=y", "r/", "r/a=x"}, true);
    row("links in a circle", "l('p', 'q'); l('q', 'p');", {}, true);
    row("hard link out", "h('h', '../victim');", {}, true);
    row("set-user-id", "f('s', 'x', 0o6755);", {"s=x"}, false);
    row("fifo", "s('p', tarfile.FIFOTYPE);", {}, true);
    row("device", "s('dev', tarfile.CHRTYPE);", {}, true);
    row("same name twice", "f('a', 'old'); f('a', 'new');", {"a=new"}, false);
}

void TestTarArchive::hostileArchives()
{
    QFETCH(QByteArray, members);
    QFETCH(bool, skipped);
    writeFile(path("victim"), "safe");
    QVERIFY(QDir().mkdir(path("outside")));
    writeFile(path("make.py"),
              "import tarfile, io\nOUT = '" + QFile::encodeName(path("outside")) +
                  "'\n"
                  "t = tarfile.open('x.tar', 'w')\n"
                  "def add(name, kind, mode=0o644, target='', data=b''):\n"
                  "    i = tarfile.TarInfo(name); i.type = kind; i.mode = mode; i.linkname = target; i.size "
                  "= len(data)\n"
                  "    t.addfile(i, io.BytesIO(data))\n"
                  "def f(name, text, mode=0o644): add(name, tarfile.REGTYPE, mode, '', text.encode())\n"
                  "def l(name, target): add(name, tarfile.SYMTYPE, 0o777, target)\n"
                  "def h(name, target): add(name, tarfile.LNKTYPE, 0o644, target)\n"
                  "def s(name, kind): add(name, kind)\n" +
                  members + "\nt.close()\n");
    runShell("python3 make.py", m_folder->path());
    const auto tar = extract(path("x.tar"));
    QCOMPARE(m_recorder->events, QStringList{QStringLiteral("finished")});
    QTEST(tree(m_destination), "expected");
    QCOMPARE(!tar->skippedEntries().empty(), skipped);
    QVERIFY(QDir(path("outside")).isEmpty());
    QCOMPARE(contents(path("victim")), QByteArray("safe"));
    QVERIFY(!QFile::exists(path("escape")) && !QFile::exists(QStringLiteral("/abs-name")));
}

void TestTarArchive::damagedArchives_data()
{
    QTest::addColumn<QString>("change");
    QTest::newRow("empty") << ": > x.tgz";
    QTest::newRow("cut off") << "truncate -s 60000 x.tgz";
    QTest::newRow("no archive") << "seq 1 10000 > x.tgz";
    QTest::newRow("a byte changed") << "printf XXXX | dd of=x.tgz bs=1 seek=70000 conv=notrunc status=none";
}

void TestTarArchive::damagedArchives()
{
    QFETCH(QString, change);
    runShell("head -c 200000 /dev/urandom > a; tar -czf x.tgz a; " + change, m_folder->path());
    const auto tar = extract(path("x.tgz"));
    QCOMPARE(m_recorder->events, QStringList{QStringLiteral("failed 4")});
    QCOMPARE(tar->status(), std::int32_t(CVArchive::InvalidFile));
}

void TestTarArchive::previewMakesUpFolders()
{
    runShell("mkdir -p a/b/c; touch a/b/c/f a/b/g top\n"
             "tar -cf x.tar --no-recursion . ./a/b/c/f ./a/b ./a/b/g ./top",
             m_folder->path());
    const auto tar = CVArchive::archiveForPreviewing(path("x.tar"));
    tar->setDelegate(m_recorder.get());
    tar->openForPreview(path("x.tar"));
    QCOMPARE(m_recorder->events, QStringList{QStringLiteral("finished")});
    QStringList paths;
    for (const auto &node : tar->filePreviewsNode()->preorder())
        paths << node->path() + QString(node->isPreviewableFolder() ? "/" : "");
    QVERIFY(paths.removeOne(QStringLiteral("/")) || paths.removeOne(QString()));
    QCOMPARE(paths, (QStringList{"a/", "a/b/", "a/b/c/", "a/b/c/f", "a/b/g", "top"}));
}

void TestTarArchive::fullFolderIsNeverEmptied()
{
    runShell("printf one > a; tar -cf x.tar a", m_folder->path());
    writeFile(m_destination + "/mine", "kept");
    extract(path("x.tar"));
    QCOMPARE(tree(m_destination), (QStringList{"a=one", "mine=kept"}));
    m_recorder->events.clear();
    runShell("seq 1 10000 > x.tar", m_folder->path());
    installTarDouble("cat > /dev/null; exit 1");
    extract(path("x.tar"));
    QCOMPARE(m_recorder->events, QStringList{QStringLiteral("failed 4")});
    QVERIFY(tree(m_destination).contains(QStringLiteral("mine=kept")));
}

void TestTarArchive::cancelEndsOnce()
{
    runShell("seq 1 999999 > x.tar", m_folder->path());
    installTarDouble("head -c 1000 > /dev/null; sleep 60");
    for (const bool fromCallback : {false, true}) {
        auto tar = CVArchive::archiveForExtracting(path("x.tar"));
        Recorder recorder;
        tar->setDelegate(&recorder);
        std::thread other;
        if (fromCallback) {
            installTarDouble("cat > /dev/null; sleep 60");
            recorder.onProgress = [&] { tar->cancelExtract(); };
        } else {
            other = std::thread([&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
                tar->cancelExtract();
            });
        }
        tar->open(path("x.tar"), m_destination);
        if (other.joinable())
            other.join();
        QCOMPARE(recorder.events, QStringList{QStringLiteral("failed 2")});
        QVERIFY(tree(m_destination).isEmpty());
    }
}

void TestTarArchive::creates_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("magic");
    QTest::newRow("gzip") << "x \"y\" $z.tgz" << QByteArray("\x1f\x8b");
    QTest::newRow("bzip2") << "x.tar.bz2" << QByteArray("BZh1");
    QTest::newRow("compress") << "x.tar.Z" << QByteArray("\x1f\x9d");
    QTest::newRow("xz is written plain") << "x.tar.xz" << QByteArray("./");
    QTest::newRow("plain") << "x.tar" << QByteArray("./");
}

void TestTarArchive::creates()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, magic);
    if (magic == "\x1f\x9d" && QStandardPaths::findExecutable(QStringLiteral("compress")).isEmpty())
        QSKIP("compress is not installed");
    runShell("mkdir -p in/d; printf one > in/a; printf two > in/d/b", m_folder->path());
    auto tar = CVArchive::archiveForCreating(path(name));
    tar->setDelegate(m_recorder.get());
    tar->compressionLevel = 1;
    tar->bundle(path("in"), path(name));
    QTRY_COMPARE(m_recorder->events, QStringList{QStringLiteral("finished")});
    QVERIFY(contents(path(name)).startsWith(magic));
    runShell("tar -C out -xf - < \"$(ls -d x*)\"" + QString(magic.startsWith("./") ? ""
                                                            : magic == "BZh1"      ? " -j"
                                                            : magic == "\x1f\x8b"  ? " -z"
                                                                                   : " -Z"),
             m_folder->path());
    QCOMPARE(tree(m_destination), tree(path("in")));
}

void TestTarArchive::cancelledCreateLeavesNothing()
{
    runShell("mkdir in; printf one > in/a", m_folder->path());
    installTarDouble("echo begun; sleep 60");
    auto tar = CVArchive::archiveForCreating(path("x.tgz"));
    tar->setDelegate(m_recorder.get());
    tar->bundle(path("in"), path("x.tgz"));
    QTRY_VERIFY(QFile::exists(path("x.tgz")));
    tar->cancelCreate();
    QVERIFY(!QFile::exists(path("x.tgz")));
    QCOMPARE(m_recorder->events, QStringList{QStringLiteral("cancelled")});
}

QTEST_GUILESS_MAIN(TestTarArchive)
#include "tst_tararchive.moc"
