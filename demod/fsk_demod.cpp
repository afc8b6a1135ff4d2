// Two- and four-level FSK demodulator, working on the instantaneous
// frequency.
//
// Chain: frequency trace (phase step per sample, mean removed, so a carrier
// offset drops out) -> matched filter on the trace as a real signal -> Farrow
// step to four samples per symbol -> deviation estimate from the outer levels
// of a short moving average -> Gardner timing -> drop 501 settling symbols ->
// scale the outer level to +-(M - 1) -> nine-tap two-ring equaliser ->
// M-level slicing, eye and statistics on the last 800 symbols at most.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

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
// level, converted with fa and rounded half away from zero. Only that top
// share is summed, so only it is selected and sorted (the full sort is kept
// for a NaN or a -0, where the comparison sort's own steps decide). The
// averages and the sort's keys go into `room` (roomDoubles values) when they
// fit. Returns false when they do not and cannot be allocated either (the
// estimate is then skipped).
bool deviationHz(const Complex* x, int L2, int M, double fa, double* room,
                 std::int64_t roomDoubles, double* hz) {
    const int P = L2 - (kAverageLength - 1);
    int count = static_cast<int>(P * kOuterShare / M);
    if (count < 1) count = 1;
    if (count > P) count = P;
    HeapArray<double> own;
    double* a = room;
    if (static_cast<std::int64_t>(P) + count > roomDoubles) {
        own = heap_alloc<double>(static_cast<std::int64_t>(P) + count);
        if (!own) return false;
        a = own.get();
    }
    double sum = 0.0;
    for (int i = 0; i < kAverageLength; ++i) sum += x[i].re;
    a[0] = sum / kAverageLength;
    for (int j = 1; j < P; ++j) {
        sum += x[j + kAverageLength - 1].re - x[j - 1].re;
        a[j] = sum / kAverageLength;
    }
    // The sort's keys live past the averages (the radix sort copies them in
    // and out bytewise, so the block's type does not matter).
    std::uint64_t* keys = reinterpret_cast<std::uint64_t*>(a + P);
    if (!sort_upper_tail(a, P, count, keys))
        std::qsort(a, static_cast<size_t>(P), sizeof(double), cmp_double);
    double top = 0.0;
    for (int i = P - count; i < P; ++i) top += a[i];
    const double d = top / count;
    *hz = std::round(d * fa / kTwoPi);
    return true;
}

}  // namespace

// demodFSK(in, n, fs, param, out)
//   in/n  : n complex samples at the capture rate fs Hz (at least 4 per
//           symbol), coarse offset removed. The block is read once, by the
//           frequency discriminator, and its storage (n values) is then the
//           chain's scratch: its contents are overwritten.
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
//
// Memory: besides the caller's block, one work block of about n values
// (the frequency trace, then the trace at four samples per symbol, then the
// equaliser's output). The filtered trace, the moving averages and the
// timed symbols are formed in the caller's block once its samples are read.
int VantrelClass::demodFSK(Complex* in, int n, double fs, ExParamOut param,
                           DisplayData* out) {
    if (!in || n <= 0 || !(fs > 0) || !(param.Rb > 0) || !out) return -1;
    const double Rb = param.Rb;
    if (!(fs / Rb >= kMinOversampling)) return -1;
    CommonFun& cf = commonFun;
    cf.Reset();
    const int M = param.mode == MOD_2FSK ? 2 : 4;
    const int bitsPerSymbol = M == 2 ? 1 : 2;
    const double fa = 4 * Rb;  // the working rate after the Farrow step

    // The work block holds the trace (n doubles) and later the resampled
    // trace, whose count C (below) grows with the filtered length L1 <= n:
    // its value for L1 = n bounds it. Beyond n values (at four samples per
    // symbol with a filter of fewer than 11 taps) the resampled trace takes
    // a block of its own instead, so the work block is the size of the
    // caller's block at most.
    const double most = n * fa / fs;
    const std::int64_t cMax = (most < n ? static_cast<int>(most) : n) + kResampleRoom;
    const std::int64_t half = (static_cast<std::int64_t>(n) + 1) / 2;
    const std::int64_t workCount = std::max(half, std::min<std::int64_t>(cMax, n));
    HeapArray<Complex> work = heap_alloc<Complex>(workCount);
    if (!work) return -1;

    // Instantaneous frequency as a real signal; the block is not read again.
    double* trace = reinterpret_cast<double*>(work.get());
    cf.getFreq(in, n, trace);

    // Matched filter on the trace (it writes at most n values), into the
    // caller's block as {value, +0}.
    int L1 = n;
    cf.matchFilterReal(trace, n, fs, param, in, L1);
    if (L1 < 0) L1 = 0;

    // Four samples per symbol, into the work block (the trace is done with).
    // fa / fs is at most 1 here, so the expected count never exceeds L1; the
    // comparison only keeps the conversion in range against rounding.
    const double expected = L1 * fa / fs;
    const int C = (expected < L1 ? static_cast<int>(expected) : L1) + kResampleRoom;
    HeapArray<Complex> ownResampled;
    Complex* resampled = work.get();
    if (C > workCount) {
        ownResampled = heap_alloc<Complex>(C);
        if (!ownResampled) return -1;
        resampled = ownResampled.get();
    }
    std::memset(static_cast<void*>(resampled), 0, sizeof(Complex) * static_cast<size_t>(C));
    int L2 = C;
    cf.FarrowInterp(in, L1, fa, fs, resampled, &L2);
    if (L2 < 0) L2 = 0;
    if (L2 > C) L2 = C;

    // Deviation, written before the checks below can end the call. The
    // caller's block (2n doubles) is free again and takes the averages.
    if (L2 > 9) {
        double hz = 0.0;
        if (deviationHz(resampled, L2, M, fa, reinterpret_cast<double*>(in),
                        2 * static_cast<std::int64_t>(n), &hz))
            out->freqDeviation = hz;
    } else {
        out->freqDeviation = 0;
    }

    // Timing recovery into the caller's block, sized for L2 / sps symbols as
    // in the other chains; a loop that gives up leaves the count it was
    // handed, and the chain then reads L2 zeros, as from a zero-filled
    // full-size buffer.
    const int sps = floor_to_int(fa / Rb);
    const int symCap = sps >= 1 && L2 / sps + 1 < L2 ? L2 / sps + 1 : L2;
    HeapArray<Complex> ownSymbols;
    Complex* symbolsAt = in;
    if (symCap > n) {
        ownSymbols = heap_alloc<Complex>(symCap);
        if (!ownSymbols) return -1;
        symbolsAt = ownSymbols.get();
    }
    int L3 = -1;
    cf.Gardner(resampled, L2, fa, Rb, kGardnerC1, kGardnerC2, symbolsAt, &L3);
    if (L3 < 0) {
        if (L2 > n) {
            ownSymbols = heap_zeroed<Complex>(L2);
            if (!ownSymbols) return -1;
            symbolsAt = ownSymbols.get();
        } else {
            symbolsAt = in;
            std::memset(static_cast<void*>(in), 0, sizeof(Complex) * static_cast<size_t>(L2));
        }
        L3 = L2;
    }
    if (L3 <= kSettleTiming) return -1;
    Complex* kept = symbolsAt + kSettleTiming;
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

    // The equaliser's output (N values; one more, zero, as the block was
    // sized) goes where the resampled trace was, now done with:
    // N + 1 <= L3 - 500 <= C.
    Complex* equalised = resampled;
    std::memset(static_cast<void*>(equalised), 0, sizeof(Complex) * (static_cast<size_t>(N) + 1));
    cf.mcma_equalizeFORfsk(kept, N, kEqTaps, kEqStep, equalised);

    const int K = N < kShown ? N : kShown;
    const Complex* shown = equalised + (N - K);
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
