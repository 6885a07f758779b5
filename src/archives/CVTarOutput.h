#pragma once

#include <QByteArray>
#include <QString>

/// What tar and its compressor say while they create an archive, and what follows from it.
///
/// They run in a pipe whose exit status is that of the compressor alone, so tar's own outcome has to be taken
/// from its words. With environment() it says nothing but complaints and, at the end, the total; it
/// quotes every name, and what is quoted does not count: no name can look like one of its lines.
/// Pieces of lines may come in any sizes. Memory is bounded.
class CVTarOutput
{
public:
    /// TAR_OPTIONS for the tar that is listened to.
    static QString tarOptions();

    /// A piece of output without line ends.
    void add(const QString &piece);

    /// tar came to the end of its archive.
    bool hasTotal() const;
    /// tar says that it left something out or gave up.
    bool hasFailed() const;
    /// The one complaint is that the compressor's result is larger than what went in. It is valid even so.
    bool onlyDidNotShrink() const;
    /// The text in tar's or the compressor's own words, or those of the shell.
    bool says(const char *words) const { return m_words.contains(words); }

    /// The first complaint without the name of the program that made it; empty when there is none.
    QString firstComplaint() const;

private:
    QByteArray m_words; ///< all of it without what is in quotes; its end, where it is long
    bool m_inQuotes = false;
    bool m_escaped = false;
    QString m_beginning; ///< as it came, lines as far as they can be told
};
