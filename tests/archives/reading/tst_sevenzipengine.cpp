#include "archives/reading/CVSevenZipEngine.h"
#include "archives/reading/CVSevenZipFormats.h"
#include "archives/reading/CVSevenZipLibrary.h"
#include "archives/reading/RecordingSink.h"
#include "support/ArchiveBytes.h"
#include "support/RarBytes.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <brotli/encode.h>
#include <lz4frame.h>
#include <zstd.h>

#include <algorithm>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using Bytes = QByteArray;

Bytes noise(qsizetype size, quint32 seed)
{
    // 6 random bits a byte compress a little, so that every coder has work.
    QRandomGenerator random(seed);
    Bytes data;
    data.reserve(size + 4);
    while (data.size() < size) {
        const quint32 bits = random.generate() & 0x3F3F3F3F;
        data.append(reinterpret_cast<const char *>(&bits), sizeof bits);
    }
    data.truncate(size);
    return data;
}

bool writeFile(const QString &path, const Bytes &data)
{
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly) &&
           file.write(data) == data.size();
}

Bytes readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : Bytes();
}

Bytes little(quint64 value, int size)
{
    Bytes bytes;
    for (int i = 0; i < size; ++i)
        bytes += char(value >> (8 * i));
    return bytes;
}

quint32 crc32(const Bytes &bytes)
{
    quint32 crc = 0xFFFFFFFF;
    for (const char c : bytes) {
        crc ^= quint8(c);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ (crc & 1 ? 0xEDB88320U : 0);
    }
    return ~crc;
}

/// A 7z whose packed directory claims to become this large.
Bytes sevenZipWithDirectoryOf(quint64 claimed)
{
    const Bytes packed(100, '\0');
    const Bytes claim = Bytes("\xff", 1) + little(claimed, 8);
    const Bytes folder("\x01\x23\x03\x01\x01\x05\x5d\x00\x00\x10\x00", 11); // LZMA
    const Bytes directory = Bytes("\x17\x06\x00\x01\x09\x64\x00\x07\x0b\x01\x00", 11) + folder +
                            Bytes("\x0c", 1) + claim + Bytes("\x00\x00", 2);
    const Bytes where = little(quint64(packed.size()), 8) + little(quint64(directory.size()), 8) +
                        little(crc32(directory), 4);
    const Bytes start = Bytes("7z\xBC\xAF\x27\x1C\x00\x04", 8) + little(crc32(where), 4) + where;
    return start + packed + directory;
}

ArchiveBytes::Item fileItem(const Bytes &name, const Bytes &data)
{
    ArchiveBytes::Item item;
    item.name = name;
    item.data = data;
    return item;
}

/// Runs an archiver in `folder`; its output goes to the log when it fails.
bool runTool(const QString &folder, const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.setWorkingDirectory(folder);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit &&
        process.exitCode() == 0)
        return true;
    qWarning() << program << arguments << process.errorString() << process.readAll();
    return false;
}

/// One archive opened and unpacked, with all that came of it.
struct Reading
{
    explicit Reading(const QString &path, const std::optional<QString> &password = {})
    {
        host.given = password;
        const CVArchiveProbe probe = probeOf(path);
        const CVEngineDescriptor descriptor = cvSevenZipEngineDescriptor();
        bid = descriptor.bid(probe);
        opened = descriptor.open(probe, host);
        if (opened.engine)
            sink = std::make_unique<RecordingSink>(*opened.engine);
    }

    const std::vector<XADEntry> &entries() const { return opened.engine->entries(); }

    void extractAll()
    {
        std::vector<int> all(entries().size());
        for (std::size_t i = 0; i < all.size(); ++i)
            all[i] = int(i);
        outcome = opened.engine->extract(all, true, *sink);
    }

    int find(const Bytes &name) const
    {
        for (std::size_t i = 0; i < entries().size(); ++i) {
            if (entries()[i].name == name)
                return int(i);
        }
        return -1;
    }

    /// Everything came out and is right.
    bool isWhole() const
    {
        return outcome.code == XADErrorCode::None &&
               std::all_of(sink->records.begin(), sink->records.end(),
                           [](const auto &r) { return r.second.code == XADErrorCode::None; }) &&
               sink->records.size() == entries().size();
    }

    std::set<XADErrorCode> codesOfEncrypted() const
    {
        std::set<XADErrorCode> codes;
        for (const auto &[index, record] : sink->records) {
            if (entries()[std::size_t(index)].encrypted)
                codes.insert(record.code);
        }
        return codes;
    }

    QString allTexts() const
    {
        QString text = opened.detail + outcome.detail;
        for (const auto &[index, record] : sink ? sink->records : decltype(sink->records)())
            text += record.detail;
        return text;
    }

    RecordingHost host;
    int bid = 0;
    CVEngineDescriptor::OpenOutcome opened;
    std::unique_ptr<RecordingSink> sink;
    CVReadingEngine::Outcome outcome;
};

} // namespace

Q_DECLARE_METATYPE(ArchiveBytes::SevenZipMethod)

class SevenZipEngineTest : public QObject
{
    Q_OBJECT

private:
    /// The tree that most archives here hold, and what an engine should make of it.
    void makeTree(const QString &root)
    {
        QVERIFY(writeFile(root + QStringLiteral("/folder/text.txt"), "some text\n"));
        QVERIFY(writeFile(root + QStringLiteral("/folder/noise.bin"), noise(300000, 1)));
        QVERIFY(writeFile(root + QStringLiteral("/empty.txt"), {}));
        QVERIFY(writeFile(root + QStringLiteral("/日本語 é.txt"), "unicode"));
        QVERIFY(QDir(root).mkpath(QStringLiteral("empty folder")));
        QVERIFY(symlink("folder/text.txt", qPrintable(root + QStringLiteral("/link"))) == 0);
        QVERIFY(chmod(qPrintable(root + QStringLiteral("/folder/text.txt")), 0640) == 0);
    }

    /// Compares what came out with the folder it was made from.
    void compareWithTree(const Reading &reading, const QString &root)
    {
        for (std::size_t i = 0; i < reading.entries().size(); ++i) {
            const XADEntry &entry = reading.entries()[i];
            const Bytes path = QFile::encodeName(root) + '/' + entry.name;
            struct stat status = {};
            QVERIFY2(lstat(path.constData(), &status) == 0, entry.name.constData());
            const auto &record = reading.sink->records.at(int(i));
            if (S_ISLNK(status.st_mode)) {
                QCOMPARE(entry.type, XADEntry::Type::Symlink);
                QCOMPARE(entry.linkTarget.isEmpty() ? record.bytes : entry.linkTarget,
                         Bytes("folder/text.txt"));
            } else if (S_ISDIR(status.st_mode)) {
                QCOMPARE(entry.type, XADEntry::Type::Directory);
            } else {
                QCOMPARE(entry.type, XADEntry::Type::File);
                QCOMPARE(entry.size, qint64(status.st_size));
                QCOMPARE(record.hash, QCryptographicHash::hash(readFile(QFile::decodeName(path)),
                                                               QCryptographicHash::Sha256));
            }
            QVERIFY(entry.hasMode);
            QCOMPARE(entry.mode, std::uint32_t(status.st_mode & 07777));
            // Zip keeps even seconds, 7z hundreds of nanoseconds.
            const qint64 written = qint64(status.st_mtim.tv_sec) * 1000000000 + status.st_mtim.tv_nsec;
            QVERIFY(qAbs(entry.modified - written) <= 2000000000);
        }
    }

    QString archiveOf(const QString &name, const QStringList &options, const QString &tree)
    {
        const QString path = m_folder.filePath(name);
        QStringList arguments{QStringLiteral("a"), QStringLiteral("-bso0"), QStringLiteral("-snl")};
        return runTool(tree, QStringLiteral("7z"),
                       arguments + options + QStringList{path, QStringLiteral(".")})
                   ? path
                   : QString();
    }

    QTemporaryDir m_folder;
    QString m_tree;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_folder.isValid());
        if (qEnvironmentVariableIsSet("CORVANE_7Z_LIBRARY"))
            return; // the child of bidsNothingWithoutTheLibrary()
        QVERIFY2(CVSevenZipLibrary::instance(), "7z.so is not installed");
        m_tree = m_folder.filePath(QStringLiteral("tree"));
        makeTree(m_tree);
    }

    void readsWhatTheArchiverWrites_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<bool>("encrypted");
        const auto row = [](const char *name, const char *file, const QStringList &options,
                            bool encrypted = false) {
            QTest::newRow(name) << QString::fromLatin1(file) << options << encrypted;
        };
        row("7z solid", "solid.7z", {QStringLiteral("-ms=on")});
        row("7z not solid", "single.7z", {QStringLiteral("-ms=off")});
        row("7z ppmd", "ppmd.7z", {QStringLiteral("-m0=ppmd")});
        row("7z bzip2", "bzip2.7z", {QStringLiteral("-m0=bzip2")});
        row("7z copy", "copy.7z", {QStringLiteral("-mx=0")});
        row("7z encrypted data", "data.7z", {QStringLiteral("-pÄ secret")}, true);
        row("7z encrypted names", "names.7z", {QStringLiteral("-pÄ secret"), QStringLiteral("-mhe=on")},
            true);
        row("7z encrypted copy", "datacopy.7z", {QStringLiteral("-pÄ secret"), QStringLiteral("-mx=0")},
            true);
        row("zip deflate", "deflate.zip", {});
        row("zip deflate64", "deflate64.zip", {QStringLiteral("-mm=deflate64")});
        row("zip lzma", "lzma.zip", {QStringLiteral("-mm=lzma")});
        row("zip bzip2", "bzip2.zip", {QStringLiteral("-mm=bzip2")});
        row("zip ppmd", "ppmd.zip", {QStringLiteral("-mm=ppmd")});
        row("zip aes", "aes.zip", {QStringLiteral("-psecret"), QStringLiteral("-mem=AES256")}, true);
        row("zip zipcrypto", "crypto.zip", {QStringLiteral("-psecret")}, true);
        row("wim", "image.wim", {});
    }

    void readsWhatTheArchiverWrites()
    {
        QFETCH(QString, name);
        QFETCH(QStringList, options);
        QFETCH(bool, encrypted);
        const QString path = archiveOf(name, options, m_tree);
        QVERIFY(!path.isEmpty());

        // The archiver itself takes only ASCII for zip.
        const QString password =
            name.endsWith(QLatin1String(".zip")) ? QStringLiteral("secret") : QStringLiteral("Ä secret");
        Reading reading(path, encrypted ? std::optional(password) : std::nullopt);
        QVERIFY2(reading.opened.engine, qPrintable(reading.opened.detail));
        QCOMPARE(reading.opened.engine->isEncrypted(), encrypted);
        reading.extractAll();
        QVERIFY2(reading.isWhole(), qPrintable(reading.allTexts()));
        QCOMPARE(reading.entries().size(), std::size_t(7));
        QVERIFY(reading.sink->largestBlock <= 1024 * 1024);
        compareWithTree(reading, m_tree);
    }

    void tellsAWrongPasswordFromNone_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("namesEncrypted");
        QTest::addColumn<XADErrorCode>("wrong");
        QTest::addColumn<XADErrorCode>("damaged");
        const auto unknown = XADErrorCode::PasswordOrDamage;
        const auto wrong = XADErrorCode::Password;
        const auto damaged = XADErrorCode::Damaged;
        QTest::newRow("7z data") << QStringList{} << "p1.7z" << false << unknown << unknown;
        QTest::newRow("7z data, copied")
            << QStringList{QStringLiteral("-mx=0")} << "p2.7z" << false << unknown << unknown;
        QTest::newRow("7z names") << QStringList{QStringLiteral("-mhe=on")} << "p3.7z" << true << unknown
                                  << damaged;
        QTest::newRow("zip aes") << QStringList{QStringLiteral("-mem=AES256")} << "p4.zip" << false << wrong
                                 << damaged;
        QTest::newRow("zip zipcrypto") << QStringList{} << "p5.zip" << false << wrong << unknown;
    }

    void tellsAWrongPasswordFromNone()
    {
        QFETCH(QStringList, options);
        QFETCH(QString, name);
        QFETCH(bool, namesEncrypted);
        QFETCH(XADErrorCode, wrong);
        QString path = archiveOf(name, options + QStringList{QStringLiteral("-pright")}, m_tree);
        QVERIFY(!path.isEmpty());

        for (const std::optional<QString> &given :
             {std::optional<QString>(), std::optional(QStringLiteral("wr0ng-secret"))}) {
            Reading reading(path, given);
            if (namesEncrypted) {
                QCOMPARE(reading.opened.code, given ? wrong : XADErrorCode::PasswordMissing);
                QVERIFY(reading.host.asked);
            } else {
                QVERIFY(reading.opened.engine);
                QVERIFY(reading.opened.engine->isEncrypted());
                QVERIFY(!reading.host.asked); // listing needs none
                reading.extractAll();
                std::set<XADErrorCode> codes = reading.codesOfEncrypted();
                const XADErrorCode expected = given ? wrong : XADErrorCode::Password;
                QVERIFY(codes.contains(expected));
                // The one byte that zip compares fits many a wrong password.
                codes.erase(XADErrorCode::PasswordOrDamage);
                codes.erase(expected);
                QVERIFY(codes.empty());
            }
            QVERIFY(!reading.allTexts().contains(QStringLiteral("wr0ng-secret")));
        }

        // The right one, and the only entry that it is for is damaged.
        const QString folder = m_folder.filePath(QStringLiteral("single"));
        QVERIFY(writeFile(folder + QStringLiteral("/noise.bin"), noise(5000, 4)));
        QFile::remove(path);
        path = archiveOf(name, options + QStringList{QStringLiteral("-pright")}, folder);
        Bytes bytes = readFile(path);
        bytes[2000] ^= 1;
        QVERIFY(writeFile(path, bytes));
        Reading reading(path, QStringLiteral("right"));
        QVERIFY2(reading.opened.engine, qPrintable(reading.opened.detail));
        reading.extractAll();
        QTEST(*reading.codesOfEncrypted().begin(), "damaged");
    }

    void joinsVolumes_data()
    {
        QTest::addColumn<QString>("program");
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("first");
        QTest::addColumn<QString>("lost");
        const QStringList add{QStringLiteral("a"), QStringLiteral("-bso0"), QStringLiteral("-snl"),
                              QStringLiteral("-v100k")};
        QTest::newRow("7z") << "7z" << add + QStringList{QStringLiteral("../v1/x.7z"), QStringLiteral(".")}
                            << "v1/x.7z.001"
                            << "v1/x.7z.002";
        QTest::newRow("zip cut") << "7z"
                                 << add + QStringList{QStringLiteral("../v2/x.zip"), QStringLiteral(".")}
                                 << "v2/x.zip.001"
                                 << "v2/x.zip.003";
        QTest::newRow("zip split") << "zip"
                                   << QStringList{QStringLiteral("-qry"), QStringLiteral("-s"),
                                                  QStringLiteral("100k"), QStringLiteral("../v3/x.zip"),
                                                  QStringLiteral(".")}
                                   << "v3/x.zip"
                                   << "v3/x.z01";
    }

    void joinsVolumes()
    {
        QFETCH(QString, program);
        QFETCH(QStringList, arguments);
        QFETCH(QString, first);
        QFETCH(QString, lost);
        const QString path = m_folder.filePath(first);
        QVERIFY(QDir().mkpath(QFileInfo(path).path()));
        QVERIFY(runTool(m_tree, program, arguments));

        Reading whole(path);
        QVERIFY2(whole.opened.engine, qPrintable(whole.opened.detail));
        whole.extractAll();
        QVERIFY2(whole.isWhole(), qPrintable(whole.allTexts()));
        compareWithTree(whole, m_tree);
        QVERIFY(whole.opened.engine->volumePaths().contains(m_folder.filePath(lost)));

        // What another reader could make of such a set (one part alone, parts merely joined) is shorter.
        const QFileInfo place(path);
        QStringList parts = place.dir().entryList(QDir::Files, QDir::Name);
        QVERIFY(parts.size() >= 3);
        for (const qsizetype which : {qsizetype(0), parts.size() / 2, parts.size() - 1}) {
            const QString part = place.dir().filePath(parts[which]);
            const Bytes good = readFile(part);
            Bytes foreign = good;
            std::reverse(foreign.begin(), foreign.end());
            for (const Bytes &bad : {good.left(9), good.chopped(1), Bytes(), foreign, Bytes("missing")}) {
                QVERIFY(bad == "missing" ? QFile::remove(part) : writeFile(part, bad));
                Reading partial(path);
                if (partial.opened.engine) {
                    partial.extractAll();
                    QVERIFY2(!partial.isWhole(), qPrintable(part));
                } else if (partial.bid > 0 && first.contains(QLatin1String(".7z"))) {
                    QCOMPARE(partial.opened.code, XADErrorCode::Damaged);
                    QVERIFY2(partial.opened.damageIsCertain, qPrintable(part));
                }
            }
            QVERIFY(writeFile(part, good));
        }
    }

    void joinsEntriesDividedBetweenArjVolumes()
    {
        const QString folder = m_folder.filePath(QStringLiteral("arj"));
        QVERIFY(writeFile(folder + QStringLiteral("/A.BIN"), noise(250000, 11)));
        QVERIFY(writeFile(folder + QStringLiteral("/B.TXT"), "short"));
        QVERIFY(runTool(folder, QStringLiteral("arj"),
                        {QStringLiteral("a"), QStringLiteral("-y"), QStringLiteral("-m0"),
                         QStringLiteral("-v100k"), QStringLiteral("x.arj"), QStringLiteral("A.BIN"),
                         QStringLiteral("B.TXT")}));

        Reading whole(folder + QStringLiteral("/x.arj"));
        QVERIFY2(whole.opened.engine, qPrintable(whole.opened.detail));
        QCOMPARE(whole.entries().size(), std::size_t(2));
        QCOMPARE(whole.entries()[0].size, qint64(250000));
        whole.extractAll();
        QVERIFY2(whole.isWhole(), qPrintable(whole.allTexts()));
        QCOMPARE(whole.sink->records.at(0).hash,
                 QCryptographicHash::hash(noise(250000, 11), QCryptographicHash::Sha256));
        QCOMPARE(whole.sink->records.at(1).bytes, Bytes("short"));
        QCOMPARE(whole.opened.engine->volumePaths().size(), 2);

        // From the middle on, and with the end missing: no part passes for the whole.
        Reading middle(folder + QStringLiteral("/x.a01"));
        middle.extractAll();
        QCOMPARE(middle.sink->records.at(0).code, XADErrorCode::Damaged);
        QCOMPARE(middle.sink->records.at(1).code, XADErrorCode::None);
        QVERIFY(QFile::remove(folder + QStringLiteral("/x.a02")));
        Reading cut(folder + QStringLiteral("/x.arj"));
        cut.extractAll();
        QCOMPARE(cut.sink->records.at(0).code, XADErrorCode::Damaged);
        QVERIFY(!cut.isWhole());
    }

    void damageIsNeverSilent_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QStringList>("options");
        for (const char *format : {"7z", "zip"}) {
            for (const char *option : {"-mx=0", "-mx=5", "-psecret"})
                QTest::addRow("%s %s", format, option) << QStringLiteral("d.") + QLatin1String(format)
                                                       << QStringList{QString::fromLatin1(option)};
        }
    }

    void damageIsNeverSilent()
    {
        QFETCH(QString, name);
        QFETCH(QStringList, options);
        QFile::remove(m_folder.filePath(name));
        const QString path = archiveOf(name, options, m_tree);
        const Bytes good = readFile(path);
        QVERIFY(good.size() > 1000);

        std::map<Bytes, Bytes> hashes; // by name
        Reading original(path, QStringLiteral("secret"));
        original.extractAll();
        QVERIFY(original.isWhole());
        for (const auto &[index, record] : original.sink->records)
            hashes[original.entries()[std::size_t(index)].name] = record.hash;

        for (int damage = 0; damage < 12; ++damage) {
            Bytes bad = good;
            if (damage % 2)
                bad.truncate(good.size() * damage / 12);
            else
                bad[40 + (good.size() - 50) * damage / 12] =
                    char(~bad[40 + (good.size() - 50) * damage / 12]);
            QVERIFY(writeFile(path, bad));
            Reading reading(path, QStringLiteral("secret"));
            if (!reading.opened.engine)
                continue;
            reading.extractAll();
            // A byte that nothing depends on (the second copy of a name in zip) may be lost; nothing else.
            std::size_t whole = 0;
            for (const auto &[index, record] : reading.sink->records) {
                if (record.code != XADErrorCode::None)
                    continue;
                const auto same = hashes.find(reading.entries()[std::size_t(index)].name);
                if (same != hashes.end()) {
                    ++whole;
                    QCOMPARE(record.hash, same->second);
                }
            }
            QVERIFY2(whole == hashes.size() || !reading.isWhole(),
                     qPrintable(QStringLiteral("damage %1").arg(damage)));
        }
    }

    void comparesTheTwoAccountsOfALockedZip_data()
    {
        QTest::addColumn<int>("place"); // in the directory's record of an entry
        QTest::addColumn<int>("bit");
        QTest::newRow("name") << 50 << 0x01;
        QTest::newRow("size") << 24 << 0x01;
        QTest::newRow("file called a folder") << 38 << 0x10;
    }

    void comparesTheTwoAccountsOfALockedZip()
    {
        QFETCH(int, place);
        QFETCH(int, bit);
        const QString path = m_folder.filePath(QStringLiteral("accounts.zip"));
        QFile::remove(path);
        // A mode outweighs the bit for folders, and the archiver writes one on its own system.
        QVERIFY(!archiveOf(QStringLiteral("accounts.zip"), {QStringLiteral("-psecret")}, m_tree).isEmpty());
        Bytes bytes = readFile(path);
        const qsizetype record = bytes.lastIndexOf("PK\x01\x02", bytes.lastIndexOf("folder/text.txt"));
        QVERIFY(record > 0);
        bytes[record + place] ^= char(bit);
        if (bit == 0x10) {
            bytes[record + 5] = 0;
            bytes.replace(record + 40, 2, Bytes(2, '\0'));
        }
        QVERIFY(writeFile(path, bytes));
        Reading reading(path, QStringLiteral("secret"));
        QVERIFY2(reading.opened.engine, qPrintable(reading.opened.detail));
        reading.extractAll();
        QVERIFY(!reading.isWhole());
    }

    void leavesNoContradictoryZipToOthers()
    {
        const QString path = m_folder.filePath(QStringLiteral("contradictory.zip"));
        QProcess process;
        process.start(QStringLiteral("zip"), {QStringLiteral("-q"), path, QStringLiteral("-")});
        process.write(noise(1000, 2));
        process.closeWriteChannel();
        QVERIFY(process.waitForFinished(60000) && process.exitCode() == 0);
        Bytes bytes = readFile(path);
        bytes[bytes.lastIndexOf("PK\x01\x02") + 63] ^= 0x42; // the packed size in the wide fields
        QVERIFY(writeFile(path, bytes));
        Reading reading(path);
        QCOMPARE(reading.opened.code, XADErrorCode::Damaged);
        QVERIFY(reading.opened.damageIsCertain);
    }

    void decodesMethodsOfOtherPackers_data()
    {
        using ArchiveBytes::SevenZipMethod;
        QTest::addColumn<SevenZipMethod>("method");
        const auto zstd = [](const Bytes &data) {
            Bytes out(qsizetype(ZSTD_compressBound(std::size_t(data.size()))), '\0');
            out.truncate(qsizetype(ZSTD_compress(out.data(), std::size_t(out.size()), data.constData(),
                                                 std::size_t(data.size()), 3)));
            return out;
        };
        const Bytes zstdCoder("\x24\x04\xf7\x11\x01\x05\x01\x05\x03\x00\x00", 11);
        QTest::newRow("zstd") << SevenZipMethod{"\1" + zstdCoder, 1, zstd};
        QTest::newRow("zstd behind a filter") << SevenZipMethod{
            Bytes("\2\x21\3\1\0", 5) + zstdCoder + Bytes("\0\1", 2), 2, [zstd](const Bytes &data) {
                Bytes differences = data;
                for (qsizetype i = data.size() - 1; i > 0; --i)
                    differences[i] = char(data[i] - data[i - 1]);
                return zstd(differences);
            }};
        const auto brotli = [](const Bytes &data) {
            std::size_t size = BrotliEncoderMaxCompressedSize(std::size_t(data.size()));
            Bytes out(qsizetype(size), '\0');
            BrotliEncoderCompress(5, 22, BROTLI_MODE_GENERIC, std::size_t(data.size()),
                                  reinterpret_cast<const uint8_t *>(data.constData()), &size,
                                  reinterpret_cast<uint8_t *>(out.data()));
            return out.first(qsizetype(size));
        };
        const Bytes brotliCoder("\1\x24\x04\xf7\x11\x02\x03\x01\x00\x05", 10);
        QTest::newRow("brotli") << SevenZipMethod{brotliCoder, 1, brotli};
        QTest::newRow("brotli by two threads") << SevenZipMethod{
            brotliCoder, 1, [brotli](const Bytes &data) {
                Bytes out;
                for (const Bytes &half : {data.first(data.size() / 2), data.mid(data.size() / 2)}) {
                    const Bytes packed = brotli(half);
                    out += Bytes("\x50\x2a\x4d\x18\x08\0\0\0", 8) + little(quint64(packed.size()), 4) +
                           Bytes("BR\1\0", 4) + packed;
                }
                return out;
            }};
        QTest::newRow("lz4") << SevenZipMethod{
            Bytes("\1\x24\x04\xf7\x11\x04\x05\x01\x09\x03\x00\x00", 12), 1, [](const Bytes &data) {
                Bytes out(qsizetype(LZ4F_compressFrameBound(std::size_t(data.size()), nullptr)), '\0');
                out.truncate(
                    qsizetype(LZ4F_compressFrame(out.data(), std::size_t(out.size()), data.constData(),
                                                 std::size_t(data.size()), nullptr)));
                return out;
            }};
    }

    void decodesMethodsOfOtherPackers()
    {
        QFETCH(ArchiveBytes::SevenZipMethod, method);
        const Bytes data = noise(700000, 5) + Bytes(300000, 'r');
        const Bytes archive = ArchiveBytes::sevenZip({fileItem("a", data)}, method);
        const QString path = m_folder.filePath(QStringLiteral("method.7z"));
        QVERIFY(writeFile(path, archive));
        Reading reading(path);
        QVERIFY2(reading.opened.engine, qPrintable(reading.opened.detail));
        reading.extractAll();
        QVERIFY2(reading.isWhole(), qPrintable(reading.allTexts()));
        QCOMPARE(reading.sink->records.at(0).hash,
                 QCryptographicHash::hash(data, QCryptographicHash::Sha256));

        Bytes damaged = archive;
        damaged[5000] ^= 0x10;
        QVERIFY(writeFile(path, damaged));
        Reading bad(path);
        bad.extractAll();
        QCOMPARE(bad.sink->records.at(0).code, XADErrorCode::Damaged);
    }

    void entriesWithoutNamesGetThatOfTheArchive()
    {
        const QString path = m_folder.filePath(QStringLiteral("nameless.7z"));
        QVERIFY(writeFile(
            path, ArchiveBytes::sevenZip({fileItem({}, "one"), fileItem({}, "two"), fileItem({}, "three")})));
        Reading reading(path);
        QVERIFY2(reading.opened.engine, qPrintable(reading.opened.detail));
        reading.extractAll();
        QVERIFY2(reading.isWhole(), qPrintable(reading.allTexts()));
        QCOMPARE(reading.find("nameless"), 0);
        QCOMPARE(reading.find("nameless 2"), 1);
        QCOMPARE(reading.find("nameless 3"), 2);
        QCOMPARE(reading.sink->records.at(2).bytes, Bytes("three"));
    }

    void damageToTheDirectoryIsFinal_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<int>("place"); // below zero: from the end
        const QStringList packed{QStringLiteral("-mhc=on")};
        const QStringList plain{QStringLiteral("-mhc=off")};
        QTest::newRow("checksum of the start") << packed << 8;
        QTest::newRow("place of the directory") << packed << 12;
        QTest::newRow("size of the directory") << plain << 20;
        QTest::newRow("checksum of the directory") << plain << 28;
        QTest::newRow("a name") << plain << -60;
        QTest::newRow("description of the packed directory") << packed << -4;
        QTest::newRow("packed directory") << packed << -60;
    }

    void damageToTheDirectoryIsFinal()
    {
        QFETCH(QStringList, options);
        QFETCH(int, place);
        const QString path = m_folder.filePath(QStringLiteral("directory.7z"));
        QFile::remove(path);
        QVERIFY(!archiveOf(QStringLiteral("directory.7z"), options, m_tree).isEmpty());
        Bytes bytes = readFile(path);
        bytes[place < 0 ? bytes.size() + place : place] ^= 1;
        QVERIFY(writeFile(path, bytes));
        Reading reading(path);
        QCOMPARE(reading.opened.code, XADErrorCode::Damaged);
        QVERIFY(reading.opened.damageIsCertain);
    }

    void givesOnlyChosenEntries()
    {
        const QString path = archiveOf(QStringLiteral("chosen.7z"), {QStringLiteral("-ms=on")}, m_tree);
        Reading reading(path);
        const int text = reading.find("folder/text.txt");
        const int folder = reading.find("empty folder");
        QVERIFY(text >= 0 && folder >= 0);
        std::vector<int> chosen{std::min(text, folder), std::max(text, folder)};
        QCOMPARE(reading.opened.engine->extract(chosen, false, *reading.sink).code, XADErrorCode::None);
        QCOMPARE(reading.sink->begun, std::set<int>(chosen.begin(), chosen.end()));
        QCOMPARE(reading.sink->records.at(text).bytes, Bytes("some text\n"));
    }

    void severalWorkersGiveEveryEntryOnce_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QStringList>("options");
        QTest::newRow("zip") << "many.zip" << QStringList{QStringLiteral("-mx=1")};
        QTest::newRow("7z in blocks")
            << "many.7z" << QStringList{QStringLiteral("-mx=1"), QStringLiteral("-ms=1m")};
        QTest::newRow("7z in blocks, encrypted")
            << "locked.7z"
            << QStringList{QStringLiteral("-mx=1"), QStringLiteral("-ms=1m"), QStringLiteral("-psecret"),
                           QStringLiteral("-mhe=on")};
    }

    void severalWorkersGiveEveryEntryOnce()
    {
        QFETCH(QString, name);
        QFETCH(QStringList, options);
        const QString root = m_folder.filePath(QStringLiteral("many"));
        for (quint32 i = 0; i < 40; ++i)
            QVERIFY(writeFile(root + QStringLiteral("/%1/%2.bin").arg(i % 4).arg(i), noise(600000, i)));
        const QString path = archiveOf(name, options, root);
        Reading reading(path, QStringLiteral("secret"));
        QVERIFY(reading.opened.engine);
        reading.extractAll();
        QVERIFY2(reading.isWhole(), qPrintable(reading.allTexts()));
        compareWithTree(reading, root);

        // Cancel: nothing after the block that was refused, from either worker.
        Reading stopped(path, QStringLiteral("secret"));
        stopped.sink->stopAfterBytes = 3 * 1024 * 1024;
        stopped.extractAll();
        QCOMPARE(stopped.outcome.code, XADErrorCode::Stopped);
        QVERIFY(stopped.sink->written <=
                stopped.sink->stopAfterBytes + qint64(std::thread::hardware_concurrency() + 1) * 1024 * 1024);
    }

    void stopsWhileOpening()
    {
        const QString path = archiveOf(QStringLiteral("stop.7z"), {}, m_tree);
        RecordingHost host;
        host.stop = true;
        QCOMPARE(cvSevenZipEngineDescriptor().open(probeOf(path), host).code, XADErrorCode::Stopped);
    }

    void findsAnArchiveBehindAProgram_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("7z") << "sfx.7z";
        QTest::newRow("zip") << "sfx.zip";
    }

    void findsAnArchiveBehindAProgram()
    {
        QFETCH(QString, name);
        const QString archive = archiveOf(name, {}, m_tree);
        const QString path = m_folder.filePath(name + QStringLiteral(".exe"));
        QVERIFY(writeFile(path,
                          Bytes("MZ") + noise(200000, 7) + "7z\xBC\xAF\x27\x1C not one" + readFile(archive)));
        Reading reading(path);
        QVERIFY2(reading.opened.engine, qPrintable(reading.opened.detail));
        reading.extractAll();
        QVERIFY2(reading.isWhole(), qPrintable(reading.allTexts()));
        compareWithTree(reading, m_tree);
    }

    void leavesAloneWhatIsNotItsOwn_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("text") << Bytes("PK is a company, 7z a format, and MSCF a mark.\n");
        QTest::newRow("program") << Bytes("MZ") + noise(70000, 3);
        QTest::newRow("one byte") << Bytes("7");
    }

    void leavesAloneWhatIsNotItsOwn()
    {
        QFETCH(QByteArray, bytes);
        const QString path = m_folder.filePath(QStringLiteral("other.bin"));
        QVERIFY(writeFile(path, bytes));
        QCOMPARE(cvSevenZipEngineDescriptor().bid(probeOf(path)), 0);
    }

    void readsRarWhereItsMethodsAreInstalled_data()
    {
        using namespace RarBytes;
        QTest::addColumn<QByteArrayList>("volumes");
        QTest::addColumn<XADErrorCode>("code");
        const Bytes data = noise(5000, 9);
        const Item plain{.name = "a", .data = data};
        const Item first{.name = "a", .data = data.first(3000), .splitAfter = true, .wholeSize = 5000};
        const Item second{
            .name = "a", .data = data.mid(3000), .crc = crc32(data), .splitBefore = true, .wholeSize = 5000};
        const auto row = [](const char *name, const QByteArrayList &volumes, XADErrorCode code) {
            QTest::newRow(name) << volumes << code;
        };
        row("rar 4", {rar4({plain})}, XADErrorCode::None);
        row("rar 5", {rar5({plain})}, XADErrorCode::None);
        row("rar 4, checksum", {rar4({{.name = "a", .data = data, .crc = 1}})}, XADErrorCode::Damaged);
        row("rar 5, checksum", {rar5({{.name = "a", .data = data, .crc = 1}})}, XADErrorCode::Damaged);
        row("rar 5, another hash", {rar5({{.name = "a", .data = data, .blake2sp = Bytes(32, 'x')}})},
            XADErrorCode::Damaged);
        row("rar 5, volumes",
            {rar5({first}, {.volume = true, .more = true}), rar5({second}, {.volume = true, .number = 1})},
            XADErrorCode::None);
        row("rar 5, volume missing", {rar5({first}, {.volume = true, .more = true})}, XADErrorCode::Damaged);
    }

    void readsRarWhereItsMethodsAreInstalled()
    {
        QFETCH(QByteArrayList, volumes);
        const QString name = m_folder.filePath(QStringLiteral("x.part%1.rar"));
        QFile::remove(name.arg(2));
        for (qsizetype i = 0; i < volumes.size(); ++i)
            QVERIFY(writeFile(name.arg(i + 1), volumes[i]));
        constexpr std::uint64_t rar5Method = 0x40305;
        const bool isInstalled = CVSevenZipLibrary::instance()->codecs()->has(rar5Method);
        Reading reading(name.arg(1));
        QCOMPARE(reading.bid, isInstalled ? 55 : 0);
        if (!isInstalled)
            return; // nothing else is to be seen of it then
        QVERIFY2(reading.opened.engine, qPrintable(reading.opened.detail));
        reading.extractAll();
        QTEST(reading.sink->records.at(0).code, "code");
        if (reading.sink->records.at(0).code == XADErrorCode::None)
            QCOMPARE(reading.sink->records.at(0).hash,
                     QCryptographicHash::hash(noise(5000, 9), QCryptographicHash::Sha256));
    }

    void namesTheContentsOfACompressedFile_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("contents");
        QTest::addColumn<bool>("isTar");
        QTest::newRow("gz") << "report.txt.gz"
                            << "report.txt" << false;
        QTest::newRow("xz") << "report.txt.xz"
                            << "report.txt" << false;
        QTest::newRow("tgz") << "bundle.tgz"
                             << "bundle.tar" << true;
        QTest::newRow("tar.bz2") << "bundle.tar.bz2"
                                 << "bundle.tar" << true;
    }

    void namesTheContentsOfACompressedFile()
    {
        QFETCH(QString, name);
        QFETCH(QString, contents);
        QFETCH(bool, isTar);
        const QString path = m_folder.filePath(name);
        const QString plain = m_folder.filePath(QStringLiteral("stored name"));
        if (isTar)
            QVERIFY(
                runTool(m_tree, QStringLiteral("tar"), {QStringLiteral("-caf"), path, QStringLiteral(".")}));
        else {
            QVERIFY(writeFile(plain, "a report"));
            QVERIFY(runTool(m_folder.path(), QStringLiteral("7z"),
                            {QStringLiteral("a"), QStringLiteral("-bso0"), path, plain}));
        }
        Reading reading(path);
        QVERIFY2(reading.opened.engine, qPrintable(reading.opened.detail));
        QCOMPARE(QString::fromUtf8(reading.entries().at(0).name), contents);
        QCOMPARE(reading.opened.engine->entryIsArchive(0), isTar);
        reading.extractAll();
        QVERIFY2(reading.isWhole(), qPrintable(reading.allTexts()));
        if (!isTar)
            QCOMPARE(reading.sink->records.at(0).bytes, Bytes("a report"));
    }

    void foreignNamesComeAsTheirBytes()
    {
        const QString root = m_folder.filePath(QStringLiteral("foreign"));
        QVERIFY(QDir().mkpath(root));
        // The first bytes of a Shift-JIS name, one of them valid UTF-8 by chance.
        const Bytes name("\x95\x82\xbe\x88\xea\x97\x97.txt");
        QVERIFY(writeFile(root + QStringLiteral("/plain"), "x"));
        const Bytes target = QFile::encodeName(root) + '/' + name;
        QVERIFY(rename(qPrintable(root + QStringLiteral("/plain")), target.constData()) == 0);
        const QString path = m_folder.filePath(QStringLiteral("foreign.zip"));
        QVERIFY(runTool(root, QStringLiteral("zip"), {QStringLiteral("-qr"), path, QStringLiteral(".")}));
        QVERIFY(unlink(target.constData()) == 0); // a name that the temporary folder cannot remove
        Reading reading(path);
        QVERIFY(reading.opened.engine);
        const int index = reading.find(name);
        QVERIFY(index >= 0);
        QCOMPARE(reading.entries()[std::size_t(index)].nameEncoding, CVNameEncoding::Unmarked);
    }

    void prefersTheTreeWithTheFiles_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<int>("bid");
        QTest::addColumn<QString>("format");
        QTest::newRow("iso") << QStringList{QStringLiteral("-R")} << 40 << "ISO 9660";
        QTest::newRow("both, long names in either")
            << QStringList{QStringLiteral("-udf"), QStringLiteral("-J")} << 40 << "ISO 9660";
        QTest::newRow("both, files in UDF only") << QStringList{QStringLiteral("-udf")} << 70 << "UDF";
    }

    void prefersTheTreeWithTheFiles()
    {
        QFETCH(QStringList, options);
        QFETCH(int, bid);
        QFETCH(QString, format);
        const QString root = m_folder.filePath(QStringLiteral("disc"));
        QVERIFY(writeFile(root + QStringLiteral("/A longer name.text"), "on a disc"));
        const QString path = m_folder.filePath(QStringLiteral("disc.iso"));
        QVERIFY(runTool(root, QStringLiteral("genisoimage"),
                        QStringList{QStringLiteral("-quiet")} + options +
                            QStringList{QStringLiteral("-o"), path, QStringLiteral(".")}));
        Reading reading(path);
        QCOMPARE(reading.bid, bid);
        QVERIFY2(reading.opened.engine, qPrintable(reading.opened.detail));
        QCOMPARE(reading.opened.engine->formatName(), format);
        const int index = reading.find("A longer name.text");
        QVERIFY(index >= 0);
        reading.extractAll();
        QCOMPARE(reading.sink->records.at(index).bytes, Bytes("on a disc"));
    }

    void packedFromAPipeIsAFile()
    {
        const QString path = m_folder.filePath(QStringLiteral("pipe.7z"));
        QProcess process;
        process.start(QStringLiteral("7z"),
                      {QStringLiteral("a"), QStringLiteral("-bso0"), QStringLiteral("-sidata"), path});
        process.write("through a pipe");
        process.closeWriteChannel();
        QVERIFY(process.waitForFinished(60000) && process.exitCode() == 0);
        Reading reading(path);
        reading.extractAll();
        QCOMPARE(reading.entries().at(0).type, XADEntry::Type::File);
        QCOMPARE(reading.sink->records.at(0).bytes, Bytes("through a pipe"));
    }

    void refusesADirectoryThatFillsTheMemory()
    {
        const QString path = m_folder.filePath(QStringLiteral("directory.7z"));
        for (const quint64 claimed : {quint64(1) << 20, quint64(1) << 31, quint64(1) << 62}) {
            QVERIFY(writeFile(path, sevenZipWithDirectoryOf(claimed)));
            Reading reading(path);
            QCOMPARE(reading.bid, 90);
            // The small one is unpacked, and found to be damaged then.
            QCOMPARE(reading.opened.code,
                     claimed > 1 << 28 ? XADErrorCode::NotSupported : XADErrorCode::Damaged);
        }
    }

    void knowsWhatADecoderNeeds_data()
    {
        QTest::addColumn<QString>("methods");
        QTest::addColumn<qint64>("mebibytes");
        QTest::newRow("power of two") << "LZMA2:26" << qint64(64);
        QTest::newRow("with unit, behind a filter") << "BCJ LZMA:48m" << qint64(48);
        QTest::newRow("parameters") << "LZMA:24:lc0:pb2" << qint64(16);
        QTest::newRow("ppmd") << "PPMD:o32:mem1536m" << qint64(1536);
        QTest::newRow("the larger of two") << "LZMA2:30 LZMA:20 7zAES:19" << qint64(1024);
        QTest::newRow("no window") << "Copy BZip2 7zAES:19" << qint64(0);
    }

    void knowsWhatADecoderNeeds()
    {
        QFETCH(QString, methods);
        QFETCH(qint64, mebibytes);
        QCOMPARE(cvSevenZipDecoderMemory(methods), mebibytes * 1024 * 1024);
    }

    void bidsNothingWithoutTheLibrary()
    {
        const QString path = m_folder.filePath(QStringLiteral("any.7z"));
        if (qEnvironmentVariableIsSet("CORVANE_7Z_LIBRARY")) {
            // In the child below: the module that was asked for does not exist, and no other stands in.
            QVERIFY(writeFile(path, Bytes("7z\xBC\xAF\x27\x1C") + Bytes(100, '\0')));
            Reading reading(path);
            QCOMPARE(reading.bid, 0);
            QCOMPARE(reading.opened.code, XADErrorCode::NotSupported);
            return;
        }
        QProcess child;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("CORVANE_7Z_LIBRARY"),
                           m_folder.filePath(QStringLiteral("none.so")));
        child.setProcessEnvironment(environment);
        child.start(QCoreApplication::applicationFilePath(),
                    {QStringLiteral("bidsNothingWithoutTheLibrary")});
        QVERIFY(child.waitForFinished(30000));
        QVERIFY2(child.exitCode() == 0, child.readAllStandardOutput().constData());

        // A library that is no 7-Zip module is refused with a reason, not called.
        QString why;
        QVERIFY(!CVSevenZipLibrary::load({QStringLiteral("/proc/self/exe")}, &why));
        QVERIFY(why.contains(QStringLiteral("/proc/self/exe")));
    }
};

QTEST_GUILESS_MAIN(SevenZipEngineTest)
#include "tst_sevenzipengine.moc"
