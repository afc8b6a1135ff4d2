// Constellation scaling and M-PSK decisions with their error figures.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <limits>

#include "CommonFun.h"
#include "safe_convert.h"
#include "sorting.h"

namespace {

constexpr double kTwoPi = 6.283185307179586;
constexpr double kPi = 3.141592653589793;

struct ScaleRule {
    double radius;    // outermost constellation radius to scale to
    double fraction;  // share of the largest magnitudes averaged onto it
};

// Outermost points of the odd-integer grids: 3 sqrt2, 7 sqrt2, and for the
// larger and the cross constellations the stored rounded radii (sqrt 170,
// 15 sqrt2, sqrt 34). The rounded values are the reference and stay rounded.
ScaleRule scaleRule(uint32_t mode) {
    switch (mode) {
    case MOD_16QAM:  return ScaleRule{4.242640687119285, 0.25};
    case MOD_64QAM:  return ScaleRule{9.899494936611665, 0.0625};
    case MOD_128QAM: return ScaleRule{13.0384, 0.0625};
    case MOD_256QAM: return ScaleRule{21.2132, 0.015625};
    case MOD_32QAM:  return ScaleRule{5.831, 0.25};
    default:         return ScaleRule{1.0, 1.0};  // PSK: unit mean modulus
    }
}

// Leaves the largest `count` of the n magnitudes in ascending order at the
// end of m (m[n - count .. n - 1]), exactly as a full ascending qsort with
// cmp_asc leaves them; the rest of m is left in some order.
// Without NaN the values are totally ordered and never -0 (a square root of a
// sum of squares), so any correct sort gives the same bits in every place:
// only the largest `count` are selected and those sorted (all of them: by
// radix on the bit patterns). A NaN compares
// equal to everything under cmp_asc, which is not an ordering, and the result
// then depends on the sort's own sequence of comparisons: that case keeps the
// qsort.
void sortLargest(double* m, int n, int count, bool anyNaN) {
    if (anyNaN) {
        std::qsort(m, static_cast<size_t>(n), sizeof(double), cmp_asc);
        return;
    }
    if (count == n && radix_sort_doubles(m, n)) return;
    if (count < n) std::nth_element(m, m + (n - count), m + n);
    std::sort(m + (n - count), m + n);
}

}  // namespace

// normStar(in, n, param, out): out[i] = in[i] . target / m, where m is the
// mean of the largest n . fraction magnitudes (at least one, at most n) and
// target and fraction depend on param.mode. out may be in. Nothing is done for
// n < 1 or a missing array; out is a plain copy when m <= 1e-10 (or when the
// sort buffer cannot be taken).
void CommonFun::normStar(const Complex* in, int n, ExParamOut param, Complex* out) {
    if (n < 1 || !in || !out) return;
    const ScaleRule rule = scaleRule(param.mode);
    HeapArray<double> mag = heap_alloc<double>(n);
    double m = 0.0;
    if (mag) {
        bool anyNaN = false;
        for (int i = 0; i < n; ++i) {
            mag[i] = Complex_abs(in[i]);
            anyNaN |= std::isnan(mag[i]);
        }
        int count = trunc_to_int(n * rule.fraction);
        if (count < 1) count = 1;
        if (count > n) count = n;
        sortLargest(mag.get(), n, count, anyNaN);
        double sum = 0.0;
        for (int i = n - count; i < n; ++i) sum += mag[i];
        m = sum / count;
    }
    if (m > 1e-10) {
        const double scale = rule.radius / m;
        for (int i = 0; i < n; ++i) out[i] = Complex_scalar_mul(in[i], scale);
    } else {
        for (int i = 0; i < n; ++i) out[i] = in[i];
    }
}

namespace {

// Sector of angle a in [0, 2 pi) and its phase error. Sector j ends at
// bound[j] (exclusive) and its reference phase is bound[j] - pi / M; past the
// last bound (only possible for BPSK, above 3 pi / 2) the symbol belongs to
// sector 0 measured from 2 pi.
int sectorOf(double a, const double* bound, int M, double* phaseErr) {
    for (int j = 0; j < M; ++j) {
        if (a < bound[j]) {
            *phaseErr = a - (bound[j] - kPi / M);
            return j;
        }
    }
    *phaseErr = a - kTwoPi;
    return 0;
}

}  // namespace

// symbolDecisionForPSK(sym, n, M, symbols, bits, bitCount, evm, magErr, phaseErr)
//   Sector j of M spans [2 pi j / M, 2 pi (j+1) / M) counter-clockwise from
//   0 rad, reference phase at its centre (BPSK: 0 and pi, sector edges at
//   pi/2 and 3 pi/2). The error vector is measured against the block's own
//   mean point of the sector c_j and scaled by the largest |c_j|:
//     evm = |x - c| / R . 100,  magErr = (|x| - |c|) / R . 100  (percent),
//     phaseErr = arg x - reference phase  (radians).
//   bits: Gray code of the sector index, k = round(log2 M) bits per symbol,
//   most significant first. bitCount receives n . k (0 on failure).
void CommonFun::symbolDecisionForPSK(const Complex* sym, int n, int M, int* symbols, int* bits,
                                     int* bitCount, double* evm, double* magErr,
                                     double* phaseErr) {
    if (n < 1 || M < 2 || !sym || !symbols || !bits || !bitCount || !evm || !magErr ||
        !phaseErr) {
        if (bitCount) *bitCount = 0;
        return;
    }
    int k = trunc_to_int(std::log2(static_cast<double>(M)) + 0.5);
    if (k < 1) k = 1;
    // A bit count beyond the int range cannot be reported; treated as failure.
    const std::int64_t totalBits = static_cast<std::int64_t>(n) * k;
    HeapArray<double> bound = heap_alloc<double>(M);
    HeapArray<Complex> sum = heap_zeroed<Complex>(M);
    HeapArray<int> cnt = heap_zeroed<int>(M);
    if (totalBits > std::numeric_limits<int>::max() || !bound || !sum || !cnt) {
        *bitCount = 0;
        return;
    }
    *bitCount = static_cast<int>(totalBits);

    if (M == 2) {
        bound[0] = 1.5707963267948966;
        bound[1] = 4.71238898038469;
    } else {
        for (int j = 0; j < M; ++j) bound[j] = (kTwoPi / M) * (j + 1);
    }

    for (int i = 0; i < n; ++i) {
        double a = std::atan2(sym[i].im, sym[i].re);
        if (a < 0) a += kTwoPi;
        const int idx = sectorOf(a, bound.get(), M, &phaseErr[i]);
        symbols[i] = idx;
        sum[idx] = Complex_add(sum[idx], sym[i]);
        ++cnt[idx];
    }

    // Mean point per sector; an empty sector falls back to the point on its
    // lower edge, which only matters for the scale R below.
    double R = 0.0;
    for (int j = 0; j < M; ++j) {
        if (cnt[j] > 0)
            sum[j] = complex_div_real(sum[j], cnt[j]);
        else
            sum[j] = Complex_exp_j(kTwoPi * j / M);
        const double r = Complex_abs(sum[j]);
        if (r > R) R = r;
    }
    if (R < 1e-12) R = 1.0;

    for (int i = 0; i < n; ++i) {
        const Complex c = sum[symbols[i]];
        evm[i] = Complex_abs(Complex_sub(sym[i], c)) / R * 100;
        magErr[i] = (Complex_abs(sym[i]) - Complex_abs(c)) / R * 100;
        const int gray = symbols[i] ^ (symbols[i] >> 1);
        for (int t = 0; t < k; ++t) bits[i * k + t] = (gray >> (k - 1 - t)) & 1;
    }
}
