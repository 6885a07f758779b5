#include "ui/base/CVTheme.h"
#include "ui/base/CVToolbar.h"
#include "ui/window/CVMainWindow.h"
#include "ui/window/CVNavigationController.h"

#include <QAction>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPropertyAnimation>
#include <QSignalSpy>
#include <QTest>
#include <QVBoxLayout>

#include <map>
#include <memory>

using namespace Qt::StringLiterals;

namespace {

constexpr float quick = 0.01F;

class PlainScreen final : public CVViewController
{
public:
    PlainScreen(const QString &name, bool returnable, QSize wanted = {}, bool resizable = false)
        : m_wanted(wanted)
        , m_returnable(returnable)
        , m_resizable(resizable)
    {
        setObjectName(name);
        auto *view = new QWidget;
        view->setObjectName(name);
        auto *layout = new QVBoxLayout(view);
        layout->addWidget(new QLabel(name));
        edit = new QLineEdit;
        layout->addWidget(edit);
        setView(view);
        addAction(u"done"_s, u"Go &On"_s, u"tool/done"_s, QKeySequence(Qt::Key_Return),
                  [this] { ++pressed; });
        addAction(u"cancel"_s, u"Cancel"_s, u"tool/cancel"_s, QKeySequence(Qt::Key_Escape),
                  [this] { ++cancelled; });
    }

    bool canBeReturnedTo() const override { return m_returnable; }
    bool isResizable() const override { return m_resizable; }
    QSize size() const override { return m_wanted.isValid() ? m_wanted : CVTheme::initialSize(); }
    QString title() const override { return shownTitle; }
    QStringList desiredToolbarItems() const override { return {u"done"_s, flexibleSpace, u"cancel"_s}; }
    void willLoadView() override { ++loaded; }
    void viewWillBeUnloaded() override { ++unloaded; }

    QLineEdit *edit = nullptr;
    QString shownTitle;
    int pressed = 0;
    int cancelled = 0;
    int loaded = 0;
    int unloaded = 0;

private:
    const QSize m_wanted;
    const bool m_returnable;
    const bool m_resizable;
};

/// A window with a screen under every name, and what the navigation asked of the application.
struct Window final : CVNavigationHost
{
    Window()
        : navigation(&window, this)
    {
        const auto add = [this](const QString &name, bool returnable, QSize size = {},
                                bool resizable = false) {
            screens[name] = std::make_unique<PlainScreen>(name, returnable, size, resizable);
            return screens[name].get();
        };
        CVNavigationController::Screens all;
        all.dropBox = add(u"dropBox"_s, true);
        all.options = add(u"options"_s, true, {700, 500}, true);
        all.create = add(u"create"_s, true);
        all.progress = add(u"progress"_s, false);
        all.alert = add(u"alert"_s, false);
        all.preview = add(u"preview"_s, true, {640, 420}, true);
        all.done = add(u"done"_s, false);
        all.resetPreviewedArchives = [this] { ++archivesReset; };
        all.resetDropBox = [this] { ++dropBoxReset; };
        navigation.setScreens(all);
        navigation.setup();
        navigation.slideAnimation()->setSpeed(quick);
        window.show();
    }

    PlainScreen &screen(const QString &name) { return *screens.at(name); }
    QString nameOfCurrent() const
    {
        return navigation.currentViewController() ? navigation.currentViewController()->objectName()
                                                  : QString();
    }
    QStringList stack() const
    {
        QStringList names;
        for (const CVViewController *screen : navigation.previousViewControllers())
            names.append(screen->objectName());
        return names;
    }
    QStringList visible() const
    {
        QStringList names;
        for (const auto &[name, screen] : screens) {
            if (screen->view()->isVisible())
                names.append(name);
        }
        return names;
    }
    bool waitUntilStill()
    {
        return QTest::qWaitFor([this] { return navigation.slideAnimation()->isIdle(); });
    }
    void run(const QString &step)
    {
        if (step == "back"_L1)
            navigation.goBack();
        else if (step == "main"_L1)
            navigation.backToMain();
        else if (step == "forwardToMain"_L1)
            navigation.goForwardToMain();
        else
            navigation.loadViewController(screen(step), false);
    }

    void navigationNeedsToOpenWindowAndExtractArchives(const QStringList &) override {}
    void navigationNeedsToCloseWindow() override {}
    void navigationNeedsToActivateApp() override {}

    int archivesReset = 0;
    int dropBoxReset = 0;
    std::map<QString, std::unique_ptr<PlainScreen>> screens;
    CVMainWindow window;
    CVNavigationController navigation;
};

} // namespace

class TestNavigation : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { CVTheme::setReducedMotion(false); }

    void sequences_data()
    {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<QString>("current");
        QTest::addColumn<QString>("visible");
        QTest::addColumn<QStringList>("stack");
        QTest::addColumn<bool>("wasReset");
        const QStringList none;
        QTest::newRow("forwards") << QStringList{"options"} << "options"
                                  << "options" << none << false;
        QTest::newRow("nothing before the first screen, so back is the drop box")
            << QStringList{"options", "back"} << ""
            << "dropBox" << none << true;
        QTest::newRow("what cannot be returned to is skipped")
            << QStringList{"options", "create", "progress", "done", "back"} << "create"
            << "create" << QStringList{"options"} << false;
        QTest::newRow("going back pushes nothing")
            << QStringList{"options", "create", "preview", "back", "back"} << "options"
            << "options" << none << false;
        QTest::newRow("back to the drop box forgets all") << QStringList{"options", "create", "main"} << ""
                                                          << "dropBox" << none << true;
        QTest::newRow("back on the drop box") << QStringList{"back"} << ""
                                              << "dropBox" << none << true;
        QTest::newRow("forwards to the drop box keeps the way")
            << QStringList{"options", "create", "forwardToMain"} << "dropBox"
            << "dropBox" << QStringList{"options", "create"} << false;
        QTest::newRow("and from there") << QStringList{"forwardToMain", "options", "back"} << "dropBox"
                                        << "dropBox" << none << false;
        QTest::newRow("the same screen again")
            << QStringList{"options", "create", "create", "back"} << "options"
            << "options" << none << false;
        QTest::newRow("away and at once here again")
            << QStringList{"options", "progress", "options"} << "options"
            << "options" << QStringList{"options"} << false;
    }

    void sequences()
    {
        QFETCH(QStringList, steps);
        // With and without motion, and with the requests coming faster than slides run.
        for (const bool reduced : {false, true}) {
            CVTheme::setReducedMotion(reduced);
            for (const bool waits : {false, true}) {
                Window window;
                for (const QString &step : std::as_const(steps)) {
                    window.run(step);
                    QVERIFY(!waits || window.waitUntilStill());
                }
                QVERIFY(window.waitUntilStill());
                QTEST(window.nameOfCurrent(), "current");
                QTEST(window.stack(), "stack");
                QTEST(window.visible().join(u' '), "visible");
                QTEST(window.archivesReset > 0, "wasReset");
                QTEST(window.dropBoxReset > 0, "wasReset");
            }
        }
    }

    void everyScreenHearsOfItsTurnOnce()
    {
        Window window;
        window.run(u"options"_s);
        window.run(u"create"_s);
        QVERIFY(window.waitUntilStill());
        QCOMPARE(window.screen(u"options"_s).loaded, 1);
        QCOMPARE(window.screen(u"options"_s).unloaded, 1);
        QCOMPARE(window.screen(u"create"_s).loaded, 1);
        QCOMPARE(window.screen(u"create"_s).unloaded, 0);
        window.run(u"main"_s);
        QCOMPARE(window.screen(u"create"_s).unloaded, 1);
    }

    void slidesRunOneAfterTheOther()
    {
        Window window;
        QSignalSpy shown(&window.navigation, &CVNavigationController::screenShown);
        const auto *slides = window.navigation.slideAnimation();
        window.run(u"options"_s);
        window.run(u"progress"_s);
        window.run(u"done"_s);
        QCOMPARE(slides->nextView(), window.screen(u"options"_s).view());
        QVERIFY(!window.screen(u"progress"_s).view()->isVisible());
        QVERIFY(window.waitUntilStill());
        QStringList order;
        for (const QList<QVariant> &arguments : shown)
            order.append(arguments.first().value<CVViewController *>()->objectName());
        QCOMPARE(order, (QStringList{u"options"_s, u"progress"_s, u"done"_s}));
    }

    void slideStartsBesideTheScreen_data()
    {
        QTest::addColumn<bool>("backwards");
        QTest::newRow("from the right") << false;
        QTest::newRow("from the left") << true;
    }

    void slideStartsBesideTheScreen()
    {
        QFETCH(bool, backwards);
        Window window;
        window.navigation.slideAnimation()->setSpeed(10);
        QWidget *left = window.screen(u"dropBox"_s).view();
        QWidget *next = window.screen(u"create"_s).view();
        window.navigation.loadViewController(window.screen(u"create"_s), backwards);
        const auto *in = window.navigation.slideAnimation()->findChild<QPropertyAnimation *>(u"slideIn"_s);
        const auto *out = window.navigation.slideAnimation()->findChild<QPropertyAnimation *>(u"slideOut"_s);
        QVERIFY(in && out);
        const int distance = backwards ? next->width() + 1 : -left->width();
        QCOMPARE(in->startValue().toPoint(), QPoint(-distance, 0));
        QCOMPARE(in->endValue().toPoint(), QPoint(0, 0));
        QCOMPARE(out->endValue().toPoint(), QPoint(distance, 0));
        QVERIFY(next->isVisible() && left->isVisible());

        // Larger in the middle of it: the one that comes fills the window, and still lands in its corner.
        window.window.setMaximumSize(QWIDGETSIZE_MAX, QWIDGETSIZE_MAX);
        window.window.resize(window.window.size() + QSize(200, 100));
        QTRY_COMPARE(next->size(), window.window.container()->size());
        QCOMPARE(in->endValue().toPoint(), QPoint(0, 0));
        QCOMPARE(in->startValue().toPoint().x(), backwards ? -next->width() - 1 : left->width());
    }

    void windowFitsTheScreen()
    {
        Window window;
        const auto content = [&] { return window.window.container()->size(); };
        QTRY_COMPARE(content(), CVTheme::initialSize());
        QCOMPARE(window.window.minimumSize(), window.window.maximumSize());
        window.run(u"options"_s);
        QTRY_COMPARE(content(), QSize(700, 500));
        QVERIFY(window.window.maximumSize().width() > 5000);
        QVERIFY(window.waitUntilStill());
        window.run(u"create"_s);
        QTRY_COMPARE(content(), CVTheme::initialSize());
        QCOMPARE(window.window.minimumSize(), window.window.maximumSize());
        // The list never had the size of the small window.
        QCOMPARE(window.screen(u"options"_s).view()->size(), QSize(700, 500));
        QVERIFY(window.waitUntilStill());
        window.run(u"back"_s);
        QTRY_COMPARE(content(), QSize(700, 500));
    }

    void windowGrowsWithTheSlide_data()
    {
        QTest::addColumn<bool>("reduced");
        QTest::newRow("motion") << false;
        QTest::newRow("none") << true;
    }

    void windowGrowsWithTheSlide()
    {
        QFETCH(bool, reduced);
        CVTheme::setReducedMotion(reduced);
        Window window;
        window.navigation.slideAnimation()->setSpeed(1);
        const auto content = [&] { return window.window.container()->size(); };
        window.run(u"options"_s);
        // What comes in does not have to lay itself out anew on the way.
        QCOMPARE(window.screen(u"options"_s).view()->size(), QSize(700, 500));
        if (!reduced) {
            QVERIFY(content().width() < 600);
            QTRY_VERIFY(content().width() > CVTheme::initialSize().width() && content().width() < 700);
        }
        QTRY_COMPARE(content(), QSize(700, 500));
        QVERIFY(window.waitUntilStill());
        QCOMPARE(content(), QSize(700, 500));
        QVERIFY(window.window.maximumSize().width() > 5000);
    }

    void keysBelongToTheCurrentScreen()
    {
        Window window;
        window.window.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&window.window));
        window.run(u"create"_s);
        QVERIFY(window.waitUntilStill());
        QCOMPARE(window.window.focusWidget(), window.screen(u"create"_s).edit);
        QTest::keyClick(&window.window, Qt::Key_Escape);
        QCOMPARE(window.screen(u"create"_s).cancelled, 1);
        QCOMPARE(window.screen(u"dropBox"_s).cancelled, 0);
        QCOMPARE(window.window.toolbar()->item(u"done"_s), window.screen(u"create"_s).action(u"done"_s));
        QCOMPARE(window.window.actionMenu()->actions().size(), 2);
        // Tab goes round without ever coming to a screen that is not on show.
        for (int i = 0; i < 12; ++i) {
            QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
            const QWidget *focused = QApplication::focusWidget();
            QVERIFY(focused->isVisible());
            QVERIFY(!window.screen(u"dropBox"_s).view()->isAncestorOf(focused));
        }
    }

    // A second Return in haste must not answer the question that comes next.
    void returnWaitsForTheSlide()
    {
        Window window;
        window.window.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&window.window));
        window.navigation.slideAnimation()->setSpeed(0.3F);
        window.run(u"alert"_s);
        QTest::keyClick(window.window.focusWidget(), Qt::Key_Return);
        QCOMPARE(window.screen(u"alert"_s).pressed, 0);
        QCOMPARE(window.screen(u"dropBox"_s).pressed, 0);
        QTest::keyClick(window.window.focusWidget(), Qt::Key_Escape);
        QCOMPARE(window.screen(u"alert"_s).cancelled, 1);
        QVERIFY(window.waitUntilStill());
        QTest::keyClick(window.window.focusWidget(), Qt::Key_Return);
        QCOMPARE(window.screen(u"alert"_s).pressed, 1);
    }

    void buttonsInTheBarWorkWithKeys()
    {
        Window window;
        window.window.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&window.window));
        auto *button = window.window.toolbar()->findChild<QWidget *>(u"cancel"_s);
        QVERIFY(button);
        QCOMPARE(button->accessibleName(), u"Cancel"_s);
        button->setFocus();
        QTest::keyClick(button, Qt::Key_Return);
        QCOMPARE(window.screen(u"dropBox"_s).cancelled, 1);
        QCOMPARE(window.screen(u"dropBox"_s).pressed, 0);
        QTest::mouseClick(window.window.toolbar()->findChild<QWidget *>(u"done"_s), Qt::LeftButton);
        QCOMPARE(window.screen(u"dropBox"_s).pressed, 1);
    }

    void barsLeaveNothingBehind()
    {
        CVTheme::setReducedMotion(true);
        Window window;
        const auto parts = [&] { return window.window.toolbar()->findChildren<QObject *>().size(); };
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        const qsizetype before = parts();
        const qsizetype actions = window.window.actions().size();
        for (int i = 0; i < 50; ++i)
            window.run(i % 2 ? u"create"_s : u"progress"_s);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCOMPARE(parts(), before);
        QCOMPARE(window.window.actions().size(), actions);
    }

    void titleIsPlainText()
    {
        Window window;
        window.screen(u"create"_s).shownTitle = u"a[*]\u202Eb\n.zip"_s;
        window.run(u"create"_s);
        const QString title = window.window.windowTitle();
        QVERIFY2(title.contains(u"a[*][*]\\u{202e}b\\n.zip"_s), qPrintable(title));
        QVERIFY(!window.window.isWindowModified());
    }

    void closingDuringASlide_data()
    {
        QTest::addColumn<int>("steps");
        QTest::newRow("one slide") << 1;
        QTest::newRow("some waiting") << 3;
    }

    void closingDuringASlide()
    {
        QFETCH(int, steps);
        {
            Window window;
            window.navigation.slideAnimation()->setSpeed(10);
            for (const QString &name : QStringList{u"options"_s, u"create"_s, u"done"_s}.mid(0, steps))
                window.run(name);
            window.navigation.windowWillClose();
            window.window.close();
            QVERIFY(window.navigation.slideAnimation()->isIdle());
            QVERIFY(!window.navigation.mainWindow());
            window.run(u"progress"_s);
            QCOMPARE(window.screen(u"progress"_s).loaded, 0);
        }
        // Without a word to the navigation, and with a screen that goes in the middle of its slide.
        Window window;
        window.run(u"options"_s);
        window.run(u"create"_s);
        window.screens.erase(u"options"_s);
        QVERIFY(window.waitUntilStill());
        QCOMPARE(window.visible().join(u' '), u"create"_s);
    }
};

QTEST_MAIN(TestNavigation)
#include "tst_navigation.moc"
