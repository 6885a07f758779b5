#pragma once

#include "util/LXProgressRate.h"

#include <QString>
#include <QStringList>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stop_token>
#include <utility>
#include <vector>

class CVOperationDelegate;
class LXSandboxFileAuthenticator;

/// One job. Made by the factory, given a delegate and a file authoriser, put on a CVOperationQueue.
///
/// Life: waiting → main() on a worker → finished. A job is finished when main() returns, unless it
/// endsAfterMain(): then when it calls finish(), on whatever thread. Until then it occupies its place
/// in the queue. A job that is cancelled while it waits never runs main().
///
/// Ends: towards the delegate a job ends exactly once, as completed, failed or cancelled. Several
/// threads may reach an end together, so every end is written
///     if (endOnce()) delegate()->operationCompleted(this);
/// endOnce() and finish() are separate on purpose: the report comes first, the place is given up last.
///
/// Ownership: always by std::shared_ptr; the queue keeps a job alive until it is finished.
class CVOperation : public std::enable_shared_from_this<CVOperation>
{
public:
    using Observer = std::function<void(CVOperation &)>;
    /// granted, and the path of the grant that covers what was asked for (empty when refused).
    using AuthorizedHandler = std::function<void(bool granted, const QString &path)>;

    CVOperation() = default;
    virtual ~CVOperation();
    CVOperation(const CVOperation &) = delete;
    CVOperation &operator=(const CVOperation &) = delete;

    /// The work, on a worker thread. Must look at isCancelled() between blocks. Must not throw.
    virtual void main() {}

    /// Short name of the job for people.
    virtual QString taskDescription() const;

    /// What the numbers count that it reports as its progress. Any thread, always the same.
    virtual LXProgressUnit progressUnit() const { return LXProgressUnit::Share; }

    virtual void willLoadView() {}

    /// True for a job whose main() only starts the work; it calls finish() itself, also after a cancel.
    virtual bool endsAfterMain() const { return false; }

    /// Any thread, any number of times. An override calls this one too.
    virtual void cancel();
    bool isCancelled() const noexcept { return m_stop.stop_requested(); }
    /// For waits that have to end with a cancel.
    std::stop_token stopToken() const noexcept { return m_stop.get_token(); }
    bool isFinished() const noexcept { return m_finished.load(); }

    /// Any thread. Called once when the job is finished (cancelled), on the thread that finishes
    /// (cancels) it, or at once if it already is. The answer is for removeObserver().
    int observeFinished(Observer observer);
    int observeCancelled(Observer observer);
    /// The observer may still be running on another thread when this returns.
    void removeObserver(int id);

    /// Borrowed weakly: a delegate that is gone is replaced by one that answers every question with
    /// the safe answer. Never null, so callers need no test.
    std::shared_ptr<CVOperationDelegate> delegate() const;
    void setDelegate(std::weak_ptr<CVOperationDelegate> delegate);

    std::shared_ptr<LXSandboxFileAuthenticator> fileAuthenticator() const;
    void setFileAuthenticator(std::shared_ptr<LXSandboxFileAuthenticator> authenticator);

    /// True for the first caller and for no other: that caller, and only it, reports the end.
    bool endOnce() noexcept { return !m_ended.exchange(true); }
    bool hasEnded() const noexcept { return m_ended.load(); }

    /// The person is asked for the destination each time. Choosing a folder in a panel grants access
    /// to it, so nothing more is asked of the authoriser then.
    virtual bool destinationSetToAskMe() const;

    /// Asks for access to the paths; the handler is called once, on this thread or another one.
    void runAuthorizedHandler(const QStringList &paths, AuthorizedHandler handler);
    /// As above, but with (true, destination) at once when the destination was chosen in a panel.
    void runAuthorizedHandlerToDestination(const QString &destination, const QStringList &paths,
                                           AuthorizedHandler handler);
    void startSecurelyAccessing(const QString &path);
    void stopSecurelyAccessing(const QString &path);

    /// For the queue: main(), and finish() unless the job ends later. A job already cancelled ends as
    /// cancelled instead.
    void run();

protected:
    /// The job is over and gives up its place. Idempotent. After it, main() must not touch shared state.
    void finish();

private:
    struct Observers
    {
        std::map<int, Observer> waiting;
        bool told = false;
    };
    int observe(Observers &observers, Observer observer);
    void tell(Observers &observers);

    std::stop_source m_stop;
    std::atomic<bool> m_finished = false;
    std::atomic<bool> m_ended = false;

    mutable std::mutex m_mutex; ///< guards what follows
    int m_nextObserver = 1;
    Observers m_onFinished;
    Observers m_onCancelled;
    std::weak_ptr<CVOperationDelegate> m_delegate;
    std::shared_ptr<LXSandboxFileAuthenticator> m_fileAuthenticator;
};
