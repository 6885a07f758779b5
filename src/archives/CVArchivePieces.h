#pragma once

#include <QByteArray>
#include <QString>

#include <set>

/// The files that a tool makes on its way to one archive: the archive itself, its volumes (.001, .002, …
/// behind the name) and what they are called until they are complete (.tmp behind that).
/// Thread: bytes() and remove() are independent of each other; each of them on one thread at a time.
class CVArchivePieces
{
public:
    CVArchivePieces() = default;
    /// Looks at what is there before the tool starts, which belongs to somebody else.
    explicit CVArchivePieces(const QString &archivePath);

    /// How much has been written so far; below zero while there is nothing. Looks at a few files only,
    /// however many volumes there are.
    qint64 bytes();

    /// Removes what has come since the construction. False when something is still there.
    bool remove() const;

private:
    std::set<QByteArray> present() const;

    QByteArray m_folder;
    QByteArray m_name;
    std::set<QByteArray> m_before;
    int m_volume = 1; ///< the one that is being written
    qint64 m_volumesBefore = 0;
};
