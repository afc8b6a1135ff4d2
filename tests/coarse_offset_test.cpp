// Coarse offset estimate (peak and centroid) and the offset-removing mixer.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <ostream>
#include <cstdint>
#include <limits>
#include <vector>

#include "CommonFun.h"
#include "front_end_captures.h"

namespace {

constexpr int kLen = 16384;

struct Block {
    std::vector<std::int16_t> I, Q;
};

// A bin-centred int16 tone at `bin` bins from the centre.
Block tone_block(int bin, double amplitude, int len = kLen) {
    Block b;
    const auto x = captures::tone(len, amplitude, bin, kLen);  // fs = 16384 -> 1 bin = 1 Hz
    for (const Complex& c : x) {
        b.I.push_back(captures::to_i16(c.re));
        b.Q.push_back(captures::to_i16(c.im));
    }
    return b;
}

struct Estimate {
    int df;
    double level;
};

Estimate run_calcdf(const Block& b, double fs, int code) {
    CommonFun cf;
    Estimate e{-777, 777.0};
    cf.calcdf(b.I.data(), b.Q.data(), static_cast<int>(b.I.size()), fs,
              static_cast<modulationTypeOut>(code), &e.df, &e.level);
    return e;
}

struct ToneCase {
    int bin;    // tone position relative to the centre bin
    double fs;  // sample rate, Hz
};

void PrintTo(const ToneCase& c, std::ostream* os) {
    *os << "bin" << c.bin << "_fs" << c.fs;
}

class CoarseToneTest : public ::testing::TestWithParam<ToneCase> {};

// The line codes (ASK, first analog code) report the strongest bin; every
// other code reports the power centroid, which the one-based weighting puts
// one bin above the tone.
TEST_P(CoarseToneTest, PeakForLineCodesCentroidOneBinHighForOthers) {
    const ToneCase tc = GetParam();
    const double A = 10000.0;
    const Block b = tone_block(tc.bin, A);
    const double binHz = tc.fs / kLen;

    for (int code : {8, 10}) {
        const Estimate e = run_calcdf(b, tc.fs, code);
        EXPECT_EQ(e.df, captures::half_away(tc.bin * binHz)) << "code " << code;
        // A bin-centred tone of amplitude A has normalised magnitude A.
        EXPECT_NEAR(e.level, 20.0 * std::log10(A), 1e-3) << "code " << code;
    }
    for (int code : {4, 5, 7, 1, 11, 0, 19}) {
        const Estimate e = run_calcdf(b, tc.fs, code);
        EXPECT_EQ(e.df, captures::half_away((tc.bin + 1) * binHz)) << "code " << code;
        EXPECT_EQ(e.level, -1000.0) << "code " << code;
    }
}

INSTANTIATE_TEST_SUITE_P(Tones, CoarseToneTest,
                         ::testing::Values(ToneCase{10, 100000.0}, ToneCase{-37, 48000.0},
                                           ToneCase{0, 16384.0}, ToneCase{-3000, 1.0e6},
                                           ToneCase{2500, 32768.0}));

// With 2.5 Hz bins a line one bin either side of the centre sits on a half:
// both must round away from zero (to-even or floor(x + 0.5) would not).
TEST(CoarseOffset, HalvesRoundAwayFromZero) {
    const double fs = 2.5 * kLen;
    EXPECT_EQ(run_calcdf(tone_block(-1, 8000.0), fs, MOD_ASK).df, -3);
    EXPECT_EQ(run_calcdf(tone_block(1, 8000.0), fs, MOD_ASK).df, 3);
    EXPECT_EQ(run_calcdf(tone_block(-5, 8000.0), fs, MOD_ASK).df, -13);  // -12.5
}

// An impulse has a perfectly flat spectrum (every bin exactly 1000): the
// strict running maximum keeps bin 0, and the one-based centroid lands half a
// bin above the centre.
TEST(CoarseOffset, FlatSpectrumTieKeepsTheLowestBin) {
    Block b{std::vector<std::int16_t>(kLen, 0), std::vector<std::int16_t>(kLen, 0)};
    b.I[0] = 1000;
    const double fs = 16384.0;
    Estimate e = run_calcdf(b, fs, MOD_ASK);
    EXPECT_EQ(e.df, -8192);
    EXPECT_NEAR(e.level, 20.0 * std::log10(1000.0 / 16384.0), 1e-9);
    // Centroid of weights 1..16384 is 8192.5 bins: 0.5 Hz here, rounded up.
    e = run_calcdf(b, fs, MOD_8PSK);
    EXPECT_EQ(e.df, 1);
    e = run_calcdf(b, 3.0 * fs, MOD_8PSK);  // 1.5 Hz
    EXPECT_EQ(e.df, 2);
}

// Only the first 16384 samples are analysed, whatever the length says.
TEST(CoarseOffset, AnalysesOnlyTheFirst16384Samples) {
    Block b = tone_block(40, 9000.0, kLen + 5000);
    for (int n = kLen; n < kLen + 5000; ++n) {  // a much stronger line after the window
        b.I[n] = 32000;
        b.Q[n] = 0;
    }
    EXPECT_EQ(run_calcdf(b, kLen, MOD_ASK).df, 40);
}

TEST(CoarseOffset, AllZeroBlockSentinels) {
    const Block z{std::vector<std::int16_t>(kLen, 0), std::vector<std::int16_t>(kLen, 0)};
    const double fs = 100001.0;  // -fs/2 = -50000.5 -> -50001
    Estimate e = run_calcdf(z, fs, MOD_QPSK);
    EXPECT_EQ(e.df, -50001);
    EXPECT_EQ(e.level, -1000.0);
    e = run_calcdf(z, fs, MOD_ASK);  // peak is bin 0
    EXPECT_EQ(e.df, -50001);
    EXPECT_NEAR(e.level, -600.0, 1e-9);
}

// Rates the entry lets through for analog codes (or a NaN anywhere) must
// give a defined integer: NaN -> 0, out of range -> saturated.
TEST(CoarseOffset, NonFiniteAndHugeRatesConvertSafely) {
    const Block b = tone_block(10, 5000.0);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_EQ(run_calcdf(b, nan, MOD_ASK).df, 0);
    EXPECT_EQ(run_calcdf(b, nan, MOD_QPSK).df, 0);
    EXPECT_EQ(run_calcdf(b, inf, MOD_QPSK).df, 0);  // inf - inf
    EXPECT_EQ(run_calcdf(b, inf, MOD_ASK).df, INT_MAX);
    EXPECT_EQ(run_calcdf(b, 1e15, MOD_ASK).df, INT_MAX);
    EXPECT_EQ(run_calcdf(tone_block(-10, 5000.0), 1e15, MOD_ASK).df, INT_MIN);
}

// ---- the mixer ----

std::vector<Complex> run_mixer(CommonFun& cf, const Block& b, int from, int n, double fs,
                               int df) {
    std::vector<Complex> out(static_cast<size_t>(n));
    cf.correctDF(b.I.data() + from, b.Q.data() + from, n, fs, df, out.data());
    return out;
}

TEST(CorrectDF, ZeroOffsetReproducesTheSamplesExactly) {
    captures::Rng rng(7);
    Block b;
    for (int n = 0; n < 3000; ++n) {
        b.I.push_back(static_cast<std::int16_t>(rng.below(65536) - 32768));
        b.Q.push_back(static_cast<std::int16_t>(rng.below(65536) - 32768));
    }
    CommonFun cf;
    const auto out = run_mixer(cf, b, 0, 3000, 48000.0, 0);
    for (int n = 0; n < 3000; ++n) {
        ASSERT_EQ(out[n].re, static_cast<double>(b.I[n])) << n;
        ASSERT_EQ(out[n].im, static_cast<double>(b.Q[n])) << n;
    }
}

// A tone at +df mixed with df comes out as a constant phasor; the result
// matches the sample times e^{-j 2 pi df n / fs} computed directly (the
// running sum of steps and the direct product n * step part by ~1e-10 rad
// after 20000 samples, i.e. ~1e-6 at this amplitude; 1e-4 leaves margin).
TEST(CorrectDF, RemovesTheOffsetOnTheRawScale) {
    const double fs = 48000.0;
    const int df = 1234;
    Block b;
    const auto x = captures::tone(20000, 12000.0, df, fs);
    for (const Complex& c : x) {
        b.I.push_back(captures::to_i16(c.re));
        b.Q.push_back(captures::to_i16(c.im));
    }
    CommonFun cf;
    const auto out = run_mixer(cf, b, 0, 20000, fs, df);
    for (int n = 0; n < 20000; n += 7) {
        const double ph = -captures::kTwoPi * df * n / fs;
        const double er = b.I[n] * std::cos(ph) - b.Q[n] * std::sin(ph);
        const double ei = b.Q[n] * std::cos(ph) + b.I[n] * std::sin(ph);
        ASSERT_NEAR(out[n].re, er, 1e-4) << n;
        ASSERT_NEAR(out[n].im, ei, 1e-4) << n;
        // And the tone is gone: within int16 rounding of (12000, 0).
        ASSERT_NEAR(out[n].re, 12000.0, 1.0) << n;
        ASSERT_NEAR(out[n].im, 0.0, 1.0) << n;
    }
}

// The mixer phase is carried in the object: two consecutive halves equal one
// whole block, and a fresh object starts from phase 0.
TEST(CorrectDF, PhaseContinuesAcrossCallsOnTheSameObject) {
    const double fs = 10000.0;
    const int df = -377;
    captures::Rng rng(11);
    Block b;
    for (int n = 0; n < 4000; ++n) {
        b.I.push_back(static_cast<std::int16_t>(rng.below(20000) - 10000));
        b.Q.push_back(static_cast<std::int16_t>(rng.below(20000) - 10000));
    }
    CommonFun whole;
    const auto all = run_mixer(whole, b, 0, 4000, fs, df);
    CommonFun split;
    const auto first = run_mixer(split, b, 0, 1500, fs, df);
    const auto second = run_mixer(split, b, 1500, 2500, fs, df);
    for (int n = 0; n < 1500; ++n) ASSERT_EQ(first[n].re, all[n].re);
    for (int n = 0; n < 2500; ++n) {
        ASSERT_EQ(second[n].re, all[1500 + n].re) << n;
        ASSERT_EQ(second[n].im, all[1500 + n].im) << n;
    }
    const double expectedPhase = -captures::kTwoPi * df * 4000 / fs;
    EXPECT_NEAR(split.mixerPhase, expectedPhase, 1e-9);
    EXPECT_EQ(split.mixerPhase, whole.mixerPhase);
    split.Reset();  // the mixer phase is not part of what Reset clears
    EXPECT_EQ(split.mixerPhase, whole.mixerPhase);
}

}  // namespace
