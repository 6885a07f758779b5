#pragma once

#include "ui/outline/CVOutlineViewController.h"
#include "ui/outline/CVPrivateExtraction.h"

#include <QPointer>

#include <vector>

class CVArchive;
class CVQuickLookPanel;
class CVScreenNavigator;

/// What is in the archives, before anything is extracted: entries can be looked at, opened, dragged out; all
/// can be extracted, or one archive converted or split. Main thread.
class CVArchivePreviewController final : public CVOutlineViewController
{
    Q_OBJECT

public:
    using Archives = std::vector<std::shared_ptr<CVArchive>>;

    CVArchivePreviewController(CVArchivePreviewServices services, CVScreenNavigator &navigator,
                               QObject *parent = nullptr);
    ~CVArchivePreviewController() override;

    /// The archives that were listed. Their trees are shown as they are and must not change meanwhile.
    void setupDisplayWithArchives(const Archives &archives);
    /// Lets go of the archives, off the main thread; while the screen slides away, when it is out of sight.
    void clear();

    const CVFileNode::Pointer &previewedFileTree() const { return m_previewedFileTree; }
    /// Path of the archive where there is exactly one and it has a tree; null otherwise.
    const QString &singlePreviewedArchive() const { return m_singlePreviewedArchive; }
    /// The node of the archive that the entry is in, among several.
    CVFileNode::Pointer rootForFileNode(const CVFileNode::Pointer &node) const;
    /// What one drag of these nodes extracts: from one archive only, and nothing twice.
    struct DraggedEntries
    {
        QStringList paths;
        QString archivePath;
    };
    DraggedEntries entriesForDrag(const CVFileNode::List &nodes) const;

    QString title() const override { return m_title; }
    QStringList desiredToolbarItems() const override;
    void refreshToolbar(CVToolbar &toolbar) override;
    void viewWillBeUnloaded() override;

    CVQuickLookPanel *quickLookPanel() const { return m_quickLook; }

protected:
    void openNode(const CVFileNode::Pointer &node) override;
    void previewNode(const CVFileNode::Pointer &node) override;
    void dragNodes(const CVFileNode::List &nodes) override;
    void selectionDidChange() override;
    QList<QAction *> nodeActions() override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void letGo();
    void setupFileTreeWithArchives(const Archives &archives);
    void refreshActions();
    QString archivePathOf(const CVFileNode::Pointer &node) const;
    void extractSelection();

    CVArchivePreviewServices m_services;
    CVScreenNavigator &m_navigator;
    Archives m_archives;
    CVFileNode::Pointer m_previewedFileTree;
    QString m_singlePreviewedArchive;
    QString m_title;
    QPointer<CVQuickLookPanel> m_quickLook;
    bool m_isLetGoWhenHidden = false;
    /// Their files are being copied by other programs.
    std::vector<std::shared_ptr<CVPrivateExtraction>> m_dragged;
};
