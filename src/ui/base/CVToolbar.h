#pragma once

#include <QHash>
#include <QList>
#include <QToolBar>

/// The tool bar of a window: picture above word, in the order in which the current screen wants them. A first
/// item that goes on ("forward", "done", "extract", "archive", "combine") is drawn as the one to press.
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
    QList<QAction *> items() const { return m_items; }
    /// The height is the same whatever is in it, so screens do not jump.
    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QList<QAction *> m_items;
    QHash<QAction *, QAction *> m_places; ///< item: what stands for it in the bar
};
