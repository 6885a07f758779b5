#pragma once

#include <QLatin1StringView>
#include <QString>
#include <QStringList>

/// Entries that were taken out of archives only to be looked at: opened from the preview, shown in the small
/// panel, dragged to another program. Each lies in a work directory of its own, which goes when nobody looks
/// any more, at the latest with the program, or with the next start when this one crashed; unless the person
/// has changed something in it, for then it is the only copy. A file in the directory says when the entries
/// were whole: what the person changes is newer. Any thread; reads and writes the disk.
class CVOpenedEntries
{
public:
    /// A work directory that is about to be filled. False when nothing can be written there.
    static bool willFill(const QString &folder);
    /// All of it is there; what changes from now on was changed by the person.
    static void wereDelivered(const QString &folder);
    /// True as well where that cannot be found out.
    static bool wereChanged(const QString &folder);
    /// Whether it is such a directory.
    static bool isOne(const QString &folder);

    /// Nobody looks any more. False when it was changed: then it stays, and is on no list.
    static bool letGo(const QString &folder);
    /// Of this process, at its end: those that stay.
    static QStringList letGoOfAll();
    /// Of processes that are gone, at the start: those that stay.
    static QStringList letGoOfLeftOvers();

    /// For people: title and text about those that stay.
    static QString titleAboutKept();
    static QString textAboutKept(const QStringList &folders);

    /// No entry of an archive can have such a name.
    static constexpr QLatin1StringView markName() { return QLatin1StringView(".corvane-opened"); }
};
