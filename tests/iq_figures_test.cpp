// I/Q impairment figures on captures with known gain imbalance, quadrature
// skew and DC offset, and the degenerate-denominator rules.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "CommonFun.h"

namespace {

constexpr double kPi = 3.141592653589793;

struct Figures {
    double offset, gain, quad;
};

Figures measure(const std::vector<std::int16_t>& I, const std::vector<std::int16_t>& Q) {
    DisplayData d{};
    CommonFun().calcIQParams(I.data(), Q.data(), static_cast<int>(I.size()), &d);
    return Figures{double(d.iqOffset), double(d.iqGainRatio), double(d.quadError)};
}

// I = A cos(t) + dcI, Q = g A sin(t + skew) + dcQ over whole cycles. Then the
// means are (dcI, dcQ), the mean squares A^2/2 + dcI^2 and (gA)^2/2 + dcQ^2
// (the offset stays inside the RMS) and the mean of I Q is
// g A^2 sin(skew)/2 + dcI dcQ; the figures follow in closed form. The int16
// rounding (<= 0.5 per sample, uncorrelated with the tone) sets the tolerances.
TEST(IqFigures, MatchTheAppliedImpairment) {
    const double A = 9000.0;
    const int n = 16384;
    const struct { double gainQ, skew, dcI, dcQ; } cases[] = {
        {1.0, 0.0, 0.0, 0.0}, {0.8, 0.0, 0.0, 0.0}, {1.0, -0.2, 0.0, 0.0},
        {1.0, 0.0, 300.0, -400.0}, {1.15, 0.1, -250.0, 120.0}};
    for (const auto& c : cases) {
        std::vector<std::int16_t> I(n), Q(n);
        for (int k = 0; k < n; ++k) {
            const double t = 2 * kPi * 37 * k / n;
            I[k] = static_cast<std::int16_t>(std::lround(A * std::cos(t) + c.dcI));
            Q[k] = static_cast<std::int16_t>(std::lround(c.gainQ * A * std::sin(t + c.skew) + c.dcQ));
        }
        const double msI = A * A / 2 + c.dcI * c.dcI;
        const double msQ = c.gainQ * c.gainQ * A * A / 2 + c.dcQ * c.dcQ;
        const double xIQ = c.gainQ * A * A * std::sin(c.skew) / 2 + c.dcI * c.dcQ;
        const Figures f = measure(I, Q);
        EXPECT_NEAR(f.offset, std::hypot(c.dcI, c.dcQ), 0.05) << c.gainQ << " " << c.skew;
        EXPECT_NEAR(f.gain, std::sqrt(msI / msQ), 1e-4) << c.gainQ << " " << c.skew;
        EXPECT_NEAR(f.quad, std::asin(xIQ / std::sqrt(msI * msQ)), 1e-4) << c.gainQ << " " << c.skew;
    }
}

// Zero denominators: rQ = 0 gives a ratio of 1, rI = 0 a ratio of 0, and no
// angle either way. Identical (or opposite) rails may round just past +-1,
// which the clamp must catch (asin would give NaN).
TEST(IqFigures, DegenerateBlocks) {
    const int n = 500;
    std::vector<std::int16_t> zero(n, 0), ramp(n), neg(n);
    for (int k = 0; k < n; ++k) {
        ramp[k] = static_cast<std::int16_t>(k * 61 - 15000);
        neg[k] = static_cast<std::int16_t>(-ramp[k]);
    }
    const struct { const std::vector<std::int16_t>*I, *Q; double gain, quad; } cases[] = {
        {&zero, &zero, 1.0, 0.0}, {&ramp, &zero, 1.0, 0.0}, {&zero, &ramp, 0.0, 0.0},
        {&ramp, &ramp, 1.0, kPi / 2}, {&ramp, &neg, 1.0, -kPi / 2}};
    for (const auto& c : cases) {
        const Figures f = measure(*c.I, *c.Q);
        EXPECT_DOUBLE_EQ(f.gain, c.gain) << (&c - cases);
        EXPECT_DOUBLE_EQ(f.quad, c.quad) << (&c - cases);
    }
}

}  // namespace
