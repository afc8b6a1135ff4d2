// Rational resampler: fraction search, windowed-sinc low-pass design and the
// polyphase upsample-filter-downsample chain.
//
// The chain for a rate ratio r = fs_out / fs_in ~ L / M is
//   y[m] = sum_k in[k] * h[M*m - L*k],   0 <= M*m - L*k < taps,
// i.e. upsampling by L (zero stuffing, never formed), a unit-sum low-pass h of
// taps = 20 * max(L, M) + 1 coefficients with cutoff fc = 0.95 / max(L, M)
// cycles per upsampled sample, and keeping every M-th sample. No gain L is
// applied, so the output amplitude is about 1/L of the input's, and the
// filter's delay of (taps - 1) / 2 upsampled samples stays in the output.
//
// Large fractions. The fraction search only accepts r = 1 at once; every other
// ratio goes through the 1e-9 decimal fallback, so a ratio such as 4/3 becomes
// L = 1333333333, M = 1000000000 and the filter would have 2.7e10 taps. The
// tap count and every index are therefore 64-bit, and two evaluations of the
// same filter exist:
//  - materialised (taps <= resampler_detail::kMaterialisedTapLimit): the
//    coefficient table is designed once and the loop reads it;
//  - on the fly (longer filters): for each output only the ~taps/L
//    coefficients that meet an input sample are computed, with exactly the
//    arithmetic of the table design,
//        g[j] = sin(2 pi fc m) / (m pi) * (0.54 - 0.46 cos(2 pi j / (taps - 1))),
//    m = j - c, c = (taps - 1) / 2, and divided by the unit-sum normaliser S.
//    Memory is O(1) beyond the output, cost about 20 * (sin + cos) per output
//    for r > 1.
//  The normaliser S = sum_j g[j] is obtained without visiting the taps.
//  With a = 2 pi fc and b = pi / c the window is 0.54 + 0.46 cos(b m), and
//  sin(a m) cos(b m) = (sin((a+b) m) + sin((a-b) m)) / 2, so
//        S = 0.54 F(a) + 0.23 (F(a+b) + F(a-b)),
//        F(t) = sum_{m=-c..c} sin(t m) / (pi m)   (t / pi at m = 0).
//  Since dF/dt = (1/pi) sum_{m=-c..c} cos(t m) = D(t) / pi with the Dirichlet
//  kernel D(t) = sin((c + 1/2) t) / sin(t / 2), F is the exact integral
//        F(t) = (1/pi) * integral_0^t D(u) du,
//  a smooth integrand with about (c + 1/2) t / (2 pi) ~ 10 periods over the
//  range. Composite 16-point Gauss-Legendre quadrature with one panel per half
//  period integrates it to rounding level (the per-panel error of a degree-31
//  rule on an entire function of this bandwidth is far below 1e-16), so S is
//  within a few 1e-15 relative of the exact sum, for about 1000 sine
//  evaluations whatever the tap count. The literal double-precision sum of
//  the table carries rounding of the same order (or worse for long tables);
//  tests compare the two for filters where both are feasible.
#include "resampler.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <new>
#include <vector>

#include "CommonFun.h"
#include "safe_convert.h"

namespace {

constexpr double kTwoPi = 6.283185307179586;
constexpr double kPi = 3.141592653589793;

std::int64_t floor_to_int64(double x) { return saturate_cast<std::int64_t>(std::floor(x)); }

// out = p2 + a * p1, false when it does not fit in 64 bits.
bool convergent_term(std::int64_t p2, std::int64_t a, std::int64_t p1, std::int64_t* out) {
    std::int64_t prod = 0;
    if (__builtin_mul_overflow(a, p1, &prod)) return false;
    return !__builtin_add_overflow(p2, prod, out);
}

// ceil(a / d) for d > 0 (C++ division truncates toward zero, which is the
// ceiling for a negative quotient).
std::int64_t ceil_div(std::int64_t a, std::int64_t d) { return a >= 0 ? (a + d - 1) / d : a / d; }

// The fraction L/M, filter length and output count of one resampling request.
struct RatePlan {
    std::int64_t L = 0;
    std::int64_t M = 0;
    std::int64_t count = 0;
};

bool plan_rate(int n, double fs_out, double fs_in, RatePlan* plan) {
    if (n < 1 || fs_in <= 0 || fs_out <= 0) return false;
    const double r = fs_out / fs_in;
    std::int64_t L = 0;
    std::int64_t M = 0;
    if (!ratio_to_fraction(r, L, M, 1e-9)) {
        L = round_to_int64(r);
        M = 1;
        if (L == 0) return false;
    }
    if (L < 1 || M < 1) return false;
    // The filter length 20 * max(L, M) + 1 and every index built from it must
    // stay inside 64 bits; a fraction beyond that is refused.
    if (std::max(L, M) > (INT64_MAX - 1) / 20) return false;
    const double count = std::ceil(static_cast<double>(n) * static_cast<double>(L) /
                                   static_cast<double>(M));
    // The count is returned through an int; anything larger is refused.
    if (!(count <= static_cast<double>(INT_MAX))) return false;
    plan->L = L;
    plan->M = M;
    plan->count = static_cast<std::int64_t>(count);
    return true;
}

std::int64_t filter_taps(std::int64_t L, std::int64_t M) {
    const std::int64_t taps = 20 * std::max(L, M) + 1;
    return taps < 3 ? 3 : taps;
}

double filter_cutoff(std::int64_t L, std::int64_t M) {
    return 0.95 * std::min(1.0 / static_cast<double>(L), 1.0 / static_cast<double>(M));
}

// Input range [k_lo, k_hi] whose upsampled position meets the filter for the
// output at upsampled time t: t - L*k in [0, taps).
void contributing_inputs(std::int64_t t, std::int64_t L, std::int64_t taps, int n,
                         std::int64_t* kLo, std::int64_t* kHi) {
    *kLo = std::max<std::int64_t>(ceil_div(t + 1 - taps, L), 0);
    *kHi = std::min<std::int64_t>(t / L, static_cast<std::int64_t>(n) - 1);
}

// ---- Gauss-Legendre rule for the normaliser ----

constexpr int kGaussPoints = 16;

struct GaussRule {
    double node[kGaussPoints];
    double weight[kGaussPoints];
};

// Nodes and weights on [-1, 1] by Newton iteration on the Legendre
// polynomial P_16, started from the usual cosine estimates.
GaussRule make_gauss_rule() {
    GaussRule rule{};
    const int n = kGaussPoints;
    for (int i = 0; i < (n + 1) / 2; ++i) {
        double z = std::cos(kPi * (i + 0.75) / (n + 0.5));
        double dp = 1.0;
        for (int iter = 0; iter < 100; ++iter) {
            double p0 = 1.0;
            double p1 = z;
            for (int j = 2; j <= n; ++j) {
                const double p2 = ((2.0 * j - 1.0) * z * p1 - (j - 1.0) * p0) / j;
                p0 = p1;
                p1 = p2;
            }
            dp = n * (z * p1 - p0) / (z * z - 1.0);
            const double dz = p1 / dp;
            z -= dz;
            if (std::fabs(dz) < 1e-16) break;
        }
        const double w = 2.0 / ((1.0 - z * z) * dp * dp);
        rule.node[i] = -z;
        rule.node[n - 1 - i] = z;
        rule.weight[i] = w;
        rule.weight[n - 1 - i] = w;
    }
    return rule;
}

const GaussRule& gauss_rule() {
    static const GaussRule rule = make_gauss_rule();
    return rule;
}

// Dirichlet kernel sum_{m=-c..c} cos(u m) = sin((c + 1/2) u) / sin(u / 2).
double dirichlet(double u, double halfOrder) {
    const double s = std::sin(0.5 * u);
    if (s == 0.0) return 2.0 * halfOrder;
    return std::sin(halfOrder * u) / s;
}

// F(t) = sum_{m=-c..c} sin(t m) / (pi m) = (1/pi) integral_0^t D(u) du.
double sinc_partial_sum(double t, std::int64_t c) {
    if (t == 0.0) return 0.0;
    const double halfOrder = static_cast<double>(c) + 0.5;
    // One panel per half period of the kernel's numerator, at least one.
    const double periods = std::ceil(halfOrder * std::fabs(t) / kPi);
    const int panels = static_cast<int>(std::min(std::max(periods, 1.0), 1.0e6));
    const GaussRule& rule = gauss_rule();
    const double width = t / panels;
    double total = 0.0;
    for (int p = 0; p < panels; ++p) {
        const double mid = (p + 0.5) * width;
        double panel = 0.0;
        for (int i = 0; i < kGaussPoints; ++i) {
            panel += rule.weight[i] * dirichlet(mid + 0.5 * width * rule.node[i], halfOrder);
        }
        total += 0.5 * width * panel;
    }
    return total / kPi;
}

// Unnormalised coefficient j of the windowed sinc, with the arithmetic of
// design_lowpass_fir (so that both evaluations agree to the last bit before
// normalisation), in three parts: the sine and the cosine it takes from libm
// (the sine only off the centre, m != 0), and their combination.
double tap_sine(std::int64_t j, std::int64_t c, double fc) {
    const double md = static_cast<double>(j - c);
    return std::sin(kTwoPi * fc * md);
}

double tap_cosine(std::int64_t j, std::int64_t taps) {
    return std::cos(kTwoPi * static_cast<double>(j) / static_cast<double>(taps - 1));
}

double tap_value(std::int64_t j, std::int64_t c, double fc, double sine, double cosine) {
    const std::int64_t m = j - c;
    double h = 2 * fc;
    if (m != 0) {
        const double md = static_cast<double>(m);
        h = sine / (md * kPi);
    }
    return h * (0.54 - 0.46 * cosine);
}

}  // namespace

// Reduced fraction num/den close to x.
//
// A continued-fraction search runs first, seeded so that it produces the
// convergents of 1/x while comparing them with x: it therefore accepts only
// ratios within tol of 1 (as 1/1), and every other ratio is decided by the
// decimal fallback round(x * 1e9) / 1e9, reduced by the common divisor (4/3
// gives 1333333333/1000000000, 2 gives 2/1, 1.6 gives 8/5). The recurrence is
// 64-bit; a term that would overflow ends the search (it could not have been
// accepted). Returns 1 on success, 0 for x <= 0, NaN, or a fallback that
// rounds to zero.
int ratio_to_fraction(double x, std::int64_t& num, std::int64_t& den, double tol) {
    if (x <= 0) return 0;
    std::int64_t h2 = 1, h1 = 0, k2 = 0, k1 = 1;
    double xCur = x;
    std::int64_t a = floor_to_int64(x);
    for (int round = 0; round < 100; ++round) {
        std::int64_t h = 0;
        std::int64_t k = 0;
        if (!convergent_term(h2, a, h1, &h) || !convergent_term(k2, a, k1, &k)) break;
        if (k != 0 &&
            std::fabs(static_cast<double>(h) / static_cast<double>(k) - x) < tol) {
            const std::int64_t g = gcd_int64(h, k);
            num = h / g;
            den = k / g;
            return 1;
        }
        h2 = h1;
        h1 = h;
        k2 = k1;
        k1 = k;
        const double f = xCur - static_cast<double>(a);
        if (f < 1e-12) break;
        xCur = 1.0 / f;
        a = floor_to_int64(1.0 / f + 1e-12);
        if (a == 0) break;
    }
    const std::int64_t N = round_to_int64(x * 1e9);
    const std::int64_t D = 1000000000;
    const std::int64_t g = gcd_int64(N, D);
    if (g == 0 || N / g < 1 || D / g < 1) return 0;
    num = N / g;
    den = D / g;
    return 1;
}

// Hamming-windowed sinc low-pass with unit DC gain:
//   h[i] = sin(2 pi fc m) / (m pi) * (0.54 - 0.46 cos(2 pi i / (taps - 1))),
//   m = i - (taps - 1)/2, h at m = 0 is 2 fc, then h /= sum(h) when the sum
//   is not zero.
// fc is in cycles per sample of the filter's own rate; an even taps is raised
// by one so that the filter has a centre tap (delay (taps - 1)/2 samples).
// `extra` is accepted and unused. An empty sequence is returned for taps < 1
// or when the table cannot be allocated (no exception leaves the routine).
std::vector<double> design_lowpass_fir(double fc, int taps, double extra) {
    (void)extra;
    if (taps < 1) return std::vector<double>();
    if (taps % 2 == 0) taps += 1;
    std::vector<double> h;
    try {
        h.resize(static_cast<size_t>(taps));
    } catch (const std::bad_alloc&) {
        return std::vector<double>();
    }
    const int c = (taps - 1) / 2;
    for (int i = 0; i < taps; ++i) {
        const int m = i - c;
        if (m == 0) {
            h[i] = 2 * fc;
        } else {
            h[i] = std::sin(kTwoPi * fc * m) / (m * kPi);
        }
        h[i] = h[i] * (0.54 - 0.46 * std::cos(kTwoPi * i / (taps - 1)));
    }
    double sum = 0.0;
    for (int i = 0; i < taps; ++i) sum += h[i];
    if (sum != 0.0) {
        for (int i = 0; i < taps; ++i) h[i] = h[i] / sum;
    }
    return h;
}

std::int64_t resample_output_count(int n, double fs_out, double fs_in) {
    RatePlan plan;
    return plan_rate(n, fs_out, fs_in, &plan) ? plan.count : 0;
}

namespace resampler_detail {

double windowed_sinc_sum(double fc, std::int64_t taps) {
    const std::int64_t c = (taps - 1) / 2;
    if (c < 1) return 2 * fc;
    const double a = kTwoPi * fc;
    const double b = kPi / static_cast<double>(c);
    return 0.54 * sinc_partial_sum(a, c) +
           0.23 * (sinc_partial_sum(a + b, c) + sinc_partial_sum(a - b, c));
}

// The L/M chain evaluated at the output instants: out[m] = sum over the input
// samples k that meet the filter of in[k] * h(M m - L k). `tapAt(j)` supplies
// coefficient j, from a table or computed on the spot; the accumulation order
// is the same either way.
template <class TapAt>
static void polyphase_sum(const Complex* in, int n, std::int64_t L, std::int64_t M,
                          std::int64_t taps, Complex* out, int count, TapAt tapAt) {
    for (int m = 0; m < count; ++m) {
        const std::int64_t t = M * m;
        std::int64_t kLo = 0;
        std::int64_t kHi = 0;
        contributing_inputs(t, L, taps, n, &kLo, &kHi);
        Complex sum{0.0, 0.0};
        for (std::int64_t k = kLo; k <= kHi; ++k) {
            const std::int64_t j = t - L * k;
            if (j >= 0 && j < taps) {
                const double hj = tapAt(j);
                sum.re += in[k].re * hj;
                sum.im += in[k].im * hj;
            }
        }
        out[m] = sum;
    }
}

bool polyphase_materialised(const Complex* in, int n, std::int64_t L, std::int64_t M,
                            Complex* out, int count) {
    if (L < 1 || M < 1) return false;
    const std::int64_t taps = filter_taps(L, M);
    if (taps > INT_MAX) return false;
    const std::vector<double> h = design_lowpass_fir(filter_cutoff(L, M), static_cast<int>(taps),
                                                     5.0);
    if (static_cast<std::int64_t>(h.size()) != taps) return false;
    polyphase_sum(in, n, L, M, taps, out, count,
                  [&h](std::int64_t j) { return h[static_cast<size_t>(j)]; });
    return true;
}

bool polyphase_on_the_fly(const Complex* in, int n, std::int64_t L, std::int64_t M,
                          Complex* out, int count) {
    if (L < 1 || M < 1) return false;
    const std::int64_t taps = filter_taps(L, M);
    const std::int64_t c = (taps - 1) / 2;
    const double fc = filter_cutoff(L, M);
    const double S = windowed_sinc_sum(fc, taps);
    // The same sum as polyphase_sum with each coefficient computed on the
    // spot. The libm values of a run of coefficients are taken first and the
    // coefficients then formed and accumulated in order, so that the
    // divisions and products of one coefficient do not wait between calls.
    constexpr std::int64_t kRun = 32;
    double sine[kRun];
    double cosine[kRun];
    for (int m = 0; m < count; ++m) {
        const std::int64_t t = M * m;
        std::int64_t kLo = 0;
        std::int64_t kHi = 0;
        contributing_inputs(t, L, taps, n, &kLo, &kHi);
        Complex sum{0.0, 0.0};
        for (std::int64_t k0 = kLo; k0 <= kHi; k0 += kRun) {
            const std::int64_t k1 = std::min(kHi, k0 + kRun - 1);
            for (std::int64_t k = k0; k <= k1; ++k) {
                const std::int64_t j = t - L * k;
                if (j >= 0 && j < taps) {
                    sine[k - k0] = j != c ? tap_sine(j, c, fc) : 0.0;
                    cosine[k - k0] = tap_cosine(j, taps);
                }
            }
            for (std::int64_t k = k0; k <= k1; ++k) {
                const std::int64_t j = t - L * k;
                if (j >= 0 && j < taps) {
                    const double h = tap_value(j, c, fc, sine[k - k0], cosine[k - k0]);
                    const double hj = S != 0.0 ? h / S : h;
                    sum.re += in[k].re * hj;
                    sum.im += in[k].im * hj;
                }
            }
        }
        out[m] = sum;
    }
    return true;
}

}  // namespace resampler_detail

// Converts n samples from fs_in to fs_out by the fraction L/M (see the top of
// this file). Writes ceil(n * L / M) samples to `out` (caller-owned, sized
// with resample_output_count) and that count to *out_len; the output is
// delayed by (taps - 1) / 2 upsampled samples and scaled by about 1/L.
// *out_len is 0 (nothing written) for n < 1, a non-positive rate, a fraction
// beyond the index types or a filter table that cannot be allocated.
void CommonFun::resample(const Complex* in, int n, double fs_out, double fs_in, Complex* out,
                         int* out_len) {
    RatePlan plan;
    if (!plan_rate(n, fs_out, fs_in, &plan)) {
        *out_len = 0;
        return;
    }
    const int count = static_cast<int>(plan.count);
    const bool done =
        filter_taps(plan.L, plan.M) <= resampler_detail::kMaterialisedTapLimit
            ? resampler_detail::polyphase_materialised(in, n, plan.L, plan.M, out, count)
            : resampler_detail::polyphase_on_the_fly(in, n, plan.L, plan.M, out, count);
    *out_len = done ? count : 0;
}
