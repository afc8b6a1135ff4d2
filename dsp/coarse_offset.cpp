// Coarse carrier offset: estimate from one long spectrum, removal by mixing.
#include <cmath>

#include "CommonFun.h"
#include "safe_convert.h"

namespace {
constexpr int kFftLen = 16384;   // analysis length, FFT size
constexpr int kCentreBin = 8192;  // zero frequency after the shift
constexpr double kMinusTwoPi = -6.283185307179586;

// Index of the largest value, scanning upward from 1 against a running
// maximum that starts at m[0] and moves only on a strictly larger value, so
// the lowest index wins a tie (and an all-NaN or all-equal spectrum gives 0).
int lowest_peak_index(const double* m, int n) {
    int p = 0;
    double best = m[0];
    for (int k = 1; k < n; ++k) {
        if (m[k] > best) {
            best = m[k];
            p = k;
        }
    }
    return p;
}
}  // namespace

// Coarse carrier offset of the raw block, in hertz, from the first 16384
// samples (the caller guarantees them; `length` is not consulted).
//
//   X = shift(FFT16384(I + jQ)),  M[k] = |X[k]| / 16384
//   c = sum (k+1) M[k]^2 / (sum M[k]^2 + 1e-30)      (power centroid)
//   df = (fs/16384) c - fs/2,  level = -1000 dB ("not measured")
//
// The centroid weights bin k by its one-based number k + 1, which puts the
// estimate one bin (fs/16384) above the true centre of gravity; the reported
// figure keeps that bias. For the ASK code and the first analog code the
// carrier is a line, so the strongest bin p is used instead:
//   df = (fs/16384)(p - 8192),  level = 20 log10(M[p] + 1e-30) dB.
// *df is df rounded half away from zero; a non-finite df (fs NaN or inf)
// saturates or becomes 0 rather than converting undefined.
// Out of memory: *df = 0, *level = -1000.
void CommonFun::calcdf(const short* I, const short* Q, int length, double fs,
                       modulationTypeOut type, int* df, double* level) {
    (void)length;
    HeapArray<Complex> spectrum = heap_alloc<Complex>(kFftLen);
    HeapArray<double> mag = heap_alloc<double>(kFftLen);
    if (!spectrum || !mag) {
        *df = 0;
        *level = -1000.0;
        return;
    }

    // Raw samples: no scaling, no mean removal, no window.
    for (int k = 0; k < kFftLen; ++k) {
        spectrum[k] = Complex{static_cast<double>(I[k]), static_cast<double>(Q[k])};
    }
    fft_radix2(spectrum.get(), kFftLen);
    fftshift_complex(spectrum.get(), kFftLen);
    for (int k = 0; k < kFftLen; ++k) mag[k] = Complex_abs(spectrum[k]) / 16384.0;

    double weighted = 0.0;
    double total = 0.0;
    for (int k = 0; k < kFftLen; ++k) {
        const double power = mag[k] * mag[k];
        weighted += (k + 1) * power;
        total += power;
    }
    const double centroid = weighted / (total + 1e-30);
    double offset = (fs / 16384.0) * centroid - fs / 2.0;
    double lineLevel = -1000.0;

    const int code = static_cast<int>(type);
    if (code == MOD_ASK || code == MOD_ANALOG_AM) {
        const int p = lowest_peak_index(mag.get(), kFftLen);
        lineLevel = 20.0 * std::log10(mag[p] + 1e-30);
        offset = (fs / 16384.0) * (p - kCentreBin);
    }

    *df = round_to_int(offset);
    *level = lineLevel;
}

// Converts n raw samples to Complex and mixes the offset df (Hz) out:
//   out[i] = (I[i] + jQ[i]) e^{j phi_i},  phi_{i+1} = phi_i + df (-2 pi) / fs
// starting from the carried mixer phase, which is stored back unwrapped so a
// following block continues the same oscillator. cos and sin are evaluated
// at every sample (no recursive phasor, so no amplitude drift). The output
// stays on the raw int16 scale. df = 0 reproduces the input exactly; fs = 0
// gives a non-finite step and non-finite output, but nothing undefined.
void CommonFun::correctDF(const short* I, const short* Q, int n, double fs, int df,
                          Complex* out) {
    const double step = df * kMinusTwoPi / fs;
    double phi = mixerPhase;
    for (int i = 0; i < n; ++i) {
        const double c = std::cos(phi);
        const double s = std::sin(phi);
        const double re = static_cast<double>(I[i]);
        const double im = static_cast<double>(Q[i]);
        out[i].re = re * c - im * s;
        out[i].im = im * c + re * s;
        phi += step;
    }
    mixerPhase = phi;
}
