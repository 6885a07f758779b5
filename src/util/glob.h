#pragma once

#include <QString>
#include <QStringList>

/// Full paths in `directory` (a leading "~" is the home folder) whose names match the shell pattern,
/// sorted by name; empty on an error or without a match. Only the pattern is a pattern: a "[" or "*"
/// in the directory stands for itself. Any thread; reads the disk.
QStringList arrayWithFilesMatchingPattern(const QString &pattern, const QString &directory);
