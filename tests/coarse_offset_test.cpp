// Coarse offset estimate (peak and centroid) and the offset-removing mixer.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "CommonFun.h"

namespace {

constexpr int kLen = 16384;
constexpr double kTwoPi = 6.283185307179586;

struct Block {
    std::vector<std::int16_t> I, Q;
};

// An int16 tone of amplitude A at `cycles` cycles per kLen samples: bin-centred
// for the estimate's 16384-point spectrum.
Block tone(double cycles, double A, int len = kLen) {
    Block b;
    for (int n = 0; n < len; ++n) {
        const double ph = kTwoPi * cycles * n / kLen;
        b.I.push_back(static_cast<std::int16_t>(std::lround(A * std::cos(ph))));
        b.Q.push_back(static_cast<std::int16_t>(std::lround(A * std::sin(ph))));
    }
    return b;
}

struct Estimate {
    int df;
    double level;
};

Estimate calcdf(const Block& b, double fs, int code) {
    Estimate e{-777, 777.0};
    CommonFun().calcdf(b.I.data(), b.Q.data(), static_cast<int>(b.I.size()), fs,
                       static_cast<modulationTypeOut>(code), &e.df, &e.level);
    return e;
}

// ASK and the first analog code report the strongest bin; every other code
// reports the power centroid, which its one-based bin weighting puts one bin
// above the tone. At 2.5 Hz per bin (fs = 40960) lines at -1 and -5 bins sit
// on halves (-2.5, -12.5 Hz) that must round away from zero, which neither
// round-to-even nor floor(x + 0.5) does.
TEST(CoarseOffset, PeakForLineCodesCentroidOneBinHighForOthers) {
    const double A = 10000.0;
    const struct { int bin; double fs; } cases[] = {
        {10, 100000.0}, {-37, 48000.0}, {-3000, 1.0e6}, {-1, 40960.0}, {-5, 40960.0}};
    for (const auto& c : cases) {
        const Block b = tone(c.bin, A);
        const double binHz = c.fs / kLen;
        for (int code : {MOD_ASK, MOD_ANALOG_AM, MOD_QPSK, MOD_16QAM, MOD_64QAM, MOD_ANALOG_FM}) {
            const bool line = code == MOD_ASK || code == MOD_ANALOG_AM;
            const Estimate e = calcdf(b, c.fs, code);
            EXPECT_EQ(e.df, std::lround((c.bin + (line ? 0 : 1)) * binHz)) << c.bin << " code " << code;
            // A bin-centred tone of amplitude A has normalised magnitude A.
            EXPECT_NEAR(e.level, line ? 20.0 * std::log10(A) : -1000.0, 1e-3) << c.bin << " code " << code;
        }
    }
}

// df = 0 must reproduce the samples exactly. A tone at +df mixed with df in
// two calls on one object comes out as the constant phasor (A, 0) in both
// halves (within the int16 rounding of the tone, < 0.71): a fresh object
// starts at phase 0, the offset is removed on the raw scale, and the phase
// carries over into the second call.
TEST(CorrectDF, RemovesTheOffsetAndCarriesThePhaseAcrossCalls) {
    const double fs = kLen;  // tone(): cycles per kLen samples = Hz
    const int df = -1234;
    const Block b = tone(df, 12000.0, 20000);
    std::vector<Complex> same(20000), out(20000);
    CommonFun plain, cf;
    plain.correctDF(b.I.data(), b.Q.data(), 20000, fs, 0, same.data());
    cf.correctDF(b.I.data(), b.Q.data(), 7001, fs, df, out.data());
    cf.correctDF(b.I.data() + 7001, b.Q.data() + 7001, 12999, fs, df, out.data() + 7001);
    for (int n = 0; n < 20000; ++n) {
        ASSERT_TRUE(same[n].re == b.I[n] && same[n].im == b.Q[n]) << n;
        ASSERT_NEAR(out[n].re, 12000.0, 1.0) << n;
        ASSERT_NEAR(out[n].im, 0.0, 1.0) << n;
    }
    EXPECT_NEAR(cf.mixerPhase, -kTwoPi * df * 20000 / fs, 1e-8);
}

}  // namespace
