#pragma once

#include "platform/desktop/LXApplicationBus.h"
#include "ui/window/CVAppController.h"

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

class CVMainWindow;
class CVNavigationController;
class CVOperationController;
class CVViewController;
class CVWindowController;

/// The real application in this process, used as a person uses it: drops, clicks and keys through the event
/// system. Its home, settings and files lie in a scratch folder. One at a time, in a QTEST_MAIN program.
///
///     WindowDriver driver;
///     QVERIFY(driver.start());
///     QVERIFY(driver.drop({archive}));
///     QVERIFY(driver.waitForScreen(u"preview"_s));
///     driver.picture(u"preview"_s);
///     QVERIFY(driver.click(u"extract"_s));
///     QVERIFY(driver.waitForScreen(u"done"_s));
///     QVERIFY(driver.end());
///
/// Screens are known by their names in CVNavigationController::Screens. Functions that wait answer false
/// after a generous time. With more than one window, all of this is about `window`, counted in order of
/// opening.
class WindowDriver
{
public:
    enum class Motion { Reduced, Full };

    explicit WindowDriver(Motion motion = Motion::Reduced);
    /// end().
    ~WindowDriver();
    WindowDriver(const WindowDriver &) = delete;
    WindowDriver &operator=(const WindowDriver &) = delete;

    /// Below it: "home". Gone with the driver.
    QString folder() const { return m_folder.path(); }
    QString path(const QString &relative) const { return m_folder.filePath(relative); }
    /// Written with the folders above it; gives the path.
    QString makeFile(const QString &relative, const QByteArray &content) const;
    /// Runs an installed tool in the folder.
    bool runTool(const QString &program, const QStringList &arguments) const;

    /// What later starts send; before start().
    void setApplicationBus(std::unique_ptr<LXApplicationBus> bus);
    /// As with these words on the command line; waits until the launch is complete.
    bool start(const QStringList &files = {});
    /// Quits, and waits until every job has ended.
    bool end();
    bool hasEnded() const { return !m_app; }

    CVAppController &app() { return *m_app; }
    int window = 0; ///< which one is driven
    CVWindowController *windowController() const;
    CVMainWindow *mainWindow() const;
    CVNavigationController &navigation() const;
    CVOperationController &operations() const;

    /// The screen on show, with no slide under way; empty in between.
    QString screenName() const;
    CVViewController *screen(const QString &name) const;
    bool waitForScreen(const QString &name, int milliseconds = 30000) const;
    /// No job of any window waits or runs, and nothing slides.
    bool waitForJobs(int milliseconds = 60000) const;
    bool waitForWindows(int count, int milliseconds = 30000) const;

    /// Files over the middle of the window: enter, move and drop. False when nothing takes them.
    bool drop(const QStringList &paths) const;
    /// With the mouse, on the item of the tool bar; false when the screen has none, or it is disabled.
    bool click(const QString &identifier) const;
    /// With the mouse, on the widget with this object name in the current screen or in a panel of the window.
    bool clickWidget(const QString &objectName) const;
    void press(int key, Qt::KeyboardModifiers modifiers = Qt::NoModifier) const;
    /// Into what has the focus.
    void type(const QString &text) const;

    /// Keeps <name>.png and <name>-dark.png of the window in the pictures folder of the build.
    void picture(const QString &name) const;

private:
    QTemporaryDir m_folder;
    std::unique_ptr<LXApplicationBus> m_bus;
    std::unique_ptr<CVAppController> m_app;
};
