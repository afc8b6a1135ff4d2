// Pulse-shaping designs, valid-part convolution and the matched filter.
#include <gtest/gtest.h>

#include <cmath>
#include <ostream>
#include <limits>
#include <vector>

#include "CommonFun.h"

namespace {

constexpr long double kPiL = 3.141592653589793238462643383279502884L;

// Textbook root raised cosine (unnormalised):
//   [sin(pi t (1 - b)) + 4 b t cos(pi t (1 + b))] / [pi t (1 - (4 b t)^2)],
// with its singular points taken as the mean of the two sides.
long double rrc_reference(long double beta, long double t) {
    auto f = [beta](long double u) {
        return (std::sin(kPiL * u * (1 - beta)) + 4 * beta * u * std::cos(kPiL * u * (1 + beta))) /
               (kPiL * u * (1 - (4 * beta * u) * (4 * beta * u)));
    };
    if (std::fabs(t) < 1e-9L || std::fabs(std::fabs(4 * beta * t) - 1) < 1e-9L)
        return (f(t + 1e-7L) + f(t - 1e-7L)) / 2;
    return f(t);
}

// Textbook raised cosine: sinc(t) cos(pi b t) / (1 - (2 b t)^2).
long double rc_reference(long double beta, long double t) {
    auto f = [beta](long double u) {
        const long double s = u == 0 ? 1.0L : std::sin(kPiL * u) / (kPiL * u);
        return s * std::cos(kPiL * beta * u) / (1 - (2 * beta * u) * (2 * beta * u));
    };
    if (std::fabs(std::fabs(2 * beta * t) - 1) < 1e-9L) return (f(t + 1e-7L) + f(t - 1e-7L)) / 2;
    return f(t);
}

struct RcosCase {
    const char* shape;
    double beta;
    int sps;
};

std::ostream& operator<<(std::ostream& os, const RcosCase& c) {
    return os << c.shape << " beta " << c.beta << " sps " << c.sps;
}

class RaisedCosine : public ::testing::TestWithParam<RcosCase> {};

// Unit energy, symmetry and the shape of an independent closed form, with the
// singular taps included (beta = 0.25 puts t = +-1 on the RRC grid at sps 4 and
// t = +-2 on the RC grid; beta = 1/3 puts t = +-1.5 on the RC grid).
TEST_P(RaisedCosine, UnitEnergySymmetricAndMatchesClosedForm) {
    const RcosCase c = GetParam();
    const int span = 12;
    std::vector<float> h(span * c.sps + 1, -99.0f);
    int len = 0;
    CommonFun cf;
    cf.rcosdesignForC(c.beta, span, c.sps, c.shape, h.data(), &len);
    ASSERT_EQ(len, span * c.sps + 1);

    const bool rc = c.shape[0] == 'n' || c.shape[0] == 'N';
    std::vector<long double> ref(len);
    long double energy = 0;
    for (int i = 0; i < len; ++i) {
        const long double t = static_cast<long double>(i - len / 2) / c.sps;
        ref[i] = rc ? rc_reference(c.beta, t) : rrc_reference(c.beta, t);
        energy += ref[i] * ref[i];
    }
    double sum2 = 0;
    for (int i = 0; i < len; ++i) {
        ASSERT_TRUE(std::isfinite(h[i])) << i;
        ASSERT_EQ(h[i], h[len - 1 - i]) << i;
        ASSERT_NEAR(h[i], static_cast<double>(ref[i] / std::sqrt(energy)), 2e-7) << "tap " << i;
        sum2 += static_cast<double>(h[i]) * h[i];
    }
    EXPECT_NEAR(sum2, 1.0, 1e-6);
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, RaisedCosine,
    ::testing::Values(RcosCase{"sqrt", 0.35, 4}, RcosCase{"sqrt", 0.25, 4},
                      RcosCase{"sqrt", 0.5, 8}, RcosCase{"normal", 0.35, 4},
                      RcosCase{"normal", 0.25, 4}, RcosCase{"Normal", 1.0 / 3.0, 4},
                      RcosCase{"sqrt", 0.22, 3}));

TEST(RaisedCosine, SingularTapsTakeTheLimitValue) {
    // RC, beta = 1/3, sps 4: t = 1.5 is index 24 + 6; the limit is
    // (pi/4) sinc(1.5) / sps before normalisation, i.e. -1/24.
    CommonFun cf;
    std::vector<float> h(49);
    int len = 0;
    cf.rcosdesignForC(1.0 / 3.0, 12, 4, "normal", h.data(), &len);
    const double centre = h[24];  // sinc(0) / sps = 1/4 before normalisation
    EXPECT_NEAR(h[30] / centre, (-1.0 / 24.0) / 0.25, 1e-6);
    // RRC, beta = 0.25: t = 1 (index 28); the limit is
    // (b / sqrt 2)[(1 + 2/pi) sin(pi/4b) + (1 - 2/pi) cos(pi/4b)] / sps.
    cf.rcosdesignForC(0.25, 12, 4, "sqrt", h.data(), &len);
    const double b = 0.25;
    const double limit = b / std::sqrt(2.0) *
                         ((1 + 2 / M_PI) * std::sin(M_PI / (4 * b)) +
                          (1 - 2 / M_PI) * std::cos(M_PI / (4 * b)));
    const double peak = 1 - b + 4 * b / M_PI;  // t = 0
    EXPECT_NEAR(h[28] / h[24], limit / peak, 1e-6);
}

TEST(Gaussian, UnitSumSymmetricAndMatchesClosedForm) {
    // h(t) ~ exp(-2 (pi BT t)^2 / ln 2), BT = 0.5, span 12, sps 4.
    CommonFun cf;
    std::vector<float> h(49);
    int len = 0;
    cf.gaussdesignForC(0.5, 12, 4, h.data(), &len);
    ASSERT_EQ(len, 49);
    long double total = 0;
    std::vector<long double> ref(len);
    for (int i = 0; i < len; ++i) {
        const long double t = -6.0L + i / 4.0L;
        ref[i] = std::exp(-2 * (kPiL * 0.5L * t) * (kPiL * 0.5L * t) / std::log(2.0L));
        total += ref[i];
    }
    double sum = 0;
    for (int i = 0; i < len; ++i) {
        ASSERT_EQ(h[i], h[len - 1 - i]);
        ASSERT_NEAR(h[i], static_cast<double>(ref[i] / total), 1e-7) << i;
        sum += h[i];
    }
    EXPECT_NEAR(sum, 1.0, 1e-6);
}

TEST(GetFilter, RectangularHalfSineAndUnknownTypes) {
    CommonFun cf;
    std::vector<float> h(49, -1.0f);
    int len = 0, err = 7;
    cf.getFilter(FILTER_RECT, 0.35, 12, 4, h.data(), &len, &err);
    EXPECT_EQ(err, 0);
    ASSERT_EQ(len, 5);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(h[i], 1.0f);

    cf.getFilter(FILTER_HALFSINE, 0.35, 12, 4, h.data(), &len, &err);
    EXPECT_EQ(err, 0);
    ASSERT_EQ(len, 5);
    const float expected[5] = {0.0f, 0.70710678f, 1.0f, 0.70710678f, 0.0f};
    for (int i = 0; i < 5; ++i) EXPECT_NEAR(h[i], expected[i], 1e-7);

    for (int code : {0, 6, 7}) {
        len = 99;
        err = 0;
        cf.getFilter(static_cast<FilterType>(code), 0.35, 12, 4, h.data(), &len, &err);
        EXPECT_EQ(err, -1) << code;
        EXPECT_EQ(len, 0) << code;
    }
}

TEST(Conv2, ValidPartOnly) {
    CommonFun cf;
    const std::vector<Complex> x{{1, 0}, {2, 1}, {3, 0}, {4, -1}, {5, 0}};
    const float h[3] = {1.0f, 10.0f, 100.0f};
    std::vector<Complex> y(5);
    int ylen = 0;
    cf.conv2_complex(x.data(), 5, h, 3, y.data(), &ylen);
    ASSERT_EQ(ylen, 3);
    // No reversal: y[i] = x[i] + 10 x[i+1] + 100 x[i+2].
    EXPECT_EQ(y[0].re, 321.0);
    EXPECT_EQ(y[0].im, 10.0);
    EXPECT_EQ(y[1].re, 432.0);
    EXPECT_EQ(y[1].im, -99.0);
    EXPECT_EQ(y[2].re, 543.0);
    EXPECT_EQ(y[2].im, -10.0);
    cf.conv2_complex(x.data(), 2, h, 3, y.data(), &ylen);
    EXPECT_EQ(ylen, 0);
}

ExParamOut make_param(double rb, double rolloff, uint32_t filterType) {
    ExParamOut p{};
    p.Rb = rb;
    p.rolloff = rolloff;
    p.filterType = filterType;
    return p;
}

class MatchFilterLength : public ::testing::TestWithParam<std::pair<uint32_t, int>> {};

// Output length n - L + 1, with L = 12 sps + 1 or sps + 1, and 0 for unknown
// types and blocks shorter than the filter.
TEST_P(MatchFilterLength, LengthFollowsTheFilter) {
    const uint32_t type = GetParam().first;
    const int filterLen = GetParam().second;
    CommonFun cf;
    for (int n : {0, 4, 48, 49, 200}) {
        std::vector<Complex> in(n + 1, Complex{1.0, 0.0});
        std::vector<Complex> out(n + 1, Complex{-5.0, -5.0});
        int outLen = -1;
        cf.matchFilter(in.data(), n, 4000.0, make_param(1000.0, 0.35, type), out.data(), outLen);
        const int expected = filterLen > 0 && n >= filterLen ? n - filterLen + 1 : 0;
        EXPECT_EQ(outLen, expected) << "type " << type << " n " << n;
        EXPECT_EQ(out[expected].re, -5.0) << "wrote past the output";
    }
}

INSTANTIATE_TEST_SUITE_P(Types, MatchFilterLength,
                         ::testing::Values(std::make_pair(1u, 49), std::make_pair(2u, 49),
                                           std::make_pair(3u, 49), std::make_pair(4u, 5),
                                           std::make_pair(5u, 5), std::make_pair(0u, 0),
                                           std::make_pair(6u, 0),
                                           std::make_pair(0xFFFFFFFFu, 0)));

TEST(MatchFilter, ImpulseComesOutAsThePulseWithItsDelayRemoved) {
    // sps = floor(4.7) = 4: an impulse at input 100 gives the taps at outputs
    // 100 - 24 .. 100 + 24 (the filter is symmetric).
    CommonFun cf;
    const int n = 300;
    std::vector<Complex> in(n, Complex{0.0, 0.0});
    in[100] = Complex{2.0, -1.0};
    std::vector<Complex> out(n);
    int outLen = 0;
    cf.matchFilter(in.data(), n, 4700.0, make_param(1000.0, 0.35, FILTER_RRC), out.data(),
                   outLen);
    ASSERT_EQ(outLen, n - 48);
    std::vector<float> h(49);
    int len = 0;
    CommonFun designer;
    designer.rcosdesignForC(0.35, 12, 4, "sqrt", h.data(), &len);
    for (int i = 0; i < outLen; ++i) {
        const int j = 100 - i;
        const double tap = j >= 0 && j < 49 ? h[j] : 0.0;
        ASSERT_EQ(out[i].re, 2.0 * tap) << i;
        ASSERT_EQ(out[i].im, -1.0 * tap) << i;
    }
}

TEST(MatchFilter, HistoryBookkeepingEndsEmpty) {
    CommonFun cf;
    std::vector<Complex> in(100, Complex{1.0, 0.0}), out(100);
    int outLen = 0;
    const ExParamOut p = make_param(1000.0, 0.35, FILTER_RRC);
    cf.matchFilter(in.data(), 100, 4000.0, p, out.data(), outLen);
    EXPECT_EQ(cf.mfInitialised, 1);
    EXPECT_EQ(cf.mfHistLen, 48);
    EXPECT_EQ(cf.mfFilterLen, 49);
    const Complex first = out[10];
    cf.matchFilter(in.data(), 100, 4000.0, p, out.data(), outLen);
    EXPECT_EQ(cf.mfHistLen, 0);
    EXPECT_EQ(outLen, 52);  // no samples carried over from the first block
    EXPECT_EQ(out[10].re, first.re);
}

TEST(MatchFilter, NanRolloffIsSurvived) {
    CommonFun cf;
    std::vector<Complex> in(100, Complex{1.0, 0.0}), out(100);
    int outLen = 0;
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (uint32_t type : {1u, 2u, 3u}) {
        cf.matchFilter(in.data(), 100, 4000.0, make_param(1000.0, nan, type), out.data(),
                       outLen);
        EXPECT_EQ(outLen, 52);
        EXPECT_TRUE(std::isnan(out[0].re)) << type;
    }
    // NaN or zero rate ratios fall back to one sample per symbol.
    cf.matchFilter(in.data(), 100, nan, make_param(1000.0, 0.35, FILTER_RRC), out.data(),
                   outLen);
    EXPECT_EQ(outLen, 100 - 12);
    cf.matchFilter(in.data(), 100, 1e300, make_param(1e-300, 0.35, FILTER_RRC), out.data(),
                   outLen);
    EXPECT_EQ(outLen, 0);
}

}  // namespace
