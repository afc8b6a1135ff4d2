// Rational resampler: fraction search, output count, amplitude and delay,
// and the on-the-fly evaluation of very long filters.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <tuple>
#include <vector>

#include "CommonFun.h"
#include "resampler.h"

namespace {

constexpr long double kPiL = 3.141592653589793238462643383279502884L;
constexpr double kTwoPi = 6.283185307179586;

std::vector<Complex> random_block(int n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<Complex> x(n);
    for (Complex& v : x) v = Complex{u(rng), u(rng)};
    return x;
}

// Only r = 1 is found by the continued fraction; everything else takes the
// 1e-9 decimal fallback, whose 64-bit numerators must survive reduction.
TEST(Resampler, FractionsAndOutputCount) {
    const std::tuple<double, std::int64_t, std::int64_t> cases[] = {
        {1.0, 1, 1}, {1.5, 3, 2}, {4.0 / 3.0, 1333333333, 1000000000}};
    for (const auto& [x, wantNum, wantDen] : cases) {
        std::int64_t num = -1, den = -1;
        ASSERT_EQ(ratio_to_fraction(x, num, den, 1e-9), 1) << x;
        EXPECT_EQ(num, wantNum) << x;
        EXPECT_EQ(den, wantDen) << x;
    }
    // 4/3.5 rounds to 1142857143/1e9, slightly above 8/7: ceil gives 18729,
    // one more than the exact ratio would.
    EXPECT_EQ(resample_output_count(16387, 4.0, 3.5), 18729);
}

// r = 1 and 2 (M = 1): the output has n * L samples, a constant comes out at
// about 1/L (the L polyphase branches share the unit DC gain, so each group
// of L outputs sums to the input), and an impulse peaks at the filter's delay
// of (taps - 1) / 2 upsampled samples, symmetric about it.
TEST(Resampler, SmallRatiosLengthAmplitudeAndDelay) {
    for (int L : {1, 2}) {
        const int n = 200, taps = 20 * L + 1, delay = (taps - 1) / 2;
        std::vector<Complex> in(n, Complex{3.0, 0.0}), out(n * L);
        int len = 0;
        CommonFun cf;
        cf.resample(in.data(), n, L, 1.0, out.data(), &len);
        ASSERT_EQ(len, n * L);
        for (int m = 40 * L; m < 150 * L; m += L) {
            double group = 0;
            for (int q = 0; q < L; ++q) group += out[m + q].re;
            ASSERT_NEAR(group, 3.0, 1e-12) << "L " << L << " m " << m;
            // Each branch alone is only roughly 1/L (passband ripple).
            for (int q = 0; q < L; ++q) ASSERT_NEAR(out[m + q].re, 3.0 / L, 0.6 / L);
        }
        std::fill(in.begin(), in.end(), Complex{0.0, 0.0});
        in[0] = Complex{1.0, 0.0};
        cf.resample(in.data(), n, L, 1.0, out.data(), &len);
        for (int m = 0; m < len; ++m) {
            ASSERT_TRUE(m == delay || std::fabs(out[m].re) < out[delay].re) << L << " " << m;
            ASSERT_NEAR(out[m].re, m <= 2 * delay ? out[2 * delay - m].re : 0.0, 1e-15) << L;
        }
    }
}

// r = 2.001 -> 2001/1000: a 40021-tap filter short enough for a table, so the
// on-the-fly path (coefficients computed per output, closed-form normaliser)
// can be held against it.
TEST(Resampler, OnTheFlyAgreesWithTheMaterialisedFilter) {
    const int n = 3000;
    const std::vector<Complex> in = random_block(n, 7);
    const int count = static_cast<int>(resample_output_count(n, 2.001, 1.0));
    ASSERT_EQ(count, 6003);
    std::vector<Complex> table(count), lazy(count);
    ASSERT_TRUE(resampler_detail::polyphase_materialised(in.data(), n, 2001, 1000,
                                                         table.data(), count));
    ASSERT_TRUE(resampler_detail::polyphase_on_the_fly(in.data(), n, 2001, 1000, lazy.data(),
                                                       count));
    double scale = 0, diff = 0;
    for (int m = 0; m < count; ++m) {
        scale = std::max(scale, std::fabs(table[m].re));
        diff = std::max({diff, std::fabs(table[m].re - lazy[m].re),
                         std::fabs(table[m].im - lazy[m].im)});
    }
    // The two normalisers agree to a few 1e-15; the tap arithmetic is shared.
    EXPECT_LT(diff, 1e-12 * scale);
}

// Independent normaliser for the 4/3 filter (2.7e10 taps, never summed):
// Euler-Maclaurin on F(t) = sum_{m=-c..c} sin(t m)/(pi m),
//   sum_{m=1..c} sin(t m)/m = Si(c t) - t/2 + sin(c t)/(2c) + f'(c)/12 + ...
// with f(x) = sin(t x)/x, and Si from its asymptotic series (c t ~ 60).
long double sine_integral(long double x) {
    long double f = 0, g = 0, term = 1 / x, termG = 1 / (x * x);
    for (int k = 0; k < 40 && std::fabs(term) >= 1e-22L; ++k) {
        f += term;
        g += termG;
        term *= -(2.0L * k + 1) * (2.0L * k + 2) / (x * x);
        termG *= -(2.0L * k + 2) * (2.0L * k + 3) / (x * x);
    }
    return kPiL / 2 - f * std::cos(x) - g * std::sin(x);
}

long double sinc_sum_em(long double t, std::int64_t c) {
    const long double ct = t * c, cl = c;
    const long double fPrime = t * std::cos(ct) / cl - std::sin(ct) / (cl * cl);
    return (t + 2 * (sine_integral(ct) - t / 2 + std::sin(ct) / (2 * cl) + fPrime / 12)) / kPiL;
}

// The 64-bit on-the-fly path for 4/3 against a direct extended-precision
// evaluation of y[m] = sum_k in[k] h[M m - L k] at a few outputs.
TEST(Resampler, FourThirdsMatchesDirectEvaluation) {
    const std::int64_t L = 1333333333, M = 1000000000;
    const std::int64_t taps = 20 * L + 1, c = (taps - 1) / 2;
    const double fc = 0.95 / static_cast<double>(L);
    const long double a = kTwoPi * fc, b = kPiL / c;
    const long double S =
        0.54L * sinc_sum_em(a, c) + 0.23L * (sinc_sum_em(a + b, c) + sinc_sum_em(a - b, c));

    const int n = 400;
    const std::vector<Complex> in = random_block(n, 3);
    ASSERT_EQ(resample_output_count(n, 4.0, 3.0), 534);
    std::vector<Complex> out(534);
    int len = 0;
    CommonFun cf;
    cf.resample(in.data(), n, 4.0, 3.0, out.data(), &len);
    ASSERT_EQ(len, 534);
    for (int m : {0, 17, 277, 533}) {
        long double re = 0, im = 0, tol = 0;
        for (int k = 0; k < n; ++k) {
            const std::int64_t j = M * m - L * k, mm = j - c;
            if (j < 0 || j >= taps) continue;
            const long double s = mm == 0 ? 2.0L * fc : std::sin(a * mm) / (kPiL * mm);
            const long double h = s * (0.54L - 0.46L * std::cos(2 * kPiL * j / (taps - 1))) / S;
            re += in[k].re * h;
            im += in[k].im * h;
            // Relative accuracy of a tap, plus the absolute error of a sine
            // whose double argument a*m (up to ~60) is rounded to 2^-52
            // relative: it dominates near the zero crossings at the ends.
            tol += std::fabs(h) * 1e-12L + 1.5e-14L / (kPiL * (std::llabs(mm) + 1)) / S;
        }
        EXPECT_NEAR(out[m].re, static_cast<double>(re), static_cast<double>(tol)) << m;
        EXPECT_NEAR(out[m].im, static_cast<double>(im), static_cast<double>(tol)) << m;
    }
}

}  // namespace
