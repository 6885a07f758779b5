#pragma once

#include "ui/base/CVViewController.h"

#include <memory>

class CVScreenNavigator;
class QCheckBox;
class QLabel;
class QLineEdit;

/// Asks for a password in the middle of a job. Several jobs that ask take turns.
///
/// Main thread but for promptForPassword(), whose caller is let go by the answer, by its stop token, and when
/// this screen goes away; none of the three needs the others.
class CVPasswordViewController final : public CVViewController, public CVPasswordScreen
{
    Q_OBJECT

public:
    /// The navigator is borrowed.
    explicit CVPasswordViewController(CVScreenNavigator &navigator, QObject *parent = nullptr);
    ~CVPasswordViewController() override;

    /// How the last prompt ended.
    enum Result { Waiting = -1, Done = 1, Cancelled = 2 };
    int result() const { return m_result; }
    bool finishedOk() const { return m_result == Done; }

    bool canBeReturnedTo() const override { return false; }
    QSize size() const override;
    QStringList desiredToolbarItems() const override;
    void willLoadView() override;
    void didLoadView() override;
    void viewWillBeUnloaded() override;

    CVScreen *screen() override { return this; }
    void setPasswordDelegate(CVPasswordDelegate *delegate) override { m_passwordDelegate = delegate; }
    /// Any thread.
    void setInformativeText(const QString &text) override;
    void setLastTryFailed(bool failed) override;
    std::optional<QString> promptForPassword(std::stop_token stop) override;

    void confirmPasswordPrompt() { end(Done); }
    void cancelPasswordPrompt() { end(Cancelled); }

private:
    struct Prompt;
    struct Link;

    void begin(const std::shared_ptr<Prompt> &prompt);
    void abandon(const std::shared_ptr<Prompt> &prompt);
    void end(Result result);
    void showPassword();
    void applyStyle();
    bool eventFilter(QObject *object, QEvent *event) override;

    CVScreenNavigator &m_navigator;
    CVPasswordDelegate *m_passwordDelegate = nullptr;
    const std::shared_ptr<Link> m_link;
    std::shared_ptr<Prompt> m_prompt; ///< the one that waits for an answer
    QLabel *m_picture = nullptr;
    QLabel *m_text = nullptr;
    QLabel *m_capsLock = nullptr;
    QLineEdit *m_field = nullptr;
    QCheckBox *m_show = nullptr;
    int m_result = Waiting;
    int m_settingObserver = 0;
    bool m_lastTryFailed = false;
    bool m_isCurrent = false;
};
