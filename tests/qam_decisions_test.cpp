// QAM decisions: labelling of every grid point, threshold strictness, and the
// centroid-based error figures with their reference amplitude.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "CommonFun.h"
#include "siggen.h"

namespace {

struct Decided {
    std::vector<int> symbols, bits;
    std::vector<double> evm, mag, phase;
    int bitCount = -1;
    double phaseOffset = -7.0;
};

// Output arrays pre-filled with -1 so that untouched entries show.
Decided decide(const std::vector<Complex>& x, int order) {
    const int n = static_cast<int>(x.size());
    Decided d{std::vector<int>(n, -1), std::vector<int>(n * 8 + 1, -1), std::vector<double>(n, -1),
              std::vector<double>(n, -1), std::vector<double>(n, -1)};
    CommonFun().symbolDecisionForQAM(x.data(), n, order, d.symbols.data(), d.bits.data(), &d.bitCount,
                                     d.evm.data(), d.mag.data(), d.phase.data(), d.phaseOffset);
    return d;
}

std::vector<Complex> alphabet(int mode, double turn = 0.0) {
    std::vector<Complex> x;
    for (const auto& p : vantrel::siggen::alphabetFor(mode).points) {
        const auto r = p * std::polar(1.0, turn);
        x.push_back(Complex{r.real(), r.imag()});
    }
    return x;
}

class QamRoundTrip : public ::testing::TestWithParam<int> {};

// Every ideal point of the order decides to its own label with the bits of
// that label (the generator numbers its alphabet by an independent copy of the
// tables, so this also pins the two labellings together). Each cluster holds
// one exact point: every error is 0 and no rotation is reported.
TEST_P(QamRoundTrip, EveryGridPointDecidesToItsLabel) {
    const int mode = GetParam();
    int order = 0, B = 0;
    ASSERT_TRUE(vantrel::siggen::modeInfo(mode, nullptr, &order, &B));
    const auto truth = vantrel::siggen::alphabetFor(mode);
    const Decided d = decide(alphabet(mode), order);
    ASSERT_EQ(d.bitCount, order * B);
    EXPECT_EQ(d.bits[order * B], -1);
    for (int s = 0; s < order; ++s) {
        EXPECT_EQ(d.symbols[s], s);
        for (int k = 0; k < B; ++k) EXPECT_EQ(d.bits[s * B + k], truth.bits[s][k]) << s;
        EXPECT_TRUE(d.evm[s] == 0.0 && d.mag[s] == 0.0 && d.phase[s] == 0.0) << s;
    }
    EXPECT_EQ(d.phaseOffset, 0.0);
}

INSTANTIATE_TEST_SUITE_P(AllOrders, QamRoundTrip,
                         ::testing::Values(MOD_16QAM, MOD_32QAM, MOD_64QAM, MOD_128QAM,
                                           MOD_256QAM));

// Points exactly on thresholds, where a strict and an inclusive comparison
// decide differently; each row worked out by hand from the labelling rules.
TEST(QamDecisions, ThresholdsKeepTheirStrictness) {
    const struct { int order; Complex p; int symbol; } rows[] = {
        {16, {0, 0}, 5},     // I = 0 negative, Q = 0 positive: bits 1 0 1 0
        {32, {2, 4}, 20},    // |I| >= 2 and |Q| <= 4 inclusive, |Q| < 4 strict
        {64, {6, 2}, 43},    // 2 <= |Q| and |I| <= 6 inclusive
        {128, {2, 2}, 98},   // 2 < |.| strict
        {256, {-4, 4}, 85},  // 4 < |.| strict, 2 <= |.| <= 6 inclusive
    };
    for (const auto& r : rows) EXPECT_EQ(decide({r.p}, r.order).symbols[0], r.symbol) << r.order;
}

// Corners alone: labels 0, 8, 2, 10 and the reference amplitude R = 3 sqrt 2,
// seen through a second cluster member 0.3 off the (3, 3) corner's centroid.
TEST(QamDecisions, ReferenceAmplitudeComesFromTheCorners) {
    const Decided corners = decide({{-3, 3}, {3, 3}, {-3, -3}, {3, -3}}, 16);
    EXPECT_EQ(corners.symbols, (std::vector<int>{0, 8, 2, 10}));
    for (double e : corners.evm) EXPECT_EQ(e, 0.0);

    const Decided d = decide({{-3, 3}, {3.3, 3}, {2.7, 3}, {-3, -3}, {3, -3}}, 16);
    const double R = 3 * std::sqrt(2.0);
    EXPECT_NEAR(d.evm[1], 0.3 / R * 100, 1e-12);
    EXPECT_NEAR(d.mag[1], (std::hypot(3.3, 3) - R) / R * 100, 1e-12);
    EXPECT_NEAR(d.phase[1], std::atan2(3, 3.3) - std::atan2(3, 3), 1e-12);

    // No corner present: the mean of empty clusters is 0, so R falls back to
    // 1 and the percentages are on the grid scale.
    const Decided inner = decide({{1, 1}, {1.2, 1}}, 16);
    EXPECT_NEAR(inner.evm[0], 10.0, 1e-12);
    // With one of the four corners empty, it still counts in the divisor.
    const Decided three = decide({{-3, 3}, {3.3, 3}, {2.7, 3}, {-3, -3}}, 16);
    EXPECT_NEAR(three.evm[1], 0.3 / (0.75 * R) * 100, 1e-12);
}

// A rotation of the whole alphabet shows as phaseOffset for 128 points only.
TEST(QamDecisions, RotationIsReportedFor128PointsOnly) {
    const Decided d128 = decide(alphabet(MOD_128QAM, 0.05), 128);
    EXPECT_NEAR(d128.phaseOffset, 0.05, 1e-12);
    const Decided d64 = decide(alphabet(MOD_64QAM, 0.05), 64);
    EXPECT_EQ(d64.phaseOffset, 0.0);
}

}  // namespace
