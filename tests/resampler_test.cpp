// Rational resampler: fraction search, output count, amplitude and delay,
// and the on-the-fly evaluation of very long filters. The 4/3 path of three
// samples per symbol (a 2.7e10-tap filter) is pinned bit for bit by the
// golden record and decided end to end by the slow-capture suite.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <tuple>
#include <vector>

#include "CommonFun.h"
#include "resampler.h"

namespace {

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
    EXPECT_EQ(resample_output_count(400, 4.0, 3.0), 534);
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
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<Complex> in(n);
    for (Complex& v : in) v = Complex{u(rng), u(rng)};
    const int count = static_cast<int>(resample_output_count(n, 2.001, 1.0));
    ASSERT_EQ(count, 6003);
    std::vector<Complex> table(count), lazy(count);
    ASSERT_TRUE(resampler_detail::polyphase_materialised(in.data(), n, 2001, 1000, table.data(), count));
    ASSERT_TRUE(resampler_detail::polyphase_on_the_fly(in.data(), n, 2001, 1000, lazy.data(), count));
    double scale = 0, diff = 0;
    for (int m = 0; m < count; ++m) {
        scale = std::max(scale, std::fabs(table[m].re));
        diff = std::max({diff, std::fabs(table[m].re - lazy[m].re), std::fabs(table[m].im - lazy[m].im)});
    }
    // The two normalisers agree to a few 1e-15; the tap arithmetic is shared.
    EXPECT_LT(diff, 1e-12 * scale);
}

}  // namespace
