#include "ui/window/CVNavigationController.h"

#include "ui/base/CVFilePanels.h"
#include "ui/base/CVTheme.h"
#include "ui/base/CVToolbar.h"
#include "ui/base/CVViewController.h"
#include "ui/window/CVMainWindow.h"
#include "ui/window/CVSlideContainer.h"
#include "util/LXDisplay.h"

#include <QAction>
#include <QGuiApplication>
#include <QLoggingCategory>
#include <QMenu>

#include <algorithm>
#include <cmath>

using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(log, "corvane.ui.navigation")

constexpr float slideSeconds = 0.85F;

} // namespace

CVNavigationController::CVNavigationController(CVMainWindow *window, CVNavigationHost *host, QObject *parent)
    : QObject(parent)
    , m_window(window)
    , m_host(host)
    , m_slides(new CVSlideAnimation(window->container(), this))
{
    m_slides->setSpeed(slideSeconds);
    m_slides->setDelegate(this);
    connect(window, &CVMainWindow::measuresChanged, this, [this] {
        if (m_shown && !m_isClosing)
            fitWindow(*m_shown);
    });
}

CVNavigationController::~CVNavigationController() = default;

void CVNavigationController::setScreens(Screens screens)
{
    m_screens = std::move(screens);
}

void CVNavigationController::setup()
{
    CVViewController *dropBox = m_screens.dropBox;
    m_loaded.append(dropBox);
    giveBars(*dropBox);
    m_slides->setCurrentView(dropBox->view());
    fitWindow(*dropBox);
    dropBox->willLoadView();
    dropBox->didLoadView();
}

QList<CVViewController *> CVNavigationController::previousViewControllers() const
{
    return {m_previous.cbegin(), m_previous.cend()};
}

bool CVNavigationController::isAtMain() const
{
    return !m_current || m_current == m_screens.dropBox;
}

void CVNavigationController::windowWillClose()
{
    if (m_isClosing)
        return;
    m_isClosing = true;
    unloadDoneViews();
    takeBars();
    m_slides->setDelegate(nullptr);
    m_slides->stop();
    m_previous.clear();
    m_host = nullptr;
}

void CVNavigationController::unloadDoneViews()
{
    if (m_current)
        m_current->viewWillBeUnloaded();
    m_current = nullptr;
}

void CVNavigationController::loadViewController(CVViewController &screen, bool backwards)
{
    loadViewInController(&screen, backwards);
}

void CVNavigationController::loadViewInController(CVViewController *screen, bool backwards)
{
    if (m_isClosing)
        return;
    if (!screen) {
        qCWarning(log) << "asked for a screen that does not exist";
        return;
    }
    const QPointer<CVViewController> left = m_current;
    if (!m_loaded.contains(screen))
        m_loaded.append(screen);
    giveBars(*screen);
    if (left)
        left->viewWillBeUnloaded();
    screen->willLoadView();
    if (left && left != screen && left->canBeReturnedTo() && !backwards)
        m_previous.append(left);
    m_current = screen;
    updateTitle();
    m_slides->loadView(screen->view(), !backwards);
    Q_EMIT screenLoaded(screen);
}

void CVNavigationController::goBack()
{
    while (!m_previous.isEmpty()) {
        if (const QPointer<CVViewController> screen = m_previous.takeLast()) {
            loadViewInController(screen, true);
            return;
        }
    }
    backToMain();
}

void CVNavigationController::backToMain()
{
    if (m_isClosing)
        return;
    // Many jobs end with this request while the drop box is on show.
    if (!isAtMain() || m_slides->lastView() != m_screens.dropBox->view())
        loadViewInController(m_screens.dropBox, true);
    if (m_screens.resetPreviewedArchives)
        m_screens.resetPreviewedArchives();
    if (m_screens.resetDropBox)
        m_screens.resetDropBox();
    m_previous.clear();
    m_current = nullptr;
}

void CVNavigationController::goForwardToMain()
{
    loadViewInController(m_screens.dropBox, false);
}

void CVNavigationController::showCreateArchiveView()
{
    loadViewInController(m_screens.create, false);
}

void CVNavigationController::showConvertArchiveView()
{
    loadViewInController(m_screens.convert, false);
}

void CVNavigationController::resizeBackToViewController(CVViewController &screen)
{
    // A screen whose slide has yet to come gets its size with the slide.
    if (&screen == m_shown &&
        (m_slides->nextView() ? m_slides->nextView() : m_slides->currentView()) == screen.view())
        fitWindow(screen);
}

QWidget *CVNavigationController::mainWindow()
{
    return m_isClosing ? nullptr : m_window.data();
}

void CVNavigationController::giveBars(CVViewController &screen)
{
    takeBars();
    m_shown = &screen;
    screen.refreshToolbar(*m_window->toolbar());
    screen.refreshActionMenu(*m_window->actionMenu());
    // A key works for an action that stands in the window; one in a menu that was never opened might not.
    const QList<QAction *> inMenu = m_window->actionMenu()->actions();
    for (QAction *action : m_window->toolbar()->items() + inMenu) {
        if (!action->isSeparator() && !m_windowActions.contains(action)) {
            m_window->addAction(action);
            m_windowActions.append(action);
        }
    }
    connect(&screen, &CVViewController::sizeChanged, this,
            [this, &screen] { resizeBackToViewController(screen); });
    connect(&screen, &CVViewController::titleChanged, this, &CVNavigationController::updateTitle);
    connect(&screen, &CVViewController::toolbarChanged, this,
            [this, &screen] { screen.refreshToolbar(*m_window->toolbar()); });
    updateTitle();
}

void CVNavigationController::takeBars()
{
    if (m_shown)
        disconnect(m_shown, nullptr, this, nullptr);
    m_shown = nullptr;
    if (!m_window)
        return;
    for (const QPointer<QAction> &action : std::as_const(m_windowActions)) {
        if (action)
            m_window->removeAction(action);
    }
    m_windowActions.clear();
    m_window->actionMenu()->clear();
    m_window->toolbar()->clearItems();
}

void CVNavigationController::updateTitle()
{
    // The name of the program is put behind other titles by Qt.
    QString title = m_shown ? LXDisplay::displayEscaped(m_shown->title()) : QString();
    if (title.isEmpty())
        title = QGuiApplication::applicationDisplayName();
    // Qt puts the mark of unsaved changes in the place of this one.
    title.replace(u"[*]"_s, u"[*][*]"_s);
    m_window->setWindowTitle(title);
}

QSize CVNavigationController::fitWindow(const CVViewController &screen, std::chrono::milliseconds time)
{
    return m_window->fitToContent(screen.size().expandedTo(screen.view()->minimumSizeHint()),
                                  screen.view()->minimumSizeHint().expandedTo(CVTheme::initialSize()),
                                  screen.isResizable(), time);
}

CVViewController *CVNavigationController::screenOf(const QWidget *view) const
{
    for (const QPointer<CVViewController> &screen : m_loaded) {
        if (screen && screen->view() == view)
            return screen;
    }
    return nullptr;
}

// The window grows or shrinks with the slide. The one that comes in has the larger of the sizes on both ends,
// so it shows all of itself and covers the window; the one that goes keeps its own.
void CVNavigationController::slideAnimationWillStart(QWidget *nextView)
{
    if (QWidget *focused = m_window->focusWidget();
        !focused || m_window->container()->isAncestorOf(focused) || focused == m_window->container())
        static_cast<CVSlideContainer *>(m_window->container())->holdKeyboard();
    const CVViewController *screen = screenOf(nextView);
    if (!screen)
        return;
    const auto time = std::chrono::milliseconds(std::lround(m_slides->speed() * 1000));
    m_slides->setNextSize(fitWindow(*screen, CVTheme::reducedMotion() ? std::chrono::milliseconds(0) : time));
}

void CVNavigationController::slideAnimationDidEnd(QWidget *currentView)
{
    m_window->finishFitting();
    CVViewController *screen = screenOf(currentView);
    if (!screen)
        return;
    if (screen == m_shown) {
        screen->didLoadView();
        if (m_window->focusWidget() == m_window->container())
            currentView->setFocus(Qt::OtherFocusReason);
    }
    Q_EMIT screenShown(screen);
}

QObject *CVNavigationController::controllerNeedsWindow(CVOperationController &)
{
    return mainWindow();
}

void CVNavigationController::controllerNeedsToLoadViewController(CVOperationController &, CVScreen &screen,
                                                                 bool backwards)
{
    loadViewInController(dynamic_cast<CVViewController *>(&screen), backwards);
}

void CVNavigationController::controllerNeedsToLoadProgressView(CVOperationController &)
{
    loadViewInController(m_screens.progress, false);
}

void CVNavigationController::controllerNeedsToLoadAnalysingView(CVOperationController &)
{
    loadViewInController(m_screens.fileAnalysis, false);
}

void CVNavigationController::controllerNeedsToLoadCreateView(CVOperationController &)
{
    showCreateArchiveView();
}

void CVNavigationController::controllerNeedsToLoadSplitViewWithFile(CVOperationController &,
                                                                    const QString &path)
{
    if (m_screens.setSplitFile && !m_isClosing)
        m_screens.setSplitFile(path);
    loadViewInController(m_screens.split, false);
}

void CVNavigationController::controllerNeedsToLoadPreviewViewWithFiles(
    CVOperationController &, const std::vector<std::shared_ptr<CVArchive>> &archives)
{
    if (m_screens.setupPreview && !m_isClosing)
        m_screens.setupPreview(archives);
    loadViewInController(m_screens.preview, false);
}

void CVNavigationController::controllerNeedsToLoadDoneViewWithFileAtPath(CVOperationController &,
                                                                         const QString &path)
{
    if (m_screens.showDone && !m_isClosing)
        m_screens.showDone(path);
}

void CVNavigationController::controllerNeedsToLoadMultipleDoneViewWithFiles(CVOperationController &,
                                                                            const QStringList &paths)
{
    if (!m_screens.setMultipleDoneFiles || m_isClosing)
        return;
    const QPointer<CVNavigationController> self = this;
    m_screens.setMultipleDoneFiles(paths, [self] {
        if (self)
            self->loadViewInController(self->m_screens.multipleDone, false);
    });
}

void CVNavigationController::controllerNeedsToGoBack(CVOperationController &)
{
    goBack();
}

void CVNavigationController::controllerNeedsToGoBackIfNotAtMain(CVOperationController &)
{
    if (!isAtMain())
        goBack();
}

void CVNavigationController::controllerNeedsToGoBackToMainView(CVOperationController &)
{
    backToMain();
}

void CVNavigationController::controllerNeedsToGoForwardToMainView(CVOperationController &)
{
    goForwardToMain();
}

bool CVNavigationController::controllerIsAtCreateView(CVOperationController &)
{
    return m_current && m_current == m_screens.create;
}

bool CVNavigationController::controllerWindowIsVisible(CVOperationController &)
{
    return m_window && !m_isClosing && m_window->isVisible();
}

void CVNavigationController::controllerNeedsToCloseWindow(CVOperationController &)
{
    if (m_host)
        m_host->navigationNeedsToCloseWindow();
}

void CVNavigationController::controllerNeedsToActivateApp(CVOperationController &)
{
    if (m_host)
        m_host->navigationNeedsToActivateApp();
}

bool CVNavigationController::controllerIsShiftKeyHeld(CVOperationController &)
{
    // Asks the window system: during a drag no key reaches us.
    return QGuiApplication::queryKeyboardModifiers().testFlag(Qt::ShiftModifier);
}

void CVNavigationController::controllerNeedsToOpenWindowAndExtractArchives(CVOperationController &,
                                                                           const QStringList &paths)
{
    if (m_host)
        m_host->navigationNeedsToOpenWindowAndExtractArchives(paths);
}

void CVNavigationController::controllerNeedsFilePanel(CVOperationController &, FilePanel panel,
                                                      std::function<void(std::optional<QStringList>)> done)
{
    if (m_isClosing) {
        done(std::nullopt);
        return;
    }
    const bool isAdding = panel == FilePanel::AddFiles;
    CVFilePanels::chooseFiles(m_window, isAdding ? tr("Add Files") : tr("Open"),
                              isAdding ? tr("&Add") : tr("&Open"), std::move(done));
}
