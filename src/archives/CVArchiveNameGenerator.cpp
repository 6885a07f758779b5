#include "archives/CVArchiveNameGenerator.h"

#include "filetree/CVFileNode.h"

#include <QCoreApplication>

QString CVArchiveNameGenerator::defaultArchiveNameForFiles(const CVFileNode &files)
{
    const auto children = files.children();
    // No file system here marks an extension as hidden, so it stays.
    return children.size() == 1 ? children.front()->target() : fallbackName();
}

QString CVArchiveNameGenerator::fallbackName()
{
    const QString text = QCoreApplication::translate("Corvane", "ArchiveName.Archive");
    // The key is no text for people: without a translation it is replaced by its default.
    return text == QLatin1StringView("ArchiveName.Archive") ? QStringLiteral("Archive") : text;
}
