#include "util/LXBzip2Bits.h"
#include "util/LXBzip2Decoder.h"
#include "util/LXBzip2Encoder.h"

#include <QTest>

#include <bzlib.h>

#include <random>

using namespace LXBzip2;

namespace {

constexpr std::size_t pieceBytes = 1 << 20;

/// The stream as one thread makes it with libbz2: flushed after every piece.
std::string sequentialStream(const std::string &input)
{
    bz_stream stream{};
    if (BZ2_bzCompressInit(&stream, 9, 0, 30) != BZ_OK)
        return {};
    std::string result;
    std::string out(pieceBytes, '\0');
    std::string copy = input;
    const auto run = [&](int action, int last) {
        int status = BZ_OK;
        do {
            stream.next_out = out.data();
            stream.avail_out = static_cast<unsigned>(out.size());
            status = BZ2_bzCompress(&stream, action);
            result.append(out.data(), out.size() - stream.avail_out);
        } while (status > 0 && status != last);
    };
    for (std::size_t at = 0; at < copy.size(); at += pieceBytes) {
        stream.next_in = copy.data() + at;
        stream.avail_in = static_cast<unsigned>(std::min(pieceBytes, copy.size() - at));
        run(BZ_FLUSH, BZ_RUN_OK);
    }
    run(BZ_FINISH, BZ_STREAM_END);
    BZ2_bzCompressEnd(&stream);
    return result;
}

std::string parallelStream(const std::string &input, unsigned threads)
{
    std::size_t at = 0;
    LXBzip2Encoder encoder(
        [&](char *buffer, std::size_t size) {
            const std::size_t count = std::min(size, input.size() - at);
            input.copy(buffer, count, at);
            at += count;
            return count;
        },
        pieceBytes, threads);
    std::string result;
    for (std::string part = encoder.next(); !part.empty(); part = encoder.next())
        result += part;
    return encoder.next().empty() ? result : std::string();
}

struct Decoded
{
    std::string output;
    std::size_t consumed = 0;
    int error = BZ_OK;
    bool ended = false;
};

Decoded decode(const std::string &stream, std::size_t step, unsigned threads)
{
    Decoded result;
    LXBzip2Decoder decoder([&](const char *data, std::size_t size) { result.output.append(data, size); },
                           threads);
    try {
        for (std::size_t at = 0; at < stream.size() && !decoder.hasEnded(); at += step)
            result.consumed += decoder.feed(stream.data() + at, std::min(step, stream.size() - at));
        decoder.finish();
    } catch (const LXBzip2Error &e) {
        result.error = e.status();
    }
    result.ended = decoder.hasEnded();
    return result;
}

std::string randomBytes(std::size_t size, unsigned seed)
{
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    std::ranges::generate(bytes, [&] { return static_cast<char>(random()); });
    return bytes;
}

std::string text(std::size_t size)
{
    std::mt19937 random(7);
    std::string bytes;
    while (bytes.size() < size)
        bytes +=
            "line " + std::to_string(random() % 100'000) + (random() % 5 == 0 ? "\n\n\n\n\n\n" : " and\n");
    bytes.resize(size);
    return bytes;
}

/// Runs of four become five bytes, so that a piece takes two blocks, and the cut falls into a run.
std::string runsOfFour(std::size_t size)
{
    std::string bytes;
    for (char byte = 0; bytes.size() < size; ++byte)
        bytes.append(4, byte);
    bytes.resize(size);
    return bytes;
}

/// A block whose Huffman codes are all bits there are, so that any bits can stand in it: here the mark of a
/// block (or of the end), which is none.
std::string streamWithFalseMark(std::uint64_t mark)
{
    constexpr int symbols = 258;
    constexpr int symbolsAGroup = 50;
    Bits body;
    body.append(0, 1); // not randomised
    body.append(0, 24);
    for (int i = 0; i < 17; ++i)
        body.append(0xffff, 16); // every byte value is in use
    body.append(2, 3);           // tables
    body.append(1, 15);          // groups
    body.append(0, 1);           // the first table for it
    // 254 codes of 8 bits and 4 of 9: a complete code, in which every row of bits means something.
    for (int table = 0; table < 2; ++table) {
        body.append(8, 5);
        for (int symbol = 0; symbol < symbols; ++symbol) {
            if (symbol == 254)
                body.append(0b10, 2); // one up
            body.append(0, 1);
        }
    }
    // 0xfe and 0xff begin the longer codes; the marks contain neither at an offset of eight bits.
    int count = 0;
    const auto add = [&](std::uint64_t code, int bits) {
        body.append(code, bits);
        ++count;
    };
    for (int i = 0; i < 20; ++i)
        add(static_cast<std::uint64_t>(17 + 5 * i), 8);
    for (int shift = 40; shift >= 0; shift -= 8)
        add(mark >> shift & 0xff, 8);
    while (count < symbolsAGroup - 1)
        add(static_cast<std::uint64_t>(3 + count), 8);
    add(0x1ff, 9); // the end of the block

    // libbz2 itself tells what is in it: it hands out the data before it compares the checksum.
    const auto streamFor = [&](std::uint32_t checksum) {
        Bits stream;
        for (const char byte : {'B', 'Z', 'h', '9'})
            stream.append(static_cast<unsigned char>(byte), 8);
        stream.append(blockMark, markBits);
        stream.append(checksum, checksumBits);
        stream.append(body);
        stream.append(endMark, markBits);
        stream.append(checksum, checksumBits);
        return stream.bytes();
    };
    const auto checksumOf = [](const std::string &data) {
        std::uint32_t sum = 0xffffffff;
        for (const char byte : data) {
            sum ^= static_cast<std::uint32_t>(static_cast<unsigned char>(byte)) << 24;
            for (int bit = 0; bit < 8; ++bit)
                sum = sum & 0x80000000 ? sum << 1 ^ 0x04c11db7 : sum << 1;
        }
        return ~sum;
    };
    std::string out(1 << 20, '\0');
    std::string wrong = streamFor(0);
    bz_stream stream{};
    BZ2_bzDecompressInit(&stream, 0, 0);
    stream.next_in = wrong.data();
    stream.avail_in = static_cast<unsigned>(wrong.size());
    stream.next_out = out.data();
    stream.avail_out = static_cast<unsigned>(out.size());
    BZ2_bzDecompress(&stream);
    out.resize(out.size() - stream.avail_out);
    BZ2_bzDecompressEnd(&stream);
    return streamFor(checksumOf(out));
}

} // namespace

class TestBzip2 : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void bothWays_data();
    void bothWays();
    void runsWhereABlockEnds();
    void falseMarks_data();
    void falseMarks();
    void whatIsBehindTheEnd();
    void otherLevels();
    void cutOff();
    void damage();
    void notAStream();
};

void TestBzip2::bothWays_data()
{
    QTest::addColumn<std::string>("input");
    QTest::newRow("empty") << std::string();
    QTest::newRow("one byte") << std::string("x");
    QTest::newRow("a piece but one") << randomBytes(pieceBytes - 1, 1);
    QTest::newRow("a piece") << randomBytes(pieceBytes, 2);
    QTest::newRow("a piece and one") << randomBytes(pieceBytes + 1, 3);
    QTest::newRow("zeros") << std::string(5 << 20, '\0');
    QTest::newRow("text") << text(3 << 20);
    QTest::newRow("runs of four") << runsOfFour(3 << 20);
    QTest::newRow("random") << randomBytes((4 << 20) + 12345, 4);
    QTest::newRow("compressed already") << sequentialStream(text(8 << 20));
    QTest::newRow("run over the block's end")
        << randomBytes(899'970, 5) + std::string(100, 'a') + text(500'000);
}

void TestBzip2::bothWays()
{
    QFETCH(std::string, input);
    const std::string stream = sequentialStream(input);
    for (const unsigned threads : {1U, 2U, 5U}) {
        QVERIFY(parallelStream(input, threads) == stream);
        for (const std::size_t step : {std::size_t(1) << 20, std::size_t(4099)}) {
            const Decoded decoded = decode(stream, step, threads);
            QCOMPARE(decoded.error, BZ_OK);
            QVERIFY(decoded.ended);
            QCOMPARE(decoded.consumed, stream.size());
            QVERIFY(decoded.output == input);
        }
    }
}

// The number of blocks is worked out from the input, and a wrong one makes a stream that nobody can read.
// What it depends on is where the runs are when a block is full.
void TestBzip2::runsWhereABlockEnds()
{
    for (unsigned seed = 0; seed < 12; ++seed) {
        std::mt19937 random(seed);
        std::string input = randomBytes(899'000 + random() % 981, seed);
        while (input.size() < 902'000) {
            const std::size_t run = random() % 3 == 0 ? random() % 600 : random() % 7;
            input.append(run, static_cast<char>(random() % 3));
        }
        if (seed % 4 == 0) // and where the input ends
            input.resize(899'970 + random() % 30);
        QVERIFY2(parallelStream(input, 1) == sequentialStream(input), std::to_string(seed).c_str());
    }
}

void TestBzip2::falseMarks_data()
{
    QTest::addColumn<std::uint64_t>("mark");
    QTest::newRow("of a block") << blockMark;
    QTest::newRow("of the end") << endMark;
}

void TestBzip2::falseMarks()
{
    QFETCH(std::uint64_t, mark);
    const std::string stream = streamWithFalseMark(mark);
    int found = 0;
    for (std::size_t at = 0; at + markBits <= stream.size() * 8; ++at)
        found += bitsAt(stream.data(), at, markBits) == mark;
    QCOMPARE(found, 2); // the real one and the other

    std::string expected(1 << 20, '\0');
    auto size = static_cast<unsigned>(expected.size());
    std::string copy = stream;
    QCOMPARE(BZ2_bzBuffToBuffDecompress(expected.data(), &size, copy.data(),
                                        static_cast<unsigned>(copy.size()), 0, 0),
             BZ_OK);
    expected.resize(size);
    for (const std::size_t step : {std::size_t(1), stream.size()}) {
        const Decoded decoded = decode(stream, step, 2);
        QCOMPARE(decoded.error, BZ_OK);
        QVERIFY(decoded.ended);
        QVERIFY(decoded.output == expected);
    }
}

void TestBzip2::whatIsBehindTheEnd()
{
    const std::string stream = sequentialStream(text(100'000));
    const Decoded decoded = decode(stream + "more bytes than there should be", 1 << 20, 2);
    QVERIFY(decoded.ended);
    QCOMPARE(decoded.consumed, stream.size());

    LXBzip2Decoder decoder([](const char *, std::size_t) {}, 1);
    decoder.feed(stream.data(), stream.size());
    QVERIFY_THROWS_EXCEPTION(LXBzip2Error, decoder.feed("x", 1));
}

void TestBzip2::otherLevels()
{
    // Blocks without a flush in between, of another size, and one that unpacks to many megabytes.
    std::string input = text(1'500'000) + std::string(60 << 20, 'z') + text(200'000);
    std::string copy = input;
    std::string stream(4 << 20, '\0');
    auto size = static_cast<unsigned>(stream.size());
    QCOMPARE(BZ2_bzBuffToBuffCompress(stream.data(), &size, copy.data(), static_cast<unsigned>(copy.size()),
                                      3, 0, 0),
             BZ_OK);
    stream.resize(size);
    const Decoded decoded = decode(stream, 10'000, 2);
    QVERIFY(decoded.ended);
    QVERIFY(decoded.output == input);
}

void TestBzip2::cutOff()
{
    const std::string input = text(4 << 20);
    const std::string stream = sequentialStream(input);
    for (const std::size_t left : {stream.size() - 1, stream.size() / 2, std::size_t(5), std::size_t(0)}) {
        const Decoded decoded = decode(stream.substr(0, left), 1 << 20, 2);
        QCOMPARE(decoded.error, BZ_OK);
        QVERIFY(!decoded.ended);
        QVERIFY(input.starts_with(decoded.output));
    }
}

void TestBzip2::damage()
{
    const std::string input = text(3 << 19) + randomBytes(1 << 18, 9);
    const std::string stream = sequentialStream(input);
    std::mt19937 random(11);
    for (int round = 0; round < 30; ++round) {
        std::string damaged = stream;
        const std::size_t at = round == 0 ? stream.size() - 3 : random() % damaged.size();
        damaged[at] = static_cast<char>(damaged[at] ^ (1 << random() % 8));
        const Decoded decoded = decode(damaged, 1 << 20, 2);
        // The zero bits that fill the last byte are no part of it.
        QVERIFY2(!decoded.ended || decoded.output == input, qPrintable(QString::number(at)));
        QVERIFY(decoded.error != BZ_OK || !decoded.ended || at == stream.size() - 1);
    }
}

void TestBzip2::notAStream()
{
    QCOMPARE(decode("BZx91AY&SY", 100, 1).error, BZ_DATA_ERROR_MAGIC);
    QCOMPARE(decode("BZh01AY&SY", 100, 1).error, BZ_DATA_ERROR_MAGIC);
    QCOMPARE(decode("BZh9 but nothing of the kind", 100, 1).error, BZ_DATA_ERROR);
    // Endless bits without a mark do not fill the memory.
    const std::string start = sequentialStream("abc").substr(0, 20);
    QCOMPARE(decode(start + randomBytes(8 << 20, 3), 1 << 20, 2).error, BZ_DATA_ERROR);
}

QTEST_GUILESS_MAIN(TestBzip2)
#include "tst_bzip2.moc"
