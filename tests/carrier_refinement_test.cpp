// Residual carrier offset by the power method on generated PSK and QAM
// captures with a known offset.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <ostream>
#include <limits>
#include <vector>

#include "CommonFun.h"
#include "front_end_captures.h"

namespace {

constexpr int kLen = 16384;
// Rates chosen so that the bins are 2.5 Hz wide and the offsets below put
// the stripped line exactly on a bin.
constexpr double kFs = 2.5 * kLen;
constexpr double kBinHz = kFs / kLen;

struct Refined {
    int fc;
    double level;
};

Refined run_fc(const std::vector<Complex>& x, int n, double fs, ModType type, int order,
               int mode) {
    CommonFun cf;
    ExParamOut p{};
    p.mode = static_cast<uint32_t>(mode);
    p.Rb = fs / 4;
    Refined r{-12345, -777.0};
    cf.calcFc(x.data(), n, fs, type, order, p, &r.fc, &r.level);
    return r;
}

// The stripped line of a D-th power sits at D * offset; the estimate reports
// the one-based bin: f = (-fs/2 + (fs/16384)(k + 1)) / D with k the line's
// zero-based bin, i.e. one bin (before the division) above it.
long expected_offset(double offsetHz, int D) {
    const double lineBin = D * offsetHz / kBinHz;  // bins from the centre
    return captures::half_away((lineBin + 1) * kBinHz / D);
}

struct PskCase {
    int order;     // 2, 4, 8
    int mode;      // public code
    double offset; // residual carrier offset, Hz
};

void PrintTo(const PskCase& c, std::ostream* os) {
    *os << c.order << "PSK_" << c.offset << "Hz";
}

class PskRefineTest : public ::testing::TestWithParam<PskCase> {};

// Rectangular pulses keep the envelope constant, so x^M is a pure line of
// amplitude A^M at M * offset.
TEST_P(PskRefineTest, FindsTheLineOfTheMthPower) {
    const PskCase c = GetParam();
    captures::Rng rng(static_cast<unsigned>(c.order) * 31u);
    const double A = 0.9;
    auto x = captures::hold_and_rotate(captures::psk_symbols(kLen / 4, c.order, rng), 4,
                                       c.offset, kFs);
    for (Complex& v : x) {
        v.re *= A;
        v.im *= A;
    }
    const Refined r = run_fc(x, kLen, kFs, MT_PSK, c.order, c.mode);
    EXPECT_EQ(r.fc, expected_offset(c.offset, c.order));
    EXPECT_NEAR(r.level, 20.0 * c.order * std::log10(A), 1e-6);
}

INSTANTIATE_TEST_SUITE_P(
    Offsets, PskRefineTest,
    ::testing::Values(PskCase{2, MOD_BPSK, 25.0},     // line at +20 bins: (21 * 2.5)/2 = 26.25
                      PskCase{2, MOD_BPSK, -50.0},    // -40 bins: -48.75 -> -49
                      PskCase{2, MOD_BPSK, 0.0},      // centre: 1.25 -> 1
                      PskCase{4, MOD_QPSK, 12.5},     // +20 bins: 13.125 -> 13
                      PskCase{4, MOD_QPSK, -187.5},   // -300 bins: -186.875 -> -187
                      PskCase{8, MOD_8PSK, 62.5}));   // +200 bins: 62.8125 -> 63

// 16-QAM: the fourth power leaves a line of E[s^4] = 2 E[a^4] - 6 E[a^2]^2 =
// 82 - 150 = -68 (levels +-1, +-3) at four times the offset, on top of a
// data-dependent floor; with 4096 symbols the line is found, and its level is
// |E[s^4]| within the spread of the sample mean.
class QamRefineTest : public ::testing::TestWithParam<double> {};

TEST_P(QamRefineTest, FindsTheFourthPowerLine) {
    const double offset = GetParam();
    captures::Rng rng(1234);
    const auto x = captures::hold_and_rotate(captures::qam_symbols(kLen / 4, 4, rng), 4, offset,
                                             kFs);
    for (int order : {16, 64}) {  // the divisor is 4 whatever the order
        const Refined r = run_fc(x, kLen, kFs, MT_QAM, order, MOD_16QAM);
        EXPECT_EQ(r.fc, expected_offset(offset, 4)) << offset;
        EXPECT_NEAR(r.level, 20.0 * std::log10(68.0), 0.5) << offset;
    }
}

// 25 Hz: line at +40 bins, (41 * 2.5)/4 = 25.625 -> 26. 0 Hz: 2.5/4 -> 1.
INSTANTIATE_TEST_SUITE_P(Offsets, QamRefineTest, ::testing::Values(25.0, -100.0, 0.0));

// Without offset the line is at the centre bin and the estimate is a quarter
// bin: at fs = 16384 Hz that rounds to 0.
TEST(CalcFc, QamWithoutOffsetRoundsAQuarterBinAway) {
    captures::Rng rng(77);
    const auto x = captures::hold_and_rotate(captures::qam_symbols(kLen / 4, 4, rng), 4, 0.0,
                                             16384.0);
    EXPECT_EQ(run_fc(x, kLen, 16384.0, MT_QAM, 16, MOD_16QAM).fc, 0);
    EXPECT_EQ(run_fc(x, kLen, 16384.0 * 2.0, MT_QAM, 16, MOD_16QAM).fc, 1);  // 0.5 -> 1
}

// 32-QAM gets a zero offset even with a real one, but its level is measured
// exactly as for the other QAM orders.
TEST(CalcFc, ThirtyTwoQamIsNeverCorrected) {
    captures::Rng rng(9);
    const auto x = captures::hold_and_rotate(captures::qam_symbols(kLen / 4, 4, rng), 4, 100.0,
                                             kFs);
    const Refined r32 = run_fc(x, kLen, kFs, MT_QAM, 32, MOD_32QAM);
    const Refined r16 = run_fc(x, kLen, kFs, MT_QAM, 32, MOD_16QAM);
    EXPECT_EQ(r32.fc, 0);
    EXPECT_EQ(r16.fc, expected_offset(100.0, 4));
    EXPECT_EQ(r32.level, r16.level);
    EXPECT_GT(r32.level, 0.0);
}

// Silence: every bin is 0, the first bin wins the tie, and the level falls
// back to the sentinel.
TEST(CalcFc, AllZeroBlockGivesTheLowestBinAndTheLevelSentinel) {
    const std::vector<Complex> z(kLen, Complex{0.0, 0.0});
    const Refined r = run_fc(z, kLen, kFs, MT_PSK, 2, MOD_BPSK);
    EXPECT_EQ(r.fc, captures::half_away((-kFs / 2 + kBinHz) / 2));  // -10238.75
    EXPECT_EQ(r.level, -100.0);
    const Refined q = run_fc(z, kLen, kFs, MT_QAM, 16, MOD_16QAM);
    EXPECT_EQ(q.fc, captures::half_away((-kFs / 2 + kBinHz) / 4));
    EXPECT_EQ(q.level, -100.0);
}

// Every refusal leaves a zero offset and a zero level.
TEST(CalcFc, RefusalsGiveZeroOffsetAndZeroLevel) {
    captures::Rng rng(4);
    const auto x = captures::hold_and_rotate(captures::psk_symbols(kLen / 4, 2, rng), 4, 50.0,
                                             kFs);
    const std::vector<Refined> results = {
        run_fc(x, 0, kFs, MT_PSK, 2, MOD_BPSK),
        run_fc(x, -5, kFs, MT_PSK, 2, MOD_BPSK),
        run_fc(x, kLen, 0.0, MT_PSK, 2, MOD_BPSK),
        run_fc(x, kLen, -kFs, MT_PSK, 2, MOD_BPSK),
        run_fc(x, kLen, kFs, MT_ASK, 2, MOD_ASK),
        run_fc(x, kLen, kFs, MT_FSK, 2, MOD_2FSK),
        run_fc(x, kLen, kFs, MT_ANALOG, 0, MOD_ANALOG_AM),
        run_fc(x, kLen, kFs, static_cast<ModType>(7), 2, MOD_BPSK),
        run_fc(x, kLen, kFs, MT_ASK, 32, MOD_32QAM),
    };
    for (size_t i = 0; i < results.size(); ++i) {
        EXPECT_EQ(results[i].fc, 0) << i;
        EXPECT_EQ(results[i].level, 0.0) << i;
    }
}

// Shorter blocks are zero-padded, longer ones cut to their first 16384
// samples: what lies beyond either limit must not change the result.
TEST(CalcFc, AnalysesAtMostTheFirst16384Samples) {
    captures::Rng rng(21);
    auto x = captures::hold_and_rotate(captures::psk_symbols(50000 / 4, 2, rng), 4, 25.0, kFs);
    const Refined base = run_fc(x, kLen, kFs, MT_PSK, 2, MOD_BPSK);
    for (size_t n = kLen; n < x.size(); ++n) x[n] = Complex{30.0, -30.0};  // strong DC tail
    const Refined longer = run_fc(x, 50000, kFs, MT_PSK, 2, MOD_BPSK);
    EXPECT_EQ(longer.fc, base.fc);
    EXPECT_EQ(longer.level, base.level);

    // 100 samples of a pure line: zero-padding widens it but keeps it there.
    std::vector<Complex> shortBlock = captures::tone(100, 1.0, 1000.0, kFs);
    shortBlock.resize(kLen, Complex{123.0, 456.0});  // garbage past n
    const Refined r = run_fc(shortBlock, 100, kFs, MT_PSK, 1, 0);
    EXPECT_NEAR(r.fc, 1000.0 + kBinHz, kBinHz);
    EXPECT_NEAR(r.level, 20.0 * std::log10(100.0 / kLen), 0.1);
}

// Non-finite rates and a zero order reach the rounding as NaN or infinity;
// the conversion must stay defined.
TEST(CalcFc, NonFiniteEstimatesConvertSafely) {
    captures::Rng rng(8);
    const auto x = captures::hold_and_rotate(captures::psk_symbols(kLen / 4, 2, rng), 4, 25.0,
                                             kFs);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_EQ(run_fc(x, kLen, nan, MT_PSK, 2, MOD_BPSK).fc, 0);
    EXPECT_EQ(run_fc(x, kLen, inf, MT_PSK, 2, MOD_BPSK).fc, 0);  // -inf + inf
    EXPECT_EQ(run_fc(x, kLen, 1e15, MT_PSK, 2, MOD_BPSK).fc, INT_MAX);
    const Refined zeroOrder = run_fc(x, kLen, kFs, MT_PSK, 0, 0);  // y = 1: line at 0, f/0
    EXPECT_EQ(zeroOrder.fc, INT_MAX);
}

}  // namespace
