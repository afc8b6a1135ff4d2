// Cubic (third-order Lagrange) Farrow interpolator: rate reduction to the
// analysis rate without anti-alias filtering, as a streaming stage.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "CommonFun.h"
#include "safe_convert.h"

namespace {

// x(k) of the one-based working sequence, with x(0) taken as silence.
Complex sample_at(const Complex* x, int k) { return k >= 1 ? x[k - 1] : Complex{0.0, 0.0}; }

// Lagrange cubic on the nodes -1, 0, 1, 2 evaluated at mu in [0, 1):
//   y = wa a + wb b + wc c + wd d.
struct CubicWeights {
    double wa, wb, wc, wd;
};

CubicWeights cubic_weights(double mu) {
    const double mu2 = mu * mu;
    const double mu3 = mu2 * mu;
    return CubicWeights{-0.16666666666666666 * mu3 + 0.5 * mu2 - 0.3333333333333333 * mu,
                        0.5 * mu3 - mu2 - 0.5 * mu + 1.0,
                        -0.5 * mu3 + 0.5 * mu2 + mu,
                        0.16666666666666666 * mu3 - 0.16666666666666666 * mu};
}

Complex weighted(const CubicWeights& w, Complex a, Complex b, Complex c, Complex d) {
    return Complex{w.wa * a.re + w.wb * b.re + w.wc * c.re + w.wd * d.re,
                   w.wa * a.im + w.wb * b.im + w.wc * c.im + w.wd * d.im};
}

Complex cubic_lagrange(Complex a, Complex b, Complex c, Complex d, double mu) {
    return weighted(cubic_weights(mu), a, b, c, d);
}

}  // namespace

// Resamples n input samples at fs_in to the output rate fs_out:
//   out[m] = cubic Lagrange interpolation of x at position k0 + mu0 + m * step,
//   step = fs_in / fs_out input samples per output,
// with x one-based. A fresh state starts at x(1) (mu = 0, x(0) taken as 0);
// an initialised state prepends the last three samples of the previous block
// and continues that block's output grid, so consecutive calls produce the
// same grid as one call on the joined blocks. Outputs stop while the right
// neighbours x(k+1), x(k+2) still lie inside the block: the last two inputs
// are reached by the next call. `out` must hold every output (the caller sizes
// it for about (n + 3) * fs_out / fs_in); *out_len receives the count. No
// delay is introduced beyond the choice of the first output at x(1).
void CommonFun::FarrowInterp(const Complex* in, int n, double fs_out, double fs_in,
                             Complex* out, int* out_len) {
    const double step = fs_in / fs_out;
    // A zero, negative or NaN step has no next output position (a zero step
    // would repeat x(1) without end): nothing is produced and the state is
    // kept. An infinite step (fs_out = 0) is fine and gives one sample.
    if (!(step > 0)) {
        *out_len = 0;
        return;
    }
    HeapArray<Complex> extended;
    const Complex* x = in;
    int N = n;
    int k = 1;
    double mu = 0.0;
    if (farrowInitialised) {
        if (n < 0 || n > INT32_MAX - 3) {
            *out_len = 0;
            return;
        }
        N = n + 3;
        extended = heap_alloc<Complex>(N);
        if (!extended) {
            *out_len = 0;
            return;
        }
        std::memcpy(extended.get(), farrowHistory, sizeof(farrowHistory));
        if (n > 0) std::memcpy(extended.get() + 3, in, sizeof(Complex) * static_cast<size_t>(n));
        x = extended.get();
        k = farrowNextIndex;
        mu = farrowMu;
    }
    const int k0 = k;
    const double mu0 = mu;

    // The position is recomputed from the origin for every output. The loop
    // also stops on a position below x(1) or not a number (possible only
    // from a corrupted stored state), which would read before the block.
    int m = 0;
    // A whole step from a grid point (mu0 = +0, as on a fresh state): every
    // position m step + mu0 + k0 is a whole number below 2^34, formed
    // exactly, so k advances by the step and mu = t - k is +0 each time. The
    // weights are then those of mu = +0 for every output, computed once, and
    // the positions are counted in integers; the position after the last
    // output is formed as the general loop forms it, for the stored state.
    const bool wholeStep = mu0 == 0.0 && !std::signbit(mu0) && k0 >= 1 && step >= 1.0 &&
                           step <= 2147483648.0 && step == std::floor(step);
    if (wholeStep) {
        const CubicWeights w = cubic_weights(mu0);
        const std::int64_t stride = static_cast<std::int64_t>(step);
        std::int64_t kk = k0;
        // x(0), the silence before the block, is read only at k = 1.
        if (kk == 1 && kk <= N - 2) {
            out[m] = weighted(w, sample_at(x, 0), x[0], x[1], x[2]);
            m += 1;
            kk += stride;
        }
        for (; kk <= N - 2 && m < INT32_MAX; kk += stride) {
            const Complex* p = x + (kk - 2);  // x(kk - 1) .. x(kk + 2)
            out[m] = weighted(w, p[0], p[1], p[2], p[3]);
            m += 1;
        }
        if (m > 0) {
            const double t = m * step + mu0 + k0;
            k = floor_to_int(t);
            mu = t - k;
        }
    }
    while (!wholeStep && k >= 1 && k <= N - 2 && m < INT32_MAX) {
        out[m] = cubic_lagrange(sample_at(x, k - 1), sample_at(x, k), sample_at(x, k + 1),
                                sample_at(x, k + 2), mu);
        m += 1;
        const double t = m * step + mu0 + k0;
        if (std::isnan(t)) break;
        k = floor_to_int(t);
        mu = t - k;
    }

    if (N < 3) {
        for (Complex& h : farrowHistory) h = Complex{0.0, 0.0};
    } else {
        farrowHistory[0] = x[N - 3];
        farrowHistory[1] = x[N - 2];
        farrowHistory[2] = x[N - 1];
    }
    // Position of the next output in the next block's extended buffer; an
    // infinite step has pushed k to the int limit, hence the 64-bit sum.
    farrowNextIndex = saturate_cast<int>(static_cast<double>(static_cast<std::int64_t>(k) + 3 - N));
    farrowMu = mu;
    farrowInitialised = 1;
    *out_len = m;
}

// The coarse-offset mixer followed by the interpolator on a fresh state, for
// a whole number of input samples per output (`factor` = fs_in / fs_out):
// the same outputs, count, interpolator state and mixer phase as
//   correctDF(I, Q, n, fs, df, mixed);  FarrowInterp(mixed, n, fs / factor, fs, out, ...)
// but without mixing the samples that cannot change an output.
//
// With a whole step every output falls on a sample (mu = 0), where the cubic
// weights are exactly +0, 1, +0, +0: the output is
//   ((+0 a + b) + +0 c) + +0 d,
// which is b itself whenever b's parts are finite and nonzero and a, c, d are
// finite (the zero products then only ever add a signed zero to b). The
// mixed samples are finite exactly when their phases are. So only one sample
// in `factor` is mixed; its neighbours are mixed too, and the full weighted
// sum formed, only when b has a zero or non-finite part or a neighbour's
// phase is not finite. The phase still advances by one step per sample, as
// the mixer's running sum, so every phase used is the mixer's own.
//
// out[count .. keep) (keep clipped to n) receive the mixed samples there, as
// mixing the whole block into `out` and interpolating over its start leaves
// them: a reader of the buffer's first `keep` values sees the same numbers.
void CommonFun::correctDFDecimated(const short* I, const short* Q, int n, double fs, int df,
                                   int factor, int keep, Complex* out, int* out_len) {
    const double step = df * -6.283185307179586 / fs;
    auto mix = [&](std::int64_t i, double phi) {
        const double c = std::cos(phi);
        const double s = std::sin(phi);
        const double re = static_cast<double>(I[i]);
        const double im = static_cast<double>(Q[i]);
        return Complex{re * c - im * s, im * c + re * s};
    };
    auto usable = [](double v) { return std::isfinite(v) && v != 0.0; };

    const double phi0 = mixerPhase;
    double phi = phi0;        // phase of sample i
    double phiBefore = 0.0;   // phase of sample i - 1, for i >= 1
    std::int64_t i = 0;
    int m = 0;
    // Outputs fall on the zero-based samples b = m * factor while b + 2 < n.
    for (std::int64_t b = 0; b + 2 < n && m < INT32_MAX; b += factor, ++m) {
        for (; i < b; ++i) {
            phiBefore = phi;
            phi += step;
        }
        const double phi1 = phi + step;
        const double phi2 = phi1 + step;
        const Complex xb = mix(b, phi);
        // A running phase that has left the finite range never comes back,
        // so a finite phase at b means a finite one before it.
        if (usable(xb.re) && usable(xb.im) && std::isfinite(phi1) && std::isfinite(phi2)) {
            out[m] = xb;
        } else {
            const Complex xa = b > 0 ? mix(b - 1, phiBefore) : Complex{0.0, 0.0};
            out[m] = cubic_lagrange(xa, xb, mix(b + 1, phi1), mix(b + 2, phi2), 0.0);
        }
    }

    // The mixer runs to the end of the block (the output loop stopped at or
    // before sample n - 3); the interpolator keeps the last three mixed
    // samples and the position of its next output.
    double tailPhase[3] = {0.0, 0.0, 0.0};
    for (; i < n; ++i) {
        if (i >= n - 3) tailPhase[i - (n - 3)] = phi;
        phi += step;
    }
    for (int t = 0; t < 3; ++t)
        farrowHistory[t] = n < 3 ? Complex{0.0, 0.0} : mix(n - 3 + t, tailPhase[t]);
    mixerPhase = phi;

    phi = phi0;
    for (std::int64_t j = 0; j < keep && j < n; ++j) {
        if (j >= m) out[j] = mix(j, phi);
        phi += step;
    }

    const double t = m * static_cast<double>(factor) + 0.0 + 1;
    const int k = floor_to_int(t);
    farrowNextIndex =
        saturate_cast<int>(static_cast<double>(static_cast<std::int64_t>(k) + 3 - n));
    farrowMu = t - k;
    farrowInitialised = 1;
    *out_len = m;
}
