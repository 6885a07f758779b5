#pragma once

#include "ui/outline/CVOutlineViewController.h"

class CVScreenNavigator;

/// What the screen with the dropped files asks of the engine.
struct CVFileOptionsServices
{
    /// The root; never null.
    std::function<CVFileNode::Pointer()> inputFiles;
    std::function<bool()> isArchiveSet;
    std::function<bool()> isSplitFileSet;
    std::function<bool()> isShiftKeyHeld;
    std::function<void()> extractArchive;
    std::function<void()> showSplitFile;
    std::function<void()> combineFiles;
    /// A panel for more files; setupDisplay() follows.
    std::function<void()> addFiles;
    /// Dropped here; setupDisplay() follows.
    std::function<void(const QStringList &paths)> tryToAddFiles;
    /// setupDisplay() may follow.
    std::function<void(const CVFileNode::Pointer &node)> removeFileNode;
};

/// The files that were dropped: more can be added and some taken out, and what is to be done with them is
/// chosen.
/// Main thread.
class CVFileOptionsViewController final : public CVOutlineViewController, public CVFileOptionsScreen
{
    Q_OBJECT

public:
    CVFileOptionsViewController(CVFileOptionsServices services, CVScreenNavigator &navigator,
                                QObject *parent = nullptr);

    // CVFileOptionsScreen
    void setupDisplay() override;
    void showOptions() override;

    QString title() const override;
    QStringList desiredToolbarItems() const override;
    void refreshToolbar(CVToolbar &toolbar) override;

protected:
    void openNode(const CVFileNode::Pointer &node) override;
    void selectionDidChange() override;
    QList<QAction *> nodeActions() override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void removeSelection();
    void refreshActions();
    QString mainAction() const;

    CVFileOptionsServices m_services;
    CVScreenNavigator &m_navigator;
    bool m_isRemoving = false;
};
