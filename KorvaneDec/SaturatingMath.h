#pragma once

#include <QtNumeric>

#include <limits>

// Timestamp and byte arithmetic on values a damaged file controls: results
// that do not fit stick at the type's limits instead of overflowing.
namespace Korvane {

inline qint64 saturatingAdd(qint64 a, qint64 b)
{
    qint64 result;
    if (qAddOverflow(a, b, &result)) {
        return b > 0 ? std::numeric_limits<qint64>::max() : std::numeric_limits<qint64>::min();
    }
    return result;
}

// a + (b - c) + d, saturated once at the end: saturating each step would let
// an intermediate that does not fit (while the whole does) skew the result.
inline qint64 saturatingRunOn(qint64 a, qint64 b, qint64 c, qint64 d)
{
    const __int128 whole = __int128(a) + (__int128(b) - c) + d;
    if (whole > std::numeric_limits<qint64>::max()) {
        return std::numeric_limits<qint64>::max();
    }
    if (whole < std::numeric_limits<qint64>::min()) {
        return std::numeric_limits<qint64>::min();
    }
    return qint64(whole);
}

inline qint64 saturatingSub(qint64 a, qint64 b)
{
    qint64 result;
    if (qSubOverflow(a, b, &result)) {
        return b < 0 ? std::numeric_limits<qint64>::max() : std::numeric_limits<qint64>::min();
    }
    return result;
}

} // namespace Korvane
