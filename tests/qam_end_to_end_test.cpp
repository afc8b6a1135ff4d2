// 16-, 32- and 64-point QAM captures through the public entry: return code,
// the 800-point display, decisions against the transmitted symbols, and EVM
// that falls as the noise does.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <tuple>

#include "capture_runner.h"

namespace {

using vantrel::siggen::Config;
using vantrel::siggen::generate;
using vantrel::siggen::Result;

Result qamCapture(int mode, double sps, double esn0) {
    Config cfg;
    cfg.mode = mode;
    cfg.Rb = 25000.0;
    cfg.sps = sps;
    cfg.filterType = vantrel::siggen::kRRC;
    cfg.rolloff = 0.35;
    cfg.numSamples = std::max<long>(16384, std::lround(4200 * sps));
    cfg.seed = 23;
    cfg.carrierOffsetHz = 300.0;
    cfg.carrierPhase = 0.4;
    cfg.esn0Db = esn0;
    cfg.peak = 12000.0;
    return generate(cfg);
}

struct Figures {
    int code;
    uint32_t constLen, symbolsLen, bitsLen;
    long errors, compared;
    double evmRms;
    double outerI;  // mean |I| of the displayed points beyond 80 % of the largest
};

Figures analyse(int mode, double sps, double esn0) {
    const Result capture = qamCapture(mode, sps, esn0);
    HostRecord host(static_cast<uint32_t>(capture.I.size()), static_cast<uint32_t>(mode));
    Figures f{};
    f.code = analyseCapture(capture, host);
    f.constLen = host.rec.constLen;
    f.symbolsLen = host.rec.symbolsLen;
    f.bitsLen = host.rec.bitsLen;
    const vantrel::siggen::Match m = matchTruth(capture, host);
    f.errors = m.errors;
    f.compared = m.compared;
    f.evmRms = host.rec.evmRms;
    double largest = 0.0, sum = 0.0;
    int count = 0;
    for (uint32_t i = 0; i < f.constLen; ++i) largest = std::max(largest, std::fabs(host.rec.constI[i]));
    for (uint32_t i = 0; i < f.constLen; ++i) {
        if (std::fabs(host.rec.constI[i]) > 0.8 * largest) {
            sum += std::fabs(host.rec.constI[i]);
            ++count;
        }
    }
    f.outerI = count > 0 ? sum / count : 0.0;
    EXPECT_TRUE(host.intact());
    return f;
}

class QamEndToEnd : public ::testing::TestWithParam<std::tuple<int, double>> {};

TEST_P(QamEndToEnd, DemodulatesAndEvmFallsWithNoise) {
    const auto [mode, sps] = GetParam();
    int order = 0, B = 0;
    ASSERT_TRUE(vantrel::siggen::modeInfo(mode, nullptr, &order, &B));
    const Figures at25 = analyse(mode, sps, 25.0);
    const Figures at35 = analyse(mode, sps, 35.0);
    std::printf("QAM%d sps %g: Es/N0 25 dB EVM %.3f %% errors %ld/%ld; "
                "35 dB EVM %.3f %% errors %ld/%ld\n",
                order, sps, at25.evmRms, at25.errors, at25.compared, at35.evmRms, at35.errors,
                at35.compared);
    for (const Figures& f : {at25, at35}) {
        EXPECT_EQ(f.code, 0);
        EXPECT_EQ(f.constLen, 800u);
        EXPECT_EQ(f.symbolsLen, 800u);
        EXPECT_EQ(f.bitsLen, 800u * B);
        EXPECT_EQ(f.compared, 800);
    }
    EXPECT_EQ(at35.errors, 0);
    // The display divides the grid by (int)sqrt(M) - 1: the outer level
    // lands on 1 for 16 and 64 points and on 5/4 for the 32-point cross.
    EXPECT_NEAR(at35.outerI, order == 32 ? 1.25 : 1.0, 0.05);
    EXPECT_GT(at25.evmRms, at35.evmRms);
}

INSTANTIATE_TEST_SUITE_P(
    OrdersAndRates, QamEndToEnd,
    ::testing::Combine(::testing::Values(MOD_16QAM, MOD_32QAM, MOD_64QAM),
                       ::testing::Values(4.0, 8.0, 3.0)),
    [](const ::testing::TestParamInfo<QamEndToEnd::ParamType>& info) {
        return "mode" + std::to_string(std::get<0>(info.param)) + "_sps" +
               std::to_string(static_cast<int>(std::get<1>(info.param)));
    });

}  // namespace
