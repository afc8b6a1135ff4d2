// Power spectrum of the working block and the SNR measured on it.
#include <cmath>
#include <cstdint>

#include "CommonFun.h"
#include "safe_convert.h"

namespace {
constexpr int kFftLen = 16384;
constexpr int kCentreBin = 8192;
constexpr int kLastBin = kFftLen - 1;

bool is_power_of_two(int n) { return n > 0 && (n & (n - 1)) == 0; }

// Sum of P[from..to], both ends included; empty (0) when from > to.
double band_sum(const double* P, std::int64_t from, std::int64_t to) {
    double sum = 0.0;
    for (std::int64_t k = from; k <= to; ++k) sum += P[k];
    return sum;
}

struct Band {
    double snr;
    double width;
    bool valid;
};

// Band from the symbol rate: one symbol rate either side of the centre,
// h = round((Rb/fs) 16384) bins. The noise floor outside the band,
// Nz / ((8192 - h) 2) per bin, is taken to lie under the band as well, and
// 2h bins of it are subtracted from the in-band power.
//
// h is saturated to the 32-bit range (NaN gives 0) and every index quantity
// that follows is formed in 64 bits, so a huge, infinite or negative Rb/fs
// gives the exact value of the same formulas instead of a wrapped one. For
// h >= 8192 the band is the whole spectrum (noise 0 -> 1e-30); a negative h
// leaves an empty band and the result is whatever the correction makes of it.
Band symbol_rate_band(const double* P, double Rb, double fs) {
    const std::int64_t h = round_to_int((Rb / fs) * 16384.0);
    std::int64_t lo = kCentreBin - h;
    std::int64_t hi = kCentreBin + h;
    if (lo < 0) lo = 0;
    if (hi > kLastBin) hi = kLastBin;

    // A non-empty [lo, hi] lies inside [0, 16383]: lo > 16383 implies hi < 0.
    double S = band_sum(P, lo, hi);
    const double T = band_sum(P, 0, kLastBin);
    double Nz = T - S;

    std::int64_t d = (kCentreBin - h) * 2;  // bins outside the band
    if (d <= 0) d = 1;
    S = S - static_cast<double>(2 * h) * (Nz / static_cast<double>(d));
    if (S < 0.0) S = 0.0;
    if (Nz <= 0.0) Nz = 1e-30;
    return Band{10.0 * std::log10(S / Nz), 2.0 * Rb, true};
}

// Band from the spectrum itself (FSK, analog): with C the cumulative power,
// a maximises the mean power below k, A[k] = C[k]/k, and b maximises the mean
// power above k, B[k] = (C[16383] - C[k])/(16384 - k), over k = 1..16382
// (first maximum wins). For a band-limited signal a lands near its upper edge
// and b near its lower edge; the band [b, a] is then widened by a third of
// its width on each side. Invalid (a < b) for a spectrum with no such shape.
Band cumulative_power_band(const double* P, double* C, double fs) {
    C[0] = P[0];
    for (int k = 1; k < kFftLen; ++k) C[k] = C[k - 1] + P[k];

    int a = 1, b = 1;
    double bestA = C[1] / 1;
    double bestB = (C[kLastBin] - C[1]) / (kFftLen - 1);
    for (int k = 2; k <= kFftLen - 2; ++k) {
        const double A = C[k] / k;
        const double B = (C[kLastBin] - C[k]) / (kFftLen - k);
        if (A > bestA) {
            bestA = A;
            a = k;
        }
        if (B > bestB) {
            bestB = B;
            b = k;
        }
    }

    // |a - b| < 16382, so e and the moved edges stay small.
    const int e = floor_to_int((a - b) / 3.0);
    b = b - e;
    a = a + e;
    if (b < 0) b = 0;
    if (a > kLastBin) a = kLastBin;
    if (a < b) return Band{0.0, 0.0, false};

    double S = band_sum(P, b, a);
    const double T = band_sum(P, 0, kLastBin);
    double Nz = T - S;
    const double g = (a - b) / 2.0;
    double r = 16384.0 - 2 * g;
    if (r <= 0.0) r = 1.0;
    S = S - 2 * g * (Nz / r);
    if (S < 0.0) S = 0.0;
    if (Nz <= 0.0) Nz = 1e-30;
    return Band{10.0 * std::log10(S / Nz), (a - b) * (fs / 16384.0), true};
}
}  // namespace

// Hamming-windowed power spectrum of the first N values of `in`, re-centred:
//   P[k] = |FFT_N(w x)[k]|^2 / N^2,  index N/2 = zero frequency,
//   bin k = (k - N/2) fs / N.
// Returns N doubles from malloc (the caller releases them with free), or null
// when len < N, when N is not a positive power of two (the FFT needs one) or
// when memory runs out. fs and flag do not change the result.
double* CommonFun::pu(const Complex* in, int len, double fs, int N, int flag) {
    (void)fs;
    (void)flag;
    if (len < N || !is_power_of_two(N)) return nullptr;

    HeapArray<Complex> x = heap_alloc<Complex>(N);
    if (!x) return nullptr;
    for (int k = 0; k < N; ++k) x[k] = in[k];
    if (N == 16384) {
        const double* w = hamming_window_16384();
        for (int k = 0; k < N; ++k) {
            x[k].re = x[k].re * w[k];
            x[k].im = x[k].im * w[k];
        }
    } else {
        HeapArray<double> w = heap_alloc<double>(N);
        if (!w) return nullptr;
        hamming_window(w.get(), N);
        for (int k = 0; k < N; ++k) {
            x[k].re = x[k].re * w[k];
            x[k].im = x[k].im * w[k];
        }
    }
    fft_radix2(x.get(), N);
    fftshift_complex(x.get(), N);

    HeapArray<double> P = heap_alloc<double>(N);
    if (!P) return nullptr;
    // N*N as an integer; 64 bits so that no N that fits memory can overflow.
    const std::int64_t nn = static_cast<std::int64_t>(N) * N;
    const double scale = 1.0 / static_cast<double>(nn);
    for (int k = 0; k < N; ++k) P[k] = Complex_abs2(x[k]) * scale;
    return P.release();
}

// SNR in dB of the first 16384 values of the working block, from one
// windowed power spectrum:  SNR = 10 log10(S / Nz), with S the in-band power
// less the noise estimated to lie under the band, and Nz the power outside.
//   PSK, QAM, ASK: band = centre +- Rb, *bandOut = 2 Rb.
//   FSK, analog:   band found from the cumulative power,
//                  *bandOut = its width in Hz, for the analog demodulator.
// len < 16384, no memory or (FSK/analog) no band found: *snrOut = 0 and
// *bandOut is left alone. An empty band gives -inf, passed on as it is.
// Only param->Rb is read.
void CommonFun::calcSNR(const Complex* in, int len, double fs, ModType family,
                        const ExParamOut* param, double* snrOut, double* bandOut) {
    if (len < kFftLen) {
        *snrOut = 0.0;
        return;
    }
    HeapArray<double> P(pu(in, kFftLen, fs, kFftLen, 1));
    if (!P) {
        *snrOut = 0.0;
        return;
    }

    Band band;
    const int fam = static_cast<int>(family);
    if (fam != MT_FSK && fam != MT_ANALOG) {
        band = symbol_rate_band(P.get(), param->Rb, fs);
    } else {
        HeapArray<double> C = heap_zeroed<double>(kFftLen);
        if (!C) {
            *snrOut = 0.0;
            return;
        }
        band = cumulative_power_band(P.get(), C.get(), fs);
    }

    if (!band.valid) {
        *snrOut = 0.0;
        return;
    }
    *snrOut = band.snr;
    *bandOut = band.width;
}
