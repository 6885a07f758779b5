#pragma once

#include "engine/control/CVOperationController.h"
#include "ui/base/CVExporter.h"
#include "ui/outline/CVOutlineViewController.h"

#include <optional>

class CVScreenNavigator;
class CVSkippedEntriesView;

/// The several results of a job, as a list or as icons. Main thread.
class CVOperationCompletedWithMultipleFilesViewController final : public CVOutlineViewController
{
    Q_OBJECT

public:
    /// Asks for a folder; `chosen` is called once, with nothing when it was cancelled.
    using FolderChooser =
        std::function<void(QWidget *window, std::function<void(std::optional<QString> folder)> chosen)>;

    explicit CVOperationCompletedWithMultipleFilesViewController(CVScreenNavigator &navigator,
                                                                 QObject *parent = nullptr);
    ~CVOperationCompletedWithMultipleFilesViewController() override;

    /// A panel on the window by default.
    void setFolderChooser(FolderChooser chooser) { m_chooseFolder = std::move(chooser); }

    /// Absolute paths. What is in folders is found on another thread and shown when it is known;
    /// `completionHandler` is called at once, when the screen can be shown.
    void setFiles(const QStringList &paths, const std::function<void()> &completionHandler,
                  std::vector<CVSkippedInArchive> skipped = {});
    const CVFileNode::Pointer &outputFiles() const { return m_outputFiles; }

    bool canBeReturnedTo() const override { return false; }
    QString title() const override;
    QStringList desiredToolbarItems() const override;
    void willLoadView() override;
    void viewWillBeUnloaded() override;

protected:
    void openNode(const CVFileNode::Pointer &node) override;
    void dragNodes(const CVFileNode::List &nodes) override;

private:
    void setUpViewWithFiles(const QStringList &paths);
    void output();
    void exportTo(const QString &folder);
    void exportEnded(const CVExporter::Outcome &outcome);
    void showInFinder();
    void back();
    void setExporting(bool exporting);

    CVScreenNavigator &m_navigator;
    FolderChooser m_chooseFolder;
    CVFileNode::Pointer m_outputFiles;
    QStringList m_paths;
    CVSkippedEntriesView *m_skipped;
    CVExporter m_exporter;
    int m_showing = 0; ///< counts what was shown, so that late answers are known
    bool m_isCurrent = false;
};
