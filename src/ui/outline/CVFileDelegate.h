#pragma once

#include <QStyledItemDelegate>

class CVFileListView;

/// Draws a row of the list: indented, with its triangle, icon and name, and a lock where it is encrypted.
class CVFileListDelegate final : public QStyledItemDelegate
{
    Q_OBJECT

public:
    explicit CVFileListDelegate(CVFileListView *view);
    void paint(QPainter *painter, const QStyleOptionViewItem &option,
               const QModelIndex &index) const override;

private:
    CVFileListView &m_view;
};

/// Draws a cell of the grid: a large icon and below it the name in up to two lines.
class CVFileGridDelegate final : public QStyledItemDelegate
{
    Q_OBJECT

public:
    using QStyledItemDelegate::QStyledItemDelegate;
    void paint(QPainter *painter, const QStyleOptionViewItem &option,
               const QModelIndex &index) const override;
    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override;

    static int iconSize();
};
