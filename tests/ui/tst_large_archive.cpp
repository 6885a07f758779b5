#include "ui/support/LargeArchiveTour.h"
#include "ui/support/WindowDriver.h"

#include <QTest>

#include <cstdio>

namespace {

constexpr int many = 1'000'000;
// What is aimed at is measured in a release; this only finds work that grows with the entries and stands
// where everybody waits for it.
constexpr double unbearable = 500;
constexpr double mostMegabytes = 700;

} // namespace

class TestLargeArchive : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void staysSwiftAndSmall_data()
    {
        QTest::addColumn<ManyEntries::Shape>("shape");
        QTest::newRow("in folders") << ManyEntries::Shape::Folders;
        QTest::newRow("all at the top") << ManyEntries::Shape::Flat;
    }
    void staysSwiftAndSmall()
    {
        QFETCH(ManyEntries::Shape, shape);
        WindowDriver driver(WindowDriver::Motion::Full);
        LargeArchiveTour tour(driver, shape, many);
        const bool isDone = tour.run();
        std::fputs(qPrintable(tour.report()), stdout);
        QVERIFY2(isDone, qPrintable(tour.problem()));
        QVERIFY2(tour.longest().worst.own < unbearable, qPrintable(tour.longest().what));
        QVERIFY(tour.peakMegabytes() > 0);
        QVERIFY(tour.peakMegabytes() < mostMegabytes);
    }
};

QTEST_MAIN(TestLargeArchive)
#include "tst_large_archive.moc"
