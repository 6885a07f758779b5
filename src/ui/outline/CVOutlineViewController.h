#pragma once

#include "filetree/CVFileNode.h"
#include "ui/base/CVViewController.h"
#include "ui/outline/CVFileNodeModel.h"

class CVFileGridView;
class CVFileListView;
class QAbstractItemView;
class QLabel;
class QLineEdit;
class QShortcut;
class QStackedWidget;
class QToolButton;
class QTimer;

/// What the screens with a tree of files have in common: the tree as a list with folders to open, and as a
/// grid that shows one folder at a time; searching, sorting, the line that says how much there is. Resizable;
/// its size is kept in the settings.
/// Main thread.
class CVOutlineViewController : public CVViewController
{
    Q_OBJECT

public:
    enum ViewMode : int { ListMode = 0, GridMode = 1 };

    ~CVOutlineViewController() override;

    bool isResizable() const override { return true; }
    QSize size() const override;
    void willLoadView() override;
    void didLoadView() override;
    void viewWillBeUnloaded() override;

    int fileViewControlValue() const { return m_mode; }
    /// 0 for the list, 1 for the grid.
    void switchView(int tag);

    // The grid.
    const CVFileNode::Pointer &currentViewingNode() const { return m_currentViewingNode; }
    const CVFileNode::List &forwardStack() const { return m_forwardStack; }
    void goUp();
    void goForward();
    void browse(const CVFileNode::Pointer &folder);

    CVFileNodeModel &listModel() { return *m_listModel; }
    CVFileNodeModel &gridModel() { return *m_gridModel; }
    CVFileListView *listView() const { return m_list; }
    CVFileGridView *gridView() const { return m_grid; }
    QLineEdit *searchField() const { return m_search; }

protected:
    struct SizeKeys
    {
        QString width;
        QString height;
    };
    explicit CVOutlineViewController(SizeKeys sizeKeys, QObject *parent);

    /// Shows the tree as a list, nothing selected, nothing searched for.
    void showTree(const CVFileNode::Pointer &root, CVFileNodeModel::Tree tree);
    /// The same tree after it has changed, with what was searched for, selected and open; another one as
    /// showTree().
    void updateTree(const CVFileNode::Pointer &root, CVFileNodeModel::Tree tree);
    void setEmptyText(const QString &text) { m_emptyText = text; }
    /// A line of plain text above the files, with a mark; empty for none.
    void setNotice(const QString &text, const QString &icon = {});
    /// Between the files and the line below them.
    void addBelowFiles(QWidget *widget);
    void setFindKey(const QKeySequence &key);

    CVFileNodeModel &activeModel() const;
    QAbstractItemView *activeView() const;
    /// In the order of the rows; `most` at most.
    CVFileNode::List selectedNodes(int most) const;
    bool hasSelection() const;
    /// As many items of a selection are dragged or extracted; more are refused in words.
    static constexpr int mostAtOnce = 20000;
    void tellTooMany();
    CVFileNode::Pointer currentNode() const;
    /// Makes the row that many further on current; false at the ends.
    bool moveCurrent(int by);

    bool eventFilter(QObject *watched, QEvent *event) override;

    /// A double click, or its key.
    virtual void openNode(const CVFileNode::Pointer &node) = 0;
    /// The grid goes into it instead of opening it.
    virtual bool canBrowse(const CVFileNode &node) const;
    virtual void previewNode(const CVFileNode::Pointer &) {}
    virtual void dragNodes(const CVFileNode::List &) {}
    virtual void selectionDidChange() {}
    /// Of the context menu, where something is selected; null ends a group.
    virtual QList<QAction *> nodeActions() { return {}; }
    virtual QString statusText() const;

private:
    void buildView();
    void open(const QModelIndex &index);
    void showContextMenu(const QPoint &point);
    void showFolder(const CVFileNode::Pointer &folder);
    void startSearch();
    void refreshButtons();
    void refreshTexts();
    void followBundleSetting();
    void keepSelection();
    void bringBackSelection();

    SizeKeys m_sizeKeys;
    int m_mode = ListMode;
    CVFileNode::Pointer m_root;
    CVFileNodeModel::Tree m_tree = CVFileNodeModel::Tree::Frozen;
    CVFileNode::Pointer m_currentViewingNode;
    CVFileNode::List m_forwardStack;
    QString m_emptyText;
    QString m_noticeText;
    /// What was selected while rows are replaced.
    CVFileNode::List m_kept;

    CVFileNodeModel *m_listModel;
    CVFileNodeModel *m_gridModel;
    CVFileListView *m_list = nullptr;
    CVFileGridView *m_grid = nullptr;
    QStackedWidget *m_stack = nullptr;
    QToolButton *m_listButton = nullptr;
    QToolButton *m_gridButton = nullptr;
    QToolButton *m_backButton = nullptr;
    QToolButton *m_forwardButton = nullptr;
    QLabel *m_location = nullptr;
    QLineEdit *m_search = nullptr;
    QTimer *m_searchTimer = nullptr;
    QLabel *m_message = nullptr;
    QLabel *m_status = nullptr;
    QWidget *m_notice = nullptr;
    QLabel *m_noticeIcon = nullptr;
    QLabel *m_noticeLabel = nullptr;
    QShortcut *m_find = nullptr;
    int m_bundleObserver = 0;
    bool m_wasLoaded = false;
};
