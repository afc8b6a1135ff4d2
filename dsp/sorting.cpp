// Least-significant-digit radix sort of doubles.
//
// Key of a value: its 64 bits with the sign bit set for a positive value and
// every bit inverted for a negative one, so that keys order as the values do
// (-inf < ... < -min < +0 < min < ... < +inf). Six passes of an 11-bit digit,
// each a stable counting sort, the counts of all of them taken in one pass
// over the keys; a digit in which no two keys differ is neither counted nor
// sorted on (for magnitudes of one scale, the sign and exponent digit). One
// scratch block of n keys besides m itself.
#include "sorting.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <algorithm>
#include <utility>

#include "heap_array.h"

namespace {

// Six digits of 11 bits (the last of 9) cover the 64-bit key.
constexpr int kDigitBits = 11;
constexpr int kDigits = 6;
constexpr int kRadix = 1 << kDigitBits;
constexpr std::uint64_t kDigitMask = kRadix - 1;

std::uint64_t key_of(double v) {
    std::uint64_t b;
    std::memcpy(&b, &v, 8);
    return (b >> 63) != 0 ? ~b : (b | (std::uint64_t(1) << 63));
}

double value_of(std::uint64_t k) {
    const std::uint64_t b = (k >> 63) != 0 ? (k & ~(std::uint64_t(1) << 63)) : ~k;
    double v;
    std::memcpy(&v, &b, 8);
    return v;
}

std::uint64_t load_key(const unsigned char* base, std::size_t i) {
    std::uint64_t k;
    std::memcpy(&k, base + 8 * i, 8);
    return k;
}

void store_key(unsigned char* base, std::size_t i, std::uint64_t k) {
    std::memcpy(base + 8 * i, &k, 8);
}

}  // namespace

bool radix_sort_doubles(double* m, int n, std::uint64_t* scratch) {
    if (n <= 0) return n == 0;
    for (int i = 0; i < n; ++i) {
        if (std::isnan(m[i]) || (m[i] == 0.0 && std::signbit(m[i]))) return false;
    }
    if (n == 1) return true;
    HeapArray<std::uint64_t> own;
    if (scratch == nullptr) {
        own = heap_alloc<std::uint64_t>(n);
        if (!own) return false;
        scratch = own.get();
    }
    // The keys are held in m's own storage and in the scratch block in turn;
    // every access copies the 8 bytes, so nothing is read through a pointer
    // of another type. The counts of every digit are taken in the pass that
    // forms the keys.
    HeapArray<std::uint32_t> counts = heap_zeroed<std::uint32_t>(kDigits * kRadix);
    if (!counts) return false;
    unsigned char* home = reinterpret_cast<unsigned char*>(m);
    std::uint64_t all = ~std::uint64_t(0), any = 0;
    for (int i = 0; i < n; ++i) {
        const std::uint64_t k = key_of(m[i]);
        store_key(home, i, k);
        all &= k;
        any |= k;
    }
    // A digit that every key shares leaves the order as it is: only the
    // digits holding a bit that differs between keys are counted and sorted.
    const std::uint64_t differing = all ^ any;
    int digit[kDigits];
    int active = 0;
    for (int d = 0; d < kDigits; ++d)
        if (((differing >> (kDigitBits * d)) & kDigitMask) != 0) digit[active++] = d;
    for (int i = 0; i < n; ++i) {
        const std::uint64_t k = load_key(home, i);
        for (int a = 0; a < active; ++a) {
            const int d = digit[a];
            ++counts[d * kRadix + ((k >> (kDigitBits * d)) & kDigitMask)];
        }
    }
    unsigned char* src = home;
    unsigned char* dst = reinterpret_cast<unsigned char*>(scratch);
    for (int a = 0; a < active; ++a) {
        const int d = digit[a];
        const int shift = kDigitBits * d;
        std::uint32_t* c = counts.get() + d * kRadix;
        std::uint32_t start = 0;
        for (int v = 0; v < kRadix; ++v) {
            const std::uint32_t here = c[v];
            c[v] = start;
            start += here;
        }
        for (int i = 0; i < n; ++i) {
            const std::uint64_t k = load_key(src, i);
            store_key(dst, c[(k >> shift) & kDigitMask]++, k);
        }
        std::swap(src, dst);
    }
    for (int i = 0; i < n; ++i) m[i] = value_of(load_key(src, i));
    return true;
}

namespace {

bool has_nan_or_negative_zero(const double* m, int n) {
    for (int i = 0; i < n; ++i) {
        if (std::isnan(m[i]) || (m[i] == 0.0 && std::signbit(m[i]))) return true;
    }
    return false;
}

}  // namespace

bool sort_both_tails(double* m, int n, int k, std::uint64_t* scratch) {
    if (k < 1 || 2 * static_cast<long long>(k) > n) return false;
    if (has_nan_or_negative_zero(m, n)) return false;
    // Select the k smallest, then from the rest the k largest; each set is
    // then sorted on its own (its values, and so its sorted bits, are those
    // a full sort puts there).
    std::nth_element(m, m + k, m + n);
    std::nth_element(m + k, m + (n - k), m + n);
    if (!radix_sort_doubles(m, k, scratch)) std::sort(m, m + k);
    if (!radix_sort_doubles(m + (n - k), k, scratch)) std::sort(m + (n - k), m + n);
    return true;
}

bool sort_upper_tail(double* m, int n, int k, std::uint64_t* scratch) {
    if (k < 1 || k > n) return false;
    if (has_nan_or_negative_zero(m, n)) return false;
    if (k < n) std::nth_element(m, m + (n - k), m + n);
    if (!radix_sort_doubles(m + (n - k), k, scratch)) std::sort(m + (n - k), m + n);
    return true;
}
