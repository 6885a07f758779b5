#pragma once

#include "util/LXChildProcess.h"

#include <QByteArray>
#include <QString>

#include <chrono>
#include <memory>
#include <stop_token>

/// Our side of one process that converts files of a folder, one after another.
/// Thread: one, which has to live as long as the process.
class CVMediaChild final
{
public:
    struct Settings
    {
        int folder = -1;    ///< open as long as this lives; the process can write only beneath it
        QByteArray scratch; ///< a folder in there, for what the libraries swap out
        int threads = 1;    ///< for a single file
        std::chrono::milliseconds patience{}; ///< with a process that says nothing
    };
    struct Job
    {
        bool isSound = false;
        int type = 0;
        QByteArray folder; ///< relative
        QByteArray source;
        QByteArray target;
        QByteArray temporary;
    };
    struct Outcome
    {
        enum class Kind { Done, Failed, Stopped };
        Kind kind = Kind::Done;
        QString reason;
    };

    static LXResult<std::unique_ptr<CVMediaChild>> start(const Settings &settings);

    /// After anything but Done and a Failed that the process told itself it is gone, and isAlive() false.
    Outcome convert(const Job &job, const std::stop_token &stop);

    bool isAlive() const { return m_process != nullptr; }

    /// Lets it end by itself, for a moment.
    void finish(const std::stop_token &stop);

private:
    CVMediaChild() = default;
    Outcome end(const QString &reason);

    std::unique_ptr<LXChildProcess> m_process;
    std::chrono::milliseconds m_patience{};
    QByteArray m_unread;
};
