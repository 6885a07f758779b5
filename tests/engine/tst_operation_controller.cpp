#include "archives/CVArchive.h"
#include "engine/ControllerRecorders.h"
#include "engine/model/CVOperation.h"
#include "engine/model/CVSettings.h"
#include "filetree/CVFileNode.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTest>

#include <thread>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class tst_operation_controller : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { LXMainThread::install(); }
    void completion_data();
    void completion();
    void desktopIsNotRevealed_data();
    void desktopIsNotRevealed();
    void leftOutEntriesAreTold_data();
    void leftOutEntriesAreTold();
    void failureIsShownOnce();
    void failureAmongSeveral_data();
    void failureAmongSeveral();
    void mismatchedPasswordStartsNothing();
    void replaceQuestion_data();
    void replaceQuestion();
    void cancelled_data();
    void cancelled();
    void closed_data();
    void closed();
    void splitHandsOverToVolumes();
    void splitShowsTheLastFile();
    void hidesNoCompression_data();
    void hidesNoCompression();
    void secondClickStartsNothing();

private:
    static bool prepareCreate(RecordedWindow &window, const QString &file);
};

bool tst_operation_controller::prepareCreate(RecordedWindow &window, const QString &file)
{
    CVSettings::setValue(CVSettingsKey::skipOptionsView, true);
    window.controller->controllerHasNewFiles({window.at(file), window.at(u"out"_s)});
    window.createData->setArchiveType(u"zip"_s);
    window.createData->setArchiveName(u"all"_s);
    const bool reached = window.reaches(u"view create"_s);
    window.log.clear();
    return reached;
}

void tst_operation_controller::completion_data()
{
    QTest::addColumn<QString>("settings"); ///< d: skips the done view, s: sound, f: shows in the file viewer
    QTest::addColumn<QStringList>("events");
    const QStringList start{u"view progress"_s};
    const QStringList told{u"told “Task complete”: Extract “a.zip”"_s};
    QTest::newRow("done view") << u""_s << start + told + QStringList{u"view done with out/a.txt"_s};
    QTest::newRow("no done view") << u"ds"_s << start + told + QStringList{u"sound"_s, u"forward to main"_s};
    QTest::newRow("no done view, silent") << u"d"_s << start + told + QStringList{u"forward to main"_s};
    QTest::newRow("file viewer") << u"f"_s
                                 << start + QStringList{u"revealed a.txt"_s} + told +
                                        QStringList{u"view done with out/a.txt"_s};
}

void tst_operation_controller::completion()
{
    QFETCH(QString, settings);
    QFETCH(QStringList, events);
    RecordedWindow window;
    window.makeArchives();
    CVSettings::setValue(CVSettingsKey::skipDoneView, settings.contains(u'd'));
    CVSettings::setValue(CVSettingsKey::sound, settings.contains(u's'));
    CVSettings::setValue(CVSettingsKey::showInFinderAfterExtract, settings.contains(u'f'));
    window.controller->addAndExtractArchives({window.at(u"a.zip"_s)});
    QVERIFY(window.reaches(events.last()));
    QVERIFY(window.idle());
    QCOMPARE(window.log.all(), events);
    QVERIFY(!window.controller->isWorkingOnOperation());
}

void tst_operation_controller::desktopIsNotRevealed_data()
{
    QTest::addColumn<QString>("destination");
    QTest::addColumn<bool>("revealed");
    QTest::newRow("on it") << u"home/Desktop"_s << false;
    QTest::newRow("by a link") << u"link"_s << false;
    QTest::newRow("below it") << u"home/Desktop/sub"_s << true;
    QTest::newRow("elsewhere") << u"out"_s << true;
}

void tst_operation_controller::desktopIsNotRevealed()
{
    QFETCH(QString, destination);
    QFETCH(bool, revealed);
    RecordedWindow window;
    window.makeArchives();
    const QByteArray home = qgetenv("HOME");
    const QByteArray config = qgetenv("XDG_CONFIG_HOME");
    qputenv("HOME", window.at(u"home"_s).toLocal8Bit());
    qputenv("XDG_CONFIG_HOME", window.at(u"home/.config"_s).toLocal8Bit());
    QDir(window.at(u"home"_s)).mkpath(u"Desktop/sub"_s);
    QFile::link(window.at(u"home/Desktop"_s), window.at(u"link"_s));
    CVSettings::setValue(CVSettingsKey::extractDefaultDestination, window.at(destination));
    CVSettings::setValue(CVSettingsKey::showInFinderAfterExtract, true);
    window.controller->addAndExtractArchives({window.at(u"a.zip"_s)});
    const bool done = QTest::qWaitFor([&] { return window.log.count(u"view done"_s) == 1; }, 5000);
    qputenv("HOME", home);
    qputenv("XDG_CONFIG_HOME", config);
    QVERIFY2(done, qPrintable(window.log.all().join(u'\n')));
    QCOMPARE(window.log.all().contains(u"revealed a.txt"_s), revealed);
}

// An archive with an entry that leads out of it.
void tst_operation_controller::leftOutEntriesAreTold_data()
{
    QTest::addColumn<bool>("skipsDoneView");
    QTest::addColumn<bool>("inPlace");
    QTest::newRow("done view") << false << false;
    QTest::newRow("done view switched off") << true << false;
    QTest::newRow("in place") << false << true;
}

void tst_operation_controller::leftOutEntriesAreTold()
{
    QFETCH(bool, skipsDoneView);
    QFETCH(bool, inPlace);
    RecordedWindow window;
    window.write(u"in/good"_s, "good");
    QVERIFY(::mkfifo(QFile::encodeName(window.at(u"in/pipe"_s)).constData(), 0600) == 0);
    QProcess tar;
    tar.start(u"tar"_s, {u"-C"_s, window.at(QString()), u"-cf"_s, window.at(u"left.tar"_s), u"in"_s});
    QVERIFY(tar.waitForFinished());
    CVSettings::setValue(CVSettingsKey::skipDoneView, skipsDoneView);
    if (inPlace)
        window.controller->openFiles({window.at(u"left.tar"_s)});
    window.controller->setLaunchComplete();
    if (!inPlace)
        window.controller->addAndExtractArchives({window.at(u"left.tar"_s)});
    QVERIFY(window.reaches(u"view done with out/in"_s));
    const auto &skipped = window.controller->skippedEntries();
    QCOMPARE(skipped.size(), std::size_t(1));
    QCOMPARE(skipped[0].archivePath, window.at(u"left.tar"_s));
    QCOMPARE(skipped[0].entries.size(), std::size_t(1));
    QVERIFY(!window.controller->extractInPlace());
    // Of the job that ended last, and no other.
    window.pack(u"whole.zip"_s, {u"in/good"_s});
    QVERIFY(window.idle());
    CVSettings::setValue(CVSettingsKey::skipDoneView, false);
    window.controller->addAndExtractArchives({window.at(u"whole.zip"_s)});
    QVERIFY(window.reaches(u"view done with out/in 2"_s));
    QVERIFY(window.controller->skippedEntries().empty());
}

void tst_operation_controller::failureIsShownOnce()
{
    RecordedWindow window;
    window.makeArchives();
    window.controller->addAndExtractArchives({window.at(u"broken.zip"_s)});
    QVERIFY(window.reaches(u"back"_s));
    QVERIFY(window.idle());
    QCOMPARE(window.log.all(), (QStringList{u"view progress"_s, u"told “Task failed”: Extract “broken.zip”"_s,
                                            u"alert The file “broken.zip” could not be opened. OK"_s,
                                            u"view alert"_s, u"back"_s}));
    QCOMPARE(window.informativeText,
             u"The archive could not be opened, possibly because it is incomplete or corrupt. "
             "The directory of the archive is damaged."_s);
    QVERIFY(!window.controller->isWorkingOnOperation());
}

void tst_operation_controller::failureAmongSeveral_data()
{
    QTest::addColumn<int>("answer");
    QTest::addColumn<QStringList>("archives");
    QTest::addColumn<QStringList>("screens");
    const QString skip = u"alert The file “broken.zip” could not be opened. Skip/Cancel"_s;
    const QString ok = u"alert The file “broken.zip” could not be opened. OK"_s;
    QTest::newRow("skipped") << 1 << QStringList{u"broken.zip"_s, u"c.zip"_s}
                             << QStringList{u"view progress"_s, skip, u"view alert"_s, u"view progress"_s,
                                            u"view done with out/c.txt"_s};
    QTest::newRow("stopped") << 0 << QStringList{u"broken.zip"_s, u"c.zip"_s}
                             << QStringList{u"view progress"_s, skip, u"view alert"_s,
                                            u"back if not at main"_s};
    QTest::newRow("the last one") << 1 << QStringList{u"a.zip"_s, u"broken.zip"_s}
                                  << QStringList{u"view progress"_s, ok, u"view alert"_s,
                                                 u"view done with out/a.txt"_s};
}

void tst_operation_controller::failureAmongSeveral()
{
    QFETCH(int, answer);
    QFETCH(QStringList, archives);
    QFETCH(QStringList, screens);
    RecordedWindow window;
    window.makeArchives();
    window.write(u"c.txt"_s, "c");
    window.pack(u"c.zip"_s, {u"c.txt"_s});
    for (QString &archive : archives)
        archive = window.at(archive);
    window.answerAlert = [answer](const QString &) { return answer; };
    window.controller->addAndExtractArchives(archives);
    QVERIFY2(window.reaches(screens.last()), qPrintable(window.log.all().join(u'\n')));
    QVERIFY(window.idle());
    QCOMPARE(window.log.screens(), screens);
}

void tst_operation_controller::mismatchedPasswordStartsNothing()
{
    RecordedWindow window;
    window.makeArchives();
    CVSettings::setValue(CVSettingsKey::shouldEncrypt, true);
    QVERIFY(prepareCreate(window, u"a.txt"_s));
    window.createData->setPassword(u"one"_s);
    window.createData->setPasswordConfirmation(u"other"_s);
    window.controller->createArchive();
    window.convertData->setArchiveType(u"zip"_s);
    window.convertData->setPassword(u"one"_s);
    window.controller->convertArchive();
    QVERIFY(!window.controller->isWorkingOnOperation());
    QVERIFY(window.queue->operations().empty());
    QCOMPARE(window.log.all(), QStringList());
    window.createData->setPasswordConfirmation(u"one"_s);
    window.controller->createArchive();
    QVERIFY(window.reaches(u"view done out/all.zip"_s));
}

void tst_operation_controller::replaceQuestion_data()
{
    QTest::addColumn<QString>("answer");
    QTest::addColumn<QStringList>("screens");
    const QStringList asked{u"view progress"_s,
                            u"alert “all.zip” already exists. Do you want to replace it? Replace/Cancel"_s,
                            u"view alert"_s};
    QTest::newRow("replace") << u"default"_s
                             << asked + QStringList{u"view progress"_s, u"view done out/all.zip"_s};
    QTest::newRow("cancel") << u"cancel"_s << asked + QStringList{u"back"_s};
    QTest::newRow("window closed") << u"close"_s << asked;
    QTest::newRow("job cancelled") << u"stop"_s << asked + QStringList{u"back if not at main"_s};
}

void tst_operation_controller::replaceQuestion()
{
    QFETCH(QString, answer);
    QFETCH(QStringList, screens);
    RecordedWindow window;
    window.makeArchives();
    QVERIFY(prepareCreate(window, u"a.txt"_s));
    window.write(u"out/all.zip"_s, "old");
    if (answer == u"default" || answer == u"cancel")
        window.answerAlert = [&](const QString &) { return answer == u"default" ? 1 : 0; };
    else
        window.answerAlert = [](const QString &) { return std::optional<int>(); };
    window.controller->createArchive();
    QVERIFY(window.reaches(u"view alert"_s));
    if (answer == u"close") {
        const auto job = window.controller->currentOperation();
        window.close();
        QTRY_VERIFY(job->isFinished());
    } else if (answer == u"stop") {
        window.controller->stopOperation();
    }
    QVERIFY(window.reaches(screens.last()));
    QVERIFY(window.idle());
    QTest::qWait(20); // a second way back would come now
    QCOMPARE(window.log.screens(), screens);
    QFile result(window.at(u"out/all.zip"_s));
    QVERIFY(result.open(QIODevice::ReadOnly));
    QCOMPARE(result.readAll() == "old", answer != u"default");
    QCOMPARE(window.names(u"out"_s), QStringList{u"all.zip"_s});
    QCOMPARE(window.log.count(u"told “Task cancelled”"_s), answer == u"cancel" || answer == u"stop" ? 1 : 0);
}

void tst_operation_controller::cancelled_data()
{
    QTest::addColumn<QString>("when");
    QTest::newRow("while it waits for its turn") << u"waiting"_s;
    QTest::newRow("while it extracts") << u"extracting"_s;
    QTest::newRow("while it packs") << u"packing"_s;
    QTest::newRow("while it converts") << u"converting"_s;
    QTest::newRow("while it splits") << u"splitting"_s;
    QTest::newRow("while a password is asked for") << u"password"_s;
    QTest::newRow("while an error is shown") << u"alert"_s;
}

// Each of them ends once: one way back, one notification, and the window is free again.
void tst_operation_controller::cancelled()
{
    QFETCH(QString, when);
    RecordedWindow window;
    window.makeArchives();
    window.answerAlert = [](const QString &) { return std::optional<int>(); };
    window.letsPasswordStand = true;
    QString input = u"a.zip"_s;
    if (when == u"waiting") {
        // The only place is taken.
        class Hog final : public CVOperation
        {
            void main() override
            {
                while (!isCancelled())
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        };
        window.queue->setWidth(1);
        const auto hog = std::make_shared<Hog>();
        window.queue->add(hog);
        window.controller->addAndExtractArchives({window.at(input)});
        QVERIFY(window.reaches(u"view progress"_s));
        window.controller->stopOperation();
        QVERIFY(window.reaches(u"back if not at main"_s));
        hog->cancel();
    } else if (when.endsWith(u"ing")) {
        window.onProgress = [&] { window.controller->stopOperation(); };
        // Packing it takes minutes.
        window.write(u"long"_s, {});
        QVERIFY(QFile::resize(window.at(u"long"_s), qint64(16) << 30));
        if (when == u"extracting" || when == u"converting") {
            window.write(u"big"_s, QByteArray(64 << 20, 'x'));
            window.pack(u"big.zip"_s, {u"-mx=1"_s, u"big"_s});
        }
        if (when == u"packing") {
            QVERIFY(prepareCreate(window, u"long"_s));
            window.controller->createArchive();
        } else if (when == u"extracting") {
            window.controller->addAndExtractArchives({window.at(u"big.zip"_s)});
        } else {
            const QString file = when == u"splitting" ? u"long"_s : u"big.zip"_s;
            window.controller->controllerHasNewFiles({window.at(file)});
            QVERIFY(window.reaches(when == u"splitting" ? u"options"_s : u"view preview big.zip"_s));
            window.log.clear();
            window.convertData->setArchiveType(u"tar"_s);
            if (when == u"splitting")
                window.controller->splitFile();
            else
                window.controller->convertArchive();
        }
    } else if (when == u"password") {
        window.pack(u"locked.7z"_s, {u"a.txt"_s, u"-mhe=on"_s, u"-pright"_s});
        window.controller->addAndExtractArchives({window.at(u"locked.7z"_s)});
        QVERIFY(window.reaches(u"password? Please enter the password to open “locked.7z”"_s));
        window.controller->stopOperation();
    } else {
        window.controller->addAndExtractArchives({window.at(u"broken.zip"_s), window.at(u"c.zip"_s)});
        QVERIFY(window.reaches(u"view alert"_s));
        window.controller->stopOperation();
    }
    QVERIFY(window.reaches(u"back if not at main"_s));
    QVERIFY(window.idle());
    QTest::qWait(20); // a second way back would come now
    QCOMPARE(window.log.count(u"back"_s), 1);
    QCOMPARE(window.log.count(u"told “Task cancelled”"_s), 1);
    QCOMPARE(window.log.count(u"told"_s), 1);
    QVERIFY(!window.controller->isWorkingOnOperation());
    QCOMPARE(window.names(u"out"_s), QStringList());
}

void tst_operation_controller::closed_data()
{
    QTest::addColumn<QString>("when");
    QTest::newRow("while it works") << u"working"_s;
    QTest::newRow("while a password is asked for") << u"password"_s;
    QTest::newRow("while its failure is shown") << u"failed"_s;
    QTest::newRow("while it lists") << u"listing"_s;
    QTest::newRow("while entries are extracted") << u"entries"_s;
}

void tst_operation_controller::closed()
{
    QFETCH(QString, when);
    RecordedWindow window;
    window.makeArchives();
    window.answerAlert = [](const QString &) { return std::optional<int>(); };
    window.letsPasswordStand = true;
    if (when == u"working" || when == u"entries") {
        window.write(u"big"_s, QByteArray(64 << 20, 'x'));
        window.pack(u"big.zip"_s, {u"-mx=1"_s, u"big"_s});
    }
    window.pack(u"locked.7z"_s, {u"a.txt"_s, u"-mhe=on"_s, u"-pright"_s});
    int entriesEnded = 0;
    const auto destination = std::make_shared<int>();
    std::shared_ptr<CVOperation> job;
    if (when == u"working") {
        window.controller->addAndExtractArchives({window.at(u"big.zip"_s)});
        QTRY_VERIFY(window.progressCalls > 0 || !window.queue->operations().empty());
    } else if (when == u"failed") {
        window.controller->addAndExtractArchives({window.at(u"broken.zip"_s)});
        QVERIFY(window.reaches(u"view alert"_s));
    } else if (when == u"password") {
        window.controller->addAndExtractArchives({window.at(u"locked.7z"_s)});
        QVERIFY(window.reaches(u"password? Please enter the password to open “locked.7z”"_s));
    } else if (when == u"listing") {
        window.controller->controllerHasNewFiles({window.at(u"locked.7z"_s)});
        QVERIFY(window.reaches(u"password? Please enter the password to open “locked.7z”"_s));
    } else {
        CVSettings::setValue(CVSettingsKey::extractDestination, 1);
        QVERIFY(window.showsPreviewOf({u"big.zip"_s}));
        window.controller->extractFiles({u"big"_s}, window.at(u"big.zip"_s), window.at(u"out"_s),
                                        [&, destination](const QStringList &) { ++entriesEnded; });
    }
    job = window.controller->currentOperation();
    window.close();
    if (when == u"entries") {
        // The end is told at once, but what belongs to the destination stays while it is written to.
        const bool isKept = destination.use_count() > 1;
        QVERIFY(isKept || job->isFinished());
    }
    const QStringList before = window.log.all();
    QVERIFY(!window.controller->currentOperation());
    QVERIFY(!window.controller->isWorkingOnOperation());
    window.queue->waitUntilEmpty();
    QTest::qWait(50);
    QCOMPARE(window.log.all(), before);
    QCOMPARE(entriesEnded, when == u"entries" ? 1 : 0);
    QCOMPARE(destination.use_count(), 1);
    QVERIFY(!job || job->isFinished());
    if (when == u"entries")
        QCOMPARE(CVSettings::integer(CVSettingsKey::extractDestination), 1);
    // Nothing that comes late does anything.
    window.controller->openFiles({window.at(u"a.zip"_s)});
    window.controller->extractArchive();
    window.controller->windowWillClose();
    QCOMPARE(window.log.all(), before);
}

void tst_operation_controller::splitHandsOverToVolumes()
{
    RecordedWindow window;
    window.makeArchives();
    QByteArray noise;
    for (unsigned i = 0; i < 40000; ++i)
        noise.append(static_cast<char>((i * i + i / 7) * 31 % 251));
    window.write(u"noise.bin"_s, noise);
    window.controller->controllerHasNewFiles({window.at(u"noise.bin"_s)});
    QVERIFY(window.reaches(u"options"_s));
    window.splitData->setCompressionSetting(2);
    window.splitData->splitter()->setChunkSize(1);
    window.splitData->splitter()->setChunkUnits(u"KB"_s);
    window.log.clear();
    window.controller->splitFile();
    QTRY_VERIFY(window.log.count(u"view done"_s) == 1);
    QVERIFY(window.idle());
    QCOMPARE(window.log.count(u"view progress"_s), 2);
    QVERIFY(window.names(u"out/noise"_s).contains(u"noise.bin.7z.001"_s));
    QCOMPARE(window.createData->chunkSize(), 0.0); // or the next archive would come in volumes
}

void tst_operation_controller::splitShowsTheLastFile()
{
    RecordedWindow window;
    window.makeArchives();
    window.controller->showSplitFile();
    QCOMPARE(window.log.screens(), QStringList());
    window.controller->controllerHasNewFiles({window.at(u"b.txt"_s), window.at(u"a.txt"_s)});
    QVERIFY(window.reaches(u"options"_s));
    window.controller->showSplitFile();
    QCOMPARE(window.log.screens().last(), u"view split a.txt"_s);
    QCOMPARE(window.controller->operationDataPathToInputFile(*window.splitData), window.at(u"b.txt"_s));
}

void tst_operation_controller::hidesNoCompression_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<bool>("hidden");
    for (const char *type : {"tar.gz", "tgz", "tar.bz2", "tbz"})
        QTest::newRow(type) << QString::fromLatin1(type) << true;
    for (const char *type : {"zip", "tar", "7z"})
        QTest::newRow(type) << QString::fromLatin1(type) << false;
}

void tst_operation_controller::hidesNoCompression()
{
    QFETCH(QString, type);
    QFETCH(bool, hidden);
    RecordedWindow window;
    for (const bool atCreate : {true, false}) {
        window.isAtCreateView = atCreate;
        window.noneHidden = !hidden;
        window.controller->operationDataDidChangeArchiveType(*window.createData, type);
        QCOMPARE(window.noneHidden, hidden);
    }
}

void tst_operation_controller::secondClickStartsNothing()
{
    RecordedWindow window;
    window.makeArchives();
    QVERIFY(window.showsPreviewOf({u"a.zip"_s}));
    window.controller->extractArchive();
    window.controller->extractArchive();
    QVERIFY(window.idle());
    QCOMPARE(window.log.count(u"view done"_s), 1);
    QCOMPARE(window.names(u"out"_s), QStringList{u"a.txt"_s});
}

QTEST_GUILESS_MAIN(tst_operation_controller)
#include "tst_operation_controller.moc"
