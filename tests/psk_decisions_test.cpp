// PSK decisions and constellation scaling.
#include <gtest/gtest.h>

#include <cmath>
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
    // Exactly 0 and multiples of 2 pi / M, built from atan2's own values.
    EXPECT_EQ(decide({{1, 0}, {0, 1}, {-1, 0}, {0, -1}}, 4).symbols,
              (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(decide({{1, 0}, {1, 1}, {0, 1}, {-1, -1}}, 8).symbols,
              (std::vector<int>{0, 1, 2, 5}));
    // BPSK: index 0 around 0 (including above 3 pi / 2), index 1 around pi;
    // pi / 2 opens index 1 and 3 pi / 2 reopens index 0.
    const Decided b = decide({polar(1, 0.3), polar(1, kPi - 0.2), {0, 1}, {0, -1}}, 2);
    EXPECT_EQ(b.symbols, (std::vector<int>{0, 1, 1, 0}));
    EXPECT_NEAR(b.phase[1], -0.2, 1e-12);
    EXPECT_NEAR(b.phase[3], -kPi / 2, 1e-12);
}

// Sector centres counter-clockwise: QPSK labels 00, 01, 11, 10 (MSB first),
// and every 8PSK neighbour pair differs in one bit; k bits per symbol and
// nothing written beyond them.
TEST(PskDecisions, GrayLabelsRunCounterClockwise) {
    for (const int M : {4, 8}) {
        const int k = M == 4 ? 2 : 3;
        std::vector<Complex> x;
        for (int j = 0; j < M; ++j) x.push_back(polar(1, kPi / M + j * 2 * kPi / M));
        const Decided d = decide(x, M);
        ASSERT_EQ(d.bitCount, k * M);
        EXPECT_EQ(d.bits[k * M], -1);
        if (M == 4) {
            EXPECT_EQ(std::vector<int>(d.bits.begin(), d.bits.begin() + 8),
                      (std::vector<int>{0, 0, 0, 1, 1, 1, 1, 0}));
        }
        for (int j = 0; j < M; ++j) {
            int diff = 0;
            for (int t = 0; t < k; ++t) diff += d.bits[k * j + t] != d.bits[k * ((j + 1) % M) + t];
            EXPECT_EQ(diff, 1) << M << " sector " << j;
        }
    }
}

TEST(PskDecisions, ErrorsAreMeasuredAgainstTheSectorMeans) {
    // Sector 0 holds two points with mean (0.9, 0.9), sector 2 one point; the
    // scale R is the largest mean modulus.
    const Decided d = decide({{1.0, 0.8}, {0.8, 1.0}, {-0.5, -0.5}}, 4);
    const double R = std::sqrt(1.62);
    EXPECT_NEAR(d.evm[0], std::sqrt(0.02) / R * 100, 1e-12);
    EXPECT_NEAR(d.mag[0], (std::sqrt(1.64) - R) / R * 100, 1e-12);
    EXPECT_NEAR(d.evm[2], 0.0, 1e-12);
    // Only sector 0 occupied, at radius 0.5: the empty sectors fall back to
    // unit points, so R = 1 and the EVM is the plain distance in percent.
    const Decided e = decide({polar(0.5, kPi / 4 - 0.1), polar(0.5, kPi / 4 + 0.1)}, 4);
    EXPECT_NEAR(e.evm[0], 0.5 * std::sin(0.1) * 100, 1e-12);
}

struct ScaleCase {
    uint32_t mode;
    double radius;
    double fraction;
};

class NormStar : public ::testing::TestWithParam<ScaleCase> {};

// The mean of the largest share of magnitudes lands on the outer radius, by
// pure scaling (in place).
TEST_P(NormStar, LargestShareAveragesToTheTarget) {
    const ScaleCase c = GetParam();
    const int n = 64;
    std::vector<Complex> x(n);
    for (int i = 0; i < n; ++i) x[i] = polar(0.1 + 0.05 * i, 0.37 * i);
    std::vector<Complex> y = x;
    CommonFun cf;
    cf.normStar(y.data(), n, makeParam(1000.0, c.mode), y.data());
    const int count = std::max(1, static_cast<int>(n * c.fraction));
    double sum = 0.0;
    for (int i = n - count; i < n; ++i) sum += Complex_abs(y[i]);
    EXPECT_NEAR(sum / count, c.radius, 1e-12);
    const double gain = Complex_abs(y[0]) / Complex_abs(x[0]);
    for (int i = 0; i < n; ++i) EXPECT_NEAR(y[i].re, x[i].re * gain, 1e-12);
}

INSTANTIATE_TEST_SUITE_P(Modes, NormStar,
                         ::testing::Values(ScaleCase{MOD_QPSK, 1.0, 1.0},
                                           ScaleCase{MOD_16QAM, 3 * std::sqrt(2.0), 0.25},
                                           ScaleCase{MOD_64QAM, 7 * std::sqrt(2.0), 0.0625},
                                           ScaleCase{MOD_128QAM, 13.0384, 0.0625},
                                           ScaleCase{MOD_256QAM, 21.2132, 0.015625},
                                           ScaleCase{MOD_32QAM, 5.831, 0.25}));

}  // namespace
