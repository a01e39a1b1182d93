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

inline qint64 saturatingSub(qint64 a, qint64 b)
{
    qint64 result;
    if (qSubOverflow(a, b, &result)) {
        return b < 0 ? std::numeric_limits<qint64>::max() : std::numeric_limits<qint64>::min();
    }
    return result;
}

} // namespace Korvane
