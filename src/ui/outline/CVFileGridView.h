#pragma once

#include <QListView>

class CVFileNodeModel;

/// A folder as a grid of icons. All cells have one size, so where a cell is follows from its number: nothing
/// is laid out, however many there are. (It is a QListView for what assistive programs know about one; its
/// own layout, which visits every item, is never used.) Main thread. The model is borrowed.
class CVFileGridView final : public QListView
{
    Q_OBJECT

public:
    explicit CVFileGridView(CVFileNodeModel &model, QWidget *parent = nullptr);

    int columns() const;

    void doItemsLayout() override;
    void reset() override;
    void selectAll() override;
    void keyboardSearch(const QString &text) override;
    QRect visualRect(const QModelIndex &index) const override;
    QModelIndex indexAt(const QPoint &point) const override;
    void scrollTo(const QModelIndex &index, ScrollHint hint = EnsureVisible) override;

Q_SIGNALS:
    void openRequested(const QModelIndex &index);
    void previewRequested(const QModelIndex &index);
    void upRequested();
    void dragRequested();

protected:
    void updateGeometries() override;
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    void startDrag(Qt::DropActions supportedActions) override;
    void selectionChanged(const QItemSelection &selected, const QItemSelection &deselected) override;
    void rowsInserted(const QModelIndex &parent, int first, int last) override;
    void rowsAboutToBeRemoved(const QModelIndex &parent, int first, int last) override;
    void dataChanged(const QModelIndex &topLeft, const QModelIndex &bottomRight,
                     const QList<int> &roles) override;
    QModelIndex moveCursor(CursorAction action, Qt::KeyboardModifiers modifiers) override;
    int horizontalOffset() const override;
    int verticalOffset() const override;
    void setSelection(const QRect &rect, QItemSelectionModel::SelectionFlags command) override;
    QRegion visualRegionForSelection(const QItemSelection &selection) const override;

private:
    QSize cellSize() const;
    /// In the coordinates of the contents.
    QRect cellRect(int row) const;
    QModelIndex modelIndex(int row) const;

    CVFileNodeModel &m_model;
    QString m_typed;
    qint64 m_lastTyped = 0;
};
