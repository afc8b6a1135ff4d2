// Two-level amplitude-keyed (on-off or two-amplitude) demodulator.
//
// Chain: matched filter -> envelope depth of the raw block -> Gardner timing
// -> drop 500 settling symbols -> phase loop with the two-point detector ->
// drop 500 more and keep only the in-phase axis -> level normalisation (upper
// level to +1, zero amplitude to -1) -> 10-tap CMA -> two-level slicing, eye
// and statistics over every equalised symbol; the constellation shows the
// last 800 at most, mapped back to amplitudes 0 and 1.
#include <cstdint>

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
//   in/n  : n complex samples at fs Hz (four per symbol), coarse offset
//           removed. The block's storage (n values) is the chain's scratch:
//           its contents are overwritten.
//   param : Rb (symbol rate, Hz), mode, and the receive filter (type, roll-off)
//   out   : host record, written only on success. With K equalised symbols:
//           K symbols and K bits (bitsLen = K; symbolsLen is not written), K
//           EVM and magnitude errors (%) with RMS and peak over all K, an eye
//           of up to 4K values, min(K, 800) constellation points on the real
//           axis at 0 (space) and 1 (mark), and modDepth of the raw envelope.
// Returns 0, or -1 for invalid arguments, too few symbols after either
// settling discard, or memory exhaustion.
//
// Memory: besides the caller's block, the envelope (then the timed symbols)
// in one work block. The matched filter, the phase loop's output and the
// equaliser run in the caller's block; the per-symbol decisions, errors and
// eye are formed in the host's arrays, after the last step that can fail.
int VantrelClass::demodASK(Complex* in, int n, double fs, ExParamOut param, DisplayData* out) {
    if (!in || n <= 0 || !(fs > 0) || !(param.Rb > 0) || !out) return -1;
    CommonFun& cf = commonFun;
    cf.Reset();
    const double Rb = param.Rb;

    // Modulation depth of the envelope, on the unfiltered block (read before
    // the filter overwrites it).
    double depth = 0.0;
    cf.getAmp(in, n, nullptr, depth);

    // Matched filter, in place: it keeps only the fully overlapped outputs,
    // so it writes at most n values, each block after its sums are formed.
    int L1 = n;
    cf.matchFilter(in, n, fs, param, in, L1);
    if (L1 < 0) L1 = 0;
    Complex* filtered = in;

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
    cf.Gardner(filtered, L1, fs, Rb, kGardnerC1, kGardnerC2, timed.get(), &L2);
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
    // bandwidth of 1 % of it, which sets its gains (a narrow loop). Its
    // output goes into the caller's block (N1 <= L1 <= n values).
    Complex* tracked = in;
    int L3 = N1;
    cf.PhaseLook(kept1, N1, MT_PSK, 2, fs, kLoopBandwidth * fs,
                 static_cast<modulationTypeOut>(param.mode), tracked, &L3);
    timed.reset();
    if (L3 <= kSettlePhase) return -1;
    Complex* kept2 = tracked + kSettlePhase;
    const int N2 = L3 - kSettlePhase;
    for (int i = 0; i < N2; ++i) kept2[i].im = 0;  // amplitude lives on the real axis

    int M = 2;
    cf.normalize_constellationForASK(kept2, N2, M);

    // The equaliser reads each input before its output lands there, so it
    // runs in place.
    Complex* equalised = kept2;
    int K = N2;
    cf.CMA_equlize(kept2, N2, kCmaStep, kCmaRadius, kCmaTaps, equalised, K);
    if (K < 0) K = 0;

    // Two levels; the mode can only be the ASK code on this path.
    M = 2;
    if (param.mode == MOD_ASK) M = 2;
    const int bitsPerSymbol = 1;  // log2(M)

    // ---- everything below writes into the host's record ----
    // Nothing from here on can fail. The decisions are formed straight in the
    // host's arrays: its symbol and bit words take the decisions' int values
    // (an int and its unsigned counterpart share storage and, for these
    // values 0 and 1, bits), and its EVM, magnitude-error and eye arrays
    // receive the values the per-call arrays used to hold.
    cf.symbolDecisionForSingle(equalised, K, M, reinterpret_cast<int*>(out->symbols),
                               reinterpret_cast<int*>(out->bits), out->evm, out->magErr);
    int eyeLen = 4 * K;
    cf.getEye(equalised, K, kEyeScale, out->eye, &eyeLen);
    if (eyeLen > 4 * K) eyeLen = 4 * K;
    if (eyeLen < 0) eyeLen = 0;
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
    out->bitsLen = static_cast<uint32_t>(bitCount);
    out->bitsLen = static_cast<uint32_t>(K);

    out->evmLen = static_cast<uint32_t>(K);
    out->magErrLen = static_cast<uint32_t>(K);

    // Statistics over all K symbols (the driver's summary later replaces them
    // by figures over the last 800). An empty block reports zeros.
    out->evmRms = rms_of(out->evm, K);
    out->evmPeak = peak_of(out->evm, K);
    out->magErrRms = rms_of(out->magErr, K);
    out->magErrPeak = peak_of(out->magErr, K);  // signed: all-negative gives 0
    out->modDepth = depth;
    return 0;
}
