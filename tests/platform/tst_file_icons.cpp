#include "platform/desktop/LXCanberraSound.h"
#include "platform/desktop/LXFileIcons.h"

#include <QFile>
#include <QGuiApplication>
#include <QPixmap>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

/// What the program brings along to be seen and heard.
class TestFileIcons : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void iconsWithoutTheme_data();
    void iconsWithoutTheme();
    void iconsOfTheTheme();
    void millionNames();
    void hero();
};

void TestFileIcons::iconsWithoutTheme_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("like");
    const auto row = [](const char *name, const char *like) {
        QTest::newRow(name) << QString::fromUtf8(name)
                            << u":/fileicons/%1.svg"_s.arg(QLatin1StringView(like));
    };
    for (const char *name : {"a.zip", "a.7z", "a.tar.gz", "a.b.TAR.XZ", "a.rar", "a.corvane", "a.tar",
                             "a.jar", "a.7z.001", "a.part02.rar", "a.sitx"})
        row(name, "archive");
    row("a.PNG", "image");
    row("a.svg", "image");
    row("a.mp3", "audio");
    row("a.mkv", "video");
    for (const char *name : {"a.txt", "Makefile", "README", "a.cpp", "a.pdf", "a.odt", "a.html", "a.py"})
        row(name, "text");
    for (const char *name : {"a.xyzzy", "a", "a.", "", ".", "A sentence. And another one that is long",
                             "a.bin", "war", "\u202e"})
        row(name, "file");
}

void TestFileIcons::iconsWithoutTheme()
{
    QFETCH(QString, name);
    QFETCH(QString, like);
    QIcon::setThemeName(u"none"_s);
    const QImage wanted = QIcon(like).pixmap(32).toImage();
    QVERIFY(!wanted.isNull());
    QCOMPARE(LXFileIcons::iconForName(name, false).pixmap(32).toImage(), wanted);
    QCOMPARE(LXFileIcons::iconForName(name, true).pixmap(32).toImage(),
             QIcon(u":/fileicons/folder.svg"_s).pixmap(32).toImage());
}

void TestFileIcons::iconsOfTheTheme()
{
    QTemporaryDir themes;
    QDir(themes.path()).mkpath(u"mine/16x16/mimetypes"_s);
    QFile index(themes.filePath(u"mine/index.theme"_s));
    QVERIFY(index.open(QIODevice::WriteOnly));
    index.write("[Icon Theme]\nName=mine\nDirectories=16x16/mimetypes\n[16x16/mimetypes]\nSize=16\n");
    index.close();
    QImage red(16, 16, QImage::Format_ARGB32);
    red.fill(Qt::red);
    QVERIFY(red.save(themes.filePath(u"mine/16x16/mimetypes/package-x-generic.png"_s)));
    const auto color = [](const QString &name) {
        return LXFileIcons::iconForName(name, false).pixmap(16).toImage().pixelColor(8, 8);
    };
    QVERIFY(color(u"a.zip"_s) != QColor(Qt::red));
    QIcon::setThemeSearchPaths({themes.path()});
    QIcon::setThemeName(u"mine"_s);
    QCOMPARE(color(u"a.zip"_s), QColor(Qt::red));
    QVERIFY(color(u"a.txt"_s) != QColor(Qt::red));
    QIcon::setThemeName(u"none"_s);
    QVERIFY(color(u"a.zip"_s) != QColor(Qt::red));
}

void TestFileIcons::millionNames()
{
    // Names of one suffix share one icon, however many there are.
    QSet<qint64> keys;
    for (int i = 0; i < 100'000; ++i)
        keys.insert(LXFileIcons::iconForName(u"%1.%2.jpg"_s.arg(i).arg(i / 2), false).cacheKey());
    QCOMPARE(keys.size(), 1);
}

void TestFileIcons::hero()
{
    const LXCanberraSound sound;
    const QString path = sound.fileOfSound(u"Hero"_s);
    QVERIFY(!path.isEmpty());
    QVERIFY(sound.fileOfSound(u"../sounds/Hero"_s).isEmpty());
    QVERIFY(sound.fileOfSound(u"Nobody"_s).isEmpty());
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray wave = file.readAll();
    QVERIFY(wave.startsWith("RIFF") && wave.mid(8, 8) == "WAVEfmt ");
    QVERIFY(wave.size() < 100 * 1024);
}

QTEST_MAIN(TestFileIcons)

#include "tst_file_icons.moc"
