// Amplitude statistics, level normalisation and slicing of one-dimensional
// (real-axis) symbols: the decisions of the amplitude-keyed and
// frequency-keyed chains.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "CommonFun.h"
#include "sorting.h"

namespace {

constexpr int kLevelSpan = 800;       // symbols the ASK level estimate looks at
constexpr int kLevelTries = 5;        // thresholds tried by the level search
constexpr int kMinAbove = 49;         // a threshold needs more than this many above it
constexpr double kScaleFloor = 1e-12;

void reportNoMemory() { std::fputs("Memory allocation failed.\n", stderr); }

// Mean of v[0 .. n-1], 0.0 for an empty group.
double groupMean(const double* v, int n) {
    if (n <= 0) return 0.0;
    double sum = 0.0;
    for (int i = 0; i < n; ++i) sum += v[i];
    return sum / n;
}

}  // namespace

// getAmp(x, n, dev, depth): envelope statistics of a block.
//   a[i]  = |x[i]| = sqrt(re^2 + im^2),  mean = sum a / n
//   dev[i] = a[i] / m - 1,  m = mean (1 when mean < 1e-12)   (if dev given)
//   k = (int)(0.2 n) clamped to 1 .. n; a sorted ascending;
//   low = mean of the k smallest, high = mean of the k largest,
//   depth = (high - low) / (high + low + 1e-12): 0 for a constant envelope,
//   close to 1 for on-off keying with equal marks and spaces.
// Writes nothing when n <= 0 or the work array cannot be taken.
void CommonFun::getAmp(const Complex* x, int n, double* dev, double& depth) {
    if (n <= 0) return;
    int k = static_cast<int>(0.2 * n);
    if (k < 1) k = 1;
    if (k > n) k = n;
    // The envelope and, after it, room for the selection's sort keys.
    HeapArray<double> a = heap_alloc<double>(static_cast<std::int64_t>(n) + k);
    if (!a) return;
    double sum = 0.0;
    for (int i = 0; i < n; ++i) {
        a[i] = std::sqrt(x[i].re * x[i].re + x[i].im * x[i].im);
        sum += a[i];
    }
    const double mean = sum / n;
    if (dev != nullptr) {
        const double m = mean < 1e-12 ? 1.0 : mean;
        for (int i = 0; i < n; ++i) dev[i] = a[i] / m - 1;
    }
    // Only the k smallest and the k largest are summed: without NaN or -0
    // selecting and sorting those two sets leaves them as the full sort does.
    if (!sort_both_tails(a.get(), n, k, reinterpret_cast<std::uint64_t*>(a.get() + n)))
        std::qsort(a.get(), static_cast<size_t>(n), sizeof(double), cmp_double);
    double lowSum = 0.0;
    for (int i = 0; i < k; ++i) lowSum += a[i];
    double highSum = 0.0;
    for (int i = n - k; i < n; ++i) highSum += a[i];
    const double low = lowSum / k;
    const double high = highSum / k;
    depth = (high - low) / (high + low + 1e-12);
}

// normalize_constellationForASK(x, n, M): maps the real axis of ASK symbols
// so that the upper level lands on +1 and zero amplitude on -1.
//   Level estimate on the real parts of the last 800 symbols: lo, hi their
//   extremes, step = (hi - lo) / (M / 2) (integer halving). The thresholds
//   lo + t step, t = 0.5, 0.7, 0.9, ... (t grown by adding 0.2, five tries)
//   are tried in turn; the first with more than 49 values strictly above it
//   splits the values into an upper group and the rest, and the level s is
//   the group mean of larger magnitude (the upper group on a tie). No
//   threshold found: s = 1.
//   Every one of the n symbols becomes re = 2 (re / s - 0.5), im = 0.
// Blocks of 800 symbols or fewer are too short for the estimate and are left
// as they are; so is the block when a work array cannot be taken (with a
// message on the standard error stream).
void CommonFun::normalize_constellationForASK(Complex* x, int n, int M) {
    if (n <= kLevelSpan) return;
    HeapArray<double> v = heap_alloc<double>(kLevelSpan);
    if (!v) {
        reportNoMemory();
        return;
    }
    const Complex* last = x + (n - kLevelSpan);
    for (int i = 0; i < kLevelSpan; ++i) v[i] = last[i].re;
    double lo = v[0], hi = v[0];
    for (int i = 1; i < kLevelSpan; ++i) {
        if (v[i] < lo) lo = v[i];
        if (v[i] > hi) hi = v[i];
    }
    // The chain only asks for M = 2; an order below 2 would halve to zero,
    // so it is read as one level step.
    const int halfM = M / 2 > 0 ? M / 2 : 1;
    const double step = (hi - lo) / halfM;

    // The threshold factor grows by repeated addition (0.5, 0.7,
    // 0.8999999999999999, ...), not from rounded literals.
    double t = 0.5;
    double thr = 0.0;
    bool found = false;
    for (int attempt = 0; attempt < kLevelTries; ++attempt, t += 0.2) {
        thr = lo + t * step;
        int above = 0;
        for (int i = 0; i < kLevelSpan; ++i)
            if (v[i] > thr) ++above;
        if (above > kMinAbove) {
            found = true;
            break;
        }
    }

    double s = 1.0;
    if (found) {
        HeapArray<double> upper = heap_alloc<double>(kLevelSpan);
        HeapArray<double> lower = heap_alloc<double>(kLevelSpan);
        if (!upper || !lower) {
            reportNoMemory();
            return;
        }
        int nu = 0, nl = 0;
        for (int i = 0; i < kLevelSpan; ++i) {
            if (v[i] > thr)
                upper[nu++] = v[i];
            else
                lower[nl++] = v[i];
        }
        const double mu = groupMean(upper.get(), nu);
        const double ml = groupMean(lower.get(), nl);
        s = std::fabs(mu) >= std::fabs(ml) ? mu : ml;
        // Both group means can only be zero when the values straddle zero
        // symmetrically; dividing by that level would turn every symbol into
        // an infinity or NaN, so such a block keeps the unit scale.
        if (s == 0.0) s = 1.0;
    }
    for (int i = 0; i < n; ++i) {
        x[i].re = 2 * (x[i].re / s - 0.5);
        x[i].im = 0;
    }
}

// symbolDecisionForSingle(x, n, M, symbols, bits, evm, magErr): slices the
// real part r of each symbol into M = 2 or 4 levels.
//   M = 2: symbol = bit = (r >= 0).
//   M = 4: b0 = (r >= 0), inner = (|r| <= 2); symbol = b0 + 2 inner, so
//          r < -2 -> 0, r > 2 -> 1, -2 <= r < 0 -> 2, 0 <= r <= 2 -> 3;
//          bits[2i] = b0, bits[2i+1] = inner.
//   Reference of each class: the mean of the symbols decided into it; an
//   empty class takes (-1, +1) for M = 2 and 2s - 3 for M = 4 (the defaults
//   follow the symbol number, not the slicing map).
//   Scale S: M = 4 the mean outer magnitude (|ref0| + |ref1|) / 2; M = 2 the
//   level spacing |ref0| + |ref1|; 1 when below 1e-12.
//   evm[i] = |x - ref[s]| / S * 100, magErr[i] = (|x| - |ref[s]|) / S * 100 (%).
// Writes nothing for n <= 0 or another M; otherwise every value (nothing is
// allocated, so the caller's arrays may be the host's own).
void CommonFun::symbolDecisionForSingle(const Complex* x, int n, int M, int* symbols, int* bits,
                                        double* evm, double* magErr) {
    if (n <= 0 || (M != 2 && M != 4)) return;
    for (int i = 0; i < n; ++i) {
        const double r = x[i].re;
        const int b0 = r >= 0 ? 1 : 0;
        if (M == 2) {
            symbols[i] = b0;
            bits[i] = b0;
        } else {
            const int inner = std::fabs(r) <= 2.0 ? 1 : 0;
            symbols[i] = b0 + 2 * inner;
            bits[2 * i] = b0;
            bits[2 * i + 1] = inner;
        }
    }

    double sumRe[4] = {0.0, 0.0, 0.0, 0.0};
    double sumIm[4] = {0.0, 0.0, 0.0, 0.0};
    int count[4] = {0, 0, 0, 0};
    Complex ref[4];
    for (int i = 0; i < n; ++i) {
        const int s = symbols[i];
        sumRe[s] += x[i].re;
        sumIm[s] += x[i].im;
        ++count[s];
    }
    for (int s = 0; s < M; ++s) {
        if (count[s] > 0) {
            ref[s] = Complex{sumRe[s] / count[s], sumIm[s] / count[s]};
        } else if (M == 2) {
            ref[s] = Complex{s == 0 ? -1.0 : 1.0, 0.0};
        } else {
            ref[s] = Complex{2.0 * s - 3.0, 0.0};
        }
    }
    double S = M == 4 ? (Complex_abs(ref[0]) + Complex_abs(ref[1])) / 2
                      : Complex_abs(ref[0]) + Complex_abs(ref[1]);
    if (S < kScaleFloor) S = 1;
    for (int i = 0; i < n; ++i) {
        const Complex r = ref[symbols[i]];
        evm[i] = Complex_abs(Complex_sub(x[i], r)) / S * 100;
        magErr[i] = (Complex_abs(x[i]) - Complex_abs(r)) / S * 100;
    }
}
