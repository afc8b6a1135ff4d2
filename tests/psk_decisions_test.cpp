// PSK decisions and constellation scaling.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "CommonFun.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

struct Decided {
    std::vector<int> symbols, bits;
    std::vector<double> evm, mag, phase;
    int bitCount = -1;
};

Decided decide(const std::vector<Complex>& x, int M) {
    const int n = static_cast<int>(x.size());
    Decided d{std::vector<int>(n, -1), std::vector<int>(n * 3 + 1, -1), std::vector<double>(n, -1),
              std::vector<double>(n, -1), std::vector<double>(n, -1)};
    CommonFun().symbolDecisionForPSK(x.data(), n, M, d.symbols.data(), d.bits.data(), &d.bitCount,
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

}  // namespace
