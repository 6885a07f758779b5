#include "platform/LXSettingsStore.h"
#include "sandbox/CVFileAuthenticator.h"
#include "sandbox/LXSandboxFileAuthenticator.h"
#include "util/LXMainThread.h"
#include "util/LXPendingAnswer.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include <thread>

using namespace Qt::StringLiterals;

namespace {

class Chooser : public LXFolderChooser
{
public:
    void choose(const LXFolderChooserRequest &request,
                std::function<void(std::optional<QString>)> done) override
    {
        asked.append(request.directory);
        requests.append(request);
        const auto answer = answers.isEmpty() ? std::nullopt : answers.takeFirst();
        done(answer);
    }

    QStringList asked;
    QList<LXFolderChooserRequest> requests;
    QList<std::optional<QString>> answers;
};

class Alerts : public LXAlertPresenter
{
public:
    void show(const LXAlertRequest &request, std::function<void(Answer)> done) override
    {
        shown.append(request);
        done(answer);
    }

    QList<LXAlertRequest> shown;
    Answer answer;
};

} // namespace

class TestSandbox : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { LXMainThread::install(); }
    void init();
    void paths_data();
    void paths();
    void unsandboxedGrantsAtOnce();
    void coveredPathAsksNothing();
    void prefixCountsAsCovered();
    void chooserTakesOnlyTheItemAndItsParents();
    void cancelEndsTheRequestButKeepsEarlierGrants();
    void requestsAskOneAfterTheOther();
    void staleGrantsDisappear();
    void offerToAuthorizeAll();

private:
    struct Result
    {
        bool granted = false;
        QStringList grants;
        bool onMainThread = true;
    };
    std::shared_ptr<LXSandboxFileAuthenticator> make(bool inSandbox = true) const
    {
        return std::make_shared<LXSandboxFileAuthenticator>(
            LXSandboxFileAuthenticator::Services{.store = m_store,
                                                 .bookmarks = std::make_shared<LXPathBookmarks>(),
                                                 .folderChooser = m_chooser,
                                                 .alerts = m_alerts,
                                                 .applicationName = u"Corvane"_s,
                                                 .inSandbox = inSandbox});
    }
    /// Asks from a worker, as jobs do.
    static Result ask(const std::shared_ptr<LXSandboxFileAuthenticator> &authenticator,
                      const QStringList &paths)
    {
        std::atomic<bool> done = false;
        Result result;
        std::jthread worker([&] {
            authenticator->authorizeItemsAtURLs(paths, {}, nullptr,
                                                [&](bool granted, const QStringList &grants) {
                                                    result = {granted, grants, LXMainThread::isCurrent()};
                                                    done = true;
                                                });
        });
        while (!done)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        return result;
    }
    QString at(const QString &name) const { return m_dir->filePath(name); }
    QString folder(const QString &name) const
    {
        QDir().mkpath(at(name));
        return at(name);
    }

    std::unique_ptr<QTemporaryDir> m_dir;
    std::shared_ptr<LXSettingsStore> m_store;
    std::shared_ptr<Chooser> m_chooser;
    std::shared_ptr<Alerts> m_alerts;
};

void TestSandbox::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    m_store = std::make_shared<LXSettingsStore>(at(u"corvane.conf"_s));
    m_chooser = std::make_shared<Chooser>();
    m_alerts = std::make_shared<Alerts>();
}

void TestSandbox::paths_data()
{
    QTest::addColumn<QString>("one");
    QTest::addColumn<QString>("other");
    QTest::addColumn<bool>("subpath");
    QTest::addColumn<bool>("parent");
    QTest::addColumn<QString>("common");
    QTest::newRow("inside") << u"/a/b"_s << u"/a/b/c"_s << true << true << u"/a/b"_s;
    QTest::newRow("itself") << u"/a/b"_s << u"/a/b"_s << false << true << u"/a/b"_s;
    QTest::newRow("prefix of a name") << u"/a/b"_s << u"/a/bc"_s << true << false << u"/a/b"_s;
    QTest::newRow("beside") << u"/a/b"_s << u"/a/c"_s << false << false << u"/a"_s;
    QTest::newRow("above") << u"/a/b"_s << u"/a"_s << false << false << u"/a"_s;
    QTest::newRow("root") << u"/"_s << u"/a"_s << true << true << u"/"_s;
    QTest::newRow("far apart") << u"/a/b"_s << u"/x"_s << false << false << u"/"_s;
}

void TestSandbox::paths()
{
    QFETCH(QString, one);
    QFETCH(QString, other);
    QTEST(isFileURLAndSubpathOfFileURL(other, one), "subpath");
    QTEST(pathIsParentOrIsPathOfTarget(one, other), "parent");
    QTEST(LXSandboxFileAuthenticator::commonParentURLForURLs({one, other}), "common");
    QVERIFY(pathIsParentOrIsPathOfTarget(QString(), other));
}

void TestSandbox::unsandboxedGrantsAtOnce()
{
    CVFileAuthenticator::setServices({.store = m_store, .folderChooser = m_chooser, .alerts = m_alerts});
    const auto authenticator = CVFileAuthenticator::fileAuthenticator();
    int calls = 0;
    CVFileAuthenticator::runAuthorizedHandler(
        [&](bool granted, const QString &path) {
            ++calls;
            QVERIFY(granted);
            QCOMPARE(path, u"/"_s);
            QVERIFY(LXMainThread::isCurrent());
        },
        {u"/a"_s, u"/b"_s}, nullptr);
    QCOMPARE(calls, 1);
    authenticator->authorizeAll(nullptr);
    QVERIFY(m_alerts->shown.isEmpty() && m_chooser->asked.isEmpty());
    QVERIFY(!QFile::exists(at(u"corvane.conf"_s)));
    CVFileAuthenticator::setServices({});
}

void TestSandbox::coveredPathAsksNothing()
{
    const auto authenticator = make();
    authenticator->addAuthorizedURL(folder(u"Docs"_s));
    const Result result = ask(authenticator, {at(u"Docs/x/y.zip"_s)});
    QVERIFY(result.granted && !result.onMainThread);
    QCOMPARE(result.grants, QStringList{at(u"Docs"_s)});
    QVERIFY(m_chooser->asked.isEmpty());
    QVERIFY(make()->isAuthorized(at(u"Docs"_s))); // after a restart too
}

void TestSandbox::prefixCountsAsCovered()
{
    const auto authenticator = make();
    authenticator->addAuthorizedURL(folder(u"Doc"_s));
    QVERIFY(authenticator->isAuthorized(at(u"Docs/y"_s)));
    QVERIFY(!authenticator->isAuthorized(at(u"Do"_s)));
    QCOMPARE(authenticator->authorizedBookmarkURLForURL(at(u"Docs/y"_s)), at(u"Doc"_s));
}

void TestSandbox::chooserTakesOnlyTheItemAndItsParents()
{
    const auto authenticator = make();
    m_chooser->answers = {folder(u"a"_s)};
    const Result result = ask(authenticator, {at(u"a/b/c"_s), at(u"a/b/c"_s)});
    QVERIFY(result.granted);
    QCOMPARE(result.grants, QStringList{at(u"a"_s)});
    QCOMPARE(m_chooser->asked, QStringList{at(u"a/b/c"_s)});
    const auto &accepts = m_chooser->requests.first().accepts;
    QVERIFY(accepts(at(u"a/b/c"_s)) && accepts(at(u"a"_s)) && accepts(u"/"_s));
    QVERIFY(!accepts(at(u"a/b/c/d"_s)) && !accepts(at(u"x"_s)));
}

void TestSandbox::cancelEndsTheRequestButKeepsEarlierGrants()
{
    const auto authenticator = make();
    m_chooser->answers = {folder(u"third"_s), std::nullopt};
    const Result result = ask(authenticator, {at(u"first"_s), at(u"second"_s), at(u"third"_s)});
    QVERIFY(!result.granted && result.grants.isEmpty());
    QCOMPARE(m_chooser->asked, QStringList({at(u"third"_s), at(u"second"_s)}));
    QVERIFY(make()->isAuthorized(at(u"third"_s)));
}

void TestSandbox::requestsAskOneAfterTheOther()
{
    const auto authenticator = make();
    m_chooser->answers = {folder(u"one"_s), folder(u"two"_s)};
    std::atomic<int> granted = 0;
    {
        std::jthread first([&] {
            authenticator->authorizeItemsAtURLs({at(u"one"_s)}, {}, nullptr,
                                                [&](bool yes, const QStringList &) { granted += yes; });
        });
        std::jthread second([&] {
            authenticator->authorizeItemsAtURLs({at(u"one"_s)}, {}, nullptr,
                                                [&](bool yes, const QStringList &) { granted += yes; });
        });
        QTRY_COMPARE(granted, 2);
    }
    QCOMPARE(m_chooser->asked, QStringList{at(u"one"_s)});
}

void TestSandbox::staleGrantsDisappear()
{
    make()->addAuthorizedURL(folder(u"gone"_s));
    make()->addAuthorizedURL(folder(u"stays"_s));
    QCOMPARE(m_store->bytesList(LXSandboxFileAuthenticator::authorizedURLsKey).size(), 2);
    QVERIFY(QDir().rmdir(at(u"gone"_s)));
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"restoring authorized URL"_s));
    const auto next = make();
    QVERIFY(!next->isAuthorized(at(u"gone"_s)) && next->isAuthorized(at(u"stays"_s)));
    QCOMPARE(m_store->bytesList(LXSandboxFileAuthenticator::authorizedURLsKey).size(), 1);
}

void TestSandbox::offerToAuthorizeAll()
{
    m_alerts->answer = {.button = 1, .suppress = true};
    make()->authorizeAll(nullptr);
    QCOMPARE(m_alerts->shown.size(), 1);
    QVERIFY(m_chooser->asked.isEmpty());
    make()->authorizeAll(nullptr);
    QCOMPARE(m_alerts->shown.size(), 1); // suppressed

    m_store->remove(LXSandboxFileAuthenticator::suppressAlertKey);
    m_alerts->answer = {.button = 0, .suppress = false};
    m_chooser->answers = {u"/"_s};
    const auto authenticator = make();
    authenticator->authorizeAll(nullptr);
    QTRY_VERIFY(authenticator->isAuthorized(u"/home"_s));
    authenticator->authorizeAll(nullptr);
    QCOMPARE(m_alerts->shown.size(), 2); // granted already
}

QTEST_GUILESS_MAIN(TestSandbox)
#include "tst_sandbox.moc"
