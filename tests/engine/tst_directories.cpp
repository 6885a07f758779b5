#include "engine/model/CVDestinationChooser.h"
#include "engine/model/CVOpenedEntries.h"
#include "engine/model/CVOperationDelegate.h"
#include "engine/model/CVOperationHelper.h"
#include "engine/model/CVSettings.h"
#include "engine/model/CVTempDir.h"
#include "engine/model/CVWorkDirectoryCleanOperation.h"
#include "engine/model/CVWorkDirectoryManager.h"
#include "sandbox/CVFileAuthenticator.h"
#include "util/LXMainThread.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <csignal>
#include <thread>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

class Chooser : public CVDestinationChooser
{
public:
    void chooseDestination(const QString &, const QString &,
                           std::function<void(std::optional<QString>)> done) override
    {
        ++asked;
        if (answers)
            done(answer);
    }

    std::atomic<int> asked = 0;
    std::optional<QString> answer;
    bool answers = true;
};

class CleanDelegate : public CVOperationDelegate
{
public:
    void operationCompleted(CVOperation *) override { ++ends; }
    void operationCancelledShowingNotification(CVOperation *, bool) override { ++ends; }
    void operationNeedsToShowError(CVOperation *, const LXError &error) override
    {
        errors.append(error.reason);
    }

    int ends = 0;
    QStringList errors;
};

bool writeFile(const QString &path)
{
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly) && file.write("x") == 1;
}

// The folders that nobody, not even root, can write to.
const QString unwritable = u"/proc/1"_s;

} // namespace

class TestDirectories : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void destinations_data();
    void destinations();
    void asksAgainWhenTheFolderCannotBeUsed_data();
    void asksAgainWhenTheFolderCannotBeUsed();
    void cancelEndsTheQuestion();
    void errorTexts_data();
    void errorTexts();
    void overwriteErrors();
    void tempDir();
    void listOfWorkDirectories();
    void processesKeepOneList();
    void killedBeforeItIsMade_data();
    void killedBeforeItIsMade();
    void whatCannotBeMadeIsNotListed_data();
    void whatCannotBeMadeIsNotListed();
    void cleaningRacesWithMaking();
    void whatCountsAsOurs_data();
    void whatCountsAsOurs();
    void cleanRemovesOnlyWhatIsOurs();
    void cleanLeavesWhatIsInUse();
    void closedUntilDelivered();
    void openedEntries_data();
    void openedEntries();

private:
    QString at(const QString &name) const { return m_dir->filePath(name); }
    /// Runs f on a worker while the main thread answers.
    template <typename F> auto onWorker(F f)
    {
        std::optional<decltype(f())> result;
        std::atomic<bool> done = false;
        std::jthread worker([&] {
            result.emplace(f());
            done = true;
        });
        while (!done)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        worker.join();
        return std::move(*result);
    }

    std::unique_ptr<QTemporaryDir> m_dir;
    std::shared_ptr<Chooser> m_chooser;
};

void TestDirectories::initTestCase()
{
    LXMainThread::install();
}

void TestDirectories::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    const auto store = std::make_shared<LXSettingsStore>(at(u"corvane.conf"_s));
    CVSettings::setStore(store);
    CVFileAuthenticator::setServices({.store = store});
    m_chooser = std::make_shared<Chooser>();
    CVOperationHelper::setDestinationChooser(m_chooser);
}

void TestDirectories::cleanup()
{
    CVSettings::setStore(nullptr);
    CVFileAuthenticator::setServices({});
    CVOperationHelper::setDestinationChooser(nullptr);
}

void TestDirectories::destinations_data()
{
    QTest::addColumn<int>("setting");
    QTest::addColumn<QString>("expected");
    QTest::newRow("beside the archive") << 0 << u"in"_s;
    QTest::newRow("asked for") << 1 << u"chosen"_s;
    QTest::newRow("fixed, its links resolved") << 2 << u"fixed"_s;
    QTest::newRow("fixed and not there yet") << 3 << u"later/folder"_s;
    QTest::newRow("no such option, so the default") << 7 << u"in"_s;
}

void TestDirectories::destinations()
{
    QFETCH(int, setting);
    QFETCH(QString, expected);
    QVERIFY(QDir().mkpath(at(u"fixed"_s)));
    QVERIFY(QFile::link(at(u"fixed"_s), at(u"link"_s)));
    m_chooser->answer = at(u"chosen"_s);
    CVSettings::setValue(CVSettingsKey::extractDestination, setting == 3 ? 2 : setting);
    CVSettings::setValue(CVSettingsKey::extractDefaultDestination, at(setting == 3 ? expected : u"link"_s));

    const auto made = onWorker([&] {
        return CVOperationHelper::setupOutputDirectoryForOperation(
            {.operation = u"Extract"_s, .inputFile = at(u"in/x.zip"_s)});
    });
    QVERIFY(made);
    QCOMPARE(made.value().has_value(), !expected.isNull());
    QCOMPARE(m_chooser->asked, setting == 1 ? 1 : 0);
    if (expected.isNull())
        return;
    QCOMPARE(made.value()->outputDirectory, at(expected));
    const QFileInfo work(made.value()->workDirectory);
    QVERIFY(work.isDir() && work.fileName().startsWith(u".corvane-"_s));
    QCOMPARE(work.path(), at(expected));
}

void TestDirectories::asksAgainWhenTheFolderCannotBeUsed_data()
{
    QTest::addColumn<int>("setting");
    QTest::addColumn<QString>("answer");
    QTest::addColumn<bool>("chooser");
    QTest::addColumn<int>("asked");
    QTest::addColumn<bool>("fails");
    QTest::newRow("another folder") << 0 << u"chosen"_s << true << 1 << false;
    QTest::newRow("cancelled") << 0 << QString() << true << 1 << false;
    QTest::newRow("as bad as the first") << 0 << unwritable << true << 1 << true;
    QTest::newRow("nobody to ask") << 0 << QString() << false << 0 << true;
    QTest::newRow("no second question") << 1 << unwritable << true << 1 << true;
}

void TestDirectories::asksAgainWhenTheFolderCannotBeUsed()
{
    QFETCH(int, setting);
    QFETCH(QString, answer);
    QFETCH(bool, chooser);
    QFETCH(bool, fails);
    CVSettings::setValue(CVSettingsKey::extractDestination, setting);
    if (!answer.isNull())
        m_chooser->answer = answer.startsWith(u'/') ? answer : at(answer);
    if (!chooser)
        CVOperationHelper::setDestinationChooser(nullptr);
    const auto made = onWorker([&] {
        return CVOperationHelper::setupOutputDirectoryForOperation(
            {.operation = u"Extract"_s, .inputFile = unwritable + u"/x.zip"_s});
    });
    QTEST(m_chooser->asked.load(), "asked");
    QCOMPARE(!made, fails);
    if (made)
        QCOMPARE(made.value().has_value(), !answer.isNull());
    else
        QVERIFY(made.error().description.contains(u"x.zip"_s) && !made.error().reason.isEmpty());
}

void TestDirectories::cancelEndsTheQuestion()
{
    m_chooser->answers = false;
    std::stop_source stop;
    std::jthread canceller([&] {
        while (m_chooser->asked == 0)
            std::this_thread::yield();
        stop.request_stop();
    });
    const auto chosen = onWorker(
        [&] { return CVOperationHelper::defaultHelper(stop.get_token()).promptForDestinationPath(); });
    QVERIFY(!chosen);
}

void TestDirectories::errorTexts_data()
{
    QTest::addColumn<int>("systemError");
    QTest::addColumn<QString>("word");
    QTest::newRow("read-only") << EROFS << u"is read-only"_s;
    QTest::newRow("full") << ENOSPC << u"is full"_s;
    QTest::newRow("quota") << EDQUOT << u"is full"_s;
    QTest::newRow("permission") << EACCES << u"permissions"_s;
    QTest::newRow("owner only") << EPERM << u"permissions"_s;
    QTest::newRow("other") << EIO << u"unknown error"_s;
}

void TestDirectories::errorTexts()
{
    QFETCH(int, systemError);
    QFETCH(QString, word);
    // A name that looks like a place to fill in must not be filled in.
    const LXError error =
        CVOperationHelper::errorForSystemError(systemError, u"/a/%2\x1b.zip"_s, u"/b/Disk"_s);
    QVERIFY2(error.description.contains(word), qPrintable(error.description));
    QVERIFY2(error.description.contains(u"“%2\\x1b.zip”"_s), qPrintable(error.description));
    QVERIFY(error.description.contains(u"“Disk”"_s));
    QCOMPARE(error.code, 1);
}

void TestDirectories::overwriteErrors()
{
    QVERIFY(writeFile(at(u"d/f"_s)));
    QVERIFY(CVOperationHelper::removeItemAtPathForOverwrite(at(u"d"_s)));
    QVERIFY(!QFile::exists(at(u"d"_s)));
    const auto refused = CVOperationHelper::removeItemAtPathForOverwrite(u"/proc/self/stat"_s);
    QVERIFY(!refused);
    QCOMPARE(refused.error().domain, u"RSErrorDomain"_s);
    QCOMPARE(refused.error().code, CVFileError::noPermission);
    const auto gone = CVOperationHelper::removeItemAtPathForOverwrite(at(u"gone"_s));
    QCOMPARE(gone.error().code, CVFileError::noSuchFile);
    QVERIFY(gone.error().suggestion != refused.error().suggestion);
}

void TestDirectories::tempDir()
{
    QString path;
    {
        CVTempDir dir(CVTempDir::convertPrefix());
        path = dir.path();
        QVERIFY(QFileInfo(path).fileName().startsWith(u"DCArchive-Convert."_s));
        QCOMPARE(QFileInfo(path).permissions() & (QFile::ReadGroup | QFile::ReadOther), QFile::Permissions());
        QVERIFY(writeFile(path + u"/a/b"_s));
    }
    QVERIFY(!QFile::exists(path));
}

void TestDirectories::listOfWorkDirectories()
{
    (void)CVWorkDirectoryManager::registerWorkDir(u"/a/.corvane-1"_s);
    (void)CVWorkDirectoryManager::registerWorkDir(u"/a/.corvane-2"_s);
    (void)CVWorkDirectoryManager::registerWorkDir(u"/a/.corvane-1"_s);
    CVWorkDirectoryManager::removeWorkDir(u"/a/.corvane-1"_s);
    CVWorkDirectoryManager::removeWorkDir(u"/a/.corvane-3"_s);
    const QStringList left{u"/a/.corvane-1"_s, u"/a/.corvane-2"_s};
    QCOMPARE(CVWorkDirectoryManager::workDirs(), left);
    // On disk at once, for the next start after a crash.
    QCOMPARE(LXSettingsStore(at(u"corvane.conf"_s)).stringList(CVSettingsKey::tempDirs), left);
}

void TestDirectories::processesKeepOneList()
{
    const pid_t child = ::fork();
    for (int i = 0; i < 50; ++i) {
        const QString path = u"/a/.corvane-%1-%2"_s.arg(child == 0).arg(i);
        (void)CVWorkDirectoryManager::registerWorkDir(path);
        if (i % 2 == 0)
            CVWorkDirectoryManager::removeWorkDir(path);
    }
    if (child == 0)
        ::_exit(0);
    int status = -1;
    QCOMPARE(::waitpid(child, &status, 0), child);
    QCOMPARE(status, 0);
    QCOMPARE(CVWorkDirectoryManager::workDirs().size(), 50);
}

void TestDirectories::killedBeforeItIsMade_data()
{
    QTest::addColumn<bool>("temporary");
    QTest::newRow("work directory") << false;
    QTest::newRow("temporary directory") << true;
}

void TestDirectories::killedBeforeItIsMade()
{
    QFETCH(bool, temporary);
    const pid_t child = ::fork();
    if (child == 0) {
        CVSettings::store()->observe(CVSettingsKey::tempDirs, [](const QString &) { ::raise(SIGKILL); });
        if (temporary)
            CVTempDir dir(CVTempDir::convertPrefix());
        else if (CVOperationHelper::createWorkDirectoryInPath(at(u"in"_s)))
            ::_exit(1);
        ::_exit(0);
    }
    int status = -1;
    QCOMPARE(::waitpid(child, &status, 0), child);
    QVERIFY(WIFSIGNALED(status));
    // On the list, and not there: the cleaning forgets it without a word.
    const QStringList listed = CVWorkDirectoryManager::workDirs();
    QCOMPARE(listed.size(), 1);
    QVERIFY(CVWorkDirectoryManager::isWorkDirectoryPath(listed.first()) && !QFile::exists(listed.first()));
    const auto delegate = std::make_shared<CleanDelegate>();
    const auto clean = std::make_shared<CVWorkDirectoryCleanOperation>();
    clean->setDelegate(delegate);
    clean->run();
    QVERIFY(delegate->errors.isEmpty() && CVWorkDirectoryManager::workDirs().isEmpty());
}

void TestDirectories::whatCannotBeMadeIsNotListed_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("nobody may write there") << unwritable + u"/.corvane-1"_s;
    QTest::newRow("it is there already") << u"there/.corvane-1"_s;
    QTest::newRow("below a file") << u"there/file/.corvane-1"_s;
}

void TestDirectories::whatCannotBeMadeIsNotListed()
{
    QFETCH(QString, path);
    QVERIFY(QDir().mkpath(at(u"there/.corvane-1"_s)) && writeFile(at(u"there/file"_s)));
    QVERIFY(!CVWorkDirectoryManager::makeWorkDir(path.startsWith(u'/') ? path : at(path)));
    QVERIFY(CVWorkDirectoryManager::workDirs().isEmpty());
}

void TestDirectories::cleaningRacesWithMaking()
{
    std::atomic<bool> done = false;
    std::jthread cleaner([&] {
        while (!done) {
            const auto clean = std::make_shared<CVWorkDirectoryCleanOperation>();
            clean->setDelegate(std::make_shared<CleanDelegate>());
            clean->run();
        }
    });
    QStringList made;
    for (int i = 0; i < 200; ++i) {
        const QString path = at(u".corvane-%1"_s.arg(i));
        if (CVWorkDirectoryManager::makeWorkDir(path) && writeFile(path + u"/f"_s))
            made.append(path);
    }
    done = true;
    cleaner.join();
    QCOMPARE(made.size(), 200);
    QStringList left = CVWorkDirectoryManager::workDirs();
    for (const QString &path : made) {
        QVERIFY2(left.removeOne(path) && QFile::exists(path + u"/f"_s), qPrintable(path));
        CVWorkDirectoryManager::discardWorkDir(path);
    }
    QVERIFY(left.isEmpty() && CVWorkDirectoryManager::workDirs().isEmpty());
}

void TestDirectories::whatCountsAsOurs_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<bool>("ours");
    QTest::newRow("work directory") << u"/a/.corvane-1f"_s << true;
    QTest::newRow("converter") << u"/tmp/DCArchive-Convert.aB3xYz"_s << true;
    QTest::newRow("home") << u"/home/me"_s << false;
    QTest::newRow("root") << u"/"_s << false;
    QTest::newRow("empty") << QString() << false;
    QTest::newRow("prefix alone") << u"/a/.corvane-"_s << false;
    QTest::newRow("above one of ours") << u"/a/.corvane-1/.."_s << false;
    QTest::newRow("inside one of ours") << u"/a/.corvane-1/b"_s << false;
    QTest::newRow("through dots") << u"/a/../b/.corvane-1"_s << false;
    QTest::newRow("slash at the end") << u"/a/.corvane-1/"_s << false;
    QTest::newRow("relative") << u".corvane-1"_s << false;
    QTest::newRow("cut off by a NUL") << (u"/home/me"_s + QChar(0) + u"/.corvane-1"_s) << false;
}

void TestDirectories::whatCountsAsOurs()
{
    QFETCH(QString, path);
    QTEST(CVWorkDirectoryManager::isWorkDirectoryPath(path), "ours");
}

void TestDirectories::cleanRemovesOnlyWhatIsOurs()
{
    QVERIFY(writeFile(at(u"keep/f"_s)));
    QVERIFY(writeFile(at(u".corvane-1/a/f"_s)));
    QVERIFY(QFile::link(at(u"keep"_s), at(u".corvane-link"_s)));
    CVSettings::setValue(CVSettingsKey::tempDirs,
                         QStringList{at(u".corvane-1"_s), at(u"keep"_s), at(u".corvane-gone"_s),
                                     at(u".corvane-link"_s), at(u".corvane-link/../keep"_s)});
    const auto delegate = std::make_shared<CleanDelegate>();
    const auto clean = std::make_shared<CVWorkDirectoryCleanOperation>();
    clean->setDelegate(delegate);
    for (int i = 0; i < 2; ++i)
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"not a work directory"_s));
    clean->run();
    QVERIFY(clean->isFinished());
    QCOMPARE(delegate->ends, 1);
    QCOMPARE(delegate->errors.size(), 1);
    QVERIFY(delegate->errors.first().contains(at(u"keep"_s)));
    QVERIFY(!QFile::exists(at(u".corvane-1"_s)));
    QVERIFY(QFile::exists(at(u"keep/f"_s)));
    QVERIFY(CVWorkDirectoryManager::workDirs().isEmpty());
}

void TestDirectories::cleanLeavesWhatIsInUse()
{
    // Another process works in it; when that is killed the folder is left over.
    const QString work = at(u".corvane-1"_s);
    int ready[2];
    QCOMPARE(::pipe(ready), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        if (!CVWorkDirectoryManager::makeWorkDir(work))
            ::_exit(1);
        [[maybe_unused]] const auto n = ::write(ready[1], "r", 1);
        ::pause();
        ::_exit(0);
    }
    char byte = 0;
    QCOMPARE(::read(ready[0], &byte, 1), 1);
    const auto delegate = std::make_shared<CleanDelegate>();
    const auto first = std::make_shared<CVWorkDirectoryCleanOperation>();
    first->setDelegate(delegate);
    first->run();
    QVERIFY(QFile::exists(work));
    QCOMPARE(CVWorkDirectoryManager::workDirs(), QStringList{work});

    QCOMPARE(::kill(child, SIGKILL), 0);
    QCOMPARE(::waitpid(child, nullptr, 0), child);
    std::make_shared<CVWorkDirectoryCleanOperation>()->run();
    QVERIFY(!QFile::exists(work));
    QVERIFY(CVWorkDirectoryManager::workDirs().isEmpty());
    ::close(ready[0]);
    ::close(ready[1]);
}

void TestDirectories::closedUntilDelivered()
{
    const mode_t before = ::umask(027);
    const auto work = CVOperationHelper::createWorkDirectoryInPath(at(QString()));
    QVERIFY(work);
    const auto modeOf = [](const QString &path) {
        struct stat facts = {};
        return ::stat(QFile::encodeName(path).constData(), &facts) == 0 ? facts.st_mode & 07777 : 0;
    };
    QCOMPARE(modeOf(work.value()), 0700U);
    CVWorkDirectoryManager::openToOthers(work.value());
    ::umask(before);
    QCOMPARE(modeOf(work.value()), 0750U);
    QVERIFY(QDir(work.value()).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot));
    CVWorkDirectoryManager::discardWorkDir(work.value());
}

void TestDirectories::openedEntries_data()
{
    QTest::addColumn<bool>("isDelivered");
    QTest::addColumn<QString>("touched"); // below the folder
    QTest::addColumn<bool>("stays");
    QTest::newRow("only looked at") << true << QString() << false;
    QTest::newRow("never whole") << false << u"sub/f"_s << false;
    QTest::newRow("changed") << true << u"sub/f"_s << true;
    QTest::newRow("something added") << true << u"sub/new"_s << true;
}

void TestDirectories::openedEntries()
{
    QFETCH(bool, isDelivered);
    QFETCH(QString, touched);
    QFETCH(bool, stays);
    enum Way { LetGo, AtTheEnd, AfterACrash, Clean };
    for (const Way way : {LetGo, AtTheEnd, AfterACrash, Clean}) {
        const QString folder = at(u".corvane-%1"_s.arg(way));
        const auto fill = [&] {
            return CVWorkDirectoryManager::makeWorkDir(folder) && CVOpenedEntries::willFill(folder) &&
                   writeFile(folder + u"/sub/f"_s);
        };
        if (way == LetGo || way == AtTheEnd) {
            QVERIFY(fill());
        } else if (const pid_t child = ::fork(); child == 0) {
            ::_exit(fill() ? 0 : 1); // and does not clean up
        } else {
            int status = -1;
            QCOMPARE(::waitpid(child, &status, 0), child);
            QCOMPARE(status, 0);
        }
        if (isDelivered)
            CVOpenedEntries::wereDelivered(folder);
        QTest::qWait(20); // the clock of file systems ticks slowly
        if (!touched.isEmpty())
            QVERIFY(writeFile(folder + u'/' + touched));

        if (way == LetGo) {
            QCOMPARE(CVOpenedEntries::letGo(folder), !stays);
        } else if (way == Clean) {
            CVWorkDirectoryCleanOperation clean;
            const auto delegate = std::make_shared<CleanDelegate>();
            clean.setDelegate(delegate);
            onWorker([&] {
                clean.main();
                return 0;
            });
            QCOMPARE(delegate->ends, 1);
            QCOMPARE(delegate->errors.join(u' ').contains(folder), stays);
        } else {
            const QStringList kept =
                way == AtTheEnd ? CVOpenedEntries::letGoOfAll() : CVOpenedEntries::letGoOfLeftOvers();
            QCOMPARE(kept, stays ? QStringList{folder} : QStringList());
        }
        QCOMPARE(QFile::exists(folder), stays);
        QCOMPARE(CVWorkDirectoryManager::workDirs(), QStringList());
    }
}

QTEST_GUILESS_MAIN(TestDirectories)
#include "tst_directories.moc"
