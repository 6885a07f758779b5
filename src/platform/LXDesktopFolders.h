#pragma once

#include <QString>

/// Folders that the desktop names. Any thread; looked up at every call.
namespace LXDesktopFolders {

/// The person's Desktop folder as configured; the home folder where there is none.
QString desktopFolder();

QString homeFolder();

/// Without a slash at the end.
QString temporaryFolder();

} // namespace LXDesktopFolders
