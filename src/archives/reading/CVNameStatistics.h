#pragma once

#include <cstdint>
#include <span>

/// How languages are written, measured once; what CVNameDetection weighs decoded names by.
/// Costs are -2 log2 of a probability, so they are in half bits and add up.

enum class CVScript : std::uint8_t { Latin, Cyrillic, Greek, Hebrew, Arabic, Thai };

/// A language with an alphabet: what a letter costs after another one.
struct CVAlphabetStatistics
{
    const char *language;
    CVScript script;
    int rarity; ///< what it costs that an archive is in this language rather than a great one
    /// Lower case, in the order of the costs; number 0 there is everything else (the end of a word).
    /// Latin alphabets begin with a to z.
    const char16_t *letters;
    /// A row for each first letter and in it a character for each second: A to Z cost 0 to 25, a to f 26
    /// to 31.
    const char *costs;
};

/// Characters that cost the same, in whole bits.
struct CVCharacterTier
{
    int bits;
    const char16_t *characters;
};

/// A language with thousands of characters: what each costs, whatever is beside it.
struct CVCharacterStatistics
{
    const char *language;
    std::span<const CVCharacterTier> tiers;
};

std::span<const CVAlphabetStatistics> cvAlphabetStatistics();
std::span<const CVCharacterStatistics> cvCharacterStatistics();
