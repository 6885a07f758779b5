#include "ui/OptionScreens.h"
#include "ui/options/CVChunkSizeField.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFile>

using namespace Qt::StringLiterals;
using namespace OptionScreens;

class TestSplitScreen : public OptionScreens::Test
{
    Q_OBJECT

private Q_SLOTS:
    void splitKeys();
    void splitSizeReachesTheSplitter_data();
    void splitSizeReachesTheSplitter();
    void splitJobsKeepTheirSettings();
};

void TestSplitScreen::splitKeys()
{
    Split split;
    split.show();
    auto *screen = split.screen.get();
    const auto data = screen->splitOperationData();
    const auto pressed = [&](Qt::Key key) {
        split.key(key);
        return data->compressionSetting();
    };
    QVERIFY(screen->noneButton()->isSelected());
    QCOMPARE(pressed(Qt::Key_Left), 0U);
    QCOMPARE(pressed(Qt::Key_Right), 1U);
    QVERIFY(screen->checksumBox()->isVisible());
    QCOMPARE(pressed(Qt::Key_Right), 2U);
    QVERIFY(!screen->checksumBox()->isVisible());
    QCOMPARE(pressed(Qt::Key_Right), 2U);
    QVERIFY(screen->sevenZipButton()->isSelected());
    QVERIFY(screen->sevenZipButton()->hasFocus());
    QCOMPARE(pressed(Qt::Key_Left), 1U);
    QVERIFY(screen->checksumBox()->isVisible());
    for (const Qt::Key key : {Qt::Key_Left, Qt::Key_Right}) {
        data->setCompressionSetting(7);
        QCOMPARE(pressed(key), 0U);
    }
    QTest::mouseClick(screen->sevenZipButton(), Qt::LeftButton);
    QCOMPARE(data->compressionSetting(), 2U);
    screen->checksumBox()->setChecked(true);
    QVERIFY(data->splitter()->shouldChecksum());
}

void TestSplitScreen::splitSizeReachesTheSplitter_data()
{
    QTest::addColumn<qint64>("fileSize");
    QTest::addColumn<QString>("size");
    QTest::addColumn<QString>("unit");
    QTest::addColumn<int>("compression");
    QTest::addColumn<quint64>("bytes");
    QTest::addColumn<QString>("forecast");

    constexpr quint64 kilo = 1024;
    QTest::newRow("as it comes") << qint64(25) * 1024 * 1024 << QString() << QString() << 0
                                 << 10 * kilo * kilo << u"Makes 3 parts, the last one of 5.2 MB"_s;
    QTest::newRow("even") << qint64(20480) << u"10"_s << u"KB"_s << 0 << 10 * kilo
                          << u"Makes 2 parts of one size"_s;
    QTest::newRow("fraction") << qint64(1) << u"0.5"_s << u"GB"_s << 0 << 512 * kilo * kilo
                              << u"Fits into one part"_s;
    QTest::newRow("empty file") << qint64(0) << u"1"_s << u"KB"_s << 1 << kilo << u"Fits into one part"_s;
    QTest::newRow("compressed") << qint64(3000) << u"1"_s << u"KB"_s << 1 << kilo
                                << u"Makes up to about 3 parts"_s;
    QTest::newRow("no size") << qint64(3000) << u"0"_s << u"KB"_s << 0 << quint64(0)
                             << u"Please enter a size above 0"_s;
}

void TestSplitScreen::splitSizeReachesTheSplitter()
{
    QFETCH(qint64, fileSize);
    QFETCH(QString, size);
    QFETCH(QString, unit);
    QFETCH(int, compression);
    QFETCH(quint64, bytes);
    QFETCH(QString, forecast);
    QFile file(filePath(u"film"_s));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.resize(fileSize));
    Split split;
    split.show();
    split.screen->setFile(file.fileName());
    auto *field = split.screen->chunkSizeField();
    if (!size.isEmpty()) {
        field->numberField()->selectAll();
        QTest::keyClicks(field->numberField(), size);
        field->unitChooser()->setCurrentText(unit);
    }
    split.screen->splitOperationData()->setCompressionSetting(static_cast<unsigned>(compression));
    QCOMPARE(split.screen->splitOperationData()->splitter()->chunkSizeInBytes(), bytes);
    QTRY_COMPARE(split.screen->forecast(), forecast);
    // It is the job that says no to a size of nothing.
    QVERIFY(split.finish()->isEnabled());
}

void TestSplitScreen::splitJobsKeepTheirSettings()
{
    Split split;
    split.show();
    split.screen->changeCompressionType(split.screen->bZipButton());
    split.screen->chunkSizeField()->numberField()->setValue(3);
    split.screen->checksumBox()->setChecked(true);
    const auto job = split.screen->splitOperationData();
    split.screen->viewWillBeUnloaded();
    split.screen->willLoadView();
    const auto next = split.screen->splitOperationData();
    QVERIFY(next != job);
    QCOMPARE(next->compressionSetting(), 1U);
    QCOMPARE(next->splitter()->chunkSize(), 3.0);
    QVERIFY(next->splitter()->shouldChecksum());
    split.screen->chunkSizeField()->numberField()->setValue(4);
    QCOMPARE(job->splitter()->chunkSize(), 3.0);
}

QTEST_MAIN(TestSplitScreen)
#include "tst_split_screen.moc"
