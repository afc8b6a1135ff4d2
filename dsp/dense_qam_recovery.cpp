// Synchronisation stages of the 128- and 256-point QAM chain: symbol timing,
// residual frequency, quadrant phase, outer-ring amplitude and an outer-point
// phase loop. See dense_qam_recovery.h for the chain they make up.
#include "dense_qam_recovery.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "safe_convert.h"
#include "sorting.h"

namespace {

constexpr double kTwoPi = 6.283185307179586;
constexpr double kQuarterPi = 0.7853981633974483;
constexpr int kFftLen = 16384;
constexpr int kPhaseSpan = 3000;    // symbols the quadrant-phase estimate uses
constexpr double kFloor = 1e-12;    // amplitude floor of the mean magnitude

// Timing loop: damping, noise bandwidth as a fraction of fs, NCO start values.
constexpr double kZeta = 0.707;
constexpr double kBandwidth = 0.005;
constexpr double kNcoStart = 0.7;
constexpr double kStepStart = 0.5;  // two underflows per symbol at 4 samples per symbol
constexpr double kMuStart = 0.6;
// Five-tap symmetric pre-filter in front of the timing-error detector: it
// sharpens the transitions the detector looks at in a dense constellation.
constexpr double kPreTaps[5] = {-1.16138e-06, -0.633281, 1.0, -0.633281, -1.16138e-06};

// x turned by `angle` radians: x . (cos angle + j sin angle).
Complex rotated(CommonFun& cf, Complex x, double angle) {
    return cf.Complex_mul(x, Complex{std::cos(angle), std::sin(angle)});
}

// Angle of (re, im) folded into [0, 2 pi).
double angleFrom0(double im, double re) {
    double a = std::atan2(im, re);
    if (a < 0) a += kTwoPi;
    return a;
}

// Piecewise-parabolic Farrow interpolant (alpha = 0.5) between x[m] and
// x[m+1] at fraction mu, xm1 being the left neighbour x[m-1].
double parabolic(double xm1, double x0, double x1, double x2, double mu) {
    const double t2 = 0.5 * x2 - 0.5 * x1 - 0.5 * x0 + 0.5 * xm1;
    const double t1 = 1.5 * x1 - 0.5 * x2 - 0.5 * x0 - 0.5 * xm1;
    return (mu * t2 + t1) * mu + x0;
}

// The last few interpolants of one rail (I or Q), newest at index 0.
struct Rail {
    double y[5] = {0, 0, 0, 0, 0};  // interpolants i, i-1, ..., i-4
    double f[3] = {0, 0, 0};        // pre-filtered i, i-1, i-2

    // Takes interpolant number i (counted from 1) and its pre-filtered value:
    // the raw value for the first five, the five-tap filter from the sixth on.
    void push(double v, std::int64_t i) {
        for (int t = 4; t > 0; --t) y[t] = y[t - 1];
        y[0] = v;
        double fv = v;
        if (i > 5) {
            fv = 0.0;
            for (int t = 0; t < 5; ++t) fv += y[t] * kPreTaps[t];
        }
        f[2] = f[1];
        f[1] = f[0];
        f[0] = fv;
    }
};

// Descending order for qsort with NaN placed last: a strict weak ordering for
// every input (a NaN-filtered block must not meet an inconsistent
// comparator), and the plain descending order for finite magnitudes.
int descendingNanLast(const void* pa, const void* pb) {
    const double a = *static_cast<const double*>(pa);
    const double b = *static_cast<const double*>(pb);
    if (std::isnan(a) || std::isnan(b)) return std::isnan(a) - std::isnan(b);
    return (a < b) - (a > b);
}

}  // namespace

DenseQamConstants dense_qam_constants(int M) {
    // 13.0384: radius of the outer cross points (+-7, +-11), (+-11, +-7);
    // 21.2132: radius of the 256 corners (+-15, +-15). The 128 gate also
    // admits (+-5, +-11) and (+-11, +-5) (power 146) next to the outer ring.
    if (M == 128) return {128, 13.0384, 144.0, 0.5, 0.21866894587394192, 0.03, 1.82e-5,
                          11.0, 128 / 12, true};
    if (M == 256) return {256, 21.2132, 422.0, 10.0, 0.0, 0.1, 0.000182, 15.0, 256 / 16, false};
    return DenseQamConstants{0, 0, 0, 0, 0, 0, 0, 0, 0, false};
}

// Loop (n_4 = n rounded down to a multiple of 4, at most n_4 / 4 symbols):
//   wn = fs 0.005 8 zeta / (1 + 4 zeta^2),  Kp = 2 zeta wn / fs,  Ki = wn^2 / fs^2
//   per sample m = 0 .. n_4 - 3:  d = eta - W;  d > 0: eta = d (no strobe)
//     else a strobe: eta = fmod(d, 1) (+1 if negative), mu = eta_old / W,
//     y_i = parabolic(x[m-1 .. m+2], mu), x[-1] read as x[0]
//   on every second strobe (the symbol instant), with f the pre-filtered y:
//     e = f_{i-1} . f_i                                         (i = 2)
//     e = (f_{i-1} - (f_i + f_{i-2}) / 2) . (f_i - f_{i-2})     (later)
//     first symbol: W += e Kp + e Ki
//     then: e = (e_prev + e) / 2;  W += (e - e_prev) Kp + e Ki
//   and y_i is the symbol. Errors are I and Q products summed.
int dense_qam_timing(const Complex* in, int n, double fs, Complex* out) {
    if (n < 4) return 0;
    const std::int64_t N4 = n - n % 4;
    const std::int64_t Nsym = N4 / 4;

    const double wn = (fs * kBandwidth * 8 * kZeta) / (1 + 4 * kZeta * kZeta);
    const double Kp = 2 * kZeta * wn / fs;
    const double Ki = (wn * wn) / (fs * fs);

    double eta = kNcoStart;
    double W = kStepStart;
    double mu = kMuStart;
    double ePrev = 0.0;
    std::int64_t i = 0, k = 0;
    Rail I, Q;
    for (std::int64_t m = 0; m <= N4 - 3; ++m) {
        const double d = eta - W;
        if (d > 0) {
            eta = d;
            continue;
        }
        const double etaOld = eta;
        eta = std::fmod(d, 1.0);
        if (eta < 0) eta += 1.0;
        ++i;
        mu = etaOld / W;
        const std::int64_t p = m > 0 ? m - 1 : 0;
        I.push(parabolic(in[p].re, in[m].re, in[m + 1].re, in[m + 2].re, mu), i);
        Q.push(parabolic(in[p].im, in[m].im, in[m + 1].im, in[m + 2].im, mu), i);
        if (i % 2 != 0) continue;  // mid-symbol strobe

        double e;
        if (i < 3) {
            e = I.f[1] * I.f[0] + Q.f[1] * Q.f[0];
        } else {
            const double eI = (I.f[1] - (I.f[0] + I.f[2]) / 2) * (I.f[0] - I.f[2]);
            const double eQ = (Q.f[1] - (Q.f[0] + Q.f[2]) / 2) * (Q.f[0] - Q.f[2]);
            e = eI + eQ;
        }
        if (k == 0) {
            W = W + e * Kp + e * Ki;
        } else {
            e = (ePrev + e) / 2;
            W = W + (e - ePrev) * Kp + e * Ki;
        }
        ePrev = e;
        out[k] = Complex{I.y[0], Q.y[0]};
        ++k;
        if (k >= Nsym) break;
    }
    return static_cast<int>(k);
}

bool dense_qam_offset_hz(CommonFun& cf, const Complex* s, int n, double Rs, int* fHz) {
    HeapArray<Complex> X = heap_zeroed<Complex>(kFftLen);
    if (!X) return false;
    const int count = n < kFftLen ? n : kFftLen;
    for (int i = 0; i < count; ++i) {
        const Complex sq = cf.Complex_mul(s[i], s[i]);
        X[i] = cf.Complex_mul(sq, sq);
    }
    cf.fft_radix2(X.get(), kFftLen);
    cf.fftshift_complex(X.get(), kFftLen);

    // Strongest bin; the first of equal peaks is kept. The start index is the
    // zero-frequency bin, so a spectrum that never compares (NaN) gives 0 Hz.
    int peak = kFftLen / 2;
    double best = -1.0;
    for (int k = 0; k < kFftLen; ++k) {
        const double P = X[k].re * X[k].re + X[k].im * X[k].im;
        if (P > best) {
            best = P;
            peak = k;
        }
    }
    // The line sits at four times the offset. Out-of-range values saturate.
    *fHz = round_to_int((-Rs / 2 + (Rs / kFftLen) * peak) / 4);
    return true;
}

double dense_qam_quadrant_phase(const Complex* s, int n) {
    const int count = n < kPhaseSpan ? n : kPhaseSpan;
    double sumC = 0.0, sumS = 0.0;
    for (int i = 0; i < count; ++i) {
        const double r2 = s[i].re * s[i].re + s[i].im * s[i].im;
        const double phi = std::atan2(s[i].im, s[i].re);
        // Weighting by the cube of the power lets the outer points, whose
        // fourth-power angle is the cleanest, dominate the estimate.
        const double r6 = r2 * r2 * r2;
        sumC += r6 * std::cos(4 * phi);
        sumS += r6 * std::sin(4 * phi);
    }
    return std::atan2(sumS, sumC) / 4 - kQuarterPi;
}

bool dense_qam_outer_mean(const Complex* s, int n, int M, double* mean) {
    if (n <= 0 || M <= 0) return false;
    HeapArray<double> mag = heap_alloc<double>(n);
    if (!mag) return false;
    for (int i = 0; i < n; ++i) mag[i] = Complex_abs(s[i]);
    // Without NaN or -0 the values are totally ordered and equal values have
    // equal bits: the ascending radix sort reversed is the descending order.
    if (radix_sort_doubles(mag.get(), n)) {
        std::reverse(mag.get(), mag.get() + n);
    } else {
        std::qsort(mag.get(), static_cast<size_t>(n), sizeof(double), descendingNanLast);
    }
    std::int64_t top = static_cast<std::int64_t>(n) * 4 / M;
    if (top < 1) top = 1;
    if (top > n) top = n;
    double sum = 0.0;
    for (std::int64_t i = 0; i < top; ++i) sum += mag[i];
    double m = sum / static_cast<double>(top);
    if (m < kFloor) m = 1.0;
    *mean = m;
    return true;
}

// Per symbol, with theta = v = e_prev = 0 at the start:
//   y = s . exp(-j fmod(theta, 2 pi));  a = arg y in [0, 2 pi)
//   |y|^2 <= gate: err = 0; otherwise q = angle of y's quadrant diagonal and
//     256: err = 10 sin(a - q)
//     128: err = 0.5 sin(a - q + 0.2187) if a - q <= 0, else 0.5 sin(a - q - 0.2187)
//   v' = (err - e_prev) Kp + v + Ki e_prev;  theta += v (the old value);  v = v'
void dense_qam_phase_loop(CommonFun& cf, const Complex* s, int n, const DenseQamConstants& c,
                          Complex* out) {
    double theta = 0.0, v = 0.0, ep = 0.0;
    for (int i = 0; i < n; ++i) {
        const double phi = fmod_two_pi(theta);
        const Complex y = rotated(cf, s[i], -phi);
        out[i] = y;
        const double a = angleFrom0(y.im, y.re);

        double err = 0.0;
        if (y.re * y.re + y.im * y.im > c.powerGate) {
            const double sI = y.re < 0 ? -1.0 : 1.0;
            const double sQ = y.im < 0 ? -1.0 : 1.0;
            const double q = angleFrom0(sQ, sI);
            const double diff = a - q;
            if (c.detectorOffset == 0.0) {
                err = c.detectorGain * std::sin(diff);
            } else if (diff <= 0) {
                err = c.detectorGain * std::sin(diff + c.detectorOffset);
            } else {
                err = c.detectorGain * std::sin(diff - c.detectorOffset);
            }
        }
        const double vNew = (err - ep) * c.loopKp + v + c.loopKi * ep;
        theta = theta + v;
        v = vNew;
        ep = err;
    }
}
