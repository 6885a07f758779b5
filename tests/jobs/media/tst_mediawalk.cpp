#include "archives/CVToolPaths.h"
#include "jobs/media/CVMediaPlan.h"
#include "jobs/media/MediaFolder.h"
#include "util/LXFileName.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <atomic>
#include <csignal>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/// Children of ours that convert.
QList<pid_t> converters()
{
    QList<pid_t> found;
    for (const QString &name : QDir(u"/proc"_s).entryList({u"[0-9]*"_s}, QDir::Dirs)) {
        QFile status(u"/proc/"_s + name + u"/stat"_s);
        if (!status.open(QIODevice::ReadOnly))
            continue;
        const QByteArray text = status.readAll();
        const QList<QByteArray> rest = text.mid(text.lastIndexOf(')') + 2).split(' ');
        if (text.contains("(corvane-media)") && rest.value(1).toInt() == ::getpid() && rest.value(0) != "Z")
            found << name.toInt();
    }
    return found;
}

/// Photos that take long enough to be interrupted.
void makeLargePhotos(const MediaFolder &folder, int count)
{
    QVERIFY(folder.image(u"-size 1500x1000 plasma:red-blue"_s, "0.png"));
    const QByteArray contents = folder.read("0.png");
    for (int i = 1; i < count; ++i)
        folder.write(QByteArray::number(i) + ".png", contents);
}

/// A tool in place of the converter, as a script.
class ToolInstead
{
public:
    explicit ToolInstead(const QByteArray &script)
    {
        m_folder.write("tool", "#!/bin/sh\n" + script);
        ::chmod(m_folder.path("tool").toUtf8().constData(), 0755);
        qputenv("CORVANE_TOOL_CORVANE_MEDIA", m_folder.path("tool").toUtf8());
    }
    ~ToolInstead() { qunsetenv("CORVANE_TOOL_CORVANE_MEDIA"); }
    ToolInstead(const ToolInstead &) = delete;
    ToolInstead &operator=(const ToolInstead &) = delete;

private:
    MediaFolder m_folder;
};

} // namespace

class MediaWalkTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void givesNames_data();
    void givesNames();
    void reachesAnyDepth();
    void convertsEverythingOnce();
    void leavesOriginalsAlone();
    void keepsFoldersAsTheyWere();
    void takesAnyName();
    void firstFailureIsToldAndNothingIsLost();
    void aKilledConverterFailsItsFile();
    void aSilentConverterIsEnded();
    void stopsInTheMiddle();
    void aMissingConverterIsNamed();
};

void MediaWalkTest::givesNames_data()
{
    QTest::addColumn<int>("images");
    QTest::addColumn<int>("audio");
    QTest::addColumn<QList<QByteArray>>("files"); // those ending in "/" are folders
    QTest::addColumn<QByteArrayList>("jobs");     // source > target, in order

    using Names = QList<QByteArray>;
    QTest::newRow("nothing is asked for") << 0 << 0 << Names{"a.png", "a.wav"} << Names{};
    QTest::newRow("sound beside its likeness")
        << 0 << 2 << Names{"a.m4a", "a.wav", "a.aiff", "b.wav"}
        << Names{"a.aiff > a 2.m4a", "a.wav > a 3.m4a", "b.wav > b.m4a"};
    QTest::newRow("m4a is moved on to mp4 only")
        << 0 << 6 << Names{"a.m4a", "a.mp4", "b.m4a"} << Names{"a.m4a > a 2.mp4", "b.m4a > b.mp4"};
    QTest::newRow("names of later files are not taken")
        << 1 << 0 << Names{"x.png", "x.jpg", "x 2.jpg", "x.PNG"}
        << Names{"x 2.jpg > x 2.jpg", "x.PNG > x 3.jpg", "x.jpg > x.jpg", "x.png > x 4.jpg"};
    QTest::newRow("which images") << 1 << 0 << Names{"IMG.JPG", "a.Png",   "doc.pdf", "DOC.PDF",
                                                     ".png",    "raw.cr2", "d.txt"}
                                  << Names{"IMG.JPG > IMG.jpg"};
    QTest::newRow("which sound") << 0 << 1
                                 << Names{"A.WAV", "a.mp3", "b.flac", "d.audio/", "d.audio/x.ogg", "e.wav/"}
                                 << Names{"a.mp3 > a.m4a", "d.audio/x.ogg > d.audio/x.m4a"};
    QTest::newRow("depth first by name")
        << 4 << 3 << Names{"b/", "b/z.gif", "b/a.gif", "a.gif", "c.gif", "b.au"}
        << Names{"a.gif > a.png", "b/a.gif > b/a.png", "b/z.gif > b/z.png", "b.au > b.m4a", "c.gif > c.png"};
    const QByteArray longName(251, 'n');
    QTest::newRow("longest name") << 5 << 0 << Names{longName + ".gif"}
                                  << Names{longName + ".gif > " + longName.left(250) + ".tiff"};
}

void MediaWalkTest::givesNames()
{
    QFETCH(int, images);
    QFETCH(int, audio);
    QFETCH(QList<QByteArray>, files);
    QFETCH(QByteArrayList, jobs);
    const MediaFolder folder;
    for (const QByteArray &file : files) {
        if (file.endsWith('/'))
            folder.makeFolder(file);
        else
            folder.write(file, "x");
    }
    ::symlink("a.wav", folder.path("link.wav").toUtf8().constData());
    ::mkfifo(folder.path("fifo.png").toUtf8().constData(), 0600);
    const int root = ::open(folder.path().toUtf8().constData(), O_RDONLY | O_DIRECTORY);
    const CVMediaPlan plan = CVMediaPlan::make(root, images, audio, {});
    ::close(root);
    QByteArrayList planned;
    for (const CVMediaPlan::Job &job : plan.jobs) {
        const QByteArray &place = plan.folders[job.folder].path;
        planned << CVMediaPlan::pathOf(place, job.source) + " > " + CVMediaPlan::pathOf(place, job.target);
    }
    QCOMPARE(planned, jobs);
    QCOMPARE(plan.paths, files.size() + 2);
}

void MediaWalkTest::reachesAnyDepth()
{
    constexpr int depth = 400; // more than there are descriptors to spare for it
    const MediaFolder folder;
    QByteArray place;
    QByteArrayList expected;
    for (int i = 0; i < depth; ++i) {
        place += "d/";
        folder.makeFolder(place);
        folder.write(place + "x.gif", "x");
        expected.prepend(place.chopped(1));
    }
    const int root = ::open(folder.path().toUtf8().constData(), O_RDONLY | O_DIRECTORY);
    const CVMediaPlan plan = CVMediaPlan::make(root, 1, 0, {});
    ::close(root);
    QByteArrayList planned;
    for (const CVMediaPlan::Job &job : plan.jobs)
        planned << plan.folders[job.folder].path;
    QCOMPARE(planned, expected);
}

void MediaWalkTest::convertsEverythingOnce()
{
    const MediaFolder folder;
    folder.makeFolder("deep");
    QVERIFY(folder.image(u"-size 40x30 xc:red"_s, "deep/p.gif"));
    QVERIFY(folder.tone(1, "s.wav"));
    QVERIFY(folder.tone(1, "s.mp3"));
    folder.write("notes.txt", "left alone");
    CVMediaWalk walk;
    walk.folder = folder.path();
    walk.imageFileFormat = 4;
    walk.audioFileFormat = 2;
    int told = 0;
    walk.pathDone = [&told, thread = std::this_thread::get_id()] {
        QCOMPARE(std::this_thread::get_id(), thread);
        ++told;
    };
    const auto result = walk.run();
    QVERIFY2(result.succeeded, qPrintable(result.reason));
    QCOMPARE(told, 5);
    QCOMPARE(folder.names(), (QList<QByteArray>{"deep", "deep/p.png", "notes.txt", "s 2.m4a", "s.m4a"}));
    QCOMPARE(identify(folder.path("deep/p.png"), u"%m %w %h"_s), "PNG 40 30");
    QVERIFY(converters().isEmpty());
}

void MediaWalkTest::leavesOriginalsAlone()
{
    const MediaFolder originals;
    const MediaFolder folder;
    QVERIFY(originals.image(u"-size 300x200 plasma:red-blue"_s, "a.jpg"));
    QVERIFY(originals.image(u"-size 300x200 plasma:red-blue"_s, "b.png"));
    QVERIFY(originals.tone(1, "c.wav"));
    QMap<QByteArray, QByteArray> contents;
    QMap<QByteArray, struct stat> facts;
    for (const char *name : {"a.jpg", "b.png", "c.wav"}) {
        const QByteArray original = originals.path(name).toUtf8();
        const timespec times[2] = {{1000000000, 5}, {1234567890, 123456789}};
        QCOMPARE(::chmod(original.constData(), 0640), 0);
        QCOMPARE(::utimensat(AT_FDCWD, original.constData(), times, 0), 0);
        contents[name] = originals.read(name);
        struct stat now
        {};
        QCOMPARE(::stat(original.constData(), &now), 0);
        facts[name] = now;
        QCOMPARE(::link(original.constData(), folder.path(name).toUtf8().constData()), 0);
    }
    const auto result = folder.convert(1, 1);
    QVERIFY2(result.succeeded, qPrintable(result.reason));
    QCOMPARE(folder.names(), (QList<QByteArray>{"a.jpg", "b.jpg", "c.m4a"}));
    for (const char *name : {"a.jpg", "b.png", "c.wav"}) {
        QCOMPARE(originals.read(name), contents[name]);
        struct stat now
        {};
        QCOMPARE(::stat(originals.path(name).toUtf8().constData(), &now), 0);
        QCOMPARE(now.st_nlink, 1U);
        QCOMPARE(now.st_mode, facts[name].st_mode);
        QCOMPARE(now.st_mtim.tv_nsec, facts[name].st_mtim.tv_nsec);
    }
    for (const QByteArray &name : folder.names()) {
        struct stat now
        {};
        QCOMPARE(::stat(folder.path(name.constData()).toUtf8().constData(), &now), 0);
        QCOMPARE(now.st_mode & 07777, 0640U);
        QCOMPARE(now.st_mtim.tv_sec, 1234567890);
        QCOMPARE(now.st_mtim.tv_nsec, 123456789);
        QVERIFY(now.st_ino != facts["a.jpg"].st_ino);
    }
    QVERIFY(folder.read("a.jpg") != contents["a.jpg"]);
}

void MediaWalkTest::keepsFoldersAsTheyWere()
{
    const MediaFolder folder;
    folder.makeFolder("locked");
    QVERIFY(folder.image(u"-size 20x20 xc:red"_s, "locked/a.gif"));
    const QByteArray locked = folder.path("locked").toUtf8();
    const timespec times[2] = {{1000000000, 0}, {1200000000, 0}};
    QCOMPARE(::utimensat(AT_FDCWD, locked.constData(), times, 0), 0);
    QCOMPARE(::chmod(locked.constData(), 0555), 0);
    QVERIFY(folder.convert(4, 0).succeeded);
    struct stat now
    {};
    QCOMPARE(::stat(locked.constData(), &now), 0);
    QCOMPARE(now.st_mode & 07777, 0555U);
    QCOMPARE(now.st_mtim.tv_sec, 1200000000);
    ::chmod(locked.constData(), 0755);
    QVERIFY(folder.has("locked/a.png"));
}

void MediaWalkTest::takesAnyName()
{
    MediaFolder folder;
    QVERIFY(folder.image(u"-size 20x10 xc:red"_s, "x.gif"));
    QVERIFY(folder.tone(1, "x.wav"));
    const QByteArray image = folder.read("x.gif");
    const QByteArray sound = folder.read("x.wav");
    const QByteArray place = "f\xff\n %41";
    folder.makeFolder(place);
    QList<QByteArray> expected{place, "x.jpg", "x.m4a"};
    for (const QByteArray &base : {QByteArray("-rf"), QByteArray("new\nline"), QByteArray("\xe4\xf6"),
                                   QByteArray("%s %25\t\\"), QByteArray("png:x[3]"), QByteArray("@list"),
                                   QByteArray("http:x"), QByteArray("..a"), QByteArray(250, 'l')}) {
        folder.write(place + '/' + base + ".gif", image);
        folder.write(place + '/' + base + ".wav", sound);
        expected << place + '/' + base + ".jpg" << place + '/' + base + ".m4a";
    }
    std::sort(expected.begin(), expected.end());
    const auto result = folder.convert(2, 2);
    QVERIFY2(result.succeeded, qPrintable(result.failedFile + result.reason));
    QCOMPARE(folder.names(), expected);

    // The folder itself, too.
    const QByteArray inner = folder.path().toUtf8() + '/' + place;
    CVMediaWalk walk;
    walk.folder = fileNameFromBytes(inner);
    walk.imageFileFormat = 4;
    QVERIFY(walk.run().succeeded);
    QVERIFY(folder.has(place + "/-rf.png"));
}

void MediaWalkTest::firstFailureIsToldAndNothingIsLost()
{
    const MediaFolder folder;
    folder.makeFolder("b");
    QVERIFY(folder.image(u"-size 20x20 xc:red"_s, "a.png"));
    folder.write("b/1.png", "junk");
    folder.write("b/2.png", "");
    for (int i = 0; i < 40; ++i)
        folder.write("c" + QByteArray::number(i) + ".gif", "junk");
    const auto before = folder.names();
    const auto result = folder.convert(1, 1);
    QVERIFY(!result.succeeded);
    QCOMPARE(result.failedFile, u"b/1.png"_s);
    QVERIFY(!result.reason.isEmpty());
    QList<QByteArray> expected = before;
    expected[0] = "a.jpg";
    QCOMPARE(folder.names(), expected);
    QCOMPARE(folder.read("b/1.png"), "junk");
}

void MediaWalkTest::aKilledConverterFailsItsFile()
{
    const MediaFolder folder;
    makeLargePhotos(folder, 8);
    const auto before = folder.names();
    std::atomic<bool> killed{false};
    std::jthread killer([&killed](const std::stop_token &stop) {
        while (!killed && !stop.stop_requested())
            for (const pid_t child : converters())
                killed = ::kill(child, SIGKILL) == 0 || killed;
    });
    const auto result = folder.convert(4, 0);
    killer.request_stop();
    killer.join();
    QVERIFY(killed);
    QVERIFY(!result.succeeded);
    QVERIFY(before.contains(result.failedFile.toUtf8()));
    QCOMPARE(folder.names(), before);
    for (const QByteArray &name : before)
        QCOMPARE(identify(folder.path(name.constData()), u"%w"_s), "1500");
}

void MediaWalkTest::aSilentConverterIsEnded()
{
    const MediaFolder folder;
    folder.write("a.png", "x");
    const ToolInstead tool("read job; : >.corvane-media-left; exec sleep 1000");
    CVMediaWalk walk;
    walk.folder = folder.path();
    walk.imageFileFormat = 1;
    walk.patience = std::chrono::milliseconds(300);
    const auto result = walk.run();
    QVERIFY(!result.succeeded);
    QCOMPARE(result.failedFile, u"a.png"_s);
    QCOMPARE(folder.read("a.png"), "x");
}

void MediaWalkTest::stopsInTheMiddle()
{
    const MediaFolder folder;
    makeLargePhotos(folder, 16);
    std::stop_source stop;
    CVMediaWalk walk;
    walk.folder = folder.path();
    walk.imageFileFormat = 12;
    walk.stop = stop.get_token();
    int done = 0;
    walk.pathDone = [&] {
        if (++done == 2)
            stop.request_stop();
    };
    QVERIFY(walk.run().succeeded);
    QVERIFY(done < 16);
    int sources = 0;
    for (const QByteArray &name : folder.names()) {
        QVERIFY2(!name.startsWith('.'), name.constData());
        sources += name.endsWith(".png") ? 1 : 0;
        QCOMPARE(identify(folder.path(name.constData()), u"%w"_s), "1500");
    }
    QVERIFY(sources > 0);
    QCOMPARE(folder.names().size(), 16);
    QVERIFY(converters().isEmpty());
}

void MediaWalkTest::aMissingConverterIsNamed()
{
    const MediaFolder folder;
    folder.write("a.png", "x");
    qputenv("CORVANE_TOOL_CORVANE_MEDIA", "/nonexistent/tool");
    const auto result = folder.convert(1, 0);
    qunsetenv("CORVANE_TOOL_CORVANE_MEDIA");
    QVERIFY(!result.succeeded);
    QVERIFY2(result.reason.contains(u"corvane-media"_s), qPrintable(result.reason));
    QCOMPARE(folder.names(), QList<QByteArray>{"a.png"});
}

QTEST_GUILESS_MAIN(MediaWalkTest)
#include "tst_mediawalk.moc"
