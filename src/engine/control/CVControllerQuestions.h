#pragma once

#include <QString>

#include <deque>
#include <functional>

class CVAlertScreen;
class CVNavigationDelegate;
class CVOperationController;

/// What an alert says. Plain texts.
struct CVAlert
{
    bool withCancelButton = false;
    QString message;
    QString informativeText;
    QString defaultButtonLabel;
};

/// The alerts and prompts of one window, one at a time in the order in which they came, because a window
/// has one place to show them. Main thread.
class CVControllerQuestions
{
public:
    /// Stands for one question; any address that is unique while it is asked.
    using Key = const void *;
    /// How it was left: 1 for the default button, 0 for cancel and for a window that closes. Not called
    /// for a question that was withdrawn.
    using Ended = std::function<void(int result)>;

    explicit CVControllerQuestions(CVOperationController &controller)
        : m_controller(controller)
    {}

    void setScreen(CVNavigationDelegate *navigation, CVAlertScreen *alert);

    void alert(Key key, const CVAlert &alert, Ended ended);
    /// `begin` is called when the prompt's turn comes; whoever shows it says finished() afterwards.
    void prompt(Key key, std::function<void()> begin);
    void finished(Key key);
    /// Takes the question back, whether it waits or is being shown.
    void withdraw(Key key);
    bool isAsking() const { return m_asking; }

    /// Every question ends as cancelled, and no other comes.
    void close();

private:
    struct Question
    {
        Key key = nullptr;
        bool isAlert = false;
        CVAlert alert;
        Ended ended;
        std::function<void()> begin;
    };
    void next();
    void alertEnded(Key key, int result);

    CVOperationController &m_controller;
    CVNavigationDelegate *m_navigation = nullptr;
    CVAlertScreen *m_alert = nullptr;
    std::deque<Question> m_questions; ///< while asking, the first one is being shown
    bool m_asking = false;
    bool m_closed = false;
};
