#include "platform/LXDesktopAppearance.h"
#include "platform/LXFileViewer.h"
#include "platform/LXUserNotifications.h"
#include "platform/LXWorkspace.h"
#include "platform/desktop/LXDesktopServices.h"
#include "platform/desktop/LXPortalAppearance.h"
#include "support/BusMock.h"
#include "support/HostileNames.h"
#include "support/ScratchDesktop.h"
#include "util/LXDisplay.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"

#include <QDBusMetaType>
#include <QGuiApplication>
#include <QTest>
#include <QTextDocumentFragment>

#include <memory>
#include <thread>

using namespace Qt::StringLiterals;

namespace {

const QString notifications = u"org.freedesktop.Notifications"_s;
const QString notificationsObject = u"/org/freedesktop/Notifications"_s;
const QString fileManager = u"org.freedesktop.FileManager1"_s;
const QString fileManagerObject = u"/org/freedesktop/FileManager1"_s;
const QString portal = u"org.freedesktop.portal.Desktop"_s;
const QString portalObject = u"/org/freedesktop/portal/desktop"_s;

using Groups = QMap<QString, QVariantMap>;

BusMock::Answer refuse(const QString &error)
{
    return [error](const QDBusMessage &call) { return call.createErrorReply(error, u"no"_s); };
}

bool hasControlCharacter(const QString &text)
{
    const QList<uint> characters = text.toUcs4();
    return std::any_of(characters.begin(), characters.end(), [](uint c) {
        const QChar::Category category = QChar::category(c);
        return category == QChar::Other_Control || category == QChar::Other_Format ||
               category == QChar::Other_Surrogate;
    });
}

} // namespace

class TestDesktopServices : public QObject
{
    Q_OBJECT

public:
    ScratchDesktop desktop;

private Q_SLOTS:
    void initTestCase();
    void init() { desktop.forget(); }
    void notificationsShowNamesAsTheyStand_data() { addHostileNames(); }
    void notificationsShowNamesAsTheyStand();
    void notificationsFromOtherThreads();
    void longNotificationsAreCut();
    void nobodyListens();
    void revealedNames_data() { addHostileNames(); }
    void revealedNames();
    void revealWithoutFileManager_data();
    void revealWithoutFileManager();
    void revealedIsWhatMayNotBeOpened();
    void appearance_data();
    void appearance();
    void appearanceChanges();
};

void TestDesktopServices::initTestCase()
{
    qDBusRegisterMetaType<Groups>();
    LXMainThread::install();
    LXDesktopServices::install();
    QVERIFY2(QDBusConnection::sessionBus().isConnected(), "this test needs a session bus");
}

void TestDesktopServices::notificationsShowNamesAsTheyStand()
{
    QFETCH(QByteArray, name);
    const QString shown = fileNameFromBytes(name);
    BusMock server(notifications, notificationsObject, BusMock::reply({uint(7)}));
    LXUserNotifications::shared()->post(u"Done: "_s + shown, LXDisplay::displayEscaped(shown));
    QTRY_COMPARE(server.calls.size(), 1);

    const QDBusMessage call = server.calls.constFirst();
    QCOMPARE(call.member(), u"Notify"_s);
    QCOMPARE(call.signature(), u"susssasa{sv}i"_s);
    QCOMPARE(call.arguments().at(0).toString(), u"Corvane"_s);
    QCOMPARE(call.arguments().at(2).toString(), u"corvane"_s);
    const QString title = call.arguments().at(3).toString();
    const QString body = call.arguments().at(4).toString();
    QVERIFY(!hasControlCharacter(title) && !hasControlCharacter(body));
    // Whoever reads markup sees the same text as whoever reads the title, which is never markup. White space
    // does not count in markup.
    QVERIFY(!body.contains(u'<') && !body.contains(u'>'));
    QCOMPARE(QTextDocumentFragment::fromHtml(body).toPlainText().simplified(),
             title.mid(u"Done: "_s.size()).simplified());
    if (!hasControlCharacter(shown) && shown.isValidUtf16())
        QCOMPARE(title, u"Done: "_s + shown);
}

void TestDesktopServices::notificationsFromOtherThreads()
{
    // The server never answers, which holds nobody up: the next one goes out all the same.
    BusMock server(notifications, notificationsObject, {});
    std::jthread([] {
        for (int i = 0; i < 3; ++i)
            LXUserNotifications::shared()->post(u"Task complete"_s, QString::number(i));
    }).join();
    QTRY_COMPARE(server.calls.size(), 3);
    QCOMPARE(server.calls.at(2).arguments().at(4).toString(), u"2"_s);
}

void TestDesktopServices::longNotificationsAreCut()
{
    BusMock server(notifications, notificationsObject, BusMock::reply({uint(1)}));
    LXUserNotifications::shared()->post(u"t"_s, u"📦"_s.repeated(100'000));
    QTRY_COMPARE(server.calls.size(), 1);
    const QString body = server.calls.constFirst().arguments().at(4).toString();
    QVERIFY(body.size() < 1000);
    QVERIFY(body.startsWith(u"📦📦"_s) && body.endsWith(u"📦…"_s));
    LXUserNotifications::shared()->post(u"t"_s, u"Extract:\n- a"_s); // lines are lines
    QTRY_COMPARE(server.calls.size(), 2);
    QCOMPARE(server.calls.constLast().arguments().at(4).toString(), u"Extract:\n- a"_s);
}

void TestDesktopServices::nobodyListens()
{
    LXUserNotifications::shared()->post(u"a"_s, u"b"_s);
    // An answer to what was sent after it: the bus has dealt with it.
    QVERIFY(QDBusConnection::sessionBus().interface()->serviceOwner(notifications).value().isEmpty());
    BusMock server(notifications, notificationsObject, BusMock::reply({uint(1)}));
    LXUserNotifications::shared()->post(u"c"_s, u"d"_s);
    QTRY_COMPARE(server.calls.size(), 1);
    QCOMPARE(server.calls.constFirst().arguments().at(3).toString(), u"c"_s);
}

void TestDesktopServices::revealedNames()
{
    QFETCH(QByteArray, name);
    BusMock manager(fileManager, fileManagerObject, BusMock::reply({}));
    LXFileViewer::shared()->reveal({u"/tmp/"_s + fileNameFromBytes(name), u"relative"_s, u"/"_s});
    QTRY_COMPARE(manager.calls.size(), 1);
    const QDBusMessage call = manager.calls.constFirst();
    QCOMPARE(call.member(), u"ShowItems"_s);
    QCOMPARE(call.signature(), u"ass"_s);
    const QStringList uris = call.arguments().at(0).toStringList();
    QCOMPARE(uris.size(), 2);
    // As any program reads it: encoded bytes and nothing that has a meaning of its own in an address.
    QVERIFY(uris.at(0).startsWith("file:///tmp/"_L1));
    const QString encoded = uris.at(0).mid(QLatin1StringView("file:///tmp/").size());
    QVERIFY(std::all_of(encoded.begin(), encoded.end(), [](QChar c) {
        return (c.unicode() < 128 && c.isLetterOrNumber()) || u"-._~%"_s.contains(c);
    }));
    QCOMPARE(QByteArray::fromPercentEncoding(encoded.toLatin1()), name);
    QCOMPARE(uris.at(1), u"file:///"_s);
    QVERIFY(desktop.opened().isEmpty());
}

void TestDesktopServices::revealWithoutFileManager_data()
{
    QTest::addColumn<QString>("error");
    QTest::addColumn<bool>("opensFolder");
    QTest::newRow("nobody has the name") << QString() << true;
    QTest::newRow("knows no such call") << u"org.freedesktop.DBus.Error.UnknownMethod"_s << true;
    QTest::newRow("could not be started") << u"org.freedesktop.DBus.Error.Spawn.ChildExited"_s << true;
    // It may still come, and two windows are worse than a late one.
    QTest::newRow("took too long") << u"org.freedesktop.DBus.Error.NoReply"_s << false;
}

void TestDesktopServices::revealWithoutFileManager()
{
    QFETCH(QString, error);
    QFETCH(bool, opensFolder);
    std::unique_ptr<BusMock> manager;
    if (!error.isEmpty())
        manager = std::make_unique<BusMock>(fileManager, fileManagerObject, refuse(error));
    const QString folder = desktop.path() + u"/folder & # %20 \n"_s + fileNameFromBytes("\xe9");
    LXFileViewer::shared()->reveal({folder + u"/file"_s});
    if (manager)
        QTRY_COMPARE(manager->calls.size(), 1);
    // A second one that certainly ends up in a folder; what the first one did shows before it.
    QTest::qWait(100);
    manager.reset();
    if (opensFolder)
        QTRY_COMPARE(desktop.opened(), QStringList{folder});
    desktop.forget();
    LXFileViewer::shared()->reveal({u"/file"_s});
    QTRY_COMPARE(desktop.opened(), QStringList{u"/"_s});
}

void TestDesktopServices::revealedIsWhatMayNotBeOpened()
{
    BusMock manager(fileManager, fileManagerObject, BusMock::reply({}));
    desktop.write("starter.desktop", "[Desktop Entry]\nType=Application\nExec=touch x\n");
    QVERIFY(LXWorkspace::shared()->openFile(desktop.path() + u"/starter.desktop"_s));
    QTRY_COMPARE(manager.calls.size(), 1);
    // No application opens this one.
    desktop.write("without.a26", "x");
    QVERIFY(LXWorkspace::shared()->openFile(desktop.path() + u"/without.a26"_s));
    QTRY_COMPARE(manager.calls.size(), 2);
    QVERIFY(desktop.opened().isEmpty());
}

void TestDesktopServices::appearance_data()
{
    QTest::addColumn<Groups>("settings");
    QTest::addColumn<QByteArray>("environment");
    QTest::addColumn<bool>("reduced");
    QTest::addColumn<int>("scheme");
    const QString common = u"org.freedesktop.appearance"_s;
    const QString gnome = u"org.gnome.desktop.interface"_s;
    const QString kde = u"org.kde.kdeglobals.KDE"_s;
    const Groups still{{gnome, {{u"enable-animations"_s, false}}}};
    using Scheme = LXDesktopAppearance::Scheme;
    const auto row = [](const char *name, const Groups &settings, const QByteArray &environment, bool reduced,
                        Scheme scheme) {
        QTest::newRow(name) << settings << environment << reduced << int(scheme);
    };
    row("nothing", {{u"other"_s, {{u"enable-animations"_s, false}}}}, {}, false, Scheme::NoPreference);
    row("no animations", still, {}, true, Scheme::NoPreference);
    row("animations and dark",
        {{gnome, {{u"enable-animations"_s, true}}}, {common, {{u"color-scheme"_s, uint(1)}}}}, {}, false,
        Scheme::Dark);
    row("light, less motion", {{common, {{u"color-scheme"_s, uint(2)}, {u"reduced-motion"_s, uint(1)}}}}, {},
        true, Scheme::Light);
    row("animations of no length", {{kde, {{u"AnimationDurationFactor"_s, u"0"_s}}}}, {}, true,
        Scheme::NoPreference);
    row("animations of some length", {{kde, {{u"AnimationDurationFactor"_s, u"0.5"_s}}}}, {}, false,
        Scheme::NoPreference);
    row("of other types",
        {{kde, {{u"AnimationDurationFactor"_s, u"fast"_s}}}, {common, {{u"color-scheme"_s, u"blue"_s}}}}, {},
        false, Scheme::NoPreference);
    row("the environment says still", {}, "1", true, Scheme::NoPreference);
    row("the environment says move", still, "0", false, Scheme::NoPreference);
}

void TestDesktopServices::appearance()
{
    QFETCH(Groups, settings);
    QFETCH(QByteArray, environment);
    BusMock server(portal, portalObject, BusMock::reply({QVariant::fromValue(settings)}));
    if (!environment.isNull())
        qputenv("CORVANE_REDUCED_MOTION", environment);
    LXPortalAppearance asked;
    QTRY_COMPARE(server.calls.size(), 1);
    QFETCH(bool, reduced);
    QTRY_COMPARE(asked.reducedMotion(), reduced);
    QFETCH(int, scheme);
    QTRY_COMPARE(int(asked.scheme()), scheme);
    qunsetenv("CORVANE_REDUCED_MOTION");
}

void TestDesktopServices::appearanceChanges()
{
    BusMock server(portal, portalObject, BusMock::reply({QVariant::fromValue(Groups())}));
    LXPortalAppearance asked;
    int told = 0;
    asked.observe([&] { ++told; });
    QTRY_COMPARE(server.calls.size(), 1);
    const auto change = [&](const QString &group, const QString &key, const QVariant &value) {
        QDBusMessage signal = QDBusMessage::createSignal(portalObject, u"org.freedesktop.portal.Settings"_s,
                                                         u"SettingChanged"_s);
        signal << group << key << QVariant::fromValue(QDBusVariant(value));
        server.connection().send(signal);
    };
    change(u"org.freedesktop.appearance"_s, u"color-scheme"_s, uint(1));
    change(u"org.freedesktop.appearance"_s, u"color-scheme"_s, uint(1));
    change(u"org.gnome.desktop.interface"_s, u"font-name"_s, u"x"_s);
    change(u"org.gnome.desktop.interface"_s, u"enable-animations"_s, false);
    QTRY_VERIFY(asked.reducedMotion());
    QCOMPARE(asked.scheme(), LXDesktopAppearance::Scheme::Dark);
    QCOMPARE(told, 2);
}

int main(int argc, char **argv)
{
    TestDesktopServices test; // its desktop has to be there before the application
    QGuiApplication application(argc, argv);
    return QTest::qExec(&test, argc, argv);
}

#include "tst_desktop_services.moc"
