#include "archives/reading/CVNameLikelihood.h"

#include "archives/reading/CVNameStatistics.h"

#include <algorithm>
#include <array>
#include <limits>
#include <string_view>
#include <vector>

namespace {

// Costs in half bits of what the statistics do not cover.
constexpr int letterOutsideAlphabet = 28; ///< of the language's script
constexpr int letterOfOtherScript = 36;
constexpr int scriptChangeInWord = 10;
constexpr int capitalAfterSmall = 14;
constexpr int smallAfterCapitals = 8; ///< two capitals, then a small one
constexpr int capital = 3;
constexpr int typographic = 22; ///< quotation marks, dashes, №
constexpr int usualSign = 28;   ///< ©, €, ²
constexpr int odd = 40;         ///< box drawing, mathematics, anything else
constexpr int rareIdeograph = 34;
constexpr int rareKanaOrForm = 24;
constexpr int rareHangul = 36;
constexpr int halfWidthKana = 24;
constexpr int accentInEastAsian = 38;
constexpr int otherLanguage = 12;     ///< a name in another language than the rest
constexpr int besideSmallLetter = 10; ///< an East Asian character in one word with Latin ones
constexpr int besideCapital = 4;
constexpr int usualLetter = 8; ///< what a letter of ASCII costs where it is free, likewise the others
constexpr int usualWordEnd = 4;

char16_t folded(QChar c)
{
    // Its small form is the ASCII letter, which only Turkish means.
    if (c == QChar(0x130))
        return 0x130;
    return c.toLower().unicode();
}

bool isAsciiLetter(char16_t c)
{
    return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z');
}

bool isHalfWidthKana(char16_t c)
{
    return c >= 0xFF61 && c <= 0xFF9F;
}

bool isEastAsian(char16_t c)
{
    return (c >= 0x2E80 && c <= 0xD7FF) || (c >= 0xF900 && c <= 0xFAFF) || (c >= 0xFF00 && c <= 0xFFEF) ||
           QChar::isSurrogate(c);
}

/// -1 when the character is of no script that there are statistics for.
int scriptOf(QChar c)
{
    switch (c.script()) {
    case QChar::Script_Latin:
        return int(CVScript::Latin);
    case QChar::Script_Cyrillic:
        return int(CVScript::Cyrillic);
    case QChar::Script_Greek:
        return int(CVScript::Greek);
    case QChar::Script_Hebrew:
        return int(CVScript::Hebrew);
    case QChar::Script_Arabic:
        return int(CVScript::Arabic);
    case QChar::Script_Thai:
        return int(CVScript::Thai);
    default:
        return isEastAsian(c.unicode()) ? int(CVScript::EastAsian) : -1;
    }
}

int signCost(char16_t c)
{
    constexpr std::u16string_view typographicSigns = u"«»“”„‘’‚–—…№°§´·¿¡\u00A0ªº";
    constexpr std::u16string_view usualSigns = u"©®™€£²³¹½¼±×÷µ•¢¥";
    if (typographicSigns.find(c) != typographicSigns.npos)
        return typographic;
    return usualSigns.find(c) != usualSigns.npos ? usualSign : odd;
}

std::uint8_t costOf(char c)
{
    return std::uint8_t(c <= 'Z' ? c - 'A' : c - 'a' + 26);
}

/// One language with an alphabet, ready to look letters up.
class Alphabet
{
public:
    explicit Alphabet(const CVAlphabetStatistics &statistics)
        : m_script(statistics.script)
    {
        const std::u16string_view letters(statistics.letters);
        m_count = letters.size() + 1;
        m_base =
            m_script == CVScript::Latin ? char16_t(0) : *std::min_element(letters.begin(), letters.end());
        for (size_t i = 0; i < letters.size(); ++i)
            m_numbers[size_t(letters[i] - m_base)] = std::uint8_t(i + 1);
        const size_t inAscii = m_script == CVScript::Latin ? 27 : 0;
        m_costs.assign(m_count * m_count, 0);
        const char *next = statistics.costs;
        for (size_t first = 0; first < m_count; ++first) {
            for (size_t second = first < inAscii ? inAscii : 0; second < m_count; ++second)
                m_costs[first * m_count + second] = costOf(*next++);
        }
    }

    CVScript script() const { return m_script; }
    int cost(QStringView text) const;

private:
    int number(char16_t foldedLetter) const
    {
        const size_t at = size_t(foldedLetter) - m_base;
        return foldedLetter >= m_base && at < m_numbers.size() ? m_numbers[at] : 0;
    }
    int pair(int first, int second) const { return m_costs[size_t(first) * m_count + size_t(second)]; }

    CVScript m_script;
    size_t m_count = 0;
    char16_t m_base = 0;
    std::array<std::uint8_t, 0x180> m_numbers{};
    std::vector<std::uint8_t> m_costs;
};

int Alphabet::cost(QStringView text) const
{
    const bool latin = m_script == CVScript::Latin;
    int sum = 0;
    int before = 0;            // number of the letter before
    bool beforeIsAscii = true; // the beginning counts as ASCII
    bool beforeIsAsciiLetter = false;
    int capitals = 0; // capitals just before
    bool smallBefore = false;
    for (const QChar c : text) {
        const char16_t unit = c.unicode();
        const bool ascii = unit < 0x80;
        const char16_t small = folded(c);
        // Ukrainian in a code page without its i is written with the Latin one.
        const bool standIn = m_script == CVScript::Cyrillic && small == u'i' && before != 0;
        const int current = standIn ? before : number(small);
        const bool letter = isAsciiLetter(unit) || (!ascii && c.isLetter());
        if (ascii) {
            if (!beforeIsAscii && before != 0 && !standIn) {
                sum += pair(before, current) - (current != 0 ? usualLetter : usualWordEnd);
                if (!latin && isAsciiLetter(unit))
                    sum += scriptChangeInWord;
            }
        } else if (current != 0) {
            sum += pair(before, current);
            if (!latin && beforeIsAsciiLetter)
                sum += scriptChangeInWord;
        } else if (scriptOf(c) == int(m_script)) {
            sum += letterOutsideAlphabet;
        } else if (letter || c.isMark()) {
            sum += letterOfOtherScript;
        } else {
            sum += signCost(unit);
        }
        const bool isCapital = c.isUpper();
        if (isCapital && (!ascii || !beforeIsAscii)) {
            sum += smallBefore ? capitalAfterSmall : 0;
            sum += ascii ? 0 : capital;
        } else if (letter && !isCapital && capitals >= 2 && (!ascii || !beforeIsAscii)) {
            sum += smallAfterCapitals;
        }
        smallBefore = letter && c.isLower();
        capitals = isCapital ? capitals + 1 : 0;
        before = current;
        beforeIsAscii = ascii && !standIn;
        beforeIsAsciiLetter = isAsciiLetter(unit) && !standIn;
    }
    if (!beforeIsAscii && before != 0)
        sum += pair(before, 0) - usualWordEnd;
    return sum;
}

/// One language with thousands of characters.
class Characters
{
public:
    explicit Characters(const CVCharacterStatistics &statistics)
        : m_costs(0x10000, std::uint8_t(0))
    {
        for (const CVCharacterTier &tier : statistics.tiers) {
            for (const char16_t c : std::u16string_view(tier.characters))
                m_costs[c] = std::uint8_t(2 * tier.bits);
        }
    }

    int cost(QStringView text) const
    {
        int sum = 0;
        char16_t before = 0;
        for (const QChar c : text) {
            const char16_t unit = c.unicode();
            if (unit >= 0x80)
                sum += m_costs[unit] != 0 ? m_costs[unit] : unlisted(c);
            if ((unit < 0x80) != (before < 0x80))
                sum += besideLatin(unit < 0x80 ? unit : before);
            before = unit;
        }
        return sum;
    }

private:
    static int besideLatin(char16_t c)
    {
        if (!isAsciiLetter(c))
            return 0;
        return c >= u'a' ? besideSmallLetter : besideCapital;
    }

    static int unlisted(QChar c)
    {
        const char16_t unit = c.unicode();
        if (isHalfWidthKana(unit))
            return halfWidthKana;
        if ((unit >= 0x3000 && unit < 0x3100) || (unit >= 0xFF00 && unit <= 0xFF5E))
            return rareKanaOrForm;
        if (unit >= 0xAC00 && unit <= 0xD7A3)
            return rareHangul;
        if (isEastAsian(unit))
            return rareIdeograph;
        return c.isLetter() ? accentInEastAsian : signCost(unit);
    }

    std::vector<std::uint8_t> m_costs;
};

struct Languages
{
    Languages()
    {
        for (const CVAlphabetStatistics &statistics : cvAlphabetStatistics())
            alphabets.emplace_back(statistics);
        for (const CVCharacterStatistics &statistics : cvCharacterStatistics())
            characters.emplace_back(statistics);
    }
    std::vector<Alphabet> alphabets;
    std::vector<Characters> characters;
};

/// Adds up what the names cost in one language each, and at best.
class Tally
{
public:
    explicit Tally(std::span<const QString> names)
        : m_names(names)
        , m_least(names.size(), std::numeric_limits<int>::max())
    {}

    template <typename Language> void tryLanguage(const Language &language)
    {
        int sum = 0;
        for (size_t i = 0; i < m_names.size(); ++i) {
            const int cost = language.cost(m_names[i]);
            m_least[i] = std::min(m_least[i], cost);
            sum += cost;
        }
        m_best = std::min(m_best, sum);
    }

    int best() const
    {
        int mixed = otherLanguage;
        for (const int cost : m_least)
            mixed += cost == std::numeric_limits<int>::max() ? 0 : cost + otherLanguage;
        return std::min(m_best, mixed);
    }

private:
    std::span<const QString> m_names;
    std::vector<int> m_least;
    int m_best = std::numeric_limits<int>::max();
};

int asciiCost(char16_t c)
{
    constexpr std::u16string_view frequentSigns = u" ._-";
    if (c >= 0x80)
        return 0;
    if ((c >= u'a' && c <= u'z') || (c >= u'0' && c <= u'9') || frequentSigns.find(c) != frequentSigns.npos)
        return 8;
    return isAsciiLetter(c) ? 10 : 18;
}

} // namespace

int cvNamesCost(std::span<const QString> names)
{
    static const Languages languages;
    std::array<int, 7> letters{};
    int all = 0;
    for (const QString &name : names) {
        for (const QChar c : name) {
            const int script = c.unicode() < 0x80 ? -1 : scriptOf(c);
            if (script >= 0) {
                ++letters[size_t(script)];
                ++all;
            }
        }
    }
    // Languages of a script that hardly occurs cannot be the best.
    const auto matters = [&letters, all](CVScript script) { return letters[size_t(script)] * 8 > all; };
    Tally tally(names);
    bool tried = false;
    for (const Alphabet &alphabet : languages.alphabets) {
        if (matters(alphabet.script())) {
            tally.tryLanguage(alphabet);
            tried = true;
        }
    }
    if (matters(CVScript::EastAsian)) {
        for (const Characters &characters : languages.characters)
            tally.tryLanguage(characters);
        tried = true;
    }
    if (!tried)
        tally.tryLanguage(languages.alphabets.front());
    return tally.best();
}

int cvAsciiCost(QByteArrayView bytes)
{
    int sum = 0;
    for (const char c : bytes)
        sum += asciiCost(static_cast<unsigned char>(c));
    return sum;
}

int cvAsciiCost(QStringView text)
{
    int sum = 0;
    for (const QChar c : text)
        sum += asciiCost(c.unicode());
    return sum;
}
