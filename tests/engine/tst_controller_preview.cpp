#include "archives/CVArchive.h"
#include "engine/ControllerRecorders.h"
#include "engine/model/CVOperation.h"
#include "engine/model/CVSettings.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

/// Jobs of a window that list archives, and those that take entries out of the preview.
class tst_controller_preview : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { LXMainThread::install(); }
    void previewFailures_data();
    void previewFailures();
    void password_data();
    void password();
    void opensOneEntry();
    void extractsEntries();
    void extractsEntriesTwiceAtOnce_data();
    void extractsEntriesTwiceAtOnce();
    void entriesThatFail();
    void destinationIsTheGivenOne_data();
    void destinationIsTheGivenOne();
    void namesThatAreNoText_data();
    void namesThatAreNoText();
};

void tst_controller_preview::previewFailures_data()
{
    QTest::addColumn<QStringList>("archives");
    QTest::addColumn<QStringList>("then");
    QTest::addColumn<QString>("text");
    const QStringList none;
    QTest::newRow("two, one corrupt")
        << QStringList{u"a.zip"_s, u"broken.zip"_s}
        << QStringList{u"alert Some of the archives could not be opened. OK"_s, u"view alert"_s,
                       u"view preview a.zip"_s}
        << u"1 of the archives could not be opened, possibly because they are incomplete or corrupt."_s;
    QTest::newRow("five, two open")
        << QStringList{u"a.zip"_s, u"b.zip"_s, u"broken.zip"_s, u"broken2.zip"_s, u"broken3.zip"_s}
        << QStringList{u"alert Some of the archives could not be opened. OK"_s, u"view alert"_s,
                       u"view preview a.zip b.zip"_s}
        << u"3 of the archives could not be opened, possibly because they are incomplete or corrupt."_s;
    QTest::newRow("one, corrupt")
        << QStringList{u"broken.zip"_s}
        << QStringList{u"alert The archive could not be opened. OK"_s, u"view alert"_s, u"options"_s}
        << u"The archive “broken.zip” could not be opened, possibly because it's incomplete or corrupt."_s;
    QTest::newRow("all corrupt")
        << QStringList{u"broken.zip"_s, u"broken2.zip"_s}
        << QStringList{u"alert The archives could not be opened. OK"_s, u"view alert"_s, u"options"_s}
        << u"None of the archives could be opened, possibly because they are incomplete or corrupt."_s;
}

void tst_controller_preview::previewFailures()
{
    QFETCH(QStringList, archives);
    QFETCH(QStringList, then);
    QFETCH(QString, text);
    RecordedWindow window;
    window.makeArchives();
    QFile::copy(window.at(u"broken.zip"_s), window.at(u"broken2.zip"_s));
    QFile::copy(window.at(u"broken.zip"_s), window.at(u"broken3.zip"_s));
    for (QString &archive : archives)
        archive = window.at(archive);
    window.controller->controllerHasNewFiles(archives);
    QVERIFY(window.reaches(then.last()));
    QVERIFY(window.idle());
    QCOMPARE(window.log.screens(), (QStringList{u"view analysing"_s, u"options set up"_s} + then));
    QCOMPARE(window.informativeText, text);
    QCOMPARE(window.log.count(u"told “Task failed”"_s), 1);
    QCOMPARE(window.controller->previewArchives().size(), window.previewed.size());
}

void tst_controller_preview::password_data()
{
    QTest::addColumn<QString>("job");
    QTest::addColumn<QStringList>("answers");
    QTest::addColumn<QStringList>("screens");
    const QString ask = u"password? Please enter the password to open “locked.7z”"_s;
    const QString again = u"password? Invalid password for “locked.7z”, please try again."_s;
    const QStringList listing{u"view analysing"_s, u"options set up"_s};
    QTest::newRow("extract") << u"extract"_s << QStringList{u"right"_s}
                             << QStringList{u"view progress"_s, ask, u"view progress"_s,
                                            u"view done with out/a.txt"_s};
    QTest::newRow("extract, wrong first")
        << u"extract"_s << QStringList{u"wrong"_s, u"right"_s}
        << QStringList{u"view progress"_s,           ask, u"view progress"_s, again, u"view progress"_s,
                       u"view done with out/a.txt"_s};
    QTest::newRow("extract, cancelled")
        << u"extract"_s << QStringList{} << QStringList{u"view progress"_s, ask, u"back to main"_s};
    QTest::newRow("extract, wrong, then cancelled")
        << u"extract"_s << QStringList{u"wrong"_s}
        << QStringList{u"view progress"_s, ask, u"view progress"_s, again, u"back to main"_s};
    QTest::newRow("list") << u"list"_s << QStringList{u"right"_s}
                          << listing + QStringList{ask, u"view analysing"_s, u"view preview locked.7z"_s};
    QTest::newRow("list, cancelled") << u"list"_s << QStringList{}
                                     << listing + QStringList{ask, u"back to main"_s};
}

void tst_controller_preview::password()
{
    QFETCH(QString, job);
    QFETCH(QStringList, answers);
    QFETCH(QStringList, screens);
    RecordedWindow window;
    window.makeArchives();
    window.pack(u"locked.7z"_s, {u"a.txt"_s, u"-mhe=on"_s, u"-pright"_s});
    window.answerPassword = [&answers] {
        return answers.isEmpty() ? std::nullopt : std::optional(answers.takeFirst());
    };
    if (job == u"extract")
        window.controller->addAndExtractArchives({window.at(u"locked.7z"_s)});
    else
        window.controller->controllerHasNewFiles({window.at(u"locked.7z"_s)});
    QVERIFY2(window.reaches(screens.last()), qPrintable(window.log.all().join(u'\n')));
    QVERIFY(window.idle());
    QTest::qWait(20); // a second way back would come now
    QCOMPARE(window.log.screens(), screens);
    QVERIFY(!window.controller->isWorkingOnOperation());
}

void tst_controller_preview::opensOneEntry()
{
    RecordedWindow window;
    window.makeArchives();
    QVERIFY(window.showsPreviewOf({u"a.zip"_s, u"b.zip"_s}));
    window.log.clear();
    window.controller->extractThenOpenFile(u"b.txt"_s, window.at(u"b.zip"_s));
    QVERIFY(window.reaches(u"opened b.txt: b"_s));
    QVERIFY(window.idle());
    QCOMPARE(window.log.screens(), (QStringList{u"view progress"_s, u"back"_s, u"opened b.txt: b"_s}));
    QCOMPARE(window.names(u"out"_s), QStringList());
}

void tst_controller_preview::extractsEntries()
{
    RecordedWindow window;
    window.makeArchives();
    QVERIFY(window.showsPreviewOf({u"a.zip"_s, u"b.zip"_s}));
    window.log.clear();
    QDir(window.at(QString())).mkpath(u"target"_s);
    QStringList delivered;
    window.controller->extractFiles({u"b.txt"_s, u"a.txt"_s}, window.at(u"b.zip"_s), window.at(u"target"_s),
                                    [&](const QStringList &paths) { delivered = paths; });
    QVERIFY(!window.controller->isWorkingOnOperation());
    QVERIFY(window.controller->currentOperation());
    QVERIFY(window.idle());
    QCOMPARE(window.names(u"target"_s), (QStringList{u"a.txt"_s, u"b.txt"_s}));
    QCOMPARE(delivered, (QStringList{window.at(u"target/b.txt"_s), window.at(u"target/a.txt"_s)}));
    QCOMPARE(window.log.screens(), QStringList()); // the preview stays
    QVERIFY(window.log.all().contains(u"sound"_s));

    // What is only looked at is no news, wherever its folder is.
    CVSettings::setValue(CVSettingsKey::showInFinderAfterExtract, true);
    window.log.clear();
    window.controller->extractFiles(
        {u"a.txt"_s}, window.at(u"b.zip"_s), window.at(u"target/.look"_s),
        [&](const QStringList &paths) { delivered = paths; }, CVOperationController::Purpose::Look);
    QVERIFY(window.idle());
    QCOMPARE(delivered, QStringList{window.at(u"target/.look/a.txt"_s)});
    QCOMPARE(window.log.all(), QStringList());
}

void tst_controller_preview::extractsEntriesTwiceAtOnce_data()
{
    QTest::addColumn<QStringList>("packing");
    QTest::newRow("open") << QStringList();
    QTest::newRow("with a password") << QStringList{u"-mhe=on"_s, u"-pright"_s};
}

void tst_controller_preview::extractsEntriesTwiceAtOnce()
{
    QFETCH(QStringList, packing);
    RecordedWindow window;
    window.makeArchives();
    QByteArray noise;
    for (unsigned i = 0; i < 2'000'000; ++i)
        noise.append(static_cast<char>((i * i + i / 7) * 31 % 251));
    window.write(u"noise"_s, noise);
    window.pack(u"c.7z"_s, QStringList{u"noise"_s, u"-mx=1"_s} + packing);
    window.answerPassword = [] { return u"right"_s; };
    CVSettings::setValue(CVSettingsKey::extractDestination, 1);
    QVERIFY(window.showsPreviewOf({u"c.7z"_s}));
    const QStringList targets{u"one"_s, u"two"_s, u"three"_s};
    qsizetype ended = 0;
    for (const QString &target : targets) {
        QDir(window.at(QString())).mkpath(target);
        window.controller->extractFiles({u"noise"_s}, window.at(u"c.7z"_s), window.at(target),
                                        [&](const QStringList &paths) { ended += paths.size(); });
        QCOMPARE(CVSettings::integer(CVSettingsKey::extractDestination), 1);
    }
    // And the window turns to other files meanwhile.
    window.controller->controllerHasNewFiles({window.at(u"a.zip"_s)});
    QVERIFY(window.reaches(u"view preview a.zip"_s));
    QTRY_COMPARE_WITH_TIMEOUT(ended, targets.size(), 30000);
    QVERIFY(window.idle());
    QCOMPARE(CVSettings::integer(CVSettingsKey::extractDestination), 1);
    for (const QString &target : targets) {
        QFile file(window.at(target + u"/noise"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(file.readAll() == noise);
    }
    QCOMPARE(window.log.count(u"password?"_s), packing.isEmpty() ? 0 : 1);
}

// After every question and alert the preview is on show again.
void tst_controller_preview::entriesThatFail()
{
    RecordedWindow window;
    window.makeArchives();
    window.pack(u"half.zip"_s, {u"a.txt"_s, u"-pright"_s});
    QStringList answers{u"right"_s};
    window.answerPassword = [&] {
        return answers.isEmpty() ? std::nullopt : std::optional(answers.takeFirst());
    };
    QVERIFY(window.showsPreviewOf({u"half.zip"_s}));
    window.log.clear();
    int ended = 0;
    const auto drag = [&](const QString &entry) {
        window.controller->extractFiles(
            {entry}, window.at(u"half.zip"_s), window.at(u"out"_s),
            [&](const QStringList &paths) { ended += paths.isEmpty() ? 1 : 100; });
    };
    drag(u"missing.txt"_s);
    QVERIFY(window.reaches(u"back"_s));
    QVERIFY(window.idle());
    QCOMPARE(ended, 1);
    QCOMPARE(window.log.count(u"back"_s), 1);
    window.log.clear();
    window.controller->previewArchives().front()->password.reset();
    drag(u"a.txt"_s); // asks, and gets no answer
    QVERIFY(window.reaches(u"told “Task cancelled”: Extract from “half.zip”:\n- a.txt"_s));
    QVERIFY(window.idle());
    QCOMPARE(ended, 2);
    QCOMPARE(window.log.count(u"back"_s), 1);
    QVERIFY(!window.controller->isWorkingOnOperation());
}

void tst_controller_preview::destinationIsTheGivenOne_data()
{
    QTest::addColumn<int>("before");
    QTest::addColumn<int>("chosenMeanwhile");
    QTest::addColumn<int>("after");
    QTest::newRow("ask") << 1 << -1 << 1;
    QTest::newRow("folder of the archive") << 0 << -1 << 0;
    QTest::newRow("default folder") << 2 << -1 << 2;
    QTest::newRow("changed in the preferences meanwhile") << 1 << 2 << 2;
    QTest::newRow("changed to the folder of the archive meanwhile") << 1 << 0 << 0;
}

void tst_controller_preview::destinationIsTheGivenOne()
{
    QFETCH(int, before);
    QFETCH(int, chosenMeanwhile);
    QFETCH(int, after);
    RecordedWindow window;
    window.makeArchives();
    CVSettings::setValue(CVSettingsKey::extractDestination, before);
    QVERIFY(window.showsPreviewOf({u"b.zip"_s}));
    bool ended = false;
    window.controller->extractFiles({u"b.txt"_s}, window.at(u"b.zip"_s), window.at(u"out"_s),
                                    [&](const QStringList &) { ended = true; });
    // Other windows go by the setting.
    QCOMPARE(CVSettings::integer(CVSettingsKey::extractDestination), before);
    // Whoever ends the program now finds the setting as it was.
    const LXSettingsStore stored(window.at(u"settings/corvane.conf"_s));
    QCOMPARE(stored.integer(CVSettingsKey::extractDestination), before);
    if (chosenMeanwhile >= 0)
        CVSettings::setValue(CVSettingsKey::extractDestination, chosenMeanwhile);
    QTRY_VERIFY(ended);
    QVERIFY(window.idle());
    QCOMPARE(CVSettings::integer(CVSettingsKey::extractDestination), after);
    QCOMPARE(stored.integer(CVSettingsKey::extractDestination), after);
}

void tst_controller_preview::namesThatAreNoText_data()
{
    QTest::addColumn<QString>("made");
    QTest::addColumn<QByteArray>("name");
    QTest::newRow("zip") << u"x.zip"_s << QByteArray("caf\xe9.zip");
    QTest::newRow("7z") << u"x.7z"_s << QByteArray("caf\xe9.7z");
    QTest::newRow("tar") << u"x.tar"_s << QByteArray("caf\xe9.tar");
    QTest::newRow("volumes") << u"x.7z.001"_s << QByteArray("caf\xe9.7z.001");
    QTest::newRow("in a folder") << u"x.zip"_s << QByteArray("\xff/x.zip");
}

// Archives and folders from other systems: what is found at such a name is opened, listed and delivered.
void tst_controller_preview::namesThatAreNoText()
{
    QFETCH(QString, made);
    QFETCH(QByteArray, name);
    RecordedWindow window;
    window.makeArchives();
    if (made.endsWith(u".001"))
        window.pack(made.chopped(4), {u"-v1m"_s, u"a.txt"_s, u"b.txt"_s});
    else
        window.pack(made, {u"a.txt"_s, u"b.txt"_s});
    const QByteArray path = QFile::encodeName(window.at(u"in/"_s)) + name;
    QDir(window.at(QString())).mkpath(u"in"_s);
    ::mkdir(QByteArray(QFile::encodeName(window.at(u"in/"_s)) + "\xff").constData(), 0700);
    QCOMPARE(::rename(QFile::encodeName(window.at(made)).constData(), path.constData()), 0);
    window.controller->controllerHasNewFiles({fileNameFromBytes(path)});
    QTRY_COMPARE(window.log.count(u"view preview"_s), 1);
    QVERIFY(window.idle());
    CVSettings::setValue(CVSettingsKey::extractDestination, 0);
    window.controller->extractArchive();
    QTRY_COMPARE(window.log.count(u"view done"_s), 1);
    QVERIFY(window.idle());
    const QByteArray result =
        path.endsWith(".001") ? path.chopped(4) : path; // its last extension goes, in a folder of that name
    const QByteArray folder = result.left(result.lastIndexOf('.'));
    const QByteArray other = path.left(path.lastIndexOf('.'));
    const auto holds = [](const QByteArray &at) {
        return ::access(QByteArray(at + "/a.txt").constData(), F_OK) == 0;
    };
    QVERIFY(holds(folder) || holds(other));
}

QTEST_GUILESS_MAIN(tst_controller_preview)
#include "tst_controller_preview.moc"
