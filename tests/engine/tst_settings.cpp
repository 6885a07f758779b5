#include "engine/model/CVOldPreferencesImporter.h"
#include "engine/model/CVSettings.h"

#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

class TestSettings : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup() { CVSettings::setStore(nullptr); }
    void defaults();
    void importOfTheEarlierVersion_data();
    void importOfTheEarlierVersion();
    void overrideWinsAndIsNotKept();

private:
    std::unique_ptr<QTemporaryDir> m_dir;
};

void TestSettings::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    CVSettings::setStore(std::make_shared<LXSettingsStore>(m_dir->filePath(u"corvane.conf"_s)));
}

void TestSettings::defaults()
{
    QCOMPARE(CVSettings::string(CVSettingsKey::createArchiveFormat), u"zip"_s);
    QCOMPARE(CVSettings::integer(CVSettingsKey::numberOfSimultaneousOperations), 5);
    QVERIFY(CVSettings::boolean(CVSettingsKey::openInPlace));
    QVERIFY(CVSettings::stringList(CVSettingsKey::tempDirs).isEmpty());
    QVERIFY(CVSettings::string(CVSettingsKey::extractDefaultDestination).startsWith(u'/'));
    QCOMPARE(CVSettings::defaults().size(), 26);
}

void TestSettings::importOfTheEarlierVersion_data()
{
    QTest::addColumn<bool>("earlier");
    QTest::addColumn<int>("launched");
    QTest::addColumn<int>("destination");
    QTest::newRow("fresh") << false << 0 << 0;
    QTest::newRow("used the earlier one") << true << 0 << 2;
    QTest::newRow("second start") << true << 3 << 0;
}

void TestSettings::importOfTheEarlierVersion()
{
    QFETCH(bool, earlier);
    QFETCH(int, launched);
    const QString oldPath = m_dir->filePath(u"old.conf"_s);
    if (earlier) {
        LXSettingsStore old(oldPath);
        old.setValue(CVSettingsKey::extractDestination, 2);
        old.setValue(CVSettingsKey::numberOfSimultaneousOperations, 1);
    }
    if (launched > 0)
        CVSettings::setValue(CVSettingsKey::lastLaunchedVersion, launched);
    CVOldPreferencesImporter(oldPath).importSettingsFromOldVersion();
    QTEST(static_cast<int>(CVSettings::integer(CVSettingsKey::extractDestination)), "destination");
    QCOMPARE(CVSettings::integer(CVSettingsKey::numberOfSimultaneousOperations), 5);
    QVERIFY(!CVSettings::store()->isStored(CVSettingsKey::sound));
}

void TestSettings::overrideWinsAndIsNotKept()
{
    CVSettings::overrideForThisRun(CVSettingsKey::extractDestination, 2);
    QCOMPARE(CVSettings::integer(CVSettingsKey::extractDestination), 2);
    init();
    QCOMPARE(CVSettings::integer(CVSettingsKey::extractDestination), 0);
}

QTEST_GUILESS_MAIN(TestSettings)
#include "tst_settings.moc"
