#pragma once

#include "cli/CVTerminalArguments.h"

#include <QString>
#include <QStringList>

#include <memory>

class CVOperation;
class CVOperationQueue;
class CVTerminal;
class CVTerminalDelegate;
class CVTerminalPasswords;

/// `corvane extract`, `corvane clean` and `corvane FILE…`: runs the jobs behind them on the queue while
/// the main thread keeps its event loop. Main thread only.
class CVExtractCommand
{
public:
    /// Everything is borrowed. The password of `passwords` holds for all archives.
    CVExtractCommand(CVOperationQueue &queue, CVTerminal &terminal, CVTerminalPasswords &passwords);
    ~CVExtractCommand();

    /// The process's exit status, when the last job has ended and cleaned up.
    int extract(const CVTerminalArguments &arguments);
    /// Files without a command: a batch of archives is extracted; this version does nothing else with
    /// files, and says so before it touches any of them.
    int open(const CVTerminalArguments &arguments);
    int clean();

    /// From a signal, by way of the event loop: cancels what runs and what would follow.
    void cancel();

private:
    /// Paths made absolute, each once, without those that cannot be read; these are told and counted.
    QStringList readablePaths(const QStringList &paths);
    bool makeDestination(const QString &path);
    void dropUnusedDestination();
    void run(const std::shared_ptr<CVOperation> &operation,
             const std::shared_ptr<CVTerminalDelegate> &delegate);
    int status() const;

    CVOperationQueue &m_queue;
    CVTerminal &m_terminal;
    CVTerminalPasswords &m_passwords;
    std::shared_ptr<CVOperation> m_current;
    QStringList m_madeFolders; ///< of the destination, the outermost first
    qsizetype m_delivered = 0;
    qsizetype m_failed = 0;
    bool m_passwordLacked = false;
    bool m_interrupted = false;
    bool m_cancelled = false;
    bool m_outputGone = false;
};
