#pragma once

#include <QLoggingCategory>

/// Log lines that begin "%s [Line %d] " with the function and the source line, on the target's own
/// category: LX_WARNING(lcJobs, "can't open %s", qUtf8Printable(path));
/// The format must be a literal.
#define LX_DEBUG(category, format, ...)                                                                      \
    qCDebug(category, "%s [Line %d] " format, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
#define LX_WARNING(category, format, ...)                                                                    \
    qCWarning(category, "%s [Line %d] " format, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
