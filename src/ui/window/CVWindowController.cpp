#include "ui/window/CVWindowController.h"

#include "engine/control/CVOperationController.h"
#include "ui/base/CVTheme.h"
#include "ui/base/CVViewController.h"
#include "ui/window/CVMainWindow.h"
#include "ui/window/CVWindowScreens.h"
#include "util/LXConfinement.h"

#include <QAction>
#include <QGuiApplication>
#include <QMenu>
#include <QMessageBox>

using namespace Qt::StringLiterals;

CVWindowController::CVWindowController(std::shared_ptr<CVOperationQueue> queue, CVWindowHost *host)
    : m_queue(std::move(queue))
    , m_host(host)
    , m_window(std::make_unique<CVMainWindow>())
    , m_controller(CVOperationController::create(m_queue))
    , m_navigation(new CVNavigationController(m_window.get(), this, this))
    , m_screens(new CVWindowScreens(*m_controller, *m_navigation, this))
{
    m_controller->setDelegate(m_navigation);
    m_window->setCloseHandler([this] { return windowMayClose(); });
    makeMenus();
    m_navigation->setup();
    // A job that goes on behind a closed window comes back into sight where it asks or tells something.
    connect(m_navigation, &CVNavigationController::screenLoaded, this, [this] {
        if (!m_isClosed && m_window->wasHiddenByClose() && !canWorkUnseen() && !m_navigation->isAtMain())
            m_window->bringToFront();
    });
}

CVWindowController::~CVWindowController()
{
    m_host = nullptr;
    windowWillClose();
    // Screens go before the window that has their views.
    delete m_screens;
    delete m_navigation;
}

void CVWindowController::openWindowAndExtractArchives(const QStringList &paths,
                                                      const std::shared_ptr<CVOperationQueue> &queue,
                                                      CVWindowHost *host)
{
    auto opened = std::make_unique<CVWindowController>(queue, host);
    const std::shared_ptr<CVOperationController> controller = opened->m_controller;
    opened->setupViewControllers();
    opened->showWindow();
    host->windowWasOpened(std::move(opened));
    controller->addAndExtractArchives(paths);
    controller->setLaunchComplete();
}

void CVWindowController::setupViewControllers()
{
    m_screens->setupViewControllers();
}

void CVWindowController::showWindow()
{
    m_window->bringToFront();
}

void CVWindowController::makeMenus()
{
    const auto add = [this](QMenu *menu, const QString &identifier, const QString &text,
                            const QKeySequence &key, auto triggered) {
        QAction *action = menu->addAction(text);
        action->setObjectName(identifier);
        action->setShortcut(key);
        action->setAutoRepeat(false);
        connect(action, &QAction::triggered, this, [this, triggered] {
            if (!m_isClosed)
                triggered();
        });
        return action;
    };
    QMenu *file = m_window->fileMenu();
    add(file, u"menuOpen"_s, tr("&Open…"), QKeySequence::Open, [this] { m_controller->openFile(); });
    QAction *cleanUp = add(file, u"menuCleanUp"_s, tr("Clean &Up…"), {}, [this] {
        if (!m_controller->isWorkingOnOperation())
            m_controller->cleanUpWorkDirectories();
    });
    connect(file, &QMenu::aboutToShow, this,
            [this, cleanUp] { cleanUp->setEnabled(!m_isClosed && !m_controller->isWorkingOnOperation()); });
    file->addSeparator();
    add(file, u"menuClose"_s, tr("&Close"), QKeySequence(Qt::CTRL | Qt::Key_W),
        [this] { m_window->close(); });
    add(file, u"menuQuit"_s, tr("&Quit"), QKeySequence(Qt::CTRL | Qt::Key_Q), [this] {
        m_host->windowNeedsToQuit();
    })->setMenuRole(QAction::QuitRole);
    add(m_window->helpMenu(), u"menuAbout"_s, tr("&About Corvane"), {}, [this] {
        showAbout();
    })->setMenuRole(QAction::AboutRole);
}

void CVWindowController::showAbout()
{
    auto *about = new QMessageBox(m_window.get());
    about->setAttribute(Qt::WA_DeleteOnClose);
    about->setObjectName(u"about"_s);
    about->setWindowTitle(tr("About Corvane"));
    about->setTextFormat(Qt::PlainText);
    about->setIconPixmap(CVTheme::icon(u"app/corvane"_s).pixmap(CVTheme::scaled(64)));
    about->setText(tr("Corvane %1").arg(QGuiApplication::applicationVersion()));
    about->setInformativeText(tr("Opens, packs, converts, splits and joins archives.") + u"\n\n"_s +
                              LXConfinement::description());
    about->setStandardButtons(QMessageBox::Close);
    about->open();
}

bool CVWindowController::canWorkUnseen() const
{
    const CVViewController *shown = m_navigation->shownViewController();
    const CVNavigationController::Screens &screens = m_navigation->screens();
    return m_controller->extractInPlace() && m_controller->isWorkingOnOperation() && shown &&
           (shown == screens.progress || shown == screens.fileAnalysis);
}

bool CVWindowController::windowMayClose()
{
    if (m_isClosed)
        return true;
    if (canWorkUnseen()) {
        m_window->hideByClose();
        return false;
    }
    windowWillClose();
    return true;
}

void CVWindowController::close()
{
    windowWillClose();
    m_window->hide();
}

void CVWindowController::windowWillClose()
{
    if (m_isClosed)
        return;
    m_isClosed = true;
    m_screens->windowWillClose();
    m_controller->windowWillClose();
    m_navigation->windowWillClose();
    if (m_host)
        m_host->windowWasClosed(*this);
}

void CVWindowController::navigationNeedsToOpenWindowAndExtractArchives(const QStringList &paths)
{
    openWindowAndExtractArchives(paths, m_queue, m_host);
}

void CVWindowController::navigationNeedsToCloseWindow()
{
    close();
}

void CVWindowController::navigationNeedsToActivateApp()
{
    m_window->bringToFront();
}
