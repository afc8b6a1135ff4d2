// BPSK, QPSK and 8PSK captures through the public entry: return code, the
// 800-point display, decisions against the transmitted symbols, and EVM that
// falls as the noise does.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <tuple>

#include "capture_runner.h"

namespace {

using vantrel::siggen::Config;
using vantrel::siggen::generate;
using vantrel::siggen::Result;

Result pskCapture(int mode, double sps, double esn0, std::uint64_t seed) {
    Config cfg;
    cfg.mode = mode;
    cfg.Rb = 25000.0;
    cfg.sps = sps;
    cfg.filterType = vantrel::siggen::kRRC;
    cfg.rolloff = 0.35;
    cfg.numSamples = std::max<long>(16384, std::lround(4200 * sps));
    cfg.seed = seed;
    cfg.carrierOffsetHz = 350.0;
    cfg.carrierPhase = 0.7;
    cfg.esn0Db = esn0;
    cfg.peak = 12000.0;
    return generate(cfg);
}

struct Figures {
    int code;
    uint32_t constLen;
    long errors, compared;
    double evmRms;
};

Figures analyse(int mode, double sps, double esn0) {
    const Result capture = pskCapture(mode, sps, esn0, 11);
    HostRecord host(8000);
    Figures f{};
    f.code = analyseCapture(capture, host);
    f.constLen = host.rec.constLen;
    const vantrel::siggen::Match m = matchTruth(capture, host);
    f.errors = m.errors;
    f.compared = m.compared;
    f.evmRms = host.rec.evmRms;
    EXPECT_TRUE(host.intact());
    return f;
}

class PskEndToEnd : public ::testing::TestWithParam<std::tuple<int, double>> {};

TEST_P(PskEndToEnd, DemodulatesAndEvmFallsWithNoise) {
    const auto [mode, sps] = GetParam();
    const Figures at20 = analyse(mode, sps, 20.0);
    const Figures at30 = analyse(mode, sps, 30.0);
    std::printf("mode %d sps %g: Es/N0 20 dB EVM %.3f %% errors %ld/%ld; "
                "30 dB EVM %.3f %% errors %ld/%ld\n",
                mode, sps, at20.evmRms, at20.errors, at20.compared, at30.evmRms, at30.errors,
                at30.compared);
    for (const Figures& f : {at20, at30}) {
        EXPECT_EQ(f.code, 0);
        EXPECT_EQ(f.constLen, 800u);
        EXPECT_EQ(f.compared, 800);
    }
    EXPECT_EQ(at30.errors, 0);
    EXPECT_LE(at20.errors, 4);  // 0.5 %: far above the symbol error rate at 20 dB
    EXPECT_GT(at20.evmRms, at30.evmRms);
}

INSTANTIATE_TEST_SUITE_P(
    ModesAndRates, PskEndToEnd,
    ::testing::Combine(::testing::Values(MOD_BPSK, MOD_QPSK, MOD_8PSK),
                       ::testing::Values(4.0, 8.0, 10.0)),
    [](const ::testing::TestParamInfo<PskEndToEnd::ParamType>& info) {
        return "mode" + std::to_string(std::get<0>(info.param)) + "_sps" +
               std::to_string(static_cast<int>(std::get<1>(info.param)));
    });

}  // namespace
