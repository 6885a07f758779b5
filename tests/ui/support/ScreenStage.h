#pragma once

#include "ui/base/CVScreenNavigator.h"
#include "ui/base/CVToolbar.h"
#include "ui/base/CVViewController.h"

#include <QMainWindow>
#include <QMenu>
#include <QStringList>

#include <memory>

/// A real window for one screen at a time, without slides: what a screen asks of the navigation is done at
/// once and written down.
class ScreenStage final : public CVScreenNavigator
{
public:
    ScreenStage()
    {
        toolbar = new CVToolbar(&window);
        window.addToolBar(toolbar);
        window.show();
    }
    ~ScreenStage() override { clear(); }

    void loadViewController(CVViewController &screen, bool backwards) override
    {
        requests.append(backwards ? QStringLiteral("load backwards") : QStringLiteral("load"));
        clear();
        current = &screen;
        screen.refreshToolbar(*toolbar);
        menu.clear();
        screen.refreshActionMenu(menu);
        window.addActions(menu.actions());
        screen.willLoadView();
        window.setCentralWidget(screen.view());
        screen.view()->show();
        window.resize(screen.size() + QSize(0, toolbar->sizeHint().height()));
        window.activateWindow();
        screen.didLoadView();
    }
    void goBack() override { leave(QStringLiteral("back")); }
    void backToMain() override { leave(QStringLiteral("main")); }
    void goForwardToMain() override { leave(QStringLiteral("forward to main")); }
    void showCreateArchiveView() override { requests.append(QStringLiteral("create")); }
    void showConvertArchiveView() override { requests.append(QStringLiteral("convert")); }
    void resizeBackToViewController(CVViewController &) override {}
    QWidget *mainWindow() override { return &window; }

    void leave(const QString &request)
    {
        requests.append(request);
        clear();
    }

    /// The screen goes, as with the window.
    void clear()
    {
        if (!current)
            return;
        CVViewController *left = current;
        current = nullptr;
        left->viewWillBeUnloaded();
        for (QAction *action : menu.actions())
            window.removeAction(action);
        toolbar->clearItems();
        if (QWidget *view = window.takeCentralWidget())
            view->setParent(nullptr);
    }

    QMainWindow window;
    CVToolbar *toolbar = nullptr;
    QMenu menu;
    CVViewController *current = nullptr;
    QStringList requests;
};
