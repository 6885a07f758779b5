#pragma once

#include "engine/control/CVOperationController.h"

#include <QWidget>

#include <vector>

class QLabel;
class QToolButton;
class QTreeView;

/// Says that entries of archives were left out, and on demand which and why. Hidden while there are none.
/// Main thread.
class CVSkippedEntriesView final : public QWidget
{
    Q_OBJECT

public:
    explicit CVSkippedEntriesView(QWidget *parent = nullptr);

    void setEntries(std::vector<CVSkippedInArchive> archives);
    bool isExpanded() const;
    void setExpanded(bool expanded);

    QSize sizeHint() const override;

Q_SIGNALS:
    /// It is another height now.
    void expandedChanged();

protected:
    void changeEvent(QEvent *event) override;

private:
    class Model;
    void applyStyle();

    Model *m_model = nullptr;
    QLabel *m_picture = nullptr;
    QLabel *m_text = nullptr;
    QToolButton *m_toggle = nullptr;
    QTreeView *m_list = nullptr;
};
