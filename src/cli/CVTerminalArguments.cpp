#include "cli/CVTerminalArguments.h"

#include <algorithm>
#include <array>
#include <numeric>
#include <set>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

using Command = CVTerminalArguments::Command;

LXError usageError(const QString &text)
{
    return LXError{
        .domain = u"CorvaneErrorDomain"_s, .code = 2, .description = text, .reason = {}, .suggestion = {}};
}

struct CommandName
{
    const char *name;
    Command command;
};

constexpr std::array commandNames = {
    CommandName{"extract", Command::Extract}, CommandName{"list", Command::List},
    CommandName{"create", Command::Create},   CommandName{"convert", Command::Convert},
    CommandName{"split", Command::Split},     CommandName{"combine", Command::Combine},
    CommandName{"clean", Command::Clean},
};

std::optional<Command> commandNamed(const QString &word)
{
    for (const CommandName &known : commandNames) {
        if (word == QLatin1StringView(known.name))
            return known.command;
    }
    return std::nullopt;
}

bool isCommandOfAnotherVersion(const QString &word)
{
    constexpr std::array names = {"install-rar"};
    for (const char *name : names) {
        if (word == QLatin1StringView(name))
            return true;
    }
    return false;
}

QString nameOf(Command command)
{
    for (const CommandName &known : commandNames) {
        if (command == known.command)
            return QString::fromLatin1(known.name);
    }
    return u"corvane"_s;
}

enum class Option {
    Destination,
    Entry,
    Fate,
    Json,
    PasswordFile,
    Format,
    Name,
    Level,
    Encrypt,
    Volume,
    Images,
    Audio,
    Replace,
    Size,
    Unit,
    Compress,
    Checksum,
    Verbose,
    Quiet,
};

enum ForCommands : unsigned {
    ForExtract = 1,
    ForList = 2,
    ForPacking = 4,
    ForSplit = 8,
    ForCombine = 16,
    ForAll = 63,
};

struct OptionRule
{
    const char *name;
    Option option;
    bool takesValue;
    unsigned commands;
};

constexpr std::array optionRules = {
    OptionRule{"--to", Option::Destination, true, ForExtract | ForPacking | ForSplit | ForCombine},
    OptionRule{"--entry", Option::Entry, true, ForExtract},
    OptionRule{"--after", Option::Fate, true, ForExtract},
    OptionRule{"--json", Option::Json, false, ForList},
    OptionRule{"--password-file", Option::PasswordFile, true, ForExtract | ForList | ForPacking},
    OptionRule{"--format", Option::Format, true, ForPacking},
    OptionRule{"--name", Option::Name, true, ForPacking},
    OptionRule{"--level", Option::Level, true, ForPacking},
    OptionRule{"--encrypt", Option::Encrypt, false, ForPacking},
    OptionRule{"--volume", Option::Volume, true, ForPacking},
    OptionRule{"--images", Option::Images, true, ForPacking},
    OptionRule{"--audio", Option::Audio, true, ForPacking},
    OptionRule{"--replace", Option::Replace, false, ForPacking},
    OptionRule{"--size", Option::Size, true, ForSplit},
    OptionRule{"--unit", Option::Unit, true, ForSplit},
    OptionRule{"--compress", Option::Compress, true, ForSplit},
    OptionRule{"--checksum", Option::Checksum, false, ForSplit},
    OptionRule{"--verbose", Option::Verbose, false, ForAll},
    OptionRule{"--quiet", Option::Quiet, false, ForAll},
};

/// How many letters have to be typed, taken away or replaced to make one of the other.
qsizetype distance(const QString &one, const QString &other)
{
    std::vector<qsizetype> row(static_cast<std::size_t>(other.size()) + 1);
    std::iota(row.begin(), row.end(), 0);
    for (qsizetype i = 0; i < one.size(); ++i) {
        qsizetype diagonal = row[0]++;
        for (std::size_t j = 1; j < row.size(); ++j) {
            const qsizetype replaced = diagonal + (one[i] == other[static_cast<qsizetype>(j) - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({replaced, row[j - 1] + 1, diagonal + 1});
        }
    }
    return row.back();
}

/// Empty when none is much like it.
QString nearest(const QString &word, const QStringList &known)
{
    constexpr qsizetype mostSlips = 2;
    QString best;
    qsizetype least = std::min(mostSlips, word.size() / 3) + 1;
    for (const QString &candidate : known) {
        if (const qsizetype slips = distance(word, candidate); slips < least) {
            best = candidate;
            least = slips;
        }
    }
    // "--pass" and "--checksums" are no slips.
    for (const QString &candidate : known) {
        if (best.isEmpty() && word.size() > 3 && (candidate.startsWith(word) || word.startsWith(candidate)))
            best = candidate;
    }
    return best;
}

unsigned maskOf(Command command)
{
    switch (command) {
    case Command::Extract:
        return ForExtract;
    case Command::List:
        return ForList;
    case Command::Create:
    case Command::Convert:
        return ForPacking;
    case Command::Split:
        return ForSplit;
    case Command::Combine:
        return ForCombine;
    case Command::Clean:
    case Command::Open:
    case Command::Help:
    case Command::Version:
        break;
    }
    return ForAll & ~(ForExtract | ForList | ForPacking | ForSplit | ForCombine);
}

/// A whole number from 0 to `most`.
std::optional<int> numberUpTo(int most, const QString &text)
{
    bool ok = false;
    const int number = text.size() <= 2 ? text.toInt(&ok) : 0;
    return ok && number >= 0 && number <= most && text.at(0).isDigit() ? std::optional(number) : std::nullopt;
}

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
                    u"“%1” is not part of this version; see “corvane --help”"_s.arg(m_words.first()));
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
            return unknownOption(name);
        if (!(rule->commands & maskOf(m_result.command)))
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

    LXError unknownOption(const QString &name) const
    {
        QStringList known = {u"--help"_s, u"--version"_s};
        for (const OptionRule &rule : optionRules) {
            if (rule.commands & maskOf(m_result.command))
                known.append(QString::fromLatin1(rule.name));
        }
        const QString like = nearest(name, known);
        return usageError(like.isEmpty() ? u"unknown option “%1”"_s.arg(name)
                                         : u"unknown option “%1”; did you mean “%2”?"_s.arg(name, like));
    }

    std::optional<LXError> apply(const OptionRule &rule, const QString &value)
    {
        // Two different answers to one question are a slip, and with --after a costly one.
        if (m_given.contains(rule.option) && rule.option != Option::Entry && rule.takesValue)
            return usageError(u"the option “%1” is given twice"_s.arg(QLatin1StringView(rule.name)));
        m_given.insert(rule.option);
        CVPackOptions &pack = m_result.pack;
        switch (rule.option) {
        case Option::Destination:
            m_result.destination = value;
            break;
        case Option::Entry:
            m_result.entries.append(value);
            break;
        case Option::Fate:
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
            m_result.passwordFile = value;
            break;
        case Option::Format:
            if (const auto format = CVPackOptions::formatNamed(value))
                pack.format = *format;
            else if (value.compare(u"rar"_s, Qt::CaseInsensitive) == 0)
                return usageError(
                    u"rar archives need the tool “rar”, which is not installed; without it there are %1"_s
                        .arg(CVPackOptions::formats().join(u", "_s)));
            else
                return usageError(u"there is no format “%1”; there are %2"_s.arg(
                    value, CVPackOptions::formats().join(u", "_s)));
            break;
        case Option::Name:
            pack.name = value;
            break;
        case Option::Level:
            return number(rule, value, 9, pack.level);
        case Option::Images:
            return number(rule, value, CVPackOptions::imageFormats, pack.images);
        case Option::Audio:
            return number(rule, value, CVPackOptions::audioFormats, pack.audio);
        case Option::Volume:
            pack.volumeBytes = CVPackOptions::parseSize(value);
            if (!pack.volumeBytes)
                return usageError(
                    u"“--volume” takes a size like 100MB, 1.5GiB or 700000 (bytes), not “%1”"_s.arg(value));
            break;
        case Option::Encrypt:
            pack.encrypt = true;
            break;
        case Option::Replace:
            pack.replace = true;
            break;
        case Option::Checksum:
            m_result.split.checksum = true;
            break;
        case Option::Verbose:
            m_result.verbose = true;
            break;
        case Option::Quiet:
            m_result.quiet = true;
            break;
        case Option::Size:
        case Option::Unit:
        case Option::Compress:
            return applyToSplit(rule.option, value);
        }
        return std::nullopt;
    }

    std::optional<LXError> applyToSplit(Option option, const QString &value)
    {
        CVTerminalArguments::Split &split = m_result.split;
        if (option == Option::Size) {
            bool ok = false;
            split.size = value.toDouble(&ok);
            if (!ok || !(split.size > 0) || split.size > 1e15)
                return usageError(u"“--size” takes a number above 0, not “%1”"_s.arg(value));
        } else if (option == Option::Unit) {
            split.unit = value.toUpper();
            if (!QStringList{u"B"_s, u"KB"_s, u"MB"_s, u"GB"_s}.contains(split.unit))
                return usageError(u"“--unit” takes B, KB, MB or GB, not “%1”"_s.arg(value));
        } else {
            const qsizetype compression = QStringList{u"none"_s, u"bzip2"_s, u"7z"_s}.indexOf(value);
            if (compression < 0)
                return usageError(u"“--compress” takes none, bzip2 or 7z, not “%1”"_s.arg(value));
            split.compression = static_cast<unsigned>(compression);
        }
        return std::nullopt;
    }

    std::optional<LXError> splitProblem() const
    {
        if (m_result.paths.isEmpty())
            return usageError(m_result.command == Command::Split ? u"“split” needs a file"_s
                                                                 : u"“combine” needs a part"_s);
        if (m_result.command == Command::Combine)
            return std::nullopt;
        if (m_result.paths.size() > 1)
            return usageError(
                u"“split” takes one file at a time, and “%1” is a second one"_s.arg(m_result.paths.at(1)));
        if (m_result.split.compression == 2 && m_result.split.checksum)
            return usageError(
                u"volumes of a 7z archive have checksums of their own: leave “--checksum” out"_s);
        if (m_result.split.unit == u"B" && m_result.split.size < 1)
            return usageError(u"a part takes at least one byte"_s);
        return std::nullopt;
    }

    static std::optional<LXError> number(const OptionRule &rule, const QString &value, int most,
                                         std::optional<int> &place)
    {
        place = numberUpTo(most, value);
        if (place)
            return std::nullopt;
        return usageError(u"“%1” takes a number from 0 to %2, not “%3”"_s.arg(QString::fromLatin1(rule.name),
                                                                              QString::number(most), value));
    }

    std::optional<LXError> packingProblem() const
    {
        const QString command = nameOf(m_result.command);
        if (m_result.pack.format.isEmpty())
            return usageError(u"“%1” needs “--format” with one of %2"_s.arg(
                command, CVPackOptions::formats().join(u", "_s)));
        if (m_result.paths.isEmpty())
            return usageError(m_result.command == Command::Create ? u"“create” needs at least one file"_s
                                                                  : u"“convert” needs an archive"_s);
        if (m_result.command == Command::Convert && m_result.paths.size() > 1)
            return usageError(u"“convert” takes one archive at a time, and “%1” is a second one"_s.arg(
                m_result.paths.at(1)));
        if (const auto problem = m_result.pack.problem())
            return usageError(*problem);
        if (m_result.passwordFile && m_result.command == Command::Create && !m_result.pack.encrypt)
            return usageError(u"“--password-file” has no effect without “--encrypt”"_s);
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
        case Command::Create:
        case Command::Convert:
            if (auto error = packingProblem())
                return *error;
            break;
        case Command::Split:
        case Command::Combine:
            if (auto error = splitProblem())
                return *error;
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
    std::set<Option> m_given;
};

} // namespace

LXResult<CVTerminalArguments> CVTerminalArguments::parse(const QStringList &words)
{
    return Parser(words).run();
}

QString CVTerminalArguments::commandLike(const QString &word)
{
    QStringList known;
    for (const CommandName &command : commandNames)
        known.append(QString::fromLatin1(command.name));
    return nearest(word, known);
}

QString CVTerminalArguments::help()
{
    return uR"(Corvane opens archives, makes them, turns one kind into another, and splits and joins large files.

  corvane [FILE…]                   where there is a display: the window, with FILE… in it; elsewhere:
                                    extract archives; pack other files and folders by the settings
  corvane extract [options] ARCHIVE…
        --to DIR                    put the results into DIR, which is made if it is missing
                                    (otherwise: where the settings say, at first beside the archive)
        --entry PATH                only this entry or folder of the archive; may be repeated
        --after keep|trash|delete   what becomes of an archive that was extracted completely
        --password-file FILE        the password is the content of FILE (- for standard input)
  corvane list [options] ARCHIVE…
        --json                      one JSON object an archive and line
        --password-file FILE        as above
  corvane create --format F [options] FILE…
  corvane convert --format F [options] ARCHIVE
        --format F                  zip, 7z, corvane, tar, tar.gz, tar.bz2, tar.Z, or tar.xz (which is
                                    written without compression); rar where its tool is installed
        --name N                    of the new archive (otherwise: that of the file, “Archive” for several)
        --to DIR                    as above
        --level 0-9                 0 none, 9 best; for zip and 7z, and from 1 on for tar.gz and tar.bz2
        --encrypt                   with a password, which is asked for twice; for zip and 7z
        --volume SIZE               in files of this size, together in a folder; for zip and 7z. Bytes, or
                                    with KB, MB, GB (1000) or KiB, MiB, GiB (1024) behind the number
        --images 0-13               for corvane: convert images to jpg of quality 0.6, 0.8, 1.0 (1 to 3),
                                    png, tiff, tga, sgi, psd, pdf, bmp, gif, jp2, exr (4 to 13); 0 does not
        --audio 0-8                 for corvane: convert sound to m4a of 32, 128, 256, 320 kbit/s (1 to 4)
                                    or the same as mp4 (5 to 8); 0 does not
        --replace                   replace an archive that is there already, without a question
        --password-file FILE        for “create --encrypt”: the password of the new archive; for “convert”:
                                    that of ARCHIVE, and with --encrypt also that of the new one
  corvane split [options] FILE
        --size N                    of each part (otherwise 10)
        --unit B|KB|MB|GB           of that number, of 1024 each (otherwise MB)
        --compress none|bzip2|7z    bzip2: the parts together are one bzip2 stream; 7z: volumes of an archive
        --checksum                  with a file of checksums, which “combine” compares
        --to DIR                    as above
  corvane combine [--to DIR] PART…  join the parts of a set, which are looked for beside the one named
  corvane clean                     remove work folders that a crash left behind
  corvane --help | --version

Every command takes --verbose, which also shows what the program writes down about its work, and --quiet,
which leaves out the progress and all notes.
After “--” every word is a file name. A password is never taken from the command line: give it by
--password-file, in the environment variable CORVANE_PASSWORD, or type it when asked.
What the settings hold (level, media, where to) counts where no option says otherwise, and an option counts
for its run only. Encryption is the exception: “create” and “convert” encrypt only with --encrypt.
“convert” leaves images as they are. It never changes ARCHIVE.

What was made is printed on standard output, one path a line; everything else goes to standard
error. Control characters in names are shown escaped. “list” prints a table on a terminal and only
the paths elsewhere. Without a terminal, questions take their safe answer: keep, do not replace; the other
archives are opened after one that fails.

Exit status: 0 done; 1 failed, nothing produced; 2 wrong use; 3 password missing or wrong;
4 some archives failed, the others were delivered, or a new archive was delivered but files changed while
they were packed or entries had to be left out; 130 cancelled.
)"_s;
}
