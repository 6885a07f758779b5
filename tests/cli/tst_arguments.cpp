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
    void sizes_data();
    void sizes();
    void passwords_data();
    void passwords();
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
    static const char *const names[] = {"open",    "extract", "list",    "clean", "create",
                                        "convert", "split",   "combine", "help",  "version"};
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
    const CVPackOptions &pack = a.pack;
    if (!pack.format.isEmpty())
        text += u" format=" + pack.format;
    if (pack.name)
        text += u" name=" + *pack.name;
    if (pack.level)
        text += u" level=" + QString::number(*pack.level);
    if (pack.encrypt)
        text += u" encrypt"_s;
    if (pack.volumeBytes)
        text += u" volume=" + QString::number(*pack.volumeBytes, 'f', 0);
    if (pack.images)
        text += u" images=" + QString::number(*pack.images);
    if (pack.audio)
        text += u" audio=" + QString::number(*pack.audio);
    if (pack.replace)
        text += u" replace"_s;
    if (a.command == CVTerminalArguments::Command::Split)
        text += u" %1%2 compression=%3 sums=%4"_s.arg(a.split.size)
                    .arg(a.split.unit)
                    .arg(a.split.compression)
                    .arg(a.split.checksum);
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
    row("create", "create --format 7z --name N --to D --level 0 --encrypt --volume 1.5GB --replace a b",
        "create to=D format=7z name=N level=0 encrypt volume=1500000000 replace | a|b");
    row("media", "create --format=CORVANE --images 13 --audio 0 a",
        "create format=corvane images=13 audio=0 | a");
    row("convert", "convert a.zip --format tar.gz --level 1 --password-file p",
        "convert password=p format=tar.gz level=1 | a.zip");
    row("the case of a format", "create --format TAR.z a", "create format=tar.Z | a");
    row("split", "split f", "split 10MB compression=0 sums=0 | f");
    row("split with everything", "split --size 0.5 --unit gb --compress bzip2 --checksum --to D f",
        "split to=D 0.5GB compression=1 sums=1 | f");
    row("combine", "combine --to D f.b.split f.a.split", "combine to=D | f.b.split|f.a.split");
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
    QTest::newRow("unknown option") << QStringList{u"list"_s, u"--jsn"_s, u"a"_s}
                                    << u"did you mean “--json”?"_s;
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
    QTest::newRow("not in this version") << QStringList{u"install-rar"_s} << u"install-rar"_s;
    const auto splitting = [](const char *words, const char *named) {
        QTest::newRow(words) << QString::fromUtf8(words).split(u' ') << QString::fromUtf8(named);
    };
    splitting("split", "needs a file");
    splitting("split a b", "one file at a time");
    splitting("split --size 0 a", "above 0");
    splitting("split --size ten a", "ten");
    splitting("split --size nan a", "nan");
    splitting("split --size 0.5 --unit B a", "at least one byte");
    splitting("split --unit TB a", "TB");
    splitting("split --compress gzip a", "gzip");
    splitting("split --compress 7z --checksum a", "--checksum");
    splitting("combine", "needs a part");
    splitting("combine --checksum a.a.split", "--checksum");
    // What cannot be written like that, with what the message has to offer instead.
    const auto create = [](const char *name, const char *options, const QString &offers) {
        const QString words = u"create --format "_s + QString::fromUtf8(options) + u" a"_s;
        QTest::addRow("create: %s", name) << words.split(u' ') << offers;
    };
    QTest::newRow("no format") << QStringList{u"create"_s, u"a"_s} << u"tar.bz2"_s;
    create("unknown format", "arj", u"tar.bz2"_s);
    create("format without its tool", "rar", u"not installed"_s);
    create("password with tar", "tar --encrypt", u"zip and 7z"_s);
    create("password with tar.gz", "tar.gz --encrypt", u"zip and 7z"_s);
    create("password with the own format", "corvane --encrypt", u"zip and 7z"_s);
    create("password file without encryption", "zip --password-file p", u"--encrypt"_s);
    create("level with tar", "tar --level 5", u"tar.gz"_s);
    create("level with tar.Z", "tar.Z --level 5", u"tar.gz"_s);
    create("level with tar.xz", "tar.xz --level 5", u"tar.gz"_s);
    create("level with the own format", "corvane --level 5", u"tar.gz"_s);
    create("no compression with tar.gz", "tar.gz --level 0", u"1 to 9"_s);
    create("no compression with tar.bz2", "tar.bz2 --level 0", u"1 to 9"_s);
    create("level too high", "zip --level 10", u"0 to 9"_s);
    create("level below zero", "zip --level -1", u"0 to 9"_s);
    create("level of words", "zip --level best", u"0 to 9"_s);
    create("level given twice", "zip --level 1 --level 2", u"twice"_s);
    create("volumes of tar", "tar --volume 1MB", u"7z"_s);
    create("volumes of the own format", "corvane --volume 1MB", u"7z"_s);
    create("volumes without a size", "7z --volume big", u"100MB"_s);
    create("volumes of an unclear unit", "7z --volume 100M", u"100MB"_s);
    create("volumes of nothing", "7z --volume 0", u"or more"_s);
    create("volumes too small", "7z --volume 10KB", u"or more"_s);
    create("images out of range", "corvane --images 14", u"0 to 13"_s);
    create("sound out of range", "corvane --audio 9", u"0 to 8"_s);
    create("images in zip", "zip --images 1", u"corvane"_s);
    create("sound in tar", "tar --audio 1", u"corvane"_s);
    create("name with a slash", "zip --name a/b", u"--to"_s);
    create("name of a folder", "zip --name ..", u".."_s);
    create("endless name", qPrintable(u"zip --name "_s + QString(252, u'x')), u"shorter"_s);
    create("entries", "zip --entry x", u"--entry"_s);
    QTest::newRow("create nothing") << QStringList{u"create"_s, u"--format=zip"_s} << u"file"_s;
    QTest::newRow("convert nothing") << QStringList{u"convert"_s, u"--format=zip"_s} << u"archive"_s;
    QTest::newRow("convert two") << QStringList{u"convert"_s, u"--format=zip"_s, u"a"_s, u"b"_s} << u"“b”"_s;
}

void tst_arguments::refused()
{
    QFETCH(QStringList, words);
    QFETCH(QString, names);
    const auto result = CVTerminalArguments::parse(words);
    QVERIFY(!result);
    QVERIFY2(result.error().description.contains(names), qPrintable(result.error().description));
}

void tst_arguments::sizes_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<double>("bytes"); // below zero: not understood
    QTest::newRow("bytes") << u"700000"_s << 700000.0;
    QTest::newRow("thousands") << u"100MB"_s << 1e8;
    QTest::newRow("powers of two") << u"1.5GiB"_s << 1.5 * 1073741824;
    QTest::newRow("small letters, a space") << u"2 kib"_s << 2048.0;
    QTest::newRow("half a byte is none") << u"1.0005KB"_s << 1000.0;
    QTest::newRow("negative") << u"-5"_s << -1.0;
    QTest::newRow("exponent") << u"1e9"_s << -1.0;
    QTest::newRow("comma") << u"1,5GB"_s << -1.0;
    QTest::newRow("unit alone") << u"MB"_s << -1.0;
    QTest::newRow("too many digits") << u"1000000000000000000"_s << -1.0;
}

void tst_arguments::sizes()
{
    QFETCH(QString, text);
    QFETCH(double, bytes);
    QCOMPARE(CVPackOptions::parseSize(text).value_or(-1), bytes);
}

void tst_arguments::passwords_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<QString>("password");
    QTest::addColumn<bool>("fit");
    QTest::newRow("zip") << u"zip"_s << u"pa ss$\"'"_s << true;
    QTest::newRow("zip beyond ASCII") << u"zip"_s << u"päss"_s << false;
    QTest::newRow("7z beyond ASCII") << u"7z"_s << u"päss"_s << true;
    QTest::newRow("begins with =") << u"7z"_s << u"=x"_s << false;
    QTest::newRow("= further on") << u"7z"_s << u"x="_s << true;
    QTest::newRow("empty") << u"7z"_s << u""_s << false;
    QTest::newRow("two lines") << u"7z"_s << u"a\nb"_s << false;
}

void tst_arguments::passwords()
{
    QFETCH(QString, format);
    QFETCH(QString, password);
    QFETCH(bool, fit);
    QCOMPARE(!CVPackOptions::passwordProblem(format, password), fit);
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
    QTest::newRow("not in bytes") << -60 << u"[#####...............]   25%  0:06 left  写真.zip"_s;
}

void tst_arguments::progressFits()
{
    QFETCH(int, cells);
    QFETCH(QString, line);
    const CVTerminalProgress progress = {
        .done = 1e6, .total = 4e6, .rate = 5e5, .title = u"写真.zip"_s, .inBytes = cells > 0};
    cells = std::abs(cells);
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
