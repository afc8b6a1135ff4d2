// I/Q impairment figures on generated captures with known gain imbalance,
// quadrature skew and DC offset.
#include <gtest/gtest.h>

#include <cmath>
#include <ostream>
#include <cstdint>
#include <vector>

#include "CommonFun.h"
#include "front_end_captures.h"

namespace {

constexpr double kPi = 3.141592653589793;

struct Figures {
    double offset, gain, quad;
};

Figures measure(const std::vector<std::int16_t>& I, const std::vector<std::int16_t>& Q,
                int n) {
    DisplayData d{};
    d.iqOffset = -1.0;
    d.iqGainRatio = -1.0;
    d.quadError = -1.0;
    CommonFun cf;
    cf.calcIQParams(I.data(), Q.data(), n, &d);
    return Figures{double(d.iqOffset), double(d.iqGainRatio), double(d.quadError)};
}

struct Impairment {
    double gainQ;   // Q rail amplitude relative to I
    double skew;    // Q rail phase error, radians
    double dcI, dcQ;
};

void PrintTo(const Impairment& c, std::ostream* os) {
    *os << "gain" << c.gainQ << "_skew" << c.skew << "_dc" << c.dcI << "," << c.dcQ;
}

class IqImpairmentTest : public ::testing::TestWithParam<Impairment> {};

// I = A cos(t) + dcI,  Q = g A sin(t + skew) + dcQ over whole cycles. Then
//   means (dcI, dcQ), mean squares A^2/2 + dcI^2 and (gA)^2/2 + dcQ^2,
//   mean of I Q = g A^2 sin(skew) / 2 + dcI dcQ,
// from which the three figures follow in closed form.
TEST_P(IqImpairmentTest, MatchesTheAppliedImpairment) {
    const Impairment imp = GetParam();
    const double A = 9000.0;
    const int n = 16384;
    const int cycles = 37;
    std::vector<std::int16_t> I(n), Q(n);
    for (int k = 0; k < n; ++k) {
        const double t = captures::kTwoPi * cycles * k / n;
        I[k] = captures::to_i16(A * std::cos(t) + imp.dcI);
        Q[k] = captures::to_i16(imp.gainQ * A * std::sin(t + imp.skew) + imp.dcQ);
    }
    const double msI = A * A / 2 + imp.dcI * imp.dcI;
    const double msQ = imp.gainQ * imp.gainQ * A * A / 2 + imp.dcQ * imp.dcQ;
    const double xIQ = imp.gainQ * A * A * std::sin(imp.skew) / 2 + imp.dcI * imp.dcQ;

    const Figures f = measure(I, Q, n);
    // int16 rounding adds at most 0.5 per sample, uncorrelated with the tone.
    EXPECT_NEAR(f.offset, std::hypot(imp.dcI, imp.dcQ), 0.05);
    EXPECT_NEAR(f.gain, std::sqrt(msI / msQ), 1e-4);
    EXPECT_NEAR(f.quad, std::asin(xIQ / std::sqrt(msI * msQ)), 1e-4);
}

INSTANTIATE_TEST_SUITE_P(
    Captures, IqImpairmentTest,
    ::testing::Values(Impairment{1.0, 0.0, 0.0, 0.0},      // clean
                      Impairment{0.8, 0.0, 0.0, 0.0},      // Q 1.94 dB low: ratio 1.25
                      Impairment{1.0, 0.05, 0.0, 0.0},     // 2.86 degrees of skew
                      Impairment{1.0, -0.2, 0.0, 0.0},
                      Impairment{1.0, 0.0, 300.0, -400.0}, // offset 500
                      Impairment{1.15, 0.1, -250.0, 120.0}));

TEST(IqFigures, DegenerateBlocks) {
    const int n = 500;
    std::vector<std::int16_t> zero(n, 0), ramp(n), neg(n);
    for (int k = 0; k < n; ++k) {
        ramp[k] = static_cast<std::int16_t>(k * 61 - 15000);
        neg[k] = static_cast<std::int16_t>(-ramp[k]);
    }

    Figures f = measure(zero, zero, n);
    EXPECT_EQ(f.offset, 0.0);
    EXPECT_EQ(f.gain, 1.0);
    EXPECT_EQ(f.quad, 0.0);

    f = measure(ramp, zero, n);  // rQ = 0: ratio 1.0 and no angle
    EXPECT_EQ(f.gain, 1.0);
    EXPECT_EQ(f.quad, 0.0);

    f = measure(zero, ramp, n);  // rI = 0: plain ratio 0
    EXPECT_EQ(f.gain, 0.0);
    EXPECT_EQ(f.quad, 0.0);

    // Identical rails are fully correlated; rounding may push the ratio past
    // 1, which the clamp must catch (asin would give NaN).
    f = measure(ramp, ramp, n);
    EXPECT_DOUBLE_EQ(f.quad, kPi / 2);
    EXPECT_DOUBLE_EQ(f.gain, 1.0);
    f = measure(ramp, neg, n);
    EXPECT_DOUBLE_EQ(f.quad, -kPi / 2);

    std::vector<std::int16_t> hundred(n, 100);
    f = measure(hundred, zero, n);
    EXPECT_DOUBLE_EQ(f.offset, 100.0);
}

// Full-scale samples: each product is 2^30, exact in 32 bits; the sums are
// doubles, so a long block cannot overflow either.
TEST(IqFigures, FullScaleProductsAreExact) {
    const int n = 70000;
    std::vector<std::int16_t> I(n, -32768), Q(n, -32768);
    const Figures f = measure(I, Q, n);
    EXPECT_DOUBLE_EQ(f.offset, 32768.0 * std::sqrt(2.0));
    EXPECT_DOUBLE_EQ(f.gain, 1.0);
    EXPECT_DOUBLE_EQ(f.quad, kPi / 2);
}

TEST(IqFigures, EmptyBlockWritesNothing) {
    DisplayData d{};
    d.iqOffset = 1.5;
    d.iqGainRatio = 2.5;
    d.quadError = 3.5;
    CommonFun cf;
    cf.calcIQParams(nullptr, nullptr, 0, &d);
    cf.calcIQParams(nullptr, nullptr, -3, &d);
    EXPECT_EQ(double(d.iqOffset), 1.5);
    EXPECT_EQ(double(d.iqGainRatio), 2.5);
    EXPECT_EQ(double(d.quadError), 3.5);
}

}  // namespace
