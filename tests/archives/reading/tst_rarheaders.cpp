#include "archives/reading/CVArchiveSource.h"
#include "archives/reading/CVRarHeaders.h"
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
            QCOMPARE(headers.files[2].crc32, 0x12345678U);
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
        QCOMPARE(all.files[1].crc32, 0xcafeU);
        QVERIFY(all.files[1].isComplete);

        const CVRarHeaders some = read({one, two});
        QVERIFY(some.wantsNextVolume);
        QVERIFY(!some.files[1].isComplete);
        QVERIFY(!read({two, three}).isFirstVolume);
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
            const CVRarHeaders headers = read({flipped});
            // The reserved mark of the end header of RAR 4 is the one thing that nobody checks.
            const bool inEnd = generation == 4 && i >= good.size() - 7;
            QVERIFY2(headers.state != State::Good || inEnd, qPrintable(u"byte %1"_s.arg(i)));
        }
        for (qsizetype size = 7; size < good.size() - 7; ++size) {
            const CVRarHeaders headers = read({good.first(size)});
            QVERIFY2(headers.state != State::Good || headers.files.size() < 2,
                     qPrintable(u"cut to %1"_s.arg(size)));
        }
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
