#include "platform/LXDefaultApplications.h"
#include "platform/LXFileViewer.h"
#include "platform/LXWorkspace.h"
#include "platform/desktop/LXDesktopServices.h"
#include "support/HostileNames.h"
#include "support/ScratchDesktop.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"

#include <QGuiApplication>
#include <QTest>

#include <filesystem>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class TestWorkspace : public QObject
{
    Q_OBJECT

public:
    ScratchDesktop desktop;

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void mayOpen_data();
    void mayOpen();
    void mayOpenOfWhatIsNoFile();
    void linksAreWhatTheyPointTo();
    void opensByName_data() { addHostileNames(); }
    void opensByName();
    void scriptsAreTexts();
    void defaultApplications();

private:
    QString make(const QByteArray &name, const QByteArray &contents, mode_t mode = 0644)
    {
        const QByteArray path = m_folder->path().toUtf8() + '/' + name;
        const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
        [[maybe_unused]] const auto n = ::write(fd, contents.constData(), size_t(contents.size()));
        ::fchmod(fd, mode);
        ::close(fd);
        return fileNameFromBytes(path);
    }

    std::unique_ptr<QTemporaryDir> m_folder;
};

void TestWorkspace::initTestCase()
{
    LXMainThread::install();
    LXDesktopServices::install();
}

void TestWorkspace::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    desktop.forget();
}

void TestWorkspace::cleanup()
{
    // By bytes; Qt does not find names that are no text.
    std::filesystem::remove_all(m_folder->path().toStdString());
}

void TestWorkspace::mayOpen_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QByteArray>("contents");
    QTest::addColumn<bool>("plain");
    QTest::addColumn<bool>("executable");
    const auto row = [](const QByteArray &name, const QByteArray &contents, bool plain, bool executable) {
        QTest::newRow(QByteArray(name + ": " + contents.left(12).simplified()).constData())
            << name << contents << plain << executable;
    };
    const QByteArray elf("\x7f"
                         "ELF\x02\x01\x01\0\0\0\0\0\0\0\0\0\x02\0\x3e\0\x01\0\0\0",
                         24);
    const QByteArray png("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16);
    const QByteArray entry("[Desktop Entry]\nType=Application\nExec=true\n");

    // Some file systems mark everything as executable.
    row("a.txt", "hello", true, true);
    row("README", "hello", true, true);
    row("a.png", png, true, true);
    row("a.zip", QByteArray("PK\3\4\x14\0\0\0\0\0", 10), true, true);
    row("a.html", "<html><script>x</script></html>", true, true);
    row("a", png, true, true);
    row("a.pdf", "%PDF-1.4", true, true);
    row("unknown.xyzzy", QByteArray("\0\1\2", 3), true, false);
    row("empty", {}, true, true);

    for (const char *script : {"a.sh", "a.py", "a.pl", "a.rb", "a.js", "a.lua", "a.tcl", "a.php", "a.SH"})
        row(script, "print", true, false);
    row("a", "#!/bin/sh\n", true, false);
    row("a.txt", "#!/usr/bin/env python3\n", true, false);
    row("a.txt", "#!unknown\n", true, false);

    row("a", elf, false, false);
    row("a.png", elf, false, false);
    row("liba.so.1", elf, false, false);
    row("a.desktop", entry, false, false);
    row("a.DESKTOP", "x", false, false);
    row("a.txt", entry, false, false);
    row("a.exe", "MZ", false, false);
    row("a.jpg", QByteArray("MZ\x90\0\3\0\0\0", 8), false, false);
    for (const char *name :
         {"a.AppImage", "a.jar",    "a.class",      "a.jnlp", "a.msi", "a.bat", "a.CMD",    "a.com",
          "a.lnk",      "a.scr",    "a.pif",        "a.vbs",  "a.wsf", "a.ps1", "a.reg",    "a.hta",
          "a.url",      "a.webloc", "a.flatpakref", "a.snap", "a.pyc", "a.run", "a.png.exe"})
        row(name, "x", false, false);
    row(".desktop", entry, false, false);
    row("caf\xe9.desktop", "x", false, false);
    row("caf\xe9.txt", "x", true, true);
    row("a\n.exe", "x", false, false);
    row("a.exe ", "MZ\x90", false, false);
}

void TestWorkspace::mayOpen()
{
    QFETCH(QByteArray, name);
    QFETCH(QByteArray, contents);
    QFETCH(bool, plain);
    QFETCH(bool, executable);
    QCOMPARE(LXWorkspace::mayOpen(make(name, contents)), plain);
    QCOMPARE(LXWorkspace::mayOpen(make(name, contents, 0755)), executable);
}

void TestWorkspace::mayOpenOfWhatIsNoFile()
{
    QVERIFY(LXWorkspace::mayOpen(m_folder->path()));
    QVERIFY(!LXWorkspace::mayOpen(m_folder->filePath(u"gone.txt"_s)));
    QVERIFY(!LXWorkspace::shared()->openFile(m_folder->filePath(u"gone.txt"_s)));
    QVERIFY(!LXWorkspace::shared()->openFile(u"relative.txt"_s));
    // Nobody writes to it, and still the question ends.
    const QString pipe = m_folder->filePath(u"pipe.txt"_s);
    QCOMPARE(::mkfifo(pipe.toUtf8().constData(), 0644), 0);
    QVERIFY(!LXWorkspace::mayOpen(pipe));
    QVERIFY(!LXWorkspace::mayOpen(u"/dev/null"_s));
}

void TestWorkspace::linksAreWhatTheyPointTo()
{
    make("run.jar", "x");
    const QString harmless = m_folder->filePath(u"harmless.txt"_s);
    QVERIFY(QFile::link(u"run.jar"_s, harmless));
    QVERIFY(!LXWorkspace::mayOpen(harmless));
    make("text.txt", "x");
    const QString named = m_folder->filePath(u"a.desktop"_s);
    QVERIFY(QFile::link(u"text.txt"_s, named));
    QVERIFY(!LXWorkspace::mayOpen(named));
    const QString other = m_folder->filePath(u"other"_s);
    QVERIFY(QFile::link(u"text.txt"_s, other));
    QVERIFY(LXWorkspace::mayOpen(other));
}

void TestWorkspace::opensByName()
{
    QFETCH(QByteArray, name);
    const QString path = make(name, "text");
    QVERIFY(LXWorkspace::shared()->openFile(path));
    QTRY_COMPARE(desktop.opened(), QStringList{path});
}

void TestWorkspace::scriptsAreTexts()
{
    // Interpreters are registered for the type of their scripts and would run them.
    const QString path = make("a.py", "print(1)");
    QVERIFY(LXWorkspace::shared()->openFile(path));
    QTRY_COMPARE(desktop.opened(), QStringList{path});
    QVERIFY(!QFile::exists(desktop.path() + u"/interpreted"_s));
}

void TestWorkspace::defaultApplications()
{
    const QString zip = u"application/zip"_s;
    const QString recorder = u"recorder.desktop"_s;
    const QString other = u"other.desktop"_s;
    const auto defaults = LXDefaultApplications::shared();
    QCOMPARE(defaults->defaultApplication(zip), other);
    QVERIFY(defaults->setDefaultApplication(recorder, zip));
    QCOMPARE(defaults->defaultApplication(zip), recorder);
    QCOMPARE(defaults->applications(zip), QStringList({recorder, other}));
    QFile list(desktop.path() + u"/config/mimeapps.list"_s);
    QVERIFY(list.open(QIODevice::ReadOnly));
    QVERIFY(list.readAll().contains("\napplication/zip=recorder.desktop"));
    // What others said in the list is still there.
    QCOMPARE(defaults->defaultApplication(u"text/plain"_s), recorder);

    QVERIFY(defaults->withdraw(recorder, zip));
    QCOMPARE(defaults->defaultApplication(zip), other);
    QCOMPARE(defaults->applications(zip), QStringList({other, recorder}));

    // The only one that opens the type.
    const QString rar = u"application/vnd.rar"_s;
    QCOMPARE(defaults->defaultApplication(rar), other);
    QVERIFY(defaults->withdraw(other, rar));
    QCOMPARE(defaults->defaultApplication(rar), QString());
    QCOMPARE(defaults->applications(rar), QStringList());
    QVERIFY(defaults->withdraw(other, rar));
    QVERIFY(defaults->setDefaultApplication(other, rar));
    QCOMPARE(defaults->defaultApplication(rar), other);
    QVERIFY(!defaults->setDefaultApplication(u"nobody.desktop"_s, zip));
}

int main(int argc, char **argv)
{
    qunsetenv("DBUS_SESSION_BUS_ADDRESS");
    TestWorkspace test; // its desktop has to be there before the application
    test.desktop.install("python", {"text/x-python", "text/x-python3"},
                         "touch " + test.desktop.path().toUtf8() + "/interpreted");
    QGuiApplication application(argc, argv);
    return QTest::qExec(&test, argc, argv);
}

#include "tst_workspace.moc"
