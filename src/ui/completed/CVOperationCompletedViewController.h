#pragma once

#include "engine/control/CVOperationController.h"
#include "ui/base/CVExporter.h"
#include "ui/base/CVViewController.h"

#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

class CVElidedLabel;
class CVFileWell;
class CVScreenNavigator;
class CVSkippedEntriesView;
class QLabel;
class QProgressBar;
class QPushButton;

/// The one result of a job: to be dragged away, exported, or looked at in the file manager. Main thread.
class CVOperationCompletedViewController final : public CVViewController
{
    Q_OBJECT

public:
    /// Asks for a folder; `chosen` is called once, with nothing when it was cancelled.
    using FolderChooser =
        std::function<void(QWidget *window, std::function<void(std::optional<QString> folder)> chosen)>;

    /// The navigator is borrowed.
    explicit CVOperationCompletedViewController(CVScreenNavigator &navigator, QObject *parent = nullptr);
    ~CVOperationCompletedViewController() override;

    /// A panel on the window by default.
    void setFolderChooser(FolderChooser chooser) { m_chooseFolder = std::move(chooser); }

    /// Shows itself with that result, which sounds where that is wanted. The path is absolute.
    void showDoneViewWithFile(const QString &path, std::vector<CVSkippedInArchive> skipped = {});

    bool canBeReturnedTo() const override { return false; }
    QSize size() const override;
    QString title() const override;
    QStringList desiredToolbarItems() const override;
    void willLoadView() override;
    void didLoadView() override;
    void viewWillBeUnloaded() override;

private:
    void setUpViewWithFile(const QString &path);
    void readFacts(const QString &path);
    void output();
    void showInFinder();
    void back();
    void exportTo(const QString &folder);
    void exportEnded(const CVExporter::Outcome &outcome);
    void tell(const QString &message);
    void setExporting(bool exporting);
    void applyStyle();
    bool eventFilter(QObject *object, QEvent *event) override;

    CVScreenNavigator &m_navigator;
    FolderChooser m_chooseFolder;
    QString m_path;
    CVFileWell *m_well = nullptr;
    CVElidedLabel *m_name = nullptr;
    QLabel *m_size = nullptr;
    QLabel *m_message = nullptr;
    QWidget *m_exportRow = nullptr;
    QProgressBar *m_exportBar = nullptr;
    QPushButton *m_exportCancel = nullptr;
    CVSkippedEntriesView *m_skipped = nullptr;
    CVExporter m_exporter;
    int m_showing = 0; ///< counts what was shown, so that late answers are known
    bool m_isCurrent = false;
    std::jthread m_facts;
};
