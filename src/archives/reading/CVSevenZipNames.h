#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <string_view>

/// A name in bytes; `raw` when some of them did not decode.
struct CVSevenZipName
{
    QByteArray bytes;
    bool raw = false;
};

/// What stood in the archive for a name as the module gives it. The module must run in a UTF-8 locale.
CVSevenZipName cvSevenZipNameBytes(std::wstring_view name);

/// Formats whose names are bytes in whatever charset their writer had.
bool cvSevenZipKeepsNamesAsBytes(const QByteArray &format);

/// The output of one compressed file is called after the archive, whose volumes these are.
QString cvSevenZipNameOfContents(const QStringList &paths);
