#pragma once

#include "engine/control/CVScreens.h"
#include "ui/base/CVViewController.h"

#include <functional>
#include <memory>

class CVSpinner;
class QLabel;

/// Shown while files are looked at. Main thread, but for setProgressMessage().
class CVFileAnalysisViewController final : public CVViewController, public CVFileAnalysisScreen
{
    Q_OBJECT

public:
    explicit CVFileAnalysisViewController(QObject *parent = nullptr);

    void setCancelled(std::function<void()> cancelled) { m_cancelled = std::move(cancelled); }

    bool canBeReturnedTo() const override { return false; }
    QStringList desiredToolbarItems() const override;

    void startAnimating() override;
    void stopAnimating() override;
    void setProgressMessage(const QString &text) override;

private:
    struct Message;

    CVSpinner *m_indicator;
    QLabel *m_text;
    std::function<void()> m_cancelled;
    std::shared_ptr<Message> m_message; ///< what posted calls reach this screen through
};
