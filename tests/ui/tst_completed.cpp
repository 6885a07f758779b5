#include "engine/model/CVSettings.h"
#include "platform/LXFileUri.h"
#include "platform/LXFileViewer.h"
#include "platform/LXSystemSound.h"
#include "ui/base/CVElidedLabel.h"
#include "ui/base/CVFileWell.h"
#include "ui/base/CVTheme.h"
#include "ui/completed/CVOperationCompletedViewController.h"
#include "ui/support/ScreenTest.h"
#include "util/LXFileName.h"

#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QLabel>
#include <QTemporaryDir>
#include <QTest>
#include <QToolButton>
#include <QTreeView>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

struct Viewer final : LXFileViewer
{
    void reveal(const QStringList &paths) override { revealed += paths; }
    QStringList revealed;
};

struct Sound final : LXSystemSound
{
    void play(const QString &name) override { played.append(name); }
    QStringList played;
};

void write(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(bytes);
}

QByteArray read(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("cannot be read");
}

QString allText(const QWidget *view)
{
    QString text;
    for (const QLabel *label : view->findChildren<QLabel *>()) {
        if (label->isVisibleTo(view))
            text += label->text() + u'\n';
    }
    for (const CVElidedLabel *label : view->findChildren<CVElidedLabel *>())
        text += label->text() + u'\n';
    return text;
}

CVSkippedInArchive skipped(const QString &archive, int count)
{
    CVSkippedInArchive result{.archivePath = archive, .entries = {}};
    for (int i = 0; i < count; ++i)
        result.entries.push_back({.name = u"../<b>%1\n"_s.arg(i), .reason = u"It leads outside."_s});
    return result;
}

} // namespace

class tst_completed : public ScreenTest
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void showsTheResult();
    void nameThatIsNotText();
    void sizeOfAFolder();
    void soundFollowsTheSetting_data();
    void soundFollowsTheSetting();
    void keys_data();
    void keys();
    void exportMoves_data();
    void exportMoves();
    void exportReplacesNothing_data();
    void exportReplacesNothing();
    void exportToAnotherDisk();
    void panelThatOutlivesTheScreen();
    void panelIsLabelled();
    void skippedEntriesInWords_data();
    void skippedEntriesInWords();

private:
    QString path(const QString &name) const { return m_dir->filePath(name); }
    void chooseAlways(const QString &folder)
    {
        m_screen->setFolderChooser([folder](QWidget *, const auto &chosen) { chosen(folder); });
    }

    std::unique_ptr<CVOperationCompletedViewController> m_screen;
    std::shared_ptr<Viewer> m_viewer;
    std::shared_ptr<Sound> m_sound;
};

void tst_completed::init()
{
    ScreenTest::init();
    LXFileViewer::setShared(m_viewer = std::make_shared<Viewer>());
    LXSystemSound::setShared(m_sound = std::make_shared<Sound>());
    m_screen = std::make_unique<CVOperationCompletedViewController>(*m_stage);
    QVERIFY(QDir(m_dir->path()).mkpath(u"to"_s));
    write(path(u"result.zip"_s), QByteArray(1500, 'r'));
}

void tst_completed::cleanup()
{
    m_screen.reset();
    ScreenTest::cleanup();
    LXFileViewer::setShared(nullptr);
    LXSystemSound::setShared(nullptr);
}

void tst_completed::showsTheResult()
{
    m_screen->showDoneViewWithFile(path(u"result.zip"_s));
    QCOMPARE(m_stage->current.get(), m_screen.get());
    QTRY_COMPARE(allText(m_screen->view()), u"1.5 KB\nresult.zip\n"_s);
    QVERIFY(!m_screen->canBeReturnedTo());
    const auto *well = m_screen->view()->findChild<CVFileWell *>();
    QCOMPARE(well->paths(), QStringList(path(u"result.zip"_s)));
    QVERIFY(!well->acceptDrops());
    for (const QString &identifier : {u"done"_s, u"export"_s, u"showInFinder"_s, u"back"_s})
        QVERIFY(m_stage->toolbar->item(identifier)->isEnabled());
}

void tst_completed::nameThatIsNotText()
{
    const QByteArray bytes = QFile::encodeName(m_dir->path()) + "/<i>\xff\n.zip";
    write(path(u"x"_s), "x");
    QCOMPARE(::rename(qPrintable(path(u"x"_s)), bytes.constData()), 0);
    m_screen->showDoneViewWithFile(fileNameFromBytes(bytes));
    QTRY_VERIFY(allText(m_screen->view()).contains(u"1 byte"_s));
    QVERIFY(allText(m_screen->view()).contains(u"<i>\\u{dcff}\\n.zip"_s));
    chooseAlways(path(u"to"_s));
    m_stage->toolbar->item(u"export"_s)->trigger();
    QTRY_COMPARE(m_stage->requests.last(), u"main"_s);
    const QByteArray moved = QFile::encodeName(path(u"to"_s)) + "/<i>\xff\n.zip";
    QCOMPARE(::access(moved.constData(), F_OK), 0);
    QCOMPARE(::unlink(moved.constData()), 0); // QTemporaryDir could not
}

void tst_completed::sizeOfAFolder()
{
    QVERIFY(QDir(m_dir->path()).mkpath(u"result/sub"_s));
    write(path(u"result/a"_s), QByteArray(1000, 'a'));
    write(path(u"result/sub/b"_s), QByteArray(1000, 'b'));
    m_screen->showDoneViewWithFile(path(u"result"_s));
    QTRY_VERIFY(allText(m_screen->view()).contains(u"2.0 KB"_s));
    // What is gone has no size, and the facts of the one before are not shown for it.
    m_screen->showDoneViewWithFile(path(u"gone"_s));
    QTest::qWait(50);
    QCOMPARE(allText(m_screen->view()), u"\ngone\n"_s);
}

void tst_completed::soundFollowsTheSetting_data()
{
    QTest::addColumn<bool>("wanted");
    QTest::newRow("on") << true;
    QTest::newRow("off") << false;
}

void tst_completed::soundFollowsTheSetting()
{
    QFETCH(bool, wanted);
    CVSettings::setValue(CVSettingsKey::sound, wanted);
    m_screen->showDoneViewWithFile(path(u"result.zip"_s));
    QCOMPARE(m_sound->played, wanted ? QStringList(u"Hero"_s) : QStringList());
}

void tst_completed::keys_data()
{
    QTest::addColumn<int>("key");
    QTest::addColumn<bool>("skipsPreview");
    QTest::addColumn<QString>("request");
    QTest::newRow("Return") << int(Qt::Key_Return) << false << u"main"_s;
    QTest::newRow("Enter") << int(Qt::Key_Enter) << false << u"main"_s;
    QTest::newRow("back") << (Qt::CTRL | Qt::Key_B).toCombined() << false << u"back"_s;
    QTest::newRow("back without preview") << (Qt::CTRL | Qt::Key_B).toCombined() << true << u"main"_s;
    QTest::newRow("file manager") << (Qt::CTRL | Qt::Key_F).toCombined() << false << u"load"_s;
}

void tst_completed::keys()
{
    QFETCH(int, key);
    QFETCH(bool, skipsPreview);
    CVSettings::setValue(CVSettingsKey::skipArchivePreview, skipsPreview);
    m_screen->showDoneViewWithFile(path(u"result.zip"_s));
    const auto combined = QKeyCombination::fromCombined(key);
    QTest::keyClick(&m_stage->window, combined.key(), combined.keyboardModifiers());
    QTEST(m_stage->requests.last(), "request");
    QCOMPARE(m_viewer->revealed.size(), combined.key() == Qt::Key_F ? 1 : 0);
}

void tst_completed::exportMoves_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("file") << u"result.zip"_s;
    QTest::newRow("folder") << u"folder"_s;
    QTest::newRow("folder that forbids writing") << u"closed"_s;
}

void tst_completed::exportMoves()
{
    QFETCH(QString, name);
    for (const QString &folder : {u"folder"_s, u"closed"_s}) {
        QVERIFY(QDir(m_dir->path()).mkpath(folder));
        write(path(folder + u"/f"_s), "f");
    }
    QCOMPARE(::chmod(qPrintable(path(u"closed"_s)), 0555), 0);
    m_screen->showDoneViewWithFile(path(name));
    chooseAlways(path(u"to"_s));
    QTest::keyClick(&m_stage->window, Qt::Key_E, Qt::ControlModifier);
    QTRY_COMPARE(m_stage->requests, (QStringList{u"load"_s, u"main"_s}));
    QVERIFY(!QFile::exists(path(name)));
    QVERIFY(QFile::exists(path(u"to/"_s + name)));
    ::chmod(qPrintable(path(u"to/closed"_s)), 0755);
}

void tst_completed::exportReplacesNothing_data()
{
    QTest::addColumn<QString>("folder");
    QTest::addColumn<QString>("words");
    QTest::newRow("taken name") << u"to"_s << u"has something of that name already, which was kept"_s;
    QTest::newRow("where it is") << u"."_s << u"already"_s;
    QTest::newRow("no folder") << u"nowhere"_s << u"not there"_s;
}

void tst_completed::exportReplacesNothing()
{
    QFETCH(QString, folder);
    QFETCH(QString, words);
    write(path(u"to/result.zip"_s), "older");
    m_screen->showDoneViewWithFile(path(u"result.zip"_s));
    chooseAlways(folder == u"." ? m_dir->path() : path(folder));
    m_stage->toolbar->item(u"export"_s)->trigger();
    QTRY_VERIFY2(allText(m_screen->view()).contains(words), qPrintable(allText(m_screen->view())));
    QCOMPARE(m_stage->requests, QStringList(u"load"_s)); // stays
    QCOMPARE(read(path(u"result.zip"_s)).size(), 1500);
    QCOMPARE(read(path(u"to/result.zip"_s)), QByteArray("older"));
    QVERIFY(m_screen->action(u"done"_s)->isEnabled());
}

void tst_completed::exportToAnotherDisk()
{
    QTemporaryDir other(u"/dev/shm/corvane-test-XXXXXX"_s);
    struct stat here;
    struct stat there;
    if (!other.isValid() || ::stat(qPrintable(m_dir->path()), &here) != 0 ||
        ::stat(qPrintable(other.path()), &there) != 0 || here.st_dev == there.st_dev)
        QSKIP("needs a second file system");
    const QByteArray bytes(40 << 20, 'x');
    write(path(u"large"_s), bytes);
    m_screen->showDoneViewWithFile(path(u"large"_s));
    chooseAlways(other.path());
    // Stopped on the way, everything is as it was.
    m_stage->toolbar->item(u"export"_s)->trigger();
    QVERIFY(!m_screen->action(u"done"_s)->isEnabled());
    QTest::keyClick(&m_stage->window, Qt::Key_Escape);
    QTRY_VERIFY(m_screen->action(u"done"_s)->isEnabled() || m_stage->requests.last() == u"main");
    if (m_stage->requests.last() == u"main") {
        QCOMPARE(read(other.filePath(u"large"_s)), bytes); // was faster than the key
        return;
    }
    QCOMPARE(QDir(other.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList());
    QCOMPARE(read(path(u"large"_s)), bytes);
    m_stage->toolbar->item(u"export"_s)->trigger();
    QTRY_COMPARE(m_stage->requests.last(), u"main"_s);
    QCOMPARE(read(other.filePath(u"large"_s)), bytes);
    QVERIFY(!QFile::exists(path(u"large"_s)));
}

void tst_completed::panelThatOutlivesTheScreen()
{
    std::function<void(std::optional<QString>)> choose;
    m_screen->setFolderChooser([&](QWidget *, auto chosen) { choose = std::move(chosen); });
    m_screen->showDoneViewWithFile(path(u"result.zip"_s));
    m_stage->toolbar->item(u"export"_s)->trigger();
    m_stage->leave(u"back"_s);
    choose(path(u"to"_s));
    QTest::qWait(50);
    QVERIFY(QFile::exists(path(u"result.zip"_s)));
    m_screen.reset();
    choose(path(u"to"_s));
}

void tst_completed::panelIsLabelled()
{
    m_screen->showDoneViewWithFile(path(u"result.zip"_s));
    QTest::keyClick(&m_stage->window, Qt::Key_E, Qt::ControlModifier);
    QTRY_VERIFY(m_stage->window.findChild<QFileDialog *>());
    auto *panel = m_stage->window.findChild<QFileDialog *>();
    QCOMPARE(panel->windowTitle(), u"Choose destination"_s);
    QCOMPARE(panel->labelText(QFileDialog::Accept), u"Open"_s);
    QCOMPARE(panel->fileMode(), QFileDialog::Directory);
    QTest::keyClick(panel, Qt::Key_Escape);
    QTRY_VERIFY(!m_stage->window.findChild<QFileDialog *>());
    QVERIFY(QFile::exists(path(u"result.zip"_s)));
}

void tst_completed::skippedEntriesInWords_data()
{
    QTest::addColumn<int>("inFirst");
    QTest::addColumn<int>("inSecond");
    QTest::addColumn<QString>("words");
    QTest::newRow("none") << 0 << 0 << QString();
    QTest::newRow("one") << 1 << 0 << u"One entry of “a.zip” was left out."_s;
    QTest::newRow("several") << 3 << 0 << u"3 entries of “a.zip” were left out."_s;
    QTest::newRow("several archives") << 3 << 2 << u"5 entries of 2 archives were left out."_s;
    QTest::newRow("very many") << 200'000 << 0 << u"200000 entries of “a.zip” were left out."_s;
}

void tst_completed::skippedEntriesInWords()
{
    QFETCH(int, inFirst);
    QFETCH(int, inSecond);
    QFETCH(QString, words);
    std::vector<CVSkippedInArchive> all;
    if (inFirst)
        all.push_back(skipped(u"/x/a.zip"_s, inFirst));
    if (inSecond)
        all.push_back(skipped(u"/x/b.zip"_s, inSecond));
    m_screen->showDoneViewWithFile(path(u"result.zip"_s), all);
    QCOMPARE(allText(m_screen->view()).contains(u"left out"_s), !words.isEmpty());
    QVERIFY(allText(m_screen->view()).contains(words));
    auto *list = m_screen->view()->findChild<QTreeView *>();
    QVERIFY(!list->isVisible());
    if (words.isEmpty())
        return;
    const int before = m_screen->size().height();
    QTest::mouseClick(m_screen->view()->findChild<QToolButton *>(), Qt::LeftButton);
    QVERIFY(list->isVisible());
    QVERIFY(m_screen->size().height() > before);
    QVERIFY(list->model()->rowCount() <= 1000); // the rest as one gets there
    QCOMPARE(list->model()->index(0, 0).data().toString(), u"../<b>0\\n"_s);
    QVERIFY(!list->model()->index(0, 0).data(Qt::ToolTipRole).toString().contains(u"<b>"_s));
    const int last = inFirst + inSecond - 1;
    while (list->model()->canFetchMore({}) && list->model()->rowCount() < 2000)
        list->model()->fetchMore({});
    if (last < 1000)
        QCOMPARE(list->model()->index(last, 2).data().toString(), inSecond ? u"b.zip"_s : u"a.zip"_s);
}

QTEST_MAIN(tst_completed)
#include "tst_completed.moc"
