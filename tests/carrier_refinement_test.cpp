// Residual carrier offset by the power method on generated PSK and QAM
// captures with a known offset.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <vector>

#include "CommonFun.h"
#include "siggen.h"

namespace {

namespace sg = vantrel::siggen;
constexpr int kLen = 16384;
// 2.5 Hz bins: the offsets below put the stripped line exactly on a bin.
constexpr double kFs = 2.5 * kLen;
constexpr double kBinHz = kFs / kLen;

// Rectangular pulses at 4 samples per symbol keep the PSK envelope constant,
// so x^M is a pure line at M times the offset.
std::vector<Complex> capture(int mode, double offsetHz) {
    sg::Config c;
    c.mode = mode;
    c.Rb = kFs / 4;
    c.sps = 4;
    c.filterType = sg::kRect;
    c.numSamples = kLen;
    c.carrierOffsetHz = offsetHz;
    std::vector<Complex> x;
    for (const auto& v : sg::generate(c).baseband) x.push_back(Complex{v.real(), v.imag()});
    return x;
}

struct Refined {
    int fc;
    double level;
};

Refined calcFc(const std::vector<Complex>& x, int n, double fs, ModType type, int order, int mode) {
    ExParamOut p{};
    p.mode = static_cast<uint32_t>(mode);
    Refined r{-12345, -777.0};
    CommonFun().calcFc(x.data(), n, fs, type, order, p, &r.fc, &r.level);
    return r;
}

// The line of the D-th power lies D * offset / kBinHz bins from the centre;
// the estimate reports the one-based bin, one bin above it before the
// division by D, rounded half away from zero.
long expected(double offsetHz, int D) { return std::lround((D * offsetHz / kBinHz + 1) * kBinHz / D); }

// PSK: the M-th power of a constant envelope A is a line of level A^M.
TEST(CalcFc, PskFindsTheLineOfTheMthPower) {
    const struct { int order, mode; double offset; } cases[] = {
        {2, MOD_BPSK, 25.0}, {2, MOD_BPSK, -50.0}, {4, MOD_QPSK, -187.5}, {8, MOD_8PSK, 62.5}};
    for (const auto& c : cases) {
        const auto x = capture(c.mode, c.offset);
        const Refined r = calcFc(x, kLen, kFs, MT_PSK, c.order, c.mode);
        EXPECT_EQ(r.fc, expected(c.offset, c.order)) << c.order << " " << c.offset;
        const double A = std::hypot(x[0].re, x[0].im);
        EXPECT_NEAR(r.level, 20.0 * c.order * std::log10(A), 1e-6) << c.order;
    }
}

// 16-QAM: the fourth power leaves a line of E[s^4] = 2 E[a^4] - 6 E[a^2]^2 =
// -68 times the pulse amplitude^4 (levels +-1, +-3) over a data-dependent
// floor, found with 4096 symbols; the divisor is 4 whatever the order (64
// here). 32-QAM is never corrected here, but its line level is measured as
// for the other orders.
TEST(CalcFc, QamFindsTheFourthPowerLineAndSkips32Qam) {
    const double a = std::fabs(capture(MOD_BPSK, 0.0)[0].re);  // the pulse amplitude
    for (double offset : {25.0, -100.0}) {
        const auto x = capture(MOD_16QAM, offset);
        const Refined r = calcFc(x, kLen, kFs, MT_QAM, 64, MOD_16QAM);
        EXPECT_EQ(r.fc, expected(offset, 4)) << offset;
        EXPECT_NEAR(r.level, 20.0 * std::log10(68.0 * std::pow(a, 4)), 0.5) << offset;
        const Refined r32 = calcFc(x, kLen, kFs, MT_QAM, 32, MOD_32QAM);
        EXPECT_EQ(r32.fc, 0);
        EXPECT_EQ(r32.level, calcFc(x, kLen, kFs, MT_QAM, 32, MOD_16QAM).level);
    }
}

// Silence: every bin is 0, the first bin wins, and the level falls back to
// the -100 dB sentinel. Refusals give a zero offset and a zero level.
TEST(CalcFc, SentinelsAndRefusals) {
    const std::vector<Complex> z(kLen, Complex{0.0, 0.0});
    const Refined silent = calcFc(z, kLen, kFs, MT_PSK, 2, MOD_BPSK);
    EXPECT_EQ(silent.fc, std::lround((-kFs / 2 + kBinHz) / 2));
    EXPECT_EQ(silent.level, -100.0);
    const auto x = capture(MOD_BPSK, 50.0);
    const Refined refused[] = {calcFc(x, 0, kFs, MT_PSK, 2, MOD_BPSK), calcFc(x, kLen, 0.0, MT_PSK, 2, MOD_BPSK),
                               calcFc(x, kLen, kFs, MT_ASK, 2, MOD_ASK), calcFc(x, kLen, kFs, MT_FSK, 2, MOD_2FSK)};
    for (const Refined& r : refused) {
        EXPECT_EQ(r.fc, 0);
        EXPECT_EQ(r.level, 0.0);
    }
    // A NaN rate or a zero order makes the estimate non-finite: the
    // conversion must give 0 or saturate, not be undefined.
    EXPECT_EQ(calcFc(x, kLen, std::numeric_limits<double>::quiet_NaN(), MT_PSK, 2, MOD_BPSK).fc, 0);
    EXPECT_EQ(calcFc(x, kLen, kFs, MT_PSK, 0, 0).fc, INT_MAX);
}

// A short block is zero-padded: the 100 samples of a 1000 Hz line give a
// widened line one bin high, and the garbage past n must not be read.
TEST(CalcFc, ShortBlockIsZeroPadded) {
    std::vector<Complex> x(kLen, Complex{123.0, 456.0});
    const double step = 6.283185307179586 * 1000 / kFs;
    for (int n = 0; n < 100; ++n) x[n] = Complex{std::cos(step * n), std::sin(step * n)};
    const Refined r = calcFc(x, 100, kFs, MT_PSK, 1, 0);
    EXPECT_NEAR(r.fc, 1000.0 + kBinHz, kBinHz);
    EXPECT_NEAR(r.level, 20.0 * std::log10(100.0 / kLen), 0.1);
}

}  // namespace
