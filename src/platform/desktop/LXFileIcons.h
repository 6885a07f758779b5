#pragma once

#include <QIcon>
#include <QString>

/// Icons of files by their names alone, so that a list of a million entries of an archive needs nothing but
/// the names. Main thread.
namespace LXFileIcons {

/// The theme's icon for the type of that name, or one of ours. Never null. Remembered by suffix.
QIcon iconForName(const QString &name, bool folder);

} // namespace LXFileIcons
