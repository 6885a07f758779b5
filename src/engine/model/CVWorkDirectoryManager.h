#pragma once

#include <QLatin1StringView>
#include <QString>
#include <QStringList>

/// The list of work directories that still have to be removed, in the settings, so that it survives a
/// crash. Any thread; several processes keep one list.
///
/// A registered directory is also locked for as long as the process lives, so that cleaning, here or in
/// another process, can tell what is left over from what a job is using.
class CVWorkDirectoryManager
{
public:
    /// Once the directory has been made.
    static void registerWorkDir(const QString &path);
    /// Once it has been removed (or moved to its final place). The last equal entry goes.
    static void removeWorkDir(const QString &path);

    static QStringList workDirs();
    /// Takes these entries off the list, for the cleaning.
    static void forget(const QStringList &paths);
    /// A job of this or another process is using it.
    static bool isInUse(const QString &path);

    /// ".corvane-": with a unique string after it the name of a work directory.
    static constexpr QLatin1StringView namePrefix() { return QLatin1StringView(".corvane-"); }
    /// The list could have been tampered with, or be damaged: whether this entry names something that
    /// only we make, and so may be removed.
    static bool isWorkDirectoryPath(const QString &path);
};
