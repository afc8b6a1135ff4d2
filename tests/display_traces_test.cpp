// Display traces: eye interpolation, instantaneous frequency and phase
// unwrap with detrend, against closed forms worked out by hand.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "CommonFun.h"

namespace {
constexpr double kPi = 3.14159265358979323846;


// min(4n - 16, capacity), 0 for a scale below 1 or a negative count, and
// nothing written past the count.
TEST(Eye, WritesMinOfFourNMinusDelayAndCapacity) {
    const struct { int n, scale, capacity, expected; } cases[] = {
        {10, 1, 100, 24}, {10, 1, 5, 5}, {10, 0, 100, 0}, {3, 1, 100, 0}};
    for (const auto& c : cases) {
        std::vector<Complex> in(c.n, Complex{1.0, 0.5});
        std::vector<double> out(c.capacity + 8, -777.0);
        int len = c.capacity;
        CommonFun().getEye(in.data(), c.n, c.scale, out.data(), &len);
        EXPECT_EQ(len, c.expected);
        for (size_t k = c.expected; k < out.size(); ++k) ASSERT_EQ(out[k], -777.0) << k;
    }
}

TEST(Eye, ImpulseIsCentredOnItsSymbolAndConstantsStayFlat) {
    // Symbol 5 alone: its pulse is symmetric about out[4 * 5], nothing before
    // out[4]; the quadrature part never shows.
    std::vector<Complex> in(12, Complex{0.0, 0.0});
    in[5] = Complex{1.0, -9.0};
    std::vector<double> out(120);
    int len = 100;
    CommonFun cf;
    cf.getEye(in.data(), 12, 1, out.data(), &len);
    ASSERT_EQ(len, 32);
    for (int k = 0; k < 4; ++k) EXPECT_EQ(out[k], 0.0);
    for (int d = 1; 20 + d < len; ++d) EXPECT_EQ(out[20 - d], out[20 + d]) << d;
    // Each polyphase branch sums to about one (0.9986 .. 1.0020), so constant
    // symbols give a flat trace once the filter is filled, divided by scale.
    std::vector<Complex> flat(30, Complex{-2.0, 0.0});
    len = 120;
    cf.getEye(flat.data(), 30, 2, out.data(), &len);
    for (int k = 16; k < len - 16; ++k) EXPECT_NEAR(out[k], -1.0, 0.01) << k;
}

TEST(Freq, StepIsNormalisedByThePowerOfTheLaterSample) {
    // (1,0) -> (0,2): cross product 2 over |q|^2 = 4 gives 0.5 (not the 1.0
    // of a product of magnitudes); into a silent sample and out of it: 0.
    // out[0] repeats out[1], and the mean of out[1..] = 0.125 is removed.
    const std::vector<Complex> x = {{1.0, 0.0}, {0.0, 2.0}, {0.0, 2.0}, {0.0, 0.0}, {1.0, 0.0}};
    std::vector<double> f(5);
    CommonFun cf;
    cf.getFreq(x.data(), 5, f.data());
    EXPECT_EQ(f, (std::vector<double>{0.375, 0.375, -0.125, -0.125, -0.125}));
}

TEST(Unwrap, RemovesTheRampOfAWrappingPhase) {
    // A cosine symmetric about the block centre over whole periods has zero
    // sum and zero correlation with the index, so the fitted line is exactly
    // the applied ramp (1 rad/sample, wrapping every few samples) and the
    // cosine is what remains.
    const int n = 400;
    std::vector<double> in(n), out(n), truth(n);
    for (int i = 0; i < n; ++i) {
        truth[i] = 2.5 * std::cos(2 * kPi * 3 * (i - (n - 1) / 2.0) / n);
        const double a = 1.0 + i + truth[i];
        in[i] = std::atan2(std::sin(a), std::cos(a));
    }
    double slope = 0, intercept = 0;
    CommonFun cf;
    cf.phaseUnwrapAndDetrend(in.data(), n, out.data(), &slope, &intercept);
    EXPECT_NEAR(slope, 1.0, 1e-12);
    const double turns = (intercept - 1.0) / (2 * kPi);  // whole turns may differ
    EXPECT_NEAR(turns, std::round(turns), 1e-9);
    for (int i = 0; i < n; ++i) EXPECT_NEAR(out[i], truth[i], 1e-9) << i;
}

}  // namespace
