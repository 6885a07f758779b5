#pragma once

#include "engine/control/CVScreens.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

class CVArchive;
class CVOperationController;
class CVOperationQueue;
class QObject;

/// What the controller of a window asks of the window: which screen is shown, and the few things that
/// only a window system knows.
///
/// Thread: the main thread only; the controller hops. Every call returns at once: slides run afterwards,
/// one after the other, in the order of the calls.
class CVNavigationDelegate
{
public:
    virtual ~CVNavigationDelegate() = default;

    /// Null once the window is closing.
    virtual QObject *controllerNeedsWindow(CVOperationController &) = 0;

    virtual void controllerNeedsToLoadViewController(CVOperationController &, CVScreen &screen,
                                                     bool backwards) = 0;
    virtual void controllerNeedsToLoadProgressView(CVOperationController &) = 0;
    virtual void controllerNeedsToLoadAnalysingView(CVOperationController &) = 0;
    virtual void controllerNeedsToLoadCreateView(CVOperationController &) = 0;
    virtual void controllerNeedsToLoadSplitViewWithFile(CVOperationController &, const QString &path) = 0;
    virtual void
    controllerNeedsToLoadPreviewViewWithFiles(CVOperationController &,
                                              const std::vector<std::shared_ptr<CVArchive>> &archives) = 0;
    virtual void controllerNeedsToLoadDoneViewWithFileAtPath(CVOperationController &,
                                                             const QString &path) = 0;
    virtual void controllerNeedsToLoadMultipleDoneViewWithFiles(CVOperationController &,
                                                                const QStringList &paths) = 0;
    virtual void controllerNeedsToGoBack(CVOperationController &) = 0;
    virtual void controllerNeedsToGoBackIfNotAtMain(CVOperationController &) = 0;
    virtual void controllerNeedsToGoBackToMainView(CVOperationController &) = 0;
    virtual void controllerNeedsToGoForwardToMainView(CVOperationController &) = 0;
    virtual bool controllerIsAtCreateView(CVOperationController &) = 0;

    /// False when it is hidden or closed.
    virtual bool controllerWindowIsVisible(CVOperationController &) = 0;
    virtual void controllerNeedsToCloseWindow(CVOperationController &) = 0;
    /// Brings the application to the front.
    virtual void controllerNeedsToActivateApp(CVOperationController &) = 0;
    virtual bool controllerIsShiftKeyHeld(CVOperationController &) = 0;

    /// A further window on the same queue that extracts these archives.
    virtual void controllerNeedsToOpenWindowAndExtractArchives(CVOperationController &,
                                                               const QStringList &paths) = 0;

    enum class FilePanel {
        Open,     ///< files and folders to work on
        AddFiles, ///< more of them
    };
    /// A panel for several files and folders as a sheet on the window. `done` is called once, with
    /// nothing when it was cancelled.
    virtual void controllerNeedsFilePanel(CVOperationController &, FilePanel panel,
                                          std::function<void(std::optional<QStringList> paths)> done) = 0;
};
