#pragma once

#include "archives/reading/XADArchive.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <stop_token>

class CVTerminal;
class CVTerminalPasswords;

/// `corvane list`: prints what is in archives, one archive after another, as a table, as bare paths
/// or as JSON. Goes over the entries without building a tree, so that a million of them cost little
/// more than the reader's own table.
///
/// Thread: one worker. The terminal and the passwords are borrowed.
class CVListCommand final : private XADArchiveDelegate
{
public:
    enum class Form {
        Table, ///< size, time and name, with a headline an archive
        Paths, ///< one path a line
        Json,  ///< one object an archive and line
    };

    CVListCommand(CVTerminal &terminal, CVTerminalPasswords &passwords, Form form);

    /// The process's exit status.
    int run(const QStringList &paths, std::stop_token stop);

private:
    enum class Outcome { Listed, Failed, NoPassword, Stopped, OutputGone };

    Outcome list(const QString &path);
    std::unique_ptr<XADArchive> open(const QString &path, Outcome &outcome);
    bool print(const QString &path, XADArchive &archive);
    void appendJsonEntry(XADArchive &archive, int index);
    void appendTableEntry(XADArchive &archive, int index);
    bool flush(qsizetype from);

    void archiveNeedsPassword(XADArchive &archive) override;
    void archiveExtractionProgressBytes(XADArchive &archive, qint64 done, qint64 total) override;
    XADAction archiveExtractionOfEntryDidFail(XADArchive &archive, int entry, XADErrorCode error) override;
    bool archiveExtractionShouldStop(XADArchive &archive) override;

    CVTerminal &m_terminal;
    CVTerminalPasswords &m_passwords;
    const Form m_form;
    std::stop_token m_stop;
    QByteArray m_buffer;
    bool m_printedBefore = false;

    // Of the archive being opened.
    QString m_path;
    bool m_asked = false;         ///< the reader wanted a password in this round
    bool m_lastWasWrong = false;  ///< the round before had one that did not fit
    bool m_passwordLacks = false; ///< it wanted one and there was none
};
