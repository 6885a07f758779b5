#include "engine/model/CVSettings.h"
#include "filetree/CVFileTreeBuilder.h"
#include "platform/LXFileUri.h"
#include "platform/LXFileViewer.h"
#include "platform/LXWorkspace.h"
#include "support/CreateSupport.h"
#include "ui/outline/CVFileListView.h"
#include "ui/outline/CVFileOptionsViewController.h"
#include "ui/outline/CVOperationCompletedWithMultipleFilesViewController.h"
#include "ui/support/ScreenStage.h"
#include "util/LXMainThread.h"

#include <QAction>
#include <QDir>
#include <QDropEvent>
#include <QLabel>
#include <QMimeData>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

struct Viewer final : LXFileViewer
{
    void reveal(const QStringList &paths) override { revealed += paths; }
    QStringList revealed;
};

struct Workspace final : LXWorkspace
{
    bool openFile(const QString &path) override
    {
        opened.append(path);
        return true;
    }
    QStringList opened;
};

QStringList rowsOf(const CVFileNodeModel &model)
{
    QStringList names;
    for (int row = 0; row < model.rowCount(); ++row)
        names.append(model.index(row, 0).data().toString());
    return names;
}

// The window's files and what the window makes of them.
struct Options
{
    explicit Options(const QStringList &paths, bool isArchives = false, bool isParts = false)
        : areArchives(isArchives)
        , areParts(isParts)
    {
        CVFileTreeBuilder::addFiles(paths, *tree);
        CVFileOptionsServices services;
        services.inputFiles = [this] { return tree; };
        services.isArchiveSet = [this] { return areArchives; };
        services.isSplitFileSet = [this] { return areParts; };
        services.isShiftKeyHeld = [this] { return isShiftHeld; };
        services.extractArchive = [this] { asked.append(u"extract"_s); };
        services.showSplitFile = [this] { asked.append(u"split"_s); };
        services.combineFiles = [this] { asked.append(u"combine"_s); };
        services.addFiles = [this] { asked.append(u"add"_s); };
        services.tryToAddFiles = [this](const QStringList &added) {
            CVFileTreeBuilder::addFiles(added, *tree);
            screen->setupDisplay();
        };
        services.removeFileNode = [this](const CVFileNode::Pointer &node) {
            tree->removeNode(node);
            screen->setupDisplay();
        };
        screen = std::make_unique<CVFileOptionsViewController>(std::move(services), stage);
    }
    ~Options() { stage.clear(); }

    QStringList rows() const { return rowsOf(screen->listModel()); }

    CVFileNode::Pointer tree = CVFileNode::create();
    bool areArchives;
    bool areParts;
    bool isShiftHeld = false;
    QStringList asked;
    ScreenStage stage;
    std::unique_ptr<CVFileOptionsViewController> screen;
};

} // namespace

class TestFileOptions : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_folder;
    QString at(const QString &name) const { return m_folder.filePath(name); }

private Q_SLOTS:
    void initTestCase()
    {
        LXMainThread::install();
        CVSettings::setStore(std::make_shared<LXSettingsStore>(at(u"settings.ini"_s)));
        CVSettings::setValue(CVSettingsKey::sound, false);
        QDir(m_folder.path()).mkpath(u"folder/inner"_s);
        QDir(m_folder.path()).mkpath(u"Tool.app/Contents"_s);
        for (const QString &name : {u"a.zip"_s, u"b.zip"_s, u"note.txt"_s, u"film.avi.001"_s, u"folder/x"_s,
                                    u"folder/inner/y"_s, u"Tool.app/Contents/z"_s})
            QVERIFY(writeTestFile(at(name), "data"));
    }

    void offersWhatMakesSense_data()
    {
        QTest::addColumn<QStringList>("files");
        QTest::addColumn<bool>("areArchives");
        QTest::addColumn<bool>("areParts");
        QTest::addColumn<QStringList>("items");
        QTest::addColumn<QString>("byReturn");
        QTest::newRow("one archive") << QStringList{u"a.zip"_s} << true << false
                                     << QStringList{u"extract"_s, u"archive"_s, u"convert"_s, u"split"_s}
                                     << u"extract"_s;
        QTest::newRow("two archives") << QStringList{u"a.zip"_s, u"b.zip"_s} << true << false
                                      << QStringList{u"extract"_s, u"archive"_s} << u"extract"_s;
        QTest::newRow("parts") << QStringList{u"film.avi.001"_s} << false << true
                               << QStringList{u"combine"_s, u"archive"_s, u"split"_s} << u"combine"_s;
        QTest::newRow("a folder") << QStringList{u"folder"_s} << false << false << QStringList{u"archive"_s}
                                  << u"create"_s;
        QTest::newRow("a file") << QStringList{u"note.txt"_s} << false << false
                                << QStringList{u"archive"_s, u"split"_s} << u"create"_s;
    }
    void offersWhatMakesSense()
    {
        QFETCH(QStringList, files);
        QFETCH(bool, areArchives);
        QFETCH(bool, areParts);
        QFETCH(QStringList, items);
        QFETCH(QString, byReturn);
        CVSettings::setValue(CVSettingsKey::skipOptionsView, false);
        for (QString &file : files)
            file = at(file);
        Options options(files, areArchives, areParts);
        options.isShiftHeld = true;
        options.screen->setupDisplay();
        options.stage.loadViewController(*options.screen, false);
        QVERIFY(QTest::qWaitForWindowActive(&options.stage.window));
        items << CVViewController::flexibleSpace << u"add"_s << u"remove"_s << u"cancel"_s;
        QCOMPARE(options.screen->desiredToolbarItems(), items);
        QTest::keyClick(options.screen->listView(), Qt::Key_Return);
        QCOMPARE((options.asked + options.stage.requests.mid(1)), QStringList{byReturn});
    }

    void goesOnByItself_data()
    {
        QTest::addColumn<bool>("isSpecial");
        QTest::addColumn<bool>("skips");
        QTest::addColumn<bool>("isShiftHeld");
        QTest::addColumn<QString>("goesTo");
        QTest::newRow("shown") << false << false << false << u"load"_s;
        QTest::newRow("shown unless Shift") << false << false << true << u"create"_s;
        QTest::newRow("skipped") << false << true << false << u"create"_s;
        QTest::newRow("skipped unless Shift") << false << true << true << u"load"_s;
        QTest::newRow("archives are never skipped") << true << true << false << u"load"_s;
    }
    void goesOnByItself()
    {
        QFETCH(bool, isSpecial);
        QFETCH(bool, skips);
        QFETCH(bool, isShiftHeld);
        QFETCH(QString, goesTo);
        CVSettings::setValue(CVSettingsKey::skipOptionsView, skips);
        Options options({at(u"note.txt"_s)}, isSpecial);
        options.isShiftHeld = isShiftHeld;
        options.screen->showOptions();
        QCOMPARE(options.stage.requests, QStringList{goesTo});
    }

    void addingAndRemoving()
    {
        Options options({at(u"folder"_s), at(u"note.txt"_s)});
        options.screen->setupDisplay();
        options.stage.loadViewController(*options.screen, false);
        QVERIFY(QTest::qWaitForWindowActive(&options.stage.window));
        QVERIFY(!options.screen->action(u"remove"_s)->isEnabled());
        CVFileListView *list = options.screen->listView();
        list->setCurrentIndex(options.screen->listModel().index(0, 0));
        QTest::keyClick(list, Qt::Key_Right);
        QCOMPARE(options.rows(), (QStringList{u"folder"_s, u"inner"_s, u"x"_s, u"note.txt"_s}));

        QMimeData data;
        data.setData(u"text/uri-list"_s, LXFileUri::uriOfPath(at(u"a.zip"_s)) + "\r\n");
        QDragEnterEvent enter(QPoint(5, 5), Qt::CopyAction, &data, Qt::LeftButton, {});
        QCoreApplication::sendEvent(options.screen->view(), &enter);
        QVERIFY(enter.isAccepted());
        QDropEvent drop(QPointF(5, 5), Qt::CopyAction, &data, Qt::LeftButton, {});
        QCoreApplication::sendEvent(options.screen->view(), &drop);
        // What was open stays open.
        QCOMPARE(options.rows(), (QStringList{u"folder"_s, u"inner"_s, u"x"_s, u"a.zip"_s, u"note.txt"_s}));

        // An item inside a folder, a folder with the row after it, and then all the rest.
        list->setCurrentIndex(options.screen->listModel().index(1, 0));
        QTest::keyClick(list, Qt::Key_Delete);
        QCOMPARE(options.rows(), (QStringList{u"folder"_s, u"x"_s, u"a.zip"_s, u"note.txt"_s}));
        QCOMPARE(list->currentIndex().row(), 1);
        list->setCurrentIndex(options.screen->listModel().index(0, 0));
        QTest::keyClick(list, Qt::Key_Down, Qt::ShiftModifier);
        QTest::keyClick(list, Qt::Key_Delete);
        QCOMPARE(options.rows(), (QStringList{u"a.zip"_s, u"note.txt"_s}));
        QTest::keyClick(list, Qt::Key_A, Qt::ControlModifier);
        QTest::keyClick(list, Qt::Key_Delete);
        QCOMPARE(options.stage.requests.last(), u"main"_s);
        QVERIFY(QFileInfo::exists(at(u"folder/inner/y"_s)));
    }

    void bundlesFollowTheSetting()
    {
        CVSettings::setValue(CVSettingsKey::inspectApplicationBundle, false);
        Options options({at(u"Tool.app"_s)});
        options.screen->setupDisplay();
        QVERIFY(!options.screen->listModel().isExpandable(0));
        CVSettings::setValue(CVSettingsKey::inspectApplicationBundle, true);
        QTRY_VERIFY(options.screen->listModel().isExpandable(0));
        CVSettings::setValue(CVSettingsKey::inspectApplicationBundle, false);
        QTRY_VERIFY(!options.screen->listModel().isExpandable(0));
    }

    void severalResults()
    {
        const auto viewer = std::make_shared<Viewer>();
        const auto workspace = std::make_shared<Workspace>();
        LXFileViewer::setShared(viewer);
        LXWorkspace::setShared(workspace);
        ScreenStage stage;
        CVOperationCompletedWithMultipleFilesViewController screen(stage);
        screen.setFiles({at(u"folder"_s), at(u"note.txt"_s)},
                        [&] { stage.loadViewController(screen, false); });
        QCOMPARE(stage.requests, QStringList{u"load"_s});
        QVERIFY(!screen.canBeReturnedTo());
        QTRY_VERIFY(screen.listModel().isExpandable(0));
        CVFileListView *list = screen.listView();
        QTest::keyClick(list, Qt::Key_F, Qt::ControlModifier);
        QCOMPARE(viewer->revealed, QStringList{at(u"folder"_s)});
        const QPoint note = list->visualRect(screen.listModel().index(1, 0)).center();
        QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, note);
        QTest::mouseDClick(list->viewport(), Qt::LeftButton, {}, note);
        QCOMPARE(workspace->opened, QStringList{at(u"note.txt"_s)});
        QTest::keyClick(list, Qt::Key_F, Qt::ControlModifier);
        QCOMPARE(viewer->revealed.last(), at(u"note.txt"_s));
        LXFileViewer::setShared(nullptr);
        LXWorkspace::setShared(nullptr);

        CVSettings::setValue(CVSettingsKey::skipArchivePreview, true);
        QTest::keyClick(list, Qt::Key_B, Qt::ControlModifier);
        QCOMPARE(stage.requests.last(), u"main"_s);
        CVSettings::setValue(CVSettingsKey::skipArchivePreview, false);
        stage.loadViewController(screen, false);
        QTest::keyClick(list, Qt::Key_B, Qt::ControlModifier);
        QCOMPARE(stage.requests.last(), u"back"_s);
    }

    void exportingSeveralResults()
    {
        QDir(m_folder.path()).mkpath(u"target"_s);
        QVERIFY(writeTestFile(at(u"r1"_s), "1"));
        QVERIFY(writeTestFile(at(u"r2"_s), "2"));
        QVERIFY(writeTestFile(at(u"target/r2"_s), "other"));
        ScreenStage stage;
        CVOperationCompletedWithMultipleFilesViewController screen(stage);
        screen.setFolderChooser([this](QWidget *, const auto &chosen) { chosen(at(u"target"_s)); });
        screen.setFiles({at(u"r1"_s), at(u"r2"_s)}, [&] { stage.loadViewController(screen, false); });
        QVERIFY(QTest::qWaitForWindowActive(&stage.window));
        QTest::keyClick(screen.listView(), Qt::Key_E, Qt::ControlModifier);
        auto *notice = screen.view()->findChild<QLabel *>(u"notice"_s);
        QTRY_VERIFY(notice->text().contains(u"r2"_s));
        QCOMPARE(testFileContents(at(u"target/r1"_s)), "1"_ba);
        QCOMPARE(testFileContents(at(u"target/r2"_s)), "other"_ba);
        QVERIFY(!stage.requests.contains(u"main"_s));
        QCOMPARE(screen.listModel().node(0)->filename(), at(u"target/r1"_s));
        QVERIFY(QFile::remove(at(u"target/r2"_s)));
        screen.setFiles({at(u"r2"_s)}, {});
        QTest::keyClick(screen.listView(), Qt::Key_E, Qt::ControlModifier);
        QTRY_COMPARE(stage.requests.last(), u"main"_s);
        QVERIFY(!QFileInfo::exists(at(u"r2"_s)));
    }
};

QTEST_MAIN(TestFileOptions)
#include "tst_file_options.moc"
