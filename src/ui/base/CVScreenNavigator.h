#pragma once

class CVViewController;
class QWidget;

/// Where a screen asks to go. Implemented by the window's navigation; screens borrow it. Main thread.
class CVScreenNavigator
{
public:
    virtual ~CVScreenNavigator() = default;

    virtual void loadViewController(CVViewController &screen, bool backwards) = 0;
    /// The screen before this one that can be returned to, else the drop box.
    virtual void goBack() = 0;
    virtual void backToMain() = 0;
    virtual void goForwardToMain() = 0;
    virtual void showCreateArchiveView() = 0;
    virtual void showConvertArchiveView() = 0;
    /// The current screen has another size now.
    virtual void resizeBackToViewController(CVViewController &screen) = 0;
    /// For panels; null once the window is closing.
    virtual QWidget *mainWindow() = 0;
};
