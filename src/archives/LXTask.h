#pragma once

#include "util/LXConfinement.h"

#include <QMap>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>

/// A child process to be configured, launched once, talked to, ended and waited for, from any threads.
/// Its output and error come mixed, in the pieces in which they arrive. A thread of its own starts the
/// child, reads it and reaps it. The child ends with the object.
class LXTask
{
public:
    LXTask();
    ~LXTask();
    LXTask(const LXTask &) = delete;
    LXTask &operator=(const LXTask &) = delete;

    // Before launch()
    QString launchPath;
    QStringList arguments;
    QString currentDirectoryPath;
    QMap<QString, QString> environment; ///< wins over our own
    std::optional<LXConfinementRules> confinement;

    /// Called on the task's thread.
    struct Callbacks
    {
        std::function<void(const QByteArray &chunk)> output;
        std::function<void(int status)> completed; ///< exactly once, after the last output
    };

    /// Returns when the child runs or cannot be started; then `completed` is told 127, as a shell would.
    void launch(Callbacks callbacks);

    /// Written in the order of the calls, after launch(); nothing waits for the child to read it.
    void sendInput(const QByteArray &data);

    bool isRunning() const;
    /// Asks the child and all that it started to end, then kills them.
    void terminate();
    /// Not from the callbacks.
    void waitUntilExit();
    /// Exit status, or the signal's number; 0 before the end.
    int terminationStatus() const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};
