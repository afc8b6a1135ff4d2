// Complex arithmetic, the radix-2 FFT, spectrum re-centring and small helpers.
#include <cmath>
#include <cstring>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "CommonFun.h"

namespace {
constexpr double kTwoPi = 6.283185307179586;
constexpr double kPi = 3.141592653589793;
}  // namespace

namespace {

constexpr int kTableLen = 16384;

// Stage twiddles of the 16384-point transform, formed once: for the stage of
// length len, the len/2 values wk that the stage's recursion wk = wk w
// (w = exp(-j 2 pi / len), wk starting at 1) produces, stored one stage after
// another (len = 2 first). Every block of a stage runs the same recursion,
// so its values are the same numbers in every block and every call.
const Complex* twiddles16384() {
    struct Table {
        Complex w[kTableLen - 1];
        Table() {
            CommonFun cf;
            Complex* out = w;
            for (int len = 2; len <= kTableLen; len *= 2) {
                const Complex step = Complex_exp_j(-kTwoPi / len);
                Complex wk{1.0, 0.0};
                for (int k = 0; k < len / 2; ++k) {
                    *out++ = wk;
                    wk = cf.Complex_mul(wk, step);
                }
            }
        }
    };
    static const Table table;
    return table.w;
}

// True when every part is at most 1e300 in magnitude (so not NaN nor
// infinite). A transform of such values never overflows, so no NaN arises in
// it; where one does, which operand of a sum is the NaN decides the bits of
// the result, and that is left to the plain loop.
bool all_moderate(const Complex* x, int n) {
    bool ok = true;
    for (int i = 0; i < n; ++i)
        ok &= (std::fabs(x[i].re) <= 1e300) & (std::fabs(x[i].im) <= 1e300);
    return ok;
}

void bit_reverse(Complex* x, int n) {
    // Bit-reversal permutation with the classic reversed counter j.
    int j = 0;
    for (int i = 0; i < n; ++i) {
        if (i < j) {
            Complex t = x[i];
            x[i] = x[j];
            x[j] = t;
        }
        int m = n / 2;
        while (m >= 1 && j >= m) {
            j -= m;
            m /= 2;
        }
        j += m;
    }
}

}  // namespace

// In-place forward DFT, X[k] = sum_n x[n] exp(-j 2 pi k n / N), unnormalised,
// iterative decimation in time. n must be a power of two (every caller passes
// 16384). The stage twiddle is advanced by repeated complex multiplication
// rather than recomputed per k; the small rounding drift this accumulates is
// part of the reported figures, so it is kept. For 16384 points of moderate
// size those twiddles come from a table formed once by the same recursion,
// and each butterfly is formed in SSE2 registers, real and imaginary parts
// side by side, with the scalar code's products and sums.
void CommonFun::fft_radix2(Complex* x, int n) {
    bit_reverse(x, n);
#ifdef __SSE2__
    if (n == kTableLen && all_moderate(x, n)) {
        const Complex* table = twiddles16384();
        for (int len = 2; len <= n; len *= 2) {
            const int half = len / 2;
            const Complex* tw = table + (half - 1);  // this stage's values
            for (int start = 0; start < n; start += len) {
                double* lo = &x[start].re;
                double* hi = &x[start + half].re;
                for (int k = 0; k < half; ++k) {
                    const __m128d a = _mm_loadu_pd(hi + 2 * k);
                    const __m128d w = _mm_loadu_pd(&tw[k].re);
                    const __m128d wSwapped = _mm_shuffle_pd(w, w, 1);
                    // (a.re w.re, a.re w.im) and (a.im w.im, a.im w.re)
                    const __m128d p = _mm_mul_pd(_mm_unpacklo_pd(a, a), w);
                    const __m128d q = _mm_mul_pd(_mm_unpackhi_pd(a, a), wSwapped);
                    // t = (p.re - q.re, p.im + q.im) = Complex_mul(a, w)
                    const __m128d t = _mm_move_sd(_mm_add_pd(p, q), _mm_sub_sd(p, q));
                    const __m128d u = _mm_loadu_pd(lo + 2 * k);
                    _mm_storeu_pd(lo + 2 * k, _mm_add_pd(u, t));
                    _mm_storeu_pd(hi + 2 * k, _mm_sub_pd(u, t));
                }
            }
        }
        return;
    }
#endif
    // Butterfly stages.
    for (int len = 2; len <= n; len *= 2) {
        const Complex w = Complex_exp_j(-kTwoPi / len);
        const int half = len / 2;
        for (int start = 0; start < n; start += len) {
            Complex wk{1.0, 0.0};
            for (int k = 0; k < half; ++k) {
                const Complex u = x[start + k];
                const Complex t = Complex_mul(x[start + k + half], wk);
                x[start + k] = Complex_add(u, t);
                x[start + k + half] = Complex_sub(u, t);
                wk = Complex_mul(wk, w);
            }
        }
    }
}

// Moves zero frequency to the centre: element i goes to (i + n/2) mod n.
// For odd n the element at ceil(n/2) lands at index 0. Does nothing for
// n <= 1 or when the scratch copy cannot be taken.
template <class T>
static void shift_to_centre(T* x, int n) {
    if (n <= 1) return;
    HeapArray<T> tmp = heap_alloc<T>(n);
    if (!tmp) return;
    const int half = n / 2;
    for (int i = 0; i < n; ++i) tmp[(i + half) % n] = x[i];
    std::memcpy(x, tmp.get(), sizeof(T) * static_cast<size_t>(n));
}

void CommonFun::fftshift_complex(Complex* x, int n) { shift_to_centre(x, n); }
void CommonFun::fftshift_double(double* x, int n) { shift_to_centre(x, n); }

// Symmetric Hamming window, both ends 0.08. n = 1 divides 0 by 0 and yields
// NaN, as the closed form does; n <= 0 writes nothing.
void hamming_window(double* w, int n) {
    for (int i = 0; i < n; ++i) {
        w[i] = 0.54 - 0.46 * std::cos(kTwoPi * i / (n - 1));
    }
}

// The 16384-point window every power spectrum of the chain uses, formed once
// by hamming_window (so the same values) and kept for the process.
const double* hamming_window_16384() {
    struct Table {
        double w[16384];
        Table() { hamming_window(w, 16384); }
    };
    static const Table table;
    return table.w;
}

// Normalised sinc, sin(pi x) / (pi x), exactly 1 near zero.
double sinc(double x) {
    if (std::fabs(x) < 1e-12) return 1.0;
    return std::sin(kPi * x) / (kPi * x);
}

// Wraps an angle into [0, 2 pi).
double normalize_angle(double x) {
    double r = fmod_two_pi(x);
    return r < 0 ? r + kTwoPi : r;
}

// Greatest common divisor of |a| and |b| by Euclid's remainder loop;
// gcd(0, 0) = 0 and gcd(a, 0) = |a|. The absolute value is taken in unsigned
// arithmetic so that LONG_MIN cannot overflow.
long gcd_int64(long a, long b) {
    unsigned long x = a < 0 ? 0UL - static_cast<unsigned long>(a) : static_cast<unsigned long>(a);
    unsigned long y = b < 0 ? 0UL - static_cast<unsigned long>(b) : static_cast<unsigned long>(b);
    while (y != 0) {
        unsigned long r = x % y;
        x = y;
        y = r;
    }
    return static_cast<long>(x);
}

// qsort comparators over doubles. NaN compares equal to everything.
int cmp_double(const void* a, const void* b) {
    const double x = *static_cast<const double*>(a);
    const double y = *static_cast<const double*>(b);
    return (x > y) - (x < y);
}
int cmp_asc(const void* a, const void* b) { return cmp_double(a, b); }
int cmp_desc(const void* a, const void* b) {
    const double x = *static_cast<const double*>(a);
    const double y = *static_cast<const double*>(b);
    return (x < y) - (x > y);
}
