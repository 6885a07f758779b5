#include "ui/base/CVViewController.h"

#include "ui/base/CVTheme.h"
#include "ui/base/CVToolbar.h"

#include <QAction>
#include <QMenu>
#include <QWidget>

using namespace Qt::StringLiterals;

const QString CVViewController::flexibleSpace = u"flexibleSpace"_s;

CVViewController::CVViewController(QObject *parent)
    : QObject(parent)
{}

CVViewController::~CVViewController()
{
    if (m_view && !m_view->parent())
        delete m_view;
}

QSize CVViewController::size() const
{
    return CVTheme::initialSize().expandedTo(m_view->minimumSizeHint());
}

void CVViewController::refreshToolbar(CVToolbar &toolbar)
{
    toolbar.clearItems();
    for (const QString &identifier : desiredToolbarItems()) {
        if (identifier == flexibleSpace)
            toolbar.addFlexibleSpace();
        else if (QAction *item = action(identifier))
            toolbar.addItem(item);
    }
}

void CVViewController::refreshActionMenu(QMenu &menu)
{
    menu.addActions(m_actions);
}

void CVViewController::didLoadView()
{
    QWidget *first = m_view;
    do {
        first = first->nextInFocusChain();
    } while (first != m_view && !((first->focusPolicy() & Qt::TabFocus) && first->isEnabled() &&
                                  m_view->isAncestorOf(first) && first->isVisibleTo(m_view)));
    first->setFocus(Qt::OtherFocusReason);
}

QAction *CVViewController::action(const QString &identifier) const
{
    for (QAction *action : m_actions) {
        if (action->objectName() == identifier)
            return action;
    }
    return nullptr;
}

void CVViewController::setView(QWidget *view)
{
    m_view = view;
    // The view may go with the window before the screen does.
    connect(view, &QObject::destroyed, this, [this] { m_view = nullptr; });
}

QAction *CVViewController::addAction(const QString &identifier, const QString &text, const QString &icon,
                                     const QKeySequence &key, std::function<void()> triggered)
{
    auto *action = new QAction(icon.isEmpty() ? QIcon() : CVTheme::icon(icon), text, this);
    action->setObjectName(identifier);
    if (key == QKeySequence(Qt::Key_Return))
        action->setShortcuts({key, QKeySequence(Qt::Key_Enter)});
    else if (!key.isEmpty())
        action->setShortcut(key);
    action->setAutoRepeat(false);
    connect(action, &QAction::triggered, this, [triggered = std::move(triggered)] { triggered(); });
    m_actions.append(action);
    return action;
}
