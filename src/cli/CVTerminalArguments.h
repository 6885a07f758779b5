#pragma once

#include "cli/CVPackOptions.h"
#include "util/LXResult.h"

#include <QString>
#include <QStringList>

#include <optional>

/// What the command line asks for. Parsing looks at nothing but the words (and at which formats can be
/// written): whether a path exists is found out when it is used.
struct CVTerminalArguments
{
    enum class Command {
        Open, ///< files without a command
        Extract,
        List,
        Clean,
        Create,
        Convert,
        Split,
        Combine,
        Help,
        Version,
    };

    /// What becomes of an archive after it was extracted; the numbers are the setting's.
    enum class Fate {
        Keep = 0,
        Trash = 1,
        Delete = 2,
    };

    /// How a file is split.
    struct Split
    {
        double size = 10;
        QString unit = QStringLiteral("MB"); ///< of 1024; "B" counts bytes
        unsigned compression = 0;            ///< 0 none, 1 bzip2, 2 volumes of a 7z archive
        bool checksum = false;
    };

    Command command = Command::Open;
    QStringList paths; ///< as given, in order
    std::optional<QString> destination;
    QStringList entries;
    std::optional<Fate> fate;
    bool json = false;
    bool verbose = false;                ///< log lines too
    bool quiet = false;                  ///< nothing but results, questions and what went wrong
    std::optional<QString> passwordFile; ///< "-" for standard input
    CVPackOptions pack;                  ///< of Create and Convert
    Split split;

    /// `words` without the program's own name. The error's description is one line that names the
    /// word in question.
    static LXResult<CVTerminalArguments> parse(const QStringList &words);

    /// The known command that `word` is most like, when it is much like one; empty otherwise.
    static QString commandLike(const QString &word);

    /// The text of --help.
    static QString help();
};
