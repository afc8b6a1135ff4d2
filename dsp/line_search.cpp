// Spectral lines for the measurement mode: FFT, DTFT at one frequency, the
// strongest line to a small fraction of a bin, and a sinusoid fit.
#include <algorithm>
#include <cmath>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "measurement_dsp.h"

namespace vantrel::meas {

namespace {
constexpr double kTwoPi = 6.283185307179586;

std::size_t nextPow2(std::size_t n) {
    std::size_t p = 1;
    while (p < n) p <<= 1;
    return p;
}
}  // namespace

// One complex value as a (re, im) pair: an SSE2 register where there is one.
// twiddle(u, w) is u times a twiddle stored as (re, re, -im, im):
// (ur wr + ui (-wi), ui wr + ur wi), every value here finite, so the
// infinity-aware complex multiply is not needed.
#if defined(__SSE2__)
using Pair = __m128d;
inline Pair load(const double* p) { return _mm_loadu_pd(p); }
inline void store(double* p, Pair v) { _mm_storeu_pd(p, v); }
inline Pair add(Pair a, Pair b) { return _mm_add_pd(a, b); }
inline Pair sub(Pair a, Pair b) { return _mm_sub_pd(a, b); }
inline Pair twiddle(Pair u, const double* w) {
    return _mm_add_pd(_mm_mul_pd(u, _mm_loadu_pd(w)),
                      _mm_mul_pd(_mm_shuffle_pd(u, u, 1), _mm_loadu_pd(w + 2)));
}
#else
struct Pair {
    double re, im;
};
inline Pair load(const double* p) { return {p[0], p[1]}; }
inline void store(double* p, Pair v) {
    p[0] = v.re;
    p[1] = v.im;
}
inline Pair add(Pair a, Pair b) { return {a.re + b.re, a.im + b.im}; }
inline Pair sub(Pair a, Pair b) { return {a.re - b.re, a.im - b.im}; }
inline Pair twiddle(Pair u, const double* w) { return {u.re * w[0] + u.im * w[2], u.im * w[1] + u.re * w[3]}; }
#endif

// Iterative radix-2 decimation in time, its stages taken two at a time;
// twiddles computed directly (no recurrence) so the error stays at rounding
// level for any length.
void fft_pow2(WorkVec<cd>& x) {
    const std::size_t n = x.size();
    for (std::size_t i = 1, j = 0; i < n; ++i) {
        std::size_t bit = n >> 1;
        for (; j & bit; bit >>= 1) j ^= bit;
        j ^= bit;
        if (i < j) std::swap(x[i], x[j]);
    }
    // Twiddles laid out stage after stage: stage len (half = len / 2) reads
    // exp(-j 2 pi k / len), k < half, from offset half - 1, each as the pair
    // (re, re) followed by (-im, im), the operands of one product below.
    // Kept per thread and per size for the next transform (a Welch estimate
    // runs hundreds, between two searches of a longer one).
    thread_local std::vector<std::vector<double>> tables(64);
    std::size_t log2n = 0;
    while ((std::size_t(1) << log2n) < n) ++log2n;
    std::vector<double>& table = tables[log2n];
    if (table.size() != 4 * (n - 1) && n > 1) {
        table.resize(4 * (n - 1));
        for (std::size_t half = 1; half < n; half <<= 1) {
            for (std::size_t k = 0; k < half; ++k) {
                const cd w = std::polar(1.0, -kTwoPi * double(k) / double(2 * half));
                double* e = table.data() + 4 * (half - 1 + k);
                e[0] = w.real();
                e[1] = w.real();
                e[2] = -w.imag();
                e[3] = w.imag();
            }
        }
    }
    double* data = reinterpret_cast<double*>(x.data());
    // Two stages at a time where two remain (half h, then 2h, on groups of
    // 4h): each value is loaded and stored once per pair of stages, with the
    // very products and sums of the stages taken one by one.
    std::size_t half = 1;
    for (; 2 * half < n; half *= 4) {
        const double* wa = table.data() + 4 * (half - 1);
        const double* wb = table.data() + 4 * (2 * half - 1);
        for (std::size_t i = 0; i < n; i += 4 * half) {
            for (std::size_t k = 0; k < half; ++k) {
                double* pa = data + 2 * (i + k);
                double* pb = pa + 2 * half;
                double* pc = pb + 2 * half;
                double* pd = pc + 2 * half;
                const Pair a = load(pa), b = load(pb), c = load(pc), d = load(pd);
                const Pair t1 = twiddle(b, wa + 4 * k), t2 = twiddle(d, wa + 4 * k);
                const Pair a1 = add(a, t1), b1 = sub(a, t1), c1 = add(c, t2), d1 = sub(c, t2);
                const Pair t3 = twiddle(c1, wb + 4 * k), t4 = twiddle(d1, wb + 4 * (k + half));
                store(pa, add(a1, t3));
                store(pc, sub(a1, t3));
                store(pb, add(b1, t4));
                store(pd, sub(b1, t4));
            }
        }
    }
    if (half < n) {  // an odd number of stages leaves the last one alone
        const double* w = table.data() + 4 * (half - 1);
        for (std::size_t k = 0; k < half; ++k) {
            double* lo = data + 2 * k;
            double* up = lo + 2 * half;
            const Pair l = load(lo), t = twiddle(load(up), w + 4 * k);
            store(up, sub(l, t));
            store(lo, add(l, t));
        }
    }
}

cd dtft_at(const cd* x, std::size_t len, double f, bool hann) {
    cd acc(0.0, 0.0);
    cd rot(1.0, 0.0);
    const cd step = std::polar(1.0, -kTwoPi * f);
    for (std::size_t n = 0; n < len; ++n) {
        if ((n & 255u) == 0) rot = std::polar(1.0, -kTwoPi * std::fmod(f * double(n), 1.0));
        const double w =
            hann ? 0.5 - 0.5 * std::cos(kTwoPi * (double(n) + 0.5) / double(len)) : 1.0;
        acc += w * x[n] * rot;
        rot *= step;
    }
    return acc;
}

double strongest_line(const cd* x, std::size_t len, bool realOnly, cd* amp, double* strength,
                      int zeroPad) {
    if (len == 0) {
        if (amp) *amp = 0.0;
        if (strength) *strength = 0.0;
        return 0.0;
    }
    const std::size_t pad = static_cast<std::size_t>(std::max(1, zeroPad));
    const std::size_t nfft = std::min<std::size_t>(nextPow2(pad * len), std::size_t(1) << 22);
    const std::size_t used = std::min(len, nfft);
    // The Hann-windowed block, formed once: the coarse FFT and every step of
    // the refinement read it.
    WorkVec<cd> windowed(len);
    for (std::size_t n = 0; n < len; ++n)
        windowed[n] = (0.5 - 0.5 * std::cos(kTwoPi * (double(n) + 0.5) / double(len))) * x[n];
    WorkVec<cd> buf(nfft, cd(0.0, 0.0));
    for (std::size_t n = 0; n < used; ++n)
        buf[n] = used == len ? windowed[n]
                             : x[n] * (0.5 - 0.5 * std::cos(kTwoPi * (double(n) + 0.5) / double(used)));
    fft_pow2(buf);
    std::size_t best = 0;
    double bestPower = -1.0;
    for (std::size_t k = 0; k < nfft; ++k) {
        const bool upper = k > nfft / 2;
        if (realOnly && upper) continue;
        const double p = std::norm(buf[k]);
        if (p > bestPower) {
            bestPower = p;
            best = k;
        }
    }
    double fc = double(best) / double(nfft);
    if (fc >= 0.5) fc -= 1.0;
    // Golden-section search of the Hann-windowed |DTFT|^2 within one bin of
    // the coarse peak (the windowed peak is unimodal there).
    const double bin = 1.0 / double(nfft);
    double lo = fc - bin, hi = fc + bin;
    const double g = 0.6180339887498949;
    auto power = [&](double f) { return std::norm(dtft_at(windowed.data(), len, f, false)); };
    double a = hi - g * (hi - lo), b = lo + g * (hi - lo);
    double pa = power(a), pb = power(b);
    // Stop once the bracket is below 1e-4 of a bin (or after 40 steps).
    for (int it = 0; it < 40 && hi - lo > 1e-4 * bin; ++it) {
        if (pa > pb) {
            hi = b;
            b = a;
            pb = pa;
            a = hi - g * (hi - lo);
            pa = power(a);
        } else {
            lo = a;
            a = b;
            pa = pb;
            b = lo + g * (hi - lo);
            pb = power(b);
        }
    }
    const double f = 0.5 * (lo + hi);
    const cd line = dtft_at(x, len, f, false) / double(len);
    if (amp) *amp = line;
    if (strength) {
        double p = 0.0;
        for (std::size_t n = 0; n < len; ++n) p += std::norm(x[n]);
        p /= double(len);
        *strength = p > 0.0 ? std::norm(line) / p : 0.0;
    }
    return f;
}

double coarse_line(const cd* x, std::size_t len) {
    if (len == 0) return 0.0;
    const std::size_t nfft = std::min<std::size_t>(nextPow2(len), std::size_t(1) << 22);
    const std::size_t used = std::min(len, nfft);
    WorkVec<cd> buf(nfft, cd(0.0, 0.0));
    for (std::size_t n = 0; n < used; ++n)
        buf[n] = (0.5 - 0.5 * std::cos(kTwoPi * (double(n) + 0.5) / double(used))) * x[n];
    fft_pow2(buf);
    std::size_t best = 0;
    for (std::size_t k = 1; k < nfft; ++k)
        if (std::norm(buf[k]) > std::norm(buf[best])) best = k;
    // Parabola through the log powers of the peak bin and its neighbours.
    const double a = std::log(std::norm(buf[(best + nfft - 1) % nfft]) + 1e-300);
    const double b = std::log(std::norm(buf[best]) + 1e-300);
    const double c = std::log(std::norm(buf[(best + 1) % nfft]) + 1e-300);
    const double den = a - 2.0 * b + c;
    const double shift = den < 0.0 ? std::fmax(-0.5, std::fmin(0.5, 0.5 * (a - c) / den)) : 0.0;
    double f = (double(best) + shift) / double(nfft);
    if (f >= 0.5) f -= 1.0;
    return f;
}

double ToneFit::amplitude() const { return std::hypot(a, b); }

// Normal equations of the 3- or 4-parameter model, solved by Gaussian
// elimination with partial pivoting. The slope regressor is centred on the
// block's middle to keep the system well conditioned, then shifted back.
ToneFit fit_tone(const double* y, std::size_t len, double f, bool withSlope) {
    const int m = withSlope ? 4 : 3;
    double A[4][5] = {};
    const double mid = 0.5 * double(len == 0 ? 0 : len - 1);
    for (std::size_t n = 0; n < len; ++n) {
        const double ph = kTwoPi * std::fmod(f * double(n), 1.0);
        const double r[4] = {1.0, std::cos(ph), std::sin(ph), double(n) - mid};
        for (int i = 0; i < m; ++i) {
            for (int j = 0; j < m; ++j) A[i][j] += r[i] * r[j];
            A[i][m] += r[i] * y[n];
        }
    }
    for (int c = 0; c < m; ++c) {
        int piv = c;
        for (int r = c + 1; r < m; ++r)
            if (std::fabs(A[r][c]) > std::fabs(A[piv][c])) piv = r;
        for (int k = 0; k <= m; ++k) std::swap(A[c][k], A[piv][k]);
        if (A[c][c] == 0.0) return ToneFit{};
        for (int r = 0; r < m; ++r) {
            if (r == c) continue;
            const double q = A[r][c] / A[c][c];
            for (int k = c; k <= m; ++k) A[r][k] -= q * A[c][k];
        }
    }
    ToneFit t;
    t.c0 = A[0][m] / A[0][0];
    t.a = A[1][m] / A[1][1];
    t.b = A[2][m] / A[2][2];
    if (withSlope) {
        t.c1 = A[3][m] / A[3][3];
        t.c0 -= t.c1 * mid;
    }
    return t;
}

}  // namespace vantrel::meas
