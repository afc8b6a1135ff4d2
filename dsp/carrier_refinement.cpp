// Residual carrier offset of PSK and QAM signals by the power method.
#include <algorithm>
#include <cmath>

#include "CommonFun.h"
#include "safe_convert.h"

namespace {
constexpr int kFftLen = 16384;
}  // namespace

// Raising a PSK signal to its order M (QAM: to the fourth power) removes the
// data modulation and leaves a spectral line at D times the residual carrier
// offset. On the first 16384 samples (zero-padded when shorter):
//   y = x^D,  Y = shift(FFT16384(y)),  k^ = lowest index of max |Y[k]|^2
//   f = (-fs/2 + (fs/16384)(k^ + 1)) / D                      hertz
//   *fc = round(f), halves away from zero (always 0 for 32-QAM)
//   *level = 20 log10(|Y[k^]| / 16384) dB, or -100 below 1e-12
// The one-based bin number k^ + 1 puts the estimate one bin (before the
// division by D) above the line, as in the coarse estimate; the figure is
// reported that way. Resolution fs / (16384 D); no interpolation.
// 32-QAM deliberately gets no correction from this stage (the QAM
// demodulator makes its own fourth-power correction for 32 points), but
// its line level is still measured.
// Refusals (n <= 0, fs <= 0, ASK/FSK/analog or an unknown family, no memory)
// give *fc = 0 and *level = 0. Of `param` only `mode` is read.
void CommonFun::calcFc(const Complex* x, int n, double fs, ModType type, int order,
                       ExParamOut param, int* fc, double* level) {
    if (n <= 0 || fs <= 0) {
        *fc = 0;
        *level = 0.0;
        return;
    }
    const bool noCorrection = param.mode == MOD_32QAM;
    if (noCorrection) *fc = 0;

    const int family = static_cast<int>(type);
    HeapArray<Complex> y;
    if (family != MT_ASK && family != MT_FSK && family != MT_ANALOG) {
        y = heap_zeroed<Complex>(kFftLen);
    }
    if (!y) {
        *fc = 0;
        *level = 0.0;
        return;
    }
    const int count = std::min(n, kFftLen);
    for (int k = 0; k < count; ++k) y[k] = x[k];

    double D;
    if (family == MT_QAM) {
        for (int k = 0; k < kFftLen; ++k) {
            const Complex sq = Complex_mul(y[k], y[k]);
            y[k] = Complex_mul(sq, sq);
        }
        D = 4;
    } else if (family == MT_PSK) {
        const double M = order;
        for (int k = 0; k < kFftLen; ++k) {
            const double r = Complex_abs(y[k]);
            const double theta = std::atan2(y[k].im, y[k].re);
            const double rM = std::pow(r, M);
            y[k] = Complex{rM * std::cos(M * theta), rM * std::sin(M * theta)};
        }
        D = M;
    } else {
        *fc = 0;
        *level = 0.0;
        return;
    }

    fft_radix2(y.get(), kFftLen);
    fftshift_complex(y.get(), kFftLen);

    int peak = 0;
    double best = -1.0;
    for (int k = 0; k < kFftLen; ++k) {
        const double P = y[k].re * y[k].re + y[k].im * y[k].im;
        if (P > best) {
            best = P;
            peak = k;
        }
    }

    const double A = std::sqrt(best) / 16384;
    const double fLine = -fs / 2 + (fs / 16384) * (peak + 1);
    const double f = fLine / D;
    // D = 0 (an order of 0) or fs = inf make f non-finite: the conversion
    // saturates (NaN gives 0) instead of being undefined.
    if (!noCorrection) *fc = round_to_int(f);
    *level = A > 1e-12 ? 20 * std::log10(A) : -100.0;
}
