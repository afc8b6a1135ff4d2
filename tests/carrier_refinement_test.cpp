// Residual carrier offset by the power method on generated PSK and QAM
// captures with a known offset.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <vector>

#include "CommonFun.h"
#include "capture_runner.h"

namespace {

namespace sg = vantrel::siggen;
constexpr int kLen = 16384;
// 2.5 Hz bins: the offsets below put the stripped line exactly on a bin.
constexpr double kFs = 2.5 * kLen;
constexpr double kBinHz = kFs / kLen;

// Rectangular pulses at 4 samples per symbol keep the PSK envelope constant,
// so x^M is a pure line at M times the offset.
std::vector<Complex> capture(int mode, double offsetHz) {
    sg::Config c = captureConfig(mode, 4, kLen, 1, kFs / 4);
    c.filterType = sg::kRect;
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

}  // namespace
