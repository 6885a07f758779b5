#include "archives/LXTaskHelper.h"
#include "util/LXMainThread.h"

#include <QTest>

#include <csignal>
#include <thread>

namespace {

class Listener final : public LXTaskDelegate
{
public:
    QStringList lines;
    QList<int> statuses;
    bool onMainThread = true;
    std::function<void()> onLine;

    void taskHasOutputAvailable(LXTask &, const QString &line) override
    {
        onMainThread = onMainThread && LXMainThread::isCurrent();
        lines << line;
        if (onLine)
            onLine();
    }
    void taskHasCompletedWithStatus(LXTask &, std::int32_t status) override
    {
        onMainThread = onMainThread && LXMainThread::isCurrent();
        statuses << status;
    }
};

std::shared_ptr<LXTask> shell(const QString &command)
{
    auto task = std::make_shared<LXTask>();
    task->launchPath = QStringLiteral("/bin/sh");
    task->arguments = {QStringLiteral("-c"), command};
    return task;
}

} // namespace

class TestTaskHelper : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { LXMainThread::install(); }
    void outputInPieces_data();
    void outputInPieces();
    void inputAndEnvironment();
    void terminatedTaskCompletes();
    void missingProgramCompletes();
    void releasedHelperTellsNothing();
};

void TestTaskHelper::outputInPieces_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<int>("status");
    QTest::newRow("nothing") << "true" << QStringList{} << 0;
    QTest::newRow("two lines") << "printf 'a\\nb'" << QStringList{"a", "b"} << 0;
    QTest::newRow("newline at the end") << "printf 'a\\n'" << QStringList{"a", ""} << 0;
    QTest::newRow("error stream, status") << "printf 'x' >&2; exit 3" << QStringList{"x"} << 3;
    QTest::newRow("not UTF-8") << "printf '\\377\\n'" << QStringList{} << 0;
}

void TestTaskHelper::outputInPieces()
{
    QFETCH(QString, command);
    auto listener = std::make_shared<Listener>();
    LXTaskHelper helper(listener, shell(command));
    helper.launchTask();
    QTRY_COMPARE(listener->statuses.size(), 1);
    QTEST(listener->lines, "lines");
    QTEST(listener->statuses.first(), "status");
    QVERIFY(listener->onMainThread);
    QVERIFY(!helper.task().isRunning());
}

void TestTaskHelper::inputAndEnvironment()
{
    auto listener = std::make_shared<Listener>();
    auto task = shell(QStringLiteral("read x; echo \"$x|$OWN|$NSUnbufferedIO\"; read y; echo \"$y\""));
    task->environment.insert(QStringLiteral("OWN"), QStringLiteral("mine"));
    LXTaskHelper helper(listener, task);
    helper.launchTask();
    helper.sendInput(QStringLiteral("grün\n"));
    QTRY_COMPARE(listener->lines.value(0), QStringLiteral("grün|mine|YES"));
    QVERIFY(helper.task().isRunning());
    helper.sendInput(QStringLiteral("more\n"));
    QTRY_COMPARE(listener->statuses, QList<int>{0});
    QCOMPARE(listener->lines.filter(QStringLiteral("more")).size(), 1);
}

void TestTaskHelper::terminatedTaskCompletes()
{
    auto listener = std::make_shared<Listener>();
    LXTaskHelper helper(listener, shell(QStringLiteral("exec sleep 60")));
    helper.launchTask();
    std::thread([&] {
        helper.task().terminate();
        helper.task().waitUntilExit();
    }).join();
    QCOMPARE(helper.task().terminationStatus(), SIGTERM);
    QTRY_COMPARE(listener->statuses, QList<int>{SIGTERM});
}

void TestTaskHelper::missingProgramCompletes()
{
    auto listener = std::make_shared<Listener>();
    auto task = std::make_shared<LXTask>();
    task->launchPath = QStringLiteral("/nowhere/at-all");
    LXTaskHelper helper(listener, task);
    helper.launchTask();
    QTRY_COMPARE(listener->statuses, QList<int>{127});
}

void TestTaskHelper::releasedHelperTellsNothing()
{
    auto listener = std::make_shared<Listener>();
    auto helper = std::make_unique<LXTaskHelper>(listener, shell(QStringLiteral("while :; do echo x; done")));
    listener->onLine = [&] { helper.reset(); };
    helper->launchTask();
    QTRY_VERIFY(!helper);
    const qsizetype told = listener->lines.size();
    QTest::qWait(20);
    QCOMPARE(listener->lines.size(), told);
    QVERIFY(listener->statuses.isEmpty());
}

QTEST_GUILESS_MAIN(TestTaskHelper)
#include "tst_taskhelper.moc"
