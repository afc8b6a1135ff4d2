// Measurement mode, FSK codes.
//
// The instantaneous frequency (from successive phase differences) is
// averaged over one symbol; its square carries the symbol-rate line that
// gives the clock. Each symbol's phase advance over one symbol period around
// its instant is then regressed on the decided levels of the symbol and of
// its two neighbours on either side:
//   adv_k = fc + sum_{j=-2..2} d_j level_{k+j}.
// The intercept is the carrier; the neighbour terms absorb the smearing of a
// shaped frequency pulse, and because the frequency pulse integrates to one
// symbol, sum_j d_j is the steady frequency of level 1: the outer tone's
// deviation is that sum times the outer level. The residual of the fit is
// the FSK error.
// Decisions are refined with the fitted neighbour terms taken out of each
// symbol's frequency, and, for tones at least 0.75 Rb apart, by correlation
// with the tones. The deviation comes from the same regression on
// advances that cannot slip by 2 pi: lag products summed per pattern of
// levels before their angle is taken, over the symbols whose decisions are
// clear.
// Below four samples per symbol the block is first interpolated to four, so
// that the phase differences stay well inside +-pi and the one-symbol
// average has several samples to work with (the lag products are still
// taken on the captured samples); above eight it is decimated to eight,
// which keeps the noise outside the signal's band out of the discriminator.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

#include "measurement.h"

using vantrel::meas::cd;
using vantrel::meas::WorkVec;

namespace {

constexpr double kTwoPi = 6.283185307179586;
// FSK is analysed at its own rate from four to eight samples per symbol and
// brought to the nearer of the two otherwise.
constexpr double kFskLowestSps = 4.0;
constexpr double kFskHighestSps = 8.0;

WorkVec<double> instantsOf(const vantrel::meas::SymbolClock& c, std::size_t n,
                               double margin) {
    WorkVec<double> t;
    if (!c.valid || !(c.period > 0.0)) return t;
    const double first = c.firstInstant + std::ceil((margin - c.firstInstant) / c.period) * c.period;
    for (std::size_t k = 0;; ++k) {
        const double v = first + double(k) * c.period;
        if (!(v < double(n) - margin)) break;
        t.push_back(v);
    }
    return t;
}

// Solves the n x n normal equations A p = A[., n] (n <= 6) by Gaussian
// elimination with partial pivoting.
bool solveNormal(double A[6][7], int n, WorkVec<double>& p) {
    for (int c = 0; c < n; ++c) {
        int piv = c;
        for (int r = c + 1; r < n; ++r)
            if (std::fabs(A[r][c]) > std::fabs(A[piv][c])) piv = r;
        for (int k = 0; k <= n; ++k) std::swap(A[c][k], A[piv][k]);
        if (!(std::fabs(A[c][c]) > 0.0)) return false;
        for (int r = 0; r < n; ++r) {
            if (r == c) continue;
            const double q = A[r][c] / A[c][c];
            for (int k = c; k <= n; ++k) A[r][k] -= q * A[c][k];
        }
    }
    p.assign(std::size_t(n), 0.0);
    for (int i = 0; i < n; ++i) p[std::size_t(i)] = A[i][n] / A[i][i];
    return true;
}

inline double linearAt(const WorkVec<double>& x, double t) {
    if (x.empty()) return 0.0;
    if (t <= 0.0) return x.front();
    const std::size_t i = static_cast<std::size_t>(t);
    if (i + 1 >= x.size()) return x.back();
    const double f = t - double(i);
    return x[i] + f * (x[i + 1] - x[i]);
}

// Cubic (four-point Lagrange) value of x at position t; the one-symbol
// average it reads is smooth, and the value only seeds the decisions.
double cubicAt(const WorkVec<double>& x, double t) {
    const long n = static_cast<long>(x.size());
    if (n < 4) return linearAt(x, t);
    long i = static_cast<long>(std::floor(t));
    i = std::max(1L, std::min(i, n - 3));
    const double u = t - double(i);
    const double* y = x.data() + (i - 1);
    return y[0] * (-u * (u - 1.0) * (u - 2.0) / 6.0) + y[1] * ((u + 1.0) * (u - 1.0) * (u - 2.0) / 2.0) +
           y[2] * (-(u + 1.0) * u * (u - 2.0) / 2.0) + y[3] * ((u + 1.0) * u * (u - 1.0) / 6.0);
}

constexpr int kPatterns = 1024;  // five levels of four values

// Pattern of symbol k: levels k-2 .. k+2 as base-4 digits (-3..3 -> 0..3),
// the oldest the most significant; sliding one symbol shifts in the newest
// digit. Defined for 2 <= k < K-2.
WorkVec<std::uint16_t> patternsOf(const WorkVec<int>& level) {
    const std::size_t K = level.size();
    WorkVec<std::uint16_t> pattern(K, 0);
    unsigned index = 0;
    for (std::size_t k = 0; k < K; ++k) {
        index = (4 * index + static_cast<unsigned>(level[k] + 3) / 2) % kPatterns;
        if (k >= 4) pattern[k - 2] = static_cast<std::uint16_t>(index);
    }
    return pattern;
}

// Regressors of a pattern: 1 and its five levels.
void regressorsOf(int pattern, double r[6]) {
    r[0] = 1.0;
    for (int j = 4; j >= 0; --j, pattern /= 4) r[j + 1] = double(2 * (pattern % 4) - 3);
}

// Least squares adv = fc + sum_j d_j level_j from each pattern's weight and
// weighted sum of advances; coef = {fc, d_-2 .. d_2}.
bool fitPatterns(const WorkVec<double>& weight, const WorkVec<double>& sum, WorkVec<double>& coef) {
    double A[6][7] = {};
    for (int pat = 0; pat < kPatterns; ++pat) {
        const double c = weight[std::size_t(pat)];
        if (c == 0.0) continue;
        double r[6];
        regressorsOf(pat, r);
        for (int i = 0; i < 6; ++i) {
            for (int j = 0; j < 6; ++j) A[i][j] += c * r[i] * r[j];
            A[i][6] += r[i] * sum[std::size_t(pat)];
        }
    }
    return solveNormal(A, 6, coef);
}

double modelOf(const WorkVec<double>& coef, int pattern) {
    double r[6], v = 0.0;
    regressorsOf(pattern, r);
    for (int j = 0; j < 6; ++j) v += coef[std::size_t(j)] * r[j];
    return v;
}

// Regression adv_k = fc + sum_{j=-2..2} d_j level_{k+j}: the neighbours'
// terms absorb the interference of a shaped frequency pulse, so the
// intercept is the carrier alone. coef = {fc, d_-2 .. d_2}; residual is the
// RMS misfit in Hz.
// The regressors of a symbol are its pattern of five levels (at most 4^5 of
// them), so the normal equations are formed from each pattern's count and
// sum of advances, and the misfit from each pattern's model value.
bool fitLevels(const WorkVec<int>& level, const WorkVec<double>& adv,
               WorkVec<double>& coef, double& residual) {
    const std::size_t K = level.size();
    if (K < 8) return false;
    const WorkVec<std::uint16_t> pattern = patternsOf(level);
    WorkVec<double> count(kPatterns, 0.0), sum(kPatterns, 0.0);
    for (std::size_t k = 2; k + 2 < K; ++k) {
        count[pattern[k]] += 1.0;
        sum[pattern[k]] += adv[k];
    }
    if (!fitPatterns(count, sum, coef)) return false;
    WorkVec<double> model(kPatterns, 0.0);
    for (int pat = 0; pat < kPatterns; ++pat)
        if (count[std::size_t(pat)] > 0.0) model[std::size_t(pat)] = modelOf(coef, pat);
    residual = 0.0;
    for (std::size_t k = 2; k + 2 < K; ++k) {
        const double e = adv[k] - model[pattern[k]];
        residual += e * e;
    }
    residual = std::sqrt(residual / double(K - 4));
    return true;
}

// The same regression on click-free advances. At low SNR the discriminator's
// phase slips by 2 pi now and then, mostly against the frequency, so its
// advances read the deviation low. Here the products x[a + L] conj(x[a])
// over L ~ T samples are summed over every symbol with the same pattern
// before the angle is taken: noise then averages out instead of wrapping.
// Each symbol contributes up to four windows whose centres lie within half
// a symbol of its instant, spread over it. The regression holds
// for a window at any offset from the instant (only the neighbours' shares
// change with it), and the sum of its coefficients, the steady frequency,
// does not depend on the offset at all; so windows are summed per pattern
// and per quarter sample of offset, each sum's angle taken, and the angles
// averaged per pattern before the fit. The angle is known modulo 2 pi; the
// discriminator's own advance over the same window, a few per cent off at
// worst, picks the turn.
// x may run at another rate than the discriminator: `scale` is its samples
// per discriminator sample, and xfs its rate.
bool fitLagProducts(const WorkVec<cd>& x, double scale, double xfs, const WorkVec<double>& phase,
                    const WorkVec<double>& t, double T, const WorkVec<int>& level,
                    const WorkVec<char>& trusted, WorkVec<double>& coef) {
    const std::size_t K = level.size();
    const long n = static_cast<long>(x.size());
    const long L = std::max(1L, std::lround(T * scale));
    if (K < 8 || n <= L) return false;
    const WorkVec<std::uint16_t> pattern = patternsOf(level);
    // Offsets of a window's start from (instant - L + 1/2), in quarter
    // samples: 0 .. 4L - 1.
    const std::size_t bins = 4 * std::size_t(L);
    // At most four windows per symbol, spread over it: more add little
    // (neighbouring windows share most of their noise) and cost time.
    const long stride = (L + 3) / 4;
    // The discriminator's phase at the samples of x (linear between its own
    // samples when x runs at another rate).
    WorkVec<double> resampled;
    if (scale != 1.0) {
        resampled.resize(x.size());
        const double perSample = 1.0 / scale;
        for (std::size_t xi = 0; xi < x.size(); ++xi) resampled[xi] = linearAt(phase, double(xi) * perSample);
    }
    const WorkVec<double>& reference = scale != 1.0 ? resampled : phase;
    if (reference.size() < x.size()) return false;
    struct Sum {
        cd product;
        double slipped, count;
    };
    WorkVec<Sum> slots(bins * kPatterns, Sum{cd(0, 0), 0.0, 0.0});
    for (std::size_t k = 2; k + 2 < K; ++k) {
        if (!trusted[k]) continue;
        const double first = t[k] * scale - double(L) + 0.5;
        const long a0 = static_cast<long>(std::ceil(first - 0.5));
        for (long a = a0; a < a0 + L && a + L < n; a += stride) {
            if (a < 0) continue;
            const double offset = double(a) - first + 0.5;  // 0 .. L
            const std::size_t bin = std::min(bins - 1, static_cast<std::size_t>(4.0 * offset));
            Sum& slot = slots[bin * kPatterns + pattern[k]];
            slot.product += x[std::size_t(a + L)] * std::conj(x[std::size_t(a)]);
            slot.slipped += reference[std::size_t(a + L)] - reference[std::size_t(a)];
            slot.count += 1.0;
        }
    }
    const double toHz = xfs / (kTwoPi * double(L));
    WorkVec<double> weight(kPatterns, 0.0), sum(kPatterns, 0.0);
    for (std::size_t i = 0; i < slots.size(); ++i) {
        const Sum& slot = slots[i];
        if (slot.count == 0.0) continue;
        const double expected = slot.slipped / slot.count;
        const double angle = std::arg(slot.product);
        const double turns = std::nearbyint((expected - angle) / kTwoPi);
        weight[i % kPatterns] += slot.count;
        sum[i % kPatterns] += slot.count * (angle + kTwoPi * turns) * toHz;
    }
    return fitPatterns(weight, sum, coef);
}

// Each symbol's one-symbol frequency with its neighbours' shares taken out,
// in level units: its own level plus noise. Besides its own level times
// d_0, a symbol's frequency holds the parts d_j of its neighbours' levels
// that the pulse (and, below four samples per symbol, the interpolation)
// spreads into it; they are subtracted for the neighbours' levels given.
WorkVec<double> ownLevelValues(const WorkVec<double>& centre, const WorkVec<double>& coef,
                               const WorkVec<int>& level) {
    const std::size_t K = level.size();
    const double inverse = 1.0 / coef[3];
    WorkVec<double> v(K);
    for (std::size_t k = 0; k < K; ++k) v[k] = centre[k] - coef[0];
    // Each neighbour's share, where that neighbour exists.
    for (long j = -2; j <= 2; ++j) {
        if (j == 0) continue;
        const double d = coef[std::size_t(j + 3)];
        const std::size_t from = j < 0 ? std::size_t(-j) : 0;
        const std::size_t to = j > 0 ? (K > std::size_t(j) ? K - std::size_t(j) : 0) : K;
        for (std::size_t k = from; k < to; ++k) v[k] -= d * level[std::size_t(long(k) + j)];
    }
    for (double& x : v) x *= inverse;
    return v;
}

// Decisions with the neighbours' share taken out: with the model fitted,
// each symbol's value is formed from its neighbours' decisions of the
// previous round and sliced to the nearest level.
void cancelNeighbours(const WorkVec<double>& centre, const WorkVec<double>& coef, bool four,
                      WorkVec<int>& level) {
    if (!(std::fabs(coef[3]) > 0.0)) return;
    const WorkVec<double> v = ownLevelValues(centre, coef, level);
    const double top = four ? 3.0 : 1.0;
    for (std::size_t k = 0; k < level.size(); ++k) {
        const double odd = 2.0 * std::floor(0.5 * v[k]) + 1.0;  // the nearest odd level
        level[k] = static_cast<int>(std::max(-top, std::min(top, odd)));
    }
}

// Symbols whose decision the deviation may trust: the value of the symbol
// and of its two next neighbours (the ones its windows reach) lies within
// `margin` level units of its decided level. The window is symmetric about the level, so it keeps the
// noise's mean at zero, while a wrong decision (whose value lies about a
// whole unit from the level it was given) rarely passes it. A decision error
// would otherwise put an outer symbol's products into an inner pattern and
// the reverse, and pull the fitted deviation in.
WorkVec<char> trustedSymbols(const WorkVec<double>& centre, const WorkVec<double>& coef,
                             const WorkVec<int>& level, double margin) {
    const long K = static_cast<long>(level.size());
    WorkVec<char> near(level.size(), 0), trusted(level.size(), 0);
    if (!(std::fabs(coef[3]) > 0.0)) return trusted;
    const WorkVec<double> v = ownLevelValues(centre, coef, level);
    for (long k = 0; k < K; ++k)
        near[std::size_t(k)] = std::fabs(v[std::size_t(k)] - level[std::size_t(k)]) <= margin;
    for (long k = 1; k + 1 < K; ++k)
        trusted[std::size_t(k)] = near[std::size_t(k - 1)] && near[std::size_t(k)] && near[std::size_t(k + 1)];
    return trusted;
}

// The discriminator's phase with its clicks taken out. A click is a phase
// step that noise pushed across +-pi, so that it counts a turn less (or
// more) than the signal turned. Once the symbols are decided and the tones
// measured, each step's expected value is the tone of the symbol it lies in,
// and the step takes the turn nearest to it; the steps stay the measured
// ones otherwise. (Where the frequency changes between two samples the
// expectation is off by up to half the jump, far inside half a turn at four
// to eight samples per symbol.)
WorkVec<double> phaseWithoutClicks(const WorkVec<double>& phase, double fs, const WorkVec<double>& t,
                                   double T, const WorkVec<int>& level, double centre, double unit,
                                   std::size_t& clicks) {
    clicks = 0;
    const std::size_t n = phase.size();
    WorkVec<double> fixed(n, 0.0);
    constexpr double kTurnsPerRadian = 1.0 / kTwoPi;
    // The step from sample i-1 to i stands for the time i - 1/2: symbol k
    // holds the steps t_k - T/2 <= i - 1/2 < t_k + T/2.
    std::size_t i = 1;
    for (std::size_t k = 0; k <= t.size(); ++k) {
        // Steps before symbol k's (or after the last symbol) keep their turn.
        const double begin = k < t.size() ? std::ceil(t[k] - 0.5 * T + 0.5) : double(n);
        for (; i < n && double(i) < begin; ++i) fixed[i] = fixed[i - 1] + (phase[i] - phase[i - 1]);
        if (k == t.size()) break;
        const double expected = kTwoPi * (centre + unit * level[k]) / fs;
        const double end = std::ceil(t[k] + 0.5 * T + 0.5);
        for (; i < n && double(i) < end; ++i) {
            const double step = phase[i] - phase[i - 1];
            const double turns = std::nearbyint((expected - step) * kTurnsPerRadian);
            clicks += turns != 0.0;
            fixed[i] = fixed[i - 1] + step + kTwoPi * turns;
        }
    }
    return fixed;
}

// Non-coherent symbol decisions: the samples of one symbol period around
// each instant, t - T/2 <= n < t + T/2, are correlated with the tone of every
// level, exp(j 2 pi (fc + level unit) n / fs), and the strongest
// correlation decides (the best symbol-by-symbol receiver for tones of
// unknown phase).
WorkVec<int> correlatorLevels(const WorkVec<cd>& s, double fs,
                                  const WorkVec<double>& t, double T, double fc,
                                  double unit, bool four) {
    const WorkVec<int> levels = four ? WorkVec<int>{-3, -1, 1, 3} : WorkVec<int>{-1, 1};
    // Only the magnitude of a correlation counts, so each tone may start at
    // phase 0 in every window: one table per tone serves every symbol.
    const std::size_t width = static_cast<std::size_t>(std::ceil(T)) + 2;
    std::vector<WorkVec<cd>> tone(levels.size(), WorkVec<cd>(width));
    for (std::size_t l = 0; l < levels.size(); ++l)
        for (std::size_t i = 0; i < width; ++i)
            tone[l][i] = std::polar(1.0, -kTwoPi * std::fmod((fc + levels[l] * unit) / fs * double(i), 1.0));
    const long n = static_cast<long>(s.size());
    WorkVec<int> out(t.size(), levels.back());
    for (std::size_t k = 0; k < t.size(); ++k) {
        // Each sample stands for the interval n +- 1/2 and counts with the
        // share of it inside the symbol t +- T/2, so the window is one
        // symbol long whatever the instant's fraction.
        const double a = t[k] - 0.5 * T, b = t[k] + 0.5 * T;
        // (Instants lie inside the block, so truncation is the floor.)
        const long lo = std::max(0L, a + 0.5 >= 0.0 ? static_cast<long>(a + 0.5) : -1L);
        const long hi = std::min({n, static_cast<long>(b + 0.5) + 1, lo + long(width)});
        // The samples weighted by their shares, once for all the tones.
        double xr[64], xi[64];
        const long count = std::max(0L, std::min(hi - lo, 64L));
        for (long i = 0; i < count; ++i) {
            const double c = double(lo + i);
            const double upper = c + 0.5 < b ? c + 0.5 : b, lower = c - 0.5 > a ? c - 0.5 : a;
            const double share = upper > lower ? upper - lower : 0.0;
            xr[i] = share * s[std::size_t(lo + i)].real();
            xi[i] = share * s[std::size_t(lo + i)].imag();
        }
        double best = -1.0;
        for (std::size_t l = 0; l < levels.size(); ++l) {
            const cd* w = tone[l].data();
            double re = 0.0, im = 0.0;
            for (long i = 0; i < count; ++i) {  // the product written out
                re += xr[i] * w[i].real() - xi[i] * w[i].imag();
                im += xr[i] * w[i].imag() + xi[i] * w[i].real();
            }
            const cd acc(re, im);
            if (std::norm(acc) > best) {
                best = std::norm(acc);
                out[k] = levels[l];
            }
        }
    }
    return out;
}

// Tone of each level from the decided symbols: the lag-one product
// lag[n+1] = s[n+1] conj(s[n]) summed over the sample pairs inside the symbols of that
// level has the angle 2 pi f / fs, and summing before taking the angle keeps
// the noise from wrapping it. A weighted straight line through the tones
// gives the centre and the frequency step of one level unit.
bool measureTones(const WorkVec<cd>& lag, double fs, const WorkVec<double>& t, double T,
                  const WorkVec<int>& level, double& centre, double& unit) {
    const long n = static_cast<long>(lag.size());
    cd sum[7] = {};
    double pairs[7] = {};
    for (std::size_t k = 0; k < t.size(); ++k) {
        const long lo = std::max(0L, static_cast<long>(std::ceil(t[k] - 0.5 * T)));
        const long hi = std::min(n, static_cast<long>(std::ceil(t[k] + 0.5 * T)));
        const int slot = level[k] + 3;
        for (long i = lo; i + 1 < hi; ++i) {
            sum[slot] += lag[static_cast<std::size_t>(i + 1)];
            pairs[slot] += 1.0;
        }
    }
    double sw = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (int slot = 0; slot < 7; ++slot) {
        if (!(pairs[slot] > 0.0)) continue;
        const double w = pairs[slot], x = slot - 3, y = std::arg(sum[slot]) * fs / kTwoPi;
        sw += w;
        sx += w * x;
        sy += w * y;
        sxx += w * x * x;
        sxy += w * x * y;
    }
    const double d = sw * sxx - sx * sx;
    if (!(sw > 0.0) || !(d > 0.0)) return false;
    unit = (sw * sxy - sx * sy) / d;
    centre = (sy - unit * sx) / sw;
    return true;
}

}  // namespace

void measureFsk(MeasurementPipeline& p, VantrelMeasurement& m) {
    const double rawSps = p.fs / p.rb;
    // The band the signal occupies above the noise (where its smoothed
    // spectrum is at least the noise floor again), with a margin. Noise
    // beyond it only makes the discriminator click at low SNR; when the band
    // fits four samples per symbol with its aliases outside it, the block is
    // brought to four through a filter that ends there.
    const WorkVec<double> psd = bandSpectrum(p);
    // (Rounded up to 1/20 Rb, so that block after block reuses a few filter
    // designs.)
    const double edge =
        std::ceil(20.0 * (vantrel::meas::signal_band_edge(psd, p.fs, 2.0) / p.rb + 0.4)) / 20.0;
    const bool narrow = std::isfinite(edge) && edge <= 1.5;
    // Otherwise a capture below four samples per symbol is interpolated to
    // four, one above eight decimated to eight; the filter is flat to 0.4 of
    // the lower rate (FSK of any usable deviation lies inside) and stops
    // from 0.6. 50 dB of stopband is far below what a discriminator can
    // resolve, and shortens the filter by half against 90.
    const double sps = rawSps < kFskLowestSps || (narrow && rawSps > kFskLowestSps)
                           ? kFskLowestSps
                           : std::min(rawSps, kFskHighestSps);
    const bool interpolate = sps != rawSps;
    double band = 0.4 * std::min(rawSps, sps);
    if (narrow) band = std::min(band, edge);
    const double fs = sps * p.rb;
    const WorkVec<cd> x =
        interpolate ? vantrel::meas::convert_rate(
                          p.raw, rawSps / sps, *vantrel::meas::rate_filter(rawSps, sps, band, 50.0))
                    : WorkVec<cd>();
    const WorkVec<cd>& s = interpolate ? x : p.raw;
    const std::size_t n = s.size();
    // Unwrapped phase and instantaneous frequency (Hz), from the lag-one
    // products lag[i] = s[i] conj(s[i-1]) (kept for the tone measurement).
    WorkVec<double> phase(n, 0.0), freq(n, 0.0);
    WorkVec<cd> lag(n, cd(0, 0));
    for (std::size_t i = 1; i < n; ++i) {
        lag[i] = s[i] * std::conj(s[i - 1]);
        const double d = vantrel::meas::phase_angle(lag[i].imag(), lag[i].real());
        phase[i] = phase[i - 1] + d;
        freq[i] = d * fs / kTwoPi;
    }
    if (n > 1) freq[0] = freq[1];
    // One-symbol average of the frequency: free of interference between
    // symbols for rectangular frequency pulses, and its square carries the
    // symbol-rate line used for the clock.
    const WorkVec<double> h = vantrel::meas::receive_filter(FILTER_RECT, 0.0, sps);
    const WorkVec<double> gr = vantrel::meas::filter_centred(freq, h);
    double mean = 0.0;
    for (double v : gr) mean += v;
    mean /= double(n);
    WorkVec<double> v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = (gr[i] - mean) * (gr[i] - mean);
    p.clock = vantrel::meas::estimate_symbol_clock(v, sps);
    p.instants = instantsOf(p.clock, n, double(h.size() / 2) + 20.0 + 2.0 * sps);
    // gr[i] stands for the time i + lead: the phase difference of samples
    // i-1 and i is the frequency half a sample before i, and an even-length
    // one-symbol average is centred half a sample off its middle tap. The
    // clock found on gr is moved to the time the samples' phase keeps.
    double weight = 0.0, centroid = 0.0;
    for (std::size_t k = 0; k < h.size(); ++k) {
        weight += h[k];
        centroid += h[k] * double(k);
    }
    const double lead = centroid / weight - double(h.size() / 2) - 0.5;
    for (double& v : p.instants) v += lead;
    p.instantSps = sps;
    const WorkVec<double>& t = p.instants;
    if (t.size() < 64) return;
    const double T = p.clock.period;
    m.symbolRateErrorPpm = p.clock.rateErrorPpm;
    m.modulationRateHz = fs / T;
    if (p.clock.coherence > 0.8 && p.clock.lineRatio > 0.01) m.flags |= VANTREL_MEAS_TIMING_LOCKED;

    // Per-symbol phase advance in Hz and the symbol-centre frequency.
    const std::size_t K = t.size();
    WorkVec<double> adv(K), centre(K);
    for (std::size_t k = 0; k < K; ++k) {
        adv[k] = (linearAt(phase, t[k] + 0.5 * T) - linearAt(phase, t[k] - 0.5 * T)) * fs /
                 (kTwoPi * T);
        centre[k] = cubicAt(gr, t[k] - lead);
    }
    const bool four = p.order == 4;
    double fc = 0.0;
    for (double a : adv) fc += a;
    fc /= double(K);
    WorkVec<int> level(K, 0);
    WorkVec<double> coef;
    double residual = 0.0;
    for (int it = 0; it < 2; ++it) {
        // Decisions about the current carrier estimate; four levels are
        // spaced by the mean distance from the carrier, E|v| = 2.
        double meanAbs = 0.0;
        for (double c : centre) meanAbs += std::fabs(c - fc);
        meanAbs /= double(K);
        for (std::size_t k = 0; k < K; ++k) {
            const double d = centre[k] - fc;
            if (!four) {
                level[k] = d < 0 ? -1 : 1;
            } else {
                const double unit = meanAbs / 2.0;
                level[k] = d < -2 * unit ? -3 : d < 0 ? -1 : d < 2 * unit ? 1 : 3;
            }
        }
        if (!fitLevels(level, adv, coef, residual)) return;
        fc = coef[0];
    }
    // The discriminator's decisions gave the tones; the final decisions
    // correlate each symbol with them (the best symbol-by-symbol receiver
    // for tones of unknown phase), and the model is fitted once more.
    double levelOne = 0.0;
    for (std::size_t j = 1; j < coef.size(); ++j) levelOne += coef[j];
    // The discriminator's tones are pulled by its clicks at low SNR; tones
    // measured on the decided symbols are not. Correlation and tone
    // measurement then refine each other.
    // One symbol of two tones closer than about a symbol rate apart does not
    // hold enough cycles to tell them by correlation (they are far from
    // orthogonal); there the discriminator's decisions are kept, refined
    // with the neighbours' shares taken out.
    double toneCentre = fc, toneUnit = levelOne;
    measureTones(lag, fs, t, T, level, toneCentre, toneUnit);
    const bool separable = 2.0 * std::fabs(toneUnit) >= 0.75 * p.rb;
    for (int it = 0; it < (separable ? 0 : 2); ++it) {
        cancelNeighbours(centre, coef, four, level);
        if (!fitLevels(level, adv, coef, residual)) return;
        fc = coef[0];
    }
    WorkVec<int> heard;
    if (separable) {
        heard = correlatorLevels(s, fs, t, T, toneCentre, toneUnit, four);
        // Tones re-measured on the correlator's decisions, and the decisions
        // taken again; when the correlator agreed with every first decision
        // the tones would come out the same, and so would the decisions.
        if (heard != level && measureTones(lag, fs, t, T, heard, toneCentre, toneUnit))
            heard = correlatorLevels(s, fs, t, T, toneCentre, toneUnit, four);
    }
    WorkVec<double> heardCoef;
    double heardResidual = 0.0;
    if (separable && fitLevels(heard, adv, heardCoef, heardResidual)) {
        level.swap(heard);
        coef.swap(heardCoef);
        residual = heardResidual;
    }
    // Steady frequency of level 1 from the click-free fit (the frequency
    // pulse spreads one symbol's shift over its neighbours, but the shares
    // add up to the whole shift). Below four samples per symbol its products
    // are taken on the captured samples, since an interpolated block's phase
    // between them is the interpolator's guess. Only trusted symbols count,
    // while they are at least a tenth of the block. (The carrier stays
    // with the discriminator's fit: the lag fit put a Gaussian pulse's
    // carrier about 1e-4 Rb off.)
    const bool captured = rawSps < sps;
    std::size_t clicks = 0;
    const WorkVec<double> clickFree =
        phaseWithoutClicks(phase, fs, t, T, level, toneCentre, toneUnit, clicks);
    // Without a click, and with a phase the interpolation renders faithfully
    // (from three captured samples per symbol on: a clean capture's
    // deviation within 0.02 %, where two read 0.3 % low), the
    // discriminator's own fit is the same measurement.
    WorkVec<double> lagCoef;
    bool lagFit = false;
    if (clicks > 0 || rawSps < 3.0) {
        // The advances again, on the phase without clicks, for the trust and
        // for the turns of the lag products' angles.
        WorkVec<double> steadyAdv(K);
        for (std::size_t k = 0; k < K; ++k)
            steadyAdv[k] = (linearAt(clickFree, t[k] + 0.5 * T) - linearAt(clickFree, t[k] - 0.5 * T)) *
                           fs / (kTwoPi * T);
        WorkVec<double> steadyCoef;
        double steadyResidual = 0.0;
        if (!fitLevels(level, steadyAdv, steadyCoef, steadyResidual)) steadyCoef = coef;
        WorkVec<char> trusted = trustedSymbols(steadyAdv, steadyCoef, level, 0.5);
        if (std::count(trusted.begin(), trusted.end(), char(1)) < std::max(256L, long(K) / 10))
            trusted.assign(K, 1);
        lagFit = captured ? fitLagProducts(p.raw, rawSps / sps, p.fs, clickFree, t, T, level, trusted, lagCoef)
                          : fitLagProducts(s, 1.0, fs, clickFree, t, T, level, trusted, lagCoef);
    }
    const WorkVec<double>& model = lagFit ? lagCoef : coef;
    fc = coef[0];
    p.carrierHz = fc;
    p.fskFrequency.assign(K, 0.0);
    for (std::size_t k = 0; k < K; ++k) p.fskFrequency[k] = centre[k] - fc;
    p.fskLevel = level;
    m.carrierOffsetHz = fc;
    m.symbolCount = static_cast<uint32_t>(K);
    const double step = std::fabs(coef[3]);
    if (step > 0.0 && residual < 0.2 * step) m.flags |= VANTREL_MEAS_CARRIER_LOCKED;
    levelOne = 0.0;
    for (std::size_t j = 1; j < model.size(); ++j) levelOne += model[j];
    const double outer = std::fabs(levelOne) * (four ? 3.0 : 1.0);
    if (outer > 0.0) {
        m.fskDeviationHz = outer;
        m.fskErrorPercent = 100.0 * residual / outer;
    }
    measureBand(p, psd, std::max(outer, step * (four ? 3.0 : 1.0)) + 1.5 * m.modulationRateHz, m);
    // The I/Q figures of a constant-envelope FSK signal are not estimated in
    // this release.
    m.iqOffsetDb = std::numeric_limits<double>::quiet_NaN();
}

