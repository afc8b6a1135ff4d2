// Analog analyses: AM depth and envelope, FM deviation and instantaneous
// frequency, detrended phase, carrier moved to 1000 Hz, in-phase waveform.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>

#include "VantrelClass.h"
#include "sorting.h"
#include "safe_convert.h"

namespace {
constexpr double kTwoPi = 6.283185307179586;
constexpr int kSpectrumLen = 16384;
constexpr double kShiftTargetHz = 1000.0;

// Band-limiting filter: root raised cosine, roll-off 0.5, 8 symbols at 4
// samples per symbol (33 taps). It is applied only when the measured band
// occupies between an eighth and a half of the sample rate (both exclusive).
constexpr double kBandRolloff = 0.5;
constexpr int kBandSpan = 8;
constexpr int kBandSps = 4;
constexpr int kBandTapCapacity = kBandSpan * kBandSps + 1;
constexpr double kBandRatioLow = 0.125;
constexpr double kBandRatioHigh = 0.5;

// Fraction of the samples averaged at each end of the sorted values.
constexpr double kTailFraction = 0.2;

// Ascending order with NaN placed last, a strict weak ordering for every
// input (a plain '<' is not one once NaN appears and would break the sort).
bool ascending_nan_last(double a, double b) {
    if (std::isnan(a)) return false;
    if (std::isnan(b)) return true;
    return a < b;
}

// Means of the k smallest and the k largest of v[0..n-1], with
// k = floor(0.2 n) clamped to 1..n; sorted is n values of scratch. Returns
// false for n = 0, where both means would divide by zero.
bool tail_means(const double* v, int n, double* sorted, double* low, double* high) {
    if (n <= 0) return false;
    int k = trunc_to_int(n * kTailFraction);
    if (k < 1) k = 1;
    if (k > n) k = n;
    for (int i = 0; i < n; ++i) sorted[i] = v[i];
    // Only the k smallest and the k largest are summed, each set in
    // ascending order. Without NaN or -0 the values are totally ordered and
    // equal values have equal bits, so selecting the two sets and sorting
    // each (radix) gives exactly the sums of the full sort.
    if (!sort_both_tails(sorted, n, k)) std::sort(sorted, sorted + n, ascending_nan_last);
    double lowSum = 0.0, highSum = 0.0;
    for (int i = 0; i < k; ++i) lowSum += sorted[i];
    for (int i = n - k; i < n; ++i) highSum += sorted[i];
    *low = lowSum / k;
    *high = highSum / k;
    return true;
}
}  // namespace

// Code 10. Envelope e = |x| per sample; with L and H the means of the lowest
// and highest fifth of e, depth = (H - L) / (H + L + 1e-12), a ratio.
// The envelope is formed straight in the host's trace (it holds n values).
static int analog_am(const Complex* x, int n, DisplayData* out) {
    HeapArray<double> sorted = heap_alloc<double>(n);
    if (!sorted) return -1;
    double* env = out->envTrace;
    for (int i = 0; i < n; ++i) env[i] = Complex_abs(x[i]);

    // An empty block (everything dropped by the band filter) has no
    // modulation to measure: depth 0 rather than a division by zero.
    double depth = 0.0;
    double low = 0.0, high = 0.0;
    if (tail_means(env, n, sorted.get(), &low, &high))
        depth = (high - low) / (high + low + 1e-12);
    out->envTraceLen = static_cast<uint32_t>(n);
    out->amDepth = depth;
    return 0;
}

// Code 11. Instantaneous frequency in Hz,
//   f[i] = (Re x[i-1] Im x[i] - Re x[i] Im x[i-1]) / |x[i]|^2 / 2pi * fs,
// the small-angle phase step normalised by the current sample's power (0 for
// a sample of no power), f[0] = f[1]. Peak deviation = half the spread
// between the means of the highest and lowest fifth of f, in Hz.
// The frequency is formed straight in the host's trace (it holds n values),
// cleared first so that samples of no power read 0.
static int analog_fm(const Complex* x, int n, double fs, DisplayData* out) {
    HeapArray<double> sorted = heap_alloc<double>(n);
    if (!sorted) return -1;
    double* freq = out->freqTrace;
    for (int i = 0; i < n; ++i) freq[i] = 0.0;
    for (int i = 1; i < n; ++i) {
        const double power = x[i].re * x[i].re + x[i].im * x[i].im;
        if (power > 1e-12) freq[i] = (x[i - 1].re * x[i].im - x[i].re * x[i - 1].im) / power;
    }
    if (n > 1) freq[0] = freq[1];
    for (int i = 0; i < n; ++i) freq[i] = freq[i] / kTwoPi * fs;

    // No samples, no deviation (0 rather than a division by zero).
    double deviation = 0.0;
    double low = 0.0, high = 0.0;
    if (tail_means(freq, n, sorted.get(), &low, &high)) deviation = (high - low) / 2;
    out->freqTraceLen = static_cast<uint32_t>(n);
    out->fmPeakDev = deviation;
    return 0;
}

// Code 12. Phase atan2(Im, Re) taken into [0, 2pi), then unwrapped and
// detrended straight into the host's trace (radians).
static int analog_pm(CommonFun& cf, const Complex* x, int n, DisplayData* out) {
    HeapArray<double> phase = heap_alloc<double>(n);
    if (!phase) return -1;
    for (int i = 0; i < n; ++i) {
        double p = std::atan2(x[i].im, x[i].re);
        if (p < 0) p += kTwoPi;
        phase[i] = p;
    }
    cf.phaseUnwrapAndDetrend(phase.get(), n, out->phaseTrace, nullptr, nullptr);
    out->phaseTraceLen = static_cast<uint32_t>(n);
    return 0;
}

// Code 13. Finds the strongest line of the block's 16384-point spectrum (the
// first 16384 samples, zero-padded if fewer), at f = -fs/2 + k fs/16384, and
// mixes the block by a whole number of hertz s = round(1000 - f) so that the
// line lands at +1000 Hz: y[i] = x[i] (cos t + j sin t), t = s 2pi (i / fs).
// Written as interleaved real, imaginary pairs.
static int analog_shift(CommonFun& cf, const Complex* x, int n, double fs, DisplayData* out) {
    HeapArray<Complex> spectrum = heap_zeroed<Complex>(kSpectrumLen);
    if (!spectrum) return -1;
    const int used = std::min(n, kSpectrumLen);
    std::memcpy(spectrum.get(), x, sizeof(Complex) * static_cast<size_t>(used));
    cf.fft_radix2(spectrum.get(), kSpectrumLen);
    cf.fftshift_complex(spectrum.get(), kSpectrumLen);

    int peakBin = -1;
    double peakPower = -1.0;
    for (int k = 0; k < kSpectrumLen; ++k) {
        const double power = Complex_abs2(spectrum[k]);
        if (power > peakPower) {
            peakPower = power;
            peakBin = k;
        }
    }
    const double peakHz = -fs / 2 + peakBin * fs / kSpectrumLen;
    // Whole hertz, kept in double: the same value an integer would hold, and
    // a non-finite figure cannot reach an integer conversion.
    const double shiftHz = std::round(kShiftTargetHz - peakHz);

    double* iq = out->shiftedIQ;
    for (int i = 0; i < n; ++i) {
        const double theta = shiftHz * kTwoPi * (i / fs);
        const Complex y = cf.Complex_mul(x[i], Complex_exp_j(theta));
        iq[2 * static_cast<size_t>(i)] = y.re;
        iq[2 * static_cast<size_t>(i) + 1] = y.im;
    }
    out->shiftedIQLen = 2u * static_cast<uint32_t>(n);
    return 0;
}

// Codes 14 and 15: the in-phase waveform, one value per sample.
static void analog_in_phase(const Complex* x, int n, DisplayData* out) {
    for (int i = 0; i < n; ++i) out->iTrace[i] = x[i].re;
    out->iTraceLen = static_cast<uint32_t>(n);
}

// Optional band-limiting of the work block. When 0.125 < bandwidth / fs < 0.5
// the block goes through a 33-tap root-raised-cosine filter and is replaced by
// the valid part of the convolution, N = n - 32 samples. The output is kept
// from the start of the convolution: the 16-sample filter delay is not
// compensated, so the traces begin with the filter already full and are not
// realigned with the input. Returns -1 on a failed design or allocation.
static int band_limit(CommonFun& cf, HeapArray<Complex>& work, int n, double fs,
                      double bandwidth, int* kept) {
    *kept = n;
    const double ratio = bandwidth / fs;
    if (!(ratio > kBandRatioLow && ratio < kBandRatioHigh)) return 0;

    float taps[kBandTapCapacity];
    int tapCount = kBandTapCapacity;
    cf.rcosdesignForC(kBandRolloff, kBandSpan, kBandSps, "sqrt", taps, &tapCount);
    if (tapCount < 1) return -1;

    // Filtered in place: each output overwrites an input no later output
    // reads (conv2_complex allows y == x).
    int filteredLen = 0;
    cf.conv2_complex(work.get(), n, taps, tapCount, work.get(), &filteredLen);

    int keep = n - tapCount + 1;
    if (keep < 0) keep = 0;
    if (keep > filteredLen) keep = filteredLen;
    *kept = keep;
    return 0;
}

// Analog demodulator for the codes 10 .. 15 of param.mode. fs is the sample
// rate in Hz; bandwidth the occupied band in Hz measured on the block, which
// decides whether the block is band-limited first. Every trace holds N
// values (N = n, or n - 32 after the filter); the shifted I/Q trace holds 2N.
// Returns 0, or -1 for bad arguments, another code or an allocation failure,
// in which case nothing more is written to out.
int VantrelClass::demodANALOG(const Complex* in, int n, double fs, double bandwidth,
                              ExParamOut param, DisplayData* out) {
    // "Not above zero" also refuses a NaN rate or band, which no analysis
    // could use.
    if (in == nullptr || n <= 0 || !(fs > 0) || !(bandwidth > 0) || out == nullptr) return -1;
    commonFun.Reset();

    HeapArray<Complex> work = heap_alloc<Complex>(n);
    if (!work) return -1;
    std::memcpy(work.get(), in, sizeof(Complex) * static_cast<size_t>(n));
    int count = n;
    if (band_limit(commonFun, work, n, fs, bandwidth, &count) != 0) return -1;

    switch (param.mode) {
    case MOD_ANALOG_AM:
        return analog_am(work.get(), count, out);
    case MOD_ANALOG_FM:
        return analog_fm(work.get(), count, fs, out);
    case MOD_ANALOG_PM:
        return analog_pm(commonFun, work.get(), count, out);
    case MOD_ANALOG_SHIFT:
        return analog_shift(commonFun, work.get(), count, fs, out);
    case MOD_ANALOG_I_A:
    case MOD_ANALOG_I_B:
        analog_in_phase(work.get(), count, out);
        return 0;
    default:
        return -1;
    }
}
