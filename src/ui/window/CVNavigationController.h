#pragma once

#include "engine/control/CVNavigationDelegate.h"
#include "ui/base/CVScreenNavigator.h"
#include "ui/base/CVViewController.h"
#include "ui/window/CVSlideAnimation.h"

#include <QList>
#include <QObject>
#include <QPointer>

#include <chrono>
#include <functional>

class CVMainWindow;
class QAction;

/// What the navigation leaves to the window that it moves.
class CVNavigationHost
{
public:
    virtual ~CVNavigationHost() = default;
    virtual void navigationNeedsToOpenWindowAndExtractArchives(const QStringList &paths) = 0;
    virtual void navigationNeedsToCloseWindow() = 0;
    virtual void navigationNeedsToActivateApp() = 0;
};

/// Shows one screen at a time in a window: keeps the current one and those that can be returned to, slides
/// them in and out, fits the window to them, and gives them tool bar, Action menu and keys while they are
/// current.
///
/// Requests take effect at once for all but the eye: the stack, tool bar and menu change with the call,
/// the slide and the size of the window follow when their turn comes. Main thread. Window and screens are
/// borrowed.
class CVNavigationController final : public QObject,
                                     public CVNavigationDelegate,
                                     public CVScreenNavigator,
                                     private CVSlideAnimationDelegate
{
    Q_OBJECT

public:
    /// Screens that do not exist are null; requests for them are logged and otherwise without effect.
    struct Screens
    {
        CVViewController *dropBox = nullptr;
        CVViewController *fileAnalysis = nullptr;
        CVViewController *options = nullptr;
        CVViewController *create = nullptr;
        CVViewController *convert = nullptr;
        CVViewController *split = nullptr;
        CVViewController *progress = nullptr;
        CVViewController *password = nullptr;
        CVViewController *alert = nullptr;
        CVViewController *preview = nullptr;
        CVViewController *done = nullptr;
        CVViewController *multipleDone = nullptr;

        // What some of them are told before they are shown.
        std::function<void()> resetDropBox;
        std::function<void()> resetPreviewedArchives;
        std::function<void(const QString &path)> setSplitFile;
        std::function<void(const std::vector<std::shared_ptr<CVArchive>> &archives)> setupPreview;
        std::function<void(const QString &path)> showDone; ///< shows the screen itself
        std::function<void(const QStringList &paths, std::function<void()> whenSet)> setMultipleDoneFiles;
    };

    CVNavigationController(CVMainWindow *window, CVNavigationHost *host, QObject *parent = nullptr);
    ~CVNavigationController() override;

    /// The drop box must be there; others may come later.
    void setScreens(Screens screens);
    const Screens &screens() const { return m_screens; }
    /// Once, when the drop box is set: puts it into the window.
    void setup();

    /// Null before the first load and after a return to the drop box.
    CVViewController *currentViewController() const { return m_current; }
    /// The screen that is current, the drop box included.
    CVViewController *shownViewController() const { return m_shown; }
    QList<CVViewController *> previousViewControllers() const;
    CVSlideAnimation *slideAnimation() const { return m_slides; }
    bool isAtMain() const;

    /// The screens are told that they are left; nothing is loaded any more.
    void windowWillClose();
    void unloadDoneViews();

    // CVScreenNavigator
    void loadViewController(CVViewController &screen, bool backwards) override;
    void goBack() override;
    void backToMain() override;
    void goForwardToMain() override;
    void showCreateArchiveView() override;
    void showConvertArchiveView() override;
    void resizeBackToViewController(CVViewController &screen) override;
    QWidget *mainWindow() override;

    // CVNavigationDelegate
    QObject *controllerNeedsWindow(CVOperationController &) override;
    void controllerNeedsToLoadViewController(CVOperationController &, CVScreen &screen,
                                             bool backwards) override;
    void controllerNeedsToLoadProgressView(CVOperationController &) override;
    void controllerNeedsToLoadAnalysingView(CVOperationController &) override;
    void controllerNeedsToLoadCreateView(CVOperationController &) override;
    void controllerNeedsToLoadSplitViewWithFile(CVOperationController &, const QString &path) override;
    void controllerNeedsToLoadPreviewViewWithFiles(CVOperationController &,
                                                   const std::vector<std::shared_ptr<CVArchive>> &) override;
    void controllerNeedsToLoadDoneViewWithFileAtPath(CVOperationController &, const QString &path) override;
    void controllerNeedsToLoadMultipleDoneViewWithFiles(CVOperationController &,
                                                        const QStringList &paths) override;
    void controllerNeedsToGoBack(CVOperationController &) override;
    void controllerNeedsToGoBackIfNotAtMain(CVOperationController &) override;
    void controllerNeedsToGoBackToMainView(CVOperationController &) override;
    void controllerNeedsToGoForwardToMainView(CVOperationController &) override;
    bool controllerIsAtCreateView(CVOperationController &) override;
    bool controllerWindowIsVisible(CVOperationController &) override;
    void controllerNeedsToCloseWindow(CVOperationController &) override;
    void controllerNeedsToActivateApp(CVOperationController &) override;
    bool controllerIsShiftKeyHeld(CVOperationController &) override;
    void controllerNeedsToOpenWindowAndExtractArchives(CVOperationController &,
                                                       const QStringList &paths) override;
    void controllerNeedsFilePanel(CVOperationController &, FilePanel panel,
                                  std::function<void(std::optional<QStringList>)> done) override;

Q_SIGNALS:
    /// The screen is current; its slide may have to wait.
    void screenLoaded(CVViewController *screen);
    /// A slide has ended and the screen has the focus.
    void screenShown(CVViewController *screen);

private:
    void loadViewInController(CVViewController *screen, bool backwards);
    void giveBars(CVViewController &screen);
    void takeBars();
    void updateTitle();
    QSize fitWindow(const CVViewController &screen, std::chrono::milliseconds time = {});
    CVViewController *screenOf(const QWidget *view) const;

    void slideAnimationWillStart(QWidget *nextView) override;
    void slideAnimationDidEnd(QWidget *currentView) override;

    QPointer<CVMainWindow> m_window;
    CVNavigationHost *m_host;
    Screens m_screens;
    CVSlideAnimation *m_slides;
    QPointer<CVViewController> m_current;
    QPointer<CVViewController> m_shown; ///< has the bars; the current one, or the drop box after a reset
    QList<QPointer<CVViewController>> m_previous; ///< the last one is the next to go back to
    QList<QPointer<CVViewController>> m_loaded;   ///< all that were ever shown
    QList<QPointer<QAction>> m_windowActions;     ///< of the shown screen, for their keys
    bool m_isClosing = false;
};
