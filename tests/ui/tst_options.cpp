#include "ui/OptionScreens.h"
#include "ui/options/CVChunkSizeField.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QDoubleSpinBox>
#include <QLineEdit>
#include <QMenu>
#include <QSignalSpy>

using namespace Qt::StringLiterals;
using namespace OptionScreens;

class TestOptions : public OptionScreens::Test
{
    Q_OBJECT

private Q_SLOTS:
    void followsTheBinding();
    void controlsReachTheBinding();
    void choicesAreStored();
    void controlsOfFormats_data();
    void controlsOfFormats();
    void noneIsHidden_data();
    void noneIsHidden();
    void passwords_data();
    void passwords();
    void encryptionChangesTheHeight();
    void names_data();
    void names();
    void nameProblems_data();
    void nameProblems();
    void namesOfConversions_data();
    void namesOfConversions();
    void conversionToItself();
    void volumes();
    void jobsKeepTheirSettings();
    void otherFilesForgetThePassword();
    void keysOfScreens();
};

void TestOptions::followsTheBinding()
{
    Create create;
    create.show();
    const auto binding = create.screen->operationDataBinding();
    auto *view = create.screen->editView();
    binding->setArchiveType(u"tar.bz2"_s);
    QCOMPARE(create.screen->selectedButton()->text(), u"bzip2 tar"_s);
    binding->setArchiveType(u"7z"_s);
    binding->setArchiveName(u"other"_s);
    QCOMPARE(view->nameField->text(), u"other"_s);
    QCOMPARE(view->nameSuffix->text(), u".7z"_s);
    QCOMPARE(create.summary(), u"other.7z  ·  from “a.jpg”"_s);
    binding->setCompressionLevel(9);
    QCOMPARE(view->levelChooser->currentText(), u"Best"_s);
    binding->setCompressionLevel(6); // from elsewhere; there is no word for it
    QCOMPARE(binding->compressionLevel(), 6);
    QCOMPARE(view->levelChooser->currentText(), u"Normal"_s);
    binding->setImageFileFormat(12);
    binding->setAudioFileFormat(8);
    QCOMPARE(view->imageChooser->currentText(), u"JPEG 2000"_s);
    QCOMPARE(view->audioChooser->currentText(), u"AAC in .mp4, 320 kbit/s"_s);
    binding->setChunkSize(2.5e9);
    QVERIFY(view->volumes->box()->isChecked());
    QCOMPARE(view->volumes->sizeField()->value(), 2.5);
    QCOMPARE(view->volumes->sizeField()->unit(), u"GB"_s);
    QCOMPARE(create.summary(), u"other.7z.001, .002, …  ·  from “a.jpg”"_s);
    binding->setChunkSize(0);
    QVERIFY(!view->volumes->box()->isChecked());
    CVSettings::setValue(CVSettingsKey::shouldEncrypt, true);
    QVERIFY(view->encryptBox->isChecked());
    QVERIFY(view->passwordField->isVisible());
    binding->setPassword(u"word"_s);
    QCOMPARE(view->passwordField->text(), u"word"_s);
}

void TestOptions::controlsReachTheBinding()
{
    Create create;
    create.show();
    const auto binding = create.screen->operationDataBinding();
    auto *view = create.screen->editView();
    view->nameField->setFocus();
    view->nameField->selectAll();
    QTest::keyClicks(view->nameField, u"new"_s);
    QCOMPARE(binding->outputArchiveName(), u"new.zip"_s);
    view->levelChooser->setFocus();
    QTest::keyClick(view->levelChooser, Qt::Key_End);
    QCOMPARE(binding->compressionLevel(), 9);
    QTest::keyClick(view->levelChooser, Qt::Key_Home);
    QCOMPARE(binding->compressionLevel(), 0);
    view->formatBar->buttons().at(1)->click();
    view->imageChooser->setFocus();
    QTest::keyClick(view->imageChooser, Qt::Key_Home);
    QCOMPARE(binding->imageFileFormat(), 0);
    QTest::keyClick(view->audioChooser, Qt::Key_Up);
    QCOMPARE(binding->audioFileFormat(), 2);
    view->zipBox->click();
    QVERIFY(binding->shouldUseZipCompressionForCorvaneFormat());
    QCOMPARE(create.summary(), u"new.zip  ·  from “a.jpg”"_s);
}

void TestOptions::choicesAreStored()
{
    {
        Create create;
        create.show();
        auto *view = create.screen->editView();
        view->formatBar->buttons().at(2)->click();
        QTest::keyClick(view->levelChooser, Qt::Key_End);
        view->encryptBox->click();
        view->showPasswordBox->click();
        QTRY_COMPARE(view->passwordField->echoMode(), QLineEdit::Normal);
        QCOMPARE(view->confirmationField->echoMode(), QLineEdit::Normal);
    }
    QCOMPARE(CVSettings::string(CVSettingsKey::createArchiveFormat), u"7z"_s);
    QCOMPARE(CVSettings::string(CVSettingsKey::convertArchiveFormat), u"zip"_s);
    QVERIFY(CVSettings::boolean(CVSettingsKey::shouldEncrypt));
    QVERIFY(CVSettings::boolean(CVSettingsKey::shouldShowPassword));
    Create next;
    next.show();
    QCOMPARE(next.screen->selectedButton()->text(), u"7-Zip"_s);
    QCOMPARE(next.screen->editView()->levelChooser->currentText(), u"Best"_s);
    QVERIFY(next.screen->editView()->passwordField->isVisible());
    QCOMPARE(next.screen->editView()->passwordField->echoMode(), QLineEdit::Normal);

    Convert convert;
    convert.show();
    convert.screen->editView()->formatBar->buttons().last()->click();
    QCOMPARE(CVSettings::string(CVSettingsKey::convertArchiveFormat), u"tar"_s);
}

void TestOptions::controlsOfFormats_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<bool>("convert");
    QTest::addColumn<QStringList>("shown");

    const QStringList all{u"compressionLevel"_s, u"volumes"_s, u"encrypt"_s};
    QTest::newRow("zip") << u"zip"_s << false << all;
    QTest::newRow("7z") << u"7z"_s << false << all;
    QTest::newRow("7z, convert") << u"7z"_s << true << all;
    QTest::newRow("gzip") << u"tar.gz"_s << false << QStringList{u"compressionLevel"_s};
    QTest::newRow("compress") << u"tar.Z"_s << false << QStringList{};
    QTest::newRow("tar") << u"tar"_s << true << QStringList{};
    QTest::newRow("own") << u"corvane"_s << false << QStringList{u"images"_s, u"audio"_s, u"zip"_s};
    // Pictures stay what they are when an archive is converted.
    QTest::newRow("own, convert") << u"corvane"_s << true << QStringList{u"audio"_s, u"zip"_s};
}

void TestOptions::controlsOfFormats()
{
    QFETCH(QString, format);
    QFETCH(bool, convert);
    QFETCH(QStringList, shown);
    CVSettings::setValue(convert ? CVSettingsKey::convertArchiveFormat : CVSettingsKey::createArchiveFormat,
                         format);
    const auto check = [&](auto &screen) {
        screen.show();
        QStringList visible;
        for (const char *name : {"compressionLevel", "images", "audio", "zip", "volumes", "encrypt"}) {
            if (screen.window->template findChild<QWidget *>(QString::fromLatin1(name))->isVisible())
                visible.append(QString::fromLatin1(name));
        }
        QCOMPARE(visible, shown);
        QVERIFY(!screen.screen->editView()->description->text().isEmpty());
        QVERIFY(screen.finish()->isEnabled());
    };
    if (Create create; !convert)
        check(create);
    if (Convert conversion; convert)
        check(conversion);
}

void TestOptions::noneIsHidden_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<int>("level");
    QTest::addColumn<bool>("atFirst");

    for (const bool atFirst : {true, false}) {
        const char *when = atFirst ? "stored" : "chosen";
        QTest::addRow("gzip, %s", when) << u"tar.gz"_s << 1 << atFirst;
        QTest::addRow("bzip2, %s", when) << u"tar.bz2"_s << 1 << atFirst;
        QTest::addRow("7z, %s", when) << u"7z"_s << 0 << atFirst;
    }
}

void TestOptions::noneIsHidden()
{
    QFETCH(QString, format);
    QFETCH(int, level);
    QFETCH(bool, atFirst);
    CVSettings::setValue(CVSettingsKey::compressionLevelSetting, atFirst ? level : 0);
    if (atFirst)
        CVSettings::setValue(CVSettingsKey::createArchiveFormat, format);
    Create create;
    create.show();
    auto *view = create.screen->editView();
    if (!atFirst)
        view->formatBar->firstButtonWithIdentifier(CVFormats::tagForFormat(format))->click();
    QCOMPARE(view->levelChooser->findData(0) < 0, level == 1);
    QCOMPARE(view->levelChooser->currentData().toInt(), level);
    QCOMPARE(create.screen->operationDataBinding()->compressionLevel(), level);
    view->formatBar->buttons().first()->click();
    QCOMPARE(view->levelChooser->findText(u"None"_s), 0);
}

void TestOptions::passwords_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<QString>("password");
    QTest::addColumn<QString>("confirmation");
    QTest::addColumn<QString>("hint");

    QTest::newRow("none yet") << u"7z"_s << QString() << QString() << u"Please enter a password"_s;
    QTest::newRow("not confirmed") << u"7z"_s << u"word"_s << QString() << u"Please confirm password"_s;
    QTest::newRow("differ") << u"7z"_s << u"word"_s << u"ward"_s << u"Passwords do not match"_s;
    QTest::newRow("match") << u"7z"_s << u"word"_s << u"word"_s << QString();
    QTest::newRow("beginning") << u"7z"_s << u"=word"_s << u"=word"_s
                               << u"Invalid starting character \"=\""_s;
    QTest::newRow("letters, 7z") << u"7z"_s << u"päss"_s << u"päss"_s << QString();
    QTest::newRow("letters, zip") << u"zip"_s << u"päss"_s << u"päss"_s << u"Invalid Unicode characters"_s;
    QTest::newRow("not encrypted") << u"tar"_s << u"word"_s << u"ward"_s << QString();
}

void TestOptions::passwords()
{
    QFETCH(QString, format);
    QFETCH(QString, password);
    QFETCH(QString, confirmation);
    QFETCH(QString, hint);
    Create create;
    create.show();
    auto *view = create.screen->editView();
    view->encryptBox->click();
    QVERIFY(view->passwordField->hasFocus());
    type(view->passwordField, password);
    type(view->confirmationField, confirmation);
    view->formatBar->firstButtonWithIdentifier(CVFormats::tagForFormat(format))->click();

    QCOMPARE(create.hint(), hint);
    QCOMPARE(create.finish()->isEnabled(), hint.isEmpty());
    create.key(Qt::Key_Return);
    QCOMPARE(create.started, hint.isEmpty() ? 1 : 0);
    // Without encryption nothing of it matters.
    view->formatBar->buttons().first()->click();
    view->encryptBox->click();
    QVERIFY(create.finish()->isEnabled());
    QCOMPARE(create.hint(), QString());
}

void TestOptions::encryptionChangesTheHeight()
{
    Create create;
    create.show();
    QSignalSpy changes(create.screen.get(), &CVViewController::sizeChanged);
    const int before = create.screen->size().height();
    create.screen->editView()->encryptBox->click();
    QCOMPARE(changes.size(), 1);
    QVERIFY(create.screen->size().height() > before);
    // The hint comes and goes in room of its own.
    const int encrypted = create.screen->size().height();
    QTest::keyClicks(create.screen->editView()->passwordField, u"word"_s);
    QTest::keyClicks(create.screen->editView()->confirmationField, u"word"_s);
    QCOMPARE(create.screen->size().height(), encrypted);
    create.screen->editView()->encryptBox->click();
    QCOMPARE(create.screen->size().height(), before);
    QCOMPARE(changes.size(), 2);
}

void TestOptions::names_data()
{
    QTest::addColumn<QStringList>("paths");
    QTest::addColumn<QString>("name");

    QTest::newRow("file") << QStringList{u"/home/ann/report.pdf"_s} << u"report"_s;
    QTest::newRow("archive") << QStringList{u"/data/mail.tar.gz"_s} << u"mail"_s;
    QTest::newRow("hidden file") << QStringList{u"/home/ann/.profile"_s} << u".profile"_s;
    QTest::newRow("folder with a dot") << QStringList{u"folder v1.2"_s} << u"folder v1.2"_s;
    QTest::newRow("of one folder") << QStringList{u"/data/Trip/a.jpg"_s, u"/data/Trip/b.jpg"_s} << u"Trip"_s;
    QTest::newRow("of several") << QStringList{u"/data/Trip/a"_s, u"/data/b"_s} << u"Archive"_s;
    QTest::newRow("of the root") << QStringList{u"/a"_s, u"/b"_s} << u"Archive"_s;
    QTest::newRow("of the home") << QStringList{u"%1/a"_s.arg(QDir::homePath()),
                                                u"%1/b"_s.arg(QDir::homePath())}
                                 << u"Archive"_s;
    QTest::newRow("nothing") << QStringList{} << u"Archive"_s;
}

void TestOptions::names()
{
    QFETCH(QStringList, paths);
    QFETCH(QString, name);
    if (!paths.isEmpty() && !paths.first().startsWith(u'/')) {
        paths.first() = filePath(paths.first());
        QVERIFY(QDir().mkpath(paths.first()));
    }
    Create create(paths);
    create.show();
    QCOMPARE(create.screen->operationDataBinding()->archiveName(), name);
    QCOMPARE(create.screen->editView()->nameField->text(), name);
    QCOMPARE(create.screen->operationDataBinding()->sourcePath(), paths.value(0));
}

void TestOptions::nameProblems_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("works");

    QTest::newRow("empty") << QString() << false;
    QTest::newRow("blank") << u"  "_s << false;
    QTest::newRow("path") << u"a/b"_s << false;
    QTest::newRow("longest") << QString(251, u'a') << true;
    QTest::newRow("too long") << QString(252, u'a') << false;
    QTest::newRow("too many bytes") << QString(126, u'ä') << false;
}

void TestOptions::nameProblems()
{
    QFETCH(QString, name);
    QFETCH(bool, works);
    Create create;
    create.show();
    create.screen->operationDataBinding()->setArchiveName(name);
    QCOMPARE(create.finish()->isEnabled(), works);
    QCOMPARE(create.hint().isEmpty(), works);
}

void TestOptions::namesOfConversions_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("name");

    QTest::newRow("zip") << u"/data/x.zip"_s << u"x"_s;
    QTest::newRow("tar.bz2") << u"/data/x.TAR.bz2"_s << u"x"_s;
    QTest::newRow("volume") << u"/data/x.7z.003"_s << u"x"_s;
    QTest::newRow("part") << u"/data/x.part02.rar"_s << u"x"_s;
    QTest::newRow("version") << u"/data/x-1.2.zip"_s << u"x-1.2"_s;
}

void TestOptions::namesOfConversions()
{
    QFETCH(QString, path);
    QFETCH(QString, name);
    Convert convert({path});
    convert.show();
    QCOMPARE(convert.screen->operationDataBinding()->sourcePath(), path);
    QCOMPARE(convert.screen->operationDataBinding()->archiveName(), name);
    QCOMPARE(convert.finish()->iconText(), u"Convert"_s);
}

void TestOptions::conversionToItself()
{
    Convert convert({u"/data/x.zip"_s});
    convert.show();
    QVERIFY(!convert.finish()->isEnabled());
    QVERIFY(!convert.hint().isEmpty());
    convert.key(Qt::Key_Right);
    QVERIFY(convert.finish()->isEnabled());
    QCOMPARE(convert.hint(), QString());
    convert.key(Qt::Key_Left);
    convert.screen->editView()->volumes->box()->click();
    QVERIFY(convert.finish()->isEnabled());
    convert.screen->editView()->volumes->box()->click();
    convert.screen->operationDataBinding()->setArchiveName(u"y"_s);
    QVERIFY(convert.finish()->isEnabled());
}

void TestOptions::volumes()
{
    Create create;
    create.show();
    auto *view = create.screen->editView();
    const auto binding = create.screen->operationDataBinding();
    QCOMPARE(binding->chunkSize(), 0.0);
    view->volumes->box()->click();
    QCOMPARE(binding->chunkSize(), 100e6);
    view->volumes->sizeField()->numberField()->setFocus();
    view->volumes->sizeField()->numberField()->selectAll();
    QTest::keyClicks(view->volumes->sizeField()->numberField(), u"1.5"_s);
    QTest::keyClick(view->volumes->sizeField()->unitChooser(), Qt::Key_Down);
    QCOMPARE(binding->chunkSize(), 1.5e9);
    // Only formats that have parts hear of them.
    view->formatBar->buttons().last()->click();
    QCOMPARE(binding->chunkSize(), 0.0);
    view->formatBar->buttons().first()->click();
    QCOMPARE(binding->chunkSize(), 1.5e9);
    // Nothing but overhead.
    view->volumes->sizeField()->numberField()->selectAll();
    QTest::keyClicks(view->volumes->sizeField()->numberField(), u"1"_s);
    QTest::keyClick(view->volumes->sizeField()->unitChooser(), Qt::Key_Home);
    QCOMPARE(binding->chunkSize(), 65536.0);
    view->volumes->box()->click();
    QCOMPARE(binding->chunkSize(), 0.0);
    // Who types a size wants it.
    view->volumes->sizeField()->numberField()->selectAll();
    QTest::keyClicks(view->volumes->sizeField()->numberField(), u"500"_s);
    QVERIFY(view->volumes->box()->isChecked());
    QCOMPARE(binding->chunkSize(), 500e3);
}

void TestOptions::jobsKeepTheirSettings()
{
    std::shared_ptr<CVCreateOperationDataBinding> job;
    Create create;
    create.services.start = [&] { job = create.screen->operationDataBinding(); };
    create.show();
    auto *view = create.screen->editView();
    view->nameField->setText({});
    QTest::keyClicks(view->nameField, u"mine"_s);
    view->volumes->box()->click();
    create.key(Qt::Key_Return);
    QVERIFY(job);
    QCOMPARE(job->outputArchiveName(), u"mine.zip"_s);
    QCOMPARE(job->chunkSize(), 100e6);

    const auto next = create.screen->operationDataBinding();
    QVERIFY(next != job);
    QCOMPARE(next->archiveName(), u"mine"_s);
    QCOMPARE(next->chunkSize(), 100e6);
    job->setChunkSize(0); // as jobs do at their end
    job->setArchiveName(u"theirs"_s);
    QCOMPARE(view->nameField->text(), u"mine"_s);
    QVERIFY(view->volumes->box()->isChecked());
    view->formatBar->buttons().at(2)->click();
    QCOMPARE(next->archiveType(), u"7z"_s);
    QCOMPARE(view->nameSuffix->text(), u".7z"_s);

    // A job that was started from elsewhere with what the screen offered.
    job = next;
    create.screen->viewWillBeUnloaded();
    create.screen->willLoadView();
    QVERIFY(create.screen->operationDataBinding() != job);
    QCOMPARE(create.screen->operationDataBinding()->archiveName(), u"mine"_s);
}

void TestOptions::otherFilesForgetThePassword()
{
    CVSettings::setValue(CVSettingsKey::shouldEncrypt, true);
    Create create;
    create.show();
    QTest::keyClicks(create.screen->editView()->passwordField, u"secret"_s);
    create.screen->editView()->nameField->setFocus();
    QTest::keyClicks(create.screen->editView()->nameField, u"x"_s);
    const QString typed = create.screen->editView()->nameField->text();
    const auto reload = [&] {
        create.screen->viewWillBeUnloaded();
        create.screen->willLoadView();
    };
    reload();
    QCOMPARE(create.screen->editView()->passwordField->text(), u"secret"_s);
    QCOMPARE(create.screen->editView()->nameField->text(), typed);
    create.files->removeAllChildren();
    create.files->appendChild(CVFileNode::create(u"/home/ann/Photos/a.jpg"_s));
    reload();
    QCOMPARE(create.screen->editView()->passwordField->text(), QString());
    QCOMPARE(create.screen->editView()->nameField->text(), u"a"_s);
}

void TestOptions::keysOfScreens()
{
    const auto check = [](auto &screen, const QString &verb) {
        screen.show();
        QCOMPARE(screen.screen->desiredToolbarItems(),
                 QStringList({u"forward"_s, u"back"_s, CVViewController::flexibleSpace, u"cancel"_s}));
        QMenu menu;
        screen.screen->refreshActionMenu(menu);
        QCOMPARE(menu.actions().first()->iconText(), verb);
        screen.key(Qt::Key_B); // alone it is nothing but a letter
        QVERIFY(screen.navigator.went.isEmpty());
        screen.key(Qt::Key_B, Qt::ControlModifier);
        screen.key(Qt::Key_Escape);
        QCOMPARE(screen.navigator.went, QStringList({u"back"_s, u"main"_s}));
        screen.key(Qt::Key_Return);
        screen.key(Qt::Key_Enter);
        QCOMPARE(screen.started, 2);
    };
    Create create;
    check(create, u"Create"_s);
    Convert convert;
    check(convert, u"Convert"_s);
    Split split;
    check(split, u"Split"_s);
}

QTEST_MAIN(TestOptions)
#include "tst_options.moc"
