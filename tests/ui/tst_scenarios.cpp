#include "engine/control/CVOperationController.h"
#include "engine/model/CVSettings.h"
#include "platform/LXFileViewer.h"
#include "support/CreateSupport.h"
#include "support/TestTree.h"
#include "ui/options/CVFormatButton.h"
#include "ui/support/OutsideDrag.h"
#include "ui/support/WindowDriver.h"
#include "ui/window/CVMainWindow.h"
#include "ui/window/CVNavigationController.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QCheckBox>
#include <QLabel>
#include <QLineEdit>
#include <QTest>

#include <algorithm>
#include <random>

using namespace Qt::StringLiterals;

namespace {

/// Takes down what would be shown in the file manager.
class RevealRecorder final : public LXFileViewer
{
public:
    void reveal(const QStringList &paths) override { m_revealed += paths; }
    QStringList revealed() const { return m_revealed; }

private:
    QStringList m_revealed;
};

constexpr auto password = "pass $word";

/// Text that an archive of it takes some seconds to unpack, because its packer is slow both ways.
QByteArray longText(qsizetype bytes)
{
    QByteArray text;
    text.reserve(bytes + 16);
    std::mt19937 random(7);
    while (text.size() < bytes)
        text += QByteArray::number(random(), 36) + ' ';
    return text;
}

} // namespace

/// What people do with the window, from the drop to the files on the disk. On an X server of its own, files
/// are dragged from the window of another program with a real pointer; elsewhere the drop is an event.
class TestScenarios : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void dropLookExtract();
    void dropFolderCreateSevenZipReveal();
    void dropThreeOneBrokenOneEncrypted();
    void splitAndCombine();
    void convert();
    void dropWhileBusy();
    void twoWindowsTwoPasswords();
    void refusedEntriesAreTold();
    void dragOutOfThePreview();

private:
    static bool drop(const WindowDriver &driver, const QStringList &paths);
    static bool chooseFormat(const WindowDriver &driver, const QString &screen, int tag);
    /// By what a screen reader calls it.
    static QLineEdit *field(const WindowDriver &driver, const QString &screen, const QString &name);
    static QString makeTree(const WindowDriver &driver, const QString &name);
    static QStringList differences(const QString &expected, const QString &actual)
    {
        return treeDifferences(treeFromDisk(expected), treeFromDisk(actual));
    }
};

bool TestScenarios::drop(const WindowDriver &driver, const QStringList &paths)
{
    if (!OutsideDrag::isPossible())
        return driver.drop(paths);
    const QWidget *view = driver.screen(driver.screenName())->view();
    return OutsideDrag::drop(paths, view->mapToGlobal(view->rect().center()));
}

bool TestScenarios::chooseFormat(const WindowDriver &driver, const QString &screen, int tag)
{
    const auto buttons = driver.screen(screen)->view()->findChildren<CVFormatButton *>();
    for (CVFormatButton *button : buttons) {
        if (button->identifier() != tag)
            continue;
        // As with the keyboard, for it may be scrolled out of sight.
        button->click();
        return button->isSelected();
    }
    return false;
}

QLineEdit *TestScenarios::field(const WindowDriver &driver, const QString &screen, const QString &name)
{
    const auto fields = driver.screen(screen)->view()->findChildren<QLineEdit *>();
    const auto found =
        std::ranges::find_if(fields, [&](const QLineEdit *one) { return one->accessibleName() == name; });
    return found == fields.end() ? nullptr : *found;
}

QString TestScenarios::makeTree(const WindowDriver &driver, const QString &name)
{
    driver.makeFile(name + u"/letter.txt"_s, "Dear reader,\n");
    driver.makeFile(name + u"/<b>bold</b> & co.txt"_s, "not markup");
    driver.makeFile(name + u"/photos/Grüße 1.jpg"_s, noise(70'000));
    driver.makeFile(name + u"/photos/empty"_s, {});
    return driver.path(name);
}

void TestScenarios::dropLookExtract()
{
    WindowDriver driver(WindowDriver::Motion::Full);
    makeTree(driver, u"in/Letters"_s);
    QVERIFY(driver.runTool(u"sh"_s, {u"-c"_s, u"cd in && zip -qr ../home/Letters.zip Letters"_s}));
    QVERIFY(driver.start());
    driver.picture(u"01-drop-box"_s);

    QVERIFY(drop(driver, {driver.path(u"home/Letters.zip"_s)}));
    QVERIFY(driver.waitForScreen(u"preview"_s));
    driver.picture(u"02-preview"_s);
    QVERIFY(driver.click(u"extract"_s));
    QVERIFY(driver.waitForScreen(u"multipleDone"_s));
    driver.picture(u"03-done"_s);

    QCOMPARE(differences(driver.path(u"in/Letters"_s), driver.path(u"home/Letters"_s)), QStringList());
    QVERIFY(driver.click(u"done"_s));
    QVERIFY(driver.waitForScreen(u"dropBox"_s));
    QVERIFY(driver.end());
    QCOMPARE(CVSettings::stringList(CVSettingsKey::tempDirs), QStringList());
}

void TestScenarios::dropFolderCreateSevenZipReveal()
{
    const auto viewer = std::make_shared<RevealRecorder>();
    LXFileViewer::setShared(viewer);
    WindowDriver driver;
    makeTree(driver, u"home/Letters"_s);
    QVERIFY(driver.start());

    QVERIFY(drop(driver, {driver.path(u"home/Letters"_s)}));
    QVERIFY(driver.waitForScreen(u"options"_s));
    driver.picture(u"04-options"_s);
    QVERIFY(driver.click(u"archive"_s));
    QVERIFY(driver.waitForScreen(u"create"_s));
    driver.picture(u"05-create"_s);
    QVERIFY(chooseFormat(driver, u"create"_s, 2));
    driver.screen(u"create"_s)->view()->findChild<QCheckBox *>(u"encrypt"_s)->click();
    QLineEdit *first = field(driver, u"create"_s, u"Password"_s);
    QLineEdit *second = field(driver, u"create"_s, u"Confirm password"_s);
    QVERIFY(first && second);
    QTest::keyClicks(first, QString::fromUtf8(password));
    driver.picture(u"06-create-mismatch"_s);
    QVERIFY(!driver.click(u"forward"_s));
    QTest::keyClicks(second, QString::fromUtf8(password));
    driver.picture(u"07-create-password"_s);
    QVERIFY(driver.click(u"forward"_s));
    QVERIFY(driver.waitForScreen(u"done"_s));
    QVERIFY(driver.click(u"showInFinder"_s));
    const QString archive = driver.path(u"home/Letters.7z"_s);
    QCOMPARE(viewer->revealed(), QStringList(archive));
    QVERIFY(driver.end());
    LXFileViewer::setShared(nullptr);

    QVERIFY(driver.runTool(u"7z"_s, {u"x"_s, u"-p"_s + QString::fromUtf8(password), u"-oout"_s, archive}));
    QCOMPARE(differences(driver.path(u"home/Letters"_s), driver.path(u"out/Letters"_s)), QStringList());
    QVERIFY(!driver.runTool(u"7z"_s, {u"t"_s, u"-pwrong"_s, archive}));
}

void TestScenarios::dropThreeOneBrokenOneEncrypted()
{
    WindowDriver driver;
    makeTree(driver, u"in/Letters"_s);
    makeTree(driver, u"in/Secrets"_s);
    QVERIFY(driver.runTool(u"sh"_s, {u"-c"_s, u"cd in && zip -qr ../home/Letters.zip Letters"_s}));
    QVERIFY(driver.runTool(u"sh"_s,
                           {u"-c"_s, u"cd in && 7z a -bso0 -mhe=on '-p%1' ../home/Secrets.7z Secrets"_s.arg(
                                         QString::fromUtf8(password))}));
    driver.makeFile(u"home/Broken.zip"_s, "PK\3\4 and no more");
    QVERIFY(driver.start());

    QVERIFY(drop(driver, {driver.path(u"home/Letters.zip"_s), driver.path(u"home/Secrets.7z"_s),
                          driver.path(u"home/Broken.zip"_s)}));
    QVERIFY(driver.waitForScreen(u"password"_s));
    driver.picture(u"08-password"_s);
    driver.type(u"wrong"_s);
    driver.press(Qt::Key_Return);
    // The same screen again, with other words.
    QVERIFY(QTest::qWaitFor([&] { return driver.screenName() != u"password"_s; }));
    QVERIFY(driver.waitForScreen(u"password"_s));
    driver.picture(u"09-password-again"_s);
    driver.type(QString::fromUtf8(password));
    driver.press(Qt::Key_Return);
    QVERIFY(driver.waitForScreen(u"alert"_s));
    driver.picture(u"10-alert"_s);
    driver.press(Qt::Key_Return);
    QVERIFY(driver.waitForScreen(u"preview"_s));
    driver.picture(u"11-preview-several"_s);
    QVERIFY(driver.click(u"extract"_s));
    QVERIFY(driver.waitForScreen(u"multipleDone"_s));
    driver.picture(u"12-multiple-done"_s);

    QCOMPARE(differences(driver.path(u"in/Letters"_s), driver.path(u"home/Letters"_s)), QStringList());
    QCOMPARE(differences(driver.path(u"in/Secrets"_s), driver.path(u"home/Secrets"_s)), QStringList());
    QCOMPARE(testFileContents(driver.path(u"home/Broken.zip"_s)), "PK\3\4 and no more");
    QVERIFY(driver.end());
}

void TestScenarios::splitAndCombine()
{
    WindowDriver driver;
    const QByteArray content = noise(2'500'000);
    const QString file = driver.makeFile(u"home/film.bin"_s, content);
    QVERIFY(driver.start());

    QVERIFY(drop(driver, {file}));
    QVERIFY(driver.waitForScreen(u"options"_s));
    QVERIFY(driver.click(u"split"_s));
    QVERIFY(driver.waitForScreen(u"split"_s));
    driver.press(Qt::Key_Right);
    QVERIFY(driver.screen(u"split"_s)->view()->findChild<QLineEdit *>());
    auto *size = driver.screen(u"split"_s)->view()->findChild<QLineEdit *>();
    size->selectAll();
    QTest::keyClicks(size, u"1"_s);
    driver.picture(u"13-split"_s);
    QVERIFY(driver.click(u"forward"_s));
    QVERIFY(driver.waitForJobs());
    QVERIFY(driver.waitForScreen(u"multipleDone"_s));
    driver.picture(u"14-split-done"_s);
    const QStringList parts = folderNames(driver.path(u"home/film"_s));
    QCOMPARE(parts.size(), 3);
    QVERIFY(QFile::remove(file));

    QVERIFY(driver.click(u"done"_s));
    QVERIFY(driver.waitForScreen(u"dropBox"_s));
    QVERIFY(drop(driver, {driver.path(u"home/film/"_s + parts.at(1))}));
    QVERIFY(driver.waitForScreen(u"options"_s));
    driver.picture(u"15-options-parts"_s);
    QVERIFY(driver.click(u"combine"_s));
    QVERIFY(driver.waitForScreen(u"done"_s));
    QCOMPARE(testFileContents(driver.path(u"home/film/film.bin"_s)), content);
    QVERIFY(driver.end());
}

void TestScenarios::convert()
{
    WindowDriver driver;
    makeTree(driver, u"in/Letters"_s);
    QVERIFY(driver.runTool(u"sh"_s, {u"-c"_s, u"cd in && zip -qr ../home/Letters.zip Letters"_s}));
    QVERIFY(driver.start());
    QVERIFY(drop(driver, {driver.path(u"home/Letters.zip"_s)}));
    QVERIFY(driver.waitForScreen(u"preview"_s));
    QVERIFY(driver.click(u"convert"_s));
    QVERIFY(driver.waitForScreen(u"convert"_s));
    QVERIFY(chooseFormat(driver, u"convert"_s, 5));
    driver.picture(u"16-convert"_s);
    QVERIFY(driver.click(u"forward"_s));
    QVERIFY(driver.waitForScreen(u"done"_s));
    QVERIFY(driver.end());
    QVERIFY(driver.runTool(u"sh"_s, {u"-c"_s, u"mkdir out && tar -xjf home/Letters.tar.bz2 -C out"_s}));
    QCOMPARE(differences(driver.path(u"in/Letters"_s), driver.path(u"out/Letters"_s)), QStringList());
}

void TestScenarios::dropWhileBusy()
{
    WindowDriver driver;
    makeTree(driver, u"in/Letters"_s);
    driver.makeFile(u"in/long/text.txt"_s, longText(24'000'000));
    QVERIFY(driver.runTool(u"sh"_s, {u"-c"_s, u"cd in && zip -qr ../home/Letters.zip Letters && "
                                              "7z a -bso0 -m0=PPMd:mem=64m:o=16 ../home/long.7z long"_s}));
    QVERIFY(driver.start());
    CVSettings::setValue(CVSettingsKey::skipArchivePreview, true);
    QVERIFY(drop(driver, {driver.path(u"home/long.7z"_s)}));
    QVERIFY(driver.waitForScreen(u"progress"_s));
    driver.picture(u"17-progress"_s);
    QVERIFY(drop(driver, {driver.path(u"home/Letters.zip"_s), driver.path(u"in/Letters/letter.txt"_s)}));
    QVERIFY(driver.waitForWindows(2));
    QVERIFY(driver.operations().isWorkingOnOperation());
    driver.window = 1;
    QVERIFY(driver.waitForScreen(u"multipleDone"_s));
    QCOMPARE(differences(driver.path(u"in/Letters"_s), driver.path(u"home/Letters"_s)), QStringList());
    driver.window = 0;
    QVERIFY(driver.waitForScreen(u"multipleDone"_s, 120'000));
    QCOMPARE(testFileContents(driver.path(u"home/long/text.txt"_s)),
             testFileContents(driver.path(u"in/long/text.txt"_s)));
    QVERIFY(driver.end());
}

void TestScenarios::twoWindowsTwoPasswords()
{
    WindowDriver driver;
    makeTree(driver, u"in/Letters"_s);
    makeTree(driver, u"in/Secrets"_s);
    for (const QString &name : {u"Letters"_s, u"Secrets"_s}) {
        QVERIFY(driver.runTool(u"sh"_s, {u"-c"_s, u"cd in && 7z a -bso0 -p%1 ../home/%1.7z %1"_s.arg(name)}));
    }
    QVERIFY(driver.start());
    CVSettings::setValue(CVSettingsKey::skipArchivePreview, true);
    QVERIFY(drop(driver, {driver.path(u"home/Letters.7z"_s)}));
    QVERIFY(driver.waitForScreen(u"password"_s));
    driver.app().openFiles({driver.path(u"home/Secrets.7z"_s)});
    QVERIFY(driver.waitForWindows(2));
    driver.window = 1;
    QVERIFY(driver.waitForScreen(u"password"_s));
    driver.type(u"Secrets"_s);
    driver.window = 0;
    driver.type(u"Letters"_s);
    QVERIFY(driver.click(u"done"_s));
    driver.window = 1;
    QVERIFY(driver.click(u"done"_s));
    QVERIFY(driver.waitForScreen(u"multipleDone"_s));
    driver.window = 0;
    QVERIFY(driver.waitForScreen(u"multipleDone"_s));
    for (const QString &name : {u"Letters"_s, u"Secrets"_s})
        QCOMPARE(differences(driver.path(u"in/"_s + name), driver.path(u"home/"_s + name)), QStringList());
    QVERIFY(driver.end());
}

void TestScenarios::refusedEntriesAreTold()
{
    WindowDriver driver;
    QVERIFY(driver.runTool(u"python3"_s, {u"-c"_s, u"import zipfile\n"
                                                   "z = zipfile.ZipFile('home/mixed.zip', 'w')\n"
                                                   "z.writestr('good.txt', 'good')\n"
                                                   "z.writestr('also.txt', 'good too')\n"
                                                   "z.writestr('../../evil.txt', 'evil')\n"_s}));
    QVERIFY(driver.start());
    QVERIFY(drop(driver, {driver.path(u"home/mixed.zip"_s)}));
    QVERIFY(driver.waitForScreen(u"preview"_s));
    QVERIFY(driver.click(u"extract"_s));
    QVERIFY(driver.waitForScreen(u"multipleDone"_s));
    driver.picture(u"18-done-refused"_s);
    QCOMPARE(folderNames(driver.path(u"home/mixed"_s)), QStringList({u"also.txt"_s, u"good.txt"_s}));
    QVERIFY(!QFileInfo::exists(driver.path(u"evil.txt"_s)));
    bool isTold = false;
    for (const QLabel *label : driver.screen(u"multipleDone"_s)->view()->findChildren<QLabel *>())
        isTold = isTold || (label->isVisible() && label->text().contains(u"left out"));
    QVERIFY(isTold);
    QVERIFY(driver.end());
}

void TestScenarios::dragOutOfThePreview()
{
    if (!OutsideDrag::isPossible())
        QSKIP("needs a pointer that can be moved from outside");
    WindowDriver driver;
    const QString tree = makeTree(driver, u"in/Letters"_s);
    QVERIFY(driver.runTool(u"sh"_s, {u"-c"_s, u"cd in && zip -qr ../home/Letters.zip Letters"_s}));
    QVERIFY(driver.start());
    QVERIFY(drop(driver, {driver.path(u"home/Letters.zip"_s)}));
    QVERIFY(driver.waitForScreen(u"preview"_s));
    const auto views = driver.screen(u"preview"_s)->view()->findChildren<QAbstractItemView *>();
    const auto found = std::ranges::find_if(views, &QWidget::isVisible);
    QVERIFY(found != views.end());
    const QAbstractItemView *list = *found;
    const QRect first = list->visualRect(list->model()->index(0, 0));
    QVERIFY(first.isValid());
    const QStringList taken = OutsideDrag::takeFrom(
        list->viewport()->mapToGlobal(first.topLeft() + QPoint(40, first.height() / 2)));
    QCOMPARE(taken.size(), 1);
    QCOMPARE(differences(tree, taken.first()), QStringList());
    QVERIFY(driver.end());
}

int main(int argc, char **argv)
{
    QApplication application(argc, argv);
    QApplication::setApplicationName(u"corvane"_s);
    TestScenarios test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_scenarios.moc"
