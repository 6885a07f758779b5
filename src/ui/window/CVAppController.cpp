#include "ui/window/CVAppController.h"

#include "engine/control/CVOperationController.h"
#include "engine/model/CVOldPreferencesImporter.h"
#include "engine/model/CVOpenedEntries.h"
#include "engine/model/CVOperationHelper.h"
#include "engine/model/CVOperationQueue.h"
#include "engine/model/CVSettings.h"
#include "platform/LXDesktopAppearance.h"
#include "platform/LXUserNotifications.h"
#include "platform/desktop/LXApplicationBus.h"
#include "sandbox/CVFileAuthenticator.h"
#include "ui/base/CVDarkLook.h"
#include "ui/base/CVFilePanels.h"
#include "ui/base/CVTheme.h"
#include "ui/window/CVMainWindow.h"
#include "util/LXBackground.h"
#include "util/LXMainThread.h"

#include <QApplication>
#include <QPointer>
#include <QTimer>

#include <algorithm>
#include <chrono>

namespace {

/// A window that starts minimised, or on another desktop, may never be painted.
constexpr std::chrono::milliseconds paintingLimit{1000};

int queueWidth()
{
    return static_cast<int>(
        std::clamp<qint64>(CVSettings::integer(CVSettingsKey::numberOfSimultaneousOperations), 1, 1000));
}

// What was opened from an archive and changed there.
void tellKept(const QStringList &folders)
{
    if (!folders.isEmpty())
        LXUserNotifications::shared()->post(CVOpenedEntries::titleAboutKept(),
                                            CVOpenedEntries::textAboutKept(folders));
}

} // namespace

CVAppController::CVAppController(QObject *parent)
    : QObject(parent)
    , m_queue(std::make_shared<CVOperationQueue>(queueWidth()))
{
    CVSettings::store()->spareMainThread();
    // Called on whatever thread changes the setting, perhaps while this object goes.
    m_widthObserver = CVSettings::observe(CVSettingsKey::numberOfSimultaneousOperations,
                                          [weak = std::weak_ptr(m_queue)](const QString &) {
                                              if (const auto queue = weak.lock())
                                                  queue->setWidth(queueWidth());
                                          });
    const QPointer<CVAppController> self = this;
    const auto panels = std::make_shared<CVPanelServices>([self]() -> QWidget * {
        CVWindowController *main = self ? self->mainWindowController() : nullptr;
        return main ? main->window() : nullptr;
    });
    CVOperationHelper::setDestinationChooser(panels);
    LXSandboxFileAuthenticator::Services services;
    services.store = CVSettings::store();
    services.folderChooser = panels;
    services.alerts = panels;
    services.applicationName = QGuiApplication::applicationDisplayName();
    CVFileAuthenticator::setServices(std::move(services));
}

CVAppController::~CVAppController()
{
    CVSettings::removeObserver(m_widthObserver);
    LXDesktopAppearance::shared()->observe({});
    CVOperationHelper::setDestinationChooser(nullptr);
    if (m_isLaunchComplete)
        CVFileAuthenticator::fileAuthenticator()->setDelegate(nullptr);
    m_isTerminating = true;
    m_windows.clear();
    if (m_waitsForJobs.joinable())
        m_waitsForJobs.join();
}

void CVAppController::setApplicationBus(std::unique_ptr<LXApplicationBus> bus)
{
    m_bus = std::move(bus);
    connect(m_bus.get(), &LXApplicationBus::activated, this, &CVAppController::showMainWindow);
    connect(m_bus.get(), &LXApplicationBus::opened, this,
            [this](const QStringList &paths, const QString &token) {
                showMainWindow(token);
                openFiles(paths);
            });
}

void CVAppController::setVersion(int number, const QString &earlierSettings)
{
    m_version = number;
    m_earlierSettings = earlierSettings;
}

void CVAppController::start(const QStringList &files)
{
    m_files = files;
    if (!m_earlierSettings.isEmpty())
        CVOldPreferencesImporter(m_earlierSettings).importSettingsFromOldVersion();
    applyAppearance();
    CVMainWindow *window = openMainWindow()->window();
    connect(window, &CVMainWindow::firstPainted, this, &CVAppController::finishLaunching);
    QTimer::singleShot(paintingLimit, this, &CVAppController::finishLaunching);
}

CVWindowController *CVAppController::openMainWindow()
{
    CVWindowHost *host = this;
    m_windows.push_back(std::make_unique<CVWindowController>(m_queue, host));
    m_windows.back()->showWindow();
    return m_windows.back().get();
}

void CVAppController::finishLaunching()
{
    if (m_isLaunchComplete || m_isTerminating)
        return;
    LXDesktopAppearance::shared()->observe([this] { applyAppearance(); });
    applyAppearance();
    CVFileAuthenticator::fileAuthenticator()->setDelegate(this);
    CVWindowController *main = mainWindowController();
    main->setupViewControllers();
    if (!m_files.isEmpty())
        main->operationController()->openFiles(m_files);
    m_files.clear();
    m_isLaunchComplete = true;
    main->operationController()->setLaunchComplete();
    runInBackground([self = QPointer(this)] {
        const QStringList kept = CVOpenedEntries::letGoOfLeftOvers();
        const std::optional<LXError> problem = CVSettings::problem();
        LXMainThread::post([self, kept, problem] {
            tellKept(kept);
            if (CVWindowController *window = self && problem ? self->mainWindowController() : nullptr)
                window->operationController()->tell(*problem);
        });
    });
    // Only now: it is written to disk.
    if (m_version > 0 && CVSettings::integer(CVSettingsKey::lastLaunchedVersion) != m_version)
        CVSettings::setValue(CVSettingsKey::lastLaunchedVersion, m_version);
}

void CVAppController::openFiles(const QStringList &paths)
{
    if (m_isTerminating)
        return;
    if (!m_isLaunchComplete) {
        m_files.append(paths);
        return;
    }
    mainWindowController()->operationController()->openFiles(paths);
}

void CVAppController::showMainWindow(const QString &activationToken)
{
    if (m_isTerminating)
        return;
    // The window system takes the token from here when a window asks to come to the front.
    if (!activationToken.isEmpty())
        qputenv("XDG_ACTIVATION_TOKEN", activationToken.toUtf8());
    mainWindowController()->showWindow();
}

void CVAppController::terminate()
{
    if (m_isTerminating)
        return;
    m_isTerminating = true;
    if (m_bus)
        m_bus.release()->deleteLater();
    while (!m_windows.empty())
        m_windows.front()->close();
    m_waitsForJobs = std::thread([queue = m_queue, self = QPointer(this)] {
        // Not on this thread, which the jobs may need to come to their end.
        queue->shutdown();
        (void)CVSettings::flush();
        const QStringList kept = CVOpenedEntries::letGoOfAll();
        LXMainThread::post([self, kept] {
            tellKept(kept);
            if (self)
                Q_EMIT self->terminated();
        });
    });
}

CVWindowController *CVAppController::mainWindowController() const
{
    return m_windows.empty() ? nullptr : m_windows.front().get();
}

std::vector<CVWindowController *> CVAppController::windowControllers() const
{
    std::vector<CVWindowController *> windows;
    for (const auto &window : m_windows)
        windows.push_back(window.get());
    return windows;
}

void CVAppController::applyAppearance()
{
    const std::shared_ptr<LXDesktopAppearance> appearance = LXDesktopAppearance::shared();
    CVTheme::setReducedMotion(appearance->reducedMotion());
    // Where Qt knows the desktop, its palette is dark already.
    const bool wantsDark = appearance->scheme() == LXDesktopAppearance::Scheme::Dark;
    if (wantsDark && !CVTheme::isDark(QApplication::palette()))
        m_hasDarkLook = true;
    else if (!wantsDark)
        m_hasDarkLook = false;
    CVDarkLook::setActive(m_hasDarkLook);
}

void CVAppController::windowWasOpened(std::unique_ptr<CVWindowController> window)
{
    m_windows.push_back(std::move(window));
}

void CVAppController::windowWasClosed(CVWindowController &window)
{
    const auto found =
        std::ranges::find(m_windows, &window, [](const auto &candidate) { return candidate.get(); });
    if (found == m_windows.end())
        return;
    // Its own events have brought us here.
    found->release()->deleteLater();
    m_windows.erase(found);
    if (m_windows.empty())
        terminate();
}

void CVAppController::windowNeedsToQuit()
{
    terminate();
}

void CVAppController::fileAuthenticatorWillPromptWhetherToAuthorizeAllWithAlert(LXSandboxFileAuthenticator &,
                                                                                LXAlertRequest &request)
{
    request.message = CVFileAuthenticator::message();
}

void CVAppController::fileAuthenticatorWillRequestAuthorizationOfURL(LXSandboxFileAuthenticator &,
                                                                     const QString &,
                                                                     LXFolderChooserRequest &request)
{
    request.title = CVFileAuthenticator::message();
}

void CVAppController::fileAuthenticatorWillPromptWhetherToAuthorizeAllOrURL(LXSandboxFileAuthenticator &,
                                                                            const QString &,
                                                                            LXAlertRequest &request)
{
    request.message = CVFileAuthenticator::message();
}
