#pragma once

#include "engine/control/CVNavigationDelegate.h"
#include "engine/control/CVOperationController.h"
#include "engine/control/CVScreens.h"
#include "engine/model/CVEditArchiveOperationDataBinding.h"
#include "engine/model/CVOperationQueue.h"
#include "engine/model/CVSplitOperationDataBinding.h"
#include "platform/LXFileViewer.h"
#include "platform/LXSystemSound.h"
#include "platform/LXUserNotifications.h"
#include "platform/LXWorkspace.h"

#include <QObject>
#include <QStringList>
#include <QTemporaryDir>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

/// What a window was asked to do, in words and in order, from all recorders of a window and from the
/// desktop's services. Any thread.
class WindowLog
{
public:
    void note(const QString &event);
    /// Without what comes only as an aside ("sound", "told …", "revealed …").
    QStringList screens() const;
    QStringList all() const;
    /// Events that begin like this.
    qsizetype count(const QString &start) const;
    void clear();

private:
    mutable std::mutex m_mutex;
    QStringList m_events;
};

/// A window whose screens only write down what happens to them, on a real controller and queue, with settings
/// and a desktop of its own. Destroying it closes the window.
class RecordedWindow final : public CVNavigationDelegate
{
public:
    RecordedWindow();
    ~RecordedWindow() override;

    QString at(const QString &name) const { return m_root.filePath(name); }
    /// Waits until no job runs and nothing is asked; false when that takes too long.
    bool idle();
    /// Waits until the log holds this event.
    bool reaches(const QString &event);
    void close();
    void pack(const QString &archive, const QStringList &files) const;
    void write(const QString &name, const QByteArray &contents) const;
    QStringList names(const QString &folder) const;
    /// a.zip, b.zip and broken.zip, and a.txt and b.txt that are in them; the launch is complete.
    void makeArchives();
    /// Drops them, and waits for the preview.
    bool showsPreviewOf(const QStringList &archives);

    WindowLog log;
    std::shared_ptr<CVOperationQueue> queue;
    std::shared_ptr<CVOperationController> controller;
    std::shared_ptr<CVCreateOperationDataBinding> createData;
    std::shared_ptr<CVConvertOperationDataBinding> convertData;
    std::shared_ptr<CVSplitOperationDataBinding> splitData;

    // What the person does.
    std::function<std::optional<int>(const QString &message)> answerAlert; ///< nothing: lets it stand
    std::function<std::optional<QString>()> answerPassword;                ///< nothing: cancels
    bool letsPasswordStand = false;
    bool holdsShift = false;
    bool isVisible = true;
    bool isAtCreateView = false;
    std::optional<QStringList> panelAnswer;
    /// On a worker, at each sign of progress.
    std::function<void()> onProgress = [] {};
    bool noneHidden = false;
    QString informativeText;  ///< of the last alert
    QStringList optionsShown; ///< the tree's top level when the options were shown
    std::vector<std::shared_ptr<CVArchive>> previewed;
    std::atomic<int> progressCalls = 0;

    // CVNavigationDelegate
    QObject *controllerNeedsWindow(CVOperationController &) override { return &m_window; }
    void controllerNeedsToLoadViewController(CVOperationController &, CVScreen &, bool) override;
    void controllerNeedsToLoadProgressView(CVOperationController &) override;
    void controllerNeedsToLoadAnalysingView(CVOperationController &) override;
    void controllerNeedsToLoadCreateView(CVOperationController &) override;
    void controllerNeedsToLoadSplitViewWithFile(CVOperationController &, const QString &path) override;
    void controllerNeedsToLoadPreviewViewWithFiles(
        CVOperationController &, const std::vector<std::shared_ptr<CVArchive>> &archives) override;
    void controllerNeedsToLoadDoneViewWithFileAtPath(CVOperationController &, const QString &path) override;
    void controllerNeedsToLoadMultipleDoneViewWithFiles(CVOperationController &,
                                                        const QStringList &paths) override;
    void controllerNeedsToGoBack(CVOperationController &) override;
    void controllerNeedsToGoBackIfNotAtMain(CVOperationController &) override;
    void controllerNeedsToGoBackToMainView(CVOperationController &) override;
    void controllerNeedsToGoForwardToMainView(CVOperationController &) override;
    bool controllerIsAtCreateView(CVOperationController &) override { return isAtCreateView; }
    bool controllerWindowIsVisible(CVOperationController &) override { return isVisible; }
    void controllerNeedsToCloseWindow(CVOperationController &) override;
    void controllerNeedsToActivateApp(CVOperationController &) override {}
    bool controllerIsShiftKeyHeld(CVOperationController &) override { return holdsShift; }
    void controllerNeedsToOpenWindowAndExtractArchives(CVOperationController &,
                                                       const QStringList &paths) override;
    void controllerNeedsFilePanel(CVOperationController &, FilePanel panel,
                                  std::function<void(std::optional<QStringList> paths)> done) override;

private:
    struct Parts;
    QString shortened(const QString &path) const;

    QTemporaryDir m_root;
    QObject m_window;
    std::unique_ptr<Parts> m_parts;
};
