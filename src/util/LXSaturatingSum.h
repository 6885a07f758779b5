#pragma once

#include <QtGlobal>

#include <limits>

/// The sum of two sizes, of which either may be a stranger's: the largest number there is instead of an
/// overflow.
[[nodiscard]] inline qint64 saturatingSum(qint64 a, qint64 b)
{
    qint64 sum = 0;
    if (!__builtin_add_overflow(a, b, &sum))
        return sum;
    return a < 0 ? std::numeric_limits<qint64>::min() : std::numeric_limits<qint64>::max();
}
