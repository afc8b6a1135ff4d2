// Ascending sort of doubles by radix on their bit patterns.
#pragma once

#include <cstdint>

// Sorts m[0..n-1] ascending when no value is NaN or -0, and returns true;
// returns false, m untouched, when one is (or the scratch cannot be taken).
// For such values the order is total and equal values have equal bits, so
// the result is bit for bit what any correct comparison sort gives. A NaN or
// a -0 (which compares equal to +0 but is not the same bits) leaves the
// arrangement to the comparison sort's own sequence of steps: callers keep
// their comparison sort for those. `scratch`, when given, holds n keys and
// is used instead of a block of its own.
bool radix_sort_doubles(double* m, int n, std::uint64_t* scratch = nullptr);

// For sums over the k smallest and the k largest of m[0..n-1] (1 <= k,
// 2k <= n): leaves the k smallest in ascending order in m[0..k-1] and the k
// largest in ascending order in m[n-k..n-1], exactly as a full ascending sort
// leaves them, the middle in some order, and returns true. Same condition as
// above: false, m untouched, when a value is NaN or -0. `scratch`, when
// given, holds k keys.
bool sort_both_tails(double* m, int n, int k, std::uint64_t* scratch = nullptr);

// For sums over the k largest of m[0..n-1] (1 <= k <= n): leaves them in
// ascending order in m[n-k..n-1], exactly as a full ascending sort does, the
// rest in some order, and returns true. Same condition and scratch as above.
bool sort_upper_tail(double* m, int n, int k, std::uint64_t* scratch = nullptr);
