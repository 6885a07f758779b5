#include "CorpusRun.h"
#include "support/TestTree.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

#include <atomic>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr long hostilePeakKiB = 512 * 1024;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool measuresMemory = false; // the sanitizers keep much more than the program does
#else
constexpr bool measuresMemory = true;
#endif

QString setting(const char *variable, const char *otherwise)
{
    const QString value = qEnvironmentVariable(variable);
    return value.isEmpty() ? QString::fromUtf8(otherwise) : value;
}

struct Sample
{
    QString file;
    QString expect;
    std::optional<QString> password;
    QJsonArray entries;
    bool hasEntries = false;
    bool readable = false;    ///< a recorded reader gets the contents and the names right
    bool namesDiffer = false; ///< the recorded readers give the contents, but other names
};

Sample sampleFromManifest(const QJsonObject &object)
{
    Sample sample;
    sample.file = object["file"].toString();
    sample.expect = object["expect"].toString();
    if (object["password"].isString())
        sample.password = object["password"].toString();
    sample.hasEntries = object["entries"].isArray();
    sample.entries = object["entries"].toArray();
    const QJsonObject readers = object["readers"].toObject();
    for (auto it = readers.begin(); it != readers.end(); ++it) {
        const QString verdict = it->toObject()["extract"].toString();
        sample.readable |= verdict == "ok" || verdict == "ok, but error code";
        sample.namesDiffer |= verdict.startsWith("names differ");
    }
    return sample;
}

/// A folder of its own for one run: the destination in the middle of things that must stay as they are.
class Surroundings
{
public:
    Surroundings()
    {
        QDir(m_root.path()).mkpath("outer/out");
        QDir(m_root.path()).mkpath("outer/out-sibling");
        QDir(m_root.path()).mkpath("outer/etc");
        QDir(m_root.path()).mkpath("outside");
        QDir(m_root.path()).mkpath("home");
        for (const char *path : {"canary.txt", "outer/canary.txt", "outer/out-sibling/canary.txt",
                                 "outer/etc/passwd", "outside/canary.txt"}) {
            QFile file(m_root.filePath(path));
            if (file.open(QIODevice::WriteOnly))
                file.write(path);
        }
        m_before = look();
    }

    QString home() const { return m_root.filePath("home"); }
    QString destination() const { return m_root.filePath("outer/out"); }
    QString file(const char *name) const { return m_root.filePath(name); }

    /// Everything around the destination that is not as it was.
    QStringList changes() const
    {
        const TestTree after = look();
        QStringList found;
        for (const auto &[path, node] : m_before)
            if (!after.contains(path))
                found.append("outside the destination, gone: " + QString::fromUtf8(path));
        for (const auto &[path, node] : after) {
            const auto before = m_before.find(path);
            if (before == m_before.end())
                found.append("outside the destination, new: " + QString::fromUtf8(path));
            else if (before->second.sha256 != node.sha256 || before->second.mode != node.mode ||
                     before->second.inode != node.inode || before->second.changedNs != node.changedNs)
                found.append("outside the destination, changed: " + QString::fromUtf8(path));
        }
        if (!treeFromDisk(home() + "/tmp").empty())
            found.append("something was left in the folder for temporary files");
        return found;
    }

private:
    TestTree look() const
    {
        TestTree tree = treeFromDisk(m_root.path(), {"home", "outer"});
        for (const auto &[path, node] : treeFromDisk(file("outer"), {"out"}))
            tree["outer/" + path] = node;
        return tree;
    }

    QTemporaryDir m_root;
    TestTree m_before;
};

/// The tree that extraction delivers: a single item by itself, several in a folder named after the archive.
TestTree deliveredTree(const Sample &sample)
{
    const TestTree tree = treeFromEntries(sample.entries);
    if (treeTopLevel(tree).size() == 1)
        return tree;
    return treeBelow(tree, QFileInfo(sample.file).completeBaseName().toUtf8());
}

/// What in a destination must never be there, whatever the archive holds.
QStringList hostileRemains(const TestTree &tree, const QByteArray &destination)
{
    QStringList found;
    for (const auto &[path, node] : tree) {
        const QString name = QString::fromUtf8(path.left(120));
        if (node.type == TestNode::Type::Other)
            found.append(name + ": a device, FIFO or socket was made");
        if (node.mode & 07000)
            found.append(name + ": has a set-uid, set-gid or sticky bit");
        if (node.type != TestNode::Type::Symlink)
            continue;
        const QByteArray folder =
            destination + '/' + path.left(std::max<qsizetype>(0, path.lastIndexOf('/')));
        const QByteArray end =
            QDir::cleanPath(
                QString::fromUtf8(node.target.startsWith('/') ? node.target : folder + '/' + node.target))
                .toUtf8();
        if (end != destination && !end.startsWith(QByteArray(destination + '/')))
            found.append(name + ": a link that leads out of the destination");
    }
    return found;
}

QString shortened(const CorpusRun &run)
{
    return QString("exit %1: %2").arg(run.exitCode).arg(QString::fromUtf8(run.err).trimmed().right(300));
}

QList<QByteArray> contentsOf(const TestTree &tree)
{
    QList<QByteArray> sums;
    for (const auto &[path, node] : tree)
        if (node.type == TestNode::Type::File && !node.sha256.isEmpty())
            sums.append(node.sha256);
    std::sort(sums.begin(), sums.end());
    return sums;
}

/// Everything wrong with how one sample is read; nothing when it is read as it should be.
class Check
{
public:
    Check(const QString &corpus, const Sample &sample)
        : m_program(setting("CORVANE_BINARY", CORVANE_BINARY))
        , m_archive(corpus + '/' + sample.file)
        , m_sample(sample)
    {}

    QStringList run()
    {
        if (m_sample.expect == "ok") {
            list();
            extractWhole();
        } else if (m_sample.expect == "wrong-password-possible") {
            extractWhole();
            extractWithoutPassword("wrong", "not the password");
            extractWithoutPassword("missing", std::nullopt);
        } else if (m_sample.expect == "corrupt") {
            extractDamaged();
        } else {
            extractHostile();
        }
        return m_found;
    }

private:
    void say(const QString &what) { m_found.append(what); }

    CorpusRun start(const Surroundings &place, QStringList arguments, const std::optional<QString> &password)
    {
        if (password) {
            QFile file(place.home() + "/password");
            if (file.open(QIODevice::WriteOnly))
                file.write(password->toUtf8() + '\n');
            arguments << "--password-file" << file.fileName();
        }
        const CorpusRun run = CorpusRun::run(m_program, arguments << m_archive, place.home());
        if (run.exitCode < 0)
            say("the program could not be started");
        else if (run.hung)
            say("did not end within the time limit");
        else if (run.exitCode >= 128)
            say("crashed, " + shortened(run));
        else if (run.exitCode != 0 && run.err.isEmpty())
            say("failed without a word");
        return run;
    }

    CorpusRun extract(const Surroundings &place, const std::optional<QString> &password)
    {
        const CorpusRun run = start(place, {"extract", "--to", place.destination()}, password);
        for (const QString &change : place.changes())
            say(change);
        for (const QByteArray &name : treeTopLevel(treeFromDisk(place.destination())))
            if (name.startsWith('.') && !treeFromEntries(m_sample.entries).contains(name))
                say("left in the destination: " + QString::fromUtf8(name));
        return run;
    }

    void list()
    {
        const Surroundings place;
        const CorpusRun run = start(place, {"list", "--json"}, m_sample.password);
        if (run.exitCode != 0) {
            if (m_sample.readable)
                say("list: " + shortened(run));
            return;
        }
        const QJsonObject object = QJsonDocument::fromJson(run.out).object();
        if (!object["entries"].isArray()) {
            say("list: its output is not an object with entries");
            return;
        }
        if (m_sample.readable && m_sample.hasEntries) {
            // A listing may leave out folders that only follow from the paths below them.
            TestTree expected = treeFromEntries(m_sample.entries);
            for (const QString &difference :
                 treeDifferences(expected, treeFromEntries(object["entries"].toArray())))
                say("list: " + difference);
        }
    }

    void extractWhole()
    {
        const Surroundings place;
        const CorpusRun run = extract(place, m_sample.password);
        const TestTree delivered = treeFromDisk(place.destination());
        const QStringList differences = treeDifferences(deliveredTree(m_sample), delivered);
        if (m_sample.readable) {
            if (run.exitCode != 0)
                say("extract: " + shortened(run));
            for (const QString &difference : differences)
                say("extract: " + difference);
        } else if (run.exitCode == 0 && !differences.isEmpty()) {
            // No other reader gets it right, so failing is fine, but silence about it is not.
            const bool contentsRight =
                m_sample.namesDiffer && contentsOf(delivered) == contentsOf(deliveredTree(m_sample));
            if (!contentsRight && run.err.isEmpty())
                say("extract: wrong without a word: " + differences.first());
        }
    }

    void extractWithoutPassword(const QString &which, const std::optional<QString> &password)
    {
        const Surroundings place;
        const CorpusRun run = extract(place, password);
        if (m_sample.readable ? run.exitCode != 3 : run.exitCode == 0)
            say(which + " password: " + shortened(run));
        for (const auto &[path, node] : treeFromDisk(place.destination()))
            say(which + " password: left behind " + QString::fromUtf8(path));
    }

    void extractDamaged()
    {
        const Surroundings place;
        const CorpusRun run = extract(place, m_sample.password);
        if (run.exitCode == 0 && run.err.isEmpty())
            say("damaged, but nothing was said about it");
        const TestTree expected = deliveredTree(m_sample);
        TestTree plain = treeFromEntries(m_sample.entries);
        for (const auto &[path, node] : treeFromDisk(place.destination())) {
            if (node.type != TestNode::Type::File)
                continue;
            // Fewer items than the archive should have may arrive by themselves.
            auto known = expected.find(path);
            if (known == expected.end() && (known = plain.find(path)) == plain.end())
                continue;
            if (!known->second.sha256.isEmpty() && known->second.sha256 != node.sha256)
                say("damaged contents were delivered: " + QString::fromUtf8(path));
        }
    }

    void extractHostile()
    {
        const Surroundings place;
        QStringList markers;
        QList<bool> before;
        for (const auto &value : m_sample.entries) {
            const QString name = QFileInfo(value.toObject()["path"].toString().replace('\\', '/')).fileName();
            if (!name.isEmpty() && !name.contains(QChar(u'\0')) && name.size() < 200)
                markers << "/tmp/" + name << "/" + name << QDir::tempPath() + '/' + name;
        }
        for (const QString &marker : markers)
            before.append(QFileInfo::exists(marker));
        const CorpusRun run = extract(place, m_sample.password);
        for (int i = 0; i < markers.size(); ++i)
            if (QFileInfo::exists(markers[i]) != before[i])
                say("outside the destination: " + markers[i]);
        for (const QString &remains :
             hostileRemains(treeFromDisk(place.destination()), place.destination().toUtf8()))
            say(remains);
        if (measuresMemory && run.peakKiB > hostilePeakKiB)
            say(QString("took %1 MiB of memory").arg(run.peakKiB / 1024));
    }

    QString m_program;
    QString m_archive;
    const Sample &m_sample;
    QStringList m_found;
};

} // namespace

/// Drives the program over a collection of archives made by other programs, and compares with what
/// the collection's manifest says about each of them.
class tst_corpus : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void sample_data();
    void sample();
    void exceptionsAreFew();
    void cleanupTestCase();

private:
    QString m_corpus;
    TestTree m_corpusBefore;
    std::vector<Sample> m_samples;
    std::vector<QStringList> m_found; ///< as m_samples
    QJsonObject m_exceptions;         ///< sample to reason
};

void tst_corpus::initTestCase()
{
    m_corpus = setting("CORVANE_CORPUS", CORVANE_DEFAULT_CORPUS);
    QFile manifest(m_corpus + "/manifest.json");
    if (!manifest.open(QIODevice::ReadOnly))
        QSKIP("No collection of sample archives here (CORVANE_CORPUS names its folder).");
    for (const auto &value : QJsonDocument::fromJson(manifest.readAll()).array())
        m_samples.push_back(sampleFromManifest(value.toObject()));
    QVERIFY(!m_samples.empty());

    QFile exceptions(CORVANE_EXCEPTIONS);
    QVERIFY(exceptions.open(QIODevice::ReadOnly));
    m_exceptions = QJsonDocument::fromJson(exceptions.readAll()).object();

    // The samples are independent of each other, so they run side by side before the rows look at them.
    m_corpusBefore = treeFromDisk(m_corpus);
    m_found.resize(m_samples.size());
    std::atomic<std::size_t> next = 0;
    const auto work = [&] {
        for (std::size_t i = next++; i < m_samples.size(); i = next++)
            m_found[i] = Check(m_corpus, m_samples[i]).run();
    };
    std::vector<std::thread> workers;
    for (unsigned i = 0; i < std::max(1U, std::thread::hardware_concurrency()); ++i)
        workers.emplace_back(work);
    for (std::thread &worker : workers)
        worker.join();
}

void tst_corpus::sample_data()
{
    QTest::addColumn<int>("index");
    for (std::size_t i = 0; i < m_samples.size(); ++i)
        QTest::newRow(qPrintable(m_samples[i].file)) << int(i);
}

void tst_corpus::sample()
{
    QFETCH(int, index);
    const QString file = m_samples[index].file;
    const QStringList &found = m_found[index];
    if (m_exceptions.contains(file)) {
        QVERIFY2(!found.isEmpty(), "is read right now: take it off the list of exceptions");
        return;
    }
    QVERIFY2(found.isEmpty(), qPrintable('\n' + found.mid(0, 8).join('\n')));
}

void tst_corpus::exceptionsAreFew()
{
    int readable = 0;
    int excepted = 0;
    for (const Sample &sample : m_samples)
        if (sample.expect == "ok" && sample.readable) {
            ++readable;
            excepted += m_exceptions.contains(sample.file);
        }
    QVERIFY2(excepted * 100 <= readable * 3, qPrintable(QString("%1 of %2").arg(excepted).arg(readable)));
}

void tst_corpus::cleanupTestCase()
{
    if (m_samples.empty())
        return;
    std::map<QString, std::pair<int, int>> right;
    for (std::size_t i = 0; i < m_samples.size(); ++i) {
        auto &[good, all] = right[m_samples[i].expect];
        good += m_found[i].isEmpty();
        ++all;
    }
    for (const auto &[expect, counts] : right)
        qInfo("%-24s %d of %d as they should be", qPrintable(expect), counts.first, counts.second);
    const QStringList changed = treeDifferences(m_corpusBefore, treeFromDisk(m_corpus));
    QVERIFY2(changed.isEmpty(), qPrintable(changed.join('\n')));
}

QTEST_GUILESS_MAIN(tst_corpus)
#include "tst_corpus.moc"
