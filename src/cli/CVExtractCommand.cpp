#include "cli/CVExtractCommand.h"

#include "archives/CVArchive.h"
#include "archives/archive_string.h"
#include "cli/CVTerminal.h"
#include "cli/CVTerminalDelegate.h"
#include "cli/CVTerminalPasswords.h"
#include "engine/control/CVOperationFactory.h"
#include "engine/model/CVOperation.h"
#include "engine/model/CVOperationHelper.h"
#include "engine/model/CVOperationQueue.h"
#include "engine/model/CVSettings.h"
#include "engine/model/CVWorkDirectoryManager.h"
#include "jobs/CVExtractArchivesOperation.h"
#include "sandbox/CVFileAuthenticator.h"
#include "util/LXMainThread.h"

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QSet>

#include <cerrno>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

// The folder with its links, "." and ".." resolved by the file system ("a/../b" is not "b" when "a" is
// a link); the last component as given. What is no folder stays, for the message about it.
QString absolute(const QString &path)
{
    const QString whole = path.startsWith(u'/') ? path : QDir::currentPath() + u'/' + path;
    const qsizetype slash = whole.lastIndexOf(u'/');
    const QString folder = QFileInfo(whole.left(slash + 1)).canonicalFilePath();
    if (folder.isEmpty())
        return whole;
    return (folder == u"/" ? QString() : folder) + whole.mid(slash);
}

QString systemText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// Why the file cannot be an archive to open; empty when it may be one.
QString reasonNotToOpen(const QString &path)
{
    struct stat status = {};
    const QByteArray encoded = QFile::encodeName(path);
    if (::stat(encoded.constData(), &status) != 0)
        return systemText(errno);
    if (S_ISDIR(status.st_mode))
        return u"is a folder"_s;
    if (!S_ISREG(status.st_mode))
        return u"is not a regular file"_s;
    if (::access(encoded.constData(), R_OK) != 0)
        return systemText(errno);
    if (status.st_size == 0)
        return u"is empty"_s;
    return {};
}

} // namespace

CVExtractCommand::CVExtractCommand(CVOperationQueue &queue, CVTerminal &terminal,
                                   CVTerminalPasswords &passwords)
    : m_queue(queue)
    , m_terminal(terminal)
    , m_passwords(passwords)
{}

CVExtractCommand::~CVExtractCommand() = default;

void CVExtractCommand::cancel()
{
    m_interrupted = true;
    m_terminal.interrupt();
    m_terminal.message(u"cancelled"_s);
    if (m_current)
        m_current->cancel();
}

QStringList CVExtractCommand::readablePaths(const QStringList &paths)
{
    QStringList readable;
    QSet<QString> seen;
    for (const QString &given : paths) {
        const QString path = absolute(given);
        if (seen.contains(path))
            continue;
        seen.insert(path);
        const QString reason = reasonNotToOpen(path);
        if (reason.isEmpty()) {
            readable.append(path);
        } else {
            m_terminal.message(u"%1: %2"_s.arg(given, reason));
            ++m_failed;
        }
    }
    return readable;
}

bool CVExtractCommand::makeDestination(const QString &path)
{
    QStringList missing;
    QString at = path;
    while (at.size() > 1 && at.endsWith(u'/'))
        at.chop(1);
    while (at.size() > 1 && !QFile::exists(at)) {
        missing.prepend(at);
        at = at.left(at.lastIndexOf(u'/'));
        while (at.size() > 1 && at.endsWith(u'/'))
            at.chop(1);
    }
    for (const QString &folder : missing) {
        if (::mkdir(QFile::encodeName(folder).constData(), 0777) == 0) {
            m_madeFolders.append(folder);
        } else if (errno != EEXIST) {
            m_terminal.message(u"%1: %2"_s.arg(folder, systemText(errno)));
            return false;
        }
    }
    struct stat status = {};
    if (::stat(QFile::encodeName(path).constData(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        m_terminal.message(u"%1: %2"_s.arg(path, systemText(ENOTDIR)));
        return false;
    }
    return true;
}

void CVExtractCommand::dropUnusedDestination()
{
    // An empty folder nobody asked for is no result. Stops at the first that holds something.
    while (!m_madeFolders.isEmpty() && ::rmdir(QFile::encodeName(m_madeFolders.last()).constData()) == 0)
        m_madeFolders.removeLast();
}

void CVExtractCommand::run(const std::shared_ptr<CVOperation> &operation,
                           const std::shared_ptr<CVTerminalDelegate> &delegate)
{
    if (m_interrupted)
        return;
    m_current = operation;
    operation->setDelegate(delegate);
    operation->setFileAuthenticator(CVFileAuthenticator::fileAuthenticator());
    QEventLoop loop;
    operation->observeFinished([&loop](CVOperation &) { LXMainThread::post([&loop] { loop.quit(); }); });
    m_queue.add(operation);
    loop.exec();
    m_terminal.clearProgress();
    m_current.reset();
    m_failed += delegate->failures();
    if (delegate->wasCancelled() && !delegate->stoppedAfterFailure()) {
        if (m_passwords.lack() != CVTerminalPasswords::Lack::None && !m_terminal.wasInterrupted()) {
            m_passwordLacked = true;
        } else {
            m_cancelled = true;
        }
    }
    if (const auto *extraction = dynamic_cast<const CVExtractArchivesOperation *>(operation.get())) {
        for (const QString &path : extraction->destinationPaths()) {
            ++m_delivered;
            if (!m_terminal.printResult(path) && !m_outputGone) {
                m_outputGone = true;
                m_terminal.message(u"the results could not be printed: %1"_s.arg(systemText(errno)));
            }
        }
    }
}

int CVExtractCommand::status() const
{
    if (m_interrupted || m_cancelled)
        return 130;
    if (m_failed == 0 && !m_passwordLacked)
        return 0;
    if (m_delivered > 0)
        return 4;
    return m_passwordLacked && m_failed == 0 ? 3 : 1;
}

int CVExtractCommand::extract(const CVTerminalArguments &arguments)
{
    const QStringList paths = readablePaths(arguments.paths);
    if (paths.isEmpty())
        return 1;
    if (arguments.fate)
        CVSettings::overrideForThisRun(CVSettingsKey::archiveFateAfterExtract,
                                       static_cast<int>(*arguments.fate));
    if (arguments.destination) {
        const QString destination = absolute(*arguments.destination);
        if (!makeDestination(destination)) {
            dropUnusedDestination();
            return 1;
        }
        CVSettings::overrideForThisRun(CVSettingsKey::extractDestination,
                                       static_cast<int>(CVExtractDestination::DefaultFolder));
        CVSettings::overrideForThisRun(CVSettingsKey::extractDefaultDestination, destination);
    } else if (CVSettings::integer(CVSettingsKey::extractDestination) ==
               static_cast<int>(CVExtractDestination::AskMe)) {
        // There is no panel here, and the archive's own folder is where everybody looks first.
        CVSettings::overrideForThisRun(CVSettingsKey::extractDestination,
                                       static_cast<int>(CVExtractDestination::ArchiveFolder));
    }
    if (arguments.entries.isEmpty()) {
        run(CVOperationFactory::extractArchivesOperation(),
            std::make_shared<CVTerminalDelegate>(m_terminal, m_passwords, paths));
    } else {
        for (const QString &path : paths) {
            const auto archive = CVArchive::archiveForExtracting(path);
            archive->sourcePath = path;
            const auto destination = CVOperationHelper().defaultDestinationFolderForSourcePath(path);
            run(CVOperationFactory::singleFilesExtractOperationWithArchive(archive, arguments.entries,
                                                                           destination.value_or(QString())),
                std::make_shared<CVTerminalDelegate>(m_terminal, m_passwords, QStringList{path}));
            if (m_interrupted || m_cancelled || m_passwordLacked)
                break;
        }
    }
    if (m_delivered == 0)
        dropUnusedDestination();
    return status();
}

int CVExtractCommand::open(const CVTerminalArguments &arguments)
{
    bool onlyArchives = true;
    for (const QString &given : arguments.paths) {
        const QString path = absolute(given);
        const QString reason = reasonNotToOpen(path);
        if (!reason.isEmpty() && reason != u"is a folder") {
            m_terminal.message(u"%1: %2"_s.arg(given, reason));
            if (!given.contains(u'/') && !given.contains(u'.') && !QFile::exists(path))
                m_terminal.detail(u"It is no command either; see “corvane --help”."_s);
            onlyArchives = false;
        } else if (!reason.isEmpty() || !CVArchive::isExtractableExtension(archivePathExtension(path))) {
            m_terminal.message(u"“%1” is no archive by its name"_s.arg(given));
            m_terminal.detail(u"This version extracts archives; it does not pack other files yet."_s);
            if (reason.isEmpty())
                m_terminal.detail(u"If it is an archive all the same, “corvane extract” opens it."_s);
            onlyArchives = false;
        }
    }
    if (!onlyArchives)
        return 1;
    return extract(arguments);
}

int CVExtractCommand::clean()
{
    const QStringList before = CVWorkDirectoryManager::workDirs();
    if (before.isEmpty()) {
        m_terminal.message(u"nothing is left to clean up"_s);
        return 0;
    }
    const auto delegate = std::make_shared<CVTerminalDelegate>(m_terminal, m_passwords, QStringList());
    run(CVOperationFactory::workDirectoryCleanOperation(), delegate);
    for (const QString &folder : before) {
        if (!QFile::exists(folder))
            m_terminal.message(u"removed %1"_s.arg(folder));
        else if (CVWorkDirectoryManager::isInUse(folder))
            m_terminal.message(u"%1 is in use and stays"_s.arg(folder));
        else {
            m_terminal.message(u"%1 could not be removed"_s.arg(folder));
            ++m_failed;
        }
    }
    return status();
}
