#include "platform/LXDesktopFolders.h"

#include <QDir>
#include <QStandardPaths>

QString LXDesktopFolders::desktopFolder()
{
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::DesktopLocation);
    return folder.isEmpty() ? homeFolder() : QDir::cleanPath(folder);
}

QString LXDesktopFolders::homeFolder()
{
    return QDir::homePath();
}

QString LXDesktopFolders::temporaryFolder()
{
    return QDir::tempPath();
}
