#include "ui/base/CVFilePanels.h"
#include "ui/support/WindowDriver.h"
#include "ui/window/CVDropBoxView.h"
#include "ui/window/CVMainWindow.h"
#include "util/LXFileName.h"

#include <QApplication>
#include <QClipboard>
#include <QDialogButtonBox>
#include <QDragEnterEvent>
#include <QFileDialog>
#include <QMimeData>
#include <QPushButton>
#include <QTest>
#include <QTreeView>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

QMimeData *uriList(const QByteArray &lines)
{
    auto *data = new QMimeData;
    data->setData(u"text/uri-list"_s, lines);
    return data;
}

} // namespace

class TestDropBox : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void localFilesOfADrop_data()
    {
        QTest::addColumn<QByteArray>("lines");
        QTest::addColumn<QByteArrayList>("paths");
        QTest::newRow("several, and a comment")
            << QByteArray("#x\r\nfile:///a%20b\r\nfile:///c\r\n") << QByteArrayList{"/a b", "/c"};
        QTest::newRow("a name that is no text")
            << QByteArray("file:///a%ff.zip\r\n") << QByteArrayList{"/a\xff.zip"};
        QTest::newRow("without line ends at the end")
            << QByteArray("file:///a\nfile:///b") << QByteArrayList{"/a", "/b"};
        QTest::newRow("twice the same") << QByteArray("file:///a\r\nfile:///a\r\n") << QByteArrayList{"/a"};
        QTest::newRow("elsewhere") << QByteArray(
                                          "https://example.org/a.zip\r\nfile://far.example.org/a\r\n/a\r\n")
                                   << QByteArrayList();
        QTest::newRow("a link with a mark") << QByteArray("file:///a%23b#c\r\n") << QByteArrayList{"/a#b#c"};
        QTest::newRow("a name cut short by a zero") << QByteArray("file:///a%00b\r\n") << QByteArrayList();
    }

    void localFilesOfADrop()
    {
        QFETCH(QByteArray, lines);
        const std::unique_ptr<QMimeData> data(uriList(lines));
        QByteArrayList paths;
        for (const QString &path : CVDropBoxView::localFiles(data.get()))
            paths.append(bytesOfFileName(path));
        QTEST(paths, "paths");
    }

    void dropAndPasteLeaveTheDropBox_data()
    {
        QTest::addColumn<bool>("pastes");
        QTest::newRow("drop") << false;
        QTest::newRow("paste") << true;
    }

    void dropAndPasteLeaveTheDropBox()
    {
        QFETCH(bool, pastes);
        WindowDriver driver;
        QVERIFY(driver.start());
        const QString file = driver.makeFile(u"a note.txt"_s, "words");
        if (pastes) {
            QGuiApplication::clipboard()->setMimeData(uriList("file://" + file.toUtf8().replace(' ', "%20")));
            QVERIFY(driver.click(u"paste"_s));
        } else {
            QVERIFY(driver.drop({file}));
        }
        QVERIFY(QTest::qWaitFor([&] { return driver.screenName() != u"dropBox"_s; }));
        QVERIFY(driver.end());
    }

    void remoteDropIsNotTaken()
    {
        WindowDriver driver;
        QVERIFY(driver.start());
        QVERIFY(driver.waitForScreen(u"dropBox"_s));
        QWidget *well = driver.screen(u"dropBox"_s)->view();
        const std::unique_ptr<QMimeData> data(uriList("https://example.org/a.zip\r\n"));
        QDropEvent event(well->rect().center(), Qt::CopyAction, data.get(), Qt::LeftButton, Qt::NoModifier);
        event.ignore();
        QApplication::sendEvent(well, &event);
        QVERIFY(!event.isAccepted());
        QCOMPARE(driver.screenName(), u"dropBox"_s);
    }

    void dropBoxAnswersADrag_data()
    {
        QTest::addColumn<bool>("moves");
        QTest::newRow("moving") << true;
        QTest::newRow("with reduced motion") << false;
    }

    void dropBoxAnswersADrag()
    {
        QFETCH(bool, moves);
        WindowDriver driver(moves ? WindowDriver::Motion::Full : WindowDriver::Motion::Reduced);
        QVERIFY(driver.start());
        QVERIFY(driver.waitForScreen(u"dropBox"_s));
        QWidget *well = driver.screen(u"dropBox"_s)->view();
        const auto look = [&] { return well->grab().toImage(); };
        const QImage atRest = look();
        const std::unique_ptr<QMimeData> data(uriList("file:///a\r\n"));
        const QPoint middle = well->rect().center();
        QDragEnterEvent enter(middle, Qt::CopyAction | Qt::MoveAction, data.get(), Qt::LeftButton,
                              Qt::NoModifier);
        QApplication::sendEvent(well, &enter);
        QVERIFY(enter.isAccepted());
        QCOMPARE(enter.dropAction(), Qt::CopyAction);
        const QImage over = look();
        QVERIFY(over != atRest);
        const bool isMoving = QTest::qWaitFor([&] { return look() != over; }, moves ? 5000 : 400);
        QCOMPARE(isMoving, moves);
        driver.picture(moves ? u"dropBox-drag"_s : u"dropBox-drag-still"_s);
        QDragLeaveEvent leave;
        QApplication::sendEvent(well, &leave);
        QTRY_COMPARE(look(), atRest);
    }

    void panelTakesFilesAndFolders()
    {
        WindowDriver driver;
        driver.makeFile(u"files/folder/x"_s, "x");
        const QString file = driver.makeFile(u"files/one.zip"_s, "1");
        QVERIFY(driver.start());
        std::optional<QStringList> chosen;
        int answers = 0;
        const auto open = [&] {
            CVFilePanels::chooseFiles(driver.mainWindow(), u"Open"_s, u"&Open"_s, [&](auto paths) {
                chosen = std::move(paths);
                ++answers;
            });
            auto *panel = driver.mainWindow()->findChildren<QFileDialog *>(u"filePanel"_s).last();
            panel->setDirectory(driver.path(u"files"_s));
            return panel;
        };
        QFileDialog *panel = open();
        auto *list = panel->findChild<QTreeView *>(u"treeView"_s);
        QTRY_COMPARE(list->model()->rowCount(list->rootIndex()), 2);
        list->setFocus();
        list->selectAll();
        auto *button = panel->findChild<QDialogButtonBox *>()->button(QDialogButtonBox::Open);
        QTRY_VERIFY(button->isEnabled());
        QTest::mouseClick(button, Qt::LeftButton);
        QTRY_COMPARE(answers, 1);
        QVERIFY(chosen);
        chosen->sort();
        QCOMPARE(*chosen, (QStringList{driver.path(u"files/folder"_s), file}));

        open()->reject();
        QTRY_COMPARE(answers, 2);
        QVERIFY(!chosen);
        // The window goes and takes the panel with it.
        open();
        QVERIFY(driver.end());
        QTRY_COMPARE(answers, 3);
        QVERIFY(!chosen);
    }
};

QTEST_MAIN(TestDropBox)
#include "tst_drop_box.moc"
