// Two-level amplitude-keyed (on-off or two-amplitude) demodulator.
//
// Chain: matched filter -> envelope depth of the raw block -> Gardner timing
// -> drop 500 settling symbols -> phase loop with the two-point detector ->
// drop 500 more and keep only the in-phase axis -> level normalisation (upper
// level to +1, zero amplitude to -1) -> 10-tap CMA -> two-level slicing, eye
// and statistics over every equalised symbol; the constellation shows the
// last 800 at most, mapped back to amplitudes 0 and 1.
#include <cstdint>

#include <utility>

#include "VantrelClass.h"
#include "safe_convert.h"
#include "statistics.h"

namespace {

constexpr int kFilterRoom = 512;     // extra capacity of the matched-filter buffer
constexpr double kGardnerC1 = 0.00541;
constexpr double kGardnerC2 = 3.82e-6;
constexpr int kSettleTiming = 500;   // symbols dropped after timing recovery
constexpr int kSettlePhase = 500;    // symbols dropped after phase tracking
constexpr double kLoopBandwidth = 0.01;  // phase loop Bn as a fraction of fs
constexpr double kCmaStep = 0.005;
constexpr double kCmaRadius = 1.0;
constexpr int kCmaTaps = 10;
constexpr int kShown = 800;          // constellation points displayed
constexpr int kEyeScale = 2;         // the eye is drawn on the -1 .. +1 levels / 2

}  // namespace

// demodASK(in, n, fs, param, out)
//   in/n  : n complex samples at fs Hz (four per symbol), coarse offset removed
//   param : Rb (symbol rate, Hz), mode, and the receive filter (type, roll-off)
//   out   : host record, written only on success. With K equalised symbols:
//           K symbols and K bits (bitsLen = K; symbolsLen is not written), K
//           EVM and magnitude errors (%) with RMS and peak over all K, an eye
//           of up to 4K values, min(K, 800) constellation points on the real
//           axis at 0 (space) and 1 (mark), and modDepth of the raw envelope.
// Returns 0, or -1 for invalid arguments, too few symbols after either
// settling discard, or memory exhaustion.
int VantrelClass::demodASK(Complex* in, int n, double fs, ExParamOut param, DisplayData* out) {
    if (!in || n <= 0 || !(fs > 0) || !(param.Rb > 0) || !out) return -1;
    CommonFun& cf = commonFun;
    cf.Reset();
    const double Rb = param.Rb;

    // Matched filter. The filter keeps only the fully overlapped outputs, so
    // it never writes more than n values; the extra room is headroom.
    int L1 = n + kFilterRoom;
    HeapArray<Complex> wide = heap_alloc<Complex>(static_cast<std::int64_t>(n) + kFilterRoom);
    if (!wide) return -1;
    cf.matchFilter(in, n, fs, param, wide.get(), L1);
    if (L1 < 0) L1 = 0;
    // The first L1 values of the wide block are the filtered block.
    HeapArray<Complex> filtered = std::move(wide);

    // Modulation depth of the envelope, on the unfiltered block.
    double depth = 0.0;
    cf.getAmp(in, n, nullptr, depth);

    // Timing recovery. With the toolkit just reset no tail is carried in, so
    // the loop gives at most L1 / sps symbols and the buffer is sized for
    // that. A timing stage that gives up leaves the count it was handed: the
    // chain then reads L1 zeros, as from a zero-filled buffer of the full
    // capacity.
    const int sps = floor_to_int(fs / Rb);
    const int timedCap = sps >= 1 && L1 / sps + 1 < L1 ? L1 / sps + 1 : L1;
    HeapArray<Complex> timed = heap_alloc<Complex>(timedCap);
    if (!timed) return -1;
    int L2 = -1;
    cf.Gardner(filtered.get(), L1, fs, Rb, kGardnerC1, kGardnerC2, timed.get(), &L2);
    filtered.reset();
    if (L2 < 0) {
        timed = heap_zeroed<Complex>(L1);
        if (!timed) return -1;
        L2 = L1;
    }
    if (L2 <= kSettleTiming) return -1;
    const Complex* kept1 = timed.get() + kSettleTiming;
    const int N1 = L2 - kSettleTiming;

    // Carrier phase: the BPSK detector locks the keyed carrier onto the real
    // axis. This chain hands the loop the sample rate as its rate and a
    // bandwidth of 1 % of it, which sets its gains (a narrow loop).
    HeapArray<Complex> tracked = heap_alloc<Complex>(N1);
    if (!tracked) return -1;
    int L3 = N1;
    cf.PhaseLook(kept1, N1, MT_PSK, 2, fs, kLoopBandwidth * fs,
                 static_cast<modulationTypeOut>(param.mode), tracked.get(), &L3);
    timed.reset();
    if (L3 <= kSettlePhase) return -1;
    Complex* kept2 = tracked.get() + kSettlePhase;
    const int N2 = L3 - kSettlePhase;
    for (int i = 0; i < N2; ++i) kept2[i].im = 0;  // amplitude lives on the real axis

    int M = 2;
    cf.normalize_constellationForASK(kept2, N2, M);

    HeapArray<Complex> equalised = heap_alloc<Complex>(N2);
    if (!equalised) return -1;
    int K = N2;
    cf.CMA_equlize(kept2, N2, kCmaStep, kCmaRadius, kCmaTaps, equalised.get(), K);
    if (K < 0) K = 0;

    // Two levels; the mode can only be the ASK code on this path.
    M = 2;
    if (param.mode == MOD_ASK) M = 2;
    const int bitsPerSymbol = 1;  // log2(M)
    HeapArray<int> symbols = heap_zeroed<int>(K);
    HeapArray<int> bits = heap_zeroed<int>(static_cast<std::int64_t>(bitsPerSymbol) * K);
    HeapArray<double> evm = heap_zeroed<double>(K);
    HeapArray<double> magErr = heap_zeroed<double>(K);
    if (!symbols || !bits || !evm || !magErr) return -1;
    cf.symbolDecisionForSingle(equalised.get(), K, M, symbols.get(), bits.get(), evm.get(),
                               magErr.get());

    HeapArray<double> eye = heap_zeroed<double>(static_cast<std::int64_t>(4) * K);
    if (!eye) return -1;
    int eyeLen = 4 * K;
    cf.getEye(equalised.get(), K, kEyeScale, eye.get(), &eyeLen);
    if (eyeLen > 4 * K) eyeLen = 4 * K;  // never copy past what was allocated
    if (eyeLen < 0) eyeLen = 0;

    // ---- everything below writes into the host's record ----
    for (int i = 0; i < eyeLen; ++i) out->eye[i] = eye[i];
    out->eyeLen = static_cast<uint32_t>(eyeLen);

    // Constellation: the last 800 symbols at most, levels -1 / +1 shown as
    // amplitudes 0 / 1.
    const int C = K < kShown ? K : kShown;
    for (int i = 0; i < C; ++i) {
        const int j = K - C + i;
        out->constI[i] = equalised[j].re / 2 + 0.5;
        out->constQ[i] = 0;
    }
    out->constLen = static_cast<uint32_t>(C);

    // Bits and symbols of every equalised symbol. The symbol count goes to
    // bitsLen (equal to the bit count at one bit per symbol); symbolsLen keeps
    // the value the record was cleared to, as hosts of this path expect.
    const int bitCount = bitsPerSymbol * K;
    for (int i = 0; i < bitCount; ++i) out->bits[i] = static_cast<uint32_t>(bits[i]);
    out->bitsLen = static_cast<uint32_t>(bitCount);
    for (int i = 0; i < K; ++i) out->symbols[i] = static_cast<uint32_t>(symbols[i]);
    out->bitsLen = static_cast<uint32_t>(K);

    for (int i = 0; i < K; ++i) {
        out->evm[i] = evm[i];
        out->magErr[i] = magErr[i];
    }
    out->evmLen = static_cast<uint32_t>(K);
    out->magErrLen = static_cast<uint32_t>(K);

    // Statistics over all K symbols (the driver's summary later replaces them
    // by figures over the last 800). An empty block reports zeros.
    out->evmRms = rms_of(evm.get(), K);
    out->evmPeak = peak_of(evm.get(), K);
    out->magErrRms = rms_of(magErr.get(), K);
    out->magErrPeak = peak_of(magErr.get(), K);  // signed: all-negative gives 0
    out->modDepth = depth;
    return 0;
}
