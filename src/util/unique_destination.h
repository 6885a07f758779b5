#pragma once

#include "util/LXResult.h"

#include <QString>

#include <functional>
#include <stop_token>

/// The name itself for a counter of 1, else "photos 2.zip": the counter goes before the last extension,
/// and the name is cut to what a file system takes.
QString nameWithCounter(const QString &name, int counter);

/// directory/name when nothing is there, else the first free of "photos 2.zip", "photos 3.zip", …
/// (the counter goes before the last extension). A link whose target is gone counts as something.
/// Only an answer for the moment: to put a file there use moveToUniqueDestination().
QString findUniqueDestinationForFile(const QString &name, const QString &directory);

/// Moves the item to that place and gives its path. Nothing that appears there meanwhile is ever
/// replaced: the move itself fails then and the next name is tried. Across file systems the item is
/// copied completely beside the destination first. Folders that forbid writing keep their mode.
/// An error (errno as code, domain "NSPOSIXErrorDomain") leaves the source where it was and nothing at
/// the destination. Any thread, not the main one.
LXResult<QString> moveToUniqueDestination(const QString &source, const QString &directory,
                                          const QString &name);

/// For those who wait for a move. Only one that has to copy takes any time.
struct LXMoveWatch
{
    std::stop_token stop = {};
    /// Bytes; called on the thread that moves.
    std::function<void(double done, double total)> progress = {};
};

/// The same under this name and no other: EEXIST when something is there, which stays as it is. A stop
/// (ECANCELED) takes effect while it copies, and leaves everything as it was.
LXResult<QString> moveToDestination(const QString &source, const QString &directory, const QString &name,
                                    const LXMoveWatch &watch = {});
