#include "archives/CVArchive.h"
#include "archives/CVXArchive.h"

#include <QTemporaryFile>
#include <QTest>

namespace {

/// A back end whose extraction does what the test says.
class ScriptedArchive final : public CVArchive
{
public:
    std::function<void(ScriptedArchive &)> script;
    using CVArchive::extractDidFinish;

protected:
    void extractCommand() override { script(*this); }
};

class Recorder final : public CVArchiveDelegate
{
public:
    QStringList events;
    std::optional<QString> answer;

    void archiveFinished(CVArchive *) override { events << "finished"; }
    void archiveFailed(CVArchive *, std::int32_t status) override
    {
        events << "failed " + QString::number(status);
    }
    void archiveCancelled(CVArchive *) override { events << "cancelled"; }
    void archiveHasMadeProgress(CVArchive *, double, double) override {}
    std::optional<QString> archiveWantsPassword(CVArchive *) override
    {
        events << "password?";
        return answer;
    }
};

using Script = std::function<void(ScriptedArchive &)>;

} // namespace
Q_DECLARE_METATYPE(Script)

class CVArchiveTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void extractionEndsOnce_data()
    {
        QTest::addColumn<Script>("script");
        QTest::addColumn<QStringList>("events");
        const auto row = [](const char *what, Script script, const QStringList &events) {
            QTest::newRow(what) << script << events;
        };
        row("done", [](auto &a) { a.extractDidFinish(); }, {"finished"});
        row("done twice", [](auto &a) { a.extractDidFinish(), a.extractDidFinish(); }, {"finished"});
        row("gives up without a word", [](auto &a) { a.setStatus(CVArchive::InvalidFile); }, {"failed 4"});
        row("cancelled while it runs", [](auto &a) { a.cancelExtract(); }, {"failed 2"});
        row("cancelled, then ends", [](auto &a) { a.cancelExtract(), a.extractDidFinish(); }, {"failed 2"});
        row("no password", [](auto &) { throw CVArchiveException("DCArchiveNoPasswordException", ""); },
            {"failed 2"});
        row("invalid file", [](auto &) { throw CVArchiveException("DCArchiveInvalidFileException", ""); },
            {"failed 4"});
        row("password refused", [](auto &a) { a.askForPassword(), a.extractDidFinish(); },
            {"password?", "failed 2"});
        row("password known", [](auto &a) { a.password = "x", a.askForPassword(), a.extractDidFinish(); },
            {"finished"});
    }

    void extractionEndsOnce()
    {
        QFETCH(Script, script);
        QFETCH(QStringList, events);
        QTemporaryFile file;
        QVERIFY(file.open());
        Recorder recorder;
        ScriptedArchive archive;
        archive.setDelegate(&recorder);
        archive.script = script;
        archive.open(file.fileName(), "/nowhere");
        QCOMPARE(recorder.events, events);
    }

    void missingFileOnlyLogs()
    {
        Recorder recorder;
        ScriptedArchive archive;
        archive.setDelegate(&recorder);
        archive.script = [](auto &) { QFAIL("must not run"); };
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression("can't open /no/such/file because it doesn't exist"));
        archive.open("/no/such/file", "/nowhere");
        QCOMPARE(recorder.events, QStringList());
    }

    void statusTexts()
    {
        QCOMPARE(CVArchive::statusToString(0), QString("Success"));
        QCOMPARE(CVArchive::statusToString(5), QString("Multimedia Manipulation failed"));
        QCOMPARE(CVArchive::statusToString(6), QString("Unkonwn Status"));
        QCOMPARE(CVArchive::statusToString(-1), QString("Unkonwn Status"));
    }

    void extractableExtensions_data()
    {
        QTest::addColumn<QString>("extension");
        QTest::addColumn<bool>("extractable");
        for (const char *yes :
             {"zip", "ZIP", "tar.gz", "TAR.BZ2", "7z.001", "r00", "part12.rar", "tgz", "corvane"})
            QTest::newRow(yes) << yes << true;
        for (const char *no : {"txt", "", "tar.", "7z.01", "001", "xzip", "zip ", "split", "r0"})
            QTest::addRow("not %s", no) << no << false;
    }

    void extractableExtensions()
    {
        QFETCH(QString, extension);
        QFETCH(bool, extractable);
        QCOMPARE(CVArchive::isExtractableExtension(extension), extractable);
    }

    void selection_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("entry");
        QTest::addColumn<bool>("selected");
        const auto row = [](const char *path, const char *entry, bool selected) {
            QTest::addRow("%s selects %s", path, entry) << path << entry << selected;
        };
        row("a/b", "a/b", true);
        row("a/b", "a/b/c.txt", true);
        row("a/b", "a/bc", false);
        row("a/b/c", "a/b", false);
        row("A/b", "a/b", false);
        row("", "a", true);
    }

    void selection()
    {
        QFETCH(QString, path);
        QFETCH(QString, entry);
        QFETCH(bool, selected);
        QCOMPARE(CVXArchive::pathIsParentOrIsPathOfTarget(path, entry), selected);
    }
};

QTEST_GUILESS_MAIN(CVArchiveTest)
#include "tst_archive.moc"
