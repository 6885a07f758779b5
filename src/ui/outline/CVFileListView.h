#pragma once

#include <QTableView>

class CVFileNodeModel;

/// A tree as a list with columns. The rows of open folders come laid out by the model, so this is a table
/// with rows of one height: showing a million of them costs as much as showing those on the screen. Triangles
/// open and close folders, as do the keys Left and Right. Main thread. The model is borrowed.
class CVFileListView final : public QTableView
{
    Q_OBJECT

public:
    explicit CVFileListView(CVFileNodeModel &model, QWidget *parent = nullptr);

    /// Of the icon and of one level.
    static int iconSize();
    static int indentation();
    /// Where the triangle of the row is; empty without one.
    QRect triangleRect(const QModelIndex &index) const;

    void setFolderColumnShown(bool shown);
    void keyboardSearch(const QString &text) override;

Q_SIGNALS:
    void openRequested(const QModelIndex &index);
    void previewRequested(const QModelIndex &index);
    void dragRequested();

protected:
    void keyPressEvent(QKeyEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    void changeEvent(QEvent *event) override;
    void startDrag(Qt::DropActions supportedActions) override;
    void selectionChanged(const QItemSelection &selected, const QItemSelection &deselected) override;
    QModelIndex moveCursor(CursorAction action, Qt::KeyboardModifiers modifiers) override;
    void currentChanged(const QModelIndex &current, const QModelIndex &previous) override;

private:
    void measure();

    CVFileNodeModel &m_model;
    QString m_typed;
    qint64 m_lastTyped = 0;
};
