#pragma once

#include "ui/base/CVViewController.h"

#include <functional>

class QLabel;
class QPushButton;
class QScrollArea;

/// A question or notice in the window, with one or two buttons. Whoever runs it stops it before it goes away.
/// Main thread.
class CVAlertViewController final : public CVViewController, public CVAlertScreen
{
    Q_OBJECT

public:
    explicit CVAlertViewController(QObject *parent = nullptr);

    bool canBeReturnedTo() const override { return false; }
    QSize size() const override;
    QStringList desiredToolbarItems() const override;
    void willLoadView() override { m_isCurrent = true; }
    void didLoadView() override;
    void viewWillBeUnloaded() override;

    CVScreen *screen() override { return this; }
    void prepareAlert(bool withCancelButton, const QString &message, const QString &informativeText,
                      const QString &defaultButtonLabel) override;
    void run(std::function<void(int result)> ended) override;
    void stop() override { endAlert(cancelResult); }

    static constexpr int defaultResult = 1;
    static constexpr int cancelResult = 0;

private:
    void endAlert(int result);
    void applyStyle();
    int textHeight(const QLabel &label) const;
    bool eventFilter(QObject *object, QEvent *event) override;

    QLabel *m_picture = nullptr;
    QLabel *m_message = nullptr;
    QLabel *m_informativeText = nullptr;
    QScrollArea *m_scroller = nullptr;
    QPushButton *m_default = nullptr;
    QPushButton *m_cancel = nullptr;
    std::function<void(int)> m_ended; ///< empty when none is running
    int m_run = 0;
    bool m_showCancelButton = false;
    bool m_isCurrent = false;
};
