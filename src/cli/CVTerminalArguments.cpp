#include "cli/CVTerminalArguments.h"

#include <array>

using namespace Qt::StringLiterals;

namespace {

using Command = CVTerminalArguments::Command;

LXError usageError(const QString &text)
{
    return LXError{
        .domain = u"CorvaneErrorDomain"_s, .code = 2, .description = text, .reason = {}, .suggestion = {}};
}

std::optional<Command> commandNamed(const QString &word)
{
    if (word == u"extract")
        return Command::Extract;
    if (word == u"list")
        return Command::List;
    if (word == u"clean")
        return Command::Clean;
    return std::nullopt;
}

bool isCommandOfAnotherVersion(const QString &word)
{
    constexpr std::array names = {"create", "convert", "split", "combine", "install-rar"};
    for (const char *name : names) {
        if (word == QLatin1StringView(name))
            return true;
    }
    return false;
}

QString nameOf(Command command)
{
    switch (command) {
    case Command::Extract:
        return u"extract"_s;
    case Command::List:
        return u"list"_s;
    case Command::Clean:
        return u"clean"_s;
    case Command::Open:
    case Command::Help:
    case Command::Version:
        break;
    }
    return u"corvane"_s;
}

enum class Option { Destination, Entry, Fate, Json, PasswordFile };

struct OptionRule
{
    const char *name;
    Option option;
    bool takesValue;
    bool forExtract;
    bool forList;
};

constexpr std::array optionRules = {
    OptionRule{"--to", Option::Destination, true, true, false},
    OptionRule{"--entry", Option::Entry, true, true, false},
    OptionRule{"--after", Option::Fate, true, true, false},
    OptionRule{"--json", Option::Json, false, false, true},
    OptionRule{"--password-file", Option::PasswordFile, true, true, true},
};

class Parser
{
public:
    explicit Parser(const QStringList &words)
        : m_words(words)
    {}

    LXResult<CVTerminalArguments> run()
    {
        qsizetype first = 0;
        if (!m_words.isEmpty()) {
            if (const auto command = commandNamed(m_words.first())) {
                m_result.command = *command;
                first = 1;
            } else if (isCommandOfAnotherVersion(m_words.first())) {
                return usageError(
                    u"“%1” is not part of this version, which extracts, lists and cleans up"_s.arg(
                        m_words.first()));
            }
        }
        bool optionsOver = false;
        for (qsizetype i = first; i < m_words.size(); ++i) {
            const QString &word = m_words[i];
            if (!optionsOver && word == u"--") {
                optionsOver = true;
            } else if (!optionsOver && (word == u"--help" || word == u"-h")) {
                m_result.command = Command::Help;
                return m_result;
            } else if (!optionsOver && word == u"--version") {
                m_result.command = Command::Version;
                return m_result;
            } else if (!optionsOver && word.size() > 1 && word.startsWith(u'-')) {
                if (auto error = option(word, i))
                    return *error;
            } else if (word.isEmpty()) {
                return usageError(u"a file name is empty"_s);
            } else {
                m_result.paths.append(word);
            }
        }
        return finish();
    }

private:
    std::optional<LXError> option(const QString &word, qsizetype &i)
    {
        const qsizetype equals = word.indexOf(u'=');
        const QString name = equals < 0 ? word : word.left(equals);
        const OptionRule *rule = nullptr;
        for (const OptionRule &candidate : optionRules) {
            if (name == QLatin1StringView(candidate.name))
                rule = &candidate;
        }
        if (!rule)
            return usageError(u"unknown option “%1”"_s.arg(name));
        const bool fits = (m_result.command == Command::Extract && rule->forExtract) ||
                          (m_result.command == Command::List && rule->forList);
        if (!fits)
            return usageError(u"“%1” does not take the option “%2”"_s.arg(nameOf(m_result.command), name));
        QString value;
        if (rule->takesValue) {
            if (equals >= 0)
                value = word.mid(equals + 1);
            else if (i + 1 < m_words.size())
                value = m_words[++i];
            if (value.isEmpty())
                return usageError(u"the option “%1” needs a value"_s.arg(name));
        } else if (equals >= 0) {
            return usageError(u"the option “%1” takes no value"_s.arg(name));
        }
        return apply(*rule, value);
    }

    std::optional<LXError> apply(const OptionRule &rule, const QString &value)
    {
        // Two different answers to one question are a slip, and with --after a costly one.
        const auto twice = [&rule] {
            return usageError(u"the option “%1” is given twice"_s.arg(QLatin1StringView(rule.name)));
        };
        switch (rule.option) {
        case Option::Destination:
            if (m_result.destination)
                return twice();
            m_result.destination = value;
            break;
        case Option::Entry:
            m_result.entries.append(value);
            break;
        case Option::Fate:
            if (m_result.fate)
                return twice();
            if (value == u"keep")
                m_result.fate = CVTerminalArguments::Fate::Keep;
            else if (value == u"trash")
                m_result.fate = CVTerminalArguments::Fate::Trash;
            else if (value == u"delete")
                m_result.fate = CVTerminalArguments::Fate::Delete;
            else
                return usageError(u"“--after” takes keep, trash or delete, not “%1”"_s.arg(value));
            break;
        case Option::Json:
            m_result.json = true;
            break;
        case Option::PasswordFile:
            if (m_result.passwordFile)
                return twice();
            m_result.passwordFile = value;
            break;
        }
        return std::nullopt;
    }

    LXResult<CVTerminalArguments> finish()
    {
        switch (m_result.command) {
        case Command::Extract:
        case Command::List:
            if (m_result.paths.isEmpty())
                return usageError(u"“%1” needs at least one archive"_s.arg(nameOf(m_result.command)));
            break;
        case Command::Clean:
            if (!m_result.paths.isEmpty())
                return usageError(u"“clean” takes no file names"_s);
            break;
        case Command::Open:
            if (m_result.paths.isEmpty())
                return usageError(u"no file is given"_s);
            break;
        case Command::Help:
        case Command::Version:
            break;
        }
        // Chosen entries never change what becomes of the archive they came from.
        if (!m_result.entries.isEmpty() && m_result.fate && *m_result.fate != CVTerminalArguments::Fate::Keep)
            return usageError(
                u"“--entry” extracts a part only, so the archive is kept: leave “--after” out"_s);
        return m_result;
    }

    const QStringList &m_words;
    CVTerminalArguments m_result;
};

} // namespace

LXResult<CVTerminalArguments> CVTerminalArguments::parse(const QStringList &words)
{
    return Parser(words).run();
}

QString CVTerminalArguments::help()
{
    return uR"(Corvane opens archives.

  corvane FILE…                     extract the archives FILE…
  corvane extract [options] ARCHIVE…
        --to DIR                    put the results into DIR, which is made if it is missing
                                    (otherwise: where the settings say, at first beside the archive)
        --entry PATH                only this entry or folder of the archive; may be repeated
        --after keep|trash|delete   what becomes of an archive that was extracted completely
        --password-file FILE        the password is the content of FILE (- for standard input)
  corvane list [options] ARCHIVE…
        --json                      one JSON object an archive and line
        --password-file FILE        as above
  corvane clean                     remove work folders that a crash left behind
  corvane --help | --version

After “--” every word is a file name. A password is never taken from the command line: give it by
--password-file, in the environment variable CORVANE_PASSWORD, or type it when asked.

What was extracted is printed on standard output, one path a line; everything else goes to standard
error. Control characters in names are shown escaped. “list” prints a table on a terminal and only
the paths elsewhere. Without a terminal, questions take their safe answer: keep, do not replace, stop.

Exit status: 0 done; 1 failed, nothing produced; 2 wrong use; 3 password missing or wrong;
4 some archives failed, the others were delivered; 130 cancelled.
)"_s;
}
