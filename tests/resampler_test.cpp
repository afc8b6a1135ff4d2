// Rational resampler: fraction search, output count, amplitude and delay,
// and the on-the-fly evaluation of very long filters.
#include <gtest/gtest.h>

#include <cmath>
#include <ostream>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "CommonFun.h"
#include "resampler.h"

namespace {

constexpr long double kPiL = 3.141592653589793238462643383279502884L;
constexpr double kTwoPi = 6.283185307179586;

struct FractionCase {
    double x;
    int ok;
    std::int64_t num;
    std::int64_t den;
};

std::ostream& operator<<(std::ostream& os, const FractionCase& c) { return os << "x=" << c.x; }

class RatioToFraction : public ::testing::TestWithParam<FractionCase> {};

TEST_P(RatioToFraction, GivesTheExpectedReducedFraction) {
    const FractionCase& c = GetParam();
    std::int64_t num = -1, den = -1;
    ASSERT_EQ(ratio_to_fraction(c.x, num, den, 1e-9), c.ok) << c.x;
    if (c.ok) {
        EXPECT_EQ(num, c.num) << c.x;
        EXPECT_EQ(den, c.den) << c.x;
    } else {
        EXPECT_EQ(num, -1);
        EXPECT_EQ(den, -1);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Ratios, RatioToFraction,
    ::testing::Values(FractionCase{1.0, 1, 1, 1},
                      // Within the tolerance of 1 the first convergent wins.
                      FractionCase{1.0 + 5e-10, 1, 1, 1},
                      // Everything else is decided by the decimal fallback.
                      FractionCase{2.0, 1, 2, 1}, FractionCase{1.2, 1, 6, 5},
                      FractionCase{4.0 / 3.0, 1, 1333333333, 1000000000},
                      FractionCase{8.0 / 3.0, 1, 2666666667, 1000000000},
                      FractionCase{0.75, 1, 3, 4}, FractionCase{2.001, 1, 2001, 1000},
                      FractionCase{0.0, 0, 0, 0}, FractionCase{-2.0, 0, 0, 0},
                      FractionCase{1e-10, 0, 0, 0},
                      FractionCase{std::numeric_limits<double>::quiet_NaN(), 0, 0, 0}));

TEST(ResampleCount, MatchesTheFractionAndRefusesBadRequests) {
    // 4*Rb/fs with fs/Rb = 3.5 rounds to 1142857143/1e9, slightly above 8/7.
    EXPECT_EQ(resample_output_count(16387, 4.0, 3.5), 18729);
    EXPECT_EQ(resample_output_count(320000, 4.0, 3.0), 426667);
    EXPECT_EQ(resample_output_count(1000, 2.0, 1.0), 2000);
    EXPECT_EQ(resample_output_count(1000, 1.0, 1.0), 1000);
    EXPECT_EQ(resample_output_count(0, 4.0, 3.0), 0);
    EXPECT_EQ(resample_output_count(100, 0.0, 3.0), 0);
    EXPECT_EQ(resample_output_count(100, 4.0, -3.0), 0);
    EXPECT_EQ(resample_output_count(100, std::nan(""), 3.0), 0);
    EXPECT_EQ(resample_output_count(100, std::numeric_limits<double>::infinity(), 3.0), 0);
    EXPECT_EQ(resample_output_count(1000000, 1e6, 1.0), 0);  // beyond the int count
}

TEST(Resample, RefusalWritesNothing) {
    CommonFun cf;
    std::vector<Complex> in(10, Complex{1.0, 1.0});
    std::vector<Complex> out(40, Complex{-7.0, -7.0});
    const double bad[][2] = {{4.0, 0.0}, {0.0, 4.0}, {-1.0, 2.0}, {std::nan(""), 1.0}};
    for (const auto& r : bad) {
        int len = 99;
        cf.resample(in.data(), 10, r[0], r[1], out.data(), &len);
        EXPECT_EQ(len, 0);
    }
    int len = 99;
    cf.resample(in.data(), 0, 2.0, 1.0, out.data(), &len);
    EXPECT_EQ(len, 0);
    for (const Complex& v : out) ASSERT_EQ(v.re, -7.0);
}

// Unit-sum Hamming-windowed sinc of `taps` coefficients and cutoff fc,
// evaluated in extended precision.
std::vector<long double> reference_filter(double fc, int taps) {
    const int c = (taps - 1) / 2;
    std::vector<long double> h(taps);
    long double sum = 0;
    for (int i = 0; i < taps; ++i) {
        const int m = i - c;
        const long double s =
            m == 0 ? 2.0L * fc : std::sin(2 * kPiL * fc * m) / (kPiL * m);
        h[i] = s * (0.54L - 0.46L * std::cos(2 * kPiL * i / (taps - 1)));
        sum += h[i];
    }
    for (long double& v : h) v /= sum;
    return h;
}

struct SmallRatio {
    double fsOut;
    double fsIn;
    int L;  // expected interpolation factor (M = 1 here)
};

std::ostream& operator<<(std::ostream& os, const SmallRatio& r) {
    return os << r.fsOut << "/" << r.fsIn;
}

class SmallRatioResample : public ::testing::TestWithParam<SmallRatio> {};

// With M = 1 the response to a unit impulse at input 0 is the filter itself:
// y[m] = h[m] for m < taps, which fixes length, delay and amplitude at once.
TEST_P(SmallRatioResample, ImpulseResponseIsTheUnitSumFilter) {
    const SmallRatio p = GetParam();
    const int n = 64;
    const int taps = 20 * p.L + 1;
    std::vector<Complex> in(n, Complex{0.0, 0.0});
    in[0] = Complex{1.0, -2.0};
    std::vector<Complex> out(n * p.L);
    int len = 0;
    CommonFun cf;
    cf.resample(in.data(), n, p.fsOut, p.fsIn, out.data(), &len);
    ASSERT_EQ(len, n * p.L);

    const std::vector<long double> h = reference_filter(0.95 / p.L, taps);
    int peak = 0;
    for (int m = 0; m < len; ++m) {
        const double expected = m < taps ? static_cast<double>(h[m]) : 0.0;
        ASSERT_NEAR(out[m].re, expected, 1e-14) << m;
        ASSERT_NEAR(out[m].im, -2.0 * expected, 2e-14) << m;
        if (std::fabs(out[m].re) > std::fabs(out[peak].re)) peak = m;
    }
    EXPECT_EQ(peak, (taps - 1) / 2);  // delay of (taps - 1)/2 upsampled samples
}

// A constant input comes out at about 1/L: the L polyphase branches share the
// unit DC gain, so each group of L consecutive outputs sums to the input.
TEST_P(SmallRatioResample, ConstantInputComesOutAtOneOverL) {
    const SmallRatio p = GetParam();
    const int n = 200;
    std::vector<Complex> in(n, Complex{3.0, 0.0});
    std::vector<Complex> out(n * p.L);
    int len = 0;
    CommonFun cf;
    cf.resample(in.data(), n, p.fsOut, p.fsIn, out.data(), &len);
    ASSERT_EQ(len, n * p.L);
    for (int m = 40 * p.L; m < 150 * p.L; m += p.L) {
        double group = 0;
        for (int q = 0; q < p.L; ++q) group += out[m + q].re;
        ASSERT_NEAR(group, 3.0, 1e-12) << m;
        for (int q = 0; q < p.L; ++q) ASSERT_NEAR(out[m + q].re, 3.0 / p.L, 0.2 * 3.0 / p.L);
    }
}

INSTANTIATE_TEST_SUITE_P(Ratios, SmallRatioResample,
                         ::testing::Values(SmallRatio{1.0, 1.0, 1}, SmallRatio{2.0, 1.0, 2},
                                           SmallRatio{12.0, 4.0, 3}));

TEST(Resample, FractionSixFifthsHasTheRightLengthAndGain) {
    // 4.8 / 4 = 1.2 -> 6/5: 121 taps; mean output of a constant is 1/6.
    const int n = 1000;
    std::vector<Complex> in(n, Complex{1.0, 0.0});
    std::vector<Complex> out(1200);
    int len = 0;
    CommonFun cf;
    cf.resample(in.data(), n, 4.8, 4.0, out.data(), &len);
    ASSERT_EQ(len, 1200);
    double mean = 0;
    for (int m = 300; m < 900; ++m) mean += out[m].re;
    mean /= 600;
    EXPECT_NEAR(mean, 1.0 / 6.0, 1e-3);
}

// The normaliser of the on-the-fly path against an extended-precision sum
// over every tap.
TEST(LongFilter, UnitSumNormaliserMatchesTheTapSum) {
    for (std::int64_t mx : {1, 2, 7, 2001, 20000}) {
        const std::int64_t taps = 20 * mx + 1;
        const double fc = 0.95 / static_cast<double>(mx);
        const std::int64_t c = (taps - 1) / 2;
        long double sum = 0;
        for (std::int64_t i = 0; i < taps; ++i) {
            const std::int64_t m = i - c;
            const long double a = kTwoPi * fc;  // the double cutoff angle the taps use
            const long double s = m == 0 ? 2.0L * fc : std::sin(a * m) / (kPiL * m);
            sum += s * (0.54L - 0.46L * std::cos(2 * kPiL * i / (taps - 1)));
        }
        const double got = resampler_detail::windowed_sinc_sum(fc, taps);
        EXPECT_NEAR(got / static_cast<double>(sum), 1.0, 1e-14) << "max(L, M) = " << mx;
    }
}

TEST(LongFilter, OnTheFlyAgreesWithTheMaterialisedFilter) {
    // r = 2.001 -> 2001/1000: a 40021-tap filter, small enough to build.
    const int n = 3000;
    std::mt19937 rng(7);
    std::normal_distribution<double> g(0.0, 100.0);
    std::vector<Complex> in(n);
    for (Complex& v : in) v = Complex{g(rng), g(rng)};
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
        diff = std::max(diff, std::fabs(table[m].re - lazy[m].re));
        diff = std::max(diff, std::fabs(table[m].im - lazy[m].im));
    }
    EXPECT_LT(diff, 1e-12 * scale);
    // And the public routine takes the table path here.
    std::vector<Complex> pub(count);
    int len = 0;
    CommonFun cf;
    cf.resample(in.data(), n, 2.001, 1.0, pub.data(), &len);
    ASSERT_EQ(len, count);
    for (int m = 0; m < count; ++m) ASSERT_EQ(pub[m].re, table[m].re);
}

// ---- independent oracle for the 4/3 case ----
//
// Euler-Maclaurin on F(t) = sum_{m=-c..c} sin(t m)/(pi m):
//   sum_{m=1..c} sin(t m)/m = Si(c t) - t/2 + sin(c t)/(2c) + (1/12) f'(c) + ...
// with f(x) = sin(t x)/x (f' is O(t/c) here, higher terms vanish), and the
// sine integral from its asymptotic expansion (c t is about 60).
long double sine_integral(long double x) {
    long double f = 0, g = 0, term = 1 / x, termG = 1 / (x * x);
    for (int k = 0; k < 40; ++k) {
        f += term;
        g += termG;
        term *= -(2.0L * k + 1) * (2.0L * k + 2) / (x * x);
        termG *= -(2.0L * k + 2) * (2.0L * k + 3) / (x * x);
        if (std::fabs(term) < 1e-22L) break;
    }
    return kPiL / 2 - f * std::cos(x) - g * std::sin(x);
}

long double sinc_sum_em(long double t, std::int64_t c) {
    const long double ct = t * c;
    const long double fPrime = t * std::cos(ct) / c - std::sin(ct) / (static_cast<long double>(c) * c);
    const long double partial = sine_integral(ct) - t / 2 + std::sin(ct) / (2.0L * c) + fPrime / 12;
    return (t + 2 * partial) / kPiL;
}

TEST(LongFilter, FourThirdsMatchesDirectEvaluation) {
    const std::int64_t L = 1333333333, M = 1000000000;
    const std::int64_t taps = 20 * L + 1, c = (taps - 1) / 2;
    const double fc = 0.95 / static_cast<double>(L);
    const long double a = kTwoPi * fc, b = kPiL / c;
    const long double S = 0.54L * sinc_sum_em(a, c) +
                          0.23L * (sinc_sum_em(a + b, c) + sinc_sum_em(a - b, c));

    const int n = 400;
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<Complex> in(n);
    for (Complex& v : in) v = Complex{u(rng), u(rng)};
    const int count = static_cast<int>(resample_output_count(n, 4.0, 3.0));
    ASSERT_EQ(count, 534);
    std::vector<Complex> out(count);
    int len = 0;
    CommonFun cf;
    cf.resample(in.data(), n, 4.0, 3.0, out.data(), &len);
    ASSERT_EQ(len, count);

    for (int m : {0, 1, 17, 100, 277, 400, 533}) {
        const std::int64_t t = M * m;
        long double re = 0, im = 0, mag = 0;
        for (int k = 0; k < n; ++k) {
            const std::int64_t j = t - L * k;
            if (j < 0 || j >= taps) continue;
            const std::int64_t mm = j - c;
            const long double s = mm == 0 ? 2.0L * fc : std::sin(a * mm) / (kPiL * mm);
            const long double h = s * (0.54L - 0.46L * std::cos(2 * kPiL * j / (taps - 1))) / S;
            re += in[k].re * h;
            im += in[k].im * h;
            // Relative accuracy of a tap, plus the absolute error of a sine
            // whose double argument a*m (up to ~60) is rounded to 2^-52
            // relative: it dominates near the zero crossings at the ends.
            mag += std::fabs(h) * 1e-12L + 1.5e-14L / (kPiL * (std::llabs(mm) + 1)) / S;
        }
        const double tol = static_cast<double>(mag);
        EXPECT_NEAR(out[m].re, static_cast<double>(re), tol) << m;
        EXPECT_NEAR(out[m].im, static_cast<double>(im), tol) << m;
    }
}

TEST(LongFilter, FourThirdsAmplitudeIsAboutOneOverL) {
    // Outputs visit the 1333333333 polyphase branches quasi-uniformly; their
    // mean DC gain is the unit sum spread over L branches.
    const int n = 3000;
    std::vector<Complex> in(n, Complex{1.0, 0.0});
    std::vector<Complex> out(4000);
    int len = 0;
    CommonFun cf;
    cf.resample(in.data(), n, 4.0, 3.0, out.data(), &len);
    ASSERT_EQ(len, 4000);
    double mean = 0;
    for (int m = 100; m < 3900; ++m) mean += out[m].re;
    mean /= 3800;
    EXPECT_NEAR(mean * 1333333333.0, 1.0, 1e-2);
}

}  // namespace
