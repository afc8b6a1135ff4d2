// Cubic Farrow interpolator: output grid, exactness on cubics, streaming.
#include <gtest/gtest.h>

#include <cmath>
#include <ostream>
#include <limits>
#include <random>
#include <vector>

#include "CommonFun.h"

namespace {

std::vector<Complex> random_block(int n, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> g;
    std::vector<Complex> x(n);
    for (Complex& v : x) v = Complex{g(rng), g(rng)};
    return x;
}

std::vector<Complex> run(CommonFun& cf, const std::vector<Complex>& in, double fsOut,
                         double fsIn) {
    std::vector<Complex> out(4 * in.size() + 16);
    int len = -1;
    cf.FarrowInterp(in.data(), static_cast<int>(in.size()), fsOut, fsIn, out.data(), &len);
    out.resize(len);
    return out;
}

TEST(Farrow, StepOneReproducesTheInputButTheLastTwo) {
    const std::vector<Complex> x = random_block(50, 1);
    CommonFun cf;
    const std::vector<Complex> y = run(cf, x, 4.0, 4.0);
    ASSERT_EQ(y.size(), 48u);
    for (size_t i = 0; i < y.size(); ++i) {
        ASSERT_EQ(y[i].re, x[i].re) << i;
        ASSERT_EQ(y[i].im, x[i].im) << i;
    }
}

TEST(Farrow, StepTwoTakesEveryOtherSample) {
    const std::vector<Complex> x = random_block(51, 2);
    CommonFun cf;
    const std::vector<Complex> y = run(cf, x, 4.0, 8.0);
    // x(1), x(3) ... x(49): the index must stay <= N - 2 = 49.
    ASSERT_EQ(y.size(), 25u);
    for (size_t i = 0; i < y.size(); ++i) {
        ASSERT_EQ(y[i].re, x[2 * i].re) << i;
        ASSERT_EQ(y[i].im, x[2 * i].im) << i;
    }
}

// Cubic Lagrange interpolation is exact on any cubic polynomial once all
// four neighbours are real samples (k >= 2); at k = 1 the left neighbour is
// silence, which has no weight only at mu = 0.
class FarrowCubic : public ::testing::TestWithParam<double> {};

TEST_P(FarrowCubic, InterpolatesACubicExactly) {
    const double step = GetParam();
    auto p = [](double t) { return 0.002 * t * t * t - 0.3 * t * t + 2.0 * t - 5.0; };
    auto q = [](double t) { return -0.001 * t * t * t + 0.05 * t * t + 1.0; };
    const int n = 60;
    std::vector<Complex> x(n);
    for (int i = 1; i <= n; ++i) x[i - 1] = Complex{p(i), q(i)};
    CommonFun cf;
    const std::vector<Complex> y = run(cf, x, 1.0, step);
    // Outputs at t = 1 + m * step while floor(t) <= n - 2.
    int expected = 0;
    while (std::floor(expected * step + 1.0) <= n - 2) ++expected;
    ASSERT_EQ(static_cast<int>(y.size()), expected);
    for (size_t m = 0; m < y.size(); ++m) {
        const double t = 1.0 + m * step;
        if (t > 1.0 && t < 2.0) continue;
        ASSERT_NEAR(y[m].re, p(t), 1e-10) << "t = " << t;
        ASSERT_NEAR(y[m].im, q(t), 1e-10) << "t = " << t;
    }
}

INSTANTIATE_TEST_SUITE_P(Steps, FarrowCubic, ::testing::Values(0.37, 1.0, 1.5, 2.5, 3.3));

// Two calls on an initialised state continue the grid of one call on the
// joined block: no gap, no repeated sample.
struct SplitCase {
    double fsIn;
    double fsOut;
    int split;
};

std::ostream& operator<<(std::ostream& os, const SplitCase& c) {
    return os << c.fsIn << "->" << c.fsOut << " split " << c.split;
}

class FarrowStreaming : public ::testing::TestWithParam<SplitCase> {};

TEST_P(FarrowStreaming, TwoCallsEqualOneCallOnTheJoinedBlock) {
    const SplitCase c = GetParam();
    const std::vector<Complex> x = random_block(400, 5);
    CommonFun whole;
    const std::vector<Complex> ref = run(whole, x, c.fsOut, c.fsIn);

    CommonFun split;
    const std::vector<Complex> first(x.begin(), x.begin() + c.split);
    const std::vector<Complex> second(x.begin() + c.split, x.end());
    std::vector<Complex> y = run(split, first, c.fsOut, c.fsIn);
    const std::vector<Complex> y2 = run(split, second, c.fsOut, c.fsIn);
    y.insert(y.end(), y2.begin(), y2.end());

    ASSERT_EQ(y.size(), ref.size());
    for (size_t i = 0; i < y.size(); ++i) {
        // Only the rounding of the position (counted from a different origin)
        // may differ.
        ASSERT_NEAR(y[i].re, ref[i].re, 1e-12) << i;
        ASSERT_NEAR(y[i].im, ref[i].im, 1e-12) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Splits, FarrowStreaming,
                         ::testing::Values(SplitCase{10.0, 4.0, 200}, SplitCase{10.0, 4.0, 201},
                                           SplitCase{10.0, 4.0, 3}, SplitCase{7.3, 4.0, 123},
                                           SplitCase{4.0, 4.0, 77}, SplitCase{17.0, 4.0, 250}));

TEST(Farrow, ExactStepContinuesBitForBit) {
    // 10 -> 4 samples per symbol: step 2.5 keeps every position exact.
    const std::vector<Complex> x = random_block(300, 9);
    CommonFun whole, split;
    const std::vector<Complex> ref = run(whole, x, 4.0, 10.0);
    std::vector<Complex> y = run(split, std::vector<Complex>(x.begin(), x.begin() + 150), 4.0,
                                 10.0);
    const std::vector<Complex> y2 =
        run(split, std::vector<Complex>(x.begin() + 150, x.end()), 4.0, 10.0);
    y.insert(y.end(), y2.begin(), y2.end());
    ASSERT_EQ(y.size(), ref.size());
    for (size_t i = 0; i < y.size(); ++i) ASSERT_EQ(y[i].re, ref[i].re) << i;
    EXPECT_EQ(split.farrowInitialised, 1);
}

TEST(Farrow, DegenerateRates) {
    const std::vector<Complex> x = random_block(20, 4);
    {
        CommonFun cf;  // fs_out = 0: infinite step, the first sample only
        const std::vector<Complex> y = run(cf, x, 0.0, 4.0);
        ASSERT_EQ(y.size(), 1u);
        EXPECT_EQ(y[0].re, x[0].re);
        // The next block produces nothing and reads nothing out of range.
        EXPECT_TRUE(run(cf, x, 0.0, 4.0).empty());
    }
    for (double fsIn : {0.0, -4.0, std::numeric_limits<double>::quiet_NaN()}) {
        CommonFun cf;
        EXPECT_TRUE(run(cf, x, 4.0, fsIn).empty()) << fsIn;
        EXPECT_EQ(cf.farrowInitialised, 0);
    }
    CommonFun cf;  // blocks too short to reach any output
    EXPECT_TRUE(run(cf, std::vector<Complex>(2, Complex{1, 1}), 4.0, 4.0).empty());
    EXPECT_TRUE(run(cf, std::vector<Complex>(), 4.0, 4.0).empty());
}

}  // namespace
