// Pulse-shaping filter designs (raised cosine, root raised cosine, Gaussian,
// rectangular, half-sine), the valid-part convolution and the matched filter.
//
// Coefficients are single-precision floats; the sample arithmetic is double.
// A NaN filter parameter (the entry keeps a NaN roll-off as it is) is not
// rejected: it yields NaN coefficients, every computation stays defined, and
// the filtered block is NaN; nothing here converts a coefficient to an integer.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>
#ifdef __SSE2__
#include <emmintrin.h>
#endif
#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#endif

#include "CommonFun.h"
#include "safe_convert.h"

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kEps = 1e-12;

// Length span*sps + 1 (or the odd length around its half) must fit an int and
// describe at least one sample per symbol; other requests design nothing.
bool valid_design(int span, int sps) {
    return sps >= 1 && span >= 0 &&
           static_cast<std::int64_t>(span) * sps + 1 <= static_cast<std::int64_t>(INT32_MAX);
}

// Raised-cosine impulse response at t symbols, for sps samples per symbol.
double raised_cosine(double beta, double t, int sps) {
    const double v = 2 * beta * t;
    const double x = v * v;
    if (std::fabs(1 - x) >= kEps) {
        return sinc(t) * std::cos(kPi * beta * t) / (1 - x) / sps;
    }
    // t = +-1/(2 beta): the limit of the closed form.
    return beta * std::sin(kPi / (2 * beta)) / (2 * sps);
}

// Root-raised-cosine impulse response at t symbols, with its limits at t = 0
// and at t = +-1/(4 beta).
double root_raised_cosine(double beta, double t, int sps) {
    if (std::fabs(t) < kEps) {
        return -(kPi * (beta - 1) - 4 * beta) / (kPi * sps);
    }
    const double b = 4 * beta * t;
    if (std::fabs(std::fabs(b) - 1) < kEps) {
        return (kPi * (beta + 1) * std::sin(kPi * (beta + 1) / (4 * beta)) -
                4 * beta * std::sin(kPi * (beta - 1) / (4 * beta)) +
                kPi * (beta - 1) * std::cos(kPi * (beta - 1) / (4 * beta))) /
               (2 * kPi * sps);
    }
    return -(4 * beta / sps) *
           (std::cos((1 + beta) * kPi * t) + std::sin((1 - beta) * kPi * t) / b) /
           (kPi * (b * b - 1));
}

#if defined(__x86_64__) && defined(__GNUC__)
#define VANTREL_HAVE_AVX2_PATH 1
// Sixteen outputs at a time in 256-bit registers, two complex outputs per
// register: the same products and sums as the SSE2 and scalar forms, in the
// same order for every output (the build forbids fused multiply-adds, and
// this function enables AVX2 only, not FMA). Returns the number of outputs
// formed, a multiple of 16.
__attribute__((target("avx2"))) int conv_blocks_avx2(const Complex* x, const float* h, int L,
                                                     Complex* y, int count) {
    constexpr int kBlock = 16;
    int i = 0;
    for (; i + kBlock <= count; i += kBlock) {
        // Eight named accumulators, so that they stay in registers.
        __m256d a0 = _mm256_setzero_pd(), a1 = a0, a2 = a0, a3 = a0;
        __m256d a4 = a0, a5 = a0, a6 = a0, a7 = a0;
        const double* p = &x[i].re;
        for (int j = 0; j < L; ++j, p += 2) {
            // Hide the pointer's progression from the optimiser: otherwise
            // it carries the loads of one tap into the tap after next and
            // runs out of registers.
            __asm__("" : "+r"(p));
            const __m256d hj = _mm256_set1_pd(static_cast<double>(h[j]));
            a0 = _mm256_add_pd(a0, _mm256_mul_pd(_mm256_loadu_pd(p), hj));
            a1 = _mm256_add_pd(a1, _mm256_mul_pd(_mm256_loadu_pd(p + 4), hj));
            a2 = _mm256_add_pd(a2, _mm256_mul_pd(_mm256_loadu_pd(p + 8), hj));
            a3 = _mm256_add_pd(a3, _mm256_mul_pd(_mm256_loadu_pd(p + 12), hj));
            a4 = _mm256_add_pd(a4, _mm256_mul_pd(_mm256_loadu_pd(p + 16), hj));
            a5 = _mm256_add_pd(a5, _mm256_mul_pd(_mm256_loadu_pd(p + 20), hj));
            a6 = _mm256_add_pd(a6, _mm256_mul_pd(_mm256_loadu_pd(p + 24), hj));
            a7 = _mm256_add_pd(a7, _mm256_mul_pd(_mm256_loadu_pd(p + 28), hj));
        }
        double* q = &y[i].re;
        _mm256_storeu_pd(q, a0);
        _mm256_storeu_pd(q + 4, a1);
        _mm256_storeu_pd(q + 8, a2);
        _mm256_storeu_pd(q + 12, a3);
        _mm256_storeu_pd(q + 16, a4);
        _mm256_storeu_pd(q + 20, a5);
        _mm256_storeu_pd(q + 24, a6);
        _mm256_storeu_pd(q + 28, a7);
    }
    return i;
}

// The real form: four outputs per register, 32 at a time, each sum again
// starting at 0 and adding the taps in order. Stores Complex{y, +0}.
// Returns the number of outputs formed, a multiple of 32.
__attribute__((target("avx2"))) int conv_real_blocks_avx2(const double* x, const float* h,
                                                          int L, Complex* y, int count) {
    constexpr int kBlock = 32;
    int i = 0;
    for (; i + kBlock <= count; i += kBlock) {
        __m256d a0 = _mm256_setzero_pd(), a1 = a0, a2 = a0, a3 = a0;
        __m256d a4 = a0, a5 = a0, a6 = a0, a7 = a0;
        const double* p = x + i;
        for (int j = 0; j < L; ++j, ++p) {
            __asm__("" : "+r"(p));  // as in the complex blocks
            const __m256d hj = _mm256_set1_pd(static_cast<double>(h[j]));
            a0 = _mm256_add_pd(a0, _mm256_mul_pd(_mm256_loadu_pd(p), hj));
            a1 = _mm256_add_pd(a1, _mm256_mul_pd(_mm256_loadu_pd(p + 4), hj));
            a2 = _mm256_add_pd(a2, _mm256_mul_pd(_mm256_loadu_pd(p + 8), hj));
            a3 = _mm256_add_pd(a3, _mm256_mul_pd(_mm256_loadu_pd(p + 12), hj));
            a4 = _mm256_add_pd(a4, _mm256_mul_pd(_mm256_loadu_pd(p + 16), hj));
            a5 = _mm256_add_pd(a5, _mm256_mul_pd(_mm256_loadu_pd(p + 20), hj));
            a6 = _mm256_add_pd(a6, _mm256_mul_pd(_mm256_loadu_pd(p + 24), hj));
            a7 = _mm256_add_pd(a7, _mm256_mul_pd(_mm256_loadu_pd(p + 28), hj));
        }
        // Interleave each sum with a zero: {y, 0} pairs, two per register.
        const __m256d z = _mm256_setzero_pd();
        double* q = &y[i].re;
        const __m256d acc[8] = {a0, a1, a2, a3, a4, a5, a6, a7};
        for (int r = 0; r < 8; ++r, q += 8) {
            const __m256d lo = _mm256_unpacklo_pd(acc[r], z);  // y0 0 | y2 0
            const __m256d hi = _mm256_unpackhi_pd(acc[r], z);  // y1 0 | y3 0
            _mm256_storeu_pd(q, _mm256_permute2f128_pd(lo, hi, 0x20));      // y0 0 y1 0
            _mm256_storeu_pd(q + 4, _mm256_permute2f128_pd(lo, hi, 0x31));  // y2 0 y3 0
        }
    }
    return i;
}

bool cpu_has_avx2() {
    static const bool has = __builtin_cpu_supports("avx2");
    return has;
}
#endif

}  // namespace

// Raised cosine (shape beginning with 'n' or 'N') or root raised cosine
// (any other shape) over `span` symbols at `sps` samples per symbol:
// len = 2 * ((span * sps) / 2) + 1 taps centred on index len / 2 (delay
// (len - 1) / 2 samples), t = (i - half) / sps symbols, normalised to unit
// energy sum(h^2) = 1 (each square formed in float, summed in double) unless
// the energy is negligible. h holds at least span * sps + 1 floats; *len gets
// the tap count (0 when span < 0, sps < 1 or the length overflows).
void CommonFun::rcosdesignForC(double beta, int span, int sps, const char* shape, float* h,
                               int* len) {
    if (!valid_design(span, sps)) {
        *len = 0;
        return;
    }
    const int half = (span * sps) / 2;
    const int count = 2 * half + 1;
    *len = count;
    const bool normal = shape != nullptr && (shape[0] == 'n' || shape[0] == 'N');
    for (int i = 0; i < count; ++i) {
        const double t = static_cast<double>(i - half) / sps;
        const double v = normal ? raised_cosine(beta, t, sps) : root_raised_cosine(beta, t, sps);
        h[i] = static_cast<float>(v);
    }
    double energy = 0.0;
    for (int i = 0; i < count; ++i) {
        const float sq = h[i] * h[i];
        energy += sq;
    }
    const double norm = std::sqrt(energy);
    if (norm > 1e-12) {
        for (int i = 0; i < count; ++i) h[i] = static_cast<float>(h[i] / norm);
    }
}

// Gaussian pulse of bandwidth-time product bt over `span` symbols at `sps`
// samples per symbol: len = sps * span + 1 taps,
//   h(t) = (sqrt(pi) / a) exp(-(pi t / a)^2),  a = sqrt(ln 2 / 2) / bt,
// t = -span/2 + i/sps symbols (centred for odd spans too), scaled to unit
// DC gain by the sum of the double values when that sum is positive.
// *len gets the tap count (0 when span < 0, sps < 1 or the length overflows).
void CommonFun::gaussdesignForC(double bt, int span, int sps, float* h, int* len) {
    if (!valid_design(span, sps)) {
        *len = 0;
        return;
    }
    const int count = sps * span + 1;
    *len = count;
    const double a = 0.5887050112577373 / bt;
    const double c = 1.7724538509055159 / a;
    double sum = 0.0;
    for (int i = 0; i < count; ++i) {
        const double t = -span / 2.0 + static_cast<double>(i) / sps;
        const double v = kPi * t / a;
        const double value = c * std::exp(-(v * v));
        h[i] = static_cast<float>(value);
        sum += value;
    }
    if (sum > 0) {
        for (int i = 0; i < count; ++i) h[i] = static_cast<float>(h[i] / sum);
    }
}

// Designs the pulse named by `type` into h and its length into *len:
// RRC and RC over `span` symbols (beta the roll-off), Gaussian (beta the BT
// product), rectangular (sps + 1 ones) or half-sine (sin(i pi / sps),
// i = 0 .. sps, both ends 0); the last two are not normalised. *err is 0, or
// -1 with *len = 0 for an unknown type.
void CommonFun::getFilter(FilterType type, double beta, int span, int sps, float* h, int* len,
                          int* err) {
    *err = 0;
    switch (static_cast<int>(type)) {
    case FILTER_RRC:
        rcosdesignForC(beta, span, sps, "sqrt", h, len);
        return;
    case FILTER_RC:
        rcosdesignForC(beta, span, sps, "normal", h, len);
        return;
    case FILTER_GAUSS:
        gaussdesignForC(beta, span, sps, h, len);
        return;
    case FILTER_RECT:
    case FILTER_HALFSINE:
        if (sps < 1 || sps == INT32_MAX) {
            *len = 0;
            return;
        }
        *len = sps + 1;
        for (int i = 0; i <= sps; ++i) {
            h[i] = type == FILTER_RECT ? 1.0f : static_cast<float>(std::sin(i * kPi / sps));
        }
        return;
    default:
        *err = -1;
        *len = 0;
        return;
    }
}

// Valid part of the correlation of a complex block with a real filter:
//   y[i] = sum_{j=0}^{L-1} x[i + j] h[j],  i = 0 .. n - L,
// so *ylen = n - L + 1 (0 when the block is shorter than the filter). For a
// symmetric pulse this is the convolution with its delay (L - 1)/2 removed.
//
// Each output's sum starts at 0 and adds the taps in order j = 0 .. L-1,
// the real and imaginary parts side by side (one SSE2 pair per output, the
// float tap widened to double; with AVX2, sixteen outputs in two-output
// registers go first). Eight outputs are formed at once so that
// their independent sums overlap in the adder's pipeline; the outputs left
// over at the end are formed one by one with the same sequence of
// operations. A block of outputs is stored only after all of its sums are
// complete, so y may be the same array as x.
void CommonFun::conv2_complex(const Complex* x, int n, const float* h, int L, Complex* y,
                              int* ylen) {
    if (L < 1 || n - L + 1 <= 0) {
        *ylen = 0;
        return;
    }
    const int count = n - L + 1;
    int i = 0;
#ifdef VANTREL_HAVE_AVX2_PATH
    // On processors with AVX2, sixteen outputs at a time first.
    if (cpu_has_avx2()) i = conv_blocks_avx2(x, h, L, y, count);
#endif
#ifdef __SSE2__
    constexpr int kBlock = 8;
    for (; i + kBlock <= count; i += kBlock) {
        __m128d a0 = _mm_setzero_pd(), a1 = a0, a2 = a0, a3 = a0;
        __m128d a4 = a0, a5 = a0, a6 = a0, a7 = a0;
        const double* p = &x[i].re;
        for (int j = 0; j < L; ++j, p += 2) {
            __asm__("" : "+r"(p));  // as in the AVX2 blocks
            const __m128d hj = _mm_set1_pd(static_cast<double>(h[j]));
            a0 = _mm_add_pd(a0, _mm_mul_pd(_mm_loadu_pd(p), hj));
            a1 = _mm_add_pd(a1, _mm_mul_pd(_mm_loadu_pd(p + 2), hj));
            a2 = _mm_add_pd(a2, _mm_mul_pd(_mm_loadu_pd(p + 4), hj));
            a3 = _mm_add_pd(a3, _mm_mul_pd(_mm_loadu_pd(p + 6), hj));
            a4 = _mm_add_pd(a4, _mm_mul_pd(_mm_loadu_pd(p + 8), hj));
            a5 = _mm_add_pd(a5, _mm_mul_pd(_mm_loadu_pd(p + 10), hj));
            a6 = _mm_add_pd(a6, _mm_mul_pd(_mm_loadu_pd(p + 12), hj));
            a7 = _mm_add_pd(a7, _mm_mul_pd(_mm_loadu_pd(p + 14), hj));
        }
        double* q = &y[i].re;
        _mm_storeu_pd(q, a0);
        _mm_storeu_pd(q + 2, a1);
        _mm_storeu_pd(q + 4, a2);
        _mm_storeu_pd(q + 6, a3);
        _mm_storeu_pd(q + 8, a4);
        _mm_storeu_pd(q + 10, a5);
        _mm_storeu_pd(q + 12, a6);
        _mm_storeu_pd(q + 14, a7);
    }
#endif
    for (; i < count; ++i) {
        Complex sum{0.0, 0.0};
        for (int j = 0; j < L; ++j) {
            sum.re += x[i + j].re * h[j];
            sum.im += x[i + j].im * h[j];
        }
        y[i] = sum;
    }
    *ylen = count;
}

// conv2_complex for a block whose imaginary parts are all +0, formed on the
// real parts alone. With finite taps every imaginary product of the complex
// form is +-0 and every sum of them, starting at +0, is +0; the real sums
// are the same operations in the same order. So y[i] = {sum, +0} is that
// form's output bit for bit. (A NaN or infinite tap makes those products NaN:
// callers with such taps use the complex form.) y must not overlap x.
void CommonFun::conv2_real(const double* x, int n, const float* h, int L, Complex* y,
                           int* ylen) {
    if (L < 1 || n - L + 1 <= 0) {
        *ylen = 0;
        return;
    }
    const int count = n - L + 1;
    int i = 0;
#ifdef VANTREL_HAVE_AVX2_PATH
    if (cpu_has_avx2()) i = conv_real_blocks_avx2(x, h, L, y, count);
#endif
#ifdef __SSE2__
    constexpr int kBlock = 16;
    for (; i + kBlock <= count; i += kBlock) {
        __m128d a0 = _mm_setzero_pd(), a1 = a0, a2 = a0, a3 = a0;
        __m128d a4 = a0, a5 = a0, a6 = a0, a7 = a0;
        const double* p = x + i;
        for (int j = 0; j < L; ++j, ++p) {
            __asm__("" : "+r"(p));
            const __m128d hj = _mm_set1_pd(static_cast<double>(h[j]));
            a0 = _mm_add_pd(a0, _mm_mul_pd(_mm_loadu_pd(p), hj));
            a1 = _mm_add_pd(a1, _mm_mul_pd(_mm_loadu_pd(p + 2), hj));
            a2 = _mm_add_pd(a2, _mm_mul_pd(_mm_loadu_pd(p + 4), hj));
            a3 = _mm_add_pd(a3, _mm_mul_pd(_mm_loadu_pd(p + 6), hj));
            a4 = _mm_add_pd(a4, _mm_mul_pd(_mm_loadu_pd(p + 8), hj));
            a5 = _mm_add_pd(a5, _mm_mul_pd(_mm_loadu_pd(p + 10), hj));
            a6 = _mm_add_pd(a6, _mm_mul_pd(_mm_loadu_pd(p + 12), hj));
            a7 = _mm_add_pd(a7, _mm_mul_pd(_mm_loadu_pd(p + 14), hj));
        }
        const __m128d z = _mm_setzero_pd();
        const __m128d acc[8] = {a0, a1, a2, a3, a4, a5, a6, a7};
        double* q = &y[i].re;
        for (int r = 0; r < 8; ++r, q += 4) {
            _mm_storeu_pd(q, _mm_unpacklo_pd(acc[r], z));
            _mm_storeu_pd(q + 2, _mm_unpackhi_pd(acc[r], z));
        }
    }
#endif
    for (; i < count; ++i) {
        double sum = 0.0;
        for (int j = 0; j < L; ++j) sum += x[i + j] * h[j];
        y[i] = Complex{sum, 0.0};
    }
    *ylen = count;
}

// Receive filter of the digital demodulators: the pulse of param.filterType
// (parameter param.rolloff) over 12 symbols at sps = floor(fs / Rb) (at least
// 1), applied by conv2_complex, so out[i] lines up with in[i + (L - 1)/2] and
// out_len = n - L + 1 (0 for n <= 0, an unknown filter, a failed allocation or
// a block shorter than the filter). Each block is filtered on its own: the
// history bookkeeping below always ends with an empty history.
bool CommonFun::matchedTaps(double fs, ExParamOut param, HeapArray<float>* taps, int* len) {
    const double rb = param.Rb;
    const double rolloff = param.rolloff;
    int sps = floor_to_int(fs / rb);
    if (sps < 1) sps = 1;
    const int span = 12;
    // A rate ratio so large that 12 * sps + 1 leaves the int range cannot be
    // filtered (the block would be shorter than the filter anyway).
    if (static_cast<std::int64_t>(span) * sps + 1 > INT32_MAX) return false;
    int L = span * sps + 1;
    HeapArray<float> h = heap_alloc<float>(L);
    if (!h) return false;
    // Only codes of the enumeration are converted to it; any other code is
    // passed as 0, which getFilter rejects like every unknown type.
    const std::uint32_t code = param.filterType;
    const FilterType type =
        code >= FILTER_RRC && code <= FILTER_HALFSINE ? static_cast<FilterType>(code)
                                                      : static_cast<FilterType>(0);
    int err = 0;
    getFilter(type, rolloff, span, sps, h.get(), &L, &err);
    if (err != 0 || L <= 0) return false;

    // History bookkeeping: the history used for this block is always empty.
    if (!mfInitialised) {
        mfHistLen = L - 1;
        mfHistRe = heap_alloc<double>(0);
        mfHistIm = heap_alloc<double>(0);
        mfFilterLen = L;
        mfInitialised = 1;
    } else if (mfHistLen != 0) {
        mfHistRe = heap_alloc<double>(0);
        mfHistIm = heap_alloc<double>(0);
        mfHistLen = 0;
    }
    *taps = std::move(h);
    *len = L;
    return true;
}

void CommonFun::matchFilter(const Complex* in, int n, double fs, ExParamOut param, Complex* out,
                            int& out_len) {
    HeapArray<float> h;
    int L = 0;
    if (n <= 0 || !matchedTaps(fs, param, &h, &L)) {
        out_len = 0;
        return;
    }
    // With an empty history the filtered block is the valid correlation of
    // the input itself, written straight into the caller's array. (The
    // history would be refilled afterwards from its last 0 samples.)
    int ylen = 0;
    conv2_complex(in, n, h.get(), L, out, &ylen);
    out_len = ylen;
}

// The same filter and bookkeeping for a real signal x (the FSK frequency
// trace). With finite taps the real correlation gives the complex form's
// output exactly; taps that are not all finite (a NaN roll-off) go through
// the complex form on {x, +0}, formed in out itself.
void CommonFun::matchFilterReal(const double* x, int n, double fs, ExParamOut param,
                                Complex* out, int& out_len) {
    HeapArray<float> h;
    int L = 0;
    if (n <= 0 || !matchedTaps(fs, param, &h, &L)) {
        out_len = 0;
        return;
    }
    bool finite = true;
    for (int j = 0; j < L; ++j) finite = finite && std::isfinite(h[j]);
    int ylen = 0;
    if (finite) {
        conv2_real(x, n, h.get(), L, out, &ylen);
    } else {
        for (int i = 0; i < n; ++i) out[i] = Complex{x[i], 0.0};
        conv2_complex(out, n, h.get(), L, out, &ylen);
    }
    out_len = ylen;
}
