#include "engine/control/CVOperationController.h"
#include "engine/model/CVSettings.h"
#include "support/CreateSupport.h"
#include "support/TestTree.h"
#include "ui/support/WindowDriver.h"
#include "ui/window/CVMainWindow.h"
#include "ui/window/CVNavigationController.h"

#include <QApplication>
#include <QTest>

using namespace Qt::StringLiterals;

/// From every screen people can turn back or close the window, and what they had is as it was.
class TestLeaving : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cancel_data();
    void cancel();
    void close_data();
    void close();

private:
    static void prepare(WindowDriver &driver);
    /// With `isSlidingIn` it is only on its way in.
    static bool goTo(WindowDriver &driver, const QString &screen, bool isSlidingIn = false);
    /// Of what lies in the home, hidden things included, but for the settings.
    static QStringList names(const WindowDriver &driver);
};

void TestLeaving::cancel_data()
{
    QTest::addColumn<QString>("screen");
    for (const char *screen :
         {"options", "create", "split", "preview", "convert", "password", "progress", "replace", "alert"})
        QTest::newRow(screen) << QString::fromLatin1(screen);
}

void TestLeaving::prepare(WindowDriver &driver)
{
    driver.makeFile(u"home/in/letter.txt"_s, "Dear reader,\n");
    driver.makeFile(u"home/in/noise.bin"_s, noise(20'000'000));
    driver.makeFile(u"home/in.zip"_s, "not to be replaced");
    QVERIFY(driver.runTool(u"sh"_s, {u"-c"_s, u"cd home && 7z a -bso0 -psecret secret.7z in/letter.txt && "
                                              "zip -q plain.zip in/letter.txt"_s}));
    driver.makeFile(u"home/broken.zip"_s, "PK\3\4 and no more");
}

bool TestLeaving::goTo(WindowDriver &driver, const QString &screen, bool isSlidingIn)
{
    CVSettings::setValue(CVSettingsKey::skipArchivePreview, screen == u"password"_s);
    const auto reached = [&](const QString &next) {
        if (!isSlidingIn || (next != screen && next != u"alert"_s))
            return driver.waitForScreen(next);
        return QTest::qWaitFor(
            [&] { return driver.navigation().currentViewController() == driver.screen(next); });
    };
    const auto dropped = [&](const QString &file, const QString &next) {
        return driver.drop({driver.path(u"home/"_s + file)}) && reached(next);
    };
    const auto clicked = [&](const QString &item, const QString &next) {
        return driver.click(item) && reached(next);
    };
    if (screen == u"options"_s)
        return dropped(u"in"_s, screen);
    if (screen == u"create"_s)
        return dropped(u"in"_s, u"options"_s) && clicked(u"archive"_s, screen);
    if (screen == u"split"_s)
        return dropped(u"in/noise.bin"_s, u"options"_s) && clicked(u"split"_s, screen);
    if (screen == u"preview"_s)
        return dropped(u"plain.zip"_s, screen);
    if (screen == u"convert"_s)
        return dropped(u"plain.zip"_s, u"preview"_s) && clicked(u"convert"_s, screen);
    if (screen == u"multipleDone"_s)
        return dropped(u"plain.zip"_s, u"preview"_s) && clicked(u"extract"_s, screen);
    if (screen == u"password"_s)
        return dropped(u"secret.7z"_s, screen);
    if (screen == u"alert"_s)
        return dropped(u"broken.zip"_s, screen);
    if (!dropped(u"in"_s, u"options"_s) || !clicked(u"archive"_s, u"create"_s))
        return false;
    if (screen == u"replace"_s) {
        CVSettings::setValue(CVSettingsKey::createArchiveFormat, u"zip"_s);
        return clicked(u"forward"_s, u"alert"_s);
    }
    // Noise takes the best packer some seconds.
    CVSettings::setValue(CVSettingsKey::createArchiveFormat, u"7z"_s);
    CVSettings::setValue(CVSettingsKey::compressionLevelSetting, 9);
    return clicked(u"forward"_s, u"progress"_s);
}

QStringList TestLeaving::names(const WindowDriver &driver)
{
    QStringList names = folderNames(driver.path(u"home"_s));
    names.removeIf([](const QString &name) { return name.startsWith(u"corvane.conf"); });
    return names;
}

void TestLeaving::cancel()
{
    QFETCH(const QString, screen);
    WindowDriver driver;
    prepare(driver);
    QVERIFY(driver.start());
    const QStringList namesBefore = names(driver);
    const TestTree before = treeFromDisk(driver.path(u"home/in"_s));
    QVERIFY(goTo(driver, screen));

    // An alert that only tells has but one way out.
    driver.press(screen == u"alert"_s ? Qt::Key_Return : Qt::Key_Escape);
    QVERIFY(driver.waitForJobs());
    QVERIFY(QTest::qWaitFor([&] { return !driver.screenName().isEmpty(); }));
    const QString expected = screen == u"replace"_s || screen == u"progress"_s ? u"create"_s
                             : screen == u"alert"_s                            ? u"options"_s
                                                                               : u"dropBox"_s;
    QCOMPARE(driver.screenName(), expected);
    QVERIFY(!driver.operations().isWorkingOnOperation());

    // The window goes on as if nothing had been.
    if (expected != u"dropBox"_s) {
        driver.press(Qt::Key_Escape);
        QVERIFY(driver.waitForScreen(u"dropBox"_s));
    }
    CVSettings::setValue(CVSettingsKey::skipArchivePreview, false);
    QVERIFY(driver.drop({driver.path(u"home/plain.zip"_s)}));
    QVERIFY(driver.waitForScreen(u"preview"_s));
    QVERIFY(driver.end());
    QCOMPARE(treeDifferences(before, treeFromDisk(driver.path(u"home/in"_s))), QStringList());
    QCOMPARE(testFileContents(driver.path(u"home/in.zip"_s)), "not to be replaced");
    QCOMPARE(names(driver), namesBefore);
    QCOMPARE(CVSettings::stringList(CVSettingsKey::tempDirs), QStringList());
}

void TestLeaving::close_data()
{
    QTest::addColumn<QString>("screen");
    QTest::addColumn<bool>("isSlidingIn");
    for (const char *screen : {"options", "create", "split", "preview", "convert", "multipleDone", "password",
                               "progress", "replace", "alert"}) {
        QTest::addRow("%s", screen) << QString::fromLatin1(screen) << false;
        QTest::addRow("%s, sliding in", screen) << QString::fromLatin1(screen) << true;
    }
}

void TestLeaving::close()
{
    QFETCH(const QString, screen);
    QFETCH(const bool, isSlidingIn);
    WindowDriver driver(isSlidingIn ? WindowDriver::Motion::Full : WindowDriver::Motion::Reduced);
    prepare(driver);
    QVERIFY(driver.start());
    const QStringList namesBefore = names(driver);
    const TestTree before = treeFromDisk(driver.path(u"home/in"_s));
    QVERIFY(goTo(driver, screen, isSlidingIn));

    driver.mainWindow()->close();
    QVERIFY(QTest::qWaitFor([&] { return driver.app().windowControllers().empty(); }));
    QVERIFY(QTest::qWaitFor([&] { return driver.app().isTerminating(); }));
    QVERIFY(driver.end());
    QCOMPARE(treeDifferences(before, treeFromDisk(driver.path(u"home/in"_s))), QStringList());
    QCOMPARE(testFileContents(driver.path(u"home/in.zip"_s)), "not to be replaced");
    QStringList namesAfter = names(driver);
    if (screen == u"multipleDone"_s) // the result
        namesAfter.removeIf([](const QString &name) { return name.startsWith(u"in 2"); });
    QCOMPARE(namesAfter, namesBefore);
    QCOMPARE(CVSettings::stringList(CVSettingsKey::tempDirs), QStringList());
}

QTEST_MAIN(TestLeaving)
#include "tst_leaving.moc"
