// I/Q impairment figures of the raw capture: origin offset, rail amplitude
// ratio and quadrature error.
#include <cmath>
#include <cstdint>

#include "CommonFun.h"

namespace {
constexpr int kExactSumLength = 1 << 23;

// The five integer sums of calcIQParams: s[0..4] = sum I, sum Q, sum I^2,
// sum Q^2, sum I Q. Integer sums may be formed in any order, so the loop is
// left to the vectoriser; with AVX2 (chosen at run time) eight samples go
// through each instruction.
struct IqSums {
    std::int64_t s[5];
};

inline __attribute__((always_inline)) IqSums sums_loop(const int16_t* I, const int16_t* Q,
                                                      int n) {
    std::int64_t sI = 0, sQ = 0, sII = 0, sQQ = 0, sIQ = 0;
    for (int k = 0; k < n; ++k) {
        const int32_t i = I[k];
        const int32_t q = Q[k];
        sI += i;
        sQ += q;
        sII += i * i;
        sQQ += q * q;
        sIQ += i * q;
    }
    return IqSums{{sI, sQ, sII, sQQ, sIQ}};
}

__attribute__((optimize("tree-vectorize", "vect-cost-model=dynamic"))) IqSums
integer_sums(const int16_t* I, const int16_t* Q, int n) {
    return sums_loop(I, Q, n);
}

#if defined(__x86_64__) && defined(__GNUC__)
__attribute__((target("avx2"), optimize("tree-vectorize", "vect-cost-model=dynamic"))) IqSums
integer_sums_avx2(const int16_t* I, const int16_t* Q, int n) {
    return sums_loop(I, Q, n);
}
#endif

IqSums iq_sums(const int16_t* I, const int16_t* Q, int n) {
#if defined(__x86_64__) && defined(__GNUC__)
    static const bool avx2 = __builtin_cpu_supports("avx2");
    if (avx2) return integer_sums_avx2(I, Q, n);
#endif
    return integer_sums(I, Q, n);
}
}  // namespace

// Measured on the n raw int16 samples, before any correction:
//   mI, mQ      means                 -> iqOffset    = sqrt(mI^2 + mQ^2)  (int16 units)
//   rI, rQ      RMS, means not removed -> iqGainRatio = rI / rQ          (1.0 if rQ = 0)
//   xIQ         mean of I*Q           -> quadError   = asin(clamp(xIQ / (rI rQ), -1, 1))
//                                                      radians, 0 if rI rQ = 0
// The RMS figures keep the offset inside them on purpose. Each product of two
// samples is formed exactly in 32-bit integers (|I Q| <= 2^30) and then added
// to a double sum. n < 1 writes nothing. Only the three fields are written.
void CommonFun::calcIQParams(const int16_t* I, const int16_t* Q, int n, DisplayData* out) {
    if (n < 1) return;

    double sumI = 0.0, sumQ = 0.0, sumII = 0.0, sumQQ = 0.0, sumIQ = 0.0;
    if (n <= kExactSumLength) {
        // Every term is an integer of at most 2^30 in magnitude, so up to
        // 2^23 of them every running double sum is an integer below 2^53:
        // each addition is exact and the sums equal the integer sums, which
        // are formed in any order and converted once.
        const IqSums t = iq_sums(I, Q, n);
        sumI = static_cast<double>(t.s[0]);
        sumQ = static_cast<double>(t.s[1]);
        sumII = static_cast<double>(t.s[2]);
        sumQQ = static_cast<double>(t.s[3]);
        sumIQ = static_cast<double>(t.s[4]);
    } else {
        for (int k = 0; k < n; ++k) {
            const int32_t i = I[k];
            const int32_t q = Q[k];
            sumI += i;
            sumQ += q;
            sumII += static_cast<double>(i * i);
            sumQQ += static_cast<double>(q * q);
            sumIQ += static_cast<double>(i * q);
        }
    }

    const double mI = sumI / n;
    const double mQ = sumQ / n;
    const double rI = std::sqrt(sumII / n);
    const double rQ = std::sqrt(sumQQ / n);
    const double xIQ = sumIQ / n;

    const double offset = std::sqrt(mI * mI + mQ * mQ);
    const double gainRatio = rQ == 0.0 ? 1.0 : rI / rQ;
    double quad = 0.0;
    if (rI * rQ != 0.0) {
        double x = xIQ / (rI * rQ);
        // Rounding can push a fully correlated pair just past +-1.
        if (x < -1.0) x = -1.0;
        if (x > 1.0) x = 1.0;
        quad = std::asin(x);
    }

    // The record is packed: plain assignments, never pointers to its fields.
    out->iqOffset = offset;
    out->iqGainRatio = gainRatio;
    out->quadError = quad;
}
