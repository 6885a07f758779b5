#pragma once

#include <QByteArray>
#include <QByteArrayView>

#include <deque>

/// What unar prints while it unpacks, taken apart as it arrives: a result for each entry, in the order of
/// the archive, the password prompt, and what it says about the whole archive.
class CVUnarOutput
{
public:
    struct Result
    {
        QByteArray line;   ///< name and size as printed; only a hint, names may hold anything
        QByteArray reason; ///< why it failed; empty for success
        bool ok = false;
    };

    /// Arbitrary pieces of the output.
    void add(QByteArrayView text);

    /// The program waits for a password. Reset by the next output.
    bool isPrompting() const;

    /// Results not yet taken.
    std::deque<Result> &results() { return m_results; }

    /// Why the archive as a whole could not be read; empty when it could.
    const QByteArray &archiveFailure() const { return m_archiveFailure; }

private:
    void line(QByteArray text);

    QByteArray m_rest;
    QByteArray m_pending; ///< an entry whose result comes after a prompt, on a later line
    QByteArray m_archiveFailure;
    std::deque<Result> m_results;
};
