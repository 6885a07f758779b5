#include "split/split_names.h"

#include "archives/archive_string.h"
#include "split/split_exceptions.h"
#include "util/LXFileName.h"
#include "util/path_parts.h"

#include <QRegularExpression>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr quint64 letters = 26;

} // namespace

int partCodeLength(quint64 numberOfParts)
{
    if (numberOfParts < 2)
        return static_cast<int>(numberOfParts);
    int length = 0;
    for (quint64 last = numberOfParts - 1; last > 0; last /= letters)
        ++length;
    return length;
}

QString partCode(quint64 number, int length)
{
    QString code(length, u'a');
    quint64 rest = number;
    for (qsizetype at = length; at-- > 0; rest /= letters)
        code[at] = QChar(static_cast<char16_t>(u'a' + rest % letters));
    if (rest > 0 && length > 0) {
        quint64 largest = 0;
        for (int i = 0; i < length; ++i)
            largest = largest * letters + letters - 1;
        throw LXAssertionException("Tried to encode " + std::to_string(number) +
                                   ", but can only encode numbers <= " + std::to_string(largest) +
                                   " in length " + std::to_string(length));
    }
    return code;
}

quint64 partNumber(QStringView code)
{
    quint64 number = 0;
    for (const QChar letter : code)
        number = number * letters + (letter.unicode() - u'a');
    return number;
}

QString partCodeOfPath(const QString &path)
{
    static const QRegularExpression pattern(u"\\.([a-z]+)\\.z?split$"_s);
    return pattern.match(matchableFileName(path)).captured(1);
}

QString splitSetName(const QString &path)
{
    QString name = lastComponent(path);
    name.truncate(name.lastIndexOf(u'.'));
    if (!isCheckSumSplitFile(path))
        name.truncate(name.lastIndexOf(u'.'));
    return name;
}

QStringList partsOfSplitSet(const QStringList &paths, const QString &name)
{
    // The name is a name: with its signs taken for a pattern, a set called "a (1)" would not find itself,
    // and one called "a.b" would take in the parts of "a-b".
    static const QRegularExpression ending(QRegularExpression::anchoredPattern(u"\\.[a-z]+\\.z?split"_s));
    QStringList parts;
    std::ranges::copy_if(paths, std::back_inserter(parts), [&](const QString &path) {
        const QString last = lastComponent(path);
        return last.startsWith(name) && ending.match(last.mid(name.size())).hasMatch();
    });
    return parts;
}

void sortParts(QStringList &parts)
{
    std::ranges::sort(parts, [](const QString &left, const QString &right) {
        const QString leftCode = partCodeOfPath(left);
        const QString rightCode = partCodeOfPath(right);
        if (leftCode.size() != rightCode.size())
            return leftCode.size() < rightCode.size();
        return leftCode == rightCode ? left < right : leftCode < rightCode;
    });
}
