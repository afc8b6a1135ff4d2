// On-off ASK, 2-FSK and 4-FSK captures through the public entry: return code,
// the 800-point display, decisions against the transmitted symbols (neither
// family has a rotational ambiguity), the modulation depth of ASK and the
// deviation FSK reports.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <tuple>

#include "capture_runner.h"

namespace {

using vantrel::siggen::Config;
using vantrel::siggen::generate;
using vantrel::siggen::Result;

constexpr double kRb = 25000.0;
constexpr double kDeviation = 12500.0;  // Hz, of the outer tone

Result capture(int mode, double sps, double esn0) {
    Config cfg;
    cfg.mode = mode;
    cfg.Rb = kRb;
    cfg.sps = sps;
    cfg.filterType = vantrel::siggen::kRRC;
    cfg.rolloff = 0.35;
    cfg.numSamples = std::max<long>(16384, std::lround(4200 * sps));
    cfg.seed = 23;
    cfg.carrierOffsetHz = 300.0;
    cfg.carrierPhase = 0.4;
    cfg.esn0Db = esn0;
    cfg.fskDeviationHz = kDeviation;
    cfg.peak = 12000.0;
    return generate(cfg);
}

struct Figures {
    int code;
    uint32_t constLen, decided;
    long errors, compared;
    double evmRms, modDepth, freqDeviation;
};

Figures analyse(int mode, double sps, double esn0) {
    const Result c = capture(mode, sps, esn0);
    HostRecord host(c.I.size(), static_cast<uint32_t>(mode));
    Figures f{};
    f.code = analyseCapture(c, host);
    f.constLen = host.rec.constLen;
    // ASK reports its symbol count in bitsLen, FSK in symbolsLen.
    const vantrel::siggen::Match m = matchTruth(c, host);
    f.decided = host.rec.symbolsLen > 0 ? host.rec.symbolsLen : host.rec.bitsLen;
    f.errors = m.errors;
    f.compared = m.compared;
    f.evmRms = host.rec.evmRms;
    f.modDepth = host.rec.modDepth;
    f.freqDeviation = host.rec.freqDeviation;
    EXPECT_TRUE(host.intact());
    return f;
}

class AskFskEndToEnd : public ::testing::TestWithParam<std::tuple<int, double>> {};

// The reported deviation is the outer level of the matched-filtered frequency
// trace converted at the analysis rate 4 Rb: with a unit-energy RRC receive
// filter (DC gain about sqrt(sps)) a deviation D reads about 4 D / sqrt(sps),
// a little above it because the estimate averages the upper tail.
double expectedDeviationReading(double sps) { return 4.0 * kDeviation / std::sqrt(sps); }

TEST_P(AskFskEndToEnd, DecidesTheTransmittedSymbols) {
    const auto [mode, sps] = GetParam();
    const Figures at20 = analyse(mode, sps, 20.0);
    const Figures at30 = analyse(mode, sps, 30.0);
    for (const Figures* f : {&at20, &at30}) {
        std::printf("mode %d sps %g Es/N0 %d dB: code %d, EVM %.3f %%, errors %ld/%ld, "
                    "modDepth %.4f, freqDeviation %.0f Hz (applied %.0f Hz)\n",
                    mode, sps, f == &at20 ? 20 : 30, f->code, f->evmRms, f->errors,
                    f->compared, f->modDepth, f->freqDeviation, kDeviation);
        EXPECT_EQ(f->code, 0);
        EXPECT_EQ(f->constLen, 800u);
        EXPECT_EQ(f->compared, static_cast<long>(f->decided));
    }
    EXPECT_EQ(at30.errors, 0);
    EXPECT_GT(at20.evmRms, at30.evmRms);
    if (mode == MOD_ASK) {
        // Equal marks and spaces; the shaped envelope's ringing and the noise
        // keep the extreme fifths of the envelope off 0 and 1.
        EXPECT_GT(at30.modDepth, 0.9);
        EXPECT_GT(at20.modDepth, 0.8);
    } else {
        EXPECT_NEAR(at30.freqDeviation, expectedDeviationReading(sps),
                    0.2 * expectedDeviationReading(sps));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Ask, AskFskEndToEnd,
    ::testing::Combine(::testing::Values(MOD_ASK), ::testing::Values(4.0, 8.0, 10.0)));
INSTANTIATE_TEST_SUITE_P(
    Fsk, AskFskEndToEnd,
    ::testing::Combine(::testing::Values(MOD_2FSK, MOD_4FSK, MOD_2FSK_B),
                       ::testing::Values(4.0, 8.0, 16.0)));

}  // namespace
