#include "ui/OptionScreens.h"

#include <QAccessible>
#include <QCheckBox>
#include <QComboBox>
#include <QDropEvent>
#include <QLineEdit>
#include <QMimeData>
#include <QScrollArea>
#include <QScrollBar>
#include <QUrl>

#include <algorithm>

using namespace Qt::StringLiterals;
using namespace OptionScreens;

namespace {

QStringList namesOf(const CVFormatButtonBarView &bar)
{
    QStringList names;
    for (const CVFormatButton *button : bar.buttons())
        names.append(button->text());
    return names;
}

} // namespace

class TestFormatBar : public OptionScreens::Test
{
    Q_OBJECT

private Q_SLOTS:
    void formatBar_data();
    void formatBar();
    void rarComesWithTheSetting();
    void arrowKeys();
    void arrowKeysLeaveTextAlone();
    void barScrollsToTheChosen_data();
    void barScrollsToTheChosen();
    void readAsRadioButtons();
    void formatNoLongerOffered();
    void installingRar();
    void droppedRarDistribution();
};

void TestFormatBar::formatBar_data()
{
    QTest::addColumn<bool>("setting");
    QTest::addColumn<bool>("tool");
    QTest::addColumn<bool>("installer");
    QTest::addColumn<bool>("offered");

    QTest::newRow("neither tool nor installer") << true << false << false << false;
    QTest::newRow("tool") << true << true << false << true;
    QTest::newRow("installer") << true << false << true << true;
    QTest::newRow("not wanted") << false << true << true << false;
}

void TestFormatBar::formatBar()
{
    QFETCH(bool, setting);
    QFETCH(bool, tool);
    QFETCH(bool, installer);
    QFETCH(bool, offered);
    CVSettings::setValue(CVSettingsKey::shouldOfferRAR, setting);
    if (tool)
        CVRarToolStatus::setShared(std::make_shared<RarTool>());
    Create create;
    if (installer)
        create.services.installRar = [] {};
    create.show();

    QStringList expected{u"ZIP"_s,      u"Corvane"_s,   u"7-Zip"_s, u"gzip tar"_s,
                         u"gzip tar"_s, u"bzip2 tar"_s, u"Z tar"_s, u"tar"_s};
    if (offered)
        expected.insert(3, u"RAR"_s);
    const auto &bar = *create.screen->editView()->formatBar;
    QCOMPARE(namesOf(bar), expected);
    QList<int> tags;
    for (const CVFormatButton *button : bar.buttons()) {
        tags.append(button->identifier());
        QVERIFY2(!button->icon().isNull(), qPrintable(button->text()));
    }
    QCOMPARE(tags, offered ? QList<int>({0, 1, 2, 3, 4, 4, 5, 6, 7}) : QList<int>({0, 1, 2, 4, 4, 5, 6, 7}));
}

void TestFormatBar::rarComesWithTheSetting()
{
    CVRarToolStatus::setShared(std::make_shared<RarTool>());
    CVSettings::setValue(CVSettingsKey::shouldOfferRAR, false);
    Create create;
    create.show();
    auto *bar = create.screen->editView()->formatBar;
    create.key(Qt::Key_Right);
    QCOMPARE(bar->buttons().size(), 8);
    CVSettings::setValue(CVSettingsKey::shouldOfferRAR, true);
    QTRY_COMPARE(bar->buttons().size(), 9);
    QCOMPARE(bar->selectedButton(), bar->buttons().at(1));
    QVERIFY(bar->selectedButton()->hasFocus());
}

void TestFormatBar::arrowKeys()
{
    Create create;
    create.show();
    auto *bar = create.screen->editView()->formatBar;
    create.key(Qt::Key_Left);
    QCOMPARE(bar->selectedButton(), bar->buttons().first());
    const QStringList formats{u"corvane"_s, u"7z"_s,    u"tar.gz"_s, u"tar.gz"_s,
                              u"tar.bz2"_s, u"tar.Z"_s, u"tar"_s,    u"tar"_s};
    for (qsizetype i = 0; i < formats.size(); ++i) {
        create.key(Qt::Key_Right);
        QCOMPARE(create.screen->operationDataBinding()->archiveType(), formats.at(i));
        QCOMPARE(bar->selectedButton(), bar->buttons().at(std::min<qsizetype>(i + 1, 7)));
        QCOMPARE(std::ranges::count_if(bar->buttons(), &CVFormatButton::isSelected), 1);
        QVERIFY(bar->selectedButton()->hasFocus());
    }
    create.key(Qt::Key_Left);
    QCOMPARE(create.screen->operationDataBinding()->archiveType(), u"tar.Z"_s);
    QCOMPARE(create.screen->previousFormat(), CVFormats::tagForFormat(u"tar"_s));
    // A check box would move the focus with these keys.
    bar->buttons().at(1)->click();
    create.screen->editView()->zipBox->setFocus();
    create.key(Qt::Key_Right);
    QCOMPARE(create.screen->operationDataBinding()->archiveType(), u"7z"_s);
}

void TestFormatBar::arrowKeysLeaveTextAlone()
{
    Create create;
    create.show();
    QLineEdit *name = create.screen->editView()->nameField;
    name->setFocus();
    name->setCursorPosition(0);
    create.key(Qt::Key_Right);
    QCOMPARE(name->cursorPosition(), 1);
    QCOMPARE(create.screen->operationDataBinding()->archiveType(), u"zip"_s);
    create.key(Qt::Key_B);
    QCOMPARE(name->text(), u"ab"_s);
    QVERIFY(create.navigator.went.isEmpty());
}

void TestFormatBar::barScrollsToTheChosen_data()
{
    QTest::addColumn<Qt::LayoutDirection>("direction");
    QTest::newRow("left to right") << Qt::LeftToRight;
    QTest::newRow("right to left") << Qt::RightToLeft;
}

void TestFormatBar::barScrollsToTheChosen()
{
    QFETCH(Qt::LayoutDirection, direction);
    CVFormatButtonBarView bar;
    bar.setLayoutDirection(direction);
    for (int i = 0; i < 9; ++i)
        bar.addButtonWithIdentifier(i, {}, u"format"_s);
    bar.resize(bar.minimumSizeHint());
    bar.show();
    auto *area = bar.findChild<QScrollArea *>();
    QScrollBar *scroll = area->horizontalScrollBar();
    QVERIFY(scroll->maximum() > 0);
    const auto isSeen = [&](int i) {
        const QRect button = bar.buttons().at(i)->rect();
        return area->viewport()->rect().contains(
            {bar.buttons().at(i)->mapTo(area->viewport(), button.topLeft()), button.size()});
    };
    for (const int i : {8, 4, 1, 0}) {
        bar.scrollToButton(bar.buttons().at(i));
        QVERIFY2(isSeen(i), qPrintable(QString::number(i)));
        QVERIFY(i != 8 || scroll->value() == scroll->maximum());
        QVERIFY(i != 0 || scroll->value() == scroll->minimum());
    }
    // What is selected stays in sight when the room changes.
    bar.buttons().at(5)->setSelected(true);
    bar.resize(bar.minimumSizeHint() + QSize(8, 0));
    QCoreApplication::processEvents();
    QVERIFY(isSeen(5));
    bar.resize(bar.sizeHint());
    QCoreApplication::processEvents();
    QCOMPARE(scroll->maximum(), 0);
}

void TestFormatBar::readAsRadioButtons()
{
    Create create;
    create.show();
    CVFormatButton *sevenZip = create.screen->editView()->formatBar->buttons().at(2);
    QAccessibleInterface *read = QAccessible::queryAccessibleInterface(sevenZip);
    QVERIFY(read);
    QCOMPARE(read->role(), QAccessible::RadioButton);
    QCOMPARE(read->text(QAccessible::Name), u"7-Zip"_s);
    QVERIFY(!read->state().checked);
    read->actionInterface()->doAction(QAccessibleActionInterface::pressAction());
    QTRY_VERIFY(read->state().checked);
    QCOMPARE(create.screen->operationDataBinding()->archiveType(), u"7z"_s);
    // Of the row, Tab reaches the selected one alone.
    create.key(Qt::Key_Tab);
    QVERIFY(!qobject_cast<CVFormatButton *>(create.window->focusWidget()));
    for (QWidget *control : create.window->findChildren<QWidget *>()) {
        if (!(control->focusPolicy() & Qt::TabFocus) || !control->isVisible() || control->focusProxy())
            continue;
        const QAccessibleInterface *interface = QAccessible::queryAccessibleInterface(control);
        QVERIFY2(!interface->text(QAccessible::Name).isEmpty(), control->metaObject()->className());
    }
}

void TestFormatBar::formatNoLongerOffered()
{
    CVSettings::setValue(CVSettingsKey::createArchiveFormat, u"rar"_s);
    Create create;
    create.show();
    QCOMPARE(create.screen->selectedButton()->text(), u"ZIP"_s);
    QCOMPARE(create.screen->operationDataBinding()->outputArchiveName(), u"a.zip"_s);
    // It may come back.
    QCOMPARE(CVSettings::string(CVSettingsKey::createArchiveFormat), u"rar"_s);
}

void TestFormatBar::installingRar()
{
    int installed = 0;
    Create create;
    create.services.installRar = [&] { ++installed; };
    create.show();
    auto *view = create.screen->editView();
    view->formatBar->firstButtonWithIdentifier(CVFormats::rarTag)->click();
    QVERIFY(view->rarText->isVisible());
    for (const QWidget *control : QList<QWidget *>{view->nameField, view->encryptBox, view->levelChooser})
        QVERIFY(!control->isVisible());
    QCOMPARE(create.finish()->iconText(), u"Install"_s);
    create.key(Qt::Key_Return);
    QCOMPARE(installed, 1);
    QCOMPARE(create.started, 0);
    view->formatBar->buttons().first()->click();
    QVERIFY(!view->rarText->isVisible());
    QVERIFY(view->nameField->isVisible());
    QCOMPARE(create.finish()->iconText(), u"Create"_s);
}

void TestFormatBar::droppedRarDistribution()
{
    QStringList installed;
    int activated = 0;
    Create create;
    create.services.installRar = [] {};
    create.services.installRarFromFile = [&](const QString &path) { installed.append(path); };
    create.services.activateApp = [&] { ++activated; };
    create.show();
    QMimeData data;
    data.setUrls(
        {QUrl::fromLocalFile(u"/x/rarosx-1/note.txt"_s), QUrl::fromLocalFile(u"/x/rarosx-6.tar.gz"_s)});
    QDragEnterEvent enter(QPoint(5, 5), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(create.screen->view(), &enter);
    QVERIFY(enter.isAccepted());
    QDropEvent drop(QPointF(5, 5), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(create.screen->view(), &drop);
    QTRY_COMPARE(installed, QStringList{u"/x/rarosx-6.tar.gz"_s});
    QCOMPARE(activated, 1);
}

QTEST_MAIN(TestFormatBar)
#include "tst_format_bar.moc"
