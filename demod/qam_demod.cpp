// 16-, 32- and 64-point QAM demodulator.
//
// Chain: matched filter -> Gardner timing (one sample per symbol) -> drop 500
// settling symbols -> scale onto the odd-integer grid (outer points at their
// ideal radius) -> [32 points: fourth-power residual-frequency correction]
// -> phase loop (Bn = 0.01 Rs) -> drop 500 more -> five-tap radius-directed
// equaliser -> decisions, eye and statistics on at most the last 800 symbols.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "VantrelClass.h"
#include "safe_convert.h"
#include "statistics.h"

namespace {

constexpr double kTwoPi = 6.283185307179586;
constexpr double kGardnerC1 = 0.00541;   // timing loop proportional gain
constexpr double kGardnerC2 = 3.82e-6;   // timing loop integral gain
constexpr int kMinTimed = 1502;          // fewest symbols the timing loop must give
constexpr int kSettleTiming = 500;       // symbols dropped after timing recovery
constexpr int kSettlePhase = 500;        // symbols dropped after phase tracking
constexpr double kLoopBandwidth = 0.01;  // phase loop Bn as a fraction of Rs
constexpr int kFftLen = 16384;           // fourth-power spectrum of 32 points
constexpr int kTaps = 5;                 // radius-directed equaliser
constexpr double kStep = 1.6e-5;
constexpr double kGradFloor = 1e-6;
constexpr int kShown = 800;              // symbols decided and displayed

// Order of a QAM mode code; 0 for any other code.
int qamOrder(uint32_t mode) {
    switch (mode) {
    case MOD_16QAM:  return 16;
    case MOD_32QAM:  return 32;
    case MOD_64QAM:  return 64;
    case MOD_128QAM: return 128;
    case MOD_256QAM: return 256;
    default:         return 0;
    }
}

// Squared radius of the ring of the odd-integer grid (levels up to +-7) that
// an output of power p belongs to; the thresholds lie between neighbouring
// rings 2, 10, 18, 26, 34, 50, 58, 74, 98. One table serves 16, 32 and 64
// points (the smaller constellations simply never reach the outer rings).
double targetRing(double p) {
    if (p < 6) return 2;
    if (p < 14) return 10;
    if (p < 22) return 18;
    if (p < 30) return 26;
    if (p < 42) return 34;
    if (p < 54) return 50;
    if (p < 66) return 58;
    if (p < 86) return 74;
    return 98;
}

// Residual carrier of a 32-point block: raising each symbol to the fourth
// power turns the four-fold symmetric constellation into a line at four times
// the offset. The line is found in a 16384-point spectrum of (at most) the
// first 16384 fourth powers; f = round((Rs / 16384)(k - 8192) / 4) Hz, whole
// hertz, and every symbol is turned back by -2 pi f i / Rs. Returns false
// when a work buffer cannot be had.
bool removeFourthPowerOffset(CommonFun& cf, Complex* s, int n, double Rs) {
    HeapArray<Complex> power = heap_alloc<Complex>(n);
    HeapArray<Complex> spectrum = heap_zeroed<Complex>(kFftLen);
    if (!power || !spectrum) return false;
    // The scratch buffer is loaded with the normalised symbols themselves:
    // they are what the estimate is meant to be taken from.
    for (int i = 0; i < n; ++i) {
        const Complex x = s[i];
        const Complex sq1 = cf.Complex_mul(x, x);
        const Complex sq2 = cf.Complex_mul(x, x);
        power[i] = cf.Complex_mul(sq1, sq2);
    }
    const int used = n < kFftLen ? n : kFftLen;
    std::memcpy(spectrum.get(), power.get(), sizeof(Complex) * static_cast<size_t>(used));
    power.reset();
    cf.fft_radix2(spectrum.get(), kFftLen);
    cf.fftshift_complex(spectrum.get(), kFftLen);

    // Strongest bin; the first of equal peaks is kept.
    double best = -1.0;
    int k = 0;
    for (int i = 0; i < kFftLen; ++i) {
        const double p = Complex_abs2(spectrum[i]);
        if (p > best) {
            best = p;
            k = i;
        }
    }
    const int f = round_to_int((Rs / kFftLen) * (k - kFftLen / 2) / 4);
    for (int i = 0; i < n; ++i) {
        const double theta = -kTwoPi * f * i / Rs;
        s[i] = cf.Complex_mul(s[i], Complex{std::cos(theta), std::sin(theta)});
    }
    return true;
}

// Five-tap blind equaliser driven towards the ring radius of each output.
// Taps start as a pure delay (unit tap at index 3). For every window of five
// inputs x_0 (newest) .. x_4: y = sum w_k x_k, p = |y|^2, e = ring(p) - p,
// g = y e brought to unit magnitude when |g| > 1e-6 (only the direction of
// the gradient steers the taps, so the step does not grow with the ring
// radius), then w_k += 1.6e-5 . conj(x_k) . g, evaluated left to right.
// Writes n - 4 outputs (the caller guarantees n >= 5).
void radiusDirectedEqualise(CommonFun& cf, const Complex* in, int n, Complex* out) {
    Complex w[kTaps] = {};
    w[kTaps > 3 ? 3 : kTaps - 1] = Complex{1.0, 0.0};
    Complex x[kTaps];
    for (int m = kTaps - 1; m < n; ++m) {
        for (int k = 0; k < kTaps; ++k) x[k] = in[m - k];
        Complex y{0.0, 0.0};
        for (int k = 0; k < kTaps; ++k) y = Complex_add(y, cf.Complex_mul(w[k], x[k]));
        out[m - (kTaps - 1)] = y;
        const double p = Complex_abs2(y);
        const double e = targetRing(p) - p;
        Complex g = Complex_scalar_mul(y, e);
        const double gm = Complex_abs(g);
        if (gm > kGradFloor) g = complex_div_real(g, gm);
        for (int k = 0; k < kTaps; ++k) {
            const Complex step = cf.Complex_mul(Complex_scalar_mul(Complex_conj(x[k]), kStep), g);
            w[k] = Complex_add(w[k], step);
        }
    }
}

// Per-symbol results of the decided block. Zero-filled, so that arrays a
// failed decision leaves unwritten read as 0, not as stale heap contents.
struct Decisions {
    HeapArray<int> symbols, bits;
    HeapArray<double> evm, magErr, phaseErr, eye;
    int bitCount = 0;
    double phaseOffset = 0.0;
    int eyeLen = 0;
    bool allocate(int K, int B) {
        symbols = heap_zeroed<int>(K);
        bits = heap_zeroed<int>(static_cast<std::int64_t>(K) * B);
        evm = heap_zeroed<double>(K);
        magErr = heap_zeroed<double>(K);
        phaseErr = heap_zeroed<double>(K);
        eye = heap_zeroed<double>(static_cast<std::int64_t>(4) * K);
        return symbols && bits && evm && magErr && phaseErr && eye;
    }
};

// Copies the decided block into the host's record. The constellation is
// shown divided by (int)sqrt(M) - 1 for every order: 3 for 16, 7 for 64, and
// 4 for the 32-point cross although its outer level is 5.
void fillDisplay(const Complex* shown, int K, int B, int scale, const Decisions& d,
                 DisplayData* out) {
    for (int i = 0; i < d.eyeLen; ++i) out->eye[i] = d.eye[i];
    out->eyeLen = static_cast<uint32_t>(d.eyeLen);
    for (int i = 0; i < K; ++i) {
        out->constI[i] = shown[i].re / scale;
        out->constQ[i] = shown[i].im / scale;
    }
    out->constLen = static_cast<uint32_t>(K);
    const int bitCount = K * B;
    for (int i = 0; i < bitCount; ++i) out->bits[i] = static_cast<uint32_t>(d.bits[i]);
    out->bitsLen = static_cast<uint32_t>(bitCount);
    for (int i = 0; i < K; ++i) out->symbols[i] = static_cast<uint32_t>(d.symbols[i]);
    out->symbolsLen = static_cast<uint32_t>(K);
    for (int i = 0; i < K; ++i) {
        out->evm[i] = d.evm[i];
        out->phaseErr[i] = d.phaseErr[i];
        out->magErr[i] = d.magErr[i];
    }
    out->evmLen = static_cast<uint32_t>(K);
    out->phaseErrLen = static_cast<uint32_t>(K);
    out->magErrLen = static_cast<uint32_t>(K);
    out->evmRms = rms_of(d.evm.get(), K);
    out->evmPeak = peak_of(d.evm.get(), K);
    out->phaseErrRms = rms_of(d.phaseErr.get(), K);  // radians; the driver's summary converts
    out->phaseErrPeak = peak_abs_of(d.phaseErr.get(), K);
    out->magErrRms = rms_of(d.magErr.get(), K);
    out->magErrPeak = peak_abs_of(d.magErr.get(), K);
}

}  // namespace

// demodQAM(in, n, fs, param, out)
//   in/n  : n complex samples at fs Hz, coarse and refined carrier removed,
//           not yet filtered
//   param : Rb (symbol rate Rs, Hz), mode (7 16QAM, 18 32QAM, 9 64QAM; the
//           128/256 codes are accepted too), filter
//   out   : host record; written only on success (K <= 800 symbols: eye of up
//           to 4K - 16 values, K constellation points scaled by 1/((int)sqrt M
//           - 1), K symbols, K.B bits, K EVM (%) / phase (rad) / magnitude (%)
//           errors and their RMS / peaks)
// Returns 0, or -1 for invalid arguments, an unknown mode, fewer than 1502
// timed symbols, 500 or fewer tracked symbols, nothing left after the
// equaliser, or memory exhaustion. Every work buffer is released on every path.
int VantrelClass::demodQAM(const Complex* in, int n, double fs, ExParamOut param,
                           DisplayData* out) {
    if (!in || n <= 0 || !(fs > 0) || !(param.Rb > 0) || !out) return -1;
    CommonFun& cf = commonFun;
    cf.Reset();
    const int M = qamOrder(param.mode);
    if (M == 0) return -1;
    const int B = trunc_to_int(std::log2(static_cast<double>(M)) + 0.5);
    const double Rs = param.Rb;

    // Matched filter.
    HeapArray<Complex> filtered = heap_alloc<Complex>(n);
    if (!filtered) return -1;
    int mfLen = n;
    cf.matchFilter(in, n, fs, param, filtered.get(), mfLen);

    // Timing recovery. With the toolkit just reset no tail is carried in, so
    // the loop gives at most mfLen / sps symbols and the buffer is sized for
    // that. A timing loop that gives up leaves the count it was handed: the
    // chain then sees mfLen zeros, as from a zero-filled buffer of the full
    // capacity.
    const int sps = floor_to_int(fs / Rs);
    const int timedCap = sps >= 1 && mfLen / sps + 1 < mfLen ? mfLen / sps + 1 : mfLen;
    HeapArray<Complex> timed = heap_alloc<Complex>(timedCap);
    if (!timed) return -1;
    int symLen = -1;
    cf.Gardner(filtered.get(), mfLen, fs, Rs, kGardnerC1, kGardnerC2, timed.get(), &symLen);
    filtered.reset();
    if (symLen < 0) {
        timed = heap_zeroed<Complex>(mfLen);
        if (!timed) return -1;
        symLen = mfLen;
    }
    if (symLen < kMinTimed) return -1;

    // Drop the timing loop's settling, then scale the outer points onto
    // their ideal radius on the odd-integer grid.
    const int len1 = symLen - kSettleTiming;
    HeapArray<Complex> s1 = heap_alloc<Complex>(len1);
    if (!s1) return -1;
    std::memcpy(s1.get(), timed.get() + kSettleTiming, sizeof(Complex) * static_cast<size_t>(len1));
    timed.reset();
    cf.normStar(s1.get(), len1, param, s1.get());

    // The carrier refinement ahead of this demodulator leaves 32-point
    // signals untouched, so their residual offset is removed here.
    if (M == 32 && !removeFourthPowerOffset(cf, s1.get(), len1, Rs)) return -1;

    // Carrier phase tracking, then drop its settling.
    HeapArray<Complex> tracked = heap_alloc<Complex>(len1);
    if (!tracked) return -1;
    int plLen = len1;
    cf.PhaseLook(s1.get(), len1, MT_QAM, M, Rs, Rs * kLoopBandwidth,
                 static_cast<modulationTypeOut>(param.mode), tracked.get(), &plLen);
    s1.reset();
    if (plLen <= kSettlePhase) return -1;
    const int len2 = plLen - kSettlePhase;
    // Fewer than five symbols leave the equaliser without a single window.
    if (len2 < kTaps) return -1;

    // Radius-directed equaliser.
    const int L = len2 - (kTaps - 1);
    HeapArray<Complex> equalised = heap_alloc<Complex>(L);
    if (!equalised) return -1;
    radiusDirectedEqualise(cf, tracked.get() + kSettlePhase, len2, equalised.get());
    tracked.reset();

    // Decisions and eye on the last K symbols.
    const int K = L < kShown ? L : kShown;
    const Complex* shown = equalised.get() + (L - K);
    const int scale = trunc_to_int(std::sqrt(static_cast<double>(M))) - 1;
    Decisions d;
    if (!d.allocate(K, B)) return -1;
    cf.symbolDecisionForQAM(shown, K, M, d.symbols.get(), d.bits.get(), &d.bitCount,
                            d.evm.get(), d.magErr.get(), d.phaseErr.get(), d.phaseOffset);
    d.eyeLen = 4 * K;
    cf.getEye(shown, K, scale, d.eye.get(), &d.eyeLen);
    // Never copy more than was allocated, nor a negative count.
    if (d.eyeLen > 4 * K) d.eyeLen = 4 * K;
    if (d.eyeLen < 0) d.eyeLen = 0;

    fillDisplay(shown, K, B, scale, d, out);
    return 0;
}
