#include "cli/CVTerminalArguments.h"
#include "cli/CVTerminalProgress.h"
#include "cli/terminal_text.h"

#include <QTest>

#include <clocale>

using namespace Qt::StringLiterals;
using Command = CVTerminalArguments::Command;

class tst_arguments : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { std::setlocale(LC_ALL, "C.UTF-8"); }
    void understood_data();
    void understood();
    void refused_data();
    void refused();
    void escapes_data();
    void escapes();
    void progressFits_data();
    void progressFits();
    void duration_data();
    void duration();
};

namespace {

// Everything that was understood in one line, so that a row compares the whole.
QString summary(const CVTerminalArguments &a)
{
    static const char *const names[] = {"open", "extract", "list", "clean", "help", "version"};
    QString text = QLatin1StringView(names[static_cast<int>(a.command)]);
    if (a.destination)
        text += u" to=" + *a.destination;
    for (const QString &entry : a.entries)
        text += u" entry=" + entry;
    if (a.fate)
        text += u" fate=" + QString::number(static_cast<int>(*a.fate));
    if (a.json)
        text += u" json";
    if (a.passwordFile)
        text += u" password=" + *a.passwordFile;
    return text + u" | " + a.paths.join(u'|');
}

} // namespace

void tst_arguments::understood_data()
{
    QTest::addColumn<QStringList>("words");
    QTest::addColumn<QString>("expected");
    const auto row = [](const char *name, const char *words, const char *expected) {
        QTest::newRow(name) << QString::fromUtf8(words).split(u' ') << QString::fromUtf8(expected);
    };
    row("files", "a.zip b.zip", "open | a.zip|b.zip");
    row("extract", "extract a.zip", "extract | a.zip");
    row("options between files", "extract a.zip --to x b.zip --after trash",
        "extract to=x fate=1 | a.zip|b.zip");
    row("value after =", "extract --to=x=y --after=delete a", "extract to=x=y fate=2 | a");
    row("entries keep their order", "extract --entry b/c --entry a a.zip",
        "extract entry=b/c entry=a | a.zip");
    row("a value may begin with a dash", "extract --entry -rf --to -d a", "extract to=-d entry=-rf | a");
    row("list", "list --json --password-file - a", "list json password=- | a");
    row("words after --", "extract -- --to -- x", "extract | --to|--|x");
    row("-- before a command name", "-- list", "open | list");
    row("a lone dash is a name", "extract -", "extract | -");
    row("a command name later is a file", "extract list", "extract | list");
    row("help wins", "extract --help", "help | ");
    row("help after --", "extract -- --help", "extract | --help");
    row("version", "--version", "version | ");
    row("clean", "clean", "clean | ");
    row("keep with entries", "extract --after keep --entry a b", "extract entry=a fate=0 | b");
}

void tst_arguments::understood()
{
    QFETCH(QStringList, words);
    QFETCH(QString, expected);
    const auto result = CVTerminalArguments::parse(words);
    QVERIFY2(result, result ? "" : qPrintable(result.error().description));
    QCOMPARE(summary(result.value()), expected);
}

void tst_arguments::refused_data()
{
    QTest::addColumn<QStringList>("words");
    QTest::addColumn<QString>("names"); // the word that the message has to mention
    QTest::newRow("nothing") << QStringList{} << u"file"_s;
    QTest::newRow("no archive") << QStringList{u"extract"_s} << u"extract"_s;
    QTest::newRow("unknown option") << QStringList{u"list"_s, u"--jsn"_s, u"a"_s} << u"--jsn"_s;
    QTest::newRow("option of another command")
        << QStringList{u"list"_s, u"--to"_s, u"x"_s, u"a"_s} << u"--to"_s;
    QTest::newRow("option without a command") << QStringList{u"--json"_s, u"a"_s} << u"--json"_s;
    QTest::newRow("value missing") << QStringList{u"extract"_s, u"a"_s, u"--to"_s} << u"--to"_s;
    QTest::newRow("value empty") << QStringList{u"extract"_s, u"--entry="_s, u"a"_s} << u"--entry"_s;
    QTest::newRow("value not wanted") << QStringList{u"list"_s, u"--json=1"_s, u"a"_s} << u"--json"_s;
    QTest::newRow("wrong fate") << QStringList{u"extract"_s, u"--after"_s, u"burn"_s, u"a"_s} << u"burn"_s;
    QTest::newRow("fate twice") << QStringList{u"extract"_s, u"--after=keep"_s, u"--after=delete"_s, u"a"_s}
                                << u"--after"_s;
    QTest::newRow("fate of a part") << QStringList{u"extract"_s, u"--after=delete"_s, u"--entry=x"_s, u"a"_s}
                                    << u"--entry"_s;
    QTest::newRow("empty file name") << QStringList{u"extract"_s, u""_s} << u"empty"_s;
    QTest::newRow("clean with files") << QStringList{u"clean"_s, u"a"_s} << u"clean"_s;
    QTest::newRow("password as a word")
        << QStringList{u"extract"_s, u"--password"_s, u"x"_s, u"a"_s} << u"--password"_s;
    QTest::newRow("not in this version") << QStringList{u"create"_s, u"a"_s} << u"create"_s;
}

void tst_arguments::refused()
{
    QFETCH(QStringList, words);
    QFETCH(QString, names);
    const auto result = CVTerminalArguments::parse(words);
    QVERIFY(!result);
    QVERIFY2(result.error().description.contains(names), qPrintable(result.error().description));
}

void tst_arguments::escapes_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("shown");
    QTest::addColumn<QByteArray>("json");
    QTest::newRow("plain") << u"a b\\c.txt"_s << QByteArray("a b\\c.txt") << QByteArray(R"("a b\\c.txt")");
    QTest::newRow("quotes") << u"say \"x\""_s << QByteArray("say \"x\"") << QByteArray(R"("say \"x\"")");
    QTest::newRow("umlaut and emoji") << u"ä😀"_s << QByteArray("ä😀") << QByteArray("\"ä😀\"");
    QTest::newRow("newline") << u"a\nb"_s << QByteArray("a\\nb") << QByteArray(R"("a\nb")");
    QTest::newRow("clears the screen")
        << u"\x1b[2J"_s << QByteArray("\\x1b[2J") << QByteArray(R"("\u001b[2J")");
    QTest::newRow("C1 control") << QString(QChar(0x9b)) << QByteArray("\\x9b") << QByteArray(R"("\u009b")");
    QTest::newRow("reversed") << u"a\u202Etxt.exe"_s << QByteArray("a\\u{202e}txt.exe")
                              << QByteArray(R"("a\u202etxt.exe")");
    QTest::newRow("half a surrogate pair")
        << (QString(QChar(0xD83D)) + u'x') << QByteArray("\\u{d83d}x") << QByteArray("\"\uFFFDx\"");
    QTest::newRow("NUL") << QString(QChar(u'\0')) << QByteArray("\\x00") << QByteArray(R"("\u0000")");
}

void tst_arguments::escapes()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, shown);
    QFETCH(QByteArray, json);
    QCOMPARE(terminalText(name), shown);
    QByteArray out;
    appendJsonString(out, name);
    QCOMPARE(out, json);
}

void tst_arguments::progressFits_data()
{
    QTest::addColumn<int>("cells");
    QTest::addColumn<QString>("line");
    QTest::newRow("wide")
        << 100 << u"[#####...............]   25%  1.0 MB of 4.0 MB  500.0 KB/s  0:06 left  写真.zip"_s;
    QTest::newRow("no room for the rate")
        << 70 << u"[#####...............]   25%  1.0 MB of 4.0 MB  0:06 left  写真.zip"_s;
    QTest::newRow("no room for the bar") << 50 << u" 25%  1.0 MB of 4.0 MB  0:06 left  写真.zip"_s;
    QTest::newRow("narrow") << 15 << u" 25%  写真.zip"_s;
    QTest::newRow("very narrow") << 8 << u" 25%  …"_s;
}

void tst_arguments::progressFits()
{
    QFETCH(int, cells);
    QFETCH(QString, line);
    const CVTerminalProgress progress = {.done = 1e6, .total = 4e6, .rate = 5e5, .title = u"写真.zip"_s};
    QCOMPARE(progress.line(cells), line);
    QVERIFY(terminalWidth(progress.line(cells)) <= cells);
}

void tst_arguments::duration_data()
{
    QTest::addColumn<double>("seconds");
    QTest::addColumn<QString>("text");
    QTest::newRow("under a minute") << 6.2 << u"0:07"_s;
    QTest::newRow("hours") << 11100.0 << u"3:05:00"_s;
    QTest::newRow("not a number") << std::numeric_limits<double>::quiet_NaN() << u""_s;
    QTest::newRow("for ever") << 1e30 << u""_s;
}

void tst_arguments::duration()
{
    QFETCH(double, seconds);
    QFETCH(QString, text);
    QCOMPARE(CVTerminalProgress::duration(seconds), text);
}

QTEST_GUILESS_MAIN(tst_arguments)
#include "tst_arguments.moc"
