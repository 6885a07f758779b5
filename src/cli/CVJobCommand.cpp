#include "cli/CVJobCommand.h"

#include "cli/CVTerminal.h"
#include "cli/CVTerminalDelegate.h"
#include "cli/CVTerminalPasswords.h"
#include "engine/model/CVOperation.h"
#include "engine/model/CVOperationQueue.h"
#include "engine/model/CVSettings.h"
#include "sandbox/CVFileAuthenticator.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"

#include <QEventLoop>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

struct Freer
{
    void operator()(char *text) const noexcept { std::free(text); }
};

// Empty when it is not there.
QByteArray resolved(const QByteArray &path)
{
    const std::unique_ptr<char, Freer> real(::realpath(path.constData(), nullptr));
    return real ? QByteArray(real.get()) : QByteArray();
}

} // namespace

CVJobCommand::CVJobCommand(CVOperationQueue &queue, CVTerminal &terminal, CVTerminalPasswords &passwords)
    : m_queue(queue)
    , m_terminal(terminal)
    , m_passwords(passwords)
{}

CVJobCommand::~CVJobCommand() = default;

QString CVJobCommand::absolute(const QString &path)
{
    QByteArray whole = bytesOfFileName(path);
    if (!whole.startsWith('/'))
        whole.prepend(resolved(".") + '/');
    const qsizetype slash = whole.lastIndexOf('/');
    const QByteArray folder = resolved(whole.left(slash + 1));
    if (folder.isEmpty())
        return fileNameFromBytes(whole);
    const QByteArray result = (folder == "/" ? QByteArray() : folder) + whole.mid(slash);
    return fileNameFromBytes(result);
}

QString CVJobCommand::systemText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

QString CVJobCommand::reasonNotToRead(const QString &path)
{
    struct stat status = {};
    const QByteArray encoded = bytesOfFileName(path);
    if (::stat(encoded.constData(), &status) != 0)
        return systemText(errno);
    if (S_ISDIR(status.st_mode))
        return u"is a folder"_s;
    if (!S_ISREG(status.st_mode))
        return u"is not a regular file"_s;
    if (::access(encoded.constData(), R_OK) != 0)
        return systemText(errno);
    return {};
}

QString CVJobCommand::reasonNotToOpen(const QString &path)
{
    const QString reason = reasonNotToRead(path);
    struct stat status = {};
    if (reason.isEmpty() && ::stat(bytesOfFileName(path).constData(), &status) == 0 && status.st_size == 0)
        return u"is empty"_s;
    return reason;
}

void CVJobCommand::cancel()
{
    m_interrupted = true;
    m_terminal.interrupt();
    if (m_current)
        m_current->cancel();
}

bool CVJobCommand::makeDestination(const QString &path)
{
    QStringList missing;
    QString at = path;
    while (at.size() > 1 && at.endsWith(u'/'))
        at.chop(1);
    while (at.size() > 1 && ::access(bytesOfFileName(at).constData(), F_OK) != 0) {
        missing.prepend(at);
        at = at.left(at.lastIndexOf(u'/'));
        while (at.size() > 1 && at.endsWith(u'/'))
            at.chop(1);
    }
    for (const QString &folder : missing) {
        if (::mkdir(bytesOfFileName(folder).constData(), 0777) == 0) {
            m_madeFolders.append(folder);
        } else if (errno != EEXIST) {
            m_terminal.message(u"%1: %2"_s.arg(folder, systemText(errno)));
            return false;
        }
    }
    struct stat status = {};
    if (::stat(bytesOfFileName(path).constData(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        m_terminal.message(u"%1: %2"_s.arg(path, systemText(ENOTDIR)));
        return false;
    }
    return true;
}

bool CVJobCommand::chooseDestination(const std::optional<QString> &folder)
{
    if (folder) {
        const QString destination = absolute(*folder);
        if (!makeDestination(destination)) {
            dropUnusedDestination();
            return false;
        }
        CVSettings::overrideForThisRun(CVSettingsKey::extractDestination,
                                       static_cast<int>(CVExtractDestination::DefaultFolder));
        CVSettings::overrideForThisRun(CVSettingsKey::extractDefaultDestination, destination);
    } else if (CVSettings::integer(CVSettingsKey::extractDestination) ==
               static_cast<int>(CVExtractDestination::AskMe)) {
        // There is no panel here, and the input's own folder is where everybody looks first.
        CVSettings::overrideForThisRun(CVSettingsKey::extractDestination,
                                       static_cast<int>(CVExtractDestination::ArchiveFolder));
    }
    return true;
}

void CVJobCommand::dropUnusedDestination()
{
    // Stops at the first that holds something.
    while (!m_madeFolders.isEmpty() && ::rmdir(bytesOfFileName(m_madeFolders.last()).constData()) == 0)
        m_madeFolders.removeLast();
}

void CVJobCommand::run(const std::shared_ptr<CVOperation> &operation,
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
}

void CVJobCommand::printResults(const QStringList &paths)
{
    for (const QString &path : paths) {
        ++m_delivered;
        if (!m_terminal.printResult(path) && !m_outputGone) {
            m_outputGone = true;
            m_terminal.message(u"the results could not be printed: %1"_s.arg(systemText(errno)));
        }
    }
}

int CVJobCommand::status() const
{
    if (m_interrupted || m_cancelled)
        return 130;
    if (m_failed == 0 && !m_passwordLacked)
        return 0;
    if (m_delivered > 0)
        return 4;
    return m_passwordLacked && m_failed == 0 ? 3 : 1;
}
