#include "util/LXProgressRate.h"

#include <QTest>

using namespace std::chrono_literals;

using Unit = LXProgressUnit;

class tst_progress_rate : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        now = {};
        rate = {};
        rate.restart(now);
        done = 0;
        total = 1000;
    }

    void nothingIsForetoldFromTheFirstMoment()
    {
        run(100, 1s);
        QVERIFY(!rate.secondsLeft());
        QCOMPARE(rate.perSecond(), 100.0);
        run(100, 2s);
        QVERIFY(rate.secondsLeft());
        QCOMPARE(*rate.secondsLeft(), 7.0);
    }

    void aJobThatStandsStillLosesSpeed()
    {
        run(100, 4s);
        const double before = *rate.secondsLeft();
        run(0, 5s);
        QVERIFY(rate.secondsLeft());
        QVERIFY(*rate.secondsLeft() > 2 * before);
        QVERIFY(rate.perSecond() < 5);
        run(0, 60s);
        QVERIFY(!rate.secondsLeft()); // nobody knows
    }

    void burstsAreTakenForTheirMean()
    {
        total = 1000;
        run(0, 4s);
        for (int i = 0; i < 5; ++i) {
            run(50, 1s);
            const double after = *rate.secondsLeft();
            run(0, 4s); // 10 a second, as a whole
            const double left = (total - done) / 10;
            QVERIFY2(after > left / 2 && after < left * 2, qPrintable(QString::number(after)));
            QVERIFY2(*rate.secondsLeft() > left / 2 && *rate.secondsLeft() < left * 2,
                     qPrintable(QString::number(*rate.secondsLeft())));
        }
    }

    void sharesMayBeCountedAnew()
    {
        rate.update(1, 2, Unit::Share, now);
        total = 2'000'000;
        done = 1'000'000;
        run(10'000, 5s, Unit::Share); // a million in 100 seconds
        QVERIFY2(*rate.secondsLeft() > 80 && *rate.secondsLeft() < 120,
                 qPrintable(QString::number(*rate.secondsLeft())));
    }

    void timeOfAQuestionDoesNotCount()
    {
        run(100, 4s);
        now += 1h;
        rate.resume(now);
        run(100, 1s);
        QCOMPARE(rate.perSecond(), 100.0);
    }

    void whatBeginsAnewIsMeasuredAnew_data()
    {
        QTest::addColumn<LXProgressUnit>("unit");
        QTest::addColumn<double>("next");
        QTest::addColumn<bool>("anew");
        QTest::newRow("goes back") << Unit::Bytes << 0.0 << true;
        QTest::newRow("bytes have no stages") << Unit::Bytes << 340.0 << false;
        QTest::newRow("second third") << Unit::Share << 340.0 << true;
        QTest::newRow("same third") << Unit::Share << 320.0 << false;
    }
    void whatBeginsAnewIsMeasuredAnew()
    {
        QFETCH(LXProgressUnit, unit);
        QFETCH(double, next);
        QFETCH(bool, anew);
        run(100, 3s, unit);
        rate.update(next, 1000, unit, now);
        QCOMPARE(rate.perSecond() == 0, anew);
        QCOMPARE(!rate.secondsLeft(), anew);
    }

    void anUnknownTotalGivesNoForecast()
    {
        total = 0;
        run(100, 10s);
        QCOMPARE(rate.perSecond(), 100.0);
        QVERIFY(!rate.secondsLeft());
    }

private:
    /// Reports ten times a second.
    void run(double perSecond, std::chrono::seconds time, Unit unit = Unit::Bytes)
    {
        for (auto at = 0ms; at < time; at += 100ms) {
            now += 100ms;
            done += perSecond / 10;
            rate.update(done, total, unit, now);
        }
    }

    LXProgressRate rate;
    LXProgressRate::Clock::time_point now;
    double done = 0;
    double total = 1000;
};

QTEST_APPLESS_MAIN(tst_progress_rate)
#include "tst_progress_rate.moc"
