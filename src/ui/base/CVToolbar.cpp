#include "ui/base/CVToolbar.h"

#include <QAction>
#include <QWidget>

CVToolbar::CVToolbar(QWidget *parent)
    : QToolBar(parent)
{
    setMovable(false);
    setFloatable(false);
    setToolButtonStyle(Qt::ToolButtonTextUnderIcon);
    setContextMenuPolicy(Qt::PreventContextMenu);
}

void CVToolbar::clearItems()
{
    clear();
}

void CVToolbar::addItem(QAction *action)
{
    addAction(action);
}

void CVToolbar::addFlexibleSpace()
{
    auto *space = new QWidget(this);
    space->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    addWidget(space);
}

QAction *CVToolbar::item(const QString &identifier) const
{
    for (QAction *action : actions()) {
        if (action->objectName() == identifier)
            return action;
    }
    return nullptr;
}
