// BPSK / QPSK / 8PSK demodulator.
//
// Chain: matched filter -> Gardner timing (one sample per symbol, unit RMS)
// -> drop 500 settling symbols -> scale to unit mean modulus -> remove the
// mean -> phase loop (Bn = 0.03 Rb) -> drop 500 more -> 10-tap CMA ->
// decisions, eye and statistics on at most the last 800 symbols.
#include <cstdint>

#include "VantrelClass.h"
#include "safe_convert.h"
#include "statistics.h"

namespace {

constexpr int kSettleTiming = 500;  // symbols dropped after timing recovery
constexpr int kSettlePhase = 500;   // symbols dropped after phase tracking
constexpr int kShown = 800;         // symbols decided and displayed
constexpr double kLoopBandwidth = 0.03;  // phase loop Bn as a fraction of Rb
constexpr double kCmaStep = 0.005;
constexpr double kCmaRadius = 1.0;
constexpr int kCmaTaps = 10;

// PSK order of a mode code; 0 for any other code.
int pskOrder(uint32_t mode) {
    switch (mode) {
    case MOD_BPSK: return 2;
    case MOD_QPSK: return 4;
    case MOD_8PSK: return 8;
    default:       return 0;
    }
}

// Bits per symbol, round(log2 M) for the three orders.
int bitsPerSymbol(int M) { return M == 2 ? 1 : (M == 4 ? 2 : 3); }

// Per-symbol results of the decided block, before they go to the host.
struct Decisions {
    HeapArray<int> symbols, bits;
    HeapArray<double> evm, magErr, phaseErr, eye;
    int bitCount = 0;
    int eyeLen = 0;
    bool allocate(int K, int k) {
        // Zero-filled, so whatever a stage leaves unwritten reads as 0.
        symbols = heap_zeroed<int>(K);
        bits = heap_zeroed<int>(static_cast<std::int64_t>(K) * k);
        evm = heap_zeroed<double>(K);
        magErr = heap_zeroed<double>(K);
        phaseErr = heap_zeroed<double>(K);
        eye = heap_zeroed<double>(static_cast<std::int64_t>(4) * K);
        return symbols && bits && evm && magErr && phaseErr && eye;
    }
};

// Copies the decided block into the host's record (step "fill" of the chain).
void fillDisplay(const Complex* shown, int K, int k, const Decisions& d, DisplayData* out) {
    for (int i = 0; i < d.eyeLen; ++i) out->eye[i] = d.eye[i];
    out->eyeLen = static_cast<uint32_t>(d.eyeLen);
    for (int i = 0; i < K; ++i) {
        out->constI[i] = shown[i].re;
        out->constQ[i] = shown[i].im;
    }
    out->constLen = static_cast<uint32_t>(K);
    const int bitCount = K * k;
    for (int i = 0; i < bitCount; ++i) out->bits[i] = static_cast<uint32_t>(d.bits[i]);
    out->bitsLen = static_cast<uint32_t>(bitCount);
    for (int i = 0; i < K; ++i) out->symbols[i] = static_cast<uint32_t>(d.symbols[i]);
    // The symbol count is stored in bitsLen, overwriting the bit count, and
    // symbolsLen keeps whatever it held: hosts read the PSK symbol count from
    // bitsLen, and that is the record layout they compare against.
    out->bitsLen = static_cast<uint32_t>(K);
    for (int i = 0; i < K; ++i) {
        out->evm[i] = d.evm[i];
        out->phaseErr[i] = d.phaseErr[i];
        out->magErr[i] = d.magErr[i];
    }
    out->evmLen = static_cast<uint32_t>(K);
    out->phaseErrLen = static_cast<uint32_t>(K);
    out->magErrLen = static_cast<uint32_t>(K);

    const double evmRms = rms_of(d.evm.get(), K);
    const double evmPeak = peak_of(d.evm.get(), K);
    const double phaseRms = rms_of(d.phaseErr.get(), K);
    const double phasePeak = peak_abs_of(d.phaseErr.get(), K);
    const double magRms = rms_of(d.magErr.get(), K);
    const double magPeak = peak_abs_of(d.magErr.get(), K);
    out->evmRms = evmRms;
    out->evmPeak = evmPeak;
    out->phaseErrRms = phaseRms;  // radians here; the driver's summary converts
    out->phaseErrPeak = phasePeak;
    out->magErrRms = magRms;
    out->magErrPeak = magPeak;
}

}  // namespace

// demodPSK(in, n, fs, param, out)
//   in/n  : n complex samples at fs Hz, carrier removed, not yet filtered
//   param : Rb (symbol rate, Hz), mode (4 BPSK, 5 QPSK, 6 8PSK), filter
//   out   : host record; written only on success (K <= 800 symbols: eye of up
//           to 4K - 16 values, K constellation points, K symbols, K.k bits,
//           K EVM / phase (rad) / magnitude (%) errors and their RMS / peaks)
// Returns 0, or -1 for invalid arguments, an unknown mode, too few symbols
// after either settling discard, or memory exhaustion.
int VantrelClass::demodPSK(const Complex* in, int n, double fs, ExParamOut param,
                           DisplayData* out) {
    if (!in || n <= 0 || !(fs > 0) || !(param.Rb > 0) || !out) return -1;
    CommonFun& cf = commonFun;
    cf.Reset();
    const int M = pskOrder(param.mode);
    if (M == 0) return -1;
    const int k = bitsPerSymbol(M);
    const double Rb = param.Rb;

    // Matched filter.
    HeapArray<Complex> filtered = heap_alloc<Complex>(n);
    if (!filtered) return -1;
    int L1 = n;
    cf.matchFilter(in, n, fs, param, filtered.get(), L1);

    // Timing recovery. BPSK runs a wider loop than QPSK and 8PSK. With the
    // toolkit just reset no tail is carried in, so the loop gives at most
    // L1 / sps symbols and the buffer is sized for that. A timing stage that
    // gives up leaves the count it was handed: the chain then sees L1 zeros,
    // as from a zero-filled buffer of the full capacity.
    const int sps = floor_to_int(fs / Rb);
    const int timedCap = sps >= 1 && L1 / sps + 1 < L1 ? L1 / sps + 1 : L1;
    HeapArray<Complex> timed = heap_alloc<Complex>(timedCap);
    if (!timed) return -1;
    int L2 = -1;
    const double C1 = M == 2 ? 0.004 : 0.002;
    const double C2 = M == 2 ? 1.82e-06 : 1.82e-08;
    cf.Gardner(filtered.get(), L1, fs, Rb, C1, C2, timed.get(), &L2);
    filtered.reset();
    if (L2 < 0) {
        timed = heap_zeroed<Complex>(L1);
        if (!timed) return -1;
        L2 = L1;
    }
    if (L2 <= kSettleTiming) return -1;
    Complex* kept = timed.get() + kSettleTiming;
    const int N1 = L2 - kSettleTiming;

    // Unit mean modulus, then remove the mean (residual DC).
    cf.normStar(kept, N1, param, kept);
    double mI = 0.0, mQ = 0.0;
    for (int i = 0; i < N1; ++i) {
        mI += kept[i].re;
        mQ += kept[i].im;
    }
    mI /= N1;
    mQ /= N1;
    for (int i = 0; i < N1; ++i) {
        kept[i].re -= mI;
        kept[i].im -= mQ;
    }

    // Carrier phase tracking.
    HeapArray<Complex> tracked = heap_alloc<Complex>(N1);
    if (!tracked) return -1;
    int L3 = N1;
    cf.PhaseLook(kept, N1, MT_PSK, M, Rb, kLoopBandwidth * Rb,
                 static_cast<modulationTypeOut>(param.mode), tracked.get(), &L3);
    if (L3 <= kSettlePhase) return -1;
    const int N2 = L3 - kSettlePhase;

    // Constant-modulus equaliser.
    HeapArray<Complex> equalised = heap_alloc<Complex>(N2);
    if (!equalised) return -1;
    int L4 = N2;
    cf.CMA_equlize(tracked.get() + kSettlePhase, N2, kCmaStep, kCmaRadius, kCmaTaps,
                   equalised.get(), L4);

    // Decisions and eye on the last K symbols.
    const int K = L4 < kShown ? L4 : kShown;
    const Complex* shown = equalised.get() + (L4 - K);
    Decisions d;
    if (!d.allocate(K, k)) return -1;
    cf.symbolDecisionForPSK(shown, K, M, d.symbols.get(), d.bits.get(), &d.bitCount,
                            d.evm.get(), d.magErr.get(), d.phaseErr.get());
    d.eyeLen = 4 * K;
    cf.getEye(shown, K, 1, d.eye.get(), &d.eyeLen);
    // Never copy more than was allocated, nor a negative count.
    if (d.eyeLen > 4 * K) d.eyeLen = 4 * K;
    if (d.eyeLen < 0) d.eyeLen = 0;

    fillDisplay(shown, K, k, d, out);
    return 0;
}
