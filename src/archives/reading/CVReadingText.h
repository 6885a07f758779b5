#pragma once

#include <QCoreApplication>
#include <QString>

/// A text for the person, in the context shared by the readers.
inline QString readingText(const char *source)
{
    return QCoreApplication::translate("XADArchive", source);
}
