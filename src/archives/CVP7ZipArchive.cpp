#include "archives/CVP7ZipArchive.h"

#include <QCoreApplication>

QString CVP7ZipArchive::archiveDescription() const
{
    return QCoreApplication::translate("CVArchive", "7-ZIP archive (high compression and encryption)");
}

void CVP7ZipArchive::createCommand()
{
    setStatus(Unsupported);
    createComplete();
}

QString CVZipArchive::archiveDescription() const
{
    return QCoreApplication::translate("CVArchive", "ZIP archive (WinZIP compatible)");
}
