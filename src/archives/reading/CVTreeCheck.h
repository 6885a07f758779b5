#pragma once

#include <QByteArray>
#include <QString>

#include <chrono>
#include <functional>

/// Answers whether a tree that somebody else's program has unpacked could just as well have been unpacked
/// by our own reader: nothing is in it that the reader would have refused, changed or reported.
///
/// Not so are: set-user, set-group and sticky bits; modes that keep the owner out; devices, FIFOs, sockets;
/// files with more names than the tree holds; mount points; symbolic links that lead out of what is delivered
/// (the folder, or the single folder in it), end in a circle, or lead to a folder, through which something
/// may have been written; names that are not UTF-8, hold control characters or backslashes, or look like a
/// drive.
///
/// The tree is walked by descriptors and no link in it is followed. Thread: any; nobody else may be changing
/// the tree.
struct CVTreeCheck
{
    bool clean = false;
    QString reason; ///< for the log; empty when clean

    static CVTreeCheck check(const QString &folder, const std::function<bool()> &shouldStop);

    /// Counts what somebody else's program has written into a folder, while it writes.
    class Growth
    {
    public:
        explicit Growth(const QString &folder)
            : m_folder(folder)
        {}

        /// What the files take on the disk. Counted anew only as often as that costs little.
        qint64 bytes();

    private:
        QString m_folder;
        qint64 m_bytes = 0;
        std::chrono::steady_clock::time_point m_due = {};
    };
};
