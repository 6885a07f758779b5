#include "util/LXChildProcess.h"
#include "util/LXConfinement.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>

namespace {

/// What an attempt answers under each set of rules, where Landlock takes part; `alone` where it does not and
/// the answer is another.
struct Row
{
    const char *attempt;
    int reader;   ///< nothing but descriptors
    int writer;   ///< a folder, and changes of what it has open
    int unpacker; ///< a folder, and changes by path
    int starter;  ///< as the writer, and one program
    struct Alone
    {
        int writer, unpacker, starter;
    };
    std::optional<Alone> alone = {};
};

Row everywhere(const char *attempt, int answer)
{
    return {attempt, answer, answer, answer, answer};
}

/// Only Landlock knows one path from the other.
Row outside(const char *attempt)
{
    return {attempt, EACCES, EACCES, EACCES, EACCES, Row::Alone{0, 0, 0}};
}

const QList<Row> &rows()
{
    static const QList<Row> table = {
        everywhere("read a descriptor", 0),
        everywhere("write a descriptor", 0),
        everywhere("thread", 0),
        {"memory", 0, 0, 0, EPERM},
        everywhere("status of a descriptor", 0),
        everywhere("signal to itself", 0),
        everywhere("own limit", 0),

        {"read inside", EACCES, 0, 0, 0},
        {"write inside", EACCES, 0, 0, 0},
        outside("read outside"),
        outside("write outside"),
        outside("create outside"),
        outside("create by openat2"),
        outside("create beneath a folder's descriptor"),
        outside("write through /proc/self/fd"),
        outside("remove outside"),
        outside("link outside"),
        outside("folder outside"),
        everywhere("truncate outside", EPERM),
        everywhere("fifo inside", EPERM),
        {"path outside", EACCES, 0, 0, 0}, // what neither Landlock nor a filter can tell apart
        {"status outside", EACCES, 0, 0, 0},
        {"enter outside", EACCES, 0, 0, 0},

        {"chmod outside", EPERM, EPERM, 0, EPERM},
        {"chown outside", EPERM, EPERM, 0, EPERM},
        {"times outside", EPERM, EPERM, 0, EPERM},
        {"chmod of a descriptor", EPERM, 0, 0, 0},
        {"times of a descriptor", EPERM, 0, 0, 0},
        {"attribute of a descriptor", EPERM, ENODATA, ENODATA, ENODATA},
        everywhere("attribute outside", EPERM),
        everywhere("fchmodat2", ENOSYS),

        everywhere("session bus", EPERM),
        everywhere("tcp", EPERM),
        everywhere("udp", EPERM),
        everywhere("pair of sockets", EPERM),
        everywhere("signal to the parent", EPERM),
        everywhere("signal to the group", EPERM),
        everywhere("signal to a thread elsewhere", EPERM),
        everywhere("signal by a descriptor", EPERM),
        everywhere("limit of the parent", EPERM),
        everywhere("trace the parent", EPERM),
        everywhere("memory of the parent", EPERM),
        {"outlive the parent", EPERM, EPERM, EPERM, 0},
        everywhere("session of its own", EPERM),
        everywhere("type into the terminal", EPERM),

        {"start /usr/bin/true", EPERM, EPERM, EPERM, 0},
        {"start /usr/bin/id", EPERM, EPERM, EPERM, EACCES, Row::Alone{EPERM, EPERM, 0}},
        everywhere("start from memory", EPERM),
        everywhere("namespace", EPERM),

        everywhere("clone3", ENOSYS),
        everywhere("io_uring", ENOSYS),
        everywhere("bpf", EPERM),
        everywhere("keys", EPERM),
        everywhere("mount", EPERM),
        everywhere("shared memory", EPERM),
        everywhere("unknown call", ENOSYS),
#if defined(__x86_64__)
        everywhere("x32", ENOSYS),
        everywhere("32 bits", ENOSYS),
#endif
    };
    return table;
}

int expected(const Row &row, const QString &rules, int landlock)
{
    const bool alone = landlock == 0 && row.alone;
    if (rules == u"reader")
        return row.reader;
    if (rules == u"writer")
        return alone ? row.alone->writer : row.writer;
    if (rules == u"unpacker")
        return alone ? row.alone->unpacker : row.unpacker;
    return alone ? row.alone->starter : row.starter;
}

bool fill(const QString &folder)
{
    for (const char *name : {"existing", "victim"}) {
        QFile file(QDir(folder).filePath(QString::fromLatin1(name)));
        if (!file.open(QIODevice::WriteOnly) || file.write("data") != 4)
            return false;
    }
    return true;
}

QByteArray outputOf(LXChildProcess &child)
{
    QByteArray result;
    for (auto chunk = child.read(); chunk.kind == LXChildProcess::Chunk::Kind::Output; chunk = child.read())
        result += chunk.data;
    return result;
}

} // namespace

class TestConfinement : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void whatIsRefused_data();
    void whatIsRefused();
};

void TestConfinement::whatIsRefused_data()
{
    QTest::addColumn<QString>("rules");
    QTest::addColumn<int>("landlock");
    for (const char *rules : {"reader", "writer", "unpacker", "starter"})
        for (const int landlock : {7, 2, 0}) // ours, an older kernel's, the filter alone
            QTest::addRow("%s, Landlock %d", rules, landlock) << QString::fromLatin1(rules) << landlock;
}

void TestConfinement::whatIsRefused()
{
    QFETCH(QString, rules);
    QFETCH(int, landlock);
    const LXProtection available = LXConfinement::available();
    if (!available.systemCallFilter || available.landlock < landlock)
        QSKIP("the kernel does not offer this");
    QTemporaryDir allowed;
    QTemporaryDir other;
    QVERIFY(fill(allowed.path()) && fill(other.path()));
    LXChildOptions options;
    options.program = QCoreApplication::applicationDirPath() + QStringLiteral("/confinement_probe");
    options.arguments = {rules, QString::number(landlock), allowed.path(), other.path()};
    options.error = LXChildOptions::Stream::Merge;
    auto child = LXChildProcess::start(options);
    QVERIFY(child);
    const QByteArray output = outputOf(*child.value());
    const auto exit = child.value()->wait();
    QVERIFY2(exit && exit->succeeded(), output.constData());

    QMap<QByteArray, int> answers;
    for (const QByteArray &line : output.split('\n'))
        if (const QByteArrayList words = line.split('\t'); words.size() == 2)
            answers.insert(words[0], words[1].toInt());
    QCOMPARE(answers.take("landlock"), landlock);
    QCOMPARE(answers.take("filter"), 1);
    QByteArrayList wrong;
    for (const Row &row : rows()) {
        const int answer = answers.contains(row.attempt) ? answers.take(row.attempt) : -2;
        if (const int right = expected(row, rules, landlock); answer != right)
            wrong += QByteArray(row.attempt) + ": " + QByteArray::number(answer) + " instead of " +
                     QByteArray::number(right);
    }
    wrong += answers.keys(); // attempts that no row speaks of
    QVERIFY2(wrong.isEmpty(), wrong.join("; ").constData());
}

QTEST_GUILESS_MAIN(TestConfinement)
#include "tst_confinement.moc"
