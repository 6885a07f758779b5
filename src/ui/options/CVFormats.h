#pragma once

#include <QIcon>
#include <QString>

#include <span>

/// The formats that can be chosen for a new archive. Each has a tag, the number of its button, and is known
/// by its extension. Main thread.
namespace CVFormats {

constexpr int rarTag = 3;

/// Null for a number without a format.
QString formatForTag(int tag);
/// -1 for a format without a button.
int tagForFormat(const QString &format);
QString nameForTag(int tag);
QIcon iconForTag(int tag);
/// The tags of the buttons of the bar, in order. One stands there twice.
std::span<const int> barTags();
/// Cannot be written without compressing.
bool isAlwaysCompressed(const QString &format);

} // namespace CVFormats
