#pragma once

#include <QString>

/// Zip archives with more entries than anybody looks at.
namespace ManyEntries {

enum class Shape {
    Folders, ///< a thousand files in each folder
    Flat,    ///< all of them at the top
};

/// Writes stored files of a few bytes, numbered, in no order, under names of many kinds. False when it cannot
/// be written.
bool writeZip(const QString &path, int files, Shape shape);

/// How many rows are at the top of it, and how many entries are in it with the folders.
int topCount(int files, Shape shape);
int totalCount(int files, Shape shape);

} // namespace ManyEntries
