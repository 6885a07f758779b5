#include "platform/LXDesktopAppearance.h"
#include "platform/LXFileViewer.h"
#include "platform/LXSystemSound.h"
#include "platform/LXUserNotifications.h"
#include "platform/desktop/LXApplicationBus.h"
#include "platform/desktop/LXDesktopServices.h"
#include "support/ScratchDesktop.h"
#include "util/LXMainThread.h"

#include <QGuiApplication>
#include <QTest>

using namespace Qt::StringLiterals;

class TestWithoutBus : public QObject
{
    Q_OBJECT

public:
    ScratchDesktop desktop;

private Q_SLOTS:
    void everythingGoesOn_data();
    void everythingGoesOn();
};

void TestWithoutBus::everythingGoesOn_data()
{
    QTest::addColumn<QByteArray>("address");
    QTest::newRow("no bus") << QByteArray();
    QTest::newRow("a bus that is gone") << QByteArray("unix:path=/nonexistent/bus");
}

void TestWithoutBus::everythingGoesOn()
{
    QFETCH(QByteArray, address);
    qputenv("DBUS_SESSION_BUS_ADDRESS", address);
    LXDesktopServices::install();
    desktop.forget();

    LXUserNotifications::shared()->post(u"a"_s, u"b"_s);
    LXSystemSound::shared()->play(u"Hero"_s);
    LXApplicationBus bus(u"org.corvane.Test"_s);
    QCOMPARE(bus.claim(), LXApplicationBus::NoBus);
    QVERIFY(!bus.sendOpen({u"/a"_s}));
    QVERIFY(!bus.sendActivate());
    LXFileViewer::shared()->reveal({desktop.path() + u"/file"_s});
    QTRY_COMPARE(desktop.opened(), QStringList{desktop.path()});
    QVERIFY(!LXDesktopAppearance::shared()->reducedMotion());
}

int main(int argc, char **argv)
{
    qunsetenv("DBUS_SESSION_BUS_ADDRESS");
    TestWithoutBus test; // its desktop has to be there before the application
    QGuiApplication application(argc, argv);
    LXMainThread::install();
    return QTest::qExec(&test, argc, argv);
}

#include "tst_without_bus.moc"
