#pragma once

#include <QToolBar>

/// The tool bar of a window: picture above word, in the order in which the current screen wants them. The
/// first item of a screen that goes on ("forward", "done", "extract") is drawn as the one to press.
/// Main thread.
class CVToolbar : public QToolBar
{
    Q_OBJECT

public:
    explicit CVToolbar(QWidget *parent = nullptr);

    void clearItems();
    /// The action stays its owner's.
    void addItem(QAction *action);
    void addFlexibleSpace();
    /// Of the current items; null for none.
    QAction *item(const QString &identifier) const;
};
