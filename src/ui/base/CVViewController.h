#pragma once

#include "engine/control/CVScreens.h"

#include <QKeySequence>
#include <QList>
#include <QObject>
#include <QSize>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

class CVToolbar;
class QAction;
class QMenu;
class QWidget;

/// One screen of the window: a view and the actions that go with it. Shown and left by
/// CVNavigationController alone.
///
/// Every action is known by an identifier ("forward", "back", "cancel", …) and stands in the window's tool
/// bar and in its Action menu while the screen is current; with it come and go its keys, so the keys of other
/// screens do nothing.
/// Main thread. The view belongs to this object until the window takes it as a child.
class CVViewController : public QObject, public CVScreen
{
    Q_OBJECT

public:
    explicit CVViewController(QObject *parent = nullptr);
    ~CVViewController() override;

    QWidget *view() const { return m_view; }

    /// Whether going back may lead here.
    virtual bool canBeReturnedTo() const { return true; }
    virtual bool isResizable() const { return false; }
    /// Of the content below the tool bar, in device-independent pixels. The default is the window's initial
    /// size, and more where the view needs more.
    virtual QSize size() const;
    /// Plain text for the title bar, before the program's name; empty for the name alone.
    virtual QString title() const { return {}; }

    /// Identifiers in order; flexibleSpace between them where the rest moves to the right.
    virtual QStringList desiredToolbarItems() const = 0;
    virtual void refreshToolbar(CVToolbar &toolbar);
    /// The menu is empty when this is called.
    virtual void refreshActionMenu(QMenu &menu);

    /// Before it is shown: puts its controls in order.
    virtual void willLoadView() {}
    /// The slide has ended: gives the focus to where people begin. The default is the first control.
    virtual void didLoadView();
    /// It stops being current.
    virtual void viewWillBeUnloaded() {}

    QAction *action(const QString &identifier) const;

    static const QString flexibleSpace;

Q_SIGNALS:
    /// The screen is current and wants another size or another title.
    void sizeChanged();
    void titleChanged();
    /// Other items belong in the tool bar now.
    void toolbarChanged();

protected:
    void setView(QWidget *view);

    /// An action of this screen, in the order of the Action menu. `icon` is a name for CVTheme::icon(). The
    /// first key is shown in the menu; Return brings Enter with it.
    QAction *addAction(const QString &identifier, const QString &text, const QString &icon,
                       const QKeySequence &key, std::function<void()> triggered);

private:
    QWidget *m_view = nullptr;
    QList<QAction *> m_actions;
};
