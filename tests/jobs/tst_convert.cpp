#include "jobs/JobRecorder.h"
#include "support/ArchiveBytes.h"
#include "support/RarBytes.h"
#include "support/TestTree.h"

#include "engine/control/CVOperationFactory.h"
#include "engine/model/CVEditArchiveOperationDataBinding.h"
#include "engine/model/CVOperation.h"
#include "engine/model/CVOperationQueue.h"
#include "engine/model/CVSettings.h"
#include "engine/model/CVWorkDirectoryManager.h"
#include "util/LXMainThread.h"
#include "util/LXRemoveTree.h"

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

class Recorder final : public JobRecorder
{
public:
    using JobRecorder::JobRecorder;

    QString input;
    CVAlertResult replace = CVAlertResult::Cancel;
    std::function<void(double)> onProgress;

    bool progressWasSteady() const
    {
        const std::lock_guard lock(m_mutex);
        return m_steady;
    }

    QString operationPathToInputFile(CVOperation *) override { return input; }
    void operationHasMadeProgress(CVOperation *, double done, double total) override
    {
        {
            const std::lock_guard lock(m_mutex);
            m_steady = m_steady && total == 3 && done >= 0 && done <= 3;
        }
        if (onProgress)
            onProgress(done);
    }
    CVAlertResult operationNeedsToAskWhetherToReplaceFileAtPath(CVOperation *, const QString &path) override
    {
        note(u"replace? "_s + path);
        return replace;
    }

private:
    bool m_steady = true;
};

/// Nothing that compresses away, the same in every run.
QByteArray noise(qsizetype size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    quint32 state = 1;
    for (char &byte : bytes)
        byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    return bytes;
}

} // namespace

class tst_convert : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void keepsEverything_data();
    void keepsEverything();
    void keepsBytesModesAndTimes_data();
    void keepsBytesModesAndTimes();
    void encryptsOnlyWhatItShould_data();
    void encryptsOnlyWhatItShould();
    void ends_data();
    void ends();
    void existing_data();
    void existing();
    void cancel_data();
    void cancel();
    void makesSoundSmallerButNoImages_data();
    void makesSoundSmallerButNoImages();
    void writesVolumes();
    void tellsWhatIsLeftOut();

private:
    QString path(const QString &name) const { return m_root->filePath(name); }
    void write(const QString &name, const QByteArray &content) const
    {
        QFile file(path(name));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
    }
    void tool(const QString &program, const QStringList &arguments, const QString &folder = u"."_s) const
    {
        QProcess process;
        process.setWorkingDirectory(path(folder));
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(program, arguments);
        QVERIFY2(process.waitForFinished(60000) && process.exitCode() == 0, process.readAll().constData());
    }
    /// Makes in/ and the archive `name` of what is in it, by the ending of the name.
    void makeSource(const QString &name) const;
    void makeTree() const;
    /// Unpacks with other people's tools.
    void unpack(const QString &archive, const QString &folder, const QString &password = {}) const;
    void convert(const QString &source, const QString &format,
                 const std::function<void(CVConvertOperationDataBinding &)> &change = {});
    /// What there is besides the sources: in the destination, and left over.
    QStringList outcome() const
    {
        const auto filters = QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;
        return QDir(path(u"out"_s)).entryList(filters) + QDir(path(u"tmp"_s)).entryList(filters) +
               CVWorkDirectoryManager::workDirs();
    }

    std::unique_ptr<QTemporaryDir> m_root;
    std::shared_ptr<Recorder> m_recorder;
    std::shared_ptr<CVOperation> m_operation;
};

void tst_convert::initTestCase()
{
    LXMainThread::install();
    ::umask(022);
}

void tst_convert::init()
{
    m_root = std::make_unique<QTemporaryDir>();
    m_recorder = std::make_shared<Recorder>(m_root->path());
    CVSettings::setStore(std::make_shared<LXSettingsStore>(path(u"settings/corvane.conf"_s)));
    for (const QString &folder : {u"out"_s, u"tmp"_s, u"in"_s})
        QDir(m_root->path()).mkdir(folder);
    qputenv("TMPDIR", QFile::encodeName(path(u"tmp"_s)));
    CVSettings::overrideForThisRun(CVSettingsKey::extractDestination,
                                   static_cast<int>(CVExtractDestination::DefaultFolder));
    CVSettings::overrideForThisRun(CVSettingsKey::extractDefaultDestination, path(u"out"_s));
}

void tst_convert::cleanup()
{
    m_operation.reset();
    CVSettings::setStore(nullptr);
    if (m_root) // Qt's own removal does not find every name
        QVERIFY(removeTree(m_root->path()));
    qunsetenv("TMPDIR"); // where the next test's folder will be
}

void tst_convert::makeTree() const
{
    QDir(path(u"in"_s)).mkpath(u"top/sub dir/empty"_s);
    write(u"in/top/a.txt"_s, "some words\n");
    write(u"in/top/nothing"_s, {});
    write(u"in/top/sub dir/'quoted' $HOME `x`"_s, noise(200000));
    write(u"in/top/sub dir/\u00fc\u4e2d.bin"_s, noise(3000));
    QVERIFY(QFile::link(u"a.txt"_s, path(u"in/top/link"_s)));
}

void tst_convert::makeSource(const QString &name) const
{
    const QString archive = path(name);
    if (name.endsWith(u".rar")) {
        // Without folders and links: they are stored as they come.
        const QByteArray data = noise(5000);
        QDir(path(u"in"_s)).mkpath(u"top"_s);
        write(u"in/top/a.txt"_s, "words");
        write(u"in/top/b"_s, data);
        const QList<RarBytes::Item> items = {{.name = "top/a.txt", .data = "words"},
                                             {.name = "top/b", .data = data}};
        write(name, name.startsWith(u"five") ? RarBytes::rar5(items) : RarBytes::rar4(items));
        return;
    }
    makeTree();
    if (name.endsWith(u".tar.gz"))
        return tool(u"tar"_s, {u"-czf"_s, archive, u"top"_s}, u"in"_s);
    if (name.endsWith(u".corvane"))
        return tool(u"bsdtar"_s, {u"--format"_s, u"xar"_s, u"-cf"_s, archive, u"top"_s}, u"in"_s);
    QString made = archive;
    QStringList words = {u"a"_s, u"-bd"_s, u"-snl"_s};
    if (name.endsWith(u".zip"))
        words += {u"-tzip"_s, u"-mcu=on"_s};
    if (name.contains(u"locked"))
        words += name.endsWith(u".zip") ? QStringList{u"-mem=AES256"_s, u"-ppa ss"_s}
                                        : QStringList{u"-mhe=on"_s, u"-ppa ss"_s};
    if (name.endsWith(u".001") || name.endsWith(u".002")) {
        words += u"-v60000b"_s;
        made.chop(4);
    }
    tool(u"7z"_s, words + QStringList{made, u"top"_s}, u"in"_s);
}

void tst_convert::unpack(const QString &archive, const QString &folder, const QString &password) const
{
    QDir(m_root->path()).mkdir(folder);
    if (archive.endsWith(u".zip") || archive.endsWith(u".7z") || archive.endsWith(u".001"))
        tool(u"7z"_s,
             {u"x"_s, u"-bd"_s, u"-snl"_s, u"-y"_s, u"-p"_s + password, u"-o"_s + path(folder), archive});
    else
        tool(u"bsdtar"_s, {u"-xpf"_s, archive, u"-C"_s, path(folder)});
}

void tst_convert::convert(const QString &source, const QString &format,
                          const std::function<void(CVConvertOperationDataBinding &)> &change)
{
    CVSettings::overrideForThisRun(CVSettingsKey::convertArchiveFormat, format);
    const auto data = std::make_shared<CVConvertOperationDataBinding>();
    data->setArchiveName(u"new"_s);
    if (change)
        change(*data);
    m_recorder->input = path(source);
    m_operation = CVOperationFactory::convertOperationWithDataBinding(data);
    m_operation->setDelegate(m_recorder);
    QEventLoop loop;
    m_operation->observeFinished([&loop](CVOperation &) { LXMainThread::post([&loop] { loop.quit(); }); });
    CVOperationQueue queue(1);
    queue.add(m_operation);
    loop.exec();
    queue.waitUntilEmpty();
}

void tst_convert::keepsEverything_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("format");
    for (const char *source : {"x.zip", "x.7z", "x.tar.gz", "x.corvane", "locked.zip", "locked.7z",
                               "x.7z.001", "locked.7z.002", "four.rar", "five.rar"}) {
        for (const char *format : {"zip", "7z", "tar", "tar.gz", "tar.bz2", "tar.xz", "tar.Z", "corvane"})
            QTest::addRow("%s to %s", source, format)
                << QString::fromLatin1(source) << QString::fromLatin1(format);
    }
}

void tst_convert::keepsEverything()
{
    QFETCH(QString, source);
    QFETCH(QString, format);
    makeSource(source);
    m_recorder->passwords[QString()] = {u"wrong"_s, u"pa ss"_s};
    const TestTree before = treeFromDisk(m_root->path(), {u"out"_s, u"tmp"_s, u"settings"_s});

    convert(source, format);

    const QString result = path(u"out/new."_s + format);
    QStringList expected = {
        u"Converting “%1” to “new.%2”"_s.arg(source.endsWith(u".002") ? u"locked.7z.001"_s : source, format)};
    if (source.startsWith(u"locked")) {
        const QString asked = u"password? "_s + (source.endsWith(u".002") ? u"locked.7z.001"_s : source);
        expected += {asked, asked + u" again"_s};
    }
    expected += u"completed: ~/out/new."_s + format;
    QVERIFY2(m_recorder->events() == expected,
             qPrintable(m_recorder->events().join(u'\n') + m_recorder->error().suggestion));
    QVERIFY(m_recorder->progressWasSteady());
    QCOMPARE(outcome(), QStringList{u"new."_s + format});
    unpack(result, u"back"_s);
    const QStringList differences =
        treeDifferences(treeFromDisk(path(u"in"_s)), treeFromDisk(path(u"back"_s)));
    QVERIFY2(differences.isEmpty(), qPrintable(differences.join(u'\n')));
    const TestTree after = treeFromDisk(m_root->path(), {u"out"_s, u"tmp"_s, u"settings"_s, u"back"_s});
    QCOMPARE(treeDifferences(before, after), QStringList());
}

void tst_convert::keepsBytesModesAndTimes_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<QByteArray>("odd"); // name of one more file
    for (const char *format : {"tar.bz2", "zip", "7z"})
        QTest::newRow(format) << QString::fromLatin1(format) << QByteArray("caf\xe9");
    // The other reader of these has no way with bytes that are no text.
    QTest::newRow("corvane") << u"corvane"_s << QByteArray("café");
}

void tst_convert::keepsBytesModesAndTimes()
{
    QFETCH(QString, format);
    QFETCH(QByteArray, odd);
    makeTree();
    // A name that is no UTF-8 may be read as the text that it most likely is, which is packed then.
    const QByteArray oddPath = QFile::encodeName(path(u"in/top/"_s)) + odd;
    const int fd = ::open(oddPath.constData(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    QVERIFY(fd >= 0 && ::write(fd, "odd", 3) == 3 && ::close(fd) == 0);
    const struct
    {
        const char *name;
        mode_t mode;
    } items[] = {{"top/a.txt", 0640}, {"top/nothing", 0444}, {"top/sub dir", 0750}, {"top", 0711}};
    for (const auto &item : items) {
        const QByteArray file = QFile::encodeName(path(u"in/"_s)) + item.name;
        QCOMPARE(::chmod(file.constData(), item.mode), 0);
        const timespec times[2] = {{1'000'000'000, 0}, {1'000'000'002, 0}};
        QCOMPARE(::utimensat(AT_FDCWD, file.constData(), times, 0), 0);
    }
    tool(u"tar"_s, {u"-czf"_s, path(u"x.tar.gz"_s), u"top"_s}, u"in"_s);

    convert(u"x.tar.gz"_s, format);

    QVERIFY2(m_recorder->events().last().startsWith(u"completed"), qPrintable(m_recorder->error().reason));
    unpack(path(u"out/new."_s + format), u"back"_s);
    TestTree expected = treeFromDisk(path(u"in"_s));
    TestTree actual = treeFromDisk(path(u"back"_s));
    const auto oddIn = [](TestTree &tree) { return tree.extract(std::prev(tree.lower_bound("top/cag"))); };
    const auto oddBefore = oddIn(expected);
    const auto oddAfter = oddIn(actual);
    QVERIFY2(oddAfter.key() == "top/café" || oddAfter.key() == oddBefore.key(), oddAfter.key().constData());
    QCOMPARE(oddAfter.mapped().sha256, oddBefore.mapped().sha256);
    const QStringList differences = treeDifferences(expected, actual);
    QVERIFY2(differences.isEmpty(), qPrintable(differences.join(u'\n')));
    for (const auto &item : items) {
        QCOMPARE(actual.at(item.name).mode, expected.at(item.name).mode);
        QCOMPARE(actual.at(item.name).changedNs, expected.at(item.name).changedNs);
    }
}

void tst_convert::encryptsOnlyWhatItShould_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<bool>("wanted");
    QTest::addColumn<bool>("encrypted");
    QTest::newRow("zip") << u"zip"_s << true << true;
    QTest::newRow("7z") << u"7z"_s << true << true;
    QTest::newRow("not wanted") << u"zip"_s << false << false;
    QTest::newRow("not possible") << u"tar"_s << true << false;
}

void tst_convert::encryptsOnlyWhatItShould()
{
    QFETCH(QString, format);
    QFETCH(bool, wanted);
    QFETCH(bool, encrypted);
    makeSource(u"locked.7z"_s);
    m_recorder->passwords[QString()] = {u"pa ss"_s};
    CVSettings::setValue(CVSettingsKey::shouldEncrypt, wanted);

    convert(u"locked.7z"_s, format, [](CVConvertOperationDataBinding &data) {
        data.setPassword(u"other"_s);
        data.setPasswordConfirmation(u"other"_s);
    });

    const QString result = path(u"out/new."_s + format);
    QVERIFY2(QFile::exists(result), qPrintable(m_recorder->events().join(u'\n')));
    QCOMPARE(QProcess::execute(u"7z"_s, {u"t"_s, u"-bso0"_s, u"-bse0"_s, u"-pwrong"_s, result}) != 0,
             encrypted);
    unpack(result, u"back"_s, encrypted ? u"other"_s : QString());
    QCOMPARE(treeDifferences(treeFromDisk(path(u"in"_s)), treeFromDisk(path(u"back"_s))), QStringList());
}

// The ends that are no success: each once, told as it should be, and nothing left.
void tst_convert::ends_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<QStringList>("passwords"); // given to questions; "new" and "confirmed" for the new one
    QTest::addColumn<QString>("newPassword");
    QTest::addColumn<QString>("confirmation");
    QTest::addColumn<QString>("end");
    const QString notOpened = u"failed: The file “%1” could not be opened."_s;
    QTest::newRow("no password given")
        << u"locked.zip"_s << QStringList() << u""_s << u""_s << u"cancelled"_s;
    QTest::newRow("no password after a wrong one")
        << u"locked.7z"_s << QStringList{u"x"_s} << u""_s << u""_s << u"cancelled"_s;
    QTest::newRow("new passwords differ")
        << u"x.zip"_s << QStringList() << u"a"_s << u"b"_s << u"failed: The passwords don't match."_s;
    QTest::newRow("encryption without a password")
        << u"x.zip"_s << QStringList() << u""_s << u""_s << u"failed: Please enter a password"_s;
    QTest::newRow("no archive") << u"words.zip"_s << QStringList() << u"a"_s << u"a"_s
                                << notOpened.arg(u"words.zip");
    QTest::newRow("cut off") << u"cut.tar.gz"_s << QStringList() << u"a"_s << u"a"_s
                             << notOpened.arg(u"cut.tar.gz");
    QTest::newRow("a volume is missing")
        << u"half.7z.001"_s << QStringList() << u"a"_s << u"a"_s << notOpened.arg(u"half.7z.001");
    QTest::newRow("not there") << u"none.zip"_s << QStringList() << u"a"_s << u"a"_s
                               << notOpened.arg(u"none.zip");
}

void tst_convert::ends()
{
    QFETCH(QString, source);
    QFETCH(QStringList, passwords);
    QFETCH(QString, newPassword);
    QFETCH(QString, confirmation);
    QFETCH(QString, end);
    if (source == u"words.zip") {
        write(source, "just some words\n");
    } else if (source == u"cut.tar.gz") {
        makeSource(source);
        QVERIFY(QFile::resize(path(source), 100000));
    } else if (source != u"none.zip") {
        makeSource(source);
        QFile::remove(path(u"half.7z.002"_s));
    }
    m_recorder->passwords[QString()] = passwords;
    m_recorder->replace = CVAlertResult::Default;
    if (!end.contains(u"cancelled"))
        CVSettings::setValue(CVSettingsKey::shouldEncrypt, true);
    write(u"out/new.zip"_s, "an older one");

    convert(source, u"zip"_s, [&](CVConvertOperationDataBinding &data) {
        data.setPassword(newPassword);
        data.setPasswordConfirmation(confirmation);
    });

    const QStringList events = m_recorder->events();
    QVERIFY2(events.last() == end, qPrintable(events.join(u'\n')));
    QCOMPARE(events.filter(QRegularExpression(u"^(completed|failed|cancelled)"_s)).size(), 1);
    QCOMPARE(outcome(), QStringList{u"new.zip"_s});
    QFile older(path(u"out/new.zip"_s));
    QVERIFY(older.open(QIODevice::ReadOnly));
    QCOMPARE(older.readAll(), QByteArray("an older one")); // although it might have been replaced
}

void tst_convert::existing_data()
{
    QTest::addColumn<QString>("inTheWay"); // in the folder of the new archive
    QTest::addColumn<CVAlertResult>("answer");
    QTest::addColumn<QString>("end");
    QTest::newRow("replace") << u"new.tar"_s << CVAlertResult::Default << u"completed: ~/out/new.tar"_s;
    QTest::newRow("keep") << u"new.tar"_s << CVAlertResult::Cancel << u"cancelled"_s;
    QTest::newRow("replace a folder")
        << u"new.tar/x"_s << CVAlertResult::Default << u"completed: ~/out/new.tar"_s;
    QTest::newRow("itself") << u"self.tar"_s << CVAlertResult::Default
                            << u"failed: “self.tar” can’t be converted to itself."_s;
}

void tst_convert::existing()
{
    QFETCH(QString, inTheWay);
    QFETCH(CVAlertResult, answer);
    QFETCH(QString, end);
    makeTree();
    tool(u"tar"_s, {u"-cf"_s, path(u"out/self.tar"_s), u"top"_s}, u"in"_s);
    const TestTree source = treeFromDisk(path(u"out"_s));
    if (inTheWay != u"self.tar") {
        QDir().mkpath(path(u"out/"_s + inTheWay.section(u'/', 0, -2)));
        write(u"out/"_s + inTheWay, "an older one");
    }
    m_recorder->replace = answer;

    convert(u"out/self.tar"_s, u"tar"_s,
            [&](CVConvertOperationDataBinding &data) { data.setArchiveName(inTheWay.section(u'.', 0, 0)); });

    const QStringList events = m_recorder->events();
    QVERIFY2(events.last() == end, qPrintable(events.join(u'\n')));
    QCOMPARE(events.filter(u"replace?"_s).size(), end.startsWith(u"failed") ? 0 : 1);
    if (end.startsWith(u"completed")) {
        unpack(path(u"out/new.tar"_s), u"back"_s);
        QCOMPARE(treeDifferences(treeFromDisk(path(u"in"_s)), treeFromDisk(path(u"back"_s))), QStringList());
    } else if (end == u"cancelled") {
        QCOMPARE(QFileInfo(path(u"out/new.tar"_s)).size(), 12);
    }
    QCOMPARE(treeFromDisk(path(u"out"_s)).at("self.tar").sha256, source.at("self.tar").sha256);
    QCOMPARE(treeFromDisk(path(u"tmp"_s)).size(), std::size_t(0));
    QCOMPARE(QDir(path(u"out"_s)).entryList(QDir::Hidden | QDir::AllEntries | QDir::NoDotAndDotDot),
             inTheWay == u"self.tar" ? QStringList{u"self.tar"_s}
                                     : QStringList({u"new.tar"_s, u"self.tar"_s}));
}

void tst_convert::cancel_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("format");
    QTest::addColumn<QString>("event"); // that begins like this; empty: progress
    QTest::addColumn<double>("from");   // progress
    QTest::newRow("at the start") << u"x.zip"_s << u"zip"_s << u"Converting"_s << 0.0;
    QTest::newRow("at the password") << u"locked.zip"_s << u"zip"_s << u"password?"_s << 0.0;
    QTest::newRow("at the question") << u"x.zip"_s << u"zip"_s << u"replace?"_s << 0.0;
    QTest::newRow("unpacking") << u"x.7z"_s << u"tar"_s << u""_s << 0.01;
    QTest::newRow("unpacking with a tool") << u"x.tar.gz"_s << u"zip"_s << u""_s << 0.01;
    QTest::newRow("among the media") << u"x.zip"_s << u"corvane"_s << u""_s << 1.001;
    for (const char *format : {"zip", "7z", "tar.bz2", "corvane"})
        QTest::addRow("packing %s", format) << u"x.zip"_s << QString::fromLatin1(format) << u""_s << 2.0;
}

void tst_convert::cancel()
{
    QFETCH(QString, source);
    QFETCH(QString, format);
    QFETCH(QString, event);
    QFETCH(double, from);
    QDir(path(u"in"_s)).mkdir(u"top"_s);
    // Enough for the slowest packer to be caught at it.
    write(u"in/top/big"_s, from >= 2 ? noise(40'000'000) : noise(4'000'000));
    QStringList words = {u"a"_s, u"-mx1"_s, path(source), u"top"_s};
    if (source.startsWith(u"locked"))
        words.insert(1, u"-ppa ss"_s);
    if (source.endsWith(u".tar.gz"))
        tool(u"tar"_s, {u"-czf"_s, path(source), u"top"_s}, u"in"_s);
    else
        tool(u"7z"_s, words, u"in"_s);
    const QByteArray older = event == u"replace?" ? "an older one" : "";
    if (!older.isEmpty())
        write(u"out/new.zip"_s, older);
    m_recorder->replace = CVAlertResult::Default;
    m_recorder->passwords[QString()] = {u"pa ss"_s};
    std::atomic<bool> met = false;
    m_recorder->onEvent = [&](const QString &text) {
        if (!event.isEmpty() && text.startsWith(event)) {
            met = true;
            m_operation->cancel();
        }
    };
    m_recorder->onProgress = [&](double done) {
        if (event.isEmpty() && done >= from && !met.exchange(true))
            LXMainThread::post([this] { m_operation->cancel(); });
    };

    convert(source, format);

    const QStringList events = m_recorder->events();
    QVERIFY(met);
    QVERIFY2(events.last() == u"cancelled", qPrintable(events.join(u'\n')));
    QCOMPARE(events.filter(QRegularExpression(u"^(completed|failed|cancelled)"_s)).size(), 1);
    QCOMPARE(outcome(), older.isEmpty() ? QStringList() : QStringList{u"new.zip"_s});
    QVERIFY(QFile::exists(path(source)));
    if (!older.isEmpty())
        QCOMPARE(QFileInfo(path(u"out/new.zip"_s)).size(), older.size());
}

void tst_convert::makesSoundSmallerButNoImages_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<bool>("asZip"); // instead of the own format
    QTest::addColumn<QString>("made");
    QTest::newRow("own format") << u"corvane"_s << false << u"new.corvane"_s;
    QTest::newRow("own format as ZIP") << u"corvane"_s << true << u"new.zip"_s;
    QTest::newRow("another format") << u"zip"_s << false << u"new.zip"_s;
}

void tst_convert::makesSoundSmallerButNoImages()
{
    QFETCH(QString, format);
    QFETCH(bool, asZip);
    QFETCH(QString, made);
    constexpr quint32 samples = 8000;
    QByteArray wav("RIFF\0\0\0\0WAVEfmt \x10\0\0\0\1\0\1\0\x40\x1f\0\0\x80\x3e\0\0\2\0\x10\0data\0\0\0\0",
                   44);
    const auto put = [&wav](qsizetype at, quint32 number) {
        for (int i = 0; i < 4; ++i)
            wav[at + i] = static_cast<char>(number >> (8 * i));
    };
    put(4, 36 + 2 * samples);
    put(40, 2 * samples);
    for (quint32 i = 0; i < samples; ++i) {
        wav += '\0';
        wav += static_cast<char>(i % 16 < 8 ? 32 : -32);
    }
    const QByteArray bmp =
        QByteArray("BM\x3a\0\0\0\0\0\0\0\x36\0\0\0\x28\0\0\0\1\0\0\0\1\0\0\0\1\0\x18\0", 30) +
        QByteArray(24, '\0') + QByteArray("abc\0", 4);
    write(u"in/sound.wav"_s, wav);
    write(u"in/dot.bmp"_s, bmp);
    tool(u"tar"_s, {u"-cf"_s, path(u"x.tar"_s), u"sound.wav"_s, u"dot.bmp"_s}, u"in"_s);
    CVSettings::overrideForThisRun(CVSettingsKey::audioPreCompressionFormat, 1);
    CVSettings::overrideForThisRun(CVSettingsKey::imagePreCompressionFormat, 1);
    CVSettings::setValue(CVSettingsKey::shouldEncrypt, asZip); // and has no effect there

    convert(u"x.tar"_s, format, [asZip](CVConvertOperationDataBinding &data) {
        data.setShouldUseZipCompression(asZip);
        data.setPassword(u"x"_s);
        data.setPasswordConfirmation(u"x"_s);
    });

    QVERIFY2(m_recorder->events().last() == u"completed: ~/out/" + made,
             qPrintable(m_recorder->events().join(u'\n') + m_recorder->error().suggestion));
    unpack(path(u"out/"_s + made), u"back"_s);
    const TestTree back = treeFromDisk(path(u"back"_s));
    QCOMPARE(back.size(), std::size_t(2));
    QCOMPARE(back.at("dot.bmp").sha256, treeFromDisk(path(u"in"_s)).at("dot.bmp").sha256);
    const bool converted = format == u"corvane";
    QVERIFY(back.contains(converted ? "sound.m4a" : "sound.wav"));
    if (converted)
        QVERIFY(back.at("sound.m4a").size < qint64(wav.size()));
}

void tst_convert::writesVolumes()
{
    makeSource(u"x.tar.gz"_s);
    convert(u"x.tar.gz"_s, u"7z"_s, [](CVConvertOperationDataBinding &data) { data.setChunkSize(65536); });
    QCOMPARE(m_recorder->events().last(), u"completed many: ~/out/new"_s);
    QCOMPARE(outcome(), QStringList{u"new"_s});
    QVERIFY(QFile::exists(path(u"out/new/new.7z.004"_s)));
    unpack(path(u"out/new/new.7z.001"_s), u"back"_s);
    QCOMPARE(treeDifferences(treeFromDisk(path(u"in"_s)), treeFromDisk(path(u"back"_s))), QStringList());
}

void tst_convert::tellsWhatIsLeftOut()
{
    ArchiveBytes::Item good;
    good.name = "good";
    good.data = "x";
    ArchiveBytes::Item evil = good;
    evil.name = "../evil";
    ArchiveBytes::Item pipe;
    pipe.name = "pipe";
    pipe.type = ArchiveBytes::Item::Type::Fifo;
    write(u"x.tar"_s, ArchiveBytes::tar({good, evil, pipe}));
    convert(u"x.tar"_s, u"tar.gz"_s);
    const QStringList events = m_recorder->events();
    QCOMPARE(events.size(), 3);
    QVERIFY2(events[1].startsWith(u"left out of x.tar: "), qPrintable(events[1]));
    QCOMPARE(events[2], u"completed: ~/out/new.tar.gz"_s);
    QCOMPARE(outcome(), QStringList{u"new.tar.gz"_s});
}

QTEST_GUILESS_MAIN(tst_convert)
#include "tst_convert.moc"
