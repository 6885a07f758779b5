#pragma once

#include <QByteArray>
#include <QString>

#include <vector>

/// Decides from an entry's decoded name alone whether and where below the destination it may be
/// written. The one place for this decision; the file system is not looked at.
///
/// - A leading "/" and a drive ("C:/", "C:\") are taken off: the entry becomes relative. Behind a
///   drive with a backslash all backslashes separate, as the writer meant them to.
/// - Empty and "." components are dropped.
/// - Refused: "..", also between backslashes (readers elsewhere take these for separators); a NUL;
///   a name with nothing left, unless it is a folder (then it is the destination itself); a
///   component over 255 bytes; a path over maxPathBytes; a component of ours (".corvane-…").
/// - Everything else is a name, however odd: backslashes, control characters, text direction marks.
///   They are written as stored and shown escaped.
struct CVSafePath
{
    enum class Verdict {
        Write,       ///< `components` is not empty
        Destination, ///< a folder entry that is the destination itself: nothing to do
        Refused,     ///< `reason` says why
    };

    /// NAME_MAX of every Linux file system that matters.
    static constexpr qsizetype maxComponentBytes = 255;
    /// PATH_MAX less room for the destination in front; what is longer no other program could open.
    static constexpr qsizetype maxPathBytes = 3584;

    Verdict verdict = Verdict::Refused;
    std::vector<QByteArray> components; ///< as bytesOfFileName() gives them
    QString reason;                     ///< one sentence, plain words

    static CVSafePath fromName(const QString &name, bool isDirectory);

    /// components joined by "/".
    QByteArray joined() const;
};
