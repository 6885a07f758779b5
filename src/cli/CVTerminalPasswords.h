#pragma once

#include "util/LXResult.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <optional>

class CVTerminal;

/// Where the terminal face gets passwords from: a file or the environment for every archive of the
/// run, or the person for one archive at a time. Never from an argument, which others can read.
///
/// Thread: one at a time.
class CVTerminalPasswords
{
public:
    enum class Lack {
        None,
        Missing, ///< nobody gave one
        Wrong,   ///< those that were given do not fit
        Unfit,   ///< the given one cannot be that of the new archive
    };

    /// Tries at the prompt before an archive counts as not to be opened.
    static constexpr int triesAllowed = 3;

    /// `given` holds for every archive. The terminal is borrowed.
    CVTerminalPasswords(CVTerminal &terminal, std::optional<QString> given);

    /// The password for the archive at `path`; `failed` says that the one before did not fit. Nothing
    /// when there is none or the tries are used up, which the person has been told then.
    std::optional<QString> forFile(const QString &path, bool failed);

    /// What is wrong with a password, in one line; nothing when it is fit.
    using Check = std::function<std::optional<QString>(const QString &password)>;
    /// The password for a new archive: the given one, or typed twice. Nothing when there is none that is
    /// fit, which the person has been told then.
    std::optional<QString> forNewArchive(const QString &name, const Check &check);

    /// Why the last answer was nothing.
    Lack lack() const { return m_lack; }

    /// The content of a password file without one newline at its end. "-" is standard input.
    static LXResult<QString> readFile(const QString &path);

    /// Takes CORVANE_PASSWORD out of this process's environment, its memory included, so that no
    /// child inherits it and nobody reads it from the list of processes.
    static std::optional<QString> takeFromEnvironment();

private:
    CVTerminal &m_terminal;
    const std::optional<QString> m_given;
    Lack m_lack = Lack::None;
    QString m_path;
    int m_tries = 0;
    bool m_givenUsed = false;
};
