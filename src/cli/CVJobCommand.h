#pragma once

#include <QString>
#include <QStringList>

#include <memory>
#include <optional>

class CVOperation;
class CVOperationQueue;
class CVTerminal;
class CVTerminalDelegate;
class CVTerminalPasswords;

/// What the commands that run jobs have in common: a job runs on the queue while the main thread keeps its
/// event loop, and how the jobs ended becomes the process's exit status. Main thread only.
class CVJobCommand
{
public:
    /// Everything is borrowed.
    CVJobCommand(CVOperationQueue &queue, CVTerminal &terminal, CVTerminalPasswords &passwords);
    virtual ~CVJobCommand();
    CVJobCommand(const CVJobCommand &) = delete;
    CVJobCommand &operator=(const CVJobCommand &) = delete;

    /// From a signal, by way of the event loop: cancels what runs and what would follow.
    void cancel();

    /// The folder of the path with its links, "." and ".." resolved by the file system ("a/../b" is not "b"
    /// when "a" is a link); the last component as given. What is in no folder stays, for the message about
    /// it.
    static QString absolute(const QString &path);
    /// Why it cannot be read as a file; empty when it can.
    static QString reasonNotToRead(const QString &path);
    /// Why the file cannot be an archive to open; empty when it may be one.
    static QString reasonNotToOpen(const QString &path);

protected:
    static QString systemText(int error);

    /// Runs the job to its end and takes note of how it ended.
    void run(const std::shared_ptr<CVOperation> &operation,
             const std::shared_ptr<CVTerminalDelegate> &delegate);
    void printResults(const QStringList &paths);

    /// Results go into this folder, which is made if it is missing; nothing: where the settings say, but
    /// beside the input where they say that the person is asked, for there is no panel here. False when that
    /// is not possible, which was told.
    bool chooseDestination(const std::optional<QString> &folder);
    /// An empty folder nobody asked for is no result.
    void dropUnusedDestination();

    int status() const;

    CVOperationQueue &m_queue;
    CVTerminal &m_terminal;
    CVTerminalPasswords &m_passwords;
    qsizetype m_delivered = 0;
    qsizetype m_failed = 0;
    bool m_passwordLacked = false;
    bool m_interrupted = false;
    bool m_cancelled = false;

private:
    bool makeDestination(const QString &path);

    std::shared_ptr<CVOperation> m_current;
    QStringList m_madeFolders; ///< of the destination, the outermost first
    bool m_outputGone = false;
};
