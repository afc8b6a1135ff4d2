// PSK decisions and constellation scaling.
#include <gtest/gtest.h>

#include <cmath>
#include <ostream>
#include <vector>

#include "CommonFun.h"
#include "test_support.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

struct Decided {
    std::vector<int> symbols, bits;
    std::vector<double> evm, mag, phase;
    int bitCount = -1;
};

Decided decide(const std::vector<Complex>& x, int M) {
    const int n = static_cast<int>(x.size());
    Decided d;
    d.symbols.assign(n, -1);
    d.bits.assign(n * 3 + 1, -1);
    d.evm.assign(n, -1);
    d.mag.assign(n, -1);
    d.phase.assign(n, -1);
    CommonFun cf;
    cf.symbolDecisionForPSK(x.data(), n, M, d.symbols.data(), d.bits.data(), &d.bitCount,
                            d.evm.data(), d.mag.data(), d.phase.data());
    return d;
}

Complex polar(double r, double a) { return Complex{r * std::cos(a), r * std::sin(a)}; }

TEST(PskDecisions, SectorLowerBoundsAreInclusive) {
    // Exactly 0 rad and exactly 2 pi / M, for QPSK and 8PSK; both points are
    // built from atan2's own value of the boundary direction.
    const std::vector<Complex> q = {{1.0, 0.0}, {0.0, 1.0}, {-1.0, 0.0}, {0.0, -1.0}};
    const Decided dq = decide(q, 4);
    EXPECT_EQ(dq.symbols, (std::vector<int>{0, 1, 2, 3}));
    const std::vector<Complex> e = {{1.0, 0.0}, {1.0, 1.0}, {0.0, 1.0}, {-1.0, -1.0}};
    const Decided de = decide(e, 8);
    EXPECT_EQ(de.symbols, (std::vector<int>{0, 1, 2, 5}));
    // BPSK: index 0 around 0 (including above 3 pi / 2), index 1 around pi;
    // pi / 2 opens index 1 and 3 pi / 2 reopens index 0.
    const std::vector<Complex> b = {polar(1, 0.3), polar(1, kPi - 0.2), {0.0, 1.0},
                                    polar(1, -0.4), {0.0, -1.0}};
    const Decided db = decide(b, 2);
    EXPECT_EQ(db.symbols, (std::vector<int>{0, 1, 1, 0, 0}));
    EXPECT_NEAR(db.phase[0], 0.3, 1e-12);
    EXPECT_NEAR(db.phase[1], -0.2, 1e-12);
    EXPECT_NEAR(db.phase[3], -0.4, 1e-12);
    EXPECT_NEAR(db.phase[4], -kPi / 2, 1e-12);
}

TEST(PskDecisions, QpskGrayLabelsRunCounterClockwise) {
    std::vector<Complex> x;
    for (int j = 0; j < 4; ++j) x.push_back(polar(1, kPi / 4 + j * kPi / 2));
    const Decided d = decide(x, 4);
    ASSERT_EQ(d.bitCount, 8);
    const std::vector<int> expected = {0, 0, 0, 1, 1, 1, 1, 0};
    EXPECT_EQ(std::vector<int>(d.bits.begin(), d.bits.begin() + 8), expected);
    EXPECT_EQ(d.bits[8], -1) << "nothing past n.k bits";
    for (int j = 0; j < 4; ++j) EXPECT_NEAR(d.phase[j], 0.0, 1e-12);
}

TEST(PskDecisions, EightPskNeighboursDifferInOneBit) {
    std::vector<Complex> x;
    for (int j = 0; j < 8; ++j) x.push_back(polar(1, kPi / 8 + j * kPi / 4));
    const Decided d = decide(x, 8);
    ASSERT_EQ(d.bitCount, 24);
    for (int j = 0; j < 8; ++j) {
        EXPECT_EQ(d.symbols[j], j);
        int diff = 0;
        for (int t = 0; t < 3; ++t) diff += d.bits[3 * j + t] != d.bits[3 * ((j + 1) % 8) + t];
        EXPECT_EQ(diff, 1) << j;
    }
    // Label of sector 5 = Gray 7 = 111, of sector 2 = Gray 3 = 011 (MSB first).
    EXPECT_EQ(std::vector<int>(d.bits.begin() + 15, d.bits.begin() + 18),
              (std::vector<int>{1, 1, 1}));
    EXPECT_EQ(std::vector<int>(d.bits.begin() + 6, d.bits.begin() + 9),
              (std::vector<int>{0, 1, 1}));
}

TEST(PskDecisions, ErrorsAreMeasuredAgainstTheBlockMeans) {
    // Sector 0 holds two points whose mean is (0.9, 0.9); sector 2 one point.
    const std::vector<Complex> x = {{1.0, 0.8}, {0.8, 1.0}, {-0.5, -0.5}};
    const Decided d = decide(x, 4);
    const double R = std::sqrt(0.81 + 0.81);  // largest mean modulus
    EXPECT_NEAR(d.evm[0], std::sqrt(0.01 + 0.01) / R * 100, 1e-12);
    EXPECT_NEAR(d.mag[0], (std::sqrt(1.64) - R) / R * 100, 1e-12);
    EXPECT_NEAR(d.evm[2], 0.0, 1e-12);
    EXPECT_NEAR(d.mag[2], 0.0, 1e-12);
    EXPECT_NEAR(d.phase[0], std::atan2(0.8, 1.0) - kPi / 4, 1e-12);
}

TEST(PskDecisions, EmptySectorFallbackOnlySetsTheScale) {
    // Only sector 0 is occupied, at radius 0.5; the empty sectors fall back
    // to unit points on their lower edges, so R = 1 and the EVM of a point
    // 0.1 away from its mean reads 10 %.
    const std::vector<Complex> x = {polar(0.5, kPi / 4), polar(0.5, kPi / 4 + 0.2)};
    const Decided d = decide(x, 4);
    const Complex mean{(x[0].re + x[1].re) / 2, (x[0].im + x[1].im) / 2};
    const double dx = x[0].re - mean.re, dy = x[0].im - mean.im;
    EXPECT_NEAR(d.evm[0], std::sqrt(dx * dx + dy * dy) * 100, 1e-12);
}

TEST(PskDecisions, AllAtTheOriginAndInvalidArguments) {
    const std::vector<Complex> x(5, Complex{0.0, 0.0});
    const Decided d = decide(x, 8);
    EXPECT_EQ(d.symbols, std::vector<int>(5, 0));
    EXPECT_EQ(d.bitCount, 15);
    for (double e : d.evm) EXPECT_EQ(e, 0.0);

    CommonFun cf;
    int sym[4], bits[8], count = 99;
    double evm[4], mag[4], ph[4];
    cf.symbolDecisionForPSK(x.data(), 4, 1, sym, bits, &count, evm, mag, ph);
    EXPECT_EQ(count, 0);
    count = 99;
    cf.symbolDecisionForPSK(x.data(), 0, 4, sym, bits, &count, evm, mag, ph);
    EXPECT_EQ(count, 0);
    count = 99;
    cf.symbolDecisionForPSK(x.data(), 4, 4, sym, nullptr, &count, evm, mag, ph);
    EXPECT_EQ(count, 0);
}

struct ScaleCase {
    uint32_t mode;
    double radius;
    double fraction;
};

std::ostream& operator<<(std::ostream& os, const ScaleCase& c) {
    return os << "mode " << c.mode;
}

class NormStar : public ::testing::TestWithParam<ScaleCase> {};

TEST_P(NormStar, LargestShareAveragesToTheTarget) {
    const ScaleCase c = GetParam();
    const int n = 64;
    std::vector<Complex> x(n);
    for (int i = 0; i < n; ++i) x[i] = polar(0.1 + 0.05 * i, 0.37 * i);
    CommonFun cf;
    std::vector<Complex> y = x;
    cf.normStar(y.data(), n, makeParam(1000.0, c.mode), y.data());  // in place
    // The largest count magnitudes are the last ones generated.
    const int count = std::max(1, static_cast<int>(n * c.fraction));
    double sum = 0.0;
    for (int i = n - count; i < n; ++i) sum += Complex_abs(y[i]);
    EXPECT_NEAR(sum / count, c.radius, 1e-12);
    // A pure scaling: every angle kept.
    for (int i = 0; i < n; ++i)
        EXPECT_NEAR(std::atan2(y[i].im, y[i].re), std::atan2(x[i].im, x[i].re), 1e-12);
}

INSTANTIATE_TEST_SUITE_P(Modes, NormStar,
                         ::testing::Values(ScaleCase{MOD_QPSK, 1.0, 1.0},
                                           ScaleCase{MOD_BPSK, 1.0, 1.0},
                                           ScaleCase{MOD_16QAM, 3 * std::sqrt(2.0), 0.25},
                                           ScaleCase{MOD_64QAM, 7 * std::sqrt(2.0), 0.0625},
                                           ScaleCase{MOD_128QAM, 13.0384, 0.0625},
                                           ScaleCase{MOD_256QAM, 21.2132, 0.015625},
                                           ScaleCase{MOD_32QAM, 5.831, 0.25}));

TEST(NormStarEdges, ZerosAreCopiedAndEmptyIsANoOp) {
    CommonFun cf;
    std::vector<Complex> z(4, Complex{0.0, 0.0}), out(4, Complex{7.0, 7.0});
    cf.normStar(z.data(), 4, makeParam(1000.0, MOD_QPSK), out.data());
    for (const Complex& c : out) EXPECT_EQ(c.re, 0.0);
    std::vector<Complex> keep(4, Complex{7.0, 7.0});
    cf.normStar(z.data(), 0, makeParam(1000.0, MOD_QPSK), keep.data());
    EXPECT_EQ(keep[0].re, 7.0);
}

}  // namespace
