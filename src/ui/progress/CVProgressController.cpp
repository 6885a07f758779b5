#include "ui/progress/CVProgressController.h"

#include "ui/base/CVFileWell.h"
#include "ui/base/CVTheme.h"
#include "ui/progress/CVProgressText.h"
#include "ui/progress/CVProgressView.h"
#include "util/LXMainThread.h"

#include <QAction>

#include <algorithm>
#include <mutex>

using namespace Qt::StringLiterals;

namespace {

using Clock = LXProgressRate::Clock;

constexpr auto shortestPeriod = std::chrono::milliseconds(33);
/// Figures that change faster than this cannot be read.
constexpr auto textPeriod = std::chrono::milliseconds(500);

} // namespace

/// All that jobs tell, as it stands.
struct CVProgressController::State
{
    QString job;
    QString image;
    bool imageShowsMultiple = false;
    bool indeterminate = true;
    double done = 0;
    double total = 0;
    LXProgressUnit unit = LXProgressUnit::Share;
    std::optional<CVBatchPosition> batch;
    // Counted, because the same value told anew means something.
    int jobs = 0;
    int resets = 0;
    int cancelActions = 0;

    double share() const { return total > 0 ? std::clamp(done / total, 0.0, 1.0) : 0; }
    double batchShare() const
    {
        const double own = indeterminate ? 0 : share();
        return batch ? batch->shareBefore + own * (batch->shareAfter - batch->shareBefore) : 0;
    }
};

class CVProgressController::LetterBox : public std::enable_shared_from_this<LetterBox>
{
public:
    explicit LetterBox(CVProgressController &screen)
        : m_screen(&screen)
    {}

    /// Main thread.
    void close() { m_screen = nullptr; }

    template <typename Change> void change(Change change)
    {
        {
            const std::lock_guard lock(m_mutex);
            change(m_state);
            if (m_isWaiting)
                return;
            m_isWaiting = true;
        }
        LXMainThread::post([self = shared_from_this()] {
            if (self->m_screen)
                self->m_screen->wake();
        });
    }

    State take()
    {
        const std::lock_guard lock(m_mutex);
        m_isWaiting = false;
        return m_state;
    }

    void setCancelAction(std::function<void()> action)
    {
        change([this, &action](State &state) {
            m_cancel = std::move(action);
            ++state.cancelActions;
        });
    }

    std::function<void()> cancelAction()
    {
        const std::lock_guard lock(m_mutex);
        return m_cancel;
    }

private:
    CVProgressController *m_screen; ///< main thread
    std::mutex m_mutex;             ///< guards what follows
    State m_state;
    std::function<void()> m_cancel;
    bool m_isWaiting = false; ///< a wake-up is on its way
};

CVProgressController::CVProgressController(QObject *parent)
    : CVViewController(parent)
    , m_progressView(new CVProgressView)
    , m_letterBox(std::make_shared<LetterBox>(*this))
    , m_state(std::make_unique<State>())
{
    setView(m_progressView);
    addAction(u"cancel"_s, tr("&Cancel"), u"tool/cancel"_s, QKeySequence(Qt::Key_Escape),
              [this] { cancel(); });
    m_delay.setSingleShot(true);
    connect(&m_delay, &QTimer::timeout, this, &CVProgressController::refresh);
    m_seconds.setInterval(textPeriod);
    connect(&m_seconds, &QTimer::timeout, this, &CVProgressController::showNumbers);
}

CVProgressController::~CVProgressController()
{
    m_letterBox->close();
}

void CVProgressController::setFilesDropped(std::function<void(const QStringList &)> handler)
{
    connect(m_progressView->fileWell(), &CVFileWell::filesDropped, this, std::move(handler));
}

QSize CVProgressController::size() const
{
    return CVTheme::initialSize().expandedTo(m_progressView->minimumSizeHint());
}

QStringList CVProgressController::desiredToolbarItems() const
{
    return {u"cancel"_s, flexibleSpace};
}

void CVProgressController::willLoadView()
{
    // What went by during a question was not the job's time.
    m_isCurrent = true;
    m_rate.resume(Clock::now());
    m_batchRate.resume(Clock::now());
    refresh();
    m_seconds.start();
}

void CVProgressController::viewWillBeUnloaded()
{
    m_isCurrent = false;
    m_seconds.stop();
}

void CVProgressController::setProgress(double done, double total)
{
    m_letterBox->change([&](State &state) {
        state.indeterminate = false;
        state.done = done;
        state.total = total;
    });
}

void CVProgressController::setProgressUnit(LXProgressUnit unit)
{
    m_letterBox->change([&](State &state) { state.unit = unit; });
}

void CVProgressController::setBatchPosition(const CVBatchPosition &position)
{
    m_letterBox->change([&](State &state) { state.batch = position; });
}

void CVProgressController::setIndeterminate()
{
    m_letterBox->change([](State &state) { state.indeterminate = true; });
}

void CVProgressController::setJob(const QString &text)
{
    m_letterBox->change([&](State &state) {
        state.job = text;
        ++state.jobs;
    });
}

void CVProgressController::setProgressImage(const QString &filename, bool showMultiples)
{
    m_letterBox->change([&](State &state) {
        state.image = filename;
        state.imageShowsMultiple = showMultiples;
    });
}

void CVProgressController::setCancelButton(std::function<void()> action)
{
    m_letterBox->setCancelAction(std::move(action));
}

void CVProgressController::reset()
{
    m_letterBox->change([](State &state) {
        const State before = state;
        state = {};
        state.image = before.image;
        state.imageShowsMultiple = before.imageShowsMultiple;
        state.jobs = before.jobs + 1;
        state.resets = before.resets + 1;
        state.cancelActions = before.cancelActions;
    });
}

void CVProgressController::setAcceptsDrops(bool accepts)
{
    m_progressView->fileWell()->setDropAllowed(accepts);
}

void CVProgressController::wake()
{
    const auto since = Clock::now() - m_shown;
    if (since >= shortestPeriod)
        refresh();
    else if (!m_delay.isActive())
        m_delay.start(std::chrono::ceil<std::chrono::milliseconds>(shortestPeriod - since));
}

void CVProgressController::refresh()
{
    m_delay.stop();
    m_shown = Clock::now();
    show(m_letterBox->take());
}

void CVProgressController::show(const State &state)
{
    const State before = std::exchange(*m_state, state);
    if (state.jobs != before.jobs)
        m_rate.restart(m_shown);
    if (state.resets != before.resets)
        m_batchRate.restart(m_shown);
    // A new job, or a new say in how it is stopped.
    if (state.resets != before.resets || state.cancelActions != before.cancelActions) {
        m_isCancelling = false;
        action(u"cancel"_s)->setEnabled(true);
    }
    if (state.job != m_job) {
        m_job = state.job;
        m_progressView->setJob(m_job);
        Q_EMIT titleChanged();
    }
    if (state.image != before.image || state.imageShowsMultiple != before.imageShowsMultiple)
        m_progressView->setIcon(state.image, state.imageShowsMultiple);
    if (state.indeterminate) {
        if (!before.indeterminate || state.jobs != before.jobs)
            m_progressView->setIndeterminate();
    } else {
        m_progressView->setShare(state.share());
    }
    const bool batchChanges = state.batch.has_value() != before.batch.has_value() ||
                              (state.batch && state.batch->number != before.batch->number);
    if (batchChanges || state.indeterminate != before.indeterminate || m_shown - m_textsShown >= textPeriod)
        showNumbers();
    if (state.batch.has_value() != before.batch.has_value() && m_isCurrent)
        Q_EMIT sizeChanged();
}

void CVProgressController::showNumbers()
{
    const State &state = *m_state;
    const auto now = Clock::now();
    m_textsShown = now;
    if (!state.indeterminate)
        m_rate.update(state.done, state.total, state.unit, now);
    // Bytes, because archives one after the other are one kind of work.
    if (state.batch)
        m_batchRate.update(state.batchShare(), 1, LXProgressUnit::Bytes, now);

    const auto text = [](const LXProgressRate &rate) {
        const auto seconds = rate.secondsLeft();
        return seconds ? CVProgressText::timeLeft(*seconds) : QString();
    };
    if (m_isCancelling) {
        m_progressView->setAmount(tr("Cancelling…"));
        m_progressView->setTimeLeft({});
    } else if (!state.indeterminate) {
        m_progressView->setAmount(state.unit == LXProgressUnit::Bytes
                                      ? CVProgressText::bytes(state.done, state.total, m_rate.perSecond())
                                      : CVProgressText::percent(state.done, state.total));
        m_progressView->setTimeLeft(state.done < state.total ? text(m_rate) : QString());
    }
    m_progressView->setBatch(state.batch, state.batchShare(), m_isCancelling ? QString() : text(m_batchRate));
}

void CVProgressController::cancel()
{
    const auto action = m_letterBox->cancelAction();
    if (!action)
        return;
    // Pressing it again would change nothing, and the press must show.
    m_isCancelling = true;
    this->action(u"cancel"_s)->setEnabled(false);
    showNumbers();
    action();
}
