#pragma once

#include "sandbox/LXSandboxFileAuthenticator.h"
#include "ui/window/CVWindowController.h"

#include <QObject>
#include <QStringList>

#include <memory>
#include <thread>
#include <vector>

class CVMainWindow;
class CVOperationQueue;
class LXApplicationBus;

/// The application with a window: the one queue of jobs, the windows on it, what it is started with and how
/// it ends. Main thread; needs LXMainThread and a QApplication, which should not quit with its last window.
///
/// The end: the windows go at once, their jobs are cancelled, and terminated() comes when the last job has
/// ended. Until then the event loop has to run, because jobs may wait for this thread.
class CVAppController final : public QObject, private CVWindowHost, private LXSandboxFileAuthenticatorDelegate
{
    Q_OBJECT

public:
    explicit CVAppController(QObject *parent = nullptr);
    /// Waits for jobs that are left; see terminate().
    ~CVAppController() override;

    /// What later starts send; before start(). Let go when the end begins, so that what is started from then
    /// on does not come to a process that is about to go.
    void setApplicationBus(std::unique_ptr<LXApplicationBus> bus);
    /// Before start(). The number, above 0, is stored with each launch; a person's first one takes over the
    /// settings in the file of an earlier program, which need not exist.
    void setVersion(int number, const QString &earlierSettings = {});
    /// Shows the first window. Its other screens and the files follow when it has been painted.
    void start(const QStringList &files);
    /// Nothing that was given at start waits any more.
    bool isLaunchComplete() const { return m_isLaunchComplete; }

    /// Absolute paths from the desktop; before the launch is complete they count as given at start.
    void openFiles(const QStringList &paths);
    /// With the activation token of whoever asked, or without one.
    void showMainWindow(const QString &activationToken = {});
    void terminate();
    bool isTerminating() const { return m_isTerminating; }

    /// The first one that is open; null when none is.
    CVWindowController *mainWindowController() const;
    std::vector<CVWindowController *> windowControllers() const;
    const std::shared_ptr<CVOperationQueue> &queue() const { return m_queue; }

Q_SIGNALS:
    void terminated();

private:
    void finishLaunching();
    void applyAppearance();
    CVWindowController *openMainWindow();

    void windowWasOpened(std::unique_ptr<CVWindowController> window) override;
    void windowWasClosed(CVWindowController &window) override;
    void windowNeedsToQuit() override;

    void fileAuthenticatorWillPromptWhetherToAuthorizeAllWithAlert(LXSandboxFileAuthenticator &,
                                                                   LXAlertRequest &request) override;
    void fileAuthenticatorWillRequestAuthorizationOfURL(LXSandboxFileAuthenticator &, const QString &path,
                                                        LXFolderChooserRequest &request) override;
    void fileAuthenticatorWillPromptWhetherToAuthorizeAllOrURL(LXSandboxFileAuthenticator &,
                                                               const QString &path,
                                                               LXAlertRequest &request) override;

    std::shared_ptr<CVOperationQueue> m_queue;
    std::unique_ptr<LXApplicationBus> m_bus;
    std::vector<std::unique_ptr<CVWindowController>> m_windows; ///< in the order of opening
    QStringList m_files;                                        ///< given before the launch was complete
    QString m_earlierSettings;
    int m_version = 0; ///< 0 when not known
    int m_widthObserver = 0;
    bool m_isLaunchComplete = false;
    bool m_isTerminating = false;
    bool m_hasDarkLook = false;
    std::thread m_waitsForJobs;
};
