// 128-point (cross) and 256-point (square) QAM demodulator.
//
// Chain: matched filter -> unit RMS -> own timing loop (four samples per
// symbol in, one out) -> drop 499 settling symbols -> remove the residual
// carrier found on x^4 (whole hertz) -> turn the outer points back onto the
// diagonals -> scale the outer ring onto the odd-integer grid -> outer-point
// phase loop -> drop 499 more -> decisions over every remaining symbol ->
// displays.
//
// The dense constellations get their own timing and phase loops: their
// outer points carry the cleanest timing and phase information, and the
// shared loops' gains are tuned for sparser alphabets.
#include <cmath>
#include <cstdint>

#include "VantrelClass.h"
#include "dense_qam_recovery.h"
#include "statistics.h"

namespace {

constexpr int kSettleTiming = 499;   // symbols dropped after the timing loop
constexpr int kSettlePhase = 499;    // symbols dropped after the phase loop
constexpr int kMinTimed = 3000;      // fewest timing-loop symbols accepted
constexpr int kShown = 2000;         // symbols displayed
constexpr double kRmsFloor = 1e-12;
constexpr double kMinusTwoPi = -6.283185307179586;

// Order of a mode code; 0 for any other code.
int denseOrder(uint32_t mode) {
    switch (mode) {
    case MOD_128QAM: return 128;
    case MOD_256QAM: return 256;
    default:         return 0;
    }
}

// x turned by `angle` radians.
Complex turned(CommonFun& cf, Complex x, double angle) {
    return cf.Complex_mul(x, Complex{std::cos(angle), std::sin(angle)});
}

// Per-symbol results of the decided block.
// The bits of every decided symbol are written straight into the host's
// bit array (7 or 8 per symbol, the largest array of the chain), which the
// published capacity sizes for them; an int and the host's uint32_t are the
// signed and unsigned forms of one type, so the array is shared as it is.
struct Decisions {
    HeapArray<int> symbols;
    int* bits = nullptr;
    HeapArray<double> evm, magErr, phaseErr;
    bool allocate(int count, int B, std::uint32_t* hostBits) {
        // Zero-filled, so whatever the decision stage leaves unwritten (it
        // writes no errors when its own scratch runs out) reads as 0.
        symbols = heap_zeroed<int>(count);
        evm = heap_zeroed<double>(count);
        magErr = heap_zeroed<double>(count);
        phaseErr = heap_zeroed<double>(count);
        if (!(symbols && evm && magErr && phaseErr)) return false;
        bits = reinterpret_cast<int*>(hostBits);
        const std::int64_t nbits = static_cast<std::int64_t>(count) * B;
        for (std::int64_t i = 0; i < nbits; ++i) bits[i] = 0;
        return true;
    }
};

}  // namespace

// demodQAM128_256(in, n, fs, param, out)
//   in/n  : n complex samples at fs Hz (four samples per symbol expected),
//           coarse offset removed, not yet filtered
//   param : Rb (symbol rate, Hz), mode (16: 128 points, 17: 256 points), filter
//   out   : host record, written only on success. With L decided symbols and
//           K = min(L, 2000): the constellation and the eye (up to 4K - 16
//           values) show the last K symbols divided by 11 (128) or 15 (256);
//           the symbol, EVM (%), phase (rad) and magnitude (%) error arrays
//           hold the first K decisions, with their RMS and peaks; the bit
//           array holds all 7L or 8L bits.
// Returns 0, or -1 for invalid arguments, an unknown mode, fewer than 3000
// timing-loop symbols, or memory exhaustion.
int VantrelClass::demodQAM128_256(const Complex* in, int n, double fs, ExParamOut param,
                                  DisplayData* out) {
    if (!in || n < 1 || !(fs > 0) || !(param.Rb > 0) || !out) return -1;
    // Infinite rates would turn the loop gains into NaN; refused as invalid.
    if (!std::isfinite(fs) || !std::isfinite(param.Rb)) return -1;
    CommonFun& cf = commonFun;
    cf.Reset();
    const int M = denseOrder(param.mode);
    if (M == 0) return -1;
    const DenseQamConstants c = dense_qam_constants(M);
    const double Rs = param.Rb;

    // Matched filter, then unit RMS over the whole filtered block.
    HeapArray<Complex> mf = heap_alloc<Complex>(n);
    if (!mf) return -1;
    int mfLen = n;
    cf.matchFilter(in, n, fs, param, mf.get(), mfLen);
    if (mfLen <= 0) return -1;  // nothing to time (the loop would give 0 symbols)
    double energy = 0.0;
    for (int i = 0; i < mfLen; ++i) energy += Complex_abs2(mf[i]);
    double rms = std::sqrt(energy / mfLen);
    if (rms < kRmsFloor) rms = 1.0;
    for (int i = 0; i < mfLen; ++i) mf[i] = complex_div_real(mf[i], rms);

    // Symbol timing; the first 499 symbols are the loop's pull-in.
    HeapArray<Complex> timed = heap_alloc<Complex>(mfLen / 4 + 1);
    if (!timed) return -1;
    const int count = dense_qam_timing(mf.get(), mfLen, fs, timed.get());
    mf.reset();
    if (count < kMinTimed) return -1;
    Complex* s1 = timed.get() + kSettleTiming;
    const int len1 = count - kSettleTiming;  // from here one sample per symbol

    // Residual carrier, in whole hertz, from the x^4 line.
    int f = 0;
    if (!dense_qam_offset_hz(cf, s1, len1, Rs, &f)) return -1;
    for (int i = 0; i < len1; ++i) s1[i] = turned(cf, s1[i], kMinusTwoPi * f * i / Rs);

    // Outer points back onto the diagonals (up to a quarter turn).
    const double theta = dense_qam_quadrant_phase(s1, len1);
    for (int i = 0; i < len1; ++i) s1[i] = turned(cf, s1[i], -theta);

    // Outer ring onto its radius on the odd-integer grid.
    double mean = 1.0;
    if (!dense_qam_outer_mean(s1, len1, M, &mean)) return -1;
    const double gain = c.outerRadius / mean;
    for (int i = 0; i < len1; ++i) s1[i] = Complex_scalar_mul(s1[i], gain);

    // Outer-point phase loop; its first 499 outputs are its pull-in. The
    // length test cannot fail once 3000 timed symbols were required; it
    // stays as a guard on the discard.
    HeapArray<Complex> locked = heap_alloc<Complex>(len1);
    if (!locked) return -1;
    dense_qam_phase_loop(cf, s1, len1, c, locked.get());
    timed.reset();
    if (len1 <= 500) return -1;
    Complex* s2 = locked.get() + kSettlePhase;
    const int len2 = len1 - kSettlePhase;

    // Decisions over every symbol.
    const int B = static_cast<int>(std::log2(static_cast<double>(M)) + 0.5);
    // Display window: the last K symbols. The eye's scratch is taken before
    // the decisions write into the host's bit array, so that no failure
    // follows a write to the record.
    const int K = len2 < kShown ? len2 : kShown;
    const int start = len2 - K;
    HeapArray<double> eye = heap_zeroed<double>(static_cast<std::int64_t>(4) * K);
    if (!eye) return -1;
    Decisions d;
    if (!d.allocate(len2, B, out->bits)) return -1;
    int bitCount = 0;
    double phaseOffset = 0.0;
    cf.symbolDecisionForQAM(s2, len2, M, d.symbols.get(), d.bits, &bitCount,
                            d.evm.get(), d.magErr.get(), d.phaseErr.get(), phaseOffset);

    // The 128 cross shows its residual outer-point rotation: turning the
    // display back by it puts the constellation on the grid. The decisions
    // and errors above are deliberately taken before this turn.
    if (c.rotateDisplay) {
        for (int i = 0; i < len2; ++i) s2[i] = turned(cf, s2[i], -phaseOffset);
    }

    int eyeLen = 4 * K;
    cf.getEye(s2 + start, K, c.eyeScale, eye.get(), &eyeLen);
    if (eyeLen > 4 * K) eyeLen = 4 * K;  // never copy more than was allocated
    if (eyeLen < 0) eyeLen = 0;

    for (int i = 0; i < eyeLen; ++i) out->eye[i] = eye[i];
    out->eyeLen = static_cast<uint32_t>(eyeLen);
    for (int i = 0; i < K; ++i) {
        out->constI[i] = s2[start + i].re / c.displayDivisor;
        out->constQ[i] = s2[start + i].im / c.displayDivisor;
    }
    out->constLen = static_cast<uint32_t>(K);
    // Deliberately unlike the display: the bits of every decided symbol, and
    // the first K decisions (not the last) in the per-symbol arrays.
    const std::int64_t bitsLen = static_cast<std::int64_t>(len2) * B;
    // (already in place: the decisions wrote them into out->bits)
    out->bitsLen = static_cast<uint32_t>(bitsLen);
    for (int i = 0; i < K; ++i) {
        out->symbols[i] = static_cast<uint32_t>(d.symbols[i]);
        out->evm[i] = d.evm[i];
        out->phaseErr[i] = d.phaseErr[i];
        out->magErr[i] = d.magErr[i];
    }
    out->symbolsLen = static_cast<uint32_t>(K);
    out->evmLen = static_cast<uint32_t>(K);
    out->phaseErrLen = static_cast<uint32_t>(K);
    out->magErrLen = static_cast<uint32_t>(K);
    out->evmRms = rms_of(d.evm.get(), K);
    out->evmPeak = peak_of(d.evm.get(), K);
    out->phaseErrRms = rms_of(d.phaseErr.get(), K);  // radians; the driver's summary converts
    out->phaseErrPeak = peak_abs_of(d.phaseErr.get(), K);
    out->magErrRms = rms_of(d.magErr.get(), K);
    out->magErrPeak = peak_abs_of(d.magErr.get(), K);
    return 0;
}
