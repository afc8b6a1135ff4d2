// Cubic (third-order Lagrange) Farrow interpolator: rate reduction to the
// analysis rate without anti-alias filtering, as a streaming stage.
#include <cstdint>
#include <cstring>

#include "CommonFun.h"
#include "safe_convert.h"

namespace {

// x(k) of the one-based working sequence, with x(0) taken as silence.
Complex sample_at(const Complex* x, int k) { return k >= 1 ? x[k - 1] : Complex{0.0, 0.0}; }

// Lagrange cubic on the nodes -1, 0, 1, 2 evaluated at mu in [0, 1):
//   y = wa a + wb b + wc c + wd d.
Complex cubic_lagrange(Complex a, Complex b, Complex c, Complex d, double mu) {
    const double mu2 = mu * mu;
    const double mu3 = mu2 * mu;
    const double wa = -0.16666666666666666 * mu3 + 0.5 * mu2 - 0.3333333333333333 * mu;
    const double wb = 0.5 * mu3 - mu2 - 0.5 * mu + 1.0;
    const double wc = -0.5 * mu3 + 0.5 * mu2 + mu;
    const double wd = 0.16666666666666666 * mu3 - 0.16666666666666666 * mu;
    return Complex{wa * a.re + wb * b.re + wc * c.re + wd * d.re,
                   wa * a.im + wb * b.im + wc * c.im + wd * d.im};
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
    while (k >= 1 && k <= N - 2 && m < INT32_MAX) {
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
