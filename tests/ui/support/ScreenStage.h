#pragma once

#include "ui/base/CVScreenNavigator.h"
#include "ui/base/CVToolbar.h"
#include "ui/base/CVViewController.h"

#include <QMainWindow>
#include <QMenu>
#include <QPointer>
#include <QStringList>
#include <QVBoxLayout>

#include <utility>

/// A real window for one screen at a time, without slides: what a screen asks of the navigation is done at
/// once and written down.
class ScreenStage final : public CVScreenNavigator
{
public:
    ScreenStage()
    {
        toolbar = new CVToolbar(&window);
        window.addToolBar(toolbar);
        auto *container = new QWidget;
        window.setCentralWidget(container);
        layout = new QVBoxLayout(container);
        layout->setContentsMargins(0, 0, 0, 0);
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
        layout->addWidget(screen.view());
        screen.view()->show();
        window.resize(screen.size() + QSize(0, toolbar->sizeHint().height()));
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
        if (CVViewController *left = std::exchange(current, nullptr))
            left->viewWillBeUnloaded();
        for (QAction *action : menu.actions())
            window.removeAction(action);
        toolbar->clearItems();
        while (const QLayoutItem *item = layout->takeAt(0)) {
            item->widget()->hide();
            delete item;
        }
    }

    QMainWindow window;
    QVBoxLayout *layout = nullptr;
    CVToolbar *toolbar = nullptr;
    QMenu menu;
    QPointer<CVViewController> current;
    QStringList requests;
};
