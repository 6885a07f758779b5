#include "engine/model/CVEditArchiveOperationDataBinding.h"
#include "engine/model/CVRarToolStatus.h"
#include "engine/model/CVSettings.h"
#include "engine/model/CVSplitOperationDataBinding.h"
#include "util/LXMainThread.h"

#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <thread>

using namespace Qt::StringLiterals;

namespace {

class BindingDelegate : public CVOperationDataBindingDelegate
{
public:
    void operationDataDidChangeArchiveType(CVEditArchiveOperationDataBinding &, const QString &type) override
    {
        types.append(type);
    }
    QStringList types;
};

class InstalledRar : public CVRarToolStatus
{
public:
    bool isRarInstalled() const override { return true; }
    bool isOldVersionInstalled() const override { return old; }
    bool old = false;
};

} // namespace

class TestDataBindings : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { LXMainThread::install(); }
    void init();
    void cleanup() { CVSettings::setStore(nullptr); }
    void names_data();
    void names();
    void changeOfFormat_data();
    void changeOfFormat();
    void settingsGoBothWays();
    void settingChangedOnAnotherThread();
    void jobsAreDetached();
    void derivedValuesAreTold();
    void passwords_data();
    void passwords();
    void rarTool();
    void splitDescription();

private:
    std::unique_ptr<QTemporaryDir> m_dir;
};

void TestDataBindings::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    CVSettings::setStore(std::make_shared<LXSettingsStore>(m_dir->filePath(u"corvane.conf"_s)));
}

void TestDataBindings::names_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("smart");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("output");
    QTest::newRow("plain") << u"/a/b/Data.zip"_s << u"Data"_s << u"Photos"_s << u"zip"_s << u"Photos.zip"_s;
    QTest::newRow("has it already") << u"/a/b/Data.tar.bz2"_s << u"Data"_s << u"Photos.ZIP"_s << u"zip"_s
                                    << u"Photos.ZIP"_s;
    QTest::newRow("compound") << u"/a/Data.TAR.gz"_s << u"Data"_s << u"x.tar.gz"_s << u"tar.gz"_s
                              << u"x.tar.gz"_s;
    QTest::newRow("another one") << u"/a/b.c/"_s << u"b"_s << u"x.tar.gz"_s << u"zip"_s << u"x.tar.gz.zip"_s;
    QTest::newRow("no source, no type") << QString() << u"Archive"_s << u"x"_s << QString() << u"x"_s;
}

void TestDataBindings::names()
{
    QFETCH(QString, source);
    QFETCH(QString, name);
    QFETCH(QString, type);
    CVCreateOperationDataBinding binding;
    QCOMPARE(binding.archiveName(), u"Archive"_s);
    binding.setSourcePath(source);
    binding.setArchiveName(name);
    binding.setArchiveType(type);
    QTEST(binding.smartArchiveName(), "smart");
    QTEST(binding.outputArchiveName(), "output");
}

void TestDataBindings::changeOfFormat_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<int>("level");
    QTest::addColumn<int>("expected");
    QTest::newRow("gzip cannot leave out compression") << u"tar.gz"_s << 0 << 1;
    QTest::newRow("nor can bzip2") << u"tar.bz2"_s << 0 << 1;
    QTest::newRow("plain tar") << u"tar"_s << 0 << 0;
    QTest::newRow("7z") << u"7z"_s << 0 << 0;
    QTest::newRow("a level stays") << u"tar.gz"_s << 9 << 9;
}

void TestDataBindings::changeOfFormat()
{
    QFETCH(QString, type);
    QFETCH(int, level);
    QFETCH(int, expected);
    CVCreateOperationDataBinding binding;
    const auto delegate = std::make_shared<BindingDelegate>();
    binding.setDelegate(delegate);
    binding.setCompressionLevel(level);
    binding.setArchiveType(type);
    binding.setArchiveType(type);
    QCOMPARE(binding.compressionLevel(), expected);
    QCOMPARE(CVSettings::integer(CVSettingsKey::compressionLevelSetting), expected);
    QCOMPARE(delegate->types, QStringList{type});
    // Another screen, where the format allows that, is set to no compression.
    CVSettings::setValue(CVSettingsKey::compressionLevelSetting, 0);
    QCOMPARE(binding.compressionLevel(), std::min(expected, 1));
}

void TestDataBindings::settingsGoBothWays()
{
    CVSettings::setValue(CVSettingsKey::imagePreCompressionFormat, 4);
    CVSettings::setValue(CVSettingsKey::createArchiveFormat, u"tar"_s); // is none of its business
    CVConvertOperationDataBinding binding;
    const auto delegate = std::make_shared<BindingDelegate>();
    binding.setDelegate(delegate);
    QCOMPARE(binding.archiveType(), u"zip"_s);
    QCOMPARE(binding.compressionLevel(), 5);
    QCOMPARE(binding.imageFileFormat(), 4);

    binding.setArchiveTypeValue(u"7z"_s);
    binding.setAudioFileFormat(1);
    QCOMPARE(CVSettings::string(CVSettingsKey::convertArchiveFormat), u"7z"_s);
    QCOMPARE(CVSettings::integer(CVSettingsKey::audioPreCompressionFormat), 1);

    CVCreateOperationDataBinding other;
    QCOMPARE(other.archiveType(), u"7z"_s);
    other.setCompressionLevel(2);
    QCOMPARE(binding.compressionLevel(), 2);

    int told = 0;
    binding.observe(u"archiveType"_s, [&](const QString &) { ++told; });
    binding.setToZip();
    QCOMPARE(binding.archiveType(), u"zip"_s);
    QCOMPARE(told, 0);
    QCOMPARE(delegate->types, QStringList{u"7z"_s});
    QCOMPARE(CVSettings::string(CVSettingsKey::createArchiveFormat), u"7z"_s);
}

void TestDataBindings::jobsAreDetached()
{
    CVSettings::setValue(CVSettingsKey::shouldEncrypt, true);
    CVCreateOperationDataBinding job;
    CVCreateOperationDataBinding plain;
    std::thread([] { CVSettings::setValue(CVSettingsKey::compressionLevelSetting, 1); }).join();
    job.detachFromSettings();
    plain.forgoEncryption();
    QVERIFY(!plain.shouldEncrypt());
    QCoreApplication::processEvents(); // the change was on its way
    CVSettings::setValue(CVSettingsKey::shouldEncrypt, false);
    CVSettings::setValue(CVSettingsKey::createArchiveFormat, u"tar"_s);
    QCOMPARE(job.archiveType(), u"zip"_s);
    QCOMPARE(job.compressionLevel(), 5);
    QVERIFY(job.canEncrypt());
    QVERIFY(job.shouldEncrypt());
}

void TestDataBindings::settingChangedOnAnotherThread()
{
    auto binding = std::make_unique<CVCreateOperationDataBinding>();
    std::jthread([] { CVSettings::setValue(CVSettingsKey::compressionLevelSetting, 8); }).join();
    QTRY_COMPARE(binding->compressionLevel(), 8);
    // The news may arrive after the binding is gone.
    std::jthread([] { CVSettings::setValue(CVSettingsKey::compressionLevelSetting, 3); }).join();
    binding.reset();
    QCoreApplication::processEvents();
}

void TestDataBindings::derivedValuesAreTold()
{
    CVCreateOperationDataBinding binding;
    QStringList told;
    for (const QString &key :
         {u"archiveTypeDescription"_s, u"canEncrypt"_s, u"archiveIcon"_s, u"fileName"_s,
          u"passwordIsInvalid"_s, u"passwordMessage"_s, u"passwordsMatchOrShouldInstallRAR"_s})
        binding.observe(key, [&](const QString &changed) { told.append(changed); });
    binding.setArchiveType(u"7z"_s);
    QCOMPARE(told.size(), 7); // each once, however many ways lead to it
    QCOMPARE(QSet<QString>(told.begin(), told.end()).size(), 7);
    told.clear();
    binding.setPassword(u"x"_s);
    binding.setPassword(u"x"_s);
    QCOMPARE(told.size(), 3);
    told.clear();
    CVSettings::setValue(CVSettingsKey::shouldEncrypt, true);
    QCOMPARE(told.size(), 3);
}

void TestDataBindings::passwords_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<bool>("encrypt");
    QTest::addColumn<QString>("password");
    QTest::addColumn<QString>("confirmation");
    QTest::addColumn<bool>("invalid");
    QTest::addColumn<bool>("matches");
    QTest::addColumn<QString>("message");
    const auto row = [](const char *name, const QString &type, bool encrypt, const QString &password,
                        const QString &confirmation, bool invalid, bool matches, const QString &message) {
        QTest::newRow(name) << type << encrypt << password << confirmation << invalid << matches << message;
    };
    row("fits", u"zip"_s, true, u"abc"_s, u"abc"_s, false, true, u"Passwords do not match"_s);
    row("differs", u"zip"_s, true, u"abc"_s, u"abd"_s, true, false, u"Passwords do not match"_s);
    row("not confirmed", u"7z"_s, true, u"abc"_s, QString(), true, false, u"Please confirm password"_s);
    row("none yet", u"7z"_s, true, QString(), QString(), false, false, u"Please enter a password"_s);
    row("only confirmed", u"7z"_s, true, QString(), u"abc"_s, true, false, u"Passwords do not match"_s);
    row("zip takes ASCII only", u"zip"_s, true, u"päss"_s, u"päss"_s, true, false,
        u"Invalid Unicode characters"_s);
    row("7z takes it", u"7z"_s, true, u"päss"_s, u"päss"_s, false, true, u"Passwords do not match"_s);
    row("begins with =", u"7z"_s, true, u"=a"_s, u"=a"_s, true, false, u"Invalid starting character \"=\""_s);
    row("not wanted", u"zip"_s, false, u"=ä"_s, u"x"_s, false, true, u"Invalid starting character \"=\""_s);
    row("format cannot", u"deb"_s, true, u"=a"_s, u"x"_s, false, true, u"Invalid starting character \"=\""_s);
}

void TestDataBindings::passwords()
{
    QFETCH(QString, type);
    QFETCH(bool, encrypt);
    QFETCH(QString, password);
    QFETCH(QString, confirmation);
    CVSettings::setValue(CVSettingsKey::shouldEncrypt, encrypt);
    CVCreateOperationDataBinding binding;
    binding.setArchiveType(type);
    binding.setPassword(password);
    binding.setPasswordConfirmation(confirmation);
    QTEST(binding.passwordIsInvalid(), "invalid");
    QTEST(binding.passwordsMatchOrShouldInstallRAR(), "matches");
    QTEST(binding.passwordMessage(), "message");
}

void TestDataBindings::rarTool()
{
    CVCreateOperationDataBinding binding;
    QVERIFY(!binding.shouldInstallRAR());
    binding.setArchiveType(u"rar"_s);
    QVERIFY(binding.shouldInstallRAR());
    const auto rar = std::make_shared<InstalledRar>();
    CVRarToolStatus::setShared(rar);
    QVERIFY(!binding.shouldInstallRAR());
    rar->old = true;
    QVERIFY(binding.shouldInstallRAR());
    CVRarToolStatus::setShared(nullptr);
}

void TestDataBindings::splitDescription()
{
    CVSplitOperationDataBinding binding;
    QStringList told;
    binding.observe(u"compressionSettingDescription"_s,
                    [&](const QString &) { told.append(binding.compressionSettingDescription()); });
    QCOMPARE(binding.compressionSettingDescription(), u"No compression"_s);
    for (const unsigned setting : {1u, 2u, 2u, 3u})
        binding.setCompressionSetting(setting);
    QCOMPARE(told, QStringList({u"Bzip compression"_s, u"7zip compression"_s, QString()}));
}

QTEST_GUILESS_MAIN(TestDataBindings)
#include "tst_data_bindings.moc"
