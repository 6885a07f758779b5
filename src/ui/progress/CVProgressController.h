#pragma once

#include "ui/base/CVViewController.h"
#include "util/LXProgressRate.h"

#include <QTimer>

#include <functional>
#include <memory>
#include <optional>

class CVProgressView;

/// The screen that is shown while a job runs.
///
/// What jobs tell goes into a letter box that is emptied on the main thread at most thirty times a second, so
/// a job may report as often as it likes; one event waits at a time. Main thread but for what
/// CVProgressScreen allows from others, which is safe even while the screen goes away.
class CVProgressController final : public CVViewController, public CVProgressScreen
{
    Q_OBJECT

public:
    explicit CVProgressController(QObject *parent = nullptr);
    ~CVProgressController() override;

    /// Receives what is dropped on the file well during a job.
    void setFilesDropped(std::function<void(const QStringList &paths)> handler);

    bool canBeReturnedTo() const override { return false; }
    QSize size() const override;
    QString title() const override { return m_job; }
    QStringList desiredToolbarItems() const override;
    void willLoadView() override;
    void didLoadView() override {}
    void viewWillBeUnloaded() override;

    void setProgress(double done, double total) override;
    void setProgressUnit(LXProgressUnit unit) override;
    void setBatchPosition(const CVBatchPosition &position) override;
    void setIndeterminate() override;
    void setJob(const QString &text) override;
    void setProgressImage(const QString &filename, bool showMultiples) override;
    void setCancelButton(std::function<void()> action) override;
    void reset() override;
    void setAcceptsDrops(bool accepts) override;

    /// Shows what has been told so far, now.
    void refresh();

private:
    struct State;
    class LetterBox;

    void wake();
    void show(const State &state);
    void showNumbers();
    void cancel();

    CVProgressView *m_progressView = nullptr;
    const std::shared_ptr<LetterBox> m_letterBox;
    QTimer m_delay;   ///< until the next change may be shown
    QTimer m_seconds; ///< while the screen is current: texts that change by themselves
    LXProgressRate::Clock::time_point m_shown{};
    LXProgressRate::Clock::time_point m_textsShown{};

    std::unique_ptr<State> m_state;
    QString m_job;
    LXProgressRate m_rate;
    LXProgressRate m_batchRate;
    bool m_isCurrent = false;
    bool m_isCancelling = false;
};
