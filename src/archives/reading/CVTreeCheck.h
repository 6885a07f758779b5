#pragma once

#include <QByteArray>
#include <QSet>
#include <QString>

#include <functional>

/// Answers whether a tree that somebody else's program has unpacked could just as well have been unpacked
/// by our own reader: nothing is in it that the reader would have refused, changed or reported.
///
/// Not so are: set-user, set-group and sticky bits; modes that keep the owner out; devices, FIFOs, sockets;
/// files with more names than the tree holds; mount points; symbolic links that lead out of what is delivered
/// (the folder, or the single folder in it), end in a circle, or through which something may have been
/// written; names that are not UTF-8, hold control characters or backslashes, or look like a drive.
///
/// The tree is walked by descriptors and no link in it is followed. Thread: any; nobody else may be changing
/// the tree.
struct CVTreeCheck
{
    bool clean = false;
    QString reason; ///< for the log; empty when clean

    /// `writtenFolders`: the folders that the program says it wrote into, relative to the tree, without "."
    /// components; nothing when it did not say, and then no link to a folder is accepted.
    static CVTreeCheck check(const QString &folder, const QSet<QByteArray> *writtenFolders,
                             const std::function<bool()> &shouldStop);
};
