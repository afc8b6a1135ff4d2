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

// The two rails of one strobe, I and Q, side by side. Every operation acts on
// each part alone, exactly as the scalar expression would on each rail (with
// SSE2, one instruction for both).
struct Pair {
#ifdef __SSE2__
    __m128d v;
    static Pair of(double a) { return Pair{_mm_set1_pd(a)}; }
    static Pair load(const Complex& c) { return Pair{_mm_loadu_pd(&c.re)}; }
    double i() const { return _mm_cvtsd_f64(v); }
    double q() const { return _mm_cvtsd_f64(_mm_unpackhi_pd(v, v)); }
#else
    double a, b;
    static Pair of(double x) { return Pair{x, x}; }
    static Pair load(const Complex& c) { return Pair{c.re, c.im}; }
    double i() const { return a; }
    double q() const { return b; }
#endif
    Complex complex() const { return Complex{i(), q()}; }
};
#ifdef __SSE2__
Pair operator+(Pair x, Pair y) { return Pair{_mm_add_pd(x.v, y.v)}; }
Pair operator-(Pair x, Pair y) { return Pair{_mm_sub_pd(x.v, y.v)}; }
Pair operator*(Pair x, Pair y) { return Pair{_mm_mul_pd(x.v, y.v)}; }
Pair operator/(Pair x, Pair y) { return Pair{_mm_div_pd(x.v, y.v)}; }
#else
Pair operator+(Pair x, Pair y) { return Pair{x.a + y.a, x.b + y.b}; }
Pair operator-(Pair x, Pair y) { return Pair{x.a - y.a, x.b - y.b}; }
Pair operator*(Pair x, Pair y) { return Pair{x.a * y.a, x.b * y.b}; }
Pair operator/(Pair x, Pair y) { return Pair{x.a / y.a, x.b / y.b}; }
#endif

// Piecewise-parabolic interpolant between x[m] and x[m+1] at fraction mu,
// with the left neighbour x[p] (p = m-1, clamped to 0 at the block start);
// the four samples are passed as values xp, xm, xm1, xm2.
Pair parabolic(Pair xp, Pair xm, Pair xm1, Pair xm2, double mu) {
    const Pair h = Pair::of(0.5), mh = Pair::of(-0.5), h3 = Pair::of(1.5), u = Pair::of(mu);
    const Pair c2 = h * xm2 - h * xm1 - h * xm + h * xp;
    const Pair c1 = mh * xm2 + h3 * xm1 - h * xm - h * xp;
    return (c2 * u + c1) * u + xm;
}

// The last five strobe values, newest first (y0 is strobe i, y4 strobe
// i - 4), and the pre-filtered values of the newest three: kept in registers
// rather than in a ring in memory, since the loop's critical path runs
// through them. A strobe that was never written reads as zero.
struct StrobeHistory {
    Pair y0 = Pair::of(0), y1 = y0, y2 = y0, y3 = y0, y4 = y0;
    Pair f0 = y0, f1 = y0, f2 = y0;

    // Strobe i: the first six strobes pass unfiltered, later ones go through
    // the five taps over strobes i .. i-4 (newest first).
    void push(Pair y, std::int64_t i) {
        y4 = y3;
        y3 = y2;
        y2 = y1;
        y1 = y0;
        y0 = y;
        Pair f = y0;
        if (i > 5) {
            Pair acc = Pair::of(0.0);
            acc = acc + y0 * Pair::of(kPreTaps[0]);
            acc = acc + y1 * Pair::of(kPreTaps[1]);
            acc = acc + y2 * Pair::of(kPreTaps[2]);
            acc = acc + y3 * Pair::of(kPreTaps[3]);
            acc = acc + y4 * Pair::of(kPreTaps[4]);
            f = acc;
        }
        f2 = f1;
        f1 = f0;
        f0 = f;
    }
};

// Gardner error at the symbol strobe i (even): the I rail's term plus the
// Q rail's.
double timingError(const StrobeHistory& h, std::int64_t i) {
    if (i <= 2) {
        const Pair t = h.f1 * h.f0;
        return t.i() + t.q();
    }
    // (f0 + f2) / 2, the halving formed as the (equal, exact) product by 0.5.
    const Pair a = (h.f0 + h.f2) * Pair::of(0.5);
    const Pair t = (h.f1 - a) * (h.f0 - h.f2);
    return t.i() + t.q();
}

// floor(eta) for an NCO underflow, which almost always lies in [-1, 0): the
// floor is then -1 without the conversions of a general floor, which would
// sit on the loop's critical path.
double floorOfUnderflow(double eta) {
    if (eta >= -1.0 && eta < 0.0) return -1.0;
    return std::floor(eta);
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
    StrobeHistory h;            // strobes i, i-1, ... (the last written one first)
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
            h.f2 = Pair::load(Complex{gardnerYI[0], gardnerYQ[0]});
            h.f1 = Pair::load(Complex{gardnerYI[1], gardnerYQ[1]});
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
    Pair scaled[8];
    const Pair rr = Pair::of(r);
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
            scaled[scaledNext & 7] = Pair::load(joined(scaledNext)) / rr;
            ++scaledNext;
        }
        h.push(parabolic(scaled[p & 7], scaled[m & 7], scaled[(m + 1) & 7],
                         scaled[(m + 2) & 7], muNow),
               i);
        if (i % 2 != 0) continue;  // mid-symbol strobe

        const double e = timingError(h, i);
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
        out[count] = h.y0.complex();
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
        gardnerYI[0] = h.f1.i();
        gardnerYI[1] = h.f0.i();
        gardnerYQ[0] = h.f1.q();
        gardnerYQ[1] = h.f0.q();
    } else {
        gardnerYI[0] = h.f2.i();
        gardnerYI[1] = h.f1.i();
        gardnerYQ[0] = h.f2.q();
        gardnerYQ[1] = h.f1.q();
    }
}
