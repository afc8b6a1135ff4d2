// 128- and 256-point QAM captures through the public entry, with host arrays
// sized exactly by the published capacities: return code, the 2000-point
// display, and the first decisions against the transmitted symbols.
#include <gtest/gtest.h>

#include <cstdio>
#include <tuple>

#include "capture_runner.h"

namespace {

using Param = std::tuple<int, double, long, double>;  // mode, sps, samples, Es/N0

class DenseQamEndToEnd : public ::testing::TestWithParam<Param> {};

TEST_P(DenseQamEndToEnd, DecidesTheTransmittedSymbols) {
    const auto [mode, sps, samples, esn0] = GetParam();
    vantrel::siggen::Config cfg;
    cfg.mode = mode;
    cfg.Rb = 25000.0;
    cfg.sps = sps;
    cfg.numSamples = samples;
    cfg.seed = 21;
    cfg.carrierOffsetHz = 150.0;
    cfg.carrierPhase = 0.3;
    cfg.esn0Db = esn0;
    cfg.peak = 12000.0;
    const vantrel::siggen::Result capture = vantrel::siggen::generate(cfg);

    HostRecord host(static_cast<uint32_t>(samples), static_cast<uint32_t>(mode));
    ASSERT_EQ(analyseCapture(capture, host), 0);
    EXPECT_EQ(host.rec.constLen, 2000u);
    EXPECT_EQ(host.rec.symbolsLen, 2000u);
    const vantrel::siggen::Match m = matchTruth(capture, host);
    std::printf("order %d sps %g samples %ld Es/N0 %g dB: EVM %.3f %%, errors %ld/%ld, "
                "decided bits %u\n",
                mode == MOD_128QAM ? 128 : 256, sps, samples, esn0, host.rec.evmRms, m.errors,
                m.compared, host.rec.bitsLen);
    EXPECT_EQ(m.compared, 2000);
    // At 40 dB every decision is right. At 35 dB the 256-point captures at 8
    // samples per symbol (interpolated to 4 by the front end) lose a few
    // symbols to noise, and on some seeds a few dozen to the phase loop's
    // pull-in at the start of the block; a quarter-turn slip or a labelling
    // fault would get most of them wrong.
    if (esn0 >= 40.0) {
        EXPECT_EQ(m.errors, 0);
    } else {
        EXPECT_LE(m.errors, 40);
    }
    EXPECT_TRUE(host.intact());
}

INSTANTIATE_TEST_SUITE_P(
    OrdersRatesLengthsNoise, DenseQamEndToEnd,
    ::testing::Combine(::testing::Values(MOD_128QAM, MOD_256QAM), ::testing::Values(4.0, 8.0),
                       ::testing::Values(320000L, 40000L), ::testing::Values(35.0, 40.0)),
    [](const ::testing::TestParamInfo<Param>& info) {
        return "order" + std::string(std::get<0>(info.param) == MOD_128QAM ? "128" : "256") +
               "_sps" + std::to_string(static_cast<int>(std::get<1>(info.param))) + "_n" +
               std::to_string(std::get<2>(info.param)) + "_esn0_" +
               std::to_string(static_cast<int>(std::get<3>(info.param)));
    });

}  // namespace
