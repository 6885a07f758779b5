#include "util/string_regex.h"

#include "util/LXFileName.h"

#include <QRegularExpression>

namespace {

QRegularExpression compiled(const QString &pattern, bool caseSensitive)
{
    return QRegularExpression(pattern, caseSensitive ? QRegularExpression::NoPatternOption
                                                     : QRegularExpression::CaseInsensitiveOption);
}

QString filled(const QString &replacementTemplate, const QRegularExpressionMatch &match)
{
    QString result;
    for (qsizetype i = 0; i < replacementTemplate.size(); ++i) {
        const QChar c = replacementTemplate.at(i);
        const QChar next = i + 1 < replacementTemplate.size() ? replacementTemplate.at(i + 1) : QChar();
        if (c == u'\\' && !next.isNull()) {
            result += next;
            ++i;
        } else if (c == u'$' && next >= u'0' && next <= u'9') {
            result += match.captured(next.unicode() - u'0');
            ++i;
        } else {
            result += c;
        }
    }
    return result;
}

enum class Which { First, All };

LXResult<QString> replaced(const QString &text, const QString &pattern, const QString &replacementTemplate,
                           bool caseSensitive, Which which)
{
    const QRegularExpression expression = compiled(pattern, caseSensitive);
    if (!expression.isValid()) {
        return LXError{.domain = QStringLiteral("CorvaneErrorDomain"),
                       .code = 1,
                       .description = QStringLiteral("The pattern “%1” is not valid.").arg(pattern),
                       .reason = expression.errorString(),
                       .suggestion = {}};
    }
    QString result;
    qsizetype copied = 0;
    auto matches = expression.globalMatch(text);
    while (matches.hasNext()) {
        const QRegularExpressionMatch match = matches.next();
        result += QStringView(text).mid(copied, match.capturedStart() - copied);
        result += filled(replacementTemplate, match);
        copied = match.capturedEnd();
        if (which == Which::First)
            break;
    }
    result += QStringView(text).mid(copied);
    return result;
}

} // namespace

bool isValidRegexPattern(const QString &pattern)
{
    return QRegularExpression(pattern).isValid();
}

bool isMatchedByRegexPattern(const QString &text, const QString &pattern, bool caseSensitive)
{
    const QRegularExpression expression = compiled(pattern, caseSensitive);
    return expression.isValid() && expression.match(matchableFileName(text)).hasMatch();
}

LXResult<QString> stringByReplacingOccurrencesOfRegexPattern(const QString &text, const QString &pattern,
                                                             const QString &replacementTemplate,
                                                             bool caseSensitive)
{
    return replaced(text, pattern, replacementTemplate, caseSensitive, Which::All);
}

LXResult<QString> stringByReplacingFirstOccurrenceOfRegexPattern(const QString &text, const QString &pattern,
                                                                 const QString &replacementTemplate,
                                                                 bool caseSensitive)
{
    return replaced(text, pattern, replacementTemplate, caseSensitive, Which::First);
}
