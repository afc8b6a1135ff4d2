// Two- and four-level FSK demodulator, working on the instantaneous
// frequency.
//
// Chain: frequency trace (phase step per sample, mean removed, so a carrier
// offset drops out) -> matched filter on the trace as a real signal -> Farrow
// step to four samples per symbol -> deviation estimate from the outer levels
// of a short moving average -> Gardner timing -> drop 501 settling symbols ->
// scale the outer level to +-(M - 1) -> nine-tap two-ring equaliser ->
// M-level slicing, eye and statistics on the last 800 symbols at most.
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "VantrelClass.h"
#include "safe_convert.h"
#include "sorting.h"
#include "statistics.h"

namespace {

constexpr double kMinOversampling = 4.0;  // fs / Rb below this is refused
constexpr int kResampleRoom = 10;         // extra capacity of the resampled buffer
constexpr int kAverageLength = 5;         // moving average for the deviation
constexpr double kOuterShare = 0.25;      // share (/ M) of the largest averages used
constexpr double kGardnerC1 = 0.001;
constexpr double kGardnerC2 = 1.82e-08;
constexpr int kSettleTiming = 501;        // symbols dropped after timing recovery
constexpr int kShown = 800;               // symbols scaled, decided and displayed
constexpr int kMinSymbols = 9;            // fewer than this many cannot be equalised
constexpr double kLevelSearchStart = -1e9;
constexpr int kEqTaps = 9;
constexpr double kEqStep = 0.005;
constexpr double kTwoPi = 6.283185307179586;

// Frequency deviation in Hz from the resampled trace (radians per sample at
// the analysis rate fa): a running-sum moving average of 5 values, sorted;
// the mean of the largest P * 0.25 / M of them (at least one) is the outer
// level, converted with fa and rounded half away from zero. Returns false
// when the averages cannot be allocated (the estimate is then skipped).
bool deviationHz(const Complex* x, int L2, int M, double fa, double* hz) {
    const int P = L2 - (kAverageLength - 1);
    HeapArray<double> a = heap_alloc<double>(P);
    if (!a) return false;
    double sum = 0.0;
    for (int i = 0; i < kAverageLength; ++i) sum += x[i].re;
    a[0] = sum / kAverageLength;
    for (int j = 1; j < P; ++j) {
        sum += x[j + kAverageLength - 1].re - x[j - 1].re;
        a[j] = sum / kAverageLength;
    }
    // Without NaN or -0 the radix sort leaves the same bits in every place.
    if (!radix_sort_doubles(a.get(), P))
        std::qsort(a.get(), static_cast<size_t>(P), sizeof(double), cmp_double);
    int count = static_cast<int>(P * kOuterShare / M);
    if (count < 1) count = 1;
    if (count > P) count = P;
    double top = 0.0;
    for (int i = P - count; i < P; ++i) top += a[i];
    const double d = top / count;
    *hz = std::round(d * fa / kTwoPi);
    return true;
}

}  // namespace

// demodFSK(in, n, fs, param, out)
//   in/n  : n complex samples at the capture rate fs Hz (at least 4 per
//           symbol), coarse offset removed
//   param : Rb (symbol rate, Hz), mode (1: two levels; any other: four), and
//           the receive filter applied to the frequency trace
//   out   : host record. freqDeviation (Hz, measured at the analysis rate
//           4 Rb) is written as soon as it is known, even if a later step
//           fails. On success, with K <= 800 symbols: K levels on the real
//           axis scaled to +-1 for the outer tone, K symbols (symbolsLen = K),
//           K or 2K bits, K EVM and magnitude errors (%) with RMS and peak,
//           and an eye of up to 4K - 16 values. Phase errors are not written.
// Returns 0, or -1 for invalid arguments, too few symbols, or memory
// exhaustion.
int VantrelClass::demodFSK(const Complex* in, int n, double fs, ExParamOut param,
                           DisplayData* out) {
    if (!in || n <= 0 || !(fs > 0) || !(param.Rb > 0) || !out) return -1;
    const double Rb = param.Rb;
    if (!(fs / Rb >= kMinOversampling)) return -1;
    CommonFun& cf = commonFun;
    cf.Reset();
    const int M = param.mode == MOD_2FSK ? 2 : 4;
    const int bitsPerSymbol = M == 2 ? 1 : 2;

    // Instantaneous frequency as a real signal.
    HeapArray<double> trace = heap_alloc<double>(n);
    HeapArray<Complex> block = heap_alloc<Complex>(n);
    if (!trace || !block) return -1;
    cf.getFreq(in, n, trace.get());
    for (int i = 0; i < n; ++i) block[i] = Complex{trace[i], 0.0};
    trace.reset();

    // Matched filter on the trace (it writes at most n values).
    HeapArray<Complex> filtered = heap_alloc<Complex>(n);
    if (!filtered) return -1;
    int L1 = n;
    cf.matchFilter(block.get(), n, fs, param, filtered.get(), L1);
    block.reset();
    if (L1 < 0) L1 = 0;

    // Four samples per symbol; fa is the working rate from here on.
    const double fa = 4 * Rb;
    // fa / fs is at most 1 here, so the expected count never exceeds L1; the
    // comparison only keeps the conversion in range against rounding.
    const double expected = L1 * fa / fs;
    const int C = (expected < L1 ? static_cast<int>(expected) : L1) + kResampleRoom;
    HeapArray<Complex> resampled = heap_zeroed<Complex>(C);
    if (!resampled) return -1;
    int L2 = C;
    cf.FarrowInterp(filtered.get(), L1, fa, fs, resampled.get(), &L2);
    filtered.reset();
    if (L2 < 0) L2 = 0;
    if (L2 > C) L2 = C;

    // Deviation, written before the checks below can end the call.
    if (L2 > 9) {
        double hz = 0.0;
        if (deviationHz(resampled.get(), L2, M, fa, &hz)) out->freqDeviation = hz;
    } else {
        out->freqDeviation = 0;
    }

    // Timing recovery, its buffer sized for L2 / sps symbols as in the other
    // chains; a loop that gives up leaves the count it was handed, and the
    // chain then reads L2 zeros, as from a zero-filled full-size buffer.
    const int sps = floor_to_int(fa / Rb);
    const int symCap = sps >= 1 && L2 / sps + 1 < L2 ? L2 / sps + 1 : L2;
    HeapArray<Complex> symbolsAt = heap_alloc<Complex>(symCap);
    if (!symbolsAt) return -1;
    int L3 = -1;
    cf.Gardner(resampled.get(), L2, fa, Rb, kGardnerC1, kGardnerC2, symbolsAt.get(), &L3);
    resampled.reset();
    if (L3 < 0) {
        symbolsAt = heap_zeroed<Complex>(L2);
        if (!symbolsAt) return -1;
        L3 = L2;
    }
    if (L3 <= kSettleTiming) return -1;
    Complex* kept = symbolsAt.get() + kSettleTiming;
    const int N = L3 - kSettleTiming;
    const int K0 = N < kShown ? N : kShown;
    if (K0 <= kMinSymbols) return -1;

    // Level scaling: the mean of the values above half the largest one is the
    // outer positive level; it is brought to M - 1 (1 or 3).
    const Complex* recent = kept + (N - K0);
    double mx = kLevelSearchStart;
    for (int i = 0; i < K0; ++i)
        if (recent[i].re > mx) mx = recent[i].re;
    double sum = 0.0;
    int above = 0;
    for (int i = 0; i < K0; ++i) {
        if (recent[i].re > 0.5 * mx) {
            sum += recent[i].re;
            ++above;
        }
    }
    double v = above > 0 ? sum / above : 1.0;
    if (std::fabs(v) < 1e-12) v = 1.0;
    for (int i = 0; i < N; ++i) {
        kept[i].re = kept[i].re / v * (M - 1);
        kept[i].im = kept[i].im / v * (M - 1);
    }

    // Zero-filled: an equaliser without memory leaves its output unwritten.
    HeapArray<Complex> equalised = heap_zeroed<Complex>(static_cast<std::int64_t>(N) + 1);
    if (!equalised) return -1;
    cf.mcma_equalizeFORfsk(kept, N, kEqTaps, kEqStep, equalised.get());

    const int K = N < kShown ? N : kShown;
    const Complex* shown = equalised.get() + (N - K);
    HeapArray<int> symbols = heap_zeroed<int>(K);
    HeapArray<int> bits = heap_zeroed<int>(static_cast<std::int64_t>(K) * bitsPerSymbol);
    HeapArray<double> evm = heap_zeroed<double>(K);
    HeapArray<double> magErr = heap_zeroed<double>(K);
    HeapArray<double> eye = heap_zeroed<double>(static_cast<std::int64_t>(4) * K);
    if (!symbols || !bits || !evm || !magErr || !eye) return -1;
    cf.symbolDecisionForSingle(shown, K, M, symbols.get(), bits.get(), evm.get(),
                               magErr.get());
    int eyeLen = 4 * K;
    cf.getEye(shown, K, M, eye.get(), &eyeLen);
    if (eyeLen > 4 * K) eyeLen = 4 * K;
    if (eyeLen < 0) eyeLen = 0;

    // ---- the host's record ----
    for (int i = 0; i < eyeLen; ++i) out->eye[i] = eye[i];
    out->eyeLen = static_cast<uint32_t>(eyeLen);
    for (int i = 0; i < K; ++i) {
        out->constI[i] = shown[i].re / (M - 1);
        out->constQ[i] = 0;
    }
    out->constLen = static_cast<uint32_t>(K);
    const int bitCount = K * bitsPerSymbol;
    for (int i = 0; i < bitCount; ++i) out->bits[i] = static_cast<uint32_t>(bits[i]);
    out->bitsLen = static_cast<uint32_t>(bitCount);
    for (int i = 0; i < K; ++i) out->symbols[i] = static_cast<uint32_t>(symbols[i]);
    out->symbolsLen = static_cast<uint32_t>(K);
    for (int i = 0; i < K; ++i) {
        out->evm[i] = evm[i];
        out->magErr[i] = magErr[i];
    }
    out->evmLen = static_cast<uint32_t>(K);
    out->magErrLen = static_cast<uint32_t>(K);
    out->evmRms = rms_of(evm.get(), K);
    out->evmPeak = peak_of(evm.get(), K);
    out->magErrRms = rms_of(magErr.get(), K);
    out->magErrPeak = peak_of(magErr.get(), K);  // signed
    return 0;
}
