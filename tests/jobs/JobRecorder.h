#pragma once

#include "engine/model/CVOperationDelegate.h"

#include <QFileInfo>
#include <QStringList>

#include <functional>
#include <map>
#include <mutex>
#include <optional>

/// Writes down every call of a job, with the folder of the test as "~", and answers its questions for
/// passwords.
class JobRecorder : public CVOperationDelegate
{
public:
    explicit JobRecorder(const QString &root)
        : m_root(root)
    {}

    /// By file name, in the order of the questions; those without a name are for every other file.
    std::map<QString, QStringList> passwords;
    /// On the thread of the call.
    std::function<void(const QString &)> onEvent;

    QStringList events() const
    {
        const std::lock_guard lock(m_mutex);
        return m_events;
    }
    LXError error() const
    {
        const std::lock_guard lock(m_mutex);
        return m_error;
    }

    void operationWorkingOnJob(CVOperation *, const QString &text) override { note(text); }
    std::optional<QString> operationNeedsPasswordForFileAtPath(CVOperation *, const QString &path,
                                                               bool failed) override
    {
        const QString name = QFileInfo(path).fileName();
        note(QStringLiteral("password? ") + name + (failed ? QStringLiteral(" again") : QString()));
        QStringList &left = passwords[passwords.contains(name) ? name : QString()];
        return left.isEmpty() ? std::nullopt : std::optional(left.takeFirst());
    }
    void operationSkippedEntries(CVOperation *, const QString &path,
                                 const std::vector<CVSkippedEntry> &entries) override
    {
        note(QStringLiteral("left out of %1: %2").arg(QFileInfo(path).fileName(), entries.at(0).name));
    }
    void operationNeedsToShowError(CVOperation *, const LXError &error) override
    {
        note(QStringLiteral("error: ") + error.description);
    }
    void operationCompleted(CVOperation *) override { note(QStringLiteral("completed")); }
    void operationCompletedWithFilesAtPaths(CVOperation *, const QStringList &paths, bool multiple) override
    {
        note((multiple ? QStringLiteral("completed many: ") : QStringLiteral("completed: ")) +
             paths.join(QStringLiteral(", ")));
    }
    void operationFailedWithError(CVOperation *, const LXError &error) override
    {
        {
            const std::lock_guard lock(m_mutex);
            m_error = error;
        }
        note(QStringLiteral("failed: ") + error.description);
    }
    void operationWasCancelled(CVOperation *) override { note(QStringLiteral("cancelled")); }

protected:
    void note(QString text)
    {
        text.replace(m_root, QStringLiteral("~"));
        {
            const std::lock_guard lock(m_mutex);
            m_events.append(text);
        }
        if (onEvent)
            onEvent(text);
    }

    mutable std::mutex m_mutex;

private:
    const QString m_root;
    QStringList m_events;
    LXError m_error;
};
