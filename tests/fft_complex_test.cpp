// FFT, spectrum shift and the small numeric helpers.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <ostream>
#include <cstdlib>
#include <random>
#include <vector>

#include "CommonFun.h"

namespace {

constexpr long double kPiL = 3.141592653589793238462643383279502884L;

// Direct DFT in extended precision: X[k] = sum_n x[n] exp(-j 2 pi k n / N),
// with the twiddle of each product taken from an exact table index k*n mod N.
std::vector<Complex> direct_dft(const std::vector<Complex>& x) {
    const size_t n = x.size();
    std::vector<long double> c(n), s(n);
    for (size_t i = 0; i < n; ++i) {
        c[i] = std::cos(2 * kPiL * i / n);
        s[i] = std::sin(2 * kPiL * i / n);
    }
    std::vector<Complex> out(n);
    for (size_t k = 0; k < n; ++k) {
        long double re = 0, im = 0;
        for (size_t i = 0; i < n; ++i) {
            const size_t idx = (k * i) % n;
            // x * (cos - j sin)
            re += x[i].re * c[idx] + x[i].im * s[idx];
            im += x[i].im * c[idx] - x[i].re * s[idx];
        }
        out[k] = Complex{static_cast<double>(re), static_cast<double>(im)};
    }
    return out;
}

class FftVsDft : public ::testing::TestWithParam<int> {};

TEST_P(FftVsDft, RandomBlockMatchesDirectTransform) {
    const int n = GetParam();
    std::mt19937 rng(1234 + n);
    std::normal_distribution<double> g(0.0, 1000.0);
    std::vector<Complex> x(n);
    for (Complex& v : x) v = Complex{g(rng), g(rng)};
    const std::vector<Complex> ref = direct_dft(x);

    CommonFun cf;
    cf.fft_radix2(x.data(), n);
    double err = 0, norm = 0;
    for (int k = 0; k < n; ++k) {
        err = std::max(err, std::hypot(x[k].re - ref[k].re, x[k].im - ref[k].im));
        norm = std::max(norm, std::hypot(ref[k].re, ref[k].im));
    }
    // Repeated twiddle multiplication drifts by a few ulps per stage and
    // length; a wrong sign, permutation or twiddle is off by order 1.
    EXPECT_LT(err / norm, 1e-12) << "n = " << n;
}

INSTANTIATE_TEST_SUITE_P(PowersOfTwo, FftVsDft, ::testing::Values(1, 2, 8, 64, 512, 4096));

TEST(Fft, ImpulseGivesAllOnesAndConstantGivesN) {
    const int n = 16384;
    CommonFun cf;
    std::vector<Complex> impulse(n, Complex{0.0, 0.0});
    impulse[0] = Complex{1.0, 0.0};
    cf.fft_radix2(impulse.data(), n);
    for (int k = 0; k < n; ++k) {
        ASSERT_EQ(impulse[k].re, 1.0) << k;
        ASSERT_EQ(impulse[k].im, 0.0) << k;
    }

    std::vector<Complex> ones(n, Complex{1.0, 0.0});
    cf.fft_radix2(ones.data(), n);
    EXPECT_EQ(ones[0].re, static_cast<double>(n));
    EXPECT_EQ(ones[0].im, 0.0);
    for (int k = 1; k < n; ++k) {
        ASSERT_LT(std::hypot(ones[k].re, ones[k].im), 1e-9) << k;
    }
}

struct ShiftCase {
    std::vector<double> in;
    std::vector<double> expected;
};

std::ostream& operator<<(std::ostream& os, const ShiftCase& c) { return os << "n=" << c.in.size(); }

class FftShift : public ::testing::TestWithParam<ShiftCase> {};

TEST_P(FftShift, DoubleAndComplexAgree) {
    const ShiftCase& c = GetParam();
    const int n = static_cast<int>(c.in.size());
    CommonFun cf;
    std::vector<double> d = c.in;
    cf.fftshift_double(d.data(), n);
    EXPECT_EQ(d, c.expected);

    std::vector<Complex> z(n);
    for (int i = 0; i < n; ++i) z[i] = Complex{c.in[i], -c.in[i]};
    cf.fftshift_complex(z.data(), n);
    for (int i = 0; i < n; ++i) {
        EXPECT_EQ(z[i].re, c.expected[i]);
        EXPECT_EQ(z[i].im, -c.expected[i]);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Lengths, FftShift,
    ::testing::Values(ShiftCase{{0, 1, 2, 3, 4}, {3, 4, 0, 1, 2}},
                      ShiftCase{{0, 1, 2, 3}, {2, 3, 0, 1}},
                      ShiftCase{{7}, {7}},
                      ShiftCase{{0, 1}, {1, 0}},
                      ShiftCase{{0, 1, 2, 3, 4, 5, 6}, {4, 5, 6, 0, 1, 2, 3}}));

TEST(Helpers, NormalizeAngleWrapsIntoZeroToTwoPi) {
    const double twoPi = 6.283185307179586;
    EXPECT_DOUBLE_EQ(normalize_angle(-0.1), twoPi - 0.1);
    EXPECT_EQ(normalize_angle(twoPi), 0.0);
    EXPECT_DOUBLE_EQ(normalize_angle(3 * twoPi + 1.0), 1.0);
    EXPECT_DOUBLE_EQ(normalize_angle(-5 * twoPi + 2.0), 2.0);
    const double r = normalize_angle(-1e-300);
    EXPECT_GE(r, 0.0);
    EXPECT_LE(r, twoPi);
}

TEST(Helpers, SincIsNormalised) {
    EXPECT_EQ(sinc(0.0), 1.0);
    EXPECT_EQ(sinc(1e-13), 1.0);
    EXPECT_NEAR(sinc(1.0), 0.0, 1e-15);
    EXPECT_NEAR(sinc(-2.0), 0.0, 1e-15);
    EXPECT_NEAR(sinc(0.5), 2.0 / M_PI, 1e-15);
    EXPECT_NEAR(sinc(-1.5), -2.0 / (3.0 * M_PI), 1e-15);
}

TEST(Helpers, GcdOfSignedValues) {
    EXPECT_EQ(gcd_int64(-12, 18), 6);
    EXPECT_EQ(gcd_int64(18, -12), 6);
    EXPECT_EQ(gcd_int64(0, 0), 0);
    EXPECT_EQ(gcd_int64(-7, 0), 7);
    EXPECT_EQ(gcd_int64(0, 9), 9);
    EXPECT_EQ(gcd_int64(1333333333L, 1000000000L), 1);
    EXPECT_EQ(gcd_int64(2001000000L, 1000000000L), 1000000);
    EXPECT_EQ(gcd_int64(LONG_MAX, LONG_MAX), LONG_MAX);
}

TEST(Helpers, HammingWindowIsSymmetricWithEndsAtPointZeroEight) {
    std::vector<double> w(9);
    hamming_window(w.data(), 9);
    EXPECT_NEAR(w[0], 0.08, 1e-15);
    EXPECT_NEAR(w[8], 0.08, 1e-15);
    EXPECT_NEAR(w[4], 1.0, 1e-15);
    for (int i = 0; i < 9; ++i) EXPECT_NEAR(w[i], w[8 - i], 1e-15);
}

TEST(Helpers, ComparatorsSortBothWays) {
    std::vector<double> v{3.0, -1.0, 2.5, 0.0, 2.5};
    std::qsort(v.data(), v.size(), sizeof(double), cmp_asc);
    EXPECT_EQ(v, (std::vector<double>{-1.0, 0.0, 2.5, 2.5, 3.0}));
    std::qsort(v.data(), v.size(), sizeof(double), cmp_desc);
    EXPECT_EQ(v, (std::vector<double>{3.0, 2.5, 2.5, 0.0, -1.0}));
    const double a = 1.0, nan = std::nan("");
    EXPECT_EQ(cmp_double(&a, &nan), 0);
}

}  // namespace
