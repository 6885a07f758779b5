#include "archives/reading/CVArchiveSource.h"
#include "archives/reading/CVRarSum.h"
#include "archives/reading/CVRarVolumes.h"
#include "support/RarBytes.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;
using State = CVRarHeaders::State;

namespace {

using Writer = QByteArray (*)(const QList<RarBytes::Item> &, const RarBytes::Options &);

} // namespace

class tst_RarHeaders : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_folder;

    QString store(const QString &name, const QByteArray &bytes)
    {
        QFile file(m_folder.filePath(name));
        if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
            qFatal("cannot write");
        return file.fileName();
    }

    CVRarHeaders read(const QList<QByteArray> &volumes, qint64 offset = 0)
    {
        QStringList paths;
        for (const QByteArray &volume : volumes)
            paths << store(u"v%1"_s.arg(paths.size()), volume);
        return CVRarHeaders::read(*CVArchiveSource::open(paths), offset);
    }

    static void generations()
    {
        QTest::addColumn<int>("generation");
        QTest::newRow("RAR 4") << 4;
        QTest::newRow("RAR 5") << 5;
    }

    static Writer writer(int generation) { return generation == 4 ? &RarBytes::rar4 : &RarBytes::rar5; }

private Q_SLOTS:
    void tellsFiles_data() { generations(); }
    void tellsFiles()
    {
        QFETCH(int, generation);
        const QByteArray bytes =
            writer(generation)({{.name = "a.txt", .data = "first"},
                                {.name = "secret", .data = "xxxx", .encrypted = true},
                                {.name = "z", .data = QByteArray(300, 'z'), .crc = 0x12345678U}},
                               {.solid = true});
        const QByteArray program = "MZ" + QByteArray(5000, '\1');
        for (const qint64 offset : {qint64(0), qint64(program.size())}) {
            const CVRarHeaders headers = read({offset > 0 ? program + bytes : bytes}, offset);
            QCOMPARE(headers.state, State::Good);
            QCOMPARE(headers.generation, generation);
            QVERIFY(headers.isSolid && !headers.isVolume && !headers.wantsNextVolume);
            QCOMPARE(headers.files.size(), 3U);
            QCOMPARE(headers.files[0].name, "a.txt");
            QCOMPARE(headers.files[0].size, 5);
            QVERIFY(headers.files[0].isStored && !headers.files[0].isEncrypted);
            QVERIFY(headers.files[1].isEncrypted);
            QCOMPARE(headers.files[2].sums.crc32, 0x12345678U);
        }
    }

    void joinsSplitFiles_data() { generations(); }
    void joinsSplitFiles()
    {
        QFETCH(int, generation);
        const auto volume = [&](int number, bool more, const QList<RarBytes::Item> &items) {
            return writer(generation)(items, {.volume = true, .more = more, .number = number});
        };
        const QByteArray one = volume(0, true,
                                      {{.name = "whole", .data = "1"},
                                       {.name = "big", .data = "abc", .splitAfter = true, .wholeSize = 8}});
        const QByteArray two =
            volume(1, true,
                   {{.name = "big", .data = "de", .splitBefore = true, .splitAfter = true, .wholeSize = 8}});
        const QByteArray three = volume(
            2, false, {{.name = "big", .data = "fgh", .crc = 0xcafeU, .splitBefore = true, .wholeSize = 8}});

        const CVRarHeaders all = read({one, two, three});
        QCOMPARE(all.state, State::Good);
        QVERIFY(all.isVolume && all.isFirstVolume && !all.wantsNextVolume && all.usesPartNumbers);
        QCOMPARE(all.files.size(), 2U);
        QCOMPARE(all.files[1].packedSize, 8);
        QCOMPARE(all.files[1].sums.crc32, 0xcafeU);
        QVERIFY(all.files[1].isComplete);

        const CVRarHeaders some = read({one, two});
        QVERIFY(some.wantsNextVolume);
        QVERIFY(!some.files[1].isComplete);
        QVERIFY(!read({two, three}).isFirstVolume);
        // Early volumes do not say which is the first.
        QVERIFY(read({RarBytes::rar4({{.name = "a", .data = "x"}}, {.volume = true, .partNumbers = false})})
                    .isFirstVolume);
    }

    /// Every byte of the headers is covered by a check sum; nothing is taken from a header that fails it.
    void noticesDamage_data() { generations(); }
    void noticesDamage()
    {
        QFETCH(int, generation);
        const QByteArray good =
            writer(generation)({{.name = "name.txt", .data = ""}, {.name = "b", .data = ""}}, {});
        for (qsizetype i = 0; i < good.size(); ++i) {
            QByteArray flipped = good;
            flipped[i] = char(flipped[i] ^ 0x10);
            QVERIFY2(read({flipped}).state != State::Good, qPrintable(u"byte %1"_s.arg(i)));
        }
        for (qsizetype size = 7; size < good.size(); ++size)
            QVERIFY2(read({good.first(size)}).state != State::Good, qPrintable(u"cut to %1"_s.arg(size)));
    }

    /// A header whose kind was changed is passed over by readers that do not know it, and with it its file;
    /// also where the sum was put right.
    void noticesChangedKinds_data() { generations(); }
    void noticesChangedKinds()
    {
        QFETCH(int, generation);
        const QList<RarBytes::Item> items{{.name = "a", .data = "x"}, {.name = "b", .data = "y"}};
        for (int kind = 0; kind < 256; ++kind) {
            const bool isFile = kind == (generation == 4 ? 0x74 : 2);
            // Sub-blocks are no files; to say that one is damaged because it could be a file would be wrong.
            const bool isSubBlock = generation == 4 ? kind >= 0x75 && kind <= 0x7a : kind == 3;
            if (isSubBlock || kind >= 0x80)
                continue;
            const CVRarHeaders headers = read({writer(generation)(items, {.kindOfFirst = kind})});
            QCOMPARE(headers.state == State::Good, isFile);
        }
    }

    void decryptsHeaders_data()
    {
        QTest::addColumn<QString>("password");
        QTest::addColumn<State>("state");
        QTest::newRow("right") << u"secret"_s << State::Good;
        QTest::newRow("wrong") << u"Secret"_s << State::PasswordWrong;
    }
    void decryptsHeaders()
    {
        QFETCH(QString, password);
        QFETCH(State, state);
        // RAR 5; written by another program from the format's description: one file "a" of one byte.
        const QByteArray bytes = QByteArray::fromHex(
            "526172211a0701000c2f47b4210400000104000102030405060708090a0b0c0d0e0f7fb24d71142f"
            "bac2da8da5036465666768696a6b6c6d6e6f707172731f2473ac6977896fc9d92c5718ab02306465"
            "666768696a6b6c6d6e6f70717273703204bb8f0049dcf56ba8d2ee09b928f3b957b3bd8ef02df0cf"
            "efbe6f4fc10a786465666768696a6b6c6d6e6f707172738c62d9c332457d01923f2e5c6c69847c");
        CVRarKeys keys(password);
        const auto source = CVArchiveSource::open({store(u"secret"_s, bytes)});
        const CVRarHeaders headers = CVRarHeaders::read(*source, 0, &keys);
        QCOMPARE(headers.state, state);
        QCOMPARE(headers.files.size(), state == State::Good ? 1U : 0U);
    }

    void comparesSums_data()
    {
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<QByteArray>("blake2sp");
        QTest::newRow("nothing") << QByteArray()
                                 << QByteArray(
                                        "dd0e891776933f43c7d032b08a917e25741f8aa9a12c12e1cac8801500f2ca4f");
        QTest::newRow("a part of a block")
            << QByteArray("alpha")
            << QByteArray("e7b6a63eb62a407278eba65a7f4d88a0c1942289c318452b722e2a143b88b0cd");
        QTest::newRow("many blocks")
            << QByteArray(100'000, 'z')
            << QByteArray("e01754ac7eab2c6862a9d9ee8570df41bf18c2d9e9f3ef68b814d2453c4bbc4d");
    }
    void comparesSums()
    {
        QFETCH(QByteArray, data);
        QFETCH(QByteArray, blake2sp);
        CVRarFile file;
        file.sums.blake2sp = QByteArray::fromHex(blake2sp);
        const auto fits = [&file](QByteArray bytes, qsizetype piece) {
            CVRarSum sum(file);
            for (; !bytes.isEmpty(); bytes.remove(0, piece))
                sum.add(std::span(bytes.constData(), std::size_t(std::min(piece, bytes.size()))));
            return sum.canCompare() && sum.fits();
        };
        QVERIFY(fits(data, 64) && fits(data, 1000) && fits(data, 100'000));
        QVERIFY(!fits(data + 'z', 1000));
        // Keyed, it cannot be compared without the key.
        file.encryption = CVRarEncryption{.salt = QByteArray(16, 's'), .isSumKeyed = true};
        QVERIFY(!CVRarSum(file).canCompare());
    }

    void refuses_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<State>("state");
        QTest::newRow("encrypted headers, 4")
            << RarBytes::rar4({}, {.encryptedHeaders = true}) << State::HeadersEncrypted;
        QTest::newRow("encrypted headers, 5")
            << RarBytes::rar5({}, {.encryptedHeaders = true}) << State::HeadersEncrypted;
        QTest::newRow("the first RAR") << QByteArray("RE~^\x07\0\0\0\0\0", 10) << State::Unsupported;
        QTest::newRow("no RAR") << QByteArray("Rar? no, a text about it") << State::NotRar;
        QTest::newRow("data beyond the end")
            << RarBytes::rar5({{.name = "a", .data = QByteArray(100, 'x')}}, {}).first(80) << State::Damaged;
        // A header that claims to be larger than the format allows must not be allocated.
        QTest::newRow("huge header") << QByteArray("Rar!\x1a\x07\x01\0\0\0\0\0\xff\xff\xff\x7f", 16)
                                     << State::Damaged;
    }
    void refuses()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(State, state);
        QCOMPARE(read({bytes}).state, state);
    }

    void findsVolumes_data()
    {
        QTest::addColumn<QStringList>("present");
        QTest::addColumn<QString>("opened");
        QTest::addColumn<bool>("partNumbers");
        QTest::addColumn<QStringList>("set");
        QTest::newRow("parts") << QStringList{u"a.part1.rar"_s, u"a.part2.rar"_s, u"a.part4.rar"_s}
                               << u"a.part2.rar"_s << true << QStringList{u"a.part1.rar"_s, u"a.part2.rar"_s};
        QTest::newRow("padded parts, over the next digit")
            << QStringList{u"a.part09.rar"_s, u"a.part10.rar"_s} << u"a.part09.rar"_s << true
            << QStringList{u"a.part01.rar"_s};
        QTest::newRow("a program first")
            << QStringList{u"s.part1.exe"_s, u"s.part2.rar"_s} << u"s.part2.rar"_s << true
            << QStringList{u"s.part1.exe"_s, u"s.part2.rar"_s};
        QTest::newRow("old names") << QStringList{u"o.rar"_s, u"o.r00"_s, u"o.r01"_s} << u"o.r01"_s << false
                                   << QStringList{u"o.rar"_s, u"o.r00"_s, u"o.r01"_s};
        QTest::newRow("old names, capitals") << QStringList{u"O.RAR"_s, u"O.R00"_s} << u"O.R00"_s << false
                                             << QStringList{u"O.RAR"_s, u"O.R00"_s};
    }
    void findsVolumes()
    {
        QFETCH(QStringList, present);
        QFETCH(QString, opened);
        QFETCH(bool, partNumbers);
        QFETCH(QStringList, set);
        const QTemporaryDir folder;
        for (const QString &name : present) {
            QFile file(folder.filePath(name));
            QVERIFY(file.open(QIODevice::WriteOnly));
        }
        QStringList found = cvRarVolumes(cvFirstRarVolume(folder.filePath(opened), partNumbers), partNumbers);
        for (QString &path : found)
            path = QFileInfo(path).fileName();
        QCOMPARE(found, set);
    }
};

QTEST_GUILESS_MAIN(tst_RarHeaders)
#include "tst_rarheaders.moc"
