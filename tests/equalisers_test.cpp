// Constant-modulus equaliser.
#include <gtest/gtest.h>

#include <cmath>
#include <ostream>
#include <random>
#include <vector>

#include "CommonFun.h"
#include "psk_test_signal.h"

namespace {

std::vector<Complex> unitCircleSymbols(int n) {
    // Exactly representable points on |x| = 1, so |y|^2 - 1 is exactly 0.
    const Complex pts[4] = {{1.0, 0.0}, {0.0, 1.0}, {-1.0, 0.0}, {0.0, -1.0}};
    std::vector<Complex> s(n);
    std::mt19937 rng(9);
    for (Complex& x : s) x = pts[rng() % 4];
    return s;
}

struct DelayCase {
    int L;
    int delay;  // symbols between the newest regressor sample and the output
};

std::ostream& operator<<(std::ostream& os, const DelayCase& c) {
    return os << "L " << c.L << " delay " << c.delay;
}

class CmaOnTheCircle : public ::testing::TestWithParam<DelayCase> {};

// Symbols already on the target circle leave the taps where they started, so
// the output is the input delayed by the reference tap's position.
TEST_P(CmaOnTheCircle, PassesSymbolsThroughDelayed) {
    const DelayCase c = GetParam();
    const int n = 200;
    const auto in = unitCircleSymbols(n);
    std::vector<Complex> out(n);
    int len = -1;
    CommonFun cf;
    cf.CMA_equlize(in.data(), n, 0.005, 1.0, c.L, out.data(), len);
    ASSERT_EQ(len, n - c.L + 1);
    for (int i = 0; i < len; ++i) {
        const Complex expected = in[c.L - 1 + i - c.delay];
        ASSERT_EQ(out[i].re, expected.re) << i;
        ASSERT_EQ(out[i].im, expected.im) << i;
    }
}

// The reference tap is the fourth one whatever the length; shorter filters
// use their last tap.
INSTANTIATE_TEST_SUITE_P(Lengths, CmaOnTheCircle,
                         ::testing::Values(DelayCase{10, 3}, DelayCase{4, 3}, DelayCase{21, 3},
                                           DelayCase{3, 2}, DelayCase{1, 0}));

TEST(Cma, LengthChecks) {
    std::vector<Complex> in(10, Complex{0.5, 0.5}), out(10, Complex{-9, -9});
    CommonFun cf;
    int len = -1;
    cf.CMA_equlize(in.data(), 9, 0.005, 1.0, 10, out.data(), len);
    EXPECT_EQ(len, 0);
    len = -1;
    cf.CMA_equlize(in.data(), 10, 0.005, 1.0, 0, out.data(), len);
    EXPECT_EQ(len, 0);
    // n = L: one output, formed with the initial taps (in[L-1-3]).
    in[6] = Complex{2.0, -3.0};
    cf.CMA_equlize(in.data(), 10, 0.005, 1.0, 10, out.data(), len);
    ASSERT_EQ(len, 1);
    EXPECT_EQ(out[0].re, 2.0);
    EXPECT_EQ(out[0].im, -3.0);
    EXPECT_EQ(out[1].re, -9.0);
}

// Against a mild two-path channel the modulus spread of QPSK shrinks as the
// taps adapt; with the update sign reversed it would grow instead.
TEST(Cma, OpensTheEyeOfAnEchoChannel) {
    const int n = 6000;
    const auto sent = psktest::randomSectors(n, 4, 31);
    std::vector<Complex> in(n), out(n);
    const Complex echo{0.15, 0.1};
    for (int i = 0; i < n; ++i) {
        const Complex a = psktest::pskPoint(sent[i], 4);
        const Complex b = i > 0 ? psktest::pskPoint(sent[i - 1], 4) : Complex{0, 0};
        in[i] = Complex{a.re + echo.re * b.re - echo.im * b.im,
                        a.im + echo.re * b.im + echo.im * b.re};
    }
    auto spread = [](const std::vector<Complex>& v, int from, int to) {
        double s = 0.0;
        for (int i = from; i < to; ++i) {
            const double d = Complex_abs2(v[i]) - 1.0;
            s += d * d;
        }
        return std::sqrt(s / (to - from));
    };
    CommonFun cf;
    int len = 0;
    cf.CMA_equlize(in.data(), n, 0.005, 1.0, 10, out.data(), len);
    ASSERT_EQ(len, n - 9);
    const double before = spread(in, 0, n);
    const double after = spread(out, len - 1000, len);
    EXPECT_LT(after, 0.3 * before) << before << " -> " << after;
}

}  // namespace
