#include "archives/reading/CVNameLikelihood.h"

#include "archives/reading/CVNameStatistics.h"

#include <algorithm>
#include <array>
#include <limits>
#include <optional>
#include <string_view>
#include <vector>

namespace {

// Costs in half bits of what the statistics do not cover.
constexpr int letterOutsideAlphabet = 28; ///< of the language's script
constexpr int letterOfOtherScript = 36;
constexpr int scriptChangeInWord = 24;
constexpr int signBesideLetter = 10; ///< where it is neither an opening nor a closing one
constexpr int signOutOfPlace = 12;
constexpr std::u16string_view openingSigns = u"«“„‘¿¡§№";
constexpr std::u16string_view closingSigns = u"»”’…ªº";
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
constexpr int besideSmallLetter = 14; ///< an East Asian character in one word with Latin ones
constexpr int besideCapital = 4;
constexpr int endOfEastAsian = 4;
constexpr int asciiWeight = 4;      ///< eighths
constexpr int oneLetterWord = 16;   ///< in scripts whose languages have none
constexpr int besideLatinWords = 8; ///< another script in a name that has Latin words too
constexpr int usualLetter = 8;      ///< what a letter of ASCII costs where it is free, likewise the others
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

/// Nothing when there are no statistics for the script.
std::optional<CVScript> scriptOf(QChar c)
{
    switch (c.script()) {
    case QChar::Script_Latin:
        return CVScript::Latin;
    case QChar::Script_Cyrillic:
        return CVScript::Cyrillic;
    case QChar::Script_Greek:
        return CVScript::Greek;
    case QChar::Script_Hebrew:
        return CVScript::Hebrew;
    case QChar::Script_Arabic:
        return CVScript::Arabic;
    case QChar::Script_Thai:
        return CVScript::Thai;
    default:
        return std::nullopt;
    }
}

int signCost(char16_t c)
{
    constexpr std::u16string_view typographicSigns = u"«»“”„‘’‚–—…№°§¿¡\u00A0ªº";
    constexpr std::u16string_view usualSigns = u"©®™€£²³¹½¼±×÷µ•¢¥·´";
    if (typographicSigns.find(c) != typographicSigns.npos)
        return typographic;
    return usualSigns.find(c) != usualSigns.npos ? usualSign : odd;
}

std::uint8_t costOf(char c)
{
    return std::uint8_t(c <= 'Z' ? c - 'A' : c - 'a' + 26);
}

/// a to z and what is none of them.
constexpr size_t asciiCount = 27;
using AsciiPairs = std::array<int, asciiCount * asciiCount>;

/// One language with an alphabet, ready to look letters up.
class Alphabet
{
public:
    explicit Alphabet(const CVAlphabetStatistics &statistics)
        : m_script(statistics.script)
        , m_rarity(statistics.rarity)
        , m_hasOneLetterWords(m_script != CVScript::Hebrew && m_script != CVScript::Arabic &&
                              m_script != CVScript::Thai)
    {
        const std::u16string_view letters(statistics.letters);
        m_count = letters.size() + 1;
        m_base =
            m_script == CVScript::Latin ? char16_t(0) : *std::min_element(letters.begin(), letters.end());
        for (size_t i = 0; i < letters.size(); ++i)
            m_numbers[size_t(letters[i] - m_base)] = std::uint8_t(i + 1);
        m_costs.reserve(m_count * m_count);
        for (const char *next = statistics.costs; *next != '\0'; ++next)
            m_costs.push_back(costOf(*next));
    }

    /// Makes pairs of ASCII cheap or dear by how much likelier they are here than in the others.
    void compareWith(const AsciiPairs &mean)
    {
        for (size_t first = 0; first < asciiCount; ++first) {
            for (size_t second = 0; second < asciiCount; ++second)
                m_ascii[first * asciiCount + second] =
                    std::int8_t(pair(int(first), int(second)) - mean[first * asciiCount + second]);
        }
    }
    void addTo(AsciiPairs &sums) const
    {
        for (size_t first = 0; first < asciiCount; ++first) {
            for (size_t second = 0; second < asciiCount; ++second)
                sums[first * asciiCount + second] += pair(int(first), int(second));
        }
    }

    CVScript script() const { return m_script; }
    int rarity() const { return m_rarity; }
    bool isLatin() const { return m_script == CVScript::Latin; }
    int cost(QStringView text) const;

private:
    int number(char16_t foldedLetter) const
    {
        const size_t at = size_t(foldedLetter) - m_base;
        return foldedLetter >= m_base && at < m_numbers.size() ? m_numbers[at] : 0;
    }
    int pair(int first, int second) const { return m_costs[size_t(first) * m_count + size_t(second)]; }

    CVScript m_script;
    int m_rarity;
    bool m_hasOneLetterWords;
    size_t m_count = 0;
    char16_t m_base = 0;
    std::array<std::uint8_t, 0x180> m_numbers{};
    std::vector<std::uint8_t> m_costs;
    std::array<std::int8_t, asciiCount * asciiCount> m_ascii{};
};

/// A closing sign where nothing can be closed, or an opening one before nothing.
bool isOutOfPlace(QStringView text, qsizetype at)
{
    const char16_t sign = text[at].unicode();
    const bool gapBefore = at == 0 || text[at - 1].isSpace();
    const bool gapAfter = at + 1 == text.size() || text[at + 1].isSpace() || text[at + 1] == u'.';
    const bool closes = closingSigns.find(sign) != closingSigns.npos;
    const bool opens = openingSigns.find(sign) != openingSigns.npos && sign != u'№' && sign != u'§';
    return (closes && gapBefore) || (opens && gapAfter);
}

int Alphabet::cost(QStringView text) const
{
    const bool latin = m_script == CVScript::Latin;
    int sum = 0;
    int asciiSum = 0;
    int before = 0;            // number of the letter before
    bool beforeIsAscii = true; // the beginning counts as ASCII
    bool beforeIsAsciiLetter = false;
    int capitals = 0; // capitals just before
    bool smallBefore = false;
    bool letterBefore = false;
    int wordLength = 0;
    bool strangeSignBefore = false; // a sign that does not stand before words
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text[i];
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
            } else if (latin && beforeIsAscii) {
                asciiSum += m_ascii[size_t(before) * asciiCount + size_t(current)];
            }
        } else if (current != 0) {
            sum += pair(before, current);
            if (!latin && beforeIsAsciiLetter)
                sum += scriptChangeInWord;
        } else if (scriptOf(c) == m_script) {
            sum += letterOutsideAlphabet;
        } else if (letter || c.isMark()) {
            sum += letterOfOtherScript;
        } else {
            sum += signCost(unit);
        }
        const bool sign = !ascii && current == 0 && !letter && !c.isMark();
        if (sign && letterBefore && closingSigns.find(unit) == closingSigns.npos)
            sum += signBesideLetter;
        if (sign && isOutOfPlace(text, i))
            sum += signOutOfPlace;
        if (letter && strangeSignBefore)
            sum += signBesideLetter;
        strangeSignBefore = sign && openingSigns.find(unit) == openingSigns.npos;
        letterBefore = letter;
        if (current == 0 && wordLength == 1 && !m_hasOneLetterWords)
            sum += oneLetterWord;
        wordLength = current == 0 ? 0 : wordLength + 1;
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
        sum += pair(before, 0) - usualWordEnd + (wordLength == 1 && !m_hasOneLetterWords ? oneLetterWord : 0);
    return sum + asciiSum * asciiWeight / 8;
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

    int rarity() const { return 0; }
    bool isLatin() const { return false; }
    int cost(QStringView text) const
    {
        int sum = 0;
        char16_t before = 0;
        for (const QChar c : text) {
            const char16_t unit = c.unicode();
            if (unit >= 0x80)
                sum += m_costs[unit] != 0 ? m_costs[unit] : unlisted(c);
            if ((unit < 0x80) != (before < 0x80))
                sum += unit < 0x80 ? endOfEastAsian + besideLatin(unit) : besideLatin(before);
            before = unit;
        }
        if (before >= 0x80)
            sum += endOfEastAsian;
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
        AsciiPairs mean{};
        int count = 0;
        for (const Alphabet &alphabet : alphabets) {
            if (alphabet.script() == CVScript::Latin) {
                alphabet.addTo(mean);
                ++count;
            }
        }
        for (int &sum : mean)
            sum /= count;
        for (Alphabet &alphabet : alphabets) {
            if (alphabet.script() == CVScript::Latin)
                alphabet.compareWith(mean);
        }
        for (const CVCharacterStatistics &statistics : cvCharacterStatistics())
            characters.emplace_back(statistics);
    }
    std::vector<Alphabet> alphabets;
    std::vector<Characters> characters;
};

/// Small letters of ASCII, the extension aside.
bool hasLatinWords(QStringView name)
{
    const qsizetype dot = name.lastIndexOf(u'.');
    const QStringView stem = dot > 0 ? name.first(dot) : name;
    return std::any_of(stem.begin(), stem.end(),
                       [](QChar c) { return c.unicode() >= u'a' && c.unicode() <= u'z'; });
}

/// Adds up what the names cost in one language each, and at best.
class Tally
{
public:
    explicit Tally(std::span<const QString> names)
        : m_names(names)
        , m_least(names.size(), std::numeric_limits<int>::max())
    {
        for (const QString &name : names)
            m_hasLatinWords.push_back(hasLatinWords(name));
    }

    template <typename Language> void tryLanguage(const Language &language)
    {
        int sum = language.rarity();
        for (size_t i = 0; i < m_names.size(); ++i) {
            int cost = language.cost(m_names[i]);
            if (!language.isLatin() && m_hasLatinWords[i])
                cost += besideLatinWords;
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
    std::vector<bool> m_hasLatinWords;
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

int cvNamesCost(std::span<const QString> names, bool eastAsian)
{
    static const Languages languages;
    Tally tally(names);
    if (eastAsian) {
        for (const Characters &characters : languages.characters)
            tally.tryLanguage(characters);
        return tally.best();
    }
    std::array<int, 6> letters{};
    int all = 0;
    for (const QString &name : names) {
        for (const QChar c : name) {
            const auto script = c.unicode() < 0x80 ? std::nullopt : scriptOf(c);
            if (script) {
                ++letters[size_t(*script)];
                ++all;
            }
        }
    }
    for (const Alphabet &alphabet : languages.alphabets) {
        // Languages of a script that hardly occurs cannot be the best.
        if (letters[size_t(alphabet.script())] * 8 >= all)
            tally.tryLanguage(alphabet);
    }
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
