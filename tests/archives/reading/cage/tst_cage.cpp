#include "archives/reading/XADArchive.h"
#include "archives/reading/cage/CVReaderWatch.h"
#include "archives/reading/cage/CVVolumeNames.h"
#include "support/ArchiveBytes.h"
#include "util/LXFileDescriptor.h"

#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <csignal>
#include <cstring>
#include <thread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

class Delegate final : public XADArchiveDelegate
{
public:
    void archiveNeedsPassword(XADArchive &) override {}
    void archiveExtractionProgressBytes(XADArchive &, qint64, qint64) override {}
    XADAction archiveExtractionOfEntryDidFail(XADArchive &, int, XADErrorCode) override
    {
        return XADAction::Skip;
    }
    bool archiveExtractionShouldStop(XADArchive &) override { return stop; }

    std::atomic<bool> stop = false;
};

struct Result
{
    XADErrorCode code = XADErrorCode::None;
    QString detail;
};

/// Opens and extracts all.
Result read(const QString &archive, const QString &destination, Delegate *delegate)
{
    Result result;
    const auto opened = XADArchive::openFile(archive, delegate, &result.code, &result.detail);
    if (opened) {
        result.code = opened->extractTo(destination, false);
        result.detail = opened->lastErrorText();
    }
    return result;
}

int listening(int domain, const sockaddr *address, socklen_t size)
{
    const int fd = ::socket(domain, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    return ::bind(fd, address, size) == 0 && ::listen(fd, 4) == 0 ? fd : -1;
}

std::atomic<bool> signalled = false;

} // namespace

/// A reader that an archive took over gets nowhere, and its archive alone fails.
class TestCage : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        qputenv("CORVANE_TOOL_CORVANE_READER",
                QFile::encodeName(QCoreApplication::applicationDirPath() + u"/corvane-hostile-reader"_s));
        ::signal(SIGUSR1, [](int) { signalled = true; });
    }

    void init()
    {
        m_folder = std::make_unique<QTemporaryDir>();
        QVERIFY(QDir(m_folder->path()).mkdir(u"out"_s));
        ArchiveBytes::Item good;
        good.name = "good.txt";
        good.data = "well";
        write(u"good.zip"_s, ArchiveBytes::zip({good}));
    }

    void gives_up_data();
    void gives_up();
    void ends_what_comes_to_no_end();
    void goes_on_after_the_server_died();
    void stops_at_once();
    void watches();
    void names_volumes_data();
    void names_volumes();
    void says_that_the_reader_is_missing();
    void links_no_decoder_data();
    void links_no_decoder();

private:
    QString path(const QString &name) const { return m_folder->filePath(name); }
    void write(const QString &name, const QByteArray &bytes)
    {
        QFile file(path(name));
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(bytes), bytes.size());
    }
    QStringList delivered() const
    {
        return QDir(path(u"out"_s)).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    }
    void verifyTheNextIsRead()
    {
        Delegate delegate;
        const Result good = read(path(u"good.zip"_s), path(u"out"_s), &delegate);
        QCOMPARE(good.code, XADErrorCode::None);
        QCOMPARE(delivered(), QStringList{u"good.txt"_s});
    }

    std::unique_ptr<QTemporaryDir> m_folder;
};

void TestCage::gives_up_data()
{
    QTest::addColumn<QByteArray>("deed");
    for (const char *deed : {
             "read secret", "look secret", "write new", "mkdir new", "unlink secret", "chmod secret",
                 "truncate secret", "utimes secret", "reopen -", "change-archive -", "bus socket",
                 "abstract-bus -", "tcp -", "udp -", "exec new", "fork -", "signal-server -",
                 "signal-program -", "trace -",
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
                 "memory -",
#endif
                 "die fault", "die trap", "die abort", "die shrunk", "die throw", "die status", "die quietly",
                 "die-bidding fault", "die-extracting fault", "die-extracting quietly"
         })
        QTest::newRow(deed) << QByteArray(deed);
    for (const char *how :
         {"nothing-known", "empty", "huge", "bids-again", "cut", "ended-instead", "long-text", "no-code",
          "more-entries", "fewer-entries", "negative-entries", "countless-entries", "empty-file",
          "name-beyond", "no-type", "stream-early", "closed"})
        QTest::addRow("opening: %s", how) << QByteArray("forge ").append(how);
    for (const char *how :
         {"slot",           "long-slot",    "cut-record",       "record-beyond", "no-record",
          "begin-negative", "begin-beyond", "begin-far-beyond", "begin-inside",  "begin-twice",
          "not-wanted",     "data-first",   "data-after",       "finish-first",  "no-code",
          "negative-hole",  "failed-well",  "entry-added",      "end-inside",    "stream-twice",
          "no-stream",      "flood"})
        QTest::addRow("extraction: %s", how) << QByteArray("forge-extraction ").append(how);
}

void TestCage::gives_up()
{
    QFETCH(QByteArray, deed);
    write(u"secret"_s, "of the person");
    const QList<QByteArray> words = deed.split(' ');
    QByteArray argument = words[1];
    if (QByteArrayList{"secret", "new", "socket"}.contains(argument))
        argument = QFile::encodeName(path(QString::fromLatin1(argument)));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socklen_t size = sizeof(sa_family_t);
    if (words[0] == "abstract-bus") {
        argument = "corvane-test-" + QByteArray::number(::getpid());
        std::memcpy(address.sun_path + 1, argument.constData(), std::size_t(argument.size()));
        size += socklen_t(argument.size()) + 1;
    } else {
        const QByteArray place = QFile::encodeName(path(u"socket"_s));
        std::memcpy(address.sun_path, place.constData(), std::size_t(place.size()));
        size = sizeof address;
    }
    const LXFileDescriptor bus(listening(AF_UNIX, reinterpret_cast<sockaddr *>(&address), size));
    QVERIFY(bus.isOpen());
    sockaddr_in loopback{};
    loopback.sin_family = AF_INET;
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const LXFileDescriptor network(
        listening(AF_INET, reinterpret_cast<sockaddr *>(&loopback), sizeof loopback));
    socklen_t length = sizeof loopback;
    QVERIFY(::getsockname(network.get(), reinterpret_cast<sockaddr *>(&loopback), &length) == 0);
    if (words[0] == "tcp" || words[0] == "udp")
        argument = QByteArray::number(ntohs(loopback.sin_port));
    if (words[0] == "signal-program")
        argument = QByteArray::number(::getpid());
    const QByteArray archive = "HOSTILE " + words[0] + ' ' + argument;
    write(u"bad.archive"_s, archive);

    Delegate delegate;
    QElapsedTimer time;
    time.start();
    Result result;
    {
        const auto opened =
            XADArchive::openFile(path(u"bad.archive"_s), &delegate, &result.code, &result.detail);
        QVERIFY2(!opened || words[0].contains("extract"), "it got what it wanted");
        if (opened) // two of its three entries
            result = {opened->extractEntries({0, 1}, path(u"out"_s)), opened->lastErrorText()};
    }
    QCOMPARE(result.code, XADErrorCode::Damaged);
    QVERIFY(!result.detail.isEmpty());
    QVERIFY(time.elapsed() < 15'000);
    QVERIFY2(!delivered().contains(u"second"_s), "half an entry");
    QFile::remove(path(u"out/first"_s)); // was whole before
    QVERIFY(!signalled);
    QCOMPARE(::accept(bus.get(), nullptr, nullptr), -1);
    QCOMPARE(::accept(network.get(), nullptr, nullptr), -1);
    QFile secret(path(u"secret"_s));
    QVERIFY(secret.open(QIODevice::ReadOnly));
    QCOMPARE(secret.readAll(), QByteArray("of the person"));
    QVERIFY(!(secret.permissions() & QFileDevice::WriteOther));
    QVERIFY(!QFile::exists(path(u"new"_s)));
    QFile bad(path(u"bad.archive"_s));
    QVERIFY(bad.open(QIODevice::ReadOnly));
    QCOMPARE(bad.readAll(), archive);
    verifyTheNextIsRead();
}

void TestCage::ends_what_comes_to_no_end()
{
    write(u"bad.archive"_s, "HOSTILE loop-extracting -");
    Delegate delegate;
    const Result result = read(path(u"bad.archive"_s), path(u"out"_s), &delegate);
    QCOMPARE(result.code, XADErrorCode::Damaged);
    QCOMPARE(delivered(), QStringList());
    verifyTheNextIsRead();
}

void TestCage::goes_on_after_the_server_died()
{
    verifyTheNextIsRead();
    QFile::remove(path(u"out/good.txt"_s));
    QProcess search;
    search.start(u"pgrep"_s, {u"-P"_s, QString::number(::getpid()), u"-f"_s, u"corvane-hostile-reader"_s});
    QVERIFY(search.waitForFinished());
    const int server = search.readAll().trimmed().toInt();
    QVERIFY(server > 0);
    QCOMPARE(::kill(server, SIGKILL), 0);
    verifyTheNextIsRead();
}

void TestCage::stops_at_once()
{
    write(u"bad.archive"_s, "HOSTILE loop-extracting -");
    Delegate delegate;
    XADErrorCode code = XADErrorCode::None;
    const auto archive = XADArchive::openFile(path(u"bad.archive"_s), &delegate, &code);
    QVERIFY(archive);
    std::jthread person([&delegate] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        delegate.stop = true;
    });
    QElapsedTimer time;
    time.start();
    QCOMPARE(archive->extractTo(path(u"out"_s), false), XADErrorCode::Stopped);
    QVERIFY(time.elapsed() < 2000);
    QCOMPARE(delivered(), QStringList());
}

/// Signs of life count, and neither work for nothing nor sleep does.
void TestCage::watches()
{
    using namespace std::chrono_literals;
    CVReaderWatch watch({.processor = 200ms, .idle = 300ms, .withoutResult = 500ms});
    watch.setProcess(::getpid());
    std::uint32_t ticks = 0;
    const auto work = [&](std::chrono::milliseconds duration, bool ticking) {
        const auto end = std::chrono::steady_clock::now() + duration;
        while (std::chrono::steady_clock::now() < end)
            if (!watch.isAlive(1, ticking ? ++ticks : ticks))
                return false;
        return true;
    };
    QVERIFY(work(300ms, true));
    QVERIFY(!work(5s, true)); // nothing came of it
    watch.excuse();
    QVERIFY(!work(5s, false));
}

void TestCage::names_volumes_data()
{
    QTest::addColumn<QString>("archive");
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("isVolume");
    const auto row = [](const char *archive, const char *name, bool isVolume) {
        QTest::addRow("%s, %s", archive, name)
            << QString::fromUtf8(archive) << QString::fromUtf8(name) << isVolume;
    };
    row("a.7z.001", "a.7z.002", true);
    row("a.7z.001", "b.7z.002", false);
    row("a.7z.001", "a.7z", false);
    row("a.rar", "a.r00", true);
    row("A.RAR", "a.R17", true);
    row("a.r01", "a.rar", true);
    row("a.rar", "a.zip", false);
    row("a.exe", "a.r00", true);
    row("a.exe", "a.txt", false);
    row("a.part1.rar", "a.part2.rar", true);
    row("a.part01.exe", "a.part02.rar", true);
    row("a.part1.rar", "b.part2.rar", false);
    row("a.part1.rar", "a.rar", false);
    row("a.arj", "a.a01", true);
    row("a.zip", "a.z01", true);
    row("a.zipx", "a.zx01", true);
    row("data1.cab", "data2.cab", true);
    row("data1.cab", "other2.cab", false);
    row("a.zip", "a.r00", false);
    row("a.rar", "../a.r00", false);
    row("a.rar", "sub/a.r00", false);
    row("a.rar", "", false);
    row("a.rar", "..", false);
    row("id_rsa", "id_rsa", false);
    row("noextension", "other", false);
}

void TestCage::names_volumes()
{
    QFETCH(QString, archive);
    QFETCH(QString, name);
    QTEST(cvIsVolumeName(archive, name), "isVolume");
}

void TestCage::says_that_the_reader_is_missing()
{
    const QByteArray before = qgetenv("CORVANE_TOOL_CORVANE_READER");
    qputenv("CORVANE_TOOL_CORVANE_READER", "/no/such/reader");
    Delegate delegate;
    const Result result = read(path(u"good.zip"_s), path(u"out"_s), &delegate);
    qputenv("CORVANE_TOOL_CORVANE_READER", before);
    QCOMPARE(result.code, XADErrorCode::Damaged);
    QVERIFY2(result.detail.contains(u"corvane-reader"_s), qPrintable(result.detail));
    verifyTheNextIsRead();
}

void TestCage::links_no_decoder_data()
{
    QTest::addColumn<QString>("program");
    QTest::addColumn<bool>("decodes");
    QTest::newRow("program") << u"/corvane"_s << false;
    QTest::newRow("reader") << u"/../share/corvane/tools/corvane-reader"_s
                            << true; // the test sees what is there
}

void TestCage::links_no_decoder()
{
    QFETCH(QString, program);
    QFETCH(bool, decodes);
    QFile file(QCoreApplication::applicationDirPath() + program);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray bytes = file.readAll();
    for (const char *part : {"libarchive.so", "archive_read_new", "CVLibarchiveReader", "CVSevenZipLibrary",
                             "CVZipExtractor", "CVXarReader", "cvDecodeStream"})
        QVERIFY2(bytes.contains(part) == decodes, part);
}

QTEST_GUILESS_MAIN(TestCage)
#include "tst_cage.moc"
