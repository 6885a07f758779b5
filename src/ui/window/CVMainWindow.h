#pragma once

#include <QMainWindow>

#include <chrono>
#include <functional>

class CVToolbar;
class QMenu;
class QVariantAnimation;

/// The window without what is in it: menu bar, tool bar, and the container that screens slide through.
/// Main thread.
class CVMainWindow final : public QMainWindow
{
    Q_OBJECT

public:
    explicit CVMainWindow(QWidget *parent = nullptr);

    QWidget *container() const { return m_container; }
    CVToolbar *toolbar() const { return m_toolbar; }
    QMenu *fileMenu() const { return m_fileMenu; }
    /// The current screen's; filled by the navigation.
    QMenu *actionMenu() const { return m_actionMenu; }
    QMenu *helpMenu() const { return m_helpMenu; }

    /// Makes the content `size` large, kept on the screen; a window that is not resizable has that size for
    /// good. Device-independent pixels. A visible window grows or shrinks to it in the given time. Returns
    /// the size that the content will have then.
    QSize fitToContent(QSize size, QSize minimum, bool resizable,
                       std::chrono::milliseconds time = std::chrono::milliseconds(0));
    /// At once, if it is still on its way.
    void finishFitting();
    QSize contentSize() const;

    /// Asked when the window is about to close; false keeps it.
    void setCloseHandler(std::function<bool()> handler) { m_mayClose = std::move(handler); }
    void bringToFront();
    /// Closed to the eye: what goes on in it goes on.
    void hideByClose();
    bool wasHiddenByClose() const { return m_wasHiddenByClose; }

Q_SIGNALS:
    /// Once, when the first picture of the window is on its way to the screen.
    void firstPainted();
    /// The font of the desktop is another one.
    void measuresChanged();

protected:
    void closeEvent(QCloseEvent *event) override;
    bool event(QEvent *event) override;

private:
    QSize chrome() const;
    void fitStep(const QVariant &size);
    void arrive();
    void keepOnScreen();

    QWidget *m_container = nullptr;
    CVToolbar *m_toolbar = nullptr;
    QMenu *m_fileMenu = nullptr;
    QMenu *m_actionMenu = nullptr;
    QMenu *m_helpMenu = nullptr;
    std::function<bool()> m_mayClose;
    QVariantAnimation *m_fitting = nullptr;
    QSize m_goal; ///< of the window
    QSize m_goalMinimum;
    QSize m_goalMaximum;
    bool m_wasPainted = false;
    bool m_wasHiddenByClose = false;
};
