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
#include <utility>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

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
    // Symbol by symbol, so each phase's sum still runs in sample order.
    const Complex* x = in;
    for (int s = 0; s < symbols; ++s, x += sps)
        for (int p = 0; p < sps; ++p) acc[p] += Complex_abs2(x[p]);
    int best = 0;
    for (int p = 1; p < sps; ++p)
        if (acc[p] > acc[best]) best = p;
    return best;
}

// Piecewise-parabolic interpolant between x[m] and x[m+1] at fraction mu,
// with the left neighbour x[p] (p = m-1, clamped to 0 at the block start);
// the four samples are passed as values xp, xm, xm1, xm2.
double parabolic(double xp, double xm, double xm1, double xm2, double mu) {
    const double c2 = 0.5 * xm2 - 0.5 * xm1 - 0.5 * xm + 0.5 * xp;
    const double c1 = -0.5 * xm2 + 1.5 * xm1 - 0.5 * xm - 0.5 * xp;
    return (c2 * mu + c1) * mu + xm;
}

// The last five strobe values of one rail, newest first (y0 is strobe i,
// y4 strobe i - 4), and the pre-filtered values of the newest three: kept in
// registers rather than in a ring in memory, since the loop's critical path
// runs through them. A strobe that was never written reads as zero.
struct StrobeHistory {
    double y0 = 0, y1 = 0, y2 = 0, y3 = 0, y4 = 0;
    double f0 = 0, f1 = 0, f2 = 0;

    // Strobe i: the first six strobes pass unfiltered, later ones go through
    // the five taps over strobes i .. i-4 (newest first).
    void push(double y, std::int64_t i) {
        y4 = y3;
        y3 = y2;
        y2 = y1;
        y1 = y0;
        y0 = y;
        double f = y0;
        if (i > 5) {
            double acc = 0.0;
            acc += y0 * kPreTaps[0];
            acc += y1 * kPreTaps[1];
            acc += y2 * kPreTaps[2];
            acc += y3 * kPreTaps[3];
            acc += y4 * kPreTaps[4];
            f = acc;
        }
        f2 = f1;
        f1 = f0;
        f0 = f;
    }
};

// (v.re / r, v.im / r), both quotients in one instruction where SSE2 is there.
Complex divideBoth(const Complex& v, double r) {
#ifdef __SSE2__
    Complex q;
    _mm_storeu_pd(&q.re, _mm_div_pd(_mm_loadu_pd(&v.re), _mm_set1_pd(r)));
    return q;
#else
    return Complex{v.re / r, v.im / r};
#endif
}

// floor(eta) for an NCO underflow, which almost always lies in [-1, 0): the
// floor is then -1 without the conversions of a general floor, which would
// sit on the loop's critical path.
double floorOfUnderflow(double eta) {
    if (eta >= -1.0 && eta < 0.0) return -1.0;
    return std::floor(eta);
}

// Gardner error at the symbol strobe i (even).
double timingError(const StrobeHistory& I, const StrobeHistory& Q, std::int64_t i) {
    if (i <= 2) return I.f1 * I.f0 + Q.f1 * Q.f0;
    const double aI = (I.f0 + I.f2) / 2;
    const double aQ = (Q.f0 + Q.f2) / 2;
    return (I.f1 - aI) * (I.f0 - I.f2) + (Q.f1 - aQ) * (Q.f0 - Q.f2);
}

}  // namespace


// Gardner(in, n, fs, Rs, C1, C2, out, outLen)
//   in/n    : oversampled complex block (any amplitude; scaled to unit RMS)
//   fs, Rs  : sample and symbol rate in Hz; sps = floor(fs / Rs)
//   C1, C2  : proportional and integral gains of the loop filter
//   out     : receives the symbols; at most min(n, S) are written, S the
//             whole symbols of the tail kept from the previous call plus
//             this block (S <= n / sps after a Reset)
//   outLen  : out only: the number of symbols written. Left untouched when the
//             block holds no whole symbol or an allocation fails.
// The block is joined to the tail kept from the previous call (cleared by
// Reset), and a new tail is kept on every call.
//
// The loop runs as a stream: every quantity it reads is a sample of the
// joined block (read in place and scaled when needed), one of the last few
// strobes (kept in small rings), or the current NCO, step and error values,
// so the memory beyond the output is a few dozen doubles whatever the block
// length. A value the loop never wrote reads as 0, as a zeroed work array
// would give (the pre-filter at the start of a resumed block, the NCO slot
// of the carried state when the loop stops early).
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

    // 2. The joined block: the previous tail, then this block from `offset`.
    const int prevCount = (gardnerTailCount > 0 && gardnerTail) ? gardnerTailCount : 0;
    HeapArray<Complex> previous = std::move(gardnerTail);
    const Complex* head = previous.get();
    const Complex* body = in + offset;
    auto joined = [&](std::int64_t j) -> const Complex& {
        return j < prevCount ? head[j] : body[j - prevCount];
    };
    const std::int64_t total = static_cast<std::int64_t>(prevCount) + remaining;
    const std::int64_t S = total / sps;
    const std::int64_t N = S * sps;

    // New tail: the samples after the last whole symbol plus four. When the
    // block is shorter than four samples that would reach before its start;
    // the tail is then the whole joined block.
    std::int64_t tailCount = total - N + 4;
    if (tailCount > total) tailCount = total;
    gardnerTail = heap_alloc<Complex>(tailCount);
    gardnerTailCount = gardnerTail ? static_cast<int>(tailCount) : 0;
    if (gardnerTail) {
        for (std::int64_t j = 0; j < tailCount; ++j) gardnerTail[j] = joined(total - tailCount + j);
    }

    // 3. Unit-RMS normalisation (the RMS is kept when continuing a stream).
    if (gardnerContinue == 0) {
        double energy = 0.0;
        for (std::int64_t j = 0; j < total; ++j) energy += Complex_abs2(joined(j));
        gardnerRms = std::sqrt(energy / static_cast<double>(total));
    }
    const double r = gardnerRms < kRmsFloor ? 1.0 : gardnerRms;

    // 4. Initial loop state, or the state saved by the previous call.
    const std::int64_t strobeLimit = 4 * S + 10;
    double ncoNow = kNcoStart;  // NCO value at sample m
    double stepNow = 2 * Rs / fs;  // loop step W[k]
    double muNow = kMuStart;    // fractional interval of strobe i
    double errPrev = 0.0;       // e[k - 1]
    StrobeHistory hI, hQ;       // strobes i, i-1, ... (the last written one first)
    std::int64_t m = 0, k = 0, i = 0;
    int count = 0;
    const bool resumed = gardnerContinue != 0 && gardnerTailCount > 0;
    if (resumed) {
        m = 1;
        k = 1;
        // The library saves 4 or 5 here; a negative value set from outside
        // would index before the strobes, so it is read as 0.
        i = gardnerStrobe > 0 ? gardnerStrobe : 0;
        ncoNow = gardnerNco;
        stepNow = gardnerW;
        muNow = i < strobeLimit ? gardnerMu : kMuStart;
        if (i > 1 && i <= strobeLimit) {
            hI.f2 = gardnerYI[0];
            hI.f1 = gardnerYI[1];
            hQ.f2 = gardnerYQ[0];
            hQ.f1 = gardnerYQ[1];
        }
        errPrev = gardnerLastErr;
    }
    // NCO value at sample N - 2 for the carried state: the start value at
    // index 0 (and the resumed value at 1), else what the loop wrote there,
    // else 0 (the loop stopped before reaching it).
    double ncoAtEnd = 0.0;
    if (N - 2 == 0) ncoAtEnd = kNcoStart;
    if (resumed && N - 2 == 1) ncoAtEnd = gardnerNco;

    // Unit-RMS samples, each scaled once when the interpolator first needs
    // it; the last eight are kept (it reads m-1 .. m+2).
    Complex scaled[8] = {};
    std::int64_t scaledNext = 0;
    bool stoppedAtLimit = false;  // i was advanced past the last written strobe

    // 5. The loop, over whole-symbol samples; the interpolator reads m+2.
    for (; m < N - 2; ++m) {
        const double eta = ncoNow - stepNow;
        const double ncoPrev = ncoNow;
        ncoNow = eta > 0 ? eta : eta - floorOfUnderflow(eta);
        if (m + 1 == N - 2) ncoAtEnd = ncoNow;
        if (eta > 0) continue;
        ++i;
        if (i >= strobeLimit) {
            stoppedAtLimit = true;
            break;
        }
        muNow = ncoPrev / stepNow;

        const std::int64_t p = m > 0 ? m - 1 : 0;
        while (scaledNext <= m + 2) {
            scaled[scaledNext & 7] = divideBoth(joined(scaledNext), r);
            ++scaledNext;
        }
        const Complex& xp = scaled[p & 7];
        const Complex& xm = scaled[m & 7];
        const Complex& xm1 = scaled[(m + 1) & 7];
        const Complex& xm2 = scaled[(m + 2) & 7];
        hI.push(parabolic(xp.re, xm.re, xm1.re, xm2.re, muNow), i);
        hQ.push(parabolic(xp.im, xm.im, xm1.im, xm2.im, muNow), i);
        if (i % 2 != 0) continue;  // mid-symbol strobe

        const double e = timingError(hI, hQ, i);
        const double diff = k == 0 ? e : e - errPrev;
        const double stepNext = stepNow + C1 * diff + C2 * e;
        // The symbol budget, and the caller's capacity of n symbols, which
        // only a one-sample-per-symbol block with a carried tail could reach.
        if (count >= S || count >= n) {
            // The step was updated but k does not advance: the carried
            // state keeps W[k] and e[k - 1].
            (void)stepNext;
            break;
        }
        out[count] = Complex{hI.y0, hQ.y0};
        ++count;
        ++k;
        stepNow = stepNext;
        errPrev = e;
    }

    // 6. Count and carry-over state. Reads that would fall outside the
    // loop's history take the value a fresh start uses: no previous error
    // (0), the initial fractional interval and the initial NCO accumulator.
    *outLen = count;
    gardnerW = stepNow;
    gardnerLastErr = k >= 1 ? errPrev : 0.0;
    gardnerMu = i < strobeLimit ? muNow : kMuStart;
    gardnerStrobe = static_cast<int>(i % 2) + 4;
    gardnerNco = N >= 2 ? ncoAtEnd : kNcoStart;
    if (i < 2 || i > strobeLimit) {
        gardnerYI[0] = gardnerYI[1] = 0.0;
        gardnerYQ[0] = gardnerYQ[1] = 0.0;
    } else if (stoppedAtLimit) {
        // Strobe i was counted but never written: i-1 is the newest.
        gardnerYI[0] = hI.f1;
        gardnerYI[1] = hI.f0;
        gardnerYQ[0] = hQ.f1;
        gardnerYQ[1] = hQ.f0;
    } else {
        gardnerYI[0] = hI.f2;
        gardnerYI[1] = hI.f1;
        gardnerYQ[0] = hQ.f2;
        gardnerYQ[1] = hQ.f1;
    }
}
