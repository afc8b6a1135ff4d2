// Constant-modulus equaliser.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "CommonFun.h"

namespace {

// Random QPSK symbols, each followed by an echo of the previous one.
std::vector<Complex> qpsk(int n, Complex echo) {
    const Complex pts[4] = {{1.0, 0.0}, {0.0, 1.0}, {-1.0, 0.0}, {0.0, -1.0}};
    std::mt19937 rng(9);
    std::vector<Complex> s(n);
    Complex prev{0.0, 0.0};
    for (Complex& x : s) {
        const Complex a = pts[rng() % 4];
        x = Complex{a.re + echo.re * prev.re - echo.im * prev.im,
                    a.im + echo.re * prev.im + echo.im * prev.re};
        prev = a;
    }
    return s;
}

// Symbols exactly on the target circle (|y|^2 - 1 is exactly 0) leave the
// taps where they started: the output is the input delayed by the reference
// tap, the fourth one (the last for L <= 3). Also n = L (one output) and
// n < L (none).
TEST(Cma, UnitCircleSymbolsPassThroughDelayed) {
    const auto in = qpsk(200, Complex{0.0, 0.0});
    for (const int L : {10, 3, 1}) {
        const int delay = L > 3 ? 3 : L - 1;
        for (const int n : {200, L}) {
            std::vector<Complex> out(n + 1, Complex{-9.0, -9.0});
            int len = -1;
            CommonFun().CMA_equlize(in.data(), n, 0.005, 1.0, L, out.data(), len);
            ASSERT_EQ(len, n - L + 1) << "L " << L << " n " << n;
            for (int i = 0; i < len; ++i)
                ASSERT_EQ(Complex_abs(Complex_sub(out[i], in[L - 1 + i - delay])), 0.0) << i;
            EXPECT_EQ(out[len].re, -9.0);
        }
        int len = -1;
        CommonFun().CMA_equlize(in.data(), L - 1, 0.005, 1.0, L, nullptr, len);
        EXPECT_EQ(len, 0);
    }
}

// Against a mild two-path channel the modulus spread shrinks as the taps
// adapt; with the update sign reversed it would grow instead.
TEST(Cma, OpensTheEyeOfAnEchoChannel) {
    const int n = 6000;
    const auto in = qpsk(n, Complex{0.15, 0.1});
    auto spread = [](const std::vector<Complex>& v, int from, int to) {
        double s = 0.0;
        for (int i = from; i < to; ++i) s += std::pow(Complex_abs2(v[i]) - 1.0, 2);
        return std::sqrt(s / (to - from));
    };
    std::vector<Complex> out(n);
    int len = 0;
    CommonFun().CMA_equlize(in.data(), n, 0.005, 1.0, 10, out.data(), len);
    ASSERT_EQ(len, n - 9);
    EXPECT_LT(spread(out, len - 1000, len), 0.3 * spread(in, 0, n));
}

}  // namespace

// The FSK equaliser: levels already on the rings |y|^2 = 1 and 9 leave the
// centre-spike taps alone, so after the eight unequalised outputs the stream
// is the input delayed by the centre tap (4 symbols); n < 9 is a plain copy.
TEST(FskEqualiser, RingLevelsPassThroughDelayed) {
    const double levels[4] = {-3.0, -1.0, 1.0, 3.0};
    std::mt19937 rng(4);
    std::vector<Complex> in(300);
    for (Complex& x : in) x = Complex{levels[rng() % 4], 0.0};
    for (const int n : {300, 8}) {
        std::vector<Complex> out(n + 1, Complex{-9.0, -9.0});
        CommonFun().mcma_equalizeFORfsk(in.data(), n, 3, 0.005, out.data());  // taps forced to 9
        for (int k = 0; k < n; ++k) {
            const Complex want = k < 8 ? in[k] : in[k - 4];
            ASSERT_TRUE(out[k].re == want.re && out[k].im == want.im) << "n " << n << " k " << k;
        }
        EXPECT_EQ(out[n].re, -9.0);
    }
}

// |y|^2 = 4 exactly belongs to the outer ring: a constant input of 2 is pulled
// up towards 3, not down towards 1.
TEST(FskEqualiser, ModulusTwoIsPulledToTheOuterRing) {
    const std::vector<Complex> in(20, Complex{2.0, 0.0});
    std::vector<Complex> out(20);
    CommonFun().mcma_equalizeFORfsk(in.data(), 20, 9, 0.005, out.data());
    EXPECT_EQ(out[8].re, 2.0);
    EXPECT_GT(out[9].re, 2.0);
}
