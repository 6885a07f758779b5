#pragma once

#include <QStringView>

/// Whether a file called `name` can be a volume of the set that the file called `archive` belongs to:
/// numbered parts, .rar and .r00, .part1.rar, .arj and .a01, .zip and .z01,
/// cabinets that differ in their numbers, with programs among the first of
/// them. Neither name has a folder. The question comes from a reader, that is from whoever made the archive,
/// and a yes lets it read that file.
bool cvIsVolumeName(QStringView archive, QStringView name);
