// Gardner symbol timing recovery: one complex sample per symbol, taken at the
// estimated symbol instant, from an oversampled (matched-filtered) block.
//
// Loop structure
//   NCO:    eta[m] = NCO[m] - W[k]; an underflow (eta <= 0) is a strobe, and
//           with W = 2 Rs / fs the NCO underflows twice per symbol: odd
//           strobes fall mid-symbol, even strobes on the symbol.
//   mu:     fractional interval of the strobe, mu = NCO[m] / W[k].
//   interp: piecewise-parabolic Farrow (alpha = 0.5) on I[m-1 .. m+2],
//           y = (c2 mu + c1) mu + I[m].
//   TED:    on the pre-filtered interpolants f,
//           e = (f[i-1] - (f[i] + f[i-2]) / 2) . (f[i] - f[i-2]),
//           the mid-point-minus-average form of the Gardner detector.
//   filter: W[k+1] = W[k] + C1 (e[k] - e[k-1]) + C2 e[k].
// A positive error enlarges the step, so the next strobes come earlier.
//
// The input is scaled to unit RMS, so symbols come out on a unit-power scale.
// Delay: the first symbol is taken from the first whole symbol after the
// symbol-phase alignment offset (0 .. sps-1 samples into the block).
#include <cmath>
#include <cstdint>
#include <cstring>

#include "CommonFun.h"
#include "safe_convert.h"

namespace {

constexpr double kNcoStart = 0.7;
constexpr double kMuStart = 0.6;
constexpr double kRmsFloor = 1e-12;
// Five-tap symmetric pre-filter in front of the error detector.
constexpr double kPreTaps[5] = {-1.16138e-06, -0.633281, 1.0, -0.633281, -1.16138e-06};

// Index (0 .. sps-1) of the sample phase carrying the most energy over the
// whole symbols of the block; ties keep the lowest index. Returns -1 when the
// accumulators cannot be allocated.
int strongestPhase(const Complex* in, int sps, int symbols) {
    HeapArray<double> acc = heap_zeroed<double>(sps);
    if (!acc) return -1;
    const std::int64_t whole = static_cast<std::int64_t>(sps) * symbols;
    for (std::int64_t i = 0; i < whole; ++i) acc[i % sps] += Complex_abs2(in[i]);
    int best = 0;
    for (int p = 1; p < sps; ++p)
        if (acc[p] > acc[best]) best = p;
    return best;
}

// Work arrays of one call. All are zero-filled, so a slot the loop never
// writes (for instance the NCO value at N-2 when the loop stops early on its
// strobe or symbol budget) reads as 0 rather than as stale heap contents.
struct LoopArrays {
    HeapArray<double> I, Q, nco, step, mu, yI, yQ, fI, fQ, err;
    bool allocate(std::int64_t N, std::int64_t S) {
        const std::int64_t strobes = 4 * S + 10;
        I = heap_zeroed<double>(N);
        Q = heap_zeroed<double>(N);
        // At least two NCO and step slots: a resumed call writes index 1
        // even when the block holds less than one symbol.
        nco = heap_zeroed<double>(N > 2 ? N : 2);
        step = heap_zeroed<double>(4 * S + 1 > 2 ? 4 * S + 1 : 2);
        mu = heap_zeroed<double>(strobes);
        yI = heap_zeroed<double>(strobes);
        yQ = heap_zeroed<double>(strobes);
        fI = heap_zeroed<double>(strobes);
        fQ = heap_zeroed<double>(strobes);
        err = heap_zeroed<double>(2 * S + 1);
        return I && Q && nco && step && mu && yI && yQ && fI && fQ && err;
    }
};

// Piecewise-parabolic interpolant between x[m] and x[m+1] at fraction mu,
// with the left neighbour x[p] (p = m-1, clamped to 0 at the block start).
double parabolic(const double* x, std::int64_t m, std::int64_t p, double mu) {
    const double c2 = 0.5 * x[m + 2] - 0.5 * x[m + 1] - 0.5 * x[m] + 0.5 * x[p];
    const double c1 = -0.5 * x[m + 2] + 1.5 * x[m + 1] - 0.5 * x[m] - 0.5 * x[p];
    return (c2 * mu + c1) * mu + x[m];
}

// Pre-filtered value at strobe i: the first six strobes pass unfiltered,
// later ones go through the five taps over strobes i-4 .. i.
double prefilter(const double* y, std::int64_t i) {
    if (i <= 5) return y[i];
    double acc = 0.0;
    for (int t = 0; t < 5; ++t) acc += y[i - t] * kPreTaps[t];
    return acc;
}

// Gardner error at the symbol strobe i (even).
double timingError(const double* fI, const double* fQ, std::int64_t i) {
    if (i <= 2) return fI[i - 1] * fI[i] + fQ[i - 1] * fQ[i];
    const double aI = (fI[i] + fI[i - 2]) / 2;
    const double aQ = (fQ[i] + fQ[i - 2]) / 2;
    return (fI[i - 1] - aI) * (fI[i] - fI[i - 2]) + (fQ[i - 1] - aQ) * (fQ[i] - fQ[i - 2]);
}

}  // namespace

// Gardner(in, n, fs, Rs, C1, C2, out, outLen)
//   in/n    : oversampled complex block (any amplitude; scaled to unit RMS)
//   fs, Rs  : sample and symbol rate in Hz; sps = floor(fs / Rs)
//   C1, C2  : proportional and integral gains of the loop filter
//   out     : receives the symbols; sized by the caller to at least n
//   outLen  : out only: the number of symbols written. Left untouched when the
//             block holds no whole symbol or an allocation fails.
// The block is joined to the tail kept from the previous call (cleared by
// Reset), and a new tail is kept on every call.
void CommonFun::Gardner(const Complex* in, int n, double fs, double Rs, double C1, double C2,
                        Complex* out, int* outLen) {
    // A NaN or infinite ratio converts to 0 or saturates, and both end here.
    const int sps = floor_to_int(fs / Rs);
    if (sps <= 0 || n <= 0) return;
    const int S0 = n / sps;
    if (S0 == 0) return;

    // 1. Symbol-phase alignment.
    const int offset = strongestPhase(in, sps, S0);
    if (offset < 0) return;
    const int remaining = n - offset;
    if (remaining < 1) {
        *outLen = 0;
        return;
    }

    // 2. Join the previous tail and this block.
    const int prevCount = (gardnerTailCount > 0 && gardnerTail) ? gardnerTailCount : 0;
    const std::int64_t total = static_cast<std::int64_t>(prevCount) + remaining;
    HeapArray<Complex> joined = heap_alloc<Complex>(total);
    if (!joined) return;
    if (prevCount > 0)
        std::memcpy(joined.get(), gardnerTail.get(), sizeof(Complex) * size_t(prevCount));
    std::memcpy(joined.get() + prevCount, in + offset, sizeof(Complex) * size_t(remaining));
    const std::int64_t S = total / sps;
    const std::int64_t N = S * sps;

    // New tail: the samples after the last whole symbol plus four. When the
    // block is shorter than four samples that would reach before its start;
    // the tail is then the whole joined block.
    std::int64_t tailCount = total - N + 4;
    if (tailCount > total) tailCount = total;
    gardnerTail = heap_alloc<Complex>(tailCount);
    gardnerTailCount = gardnerTail ? static_cast<int>(tailCount) : 0;
    if (gardnerTail)
        std::memcpy(gardnerTail.get(), joined.get() + (total - tailCount),
                    sizeof(Complex) * size_t(tailCount));

    // 3. Unit-RMS normalisation (the RMS is kept when continuing a stream).
    if (gardnerContinue == 0) {
        double energy = 0.0;
        for (std::int64_t j = 0; j < total; ++j) energy += Complex_abs2(joined[j]);
        gardnerRms = std::sqrt(energy / static_cast<double>(total));
    }
    const double r = gardnerRms < kRmsFloor ? 1.0 : gardnerRms;

    LoopArrays a;
    if (!a.allocate(N, S)) return;
    for (std::int64_t j = 0; j < N; ++j) {
        a.I[j] = joined[j].re / r;
        a.Q[j] = joined[j].im / r;
    }
    joined.reset();

    // 4. Initial loop state, or the state saved by the previous call.
    const std::int64_t strobeLimit = 4 * S + 10;
    a.step[0] = 2 * Rs / fs;
    a.nco[0] = kNcoStart;
    a.mu[0] = kMuStart;
    std::int64_t m = 0, k = 0, i = 0;
    int count = 0;
    if (gardnerContinue != 0 && gardnerTailCount > 0) {
        m = 1;
        k = 1;
        // The library saves 4 or 5 here; a negative value set from outside
        // would index before the arrays, so it is read as 0.
        i = gardnerStrobe > 0 ? gardnerStrobe : 0;
        a.nco[1] = gardnerNco;
        a.step[1] = gardnerW;
        if (i < strobeLimit) a.mu[i] = gardnerMu;
        if (i > 1 && i <= strobeLimit) {
            a.fI[i - 2] = gardnerYI[0];
            a.fI[i - 1] = gardnerYI[1];
            a.fQ[i - 2] = gardnerYQ[0];
            a.fQ[i - 1] = gardnerYQ[1];
        }
        a.err[0] = gardnerLastErr;
    }

    // 5. The loop, over whole-symbol samples; the interpolator reads m+2.
    for (; m < N - 2; ++m) {
        const double eta = a.nco[m] - a.step[k];
        if (eta > 0) {
            a.nco[m + 1] = eta;
            continue;
        }
        a.nco[m + 1] = eta - std::floor(eta);
        ++i;
        if (i >= strobeLimit) break;
        a.mu[i] = a.nco[m] / a.step[k];

        const std::int64_t p = m > 0 ? m - 1 : 0;
        a.yI[i] = parabolic(a.I.get(), m, p, a.mu[i]);
        a.yQ[i] = parabolic(a.Q.get(), m, p, a.mu[i]);
        a.fI[i] = prefilter(a.yI.get(), i);
        a.fQ[i] = prefilter(a.yQ.get(), i);
        if (i % 2 != 0) continue;  // mid-symbol strobe

        a.err[k] = timingError(a.fI.get(), a.fQ.get(), i);
        const double diff = k == 0 ? a.err[k] : a.err[k] - a.err[k - 1];
        a.step[k + 1] = a.step[k] + C1 * diff + C2 * a.err[k];
        // The symbol budget, and the caller's capacity of n symbols, which
        // only a one-sample-per-symbol block with a carried tail could reach.
        if (count >= S || count >= n) break;
        out[count] = Complex{a.yI[i], a.yQ[i]};
        ++count;
        ++k;
    }

    // 6. Count and carry-over state. Reads that would fall outside the
    // arrays take the value a fresh start uses: no previous error (0), the
    // initial fractional interval and the initial NCO accumulator.
    *outLen = count;
    gardnerW = a.step[k];
    gardnerLastErr = k >= 1 ? a.err[k - 1] : 0.0;
    gardnerMu = i < strobeLimit ? a.mu[i] : kMuStart;
    gardnerStrobe = static_cast<int>(i % 2) + 4;
    gardnerNco = N >= 2 ? a.nco[N - 2] : kNcoStart;
    if (i < 2 || i > strobeLimit) {
        gardnerYI[0] = gardnerYI[1] = 0.0;
        gardnerYQ[0] = gardnerYQ[1] = 0.0;
    } else {
        gardnerYI[0] = a.fI[i - 2];
        gardnerYI[1] = a.fI[i - 1];
        gardnerYQ[0] = a.fQ[i - 2];
        gardnerYQ[1] = a.fQ[i - 1];
    }
}
