#include "ui/base/CVFileWell.h"
#include "ui/progress/CVProgressController.h"
#include "ui/progress/CVProgressText.h"
#include "ui/progress/CVProgressView.h"
#include "ui/support/ScreenTest.h"

#include <QDropEvent>
#include <QMimeData>
#include <QProgressBar>
#include <QSignalSpy>

#include <algorithm>
#include <thread>

using namespace Qt::StringLiterals;

class tst_progress_screens : public ScreenTest
{
    Q_OBJECT

private Q_SLOTS:
    void barShowsTheShare_data();
    void barShowsTheShare();
    void onlyBytesAreShownAsBytes();
    void manyReportsAreOneEvent();
    void timeLeftIsRounded_data();
    void timeLeftIsRounded();
    void batchIsShownAsAWhole();
    void cancelRunsTheLastActionOnce();
    void reportsOutliveTheScreen();
    void dropsReachTheWindow();
    void timeLeftIsNotSpokenAllTheTime();
};

void tst_progress_screens::barShowsTheShare_data()
{
    QTest::addColumn<double>("done");
    QTest::addColumn<double>("total");
    QTest::addColumn<double>("share");
    QTest::newRow("half") << 5.0 << 10.0 << 0.5;
    QTest::newRow("total of nothing") << 5.0 << 0.0 << 0.0;
    QTest::newRow("more than all") << 11.0 << 10.0 << 1.0;
    QTest::newRow("less than nothing") << -1.0 << 10.0 << 0.0;
    QTest::newRow("beyond int") << 4e12 << 8e12 << 0.5;
    QTest::newRow("nonsense") << 1.0 << -3.0 << 0.0;
}

void tst_progress_screens::barShowsTheShare()
{
    QFETCH(double, done);
    QFETCH(double, total);
    CVProgressController screen;
    m_stage->loadViewController(screen, false);
    screen.setProgress(done, total);
    screen.refresh();
    const auto *bar = screen.view()->findChild<QProgressBar *>();
    QVERIFY(bar->maximum() > bar->minimum());
    QTEST(double(bar->value()) / bar->maximum(), "share");
    screen.reset();
    screen.refresh();
    QCOMPARE(bar->value(), 0);
}

void tst_progress_screens::onlyBytesAreShownAsBytes()
{
    CVProgressController screen;
    m_stage->loadViewController(screen, false);
    screen.setJob(u"Creating “a.zip”"_s);
    screen.setProgress(3, 12);
    screen.refresh();
    QTRY_VERIFY(labelTexts(screen.view()).contains(u"25 %"_s));
    screen.reset();
    screen.setProgressUnit(LXProgressUnit::Bytes);
    screen.setProgress(3'000'000, 12'000'000);
    QTRY_VERIFY(labelTexts(screen.view()).join(u' ').contains(u"3.0 MB of 12.0 MB"_s));
    QVERIFY(!labelTexts(screen.view()).join(u' ').contains(u'%'));
    screen.reset(); // the next job counts shares until it says otherwise
    screen.setProgress(1, 2);
    QTRY_VERIFY(labelTexts(screen.view()).contains(u"50 %"_s));
}

void tst_progress_screens::manyReportsAreOneEvent()
{
    CVProgressController screen;
    m_stage->loadViewController(screen, false);
    auto *bar = screen.view()->findChild<QProgressBar *>();
    screen.setProgress(0, 1e6);
    screen.refresh();
    QSignalSpy changes(bar, &QProgressBar::valueChanged);
    std::jthread job([&screen] {
        for (int i = 0; i <= 1'000'000; ++i)
            screen.setProgress(i, 1e6);
    });
    QTRY_COMPARE(bar->value(), bar->maximum());
    job.join();
    QTest::qWait(50);
    // The bar has ten thousand steps, and a million reports would have shown them all.
    QVERIFY2(changes.size() < 1000, qPrintable(QString::number(changes.size())));
}

void tst_progress_screens::timeLeftIsRounded_data()
{
    QTest::addColumn<double>("seconds");
    QTest::addColumn<QString>("text");
    QTest::newRow("end") << 0.0 << u"A few seconds left"_s;
    QTest::newRow("seconds") << 13.0 << u"About 15 seconds left"_s;
    QTest::newRow("almost a minute") << 57.0 << u"About 55 seconds left"_s;
    QTest::newRow("a minute") << 61.0 << u"About a minute left"_s;
    QTest::newRow("two") << 115.0 << u"About 2 minutes left"_s;
    QTest::newRow("many") << 43.0 * 60 << u"About 45 minutes left"_s;
    QTest::newRow("an hour") << 59.0 * 60 << u"About an hour left"_s;
    QTest::newRow("hours") << 2.6 * 3600 << u"About 3 hours left"_s;
    QTest::newRow("days") << 50.0 * 3600 << u"More than a day left"_s;
}

void tst_progress_screens::timeLeftIsRounded()
{
    QFETCH(double, seconds);
    QTEST(CVProgressText::timeLeft(seconds), "text");
}

void tst_progress_screens::batchIsShownAsAWhole()
{
    CVProgressController screen;
    m_stage->loadViewController(screen, false);
    screen.setBatchPosition({.number = 2, .count = 5, .shareBefore = 0.2, .shareAfter = 0.6});
    screen.setProgress(1, 2);
    screen.refresh();
    QVERIFY(labelTexts(screen.view()).contains(u"Archive 2 of 5"_s));
    const auto bars = screen.view()->findChildren<QProgressBar *>();
    QCOMPARE(bars.size(), 2);
    QStringList shares;
    for (const QProgressBar *bar : bars)
        shares.append(QString::number(bar->value() * 100 / bar->maximum()));
    shares.sort();
    QCOMPARE(shares, (QStringList{u"40"_s, u"50"_s}));
    screen.reset();
    screen.refresh();
    QVERIFY(!labelTexts(screen.view()).contains(u"Archive 2 of 5"_s));
}

void tst_progress_screens::cancelRunsTheLastActionOnce()
{
    CVProgressController screen;
    m_stage->loadViewController(screen, false);
    QStringList cancelled;
    screen.setCancelButton([&] { cancelled.append(u"first"_s); });
    screen.setCancelButton([&] { cancelled.append(u"second"_s); });
    screen.refresh();
    QTest::keyClick(&m_stage->window, Qt::Key_Escape);
    QTest::keyClick(&m_stage->window, Qt::Key_Escape);
    QCOMPARE(cancelled, QStringList(u"second"_s));
    QVERIFY(labelTexts(screen.view()).contains(u"Cancelling…"_s));
    // A late report of the job that is being stopped changes nothing about that.
    screen.setProgress(1, 2);
    QTest::qWait(600);
    QVERIFY(labelTexts(screen.view()).contains(u"Cancelling…"_s));
    // The next job can be cancelled as well.
    screen.reset();
    screen.setCancelButton([&] { cancelled.append(u"third"_s); });
    screen.refresh();
    QTest::keyClick(&m_stage->window, Qt::Key_Escape);
    QCOMPARE(cancelled.size(), 2);
}

void tst_progress_screens::reportsOutliveTheScreen()
{
    auto screen = std::make_unique<CVProgressController>();
    m_stage->loadViewController(*screen, false);
    screen->setProgress(1, 2);
    screen->setJob(u"x"_s);
    m_stage->clear();
    screen.reset();
    QCoreApplication::processEvents(); // what was on its way finds nobody
}

void tst_progress_screens::dropsReachTheWindow()
{
    CVProgressController screen;
    QStringList dropped;
    screen.setFilesDropped([&](const QStringList &paths) { dropped = paths; });
    m_stage->loadViewController(screen, false);
    auto *well = screen.view()->findChild<CVFileWell *>();
    QMimeData data;
    data.setData(u"text/uri-list"_s,
                 "file:///tmp/a%20b.zip\r\nfile:///tmp/%FF.rar\r\nhttps://a.invalid/b.zip\r\n");
    QVERIFY(!well->acceptDrops());
    screen.setAcceptsDrops(true);
    QVERIFY(well->acceptDrops());
    const QPointF middle(well->rect().center());
    QDragEnterEvent enter(middle.toPoint(), Qt::CopyAction | Qt::MoveAction, &data, Qt::LeftButton, {});
    QCoreApplication::sendEvent(well, &enter);
    QVERIFY(enter.isAccepted());
    QCOMPARE(enter.dropAction(), Qt::CopyAction);
    QDropEvent drop(middle, Qt::CopyAction | Qt::MoveAction, &data, Qt::LeftButton, {});
    QCoreApplication::sendEvent(well, &drop);
    QCOMPARE(drop.dropAction(), Qt::CopyAction); // never takes the files away
    QCOMPARE(dropped, (QStringList{u"/tmp/a b.zip"_s, u"/tmp/"_s + QChar(0xdcff) + u".rar"_s}));
}

void tst_progress_screens::timeLeftIsNotSpokenAllTheTime()
{
    CVProgressView view;
    view.setTimeLeft(u"About 3 minutes left"_s);
    view.setTimeLeft(u"About 2 minutes left"_s);
    const auto labels = view.findChildren<QLabel *>();
    const auto time =
        std::ranges::find_if(labels, [](const QLabel *l) { return l->text().startsWith(u"About 2"); });
    QVERIFY(time != labels.end());
    QCOMPARE((*time)->accessibleName(), u"About 3 minutes left"_s);
}

QTEST_MAIN(tst_progress_screens)
#include "tst_progress_screens.moc"
