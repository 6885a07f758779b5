#pragma once

#include <QByteArrayView>
#include <QString>

#include <span>

/// How unlikely it is that people call files so, in half bits: the cost of the texts in the language
/// that suits them best. Characters of ASCII are free, except beside others, so the texts that the
/// same bytes give in different charsets can be compared. `eastAsian` says that the charset was made
/// for such a language, and that the text is in one; the alphabets it has beside are not looked for.
int cvNamesCost(std::span<const QString> names, bool eastAsian);

/// What the bytes of ASCII in it would have cost. In a charset that uses them inside of its other
/// characters they are explained by these, so the difference is to be taken off.
int cvAsciiCost(QByteArrayView bytes);
int cvAsciiCost(QStringView text);
