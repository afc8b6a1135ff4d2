// Double-to-integer conversions that are defined for every input.
//
// Converting a NaN, an infinity or an out-of-range double to int is undefined
// behaviour in C++. Rates and sample counts that reach the signal chain are
// validated only by ordered comparisons (which a NaN passes), so every such
// conversion in the library goes through these helpers: a NaN gives 0 and an
// out-of-range value saturates at the integer type's limits. For every finite
// in-range value they are identical to the plain conversion.
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>

template <class Int>
inline Int saturate_cast(double x) {
    if (std::isnan(x)) return 0;
    if (x <= static_cast<double>(std::numeric_limits<Int>::min()))
        return std::numeric_limits<Int>::min();
    // The largest double strictly below 2^(bits) is the safe upper bound.
    if (x >= static_cast<double>(std::numeric_limits<Int>::max()))
        return std::numeric_limits<Int>::max();
    return static_cast<Int>(x);
}

// Truncation toward zero, as a C cast would do for in-range values.
inline int trunc_to_int(double x) { return saturate_cast<int>(x); }
// floor() then convert.
inline int floor_to_int(double x) { return saturate_cast<int>(std::floor(x)); }
// Nearest integer, halves away from zero (std::round), then convert.
inline int round_to_int(double x) { return saturate_cast<int>(std::round(x)); }
inline std::int64_t round_to_int64(double x) { return saturate_cast<std::int64_t>(std::round(x)); }
