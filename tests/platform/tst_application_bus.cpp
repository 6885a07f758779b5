#include "platform/desktop/LXApplicationBus.h"
#include "support/BusMock.h"
#include "support/HostileNames.h"
#include "util/LXFileName.h"

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QSignalSpy>
#include <QSocketNotifier>
#include <QTemporaryDir>
#include <QTest>

#include <cstdio>
#include <memory>
#include <vector>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

const QString applicationId = u"org.corvane.Test-1"_s;
const QString object = u"/org/corvane/Test_1"_s;
const QString interface = u"org.freedesktop.Application"_s;

// Long, because none of this is about how busy the machine is.
constexpr int patience = 60'000;
constexpr std::chrono::milliseconds answerLimit(patience);

void say(const QByteArray &line)
{
    std::puts(line.constData());
    std::fflush(stdout);
}

/// Another start of the application: says what it became, and the first one what it gets, until its standard
/// input ends.
int runPeer(QCoreApplication &application, const QList<QByteArray> &arguments)
{
    QStringList paths;
    for (const QByteArray &argument : arguments)
        paths.append(fileNameFromBytes(argument));
    LXApplicationBus bus(applicationId, answerLimit);
    QObject::connect(&bus, &LXApplicationBus::opened, [](const QStringList &opened) {
        for (const QString &path : opened)
            say("opened " + bytesOfFileName(path).toHex());
    });
    QObject::connect(&bus, &LXApplicationBus::activated, [] { say("activated"); });
    const LXApplicationBus::Role role = bus.claim();
    if (role == LXApplicationBus::Second) {
        say(paths.isEmpty() ? bus.sendActivate() ? "sent" : "alone" : bus.sendOpen(paths) ? "sent" : "alone");
        return 0;
    }
    say(role == LXApplicationBus::First ? "first" : "no bus");
    for (const QString &path : paths)
        say("own " + bytesOfFileName(path).toHex());
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &application, &QCoreApplication::quit);
    return application.exec();
}

std::unique_ptr<QProcess>
startPeer(const QStringList &arguments, const QString &folder = QDir::tempPath(),
          const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment())
{
    auto peer = std::make_unique<QProcess>();
    peer->setWorkingDirectory(folder);
    peer->setProcessEnvironment(environment);
    peer->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    peer->start(QCoreApplication::applicationFilePath(), QStringList{u"--peer"_s} + arguments);
    return peer;
}

bool hasEnded(QProcess &peer)
{
    return peer.state() == QProcess::NotRunning || peer.waitForFinished(patience);
}

} // namespace

class TestApplicationBus : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void secondStartSendsItsFiles_data() { addHostileNames(); }
    void secondStartSendsItsFiles();
    void relativePaths();
    void activationToken_data();
    void activationToken();
    void whatOthersMaySend_data();
    void whatOthersMaySend();
    void startsAtOnce();
    void firstThatDoesNotAnswer();
    void firstThatEnds();
};

void TestApplicationBus::secondStartSendsItsFiles()
{
    QFETCH(QByteArray, name);
    LXApplicationBus bus(applicationId, answerLimit);
    QCOMPARE(bus.claim(), LXApplicationBus::First);
    QSignalSpy opened(&bus, &LXApplicationBus::opened);
    // Names that are no text go to the other process as hexadecimal digits: QProcess would change them.
    const auto peer = startPeer({u"/a/%1"_s.arg(QString::fromLatin1(name.toHex())), u"--hex"_s});
    QTRY_COMPARE_WITH_TIMEOUT(opened.size(), 1, patience);
    QCOMPARE(opened.at(0).at(0).toStringList(), QStringList{u"/a/"_s + fileNameFromBytes(name)});
    QVERIFY(hasEnded(*peer));
    QCOMPARE(peer->readAll(), QByteArray("sent\n"));
}

void TestApplicationBus::relativePaths()
{
    QTemporaryDir scratch;
    const QString folder = QDir(scratch.path()).canonicalPath();
    LXApplicationBus bus(applicationId, answerLimit);
    QCOMPARE(bus.claim(), LXApplicationBus::First);
    QCOMPARE(bus.claim(), LXApplicationBus::First);
    QSignalSpy opened(&bus, &LXApplicationBus::opened);
    const auto peer = startPeer({u"a.zip"_s, u"../b.zip"_s, u"/c.zip"_s}, folder);
    QTRY_COMPARE_WITH_TIMEOUT(opened.size(), 1, patience);
    QCOMPARE(opened.at(0).at(0).toStringList(),
             QStringList({folder + u"/a.zip"_s, folder + u"/../b.zip"_s, u"/c.zip"_s}));
    QVERIFY(hasEnded(*peer));
}

void TestApplicationBus::activationToken_data()
{
    QTest::addColumn<QByteArray>("wayland");
    QTest::addColumn<QByteArray>("x11");
    QTest::addColumn<QString>("token");
    QTest::newRow("none") << QByteArray() << QByteArray() << QString();
    QTest::newRow("old") << QByteArray() << QByteArray("id_TIME12") << u"id_TIME12"_s;
    QTest::newRow("both") << QByteArray("new") << QByteArray("id_TIME12") << u"new"_s;
}

void TestApplicationBus::activationToken()
{
    QFETCH(QByteArray, wayland);
    QFETCH(QByteArray, x11);
    QFETCH(QString, token);
    LXApplicationBus bus(applicationId, answerLimit);
    QCOMPARE(bus.claim(), LXApplicationBus::First);
    QSignalSpy activated(&bus, &LXApplicationBus::activated);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"XDG_ACTIVATION_TOKEN"_s, QString::fromLatin1(wayland));
    environment.insert(u"DESKTOP_STARTUP_ID"_s, QString::fromLatin1(x11));
    const auto peer = startPeer({}, QDir::tempPath(), environment);
    QTRY_COMPARE_WITH_TIMEOUT(activated.size(), 1, patience);
    QCOMPARE(activated.at(0).at(0).toString(), token);
    QVERIFY(hasEnded(*peer));
}

void TestApplicationBus::whatOthersMaySend_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QVariantList>("arguments");
    QTest::addColumn<QStringList>("opened");
    const QVariantMap nothing;
    const auto open = [&](const QStringList &uris) { return QVariantList{uris, nothing}; };
    const auto row = [](const char *name, const QString &method, const QVariantList &arguments,
                        const QStringList &opened) { QTest::newRow(name) << method << arguments << opened; };
    row("this machine", u"Open"_s, open({u"file:/a"_s, u"FILE://localhost/b%20c"_s}), {u"/a"_s, u"/b c"_s});
    row("unencoded", u"Open"_s, open({u"file:///a b/日本"_s}), {u"/a b/日本"_s});
    row("other places", u"Open"_s, open({u"http://host/a"_s, u"file://elsewhere/a"_s, u"/a"_s, u"file:a"_s}),
        {});
    row("no path can hold it", u"Open"_s, open({u"file:///a%00b"_s, u"file://"_s, u"file:///ok"_s}),
        {u"/ok"_s});
    row("nothing", u"Open"_s, open({}), {});
    row("an action", u"ActivateAction"_s, {u"new-window"_s, QVariantList(), nothing}, {});
}

void TestApplicationBus::whatOthersMaySend()
{
    QFETCH(QString, method);
    QFETCH(QVariantList, arguments);
    QFETCH(QStringList, opened);
    LXApplicationBus bus(applicationId, answerLimit);
    QCOMPARE(bus.claim(), LXApplicationBus::First);
    QSignalSpy openings(&bus, &LXApplicationBus::opened);
    QSignalSpy activations(&bus, &LXApplicationBus::activated);
    QDBusConnection other = QDBusConnection::connectToBus(QDBusConnection::SessionBus, u"other"_s);
    QDBusMessage call = QDBusMessage::createMethodCall(applicationId, object, interface, method);
    call.setArguments(arguments);
    QVERIFY(other.send(call));
    QTRY_COMPARE(openings.size() + activations.size(), 1);
    QCOMPARE(openings.isEmpty() ? QStringList() : openings.at(0).at(0).toStringList(), opened);
    QDBusConnection::disconnectFromBus(u"other"_s);
}

void TestApplicationBus::startsAtOnce()
{
    constexpr int starts = 6;
    std::vector<std::unique_ptr<QProcess>> peers;
    for (int i = 0; i < starts; ++i)
        peers.push_back(startPeer({u"/file-%1"_s.arg(i)}));
    // Every file reaches the one that won: its own, and those of all others.
    QByteArray first;
    const auto gather = [&] {
        for (const auto &peer : peers) {
            if (first.isEmpty() && peer->peek(6) != "first\n")
                continue;
            if (first.isEmpty() || peer->property("first").toBool()) {
                peer->setProperty("first", true);
                first += peer->readAll();
            }
        }
        return first.count('\n');
    };
    QTRY_COMPARE_WITH_TIMEOUT(gather(), 1 + starts, patience);
    int sent = 0;
    for (const auto &peer : peers) {
        if (peer->property("first").toBool()) {
            peer->closeWriteChannel();
        } else {
            QVERIFY(hasEnded(*peer));
            sent += peer->readAll() == "sent\n" ? 1 : 0;
        }
    }
    QCOMPARE(sent, starts - 1);
    for (int i = 0; i < starts; ++i)
        QVERIFY2(first.contains(QByteArray(" " + QByteArray("/file-" + QByteArray::number(i)).toHex())),
                 first.constData());
    for (const auto &peer : peers)
        QVERIFY(hasEnded(*peer));
}

void TestApplicationBus::firstThatDoesNotAnswer()
{
    BusMock first(applicationId, object, {});
    QVERIFY(first.isThere);
    LXApplicationBus bus(applicationId, std::chrono::seconds(1));
    QCOMPARE(bus.claim(), LXApplicationBus::Second);
    QVERIFY(!bus.sendOpen({u"/a"_s}));
    QTRY_COMPARE(first.calls.size(), 1);
}

void TestApplicationBus::firstThatEnds()
{
    auto first = std::make_unique<BusMock>(applicationId, object, BusMock::reply({}));
    LXApplicationBus bus(applicationId, answerLimit);
    QCOMPARE(bus.claim(), LXApplicationBus::Second);
    first.reset();
    QVERIFY(!bus.sendOpen({u"/a"_s}));
    // It took the place of the one that has gone.
    QSignalSpy activated(&bus, &LXApplicationBus::activated);
    const auto peer = startPeer({});
    QTRY_COMPARE_WITH_TIMEOUT(activated.size(), 1, patience);
    QVERIFY(hasEnded(*peer));
}

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    if (argc > 1 && qstrcmp(argv[1], "--peer") == 0) {
        QList<QByteArray> arguments(argv + 2, argv + argc);
        if (!arguments.isEmpty() && arguments.constLast() == "--hex")
            arguments = {"/a/" + QByteArray::fromHex(arguments.constFirst().mid(3))};
        return runPeer(application, arguments);
    }
    TestApplicationBus test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_application_bus.moc"
