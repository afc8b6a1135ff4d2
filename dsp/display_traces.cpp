// Display traces: the eye-diagram interpolation, the instantaneous-frequency
// trace and the phase unwrap with linear detrend.
#include <cmath>
#include <cstdint>

#include "CommonFun.h"

namespace {
constexpr double kTwoPi = 6.283185307179586;
constexpr double kPi = 3.141592653589793;

// Interpolation filter of the eye trace: 33 taps, symmetric about tap 16.
// Every fourth tap counted from the centre is zero and the centre is close to
// one, so each symbol value passes through at its own instant while the three
// points between two symbols are filled in smoothly.
constexpr int kEyeTaps = 33;
constexpr int kEyeDelay = kEyeTaps / 2;  // 16 samples
constexpr int kEyeUpsample = 4;
constexpr double kEyeFilter[kEyeTaps] = {
    -0.0,
    -0.001631969083967,
    -0.001312840904288,
    0.00059465793684,
    -0.0,
    -0.005022174366379,
    -0.00902315597244,
    -0.005359314112772,
    -0.0,
    -0.012154412643025,
    -0.048354861493334,
    -0.070341634758917,
    0.0,
    0.220851293758382,
    0.557957384322318,
    0.87280673827055,
    1.001980578094065,  // centre tap
    0.87280673827055,
    0.557957384322318,
    0.220851293758382,
    0.0,
    -0.070341634758917,
    -0.048354861493334,
    -0.012154412643025,
    -0.0,
    -0.005359314112772,
    -0.00902315597244,
    -0.005022174366379,
    -0.0,
    0.00059465793684,
    -0.001312840904288,
    -0.001631969083967,
    -0.0,
};

// Phase step from p to q, normalised by the power of q:
//   Im(conj(p) q) / |q|^2 = (p.re q.im - q.re p.im) / |q|^2,
// which is the angle step in radians when |p| ~ |q| and the step is small.
// A (near) zero-power q gives 0 rather than a division by zero.
double phase_step(Complex p, Complex q) {
    const double power = q.re * q.re + q.im * q.im;
    if (power > 1e-12) return (p.re * q.im - q.re * p.im) / power;
    return 0.0;
}
}  // namespace

// Eye trace at four points per symbol from one value per symbol.
//   x[4i] = Re in[i] (zero elsewhere), y = x * h (full convolution, 33 taps),
//   out[k] = y[16 + k] / scale,  k = 0 .. m-1,  m = min(4n - 16, capacity).
// Only the in-phase component is drawn. The 16-sample filter delay is removed
// by starting at y[16], so out[4i] is (close to) in[i].re / scale.
// *len: capacity of out on entry, values written on return (0 on bad
// arguments or scale < 1).
//
// y is formed through a window of a few hundred symbols instead of a block
// of 4n + 32 values: each symbol is scattered into the window
// (symbols in increasing order, a zero value skipped, every y value's sum
// starting at 0), the values no later symbol reaches are written out, and
// the 32 still open are carried to the front of the next window. Every y
// value is the same sum of the same products in the same order.
void CommonFun::getEye(const Complex* in, int n, int scale, double* out, int* len) {
    if (len == nullptr) return;
    if (in == nullptr || out == nullptr || n <= 0 || scale < 1 || *len <= 0) {
        *len = 0;
        return;
    }
    const std::int64_t upsampled = static_cast<std::int64_t>(kEyeUpsample) * n;
    std::int64_t m = upsampled - kEyeDelay;
    if (m > *len) m = *len;
    if (m < 0) m = 0;

    constexpr int kChunk = 256;  // symbols per window
    constexpr int kOpen = kEyeTaps - 1;
    double window[kEyeUpsample * kChunk + kOpen] = {};
    // window[t] holds y[base + t], base = 4 * first symbol of the chunk.
    for (std::int64_t first = 0; first < n; first += kChunk) {
        const std::int64_t base = kEyeUpsample * first;
        if (base >= kEyeDelay + m) break;  // every output written
        const int count = static_cast<int>(n - first < kChunk ? n - first : kChunk);
        for (int c = 0; c < count; ++c) {
            const double value = in[first + c].re;
            if (value == 0.0) continue;
            double* y = window + kEyeUpsample * c;
            for (int t = 0; t < kEyeTaps; ++t) y[t] += value * kEyeFilter[t];
        }
        // y[base .. base + 4 count) receives nothing from later symbols.
        const std::int64_t done = base + kEyeUpsample * count;
        std::int64_t from = base > kEyeDelay ? base : kEyeDelay;
        std::int64_t to = done < kEyeDelay + m ? done : kEyeDelay + m;
        for (std::int64_t j = from; j < to; ++j) out[j - kEyeDelay] = window[j - base] / scale;
        // Carry the open values to the front and clear the rest.
        const int shift = kEyeUpsample * count;
        for (int t = 0; t < kOpen; ++t) window[t] = window[shift + t];
        for (int t = kOpen; t < kOpen + shift; ++t) window[t] = 0.0;
    }
    *len = static_cast<int>(m);  // m <= *len, an int
}

// Instantaneous frequency in radians per sample, mean removed:
//   out[k] = Im(conj(in[k-1]) in[k]) / |in[k]|^2,  k = 1 .. n-1,
//   out[0] from the last sample of the previous block when one is stored,
//          else a copy of out[1] (or 0 for a single sample),
//   out[k] -= mean(out[1..n-1])   (out[0] is left out of the mean).
// The block's last sample is kept so the next call continues seamlessly.
// Writes n values; nothing when n < 1 or a pointer is null.
void CommonFun::getFreq(const Complex* in, int n, double* out) {
    if (in == nullptr || out == nullptr || n < 1) return;
    for (int k = 1; k < n; ++k) out[k] = phase_step(in[k - 1], in[k]);

    if (freqHavePrev) {
        out[0] = phase_step(Complex{freqPrevRe, freqPrevIm}, in[0]);
    } else if (n > 1) {
        out[0] = phase_step(in[0], in[1]);
    } else {
        out[0] = 0.0;
    }

    double mean = 0.0;
    if (n > 1) {
        double sum = 0.0;
        for (int k = 1; k < n; ++k) sum += out[k];
        mean = sum / (n - 1);
    }
    for (int k = 0; k < n; ++k) out[k] -= mean;

    freqPrevRe = in[n - 1].re;
    freqPrevIm = in[n - 1].im;
    freqHavePrev = 1;
}

// Unwraps a phase sequence (radians) and removes its least-squares line:
//   u[0] = in[0],  u[i] = in[i] - 2 pi * sum_{l<=i} round((in[l] - in[l-1]) / 2 pi),
//   (slope, intercept) fit u[i] ~ intercept + slope * i,
//   out[i] = u[i] - (intercept + i * slope).
// The rounding takes halves away from zero and stays in double, so a NaN
// phase propagates instead of reaching an integer conversion. Slope is in
// radians per sample; slope and intercept may be null. For n <= 1 the input
// is copied, slope = 0 and intercept = in[0] (0 for n < 1). Writes n values;
// out may be the same array as in.
void CommonFun::phaseUnwrapAndDetrend(const double* in, int n, double* out, double* slope,
                                      double* intercept) {
    double fitSlope = 0.0;
    double fitIntercept = 0.0;
    // Missing arrays are treated as an empty sequence: nothing to read or
    // write, and a flat line through zero.
    if (in == nullptr || out == nullptr) n = 0;

    if (n <= 1) {
        if (n == 1) {
            out[0] = in[0];
            fitIntercept = in[0];
        }
    } else {
        // Unwrap, carrying the raw previous value so that out may alias in.
        double offset = 0.0;
        double previous = in[0];
        out[0] = in[0];
        for (int i = 1; i < n; ++i) {
            const double current = in[i];
            const double k = std::round((current - previous) / kTwoPi);
            offset = offset - 2.0 * k * kPi;
            out[i] = current + offset;
            previous = current;
        }

        double sx = 0.0, sy = 0.0, sxx = 0.0, sxy = 0.0;
        for (int i = 0; i < n; ++i) {
            const double x = static_cast<double>(i);
            sx += x;
            sy += out[i];
            sxx += x * x;
            sxy += x * out[i];
        }
        fitSlope = (n * sxy - sx * sy) / (n * sxx - sx * sx);
        fitIntercept = (sy - fitSlope * sx) / n;
        for (int i = 0; i < n; ++i) out[i] = out[i] - (fitIntercept + i * fitSlope);
    }

    if (slope != nullptr) *slope = fitSlope;
    if (intercept != nullptr) *intercept = fitIntercept;
}
