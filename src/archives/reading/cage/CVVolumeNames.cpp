#include "archives/reading/cage/CVVolumeNames.h"

#include <QString>

#include <algorithm>

namespace {

enum Family : unsigned {
    Numbered = 1,
    Rar = 2,
    RarParts = 4,
    Arj = 8,
    Zip = 16,
    Cabinets = 32,
};

bool areDigits(QStringView text)
{
    return std::all_of(text.begin(), text.end(), [](QChar c) { return c >= u'0' && c <= u'9'; });
}

/// What a name is a part of: the kinds of sets, and what is common to all names of such a set.
struct Part
{
    unsigned families = 0;
    QString stem;
};

Part partOf(QStringView name)
{
    const QString folded = name.toString().toCaseFolded();
    const qsizetype dot = folded.lastIndexOf(u'.');
    if (dot <= 0)
        return {};
    const QStringView extension = QStringView(folded).mid(dot + 1);
    Part part{0, folded.left(dot)};
    const auto is = [&extension](QLatin1StringView text) { return extension == text; };
    if (is(QLatin1StringView("rar")) || is(QLatin1StringView("exe"))) {
        // stem.part07.rar
        qsizetype digits = part.stem.size();
        while (digits > 0 && part.stem.at(digits - 1).isDigit())
            --digits;
        if (digits < part.stem.size() && QStringView(part.stem).left(digits).endsWith(u".part"))
            return {RarParts, part.stem.left(digits)};
    }
    if (is(QLatin1StringView("cab"))) {
        // disk1.cab, set_1.cab: it says itself what the next one is called.
        part.stem.removeIf([](QChar c) { return c.isDigit(); });
        return {Cabinets, part.stem};
    }
    if (is(QLatin1StringView("rar")))
        part.families = Rar;
    else if (is(QLatin1StringView("arj")))
        part.families = Arj;
    else if (is(QLatin1StringView("zip")) || is(QLatin1StringView("zipx")))
        part.families = Zip;
    else if (is(QLatin1StringView("exe")) || is(QLatin1StringView("sfx")))
        part.families = Rar | Arj | Zip;
    else if (extension.size() >= 2 && extension.size() <= 6 && areDigits(extension))
        part.families = Numbered;
    else if (extension.size() >= 3 && extension.size() <= 4 && areDigits(extension.mid(1))) {
        const QChar letter = extension.front();
        part.families = (letter >= u'r' && letter <= u'z' ? Rar : 0U) | (letter == u'a' ? Arj : 0U) |
                        (letter == u'z' ? Zip : 0U);
    } else if (extension.startsWith(u"zx") && extension.size() >= 4 && extension.size() <= 5 &&
               areDigits(extension.mid(2)))
        part.families = Zip;
    return part;
}

} // namespace

bool cvIsVolumeName(QStringView archive, QStringView name)
{
    if (name.isEmpty() || name == u"." || name == u".." || name.contains(u'/') || name.contains(QChar(0)))
        return false;
    const Part first = partOf(archive);
    const Part other = partOf(name);
    return (first.families & other.families) != 0 && first.stem == other.stem;
}
