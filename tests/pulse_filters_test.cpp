// Pulse-shaping designs and the matched filter.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "CommonFun.h"
#include "test_support.h"

namespace {

constexpr long double kPiL = 3.141592653589793238462643383279502884L;

// Evaluates f at t, or at a singular point (|t| below 1e-9 of one of
// `poles`) as the mean of the two sides 1e-7 away: the removable limit to
// O(1e-14), independent of the closed-form limits the designer uses.
template <class F>
long double limit_at(F f, long double t, std::initializer_list<long double> poles) {
    for (long double p : poles)
        if (std::fabs(std::fabs(t) - p) < 1e-9L) return (f(t + 1e-7L) + f(t - 1e-7L)) / 2;
    return f(t);
}

// Textbook root raised cosine (singular at 0 and 1/(4b)) and raised cosine
// (singular at 1/(2b)), unnormalised.
long double rrc_reference(long double b, long double t) {
    auto f = [b](long double u) {
        return (std::sin(kPiL * u * (1 - b)) + 4 * b * u * std::cos(kPiL * u * (1 + b))) /
               (kPiL * u * (1 - (4 * b * u) * (4 * b * u)));
    };
    return limit_at(f, t, {0.0L, 1 / (4 * b)});
}

long double rc_reference(long double b, long double t) {
    auto f = [b](long double u) {
        const long double s = u == 0 ? 1.0L : std::sin(kPiL * u) / (kPiL * u);
        return s * std::cos(kPiL * b * u) / (1 - (2 * b * u) * (2 * b * u));
    };
    return limit_at(f, t, {1 / (2 * b)});
}

// Unit energy, exact symmetry and the shape of the closed form, singular taps
// included: beta 0.25 at sps 4 puts t = +-1 on the RRC grid and t = +-2 on
// the RC grid; beta 1/3 puts t = +-1.5 on the RC grid.
TEST(RaisedCosine, UnitEnergySymmetricAndMatchesClosedForm) {
    const std::pair<const char*, double> cases[] = {
        {"sqrt", 0.35}, {"sqrt", 0.25}, {"normal", 0.25}, {"Normal", 1.0 / 3.0}};
    for (const auto& [shape, beta] : cases) {
        std::vector<float> h(49, -99.0f);
        int len = 0;
        CommonFun().rcosdesignForC(beta, 12, 4, shape, h.data(), &len);
        ASSERT_EQ(len, 49);
        std::vector<long double> ref(len);
        long double energy = 0;
        for (int i = 0; i < len; ++i) {
            const long double t = (i - 24) / 4.0L;
            ref[i] = shape[0] == 's' ? rrc_reference(beta, t) : rc_reference(beta, t);
            energy += ref[i] * ref[i];
        }
        SCOPED_TRACE(testing::Message() << shape << " " << beta);
        double sum2 = 0;
        for (int i = 0; i < len; ++i) {
            ASSERT_EQ(h[i], h[len - 1 - i]) << "tap " << i;
            // Float taps: a few 1e-8 of rounding.
            ASSERT_NEAR(h[i], static_cast<double>(ref[i] / std::sqrt(energy)), 2e-7) << "tap " << i;
            sum2 += static_cast<double>(h[i]) * h[i];
        }
        EXPECT_NEAR(sum2, 1.0, 1e-6);
    }
}

// Unit DC gain, and the shape h(t) / h(0) = exp(-2 (pi BT t)^2 / ln 2) for
// BT = 0.5, span 12, sps 4 (a wrong BT scaling moves every tap).
TEST(Gaussian, UnitSumAndMatchesClosedForm) {
    std::vector<float> h(49);
    int len = 0;
    CommonFun().gaussdesignForC(0.5, 12, 4, h.data(), &len);
    ASSERT_EQ(len, 49);
    double sum = 0;
    for (int i = 0; i < len; ++i) {
        const long double x = kPiL * 0.5L * (-6.0L + i / 4.0L);
        const long double ref = std::exp(-2 * x * x / std::log(2.0L));
        ASSERT_NEAR(h[i] / h[24], static_cast<double>(ref), 1e-6) << i;
        sum += h[i];
    }
    EXPECT_NEAR(sum, 1.0, 1e-6);
}

// Output length n - L + 1 with sps = floor(4.7) = 4, so L = 49 for RRC, RC and
// Gaussian and 5 for rectangular and half-sine; 0 for unknown codes and for
// blocks shorter than the filter, and nothing written past the output. A ramp
// input checks that out[i] lines up with in[i + (L - 1) / 2].
TEST(MatchFilter, OutputLengthFollowsTheFilter) {
    const std::pair<uint32_t, int> types[] = {{1u, 49}, {2u, 49}, {3u, 49}, {4u, 5},
                                              {5u, 5},  {0u, 0},  {6u, 0},  {0xFFFFFFFFu, 0}};
    for (const auto& [type, filterLen] : types) {
        for (int n : {0, 4, 48, 49, 200}) {
            std::vector<Complex> in(n + 1), out(n + 1, Complex{-5.0, -5.0});
            for (int i = 0; i <= n; ++i) in[i] = Complex{static_cast<double>(i), 0.0};
            int outLen = -1;
            CommonFun().matchFilter(in.data(), n, 4700.0, makeParam(1000.0, 0, 0.35, type), out.data(), outLen);
            const int expected = filterLen > 0 && n >= filterLen ? n - filterLen + 1 : 0;
            SCOPED_TRACE(testing::Message() << "type " << type << " n " << n);
            EXPECT_EQ(outLen, expected);
            EXPECT_EQ(out[expected].re, -5.0);
            // A ramp through a symmetric filter of sum s gives s (i + delay).
            if (expected < 2) continue;
            EXPECT_NEAR(out[0].re / (out[1].re - out[0].re), (filterLen - 1) / 2.0, 1e-9);
        }
    }
}

}  // namespace
