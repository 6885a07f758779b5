#pragma once

#include "util/LXFileDescriptor.h"
#include "util/LXResult.h"

#include <QLatin1StringView>
#include <QString>
#include <QStringList>

/// Makes and removes the hidden folders that jobs work in, and keeps the list of those that still have to be
/// removed, in the settings. A folder is listed before it is made and until it is gone, so a process may be
/// killed at any moment: what it leaves is on the list. Any thread; several processes keep one list.
///
/// A directory made here is also locked until it is removed or the process ends, so that cleaning, here or in
/// another process, can tell what is left over from what a job is using.
class CVWorkDirectoryManager
{
public:
    /// Lists the directory and makes it, for its owner alone, and the folders above it that are missing. The
    /// error's code is the errno; EEXIST is one. It is then neither listed nor there.
    static LXResult<void> makeWorkDir(const QString &path);
    /// Gives it the access that a new folder has in its place, before it becomes a result itself.
    static void openToOthers(const QString &path);
    /// It is the person's from now on: off the list, and in no use.
    static void keepWorkDir(const QString &path);
    /// Removes it with its contents and takes it off the list; one that is gone already (moved to its final
    /// place) only leaves the list. What cannot be removed is logged and stays listed.
    static void discardWorkDir(const QString &path);

    /// The list alone. The last equal entry goes. An error where there is no memory or no open file for it; a
    /// list that may not be written lives in memory.
    static LXResult<void> registerWorkDir(const QString &path);
    static void removeWorkDir(const QString &path);

    static QStringList workDirs();
    /// Takes these entries off the list, for the cleaning; those that a job has begun to use stay.
    static void forget(const QStringList &paths);
    /// A job of this or another process is using it.
    static bool isInUse(const QString &path);
    /// Keeps jobs from beginning to use it while `claim` is held, for whoever removes it: 0. EWOULDBLOCK when
    /// it is in use, ENOENT when there is nothing.
    static int claimForRemoval(const QString &path, LXFileDescriptor &claim);

    /// ".corvane-": with a unique string after it the name of a work directory.
    static constexpr QLatin1StringView namePrefix() { return QLatin1StringView(".corvane-"); }
    /// The list could have been tampered with, or be damaged: whether this entry names something that
    /// only we make, and so may be removed.
    static bool isWorkDirectoryPath(const QString &path);
};
