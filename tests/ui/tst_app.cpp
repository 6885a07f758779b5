#include "engine/control/CVOperationController.h"
#include "engine/model/CVOperation.h"
#include "engine/model/CVOperationQueue.h"
#include "engine/model/CVSettings.h"
#include "platform/desktop/LXApplicationBus.h"
#include "ui/base/CVTheme.h"
#include "ui/support/WindowDriver.h"
#include "ui/window/CVMainWindow.h"
#include "ui/window/CVNavigationController.h"
#include "util/LXMainThread.h"

#include <QApplication>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>

#include <atomic>
#include <condition_variable>
#include <mutex>

using namespace Qt::StringLiterals;

namespace {

/// Works until it is cancelled, and then wants something of the main thread, as jobs do.
class StubbornJob final : public CVOperation
{
public:
    void main() override
    {
        hasBegun = true;
        std::mutex mutex;
        std::unique_lock lock(mutex);
        std::condition_variable_any().wait(lock, stopToken(), [] { return false; });
        LXMainThread::wait([this] { wasHeard = true; });
    }

    std::atomic<bool> hasBegun = false;
    std::atomic<bool> wasHeard = false;
};

} // namespace

class TestApp : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // A bus of our own from the beginning: on the person's own one, Corvane may be running.
    void initTestCase()
    {
        m_bus.start(u"dbus-daemon"_s, {u"--session"_s, u"--nofork"_s, u"--print-address"_s});
        QVERIFY(m_bus.waitForStarted());
        QTRY_VERIFY(m_bus.canReadLine());
        qputenv("DBUS_SESSION_BUS_ADDRESS", m_bus.readLine().trimmed());
    }

    void cleanupTestCase()
    {
        m_bus.terminate();
        m_bus.waitForFinished();
    }

    void startsWithTheDropBox()
    {
        WindowDriver driver;
        QVERIFY(driver.start());
        QVERIFY(driver.waitForScreen(u"dropBox"_s));
        QCOMPARE(driver.mainWindow()->windowTitle(), u"Corvane"_s);
        QCOMPARE(driver.mainWindow()->focusWidget()->objectName(), u"chooseFiles"_s);
        for (const QString &name : {u"fileAnalysis"_s, u"progress"_s, u"password"_s, u"alert"_s, u"create"_s})
            QVERIFY2(driver.screen(name), qPrintable(name));
        driver.picture(u"dropBox"_s);
        QVERIFY(driver.end());
    }

    void widthOfTheQueueFollowsTheSetting()
    {
        WindowDriver driver;
        QVERIFY(driver.start());
        QCOMPARE(driver.app().queue()->width(), 5);
        CVSettings::setValue(CVSettingsKey::numberOfSimultaneousOperations, 2);
        QCOMPARE(driver.app().queue()->width(), 2);
        CVSettings::setValue(CVSettingsKey::numberOfSimultaneousOperations, -7);
        QCOMPARE(driver.app().queue()->width(), 1);
    }

    void firstLaunchTakesOverEarlierSettings_data()
    {
        QTest::addColumn<int>("launchedBefore");
        QTest::addColumn<int>("destination");
        QTest::newRow("first") << 0 << 2;
        QTest::newRow("later") << 7 << 0;
    }

    void firstLaunchTakesOverEarlierSettings()
    {
        QFETCH(int, launchedBefore);
        const WindowDriver driver; // its folders
        const QString earlier = driver.path(u"earlier.conf"_s);
        LXSettingsStore(earlier).setValue(CVSettingsKey::extractDestination, 2);
        if (launchedBefore > 0)
            CVSettings::setValue(CVSettingsKey::lastLaunchedVersion, launchedBefore);
        CVAppController app;
        app.setVersion(9, earlier);
        app.start({});
        QTRY_VERIFY(app.isLaunchComplete());
        QTEST(static_cast<int>(CVSettings::integer(CVSettingsKey::extractDestination)), "destination");
        QCOMPARE(CVSettings::integer(CVSettingsKey::lastLaunchedVersion), 9);
        QSignalSpy terminated(&app, &CVAppController::terminated);
        app.terminate();
        QVERIFY(terminated.count() == 1 || terminated.wait());
    }

    void endsWithAJobUnderWay_data()
    {
        QTest::addColumn<QString>("by");
        QTest::newRow("Quit") << "key";
        QTest::newRow("the last window") << "window";
        QTest::newRow("the session") << "terminate";
    }

    void endsWithAJobUnderWay()
    {
        QFETCH(QString, by);
        WindowDriver driver;
        QVERIFY(driver.start());
        const auto job = std::make_shared<StubbornJob>();
        driver.app().queue()->add(job);
        QVERIFY(QTest::qWaitFor([&] { return job->hasBegun.load(); }));
        QSignalSpy terminated(&driver.app(), &CVAppController::terminated);
        if (by == "key"_L1) {
            driver.mainWindow()->activateWindow();
            QVERIFY(QTest::qWaitForWindowActive(driver.mainWindow()));
            driver.press(Qt::Key_Q, Qt::ControlModifier);
        } else if (by == "window"_L1) {
            driver.mainWindow()->close();
        } else {
            driver.app().terminate();
        }
        QVERIFY(driver.app().isTerminating());
        QVERIFY(!driver.app().mainWindowController());
        QVERIFY(terminated.wait());
        QVERIFY(job->isFinished());
        QVERIFY(job->wasHeard);
        // Nothing comes back to life.
        driver.app().showMainWindow();
        driver.app().openFiles({u"/tmp"_s});
        QCOMPARE(terminated.size(), 1);
    }

    // Opened with Corvane in a file manager: unpacked beside the archive, and the program is gone again.
    void archivesGivenAtStartAreExtractedInPlace()
    {
        WindowDriver driver;
        driver.makeFile(u"in/note.txt"_s, "words");
        QVERIFY(driver.runTool(u"zip"_s, {u"-qr"_s, u"note.zip"_s, u"in"_s}));
        QVERIFY(driver.runTool(u"rm"_s, {u"-r"_s, u"in"_s}));
        QVERIFY(driver.start({driver.path(u"note.zip"_s)}));
        QVERIFY(QTest::qWaitFor([&] { return driver.app().isTerminating(); }, 30000));
        QVERIFY(driver.end());
        QVERIFY(QFile::exists(driver.path(u"in/note.txt"_s)));
    }

    void closingTheWindowLetsAnInPlaceExtractionGoOn()
    {
        WindowDriver driver;
        // Large enough that the window can be closed meanwhile.
        driver.makeFile(u"in/large"_s, QByteArray(300 * 1024 * 1024, 'x'));
        QVERIFY(driver.runTool(u"zip"_s, {u"-1qr"_s, u"large.zip"_s, u"in"_s}));
        QVERIFY(driver.runTool(u"rm"_s, {u"-r"_s, u"in"_s}));
        QVERIFY(driver.start({driver.path(u"large.zip"_s)}));
        QVERIFY(QTest::qWaitFor([&] { return driver.operations().isWorkingOnOperation(); }));
        driver.mainWindow()->close();
        QVERIFY(!driver.app().isTerminating());
        QVERIFY(!driver.mainWindow()->isVisible());
        QVERIFY(QTest::qWaitFor([&] { return driver.app().isTerminating(); }, 60000));
        QVERIFY(driver.end());
        QCOMPARE(QFileInfo(driver.path(u"in/large"_s)).size(), 300 * 1024 * 1024);
    }

    // Nobody sees the window, so a question has to bring it back.
    void questionBringsAClosedWindowBack()
    {
        WindowDriver driver;
        driver.makeFile(u"in/secret"_s, "words");
        QVERIFY(driver.runTool(u"7z"_s, {u"a"_s, u"-psesame"_s, u"-mhe=on"_s, u"secret.7z"_s, u"in"_s}));
        QVERIFY(driver.runTool(u"rm"_s, {u"-r"_s, u"in"_s}));
        QVERIFY(driver.start({driver.path(u"secret.7z"_s)}));
        QVERIFY(QTest::qWaitFor([&] { return driver.operations().isWorkingOnOperation(); }));
        driver.mainWindow()->close();
        QVERIFY(driver.waitForScreen(u"password"_s));
        QVERIFY(driver.mainWindow()->isVisible());
        driver.type(u"sesame"_s);
        QVERIFY(driver.click(u"done"_s));
        QVERIFY(QTest::qWaitFor([&] { return driver.app().isTerminating(); }, 30000));
        QVERIFY(driver.end());
        QVERIFY(QFile::exists(driver.path(u"in/secret"_s)));
    }

    void archivesOpenedMeanwhileGetAWindowOfTheirOwn()
    {
        WindowDriver driver;
        driver.makeFile(u"in/note.txt"_s, "words");
        QVERIFY(driver.runTool(u"zip"_s, {u"-qr"_s, u"note.zip"_s, u"in"_s}));
        QVERIFY(driver.runTool(u"7z"_s, {u"a"_s, u"-psesame"_s, u"-mhe=on"_s, u"secret.7z"_s, u"in"_s}));
        QVERIFY(driver.runTool(u"rm"_s, {u"-r"_s, u"in"_s}));
        QVERIFY(driver.start());
        CVSettings::setValue(CVSettingsKey::skipArchivePreview, true);
        CVSettings::setValue(CVSettingsKey::skipDoneView, true);
        QVERIFY(driver.drop({driver.path(u"secret.7z"_s)}));
        QVERIFY(driver.waitForScreen(u"password"_s));
        driver.app().openFiles({driver.path(u"note.zip"_s), driver.path(u"no archive.txt"_s)});
        QVERIFY(driver.waitForWindows(2));
        driver.window = 1;
        QTRY_VERIFY(QFile::exists(driver.path(u"in/note.txt"_s)));
        QTRY_VERIFY(!driver.operations().isWorkingOnOperation());
        QVERIFY(driver.waitForScreen(u"dropBox"_s));
        // The first one still waits for its answer, and closing it closes nothing else.
        driver.window = 0;
        QCOMPARE(driver.screenName(), u"password"_s);
        driver.mainWindow()->close();
        QVERIFY(driver.waitForWindows(1));
        QVERIFY(!driver.app().isTerminating());
        QVERIFY(driver.waitForJobs());
        QVERIFY(driver.end());
    }

    void looksIntoAnArchiveAndExtractsIt()
    {
        WindowDriver driver;
        driver.makeFile(u"papers/note.txt"_s, "words");
        driver.makeFile(u"papers/pictures/far.png"_s, "no picture");
        QVERIFY(driver.runTool(u"zip"_s, {u"-qr"_s, u"papers.zip"_s, u"papers"_s}));
        QVERIFY(driver.runTool(u"rm"_s, {u"-r"_s, u"papers"_s}));
        QVERIFY(driver.start());
        QVERIFY(driver.drop({driver.path(u"papers.zip"_s)}));
        QVERIFY(driver.waitForScreen(u"preview"_s));
        QVERIFY(driver.mainWindow()->maximumSize().width() > 5000);
        driver.picture(u"preview"_s);
        QVERIFY(driver.click(u"extract"_s));
        QVERIFY(driver.waitForScreen(u"multipleDone"_s));
        QVERIFY(QFile::exists(driver.path(u"papers/pictures/far.png"_s)));
        QVERIFY(driver.click(u"back"_s));
        QVERIFY(driver.waitForScreen(u"preview"_s));
        QVERIFY(driver.click(u"cancel"_s));
        QVERIFY(driver.waitForScreen(u"dropBox"_s));
        QVERIFY(driver.operations().previewArchives().empty());
        QVERIFY(driver.end());
    }

    void severalArchivesGiveSeveralResults()
    {
        WindowDriver driver;
        for (const QString &name : {u"one"_s, u"two"_s}) {
            driver.makeFile(name + u"/note.txt"_s, "words");
            QVERIFY(driver.runTool(u"zip"_s, {u"-qr"_s, name + u".zip"_s, name}));
            QVERIFY(driver.runTool(u"rm"_s, {u"-r"_s, name}));
        }
        QVERIFY(driver.start());
        CVSettings::setValue(CVSettingsKey::skipArchivePreview, true);
        QVERIFY(driver.drop({driver.path(u"one.zip"_s), driver.path(u"two.zip"_s)}));
        QVERIFY(driver.waitForScreen(u"multipleDone"_s));
        driver.picture(u"multipleDone"_s);
        QVERIFY(driver.click(u"done"_s));
        QVERIFY(driver.waitForScreen(u"dropBox"_s));
        QVERIFY(driver.end());
    }

    void packsAFolderAndShowsTheResult()
    {
        WindowDriver driver;
        driver.makeFile(u"papers/note.txt"_s, "words");
        QVERIFY(driver.start());
        QVERIFY(driver.drop({driver.path(u"papers"_s)}));
        QVERIFY(driver.waitForScreen(u"options"_s));
        driver.picture(u"options"_s);
        QVERIFY(driver.click(u"archive"_s));
        QVERIFY(driver.waitForScreen(u"create"_s));
        driver.picture(u"create"_s);
        QVERIFY(driver.click(u"forward"_s));
        QVERIFY(driver.waitForScreen(u"done"_s));
        QVERIFY(QFile::exists(driver.path(u"papers.zip"_s)));
        driver.picture(u"done"_s);
        QVERIFY(driver.click(u"done"_s));
        QVERIFY(driver.waitForScreen(u"dropBox"_s));
        QVERIFY(driver.navigation().previousViewControllers().isEmpty());
        QVERIFY(driver.end());
    }

    void laterStartReachesTheFirst()
    {
        WindowDriver driver;
        const QString file = driver.makeFile(u"folder/a\nb.txt"_s, "words");
        auto bus = std::make_unique<LXApplicationBus>(u"org.corvane.Corvane"_s);
        QCOMPARE(bus->claim(), LXApplicationBus::First);
        driver.setApplicationBus(std::move(bus));
        QVERIFY(driver.start());
        driver.mainWindow()->showMinimized();

        const auto runSecond = [&](const QStringList &words) {
            QProcess second;
            second.setWorkingDirectory(driver.path(u"folder"_s));
            second.start(QStringLiteral(CORVANE_WINDOW), words);
            QSignalSpy finished(&second, &QProcess::finished);
            return finished.wait(20000) && second.exitStatus() == QProcess::NormalExit ? second.exitCode()
                                                                                       : -1;
        };
        QCOMPARE(runSecond({}), 0);
        QTRY_VERIFY(!driver.mainWindow()->isMinimized());
        QCOMPARE(driver.screenName(), u"dropBox"_s);
        QCOMPARE(runSecond({u"a\nb.txt"_s}), 0);
        QVERIFY(QTest::qWaitFor([&] { return driver.screenName() != u"dropBox"_s; }));
        QCOMPARE(driver.app().windowControllers().size(), std::size_t(1));
        QVERIFY(driver.end());
    }

private:
    QProcess m_bus;
};

QTEST_MAIN(TestApp)
#include "tst_app.moc"
