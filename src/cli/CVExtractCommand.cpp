#include "cli/CVExtractCommand.h"

#include "archives/CVArchive.h"
#include "archives/archive_string.h"
#include "cli/CVTerminal.h"
#include "cli/CVTerminalDelegate.h"
#include "cli/CVTerminalPasswords.h"
#include "engine/control/CVOperationFactory.h"
#include "engine/model/CVOpenedEntries.h"
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

CVExtractCommand::~CVExtractCommand() = default;

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

void CVExtractCommand::extractBy(const std::shared_ptr<CVExtractArchivesOperation> &operation,
                                 const QStringList &paths)
{
    run(operation, std::make_shared<CVTerminalDelegate>(m_terminal, m_passwords, paths));
    // Also after a failure or a cancel: what was delivered before it stays.
    printResults(operation->destinationPaths());
}

int CVExtractCommand::extract(const CVTerminalArguments &arguments)
{
    const QStringList paths = readablePaths(arguments.paths);
    if (paths.isEmpty())
        return 1;
    if (arguments.fate)
        CVSettings::overrideForThisRun(CVSettingsKey::archiveFateAfterExtract,
                                       static_cast<int>(*arguments.fate));
    if (!chooseDestination(arguments.destination))
        return 1;
    if (arguments.entries.isEmpty()) {
        extractBy(CVOperationFactory::extractArchivesOperation(), paths);
    } else {
        for (const QString &path : paths) {
            const auto archive = CVArchive::archiveForExtracting(path);
            archive->sourcePath = path;
            const auto destination = CVOperationHelper().defaultDestinationFolderForSourcePath(path);
            extractBy(CVOperationFactory::singleFilesExtractOperationWithArchive(
                          archive, arguments.entries, destination.value_or(QString())),
                      {path});
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
            const QString like = CVTerminalArguments::commandLike(given);
            if (!given.contains(u'/') && !given.contains(u'.') && !QFile::exists(path))
                m_terminal.detail(like.isEmpty()
                                      ? u"It is no command either; see “corvane --help”."_s
                                      : u"It is no command either; did you mean “corvane %1”?"_s.arg(like));
            onlyArchives = false;
        } else if (!reason.isEmpty() || !CVArchive::isExtractableExtension(archivePathExtension(path))) {
            m_terminal.message(u"“%1” is no archive by its name, but others of the files are"_s.arg(given));
            m_terminal.detail(u"“corvane create” packs them all together."_s);
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
        m_terminal.note(u"nothing is left to clean up"_s);
        return 0;
    }
    const auto delegate = std::make_shared<CVTerminalDelegate>(m_terminal, m_passwords, QStringList());
    run(CVOperationFactory::workDirectoryCleanOperation(), delegate);
    for (const QString &folder : before) {
        if (!QFile::exists(folder))
            m_terminal.note(u"removed %1"_s.arg(folder));
        else if (CVOpenedEntries::wereChanged(folder))
            continue; // the job has told of it
        else if (CVWorkDirectoryManager::isInUse(folder))
            m_terminal.message(u"%1 is in use and stays"_s.arg(folder));
        else {
            m_terminal.message(u"%1 could not be removed"_s.arg(folder));
            ++m_failed;
        }
    }
    return status();
}
