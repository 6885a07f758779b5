#include "engine/control/CVOperationController.h"
#include "engine/model/CVOperation.h"
#include "engine/model/CVOperationQueue.h"
#include "engine/model/CVSettings.h"
#include "ui/base/CVViewController.h"
#include "ui/support/WindowDriver.h"
#include "ui/window/CVNavigationController.h"

#include <QFile>
#include <QTest>

using namespace Qt::StringLiterals;

/// Where a window is after each question of a job, with its real screens.
class TestQuestions : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void ways_data();
    void ways();
    void closedWhileAsking_data();
    void closedWhileAsking();

private:
    static bool prepare(WindowDriver &driver);
    /// "drop a.zip b.zip", "on preview", "click extract", "type text", "set SkipArchivePreview".
    static bool follow(WindowDriver &driver, const QString &step);
};

bool TestQuestions::prepare(WindowDriver &driver)
{
    driver.makeFile(u"a.txt"_s, "a");
    driver.makeFile(u"b.txt"_s, "b");
    driver.makeFile(u"broken.zip"_s, "PK\x03\x04 broken");
    driver.makeFile(u"broken2.zip"_s, "PK\x03\x04 broken");
    driver.makeFile(u"a.zip"_s, "in the way");
    return driver.runTool(u"zip"_s, {u"-q"_s, u"good.zip"_s, u"a.txt"_s}) &&
           driver.runTool(u"zip"_s, {u"-q"_s, u"later.zip"_s, u"b.txt"_s}) &&
           driver.runTool(u"7z"_s, {u"a"_s, u"-psesame"_s, u"-mhe=on"_s, u"locked.7z"_s, u"a.txt"_s}) &&
           driver.start();
}

bool TestQuestions::follow(WindowDriver &driver, const QString &step)
{
    const QString verb = step.section(u' ', 0, 0);
    QString rest = step.section(u' ', 1);
    if (verb == u"drop") {
        QStringList paths = rest.split(u' ');
        for (QString &path : paths)
            path = driver.path(path);
        return driver.waitForScreen(u"dropBox"_s) && driver.drop(paths);
    }
    if (verb == u"on")
        return driver.waitForScreen(rest, 8000);
    if (verb == u"click")
        return driver.click(rest);
    if (verb == u"type") {
        driver.type(rest);
        return true;
    }
    CVSettings::setValue(rest, true);
    return true;
}

void TestQuestions::ways_data()
{
    QTest::addColumn<QString>("steps");
    QTest::newRow("broken, from the first screen")
        << u"set SkipArchivePreview, drop broken.zip, on alert, click done, on dropBox"_s;
    QTest::newRow("nothing can be listed, then packed instead")
        << u"drop broken.zip broken2.zip, on alert, click done, on options, click cancel, on dropBox"_s;
    QTest::newRow("one cannot be listed")
        << u"drop broken.zip good.zip, on alert, click done, on preview, click extract, on multipleDone, "
           "click done, on dropBox"_s;
    QTest::newRow("password, listing")
        << u"drop locked.7z, on password, type wrong, click done, on password, type sesame, click done, "
           "on preview, click extract, on multipleDone, click back, on preview"_s;
    QTest::newRow("no password, listing") << u"drop locked.7z, on password, click cancel, on dropBox"_s;
    QTest::newRow("no password, extracting")
        << u"set SkipArchivePreview, drop locked.7z, on password, click cancel, on dropBox, drop good.zip, "
           "on multipleDone"_s;
    QTest::newRow("one of several skipped")
        << u"set SkipArchivePreview, drop broken.zip later.zip, on alert, click done, on multipleDone, "
           "click done, on dropBox"_s;
    QTest::newRow("one of several not skipped")
        << u"set SkipArchivePreview, drop broken.zip later.zip, on alert, click cancel, on dropBox"_s;
    QTest::newRow("not replaced") << u"drop a.txt, on options, click archive, on create, click forward, "
                                     "on alert, click cancel, on create, click back, on options"_s;
    QTest::newRow("replaced") << u"drop a.txt, on options, click archive, on create, click forward, "
                                 "on alert, click done, on done, click done, on dropBox"_s;
}

void TestQuestions::ways()
{
    QFETCH(QString, steps);
    WindowDriver driver;
    QVERIFY(prepare(driver));
    CVSettings::setValue(CVSettingsKey::createArchiveFormat, u"zip"_s);
    for (const QString &step : steps.split(u", "_s))
        QVERIFY2(follow(driver, step), qPrintable(step + u", but on "_s + driver.screenName()));
    QVERIFY(driver.waitForJobs());
    QVERIFY(!driver.operations().isWorkingOnOperation());
    // A second way back would come by now.
    const QString last = driver.screenName();
    QTest::qWait(100);
    QCOMPARE(driver.screenName(), last);
    QVERIFY(driver.end());
}

void TestQuestions::closedWhileAsking_data()
{
    QTest::addColumn<QString>("steps");
    QTest::newRow("password, listing") << u"drop locked.7z, on password"_s;
    QTest::newRow("password, extracting") << u"set SkipArchivePreview, drop locked.7z, on password"_s;
    QTest::newRow("skip") << u"set SkipArchivePreview, drop broken.zip later.zip, on alert"_s;
    QTest::newRow("failure") << u"set SkipArchivePreview, drop broken.zip, on alert"_s;
    QTest::newRow("listing failed") << u"drop broken.zip, on alert"_s;
    QTest::newRow("replace")
        << u"drop a.txt, on options, click archive, on create, click forward, on alert"_s;
}

void TestQuestions::closedWhileAsking()
{
    QFETCH(QString, steps);
    WindowDriver driver;
    QVERIFY(prepare(driver));
    CVSettings::setValue(CVSettingsKey::createArchiveFormat, u"zip"_s);
    for (const QString &step : steps.split(u", "_s))
        QVERIFY2(follow(driver, step), qPrintable(step + u", but on "_s + driver.screenName()));
    const auto job = driver.operations().currentOperation();
    QVERIFY(driver.end());
    QVERIFY(!job || job->isFinished());
    QFile kept(driver.path(u"a.zip"_s));
    QVERIFY(kept.open(QIODevice::ReadOnly));
    QCOMPARE(kept.readAll(), "in the way");
}

QTEST_MAIN(TestQuestions)
#include "tst_questions.moc"
