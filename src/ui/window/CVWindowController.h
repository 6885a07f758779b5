#pragma once

#include "ui/window/CVNavigationController.h"

#include <QObject>
#include <QStringList>

#include <memory>

class CVMainWindow;
class CVOperationController;
class CVOperationQueue;
class CVWindowController;
class CVWindowScreens;
class QAction;

/// What a window asks of the application.
class CVWindowHost
{
public:
    virtual ~CVWindowHost() = default;
    /// Takes the new window into its care.
    virtual void windowWasOpened(std::unique_ptr<CVWindowController> window) = 0;
    virtual void windowWasClosed(CVWindowController &window) = 0;
    virtual void windowNeedsToQuit() = 0;
};

/// One window: makes its controller, its navigation and its screens, and sets them on each other. Main
/// thread.
class CVWindowController final : public QObject, private CVNavigationHost
{
    Q_OBJECT

public:
    CVWindowController(std::shared_ptr<CVOperationQueue> queue, CVWindowHost *host);
    ~CVWindowController() override;

    /// A further window on the same queue; its job starts at once.
    static void openWindowAndExtractArchives(const QStringList &paths,
                                             const std::shared_ptr<CVOperationQueue> &queue,
                                             CVWindowHost *host);

    CVMainWindow *window() const { return m_window.get(); }
    CVOperationController *operationController() const { return m_controller.get(); }
    CVNavigationController *navController() const { return m_navigation; }

    /// The screens behind the drop box. Once, before files are handed to the controller.
    void setupViewControllers();
    void showWindow();
    /// As the person does it: jobs are cancelled and questions answered safely.
    void close();

private:
    void makeMenus();
    void showAbout();
    bool windowMayClose();
    void windowWillClose();
    /// Only the picture of work going on is on show, so the window can go while the job stays.
    bool canWorkUnseen() const;

    void navigationNeedsToOpenWindowAndExtractArchives(const QStringList &paths) override;
    void navigationNeedsToCloseWindow() override;
    void navigationNeedsToActivateApp() override;

    const std::shared_ptr<CVOperationQueue> m_queue;
    CVWindowHost *m_host;
    std::unique_ptr<CVMainWindow> m_window;
    std::shared_ptr<CVOperationController> m_controller;
    CVNavigationController *m_navigation = nullptr;
    CVWindowScreens *m_screens = nullptr;
    bool m_isClosed = false;
};
