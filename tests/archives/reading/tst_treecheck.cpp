#include "archives/reading/CVTreeCheck.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

class TestTreeCheck : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void trees_data();
    void trees();
};

void TestTreeCheck::trees_data()
{
    QTest::addColumn<QString>("make");
    QTest::addColumn<bool>("clean");
    const auto row = [](const char *what, const char *make, bool clean) {
        QTest::newRow(what) << QString::fromUtf8(make) << clean;
    };
    row("empty", "true", true);
    row("ordinary", "mkdir d; echo x > d/f; echo y > d/ü; chmod 755 d/f", true);
    row("hard link within", "mkdir d; echo x > a; ln a d/b", true);
    row("hard link out", "echo x > ../o; ln ../o a", false);
    row("set-user-id", "echo x > a; chmod 4755 a", false);
    row("set-group-id", "echo x > a; chmod 2755 a", false);
    row("sticky folder", "mkdir d; chmod 1755 d", false);
    row("owner kept out", "echo x > a; chmod 0 a", false);
    row("owner kept out of a folder", "mkdir d; chmod 500 d", false);
    row("FIFO", "mkfifo p", false);
    row("backslash", "echo x > 'a\\b'", false);
    row("newline", "echo x > \"$(printf 'a\\nb')\"", false);
    row("not UTF-8", "echo x > \"$(printf 'a\\377')\"", false);
    row("drive", "mkdir c:; echo x > c:/a", false);
    row("very deep", "d=a; for i in $(seq 300); do mkdir $d; cd $d; done", false);

    row("link to a file", "echo x > a; ln -s a l", true);
    row("link to nothing, within", "ln -s none l; echo x > a", true);
    row("chain of links", "echo x > a; ln -s a l1; ln -s l1 l2; ln -s l2 l3", true);
    row("link up and down within", "mkdir d e; echo x > e/a; ln -s ../e/a d/l", true);
    row("absolute link", "ln -s /etc l; echo x > a", false);
    row("climbing link", "echo x > a; ln -s ../out l", false);
    row("climbing by way of a link", "mkdir -p d/e; ln -s d/e x; ln -s x/../../../out l", false);
    row("climbing in a chain", "mkdir d; ln -s .. d/up; ln -s d/up/../out l", false);
    row("circle", "ln -s p q; ln -s q p", false);
    row("own circle", "ln -s l/x l; echo x > a", false);
    row("out of the single folder", "mkdir d; echo x > d/a; ln -s ../other d/l", false);
    row("within the single folder", "mkdir d d/e; echo x > d/a; ln -s ../a d/e/l", true);
    row("up, but not out with two on top", "mkdir d; echo x > b; ln -s ../b d/l", true);

    row("link to a folder", "mkdir d; echo x > d/a; ln -s d l; echo y > b", false);
}

void TestTreeCheck::trees()
{
    QFETCH(QString, make);
    QFETCH(bool, clean);
    QTemporaryDir folder;
    QVERIFY(QDir(folder.path()).mkdir(QStringLiteral("tree")));
    QProcess process;
    process.setWorkingDirectory(folder.filePath(QStringLiteral("tree")));
    process.start(QStringLiteral("/bin/sh"), {QStringLiteral("-ec"), make});
    QVERIFY2(process.waitForFinished() && process.exitCode() == 0,
             process.readAllStandardError().constData());

    const QString tree = folder.filePath(QStringLiteral("tree"));
    const auto goOn = [] { return false; };
    const CVTreeCheck check = CVTreeCheck::check(tree, goOn);
    QVERIFY2(check.clean == clean, qUtf8Printable(check.reason));
    QCOMPARE(check.reason.isEmpty(), clean);
    QVERIFY(!CVTreeCheck::check(tree, [] { return true; }).clean);
}

QTEST_GUILESS_MAIN(TestTreeCheck)
#include "tst_treecheck.moc"
