#include "engine/model/CVOperation.h"
#include "engine/model/CVOperationDelegate.h"
#include "engine/model/CVOperationQueue.h"

#include <QTest>

#include <condition_variable>
#include <functional>
#include <latch>
#include <thread>

namespace {

class CountingDelegate : public CVOperationDelegate
{
public:
    void operationCompleted(CVOperation *) override { ++completed; }
    void operationWasCancelled(CVOperation *) override { ++cancelled; }
    void operationFailedWithError(CVOperation *, const LXError &) override { ++failed; }
    int ends() const { return completed + cancelled + failed; }

    std::atomic<int> completed = 0;
    std::atomic<int> cancelled = 0;
    std::atomic<int> failed = 0;
};

class Job : public CVOperation
{
public:
    explicit Job(std::function<void(Job &)> work, bool later = false)
        : m_work(std::move(work))
        , m_later(later)
    {}
    void main() override { m_work(*this); }
    bool endsAfterMain() const override { return m_later; }
    using CVOperation::finish;

private:
    std::function<void(Job &)> m_work;
    bool m_later;
};

void complete(Job &job)
{
    if (job.endOnce())
        job.delegate()->operationCompleted(&job);
}

// A door that jobs wait at, so that a test decides when they go on.
class Door
{
public:
    void open()
    {
        const std::lock_guard lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    void pass()
    {
        std::unique_lock lock(m_mutex);
        ++m_inside;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_open; });
    }
    bool waitForInside(int count)
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(20), [&] { return m_inside >= count; });
    }
    int inside()
    {
        const std::lock_guard lock(m_mutex);
        return m_inside;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_inside = 0;
    bool m_open = false;
};

} // namespace

class TestOperation : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void widthLimitsAndChangesLive();
    void laterEndKeepsThePlace();
    void waitingJobLeavesAtOnceWhenCancelled();
    void shutdownEndsEverything();
    void endsOnceUnderRacingCancel();
    void observersAreToldOnceAndLate();
    void delegateThatIsGoneAnswersSafely();
    void cancelAfterTheQueueIsGone();
};

void TestOperation::widthLimitsAndChangesLive()
{
    CVOperationQueue queue(2);
    Door door;
    const auto delegate = std::make_shared<CountingDelegate>();
    for (int i = 0; i < 6; ++i) {
        auto job = std::make_shared<Job>([&](Job &self) {
            door.pass();
            complete(self);
        });
        job->setDelegate(delegate);
        queue.add(job);
    }
    QVERIFY(door.waitForInside(2));
    QCOMPARE(queue.operations().size(), 6u);
    QCOMPARE(door.inside(), 2);

    queue.setWidth(5);
    QVERIFY(door.waitForInside(5));
    QCOMPARE(door.inside(), 5);

    queue.setWidth(1);
    door.open();
    queue.waitUntilEmpty();
    QCOMPARE(delegate->completed, 6);
}

void TestOperation::laterEndKeepsThePlace()
{
    CVOperationQueue queue(1);
    std::latch started(1);
    auto later = std::make_shared<Job>([&](Job &) { started.count_down(); }, true);
    std::atomic<bool> secondRan = false;
    auto second = std::make_shared<Job>([&](Job &) { secondRan = true; });
    queue.add(later);
    queue.add(second);
    started.wait();
    // main() has returned or is about to; nothing may take the place before the job says so.
    QTest::qWait(20);
    QVERIFY(!secondRan);
    QVERIFY(!later->isFinished());
    std::thread([&] { later->finish(); }).join();
    queue.waitUntilEmpty();
    QVERIFY(secondRan);
}

void TestOperation::waitingJobLeavesAtOnceWhenCancelled()
{
    CVOperationQueue queue(1);
    Door door;
    const auto delegate = std::make_shared<CountingDelegate>();
    queue.add(std::make_shared<Job>([&](Job &) { door.pass(); }));
    QVERIFY(door.waitForInside(1));
    std::atomic<bool> ran = false;
    auto waiting = std::make_shared<Job>([&](Job &) { ran = true; });
    waiting->setDelegate(delegate);
    queue.add(waiting);
    waiting->cancel();
    QTRY_VERIFY(waiting->isFinished());
    QCOMPARE(delegate->cancelled, 1);
    QCOMPARE(queue.operations().size(), 1u);
    door.open();
    queue.waitUntilEmpty();
    QVERIFY(!ran);
}

void TestOperation::shutdownEndsEverything()
{
    const auto delegate = std::make_shared<CountingDelegate>();
    CVOperationQueue queue(3);
    for (int i = 0; i < 200; ++i) {
        auto job = std::make_shared<Job>([](Job &self) {
            while (!self.isCancelled())
                std::this_thread::yield();
            if (self.endOnce())
                self.delegate()->operationWasCancelled(&self);
        });
        job->setDelegate(delegate);
        queue.add(job);
    }
    queue.shutdown();
    QCOMPARE(delegate->cancelled, 200);
    QVERIFY(queue.operations().empty());

    auto late = std::make_shared<Job>([](Job &) {});
    late->setDelegate(delegate);
    queue.add(late);
    QVERIFY(late->isFinished());
    QCOMPARE(delegate->cancelled, 201);
}

void TestOperation::endsOnceUnderRacingCancel()
{
    CVOperationQueue queue(4);
    const auto delegate = std::make_shared<CountingDelegate>();
    constexpr int jobs = 300;
    std::atomic<int> finished = 0;
    for (int i = 0; i < jobs; ++i) {
        auto job = std::make_shared<Job>([](Job &self) {
            // The back end's thread reports a failure while main() completes and others cancel.
            std::jthread backEnd([&self] {
                if (self.endOnce())
                    self.delegate()->operationFailedWithError(&self, {});
            });
            complete(self);
        });
        job->setDelegate(delegate);
        job->observeFinished([&](CVOperation &) { ++finished; });
        queue.add(job);
        std::jthread canceller([job] { job->cancel(); });
        job->cancel();
    }
    queue.waitUntilEmpty();
    QCOMPARE(delegate->ends(), jobs);
    QCOMPARE(finished, jobs);
}

void TestOperation::observersAreToldOnceAndLate()
{
    auto job = std::make_shared<Job>([](Job &) {});
    int early = 0;
    int removed = 0;
    int late = 0;
    job->observeFinished([&](CVOperation &) { ++early; });
    job->removeObserver(job->observeFinished([&](CVOperation &) { ++removed; }));
    job->run();
    job->finish();
    job->observeFinished([&](CVOperation &) { ++late; });
    job->observeCancelled([&](CVOperation &) { ++removed; });
    QCOMPARE(early, 1);
    QCOMPARE(late, 1);
    QCOMPARE(removed, 0);
    job->cancel();
    job->cancel();
    QCOMPARE(removed, 1);
}

void TestOperation::delegateThatIsGoneAnswersSafely()
{
    const auto job = std::make_shared<Job>([](Job &) {});
    {
        const auto delegate = std::make_shared<CountingDelegate>();
        job->setDelegate(delegate);
        QCOMPARE(job->delegate().get(), delegate.get());
    }
    QVERIFY(!job->delegate()->operationNeedsPasswordForFileAtPath(job.get(), {}, false).has_value());
    QCOMPARE(job->delegate()->operationNeedsToAskWhetherToReplaceFileAtPath(job.get(), {}),
             CVAlertResult::Cancel);
}

void TestOperation::cancelAfterTheQueueIsGone()
{
    auto job = std::make_shared<Job>([](Job &) {});
    {
        CVOperationQueue queue;
        queue.add(job);
        queue.waitUntilEmpty();
    }
    job->cancel();
    QVERIFY(job->isCancelled());
}

QTEST_GUILESS_MAIN(TestOperation)
#include "tst_operation.moc"
