#include "platform/LXTrash.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

class TestTrash : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void movesIntoAFreshHome();
    void homeThatCannotHaveATrash();
    void fileThatIsGone();

private:
    QString makeFile(const QString &name)
    {
        QFile file(m_dir->filePath(name));
        return file.open(QIODevice::WriteOnly) && file.write("data") == 4 ? file.fileName() : QString();
    }

    std::unique_ptr<QTemporaryDir> m_dir;
};

void TestTrash::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    qputenv("XDG_DATA_HOME", QFile::encodeName(m_dir->filePath(u"home/data"_s)));
}

void TestTrash::movesIntoAFreshHome()
{
    // Two of one name: the second must not replace the first.
    for (int i = 0; i < 2; ++i) {
        const QString path = makeFile(u"a.zip"_s);
        const auto moved = LXTrash::shared()->moveToTrash(path);
        if (!moved && moved.error().reason.contains("device"_L1))
            QSKIP("the temporary folder has no trash of its own");
        QVERIFY2(moved, qPrintable(moved ? QString() : moved.error().reason));
        QVERIFY(!QFile::exists(path));
        QFile there(moved.value());
        QVERIFY(there.open(QIODevice::ReadOnly));
        QCOMPARE(there.readAll(), QByteArray("data"));
    }
    QCOMPARE(QDir(m_dir->filePath(u"home/data/Trash/files"_s)).entryList(QDir::Files).size(), 2);
}

void TestTrash::homeThatCannotHaveATrash()
{
    qputenv("XDG_DATA_HOME", "/proc/nowhere");
    const QString path = makeFile(u"a.zip"_s);
    QVERIFY(!LXTrash::shared()->moveToTrash(path));
    QVERIFY(QFile::exists(path));
}

void TestTrash::fileThatIsGone()
{
    QVERIFY(!LXTrash::shared()->moveToTrash(m_dir->filePath(u"gone"_s)));
}

QTEST_GUILESS_MAIN(TestTrash)
#include "tst_trash.moc"
