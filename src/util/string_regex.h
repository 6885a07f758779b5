#pragma once

#include "util/LXResult.h"

#include <QString>

/// Regular-expression conveniences on strings. All are stateless and may be called from any thread.
/// They compile the pattern on every call: loops over many names keep a static QRegularExpression.

bool isValidRegexPattern(const QString &pattern);

/// At least one match anywhere; patterns anchor themselves. False for a pattern that does not compile.
bool isMatchedByRegexPattern(const QString &text, const QString &pattern, bool caseSensitive = true);

/// In the template "$0" to "$9" stand for the match and its groups, "\" makes the next character plain.
/// An error when the pattern does not compile.
LXResult<QString> stringByReplacingOccurrencesOfRegexPattern(const QString &text, const QString &pattern,
                                                             const QString &replacementTemplate,
                                                             bool caseSensitive = true);
LXResult<QString> stringByReplacingFirstOccurrenceOfRegexPattern(const QString &text, const QString &pattern,
                                                                 const QString &replacementTemplate,
                                                                 bool caseSensitive = true);
