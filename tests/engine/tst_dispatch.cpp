#include "engine/ControllerRecorders.h"
#include "engine/model/CVOperation.h"
#include "engine/model/CVSettings.h"
#include "filetree/CVFileNode.h"
#include "util/LXMainThread.h"

#include <QDir>
#include <QFile>
#include <QTest>
#include <QTimer>

using namespace Qt::StringLiterals;

class tst_dispatch : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { LXMainThread::install(); }
    void routes_data();
    void routes();
    void waitsForTheLaunch();
    void takesBatchesOneAfterAnother();
    void opensAnotherWindowWhileBusy();
    void secondWindowExtracts();
    void addsFiles();
    void knowsSetsWithoutTheDisk();
    void panels();
    void stoppedWhileItLooks();
    void closedWhileItLooks();
    void cancelledWhileFilesAreAdded();
    void droppedWhileACancelledJobEnds();

private:
    static void makeInputs(RecordedWindow &window);
};

void tst_dispatch::makeInputs(RecordedWindow &window)
{
    window.write(u"a.txt"_s, "a");
    window.write(u"notes.txt"_s, "notes");
    window.write(u"folder/x"_s, "x");
    window.write(u"folder.zip/x"_s, "x");
    window.write(u"s.a.split"_s, "part");
    window.pack(u"a.zip"_s, {u"a.txt"_s});
    window.pack(u"b.7z"_s, {u"notes.txt"_s});
}

// Every row: what reaches the window, how, under which settings, and what the window then does.
void tst_dispatch::routes_data()
{
    QTest::addColumn<QStringList>("batch");
    QTest::addColumn<QString>("how");   ///< "launch" and "running" from the desktop, "drop" on the drop box
    QTest::addColumn<QString>("flags"); ///< o: skips options, p: skips preview, S: Shift, N: not in place
    QTest::addColumn<QStringList>("screens");

    const QStringList zip{u"a.zip"_s};
    const QStringList both{u"a.zip"_s, u"b.7z"_s};
    const QStringList mixed{u"a.zip"_s, u"notes.txt"_s};
    const QStringList folder{u"folder"_s};
    const auto analysed = [](const QString &how, const QStringList &then) {
        return (how == u"drop" ? QStringList() : QStringList{u"back to main"_s}) +
               QStringList{u"view analysing"_s} + then;
    };
    const QStringList preview{u"options set up"_s, u"view preview a.zip"_s};
    const QStringList extracted{u"view progress"_s, u"view done with out/a.txt"_s};
    const QStringList inPlace{u"view progress"_s, u"close"_s};
    const QStringList options{u"options"_s};
    const QStringList create{u"view create"_s};

    const auto row = [&](const char *name, const QStringList &batch, const QString &how, const QString &flags,
                         const QStringList &then) {
        QTest::newRow(name) << batch << how << flags << analysed(how, then);
    };
    row("launched with an archive", zip, u"launch"_s, u""_s, inPlace);
    row("launched with an archive, preview skipped", zip, u"launch"_s, u"p"_s, inPlace);
    row("launched, not in place", zip, u"launch"_s, u"N"_s, preview);
    row("launched, not in place, preview skipped", zip, u"launch"_s, u"Np"_s, extracted);
    row("launched with Shift", zip, u"launch"_s, u"S"_s, preview);
    row("launched with Shift, preview skipped", zip, u"launch"_s, u"Sp"_s, extracted);
    row("launched with Shift, not in place", zip, u"launch"_s, u"SN"_s, extracted);
    row("launched with Shift, not in place, preview skipped", zip, u"launch"_s, u"SNp"_s, preview);
    row("launched with an archive and a text", mixed, u"launch"_s, u""_s, options);
    row("launched with a folder", folder, u"launch"_s, u""_s, options);
    row("launched with a folder called like an archive", {u"folder.zip"_s}, u"launch"_s, u""_s, options);
    row("running", zip, u"running"_s, u""_s, preview);
    row("running, preview skipped", zip, u"running"_s, u"p"_s, extracted);
    row("running with Shift", zip, u"running"_s, u"S"_s, extracted);
    row("running with Shift, preview skipped", zip, u"running"_s, u"Sp"_s, preview);
    row("two archives dropped", both, u"drop"_s, u""_s, {u"options set up"_s, u"view preview a.zip b.7z"_s});
    row("dropped, preview skipped", zip, u"drop"_s, u"p"_s, extracted);
    row("archive and text dropped", mixed, u"drop"_s, u"p"_s, options);
    row("text dropped, options skipped", {u"notes.txt"_s}, u"drop"_s, u"o"_s, options);
    row("part of a split file", {u"s.a.split"_s}, u"drop"_s, u"o"_s, options);
    row("folder dropped", folder, u"drop"_s, u""_s, options);
    row("folder dropped, options skipped", folder, u"drop"_s, u"o"_s, create);
    row("folder dropped with Shift", folder, u"drop"_s, u"S"_s, create);
    row("folder dropped with Shift, options skipped", folder, u"drop"_s, u"oS"_s, options);
    row("folder and archive, options skipped", {u"a.zip"_s, u"folder"_s}, u"running"_s, u"o"_s, create);
    QTest::newRow("nothing") << QStringList() << u"drop"_s << QString() << QStringList();
}

void tst_dispatch::routes()
{
    QFETCH(QStringList, batch);
    QFETCH(QString, how);
    QFETCH(QString, flags);
    QFETCH(QStringList, screens);
    RecordedWindow window;
    makeInputs(window);
    for (QString &path : batch)
        path = window.at(path);
    CVSettings::setValue(CVSettingsKey::skipOptionsView, flags.contains(u'o'));
    CVSettings::setValue(CVSettingsKey::skipArchivePreview, flags.contains(u'p'));
    CVSettings::setValue(CVSettingsKey::openInPlace, !flags.contains(u'N'));
    window.holdsShift = flags.contains(u'S');
    window.isVisible = how != u"launch"; // which does not matter yet
    if (how != u"launch")
        window.controller->setLaunchComplete();
    if (how == u"drop")
        window.controller->controllerHasNewFiles(batch);
    else
        window.controller->openFiles(batch);
    window.holdsShift = false; // it counts when the files come
    window.controller->setLaunchComplete();
    if (!screens.isEmpty())
        QVERIFY2(window.reaches(screens.last()), qPrintable(window.log.all().join(u'\n')));
    QVERIFY(window.idle());
    QCOMPARE(window.log.screens(), screens);
    const bool closes = screens.contains(u"close");
    QCOMPARE(window.log.all().contains(u"revealed a.txt"_s), closes);
    QVERIFY(!window.controller->extractInPlace());
    QVERIFY(!window.controller->isWorkingOnOperation());
}

void tst_dispatch::waitsForTheLaunch()
{
    RecordedWindow window;
    makeInputs(window);
    window.controller->openFiles({window.at(u"a.zip"_s)});
    QTest::qWait(50);
    QCOMPARE(window.log.screens(), QStringList());
    QVERIFY(window.controller->extractInPlace());
    QVERIFY(window.queue->operations().empty());
    window.controller->setLaunchComplete();
    QVERIFY(window.reaches(u"close"_s));
    QCOMPARE(window.names(u"out"_s), QStringList{u"a.txt"_s});
}

// The second one must not take the files from under the first one.
void tst_dispatch::takesBatchesOneAfterAnother()
{
    RecordedWindow window;
    makeInputs(window);
    window.controller->openFiles({window.at(u"a.zip"_s)});
    window.controller->openFiles({window.at(u"b.7z"_s), window.at(u"notes.txt"_s)});
    window.controller->setLaunchComplete();
    QVERIFY(window.reaches(u"close"_s));
    QCOMPARE(window.log.screens(), (QStringList{u"back to main"_s, u"view analysing"_s, u"view progress"_s,
                                                u"window for b.7z"_s, u"close"_s}));
}

void tst_dispatch::opensAnotherWindowWhileBusy()
{
    RecordedWindow window;
    makeInputs(window);
    window.controller->setLaunchComplete();
    window.answerAlert = [](const QString &) { return std::optional<int>(); };
    window.write(u"broken.zip"_s, "PK\x03\x04 broken");
    window.controller->addAndExtractArchives({window.at(u"broken.zip"_s)});
    QVERIFY(window.reaches(u"view alert"_s));
    QVERIFY(window.controller->isWorkingOnOperation());
    window.log.clear();
    window.controller->openFiles({window.at(u"a.zip"_s), window.at(u"notes.txt"_s)});
    window.controller->openFiles({window.at(u"notes.txt"_s)});
    window.controller->controllerHasNewFilesDuringOperation({window.at(u"folder"_s), window.at(u"b.7z"_s)});
    window.controller->controllerHasNewFiles({window.at(u"a.zip"_s)});
    QCOMPARE(window.log.screens(),
             (QStringList{u"window for a.zip"_s, u"window for b.7z"_s, u"window for a.zip"_s}));

    RecordedWindow hidden;
    makeInputs(hidden);
    hidden.controller->setLaunchComplete();
    hidden.isVisible = false;
    hidden.controller->openFiles({hidden.at(u"a.zip"_s), hidden.at(u"notes.txt"_s)});
    QCOMPARE(hidden.log.screens(), QStringList{u"window for a.zip"_s});
}

void tst_dispatch::secondWindowExtracts()
{
    RecordedWindow window;
    makeInputs(window);
    window.controller->setLaunchComplete();
    window.controller->addAndExtractArchives({window.at(u"a.zip"_s), window.at(u"b.7z"_s)});
    QVERIFY(window.reaches(u"view done with out/a.txt out/notes.txt"_s));
    QVERIFY(!window.log.all().contains(u"revealed notes.txt"_s));
}

void tst_dispatch::addsFiles()
{
    RecordedWindow window;
    makeInputs(window);
    window.controller->setLaunchComplete();
    window.controller->controllerHasNewFiles({window.at(u"notes.txt"_s)});
    QVERIFY(window.reaches(u"options"_s));
    window.controller->tryToAddFiles({window.at(u"folder"_s), window.at(u"notes.txt"_s)});
    QVERIFY(window.reaches(u"options set up"_s));
    const auto children = window.controller->inputFiles()->children();
    QCOMPARE(children.size(), std::size_t(2));
    QCOMPARE(children[1]->children().size(), std::size_t(1));
    window.log.clear();
    window.controller->removeFileNode(children[0]);
    QCOMPARE(window.log.screens(), QStringList{u"options set up"_s});
    QCOMPARE(window.controller->inputFiles()->children().size(), std::size_t(1));
}

// A job that is started while files are still being added gets them all.
void tst_dispatch::knowsSetsWithoutTheDisk()
{
    RecordedWindow window;
    makeInputs(window);
    window.controller->setLaunchComplete();
    QVERIFY(window.controller->isArchiveSet());
    QVERIFY(!window.controller->isSplitFileSet());
    window.controller->tryToAddFiles({window.at(u"s.a.split"_s)});
    QVERIFY(window.reaches(u"options set up"_s));
    QVERIFY(window.controller->isSplitFileSet());
    QVERIFY(!window.controller->isArchiveSet());
    window.log.clear();
    window.controller->tryToAddFiles({window.at(u"folder.zip"_s)});
    window.createData->setArchiveType(u"zip"_s);
    window.createData->setArchiveName(u"all"_s);
    window.controller->createArchive();
    QVERIFY(window.controller->isWorkingOnOperation());
    QVERIFY(window.reaches(u"view done out/all.zip"_s));
    QVERIFY(!window.controller->isSplitFileSet());
    QVERIFY(!window.controller->isArchiveSet());
    QVERIFY(window.idle());
    window.controller->addAndExtractArchives({window.at(u"out/all.zip"_s)});
    QVERIFY(window.reaches(u"view done with out/all"_s));
    QCOMPARE(window.names(u"out/all"_s), (QStringList{u"folder.zip"_s, u"s.a.split"_s}));
}

void tst_dispatch::panels()
{
    RecordedWindow window;
    makeInputs(window);
    window.controller->setLaunchComplete();
    window.controller->openFile();
    window.controller->addFiles();
    QCOMPARE(window.log.screens(), QStringList());
    window.panelAnswer = QStringList{window.at(u"folder"_s)};
    window.controller->openFile();
    QVERIFY(window.reaches(u"options"_s));
    QCOMPARE(window.optionsShown, QStringList{u"folder"_s});
    window.panelAnswer = QStringList{window.at(u"a.zip"_s)};
    window.controller->addFiles();
    QVERIFY(window.reaches(u"options set up"_s));
    QCOMPARE(window.controller->inputFiles()->children().size(), std::size_t(2));
}

void tst_dispatch::stoppedWhileItLooks()
{
    RecordedWindow window;
    makeInputs(window);
    window.controller->setLaunchComplete();
    window.controller->controllerHasNewFiles({window.at(u"folder"_s)});
    window.controller->stopOperation();
    QCOMPARE(window.log.screens().last(), u"back to main"_s);
    QTest::qWait(200);
    QCOMPARE(window.log.screens().last(), u"back to main"_s);
    QVERIFY(window.controller->inputFiles()->children().empty());
    // The next ones find nothing in their way.
    window.controller->controllerHasNewFiles({window.at(u"folder"_s)});
    QVERIFY(window.reaches(u"options"_s));
}

void tst_dispatch::closedWhileItLooks()
{
    RecordedWindow window;
    makeInputs(window);
    window.controller->setLaunchComplete();
    window.controller->controllerHasNewFiles({window.at(u"folder"_s)});
    window.close();
    const QStringList before = window.log.all();
    QTest::qWait(1200); // the animation would end by now
    QCOMPARE(window.log.all(), before);
}

void tst_dispatch::cancelledWhileFilesAreAdded()
{
    RecordedWindow window;
    makeInputs(window);
    window.controller->setLaunchComplete();
    window.controller->tryToAddFiles({window.at(u"folder"_s)});
    window.createData->setArchiveName(u"all"_s);
    window.controller->createArchive();
    QVERIFY(window.controller->isWorkingOnOperation());
    window.controller->stopOperation();
    QVERIFY(!window.controller->isWorkingOnOperation());
    QVERIFY(window.reaches(u"options set up"_s));
    QTest::qWait(20);
    QCOMPARE(window.log.screens(),
             (QStringList{u"view progress"_s, u"back if not at main"_s, u"options set up"_s}));
    QVERIFY(window.names(u"out"_s).isEmpty());
}

// The screens are back before the job has cleaned up, and what is dropped then is for this window.
void tst_dispatch::droppedWhileACancelledJobEnds()
{
    RecordedWindow window;
    makeInputs(window);
    window.controller->setLaunchComplete();
    window.pack(u"locked.7z"_s, {u"a.txt"_s, u"-mhe=on"_s, u"-pright"_s});
    window.answerPassword = [&] {
        QTimer::singleShot(0, [&] {
            window.controller->controllerHasNewFiles({window.at(u"notes.txt"_s)});
            window.controller->openFiles({window.at(u"folder"_s)});
        });
        return std::nullopt;
    };
    window.controller->addAndExtractArchives({window.at(u"locked.7z"_s)});
    QTRY_COMPARE(window.log.count(u"options"_s), 2);
    QCOMPARE(window.optionsShown, QStringList{u"folder"_s});
    QCOMPARE(window.log.count(u"window"_s), 0);
}

QTEST_GUILESS_MAIN(tst_dispatch)
#include "tst_dispatch.moc"
