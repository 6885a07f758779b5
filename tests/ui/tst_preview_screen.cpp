#include "archives/CVArchive.h"
#include "engine/model/CVSettings.h"
#include "engine/model/CVWorkDirectoryManager.h"
#include "support/CreateSupport.h"
#include "ui/outline/CVArchivePreviewController.h"
#include "ui/outline/CVEntryMimeData.h"
#include "ui/outline/CVFileGridView.h"
#include "ui/outline/CVFileListView.h"
#include "ui/outline/CVQuickLookPanel.h"
#include "ui/support/ScreenStage.h"
#include "util/LXBackground.h"
#include "util/LXMainThread.h"

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QToolButton>

#include <thread>

using namespace Qt::StringLiterals;

namespace {

using Archives = CVArchivePreviewController::Archives;

struct Delegate final : CVArchiveDelegate
{
    void archiveFinished(CVArchive *) override {}
    void archiveFailed(CVArchive *, std::int32_t) override {}
    void archiveCancelled(CVArchive *) override {}
    void archiveHasMadeProgress(CVArchive *, double, double) override {}
    std::optional<QString> archiveWantsPassword(CVArchive *) override { return u"secret"_s; }
};

// The engine as far as the screen needs it: real archives, extracted for real on another thread.
struct Engine
{
    CVArchivePreviewServices services()
    {
        CVArchivePreviewServices services;
        services.numberOfInputFiles = [this] { return inputFiles; };
        services.extractArchive = [this] { asked.append(u"extract"_s); };
        services.showSplitFile = [this] { asked.append(u"split"_s); };
        services.extractThenOpenFile = [this](const QString &entry, const QString &archive) {
            asked.append(u"open %1 of %2"_s.arg(entry, QFileInfo(archive).fileName()));
        };
        services.extractFiles =
            [this](const QStringList &entries, const QString &path, const QString &folder,
                   const std::function<void(const QStringList &)> &ended) -> std::function<void()> {
            asked.append(u"extract %1 of %2"_s.arg(entries.join(u'+'), QFileInfo(path).fileName()));
            destinations.append(folder);
            if (isHeld) {
                held = ended;
            } else {
                threads.emplace_back([entries, path, folder, ended] {
                    Delegate delegate;
                    const auto archive = CVArchive::archiveForExtracting(path);
                    archive->setDelegate(&delegate);
                    archive->singleFilesToBeExtracted = entries;
                    archive->open(path, folder);
                    QStringList delivered;
                    for (const QString &entry : entries)
                        delivered.append(folder + u'/' + entry);
                    LXMainThread::post([ended, delivered] { ended(delivered); });
                });
            }
            return [this] { asked.append(u"stop"_s); };
        };
        return services;
    }
    int inputFiles = 1;
    bool isHeld = false;
    std::function<void(const QStringList &)> held;
    QStringList asked;
    QStringList destinations;
    std::vector<std::jthread> threads;
};

struct Screen
{
    explicit Screen(const Archives &archives)
    {
        engine.inputFiles = static_cast<int>(archives.size());
        preview = std::make_unique<CVArchivePreviewController>(engine.services(), stage);
        preview->setupDisplayWithArchives(archives);
        stage.loadViewController(*preview, false);
        preview->listView()->setFocus();
        // Keys are only for the window that is in use.
        (void)QTest::qWaitForWindowActive(&stage.window);
    }
    ~Screen() { stage.clear(); }

    int row(const QString &name) const { return rowIn(preview->listModel(), name); }
    static int rowIn(const CVFileNodeModel &model, const QString &name)
    {
        for (int row = 0; row < model.rowCount(); ++row) {
            if (model.index(row, 0).data().toString() == name)
                return row;
        }
        return -1;
    }
    QStringList rows() const
    {
        QStringList names;
        for (int row = 0; row < preview->listModel().rowCount(); ++row)
            names.append(preview->listModel().index(row, 0).data().toString());
        return names;
    }
    CVFileNode::Pointer node(const QString &name) const { return preview->listModel().node(row(name)); }
    QString text(const QString &name) const { return preview->view()->findChild<QLabel *>(name)->text(); }
    QToolButton *button(const QString &name) const { return preview->view()->findChild<QToolButton *>(name); }
    static void doubleClick(QAbstractItemView *view, int row)
    {
        const QPoint place = view->visualRect(view->model()->index(row, 0)).center();
        QTest::mouseClick(view->viewport(), Qt::LeftButton, {}, place);
        QTest::mouseDClick(view->viewport(), Qt::LeftButton, {}, place);
    }

    ScreenStage stage;
    Engine engine;
    std::unique_ptr<CVArchivePreviewController> preview;
};

std::shared_ptr<CVArchive> listed(const QString &path)
{
    Delegate delegate;
    auto archive = CVArchive::archiveForPreviewing(path);
    archive->setDelegate(&delegate);
    archive->openForPreview(path);
    archive->setDelegate(nullptr);
    return archive;
}

} // namespace

class TestPreviewScreen : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_folder;
    QString m_zip;
    QString m_other;

    QString at(const QString &name) const { return m_folder.filePath(name); }

private Q_SLOTS:
    void initTestCase()
    {
        LXMainThread::install();
        qputenv("XDG_CONFIG_HOME", m_folder.path().toUtf8());
        CVSettings::setStore(std::make_shared<LXSettingsStore>(at(u"settings.ini"_s)));
        QDir(m_folder.path()).mkpath(u"in/docs/deep"_s);
        QVERIFY(writeTestFile(at(u"in/file10.txt"_s), "ten\n"));
        QVERIFY(writeTestFile(at(u"in/file2.txt"_s), "two \x1b[31m\nsecond line\n"));
        QVERIFY(writeTestFile(at(u"in/docs/note.txt"_s), "a note\n"));
        QVERIFY(writeTestFile(at(u"in/docs/deep/blob.bin"_s), noise(3000)));
        QVERIFY(writeTestFile(at(u"in/docs/long.txt"_s), QByteArray(3'000'000, 'x')));
        QImage picture(3000, 20, QImage::Format_RGB32);
        picture.fill(Qt::red);
        QVERIFY(picture.save(at(u"in/docs/picture.png"_s)));
        QVERIFY(writeTestFile(at(u"in/docs/broken.png"_s), "\x89PNG\r\n\x1a\n not one"));
        m_zip = at(u"one.zip"_s);
        m_other = at(u"two.7z"_s);
        QCOMPARE(runTool(u"7z"_s, {u"a"_s, m_zip, u"."_s}, at(u"in"_s)).status, 0);
        QCOMPARE(runTool(u"7z"_s, {u"a"_s, m_other, u"docs"_s}, at(u"in"_s)).status, 0);
    }

    void oneArchiveIsItsContents()
    {
        Screen screen({listed(m_zip)});
        QCOMPARE(screen.rows(), (QStringList{u"docs"_s, u"file2.txt"_s, u"file10.txt"_s}));
        QCOMPARE(screen.preview->singlePreviewedArchive(), m_zip);
        QCOMPARE(screen.preview->title(), u"one.zip"_s);
        QTRY_COMPARE(screen.text(u"status"_s), u"9 items"_s);
        QVERIFY(!screen.preview->listView()->selectionModel()->hasSelection());
        QCOMPARE(QApplication::focusWidget(), screen.preview->listView());
        QCOMPARE(screen.preview->desiredToolbarItems(),
                 (QStringList{u"extract"_s, u"convert"_s, u"split"_s, u"cancel"_s,
                              CVViewController::flexibleSpace}));
        QVERIFY(!screen.preview->action(u"archive"_s)->isEnabled());
        QTest::keyClick(screen.preview->listView(), Qt::Key_Return);
        QTest::keyClick(screen.preview->listView(), Qt::Key_S, Qt::ControlModifier);
        QCOMPARE(screen.engine.asked, (QStringList{u"extract"_s, u"split"_s}));
        QTest::keyClick(screen.preview->listView(), Qt::Key_C, Qt::ControlModifier);
        QTest::keyClick(screen.preview->listView(), Qt::Key_Escape);
        QCOMPARE(screen.stage.requests.mid(1), (QStringList{u"convert"_s, u"main"_s}));
    }

    void severalArchivesAreANodeEach()
    {
        Screen screen({listed(m_zip), listed(m_other)});
        QCOMPARE(screen.rows(), (QStringList{u"one.zip"_s, u"two.7z"_s}));
        QVERIFY(screen.preview->singlePreviewedArchive().isNull());
        QCOMPARE(screen.preview->title(), u"Preview: 2 files"_s);
        QVERIFY(screen.preview->desiredToolbarItems().contains(u"archive"_s));
        QVERIFY(!screen.preview->desiredToolbarItems().contains(u"convert"_s));
        CVFileListView *list = screen.preview->listView();
        list->setCurrentIndex(screen.preview->listModel().index(1, 0));
        QTest::keyClick(list, Qt::Key_Right);
        QTest::keyClick(list, Qt::Key_Right);
        QTest::keyClick(list, Qt::Key_Right);
        QVERIFY(screen.rows().contains(u"note.txt"_s));
        list->setCurrentIndex(screen.preview->listModel().index(screen.row(u"note.txt"_s), 0));
        QTest::keyClick(list, Qt::Key_Down, Qt::ControlModifier);
        QCOMPARE(screen.engine.asked.last(), u"open docs/note.txt of two.7z"_s);
        QTest::keyClick(list, Qt::Key_A, Qt::ControlModifier);
        QCOMPARE(list->selectionModel()->selectedRows().size(), screen.rows().size());
        QVERIFY(!screen.stage.requests.contains(u"create"_s));
        screen.preview->searchField()->setFocus();
        screen.preview->action(u"archive"_s)->trigger();
        QVERIFY(screen.stage.requests.contains(u"create"_s));
    }

    void archivesAreLeftAsTheyWere()
    {
        const auto one = listed(m_zip);
        const auto two = listed(m_other);
        {
            Screen screen({one, two});
            QVERIFY(!one->filePreviewsNode()->isRoot());
        }
        QVERIFY(one->filePreviewsNode()->isRoot());
        QVERIFY(one->filePreviewsNode()->filename().isEmpty());
    }

    void oneDragTakesFromOneArchive()
    {
        Screen screen({listed(m_zip), listed(m_other)});
        CVFileNodeModel &model = screen.preview->listModel();
        model.setExpanded(1, true);
        model.setExpanded(2, true);
        model.setExpanded(0, true);
        QTRY_VERIFY(!model.isBusy());
        const auto first = model.node(screen.row(u"file2.txt"_s));
        const auto docs = model.node(screen.row(u"note.txt"_s))->parent();
        const auto note = model.node(screen.row(u"note.txt"_s));
        auto dragged = screen.preview->entriesForDrag({docs, note, first});
        QCOMPARE(dragged.paths, QStringList{u"docs"_s});
        QCOMPARE(dragged.archivePath, m_other);
        // The folder once, whichever of the two comes first.
        QCOMPARE(screen.preview->entriesForDrag({note, docs}).paths, QStringList{u"docs"_s});
        dragged = screen.preview->entriesForDrag({first, docs});
        QCOMPARE(dragged.paths, QStringList{u"file2.txt"_s});
        QCOMPARE(dragged.archivePath, m_zip);
        // All of an archive stands for what is at its top.
        QCOMPARE(screen.preview->entriesForDrag({model.node(0)}).paths.size(), 3);
    }

    void draggedFilesAreThereWhenAskedFor()
    {
        Screen screen({listed(m_zip)});
        const auto services = screen.engine.services();
        QString folder;
        {
            auto extraction =
                CVPrivateExtraction::start(services, {u"file2.txt"_s}, m_zip, screen.preview.get());
            QTRY_COMPARE(screen.engine.destinations.size(), 1);
            folder = screen.engine.destinations.last();
            QVERIFY(CVWorkDirectoryManager::workDirs().contains(folder));
            QCOMPARE(QFileInfo(folder).permissions() & ~QFile::Permissions(0x7000),
                     QFile::Permissions(0x0700));
            CVEntryMimeData data(std::move(extraction), nullptr);
            // This waits for the extraction.
            const QList<QUrl> urls = data.urls();
            QCOMPARE(urls.size(), 1);
            QCOMPARE(testFileContents(urls.first().toLocalFile()), "two \x1b[31m\nsecond line\n"_ba);
            QCOMPARE(data.data(u"text/uri-list"_s).trimmed(), urls.first().toEncoded());
        }
        QTRY_VERIFY(!QFileInfo::exists(folder));
        QTRY_VERIFY(!CVWorkDirectoryManager::workDirs().contains(folder));
    }

    void aDragThatIsGivenUp()
    {
        Screen screen({listed(m_zip)});
        screen.engine.isHeld = true;
        const auto services = screen.engine.services();
        auto extraction = CVPrivateExtraction::start(services, {u"docs"_s}, m_zip, screen.preview.get());
        QTRY_VERIFY(screen.engine.held);
        QTimer::singleShot(50, extraction.get(), &CVPrivateExtraction::cancel);
        {
            const CVEntryMimeData data(extraction, nullptr);
            QVERIFY(data.urls().isEmpty());
        }
        QCOMPARE(screen.engine.asked.last(), u"stop"_s);
        // What comes too late changes nothing.
        screen.engine.held({u"/late"_s});
        QVERIFY(extraction->delivered().isEmpty());
        // Its job writes until it says that it does no more; a folder that went before would come back.
        extraction.reset();
        waitForBackground();
        QVERIFY(QFileInfo::exists(screen.engine.destinations.last()));
        screen.engine.held = {};
        QTRY_VERIFY(!QFileInfo::exists(screen.engine.destinations.last()));
    }

    void aDragThatIsOverBeforeItBegins()
    {
        Screen screen({listed(m_zip)});
        const auto services = screen.engine.services();
        const auto cancelled = CVPrivateExtraction::start(services, {u"docs"_s}, m_zip, screen.preview.get());
        cancelled->cancel();
        auto owner = std::make_unique<QObject>();
        const auto orphan = CVPrivateExtraction::start(services, {u"docs"_s}, m_zip, owner.get());
        owner.reset();
        QTRY_VERIFY(cancelled->isFinished() && orphan->isFinished());
        QVERIFY(screen.engine.asked.isEmpty());
    }

    void noFolderToExtractTo_data()
    {
        QTest::addColumn<QString>("temporary");
        QTest::addColumn<QString>("words");
        QTest::newRow("not allowed") << u"/sys"_s << u"you may not write to “/sys”"_s;
        QTest::newRow("no folder") << m_zip << u"no folder could be made"_s;
    }
    void noFolderToExtractTo()
    {
        QFETCH(QString, temporary);
        QFETCH(QString, words);
        Screen screen({listed(m_zip)});
        const auto services = screen.engine.services();
        const QByteArray before = qgetenv("TMPDIR");
        qputenv("TMPDIR", temporary.toUtf8());
        const auto extraction =
            CVPrivateExtraction::start(services, {u"docs"_s}, m_zip, screen.preview.get());
        const bool ended = QTest::qWaitFor([&] { return extraction->isFinished(); });
        before.isNull() ? qunsetenv("TMPDIR") : qputenv("TMPDIR", before);
        QVERIFY(ended);
        QVERIFY2(extraction->problem().contains(words), qPrintable(extraction->problem()));
        QVERIFY(screen.engine.asked.isEmpty());
    }

    void openingFromListAndGrid()
    {
        Screen screen({listed(m_zip)});
        Screen::doubleClick(screen.preview->listView(), screen.row(u"file2.txt"_s));
        QCOMPARE(screen.engine.asked, QStringList{u"open file2.txt of one.zip"_s});
        QTest::mouseClick(screen.button(u"gridButton"_s), Qt::LeftButton);
        QCOMPARE(screen.preview->fileViewControlValue(), 1);
        QVERIFY(screen.button(u"backButton"_s)->isVisible());
        QVERIFY(!screen.button(u"backButton"_s)->isEnabled());
        CVFileGridView *grid = screen.preview->gridView();
        Screen::doubleClick(grid, Screen::rowIn(screen.preview->gridModel(), u"docs"_s));
        QCOMPARE(screen.preview->currentViewingNode()->filename(), u"docs"_s);
        QCOMPARE(screen.engine.asked.size(), 1);
        Screen::doubleClick(grid, Screen::rowIn(screen.preview->gridModel(), u"deep"_s));
        QVERIFY(screen.button(u"backButton"_s)->isEnabled());
        QVERIFY(!screen.button(u"forwardButton"_s)->isEnabled());
        QTest::mouseClick(screen.button(u"backButton"_s), Qt::LeftButton);
        QTest::mouseClick(screen.button(u"backButton"_s), Qt::LeftButton);
        QVERIFY(!screen.button(u"backButton"_s)->isEnabled());
        QCOMPARE(screen.preview->forwardStack().size(), 2);
        QTest::mouseClick(screen.button(u"forwardButton"_s), Qt::LeftButton);
        QCOMPARE(screen.preview->currentViewingNode()->filename(), u"docs"_s);
        // Another way in leaves nothing to go forward to.
        Screen::doubleClick(grid, Screen::rowIn(screen.preview->gridModel(), u"deep"_s));
        QVERIFY(!screen.button(u"forwardButton"_s)->isEnabled());
        Screen::doubleClick(grid, 0);
        QCOMPARE(screen.engine.asked.last(), u"open docs/deep/blob.bin of one.zip"_s);
        QTest::mouseClick(screen.button(u"listButton"_s), Qt::LeftButton);
        QVERIFY(!screen.button(u"backButton"_s)->isVisible());
    }

    void searching()
    {
        Screen screen({listed(m_zip)});
        QTest::keyClick(screen.preview->listView(), Qt::Key_F, Qt::ControlModifier);
        QTest::keyClicks(screen.preview->searchField(), u"NOTE"_s);
        QTRY_COMPARE(screen.rows(), QStringList{u"note.txt"_s});
        QCOMPARE(screen.text(u"status"_s), u"1 found"_s);
        // Return goes to the files, it does not extract.
        QTest::keyClick(screen.preview->searchField(), Qt::Key_Return);
        QCOMPARE(QApplication::focusWidget(), screen.preview->listView());
        QVERIFY(screen.engine.asked.isEmpty());
        screen.preview->searchField()->setFocus();
        QTest::keyClicks(screen.preview->searchField(), u"<b>"_s);
        QTRY_COMPARE(screen.text(u"message"_s), u"Nothing found for “NOTE<b>”."_s);
        QTest::keyClick(screen.preview->searchField(), Qt::Key_Escape);
        QTRY_COMPARE(screen.rows().size(), 3);
        QVERIFY(!screen.stage.requests.contains(u"main"_s));
    }

    void lookingAtEntries_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("shows");
        QTest::newRow("text, steering marked") << u"file2.txt"_s << u"two \ufffd[31m\nsecond line\n"_s;
        QTest::newRow("picture") << u"picture.png"_s << u"PNG image, 3000 × 20"_s;
        QTest::newRow("damaged picture") << u"broken.png"_s << QString();
        QTest::newRow("folder") << u"deep"_s << u"A folder with 1 item."_s;
        QTest::newRow("neither") << u"blob.bin"_s << u"There is no preview for this kind of file."_s;
    }
    void lookingAtEntries()
    {
        QFETCH(QString, name);
        QFETCH(QString, shows);
        Screen screen({listed(m_zip)});
        CVFileNodeModel &model = screen.preview->listModel();
        model.setExpanded(0, true);
        model.setExpanded(screen.row(u"deep"_s), true);
        QTRY_VERIFY(screen.row(name) >= 0);
        CVFileListView *list = screen.preview->listView();
        list->setCurrentIndex(model.index(screen.row(name), 0));
        QTest::keyClick(list, Qt::Key_Space);
        CVQuickLookPanel *panel = screen.preview->quickLookPanel();
        QVERIFY(panel);
        QTRY_VERIFY(panel->isSettled());
        QStringList shown{panel->findChild<QPlainTextEdit *>()->toPlainText()};
        for (const QLabel *label : panel->findChildren<QLabel *>())
            shown.append(label->text());
        if (shows.contains(u'×'))
            QVERIFY(std::ranges::any_of(shown,
                                        [&](const QString &text) { return text.endsWith(u"3000 × 20"_s); }));
        else if (!shows.isEmpty())
            QVERIFY2(shown.contains(shows), qPrintable(shown.join(u'|')));
        QTest::keyClick(panel, Qt::Key_Space);
        QTRY_VERIFY(!screen.preview->quickLookPanel());
        for (const QString &folder : std::as_const(screen.engine.destinations))
            QTRY_VERIFY(!QFileInfo::exists(folder));
        QVERIFY(screen.engine.asked.filter(u"open"_s).isEmpty());
    }

    void lookingAtTheNextOne()
    {
        Screen screen({listed(m_zip)});
        screen.preview->listModel().setExpanded(0, true);
        QTRY_VERIFY(screen.row(u"long.txt"_s) >= 0);
        CVFileListView *list = screen.preview->listView();
        list->setCurrentIndex(screen.preview->listModel().index(screen.row(u"long.txt"_s), 0));
        QTest::keyClick(list, Qt::Key_Space);
        CVQuickLookPanel *panel = screen.preview->quickLookPanel();
        QTRY_VERIFY(panel->isSettled());
        const QString text = panel->findChild<QPlainTextEdit *>()->toPlainText();
        QVERIFY(text.size() > 100'000 && text.size() < 600'000);
        const QStringList lines = text.split(u'\n');
        QVERIFY(std::ranges::all_of(lines, [](const QString &line) { return line.size() <= 400; }));
        QTest::keyClick(panel, Qt::Key_Down);
        QTRY_VERIFY(panel->isSettled());
        QCOMPARE(panel->windowTitle(), u"note.txt"_s);
        QCOMPARE(panel->findChild<QPlainTextEdit *>()->toPlainText(), u"a note\n"_s);
        QTest::keyClick(panel, Qt::Key_Escape);
        QTRY_VERIFY(!screen.preview->quickLookPanel());
        QVERIFY(!screen.stage.requests.contains(u"main"_s));
    }

    void emptyAndEncrypted()
    {
        QVERIFY(writeTestFile(at(u"empty.zip"_s), "PK\x05\x06"_ba + QByteArray(18, 0)));
        Screen empty({listed(at(u"empty.zip"_s))});
        QCOMPARE(empty.text(u"message"_s), u"This archive is empty."_s);
        const QString secret = at(u"secret.zip"_s);
        QCOMPARE(runTool(u"7z"_s, {u"a"_s, u"-psecret"_s, secret, u"file2.txt"_s}, at(u"in"_s)).status, 0);
        Screen encrypted({listed(secret)});
        QCOMPARE(encrypted.rows(), QStringList{u"file2.txt"_s});
        QCOMPARE(encrypted.text(u"notice"_s), u"This archive is encrypted."_s);
        Screen several({listed(secret), listed(m_zip)});
        const auto &model = several.preview->listModel();
        QVERIFY(model.index(several.row(u"secret.zip"_s), 0).data(CVFileNodeModel::IsEncryptedRole).toBool());
        QVERIFY(!model.index(several.row(u"one.zip"_s), 0).data(CVFileNodeModel::IsEncryptedRole).toBool());
    }

    void theSizeIsKept()
    {
        {
            Screen screen({listed(m_zip)});
            const QSize before = screen.preview->size();
            screen.stage.window.resize(before.width() + 200, before.height() + 150);
            QCoreApplication::processEvents();
        }
        QVERIFY(CVSettings::integer(CVSettingsKey::multipleViewWidth) >= 600);
        Screen screen({listed(m_zip)});
        QCOMPARE(screen.preview->size().width(), CVSettings::integer(CVSettingsKey::multipleViewWidth));
    }
};

QTEST_MAIN(TestPreviewScreen)
#include "tst_preview_screen.moc"
