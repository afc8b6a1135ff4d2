// The front end as the call entry runs it: which blocks change rate, how the
// work buffer is sized, what every mode code returns, and the figures the
// front end measures against the impairments a capture was generated with.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <vector>

#include "capture_runner.h"
#include "driver.h"
#include "resampler.h"

namespace {

using vantrel::siggen::Config;
using vantrel::siggen::generate;
using vantrel::siggen::Result;

struct FrontEndRun {
    int code;
    FrontEndBlock block;
};

FrontEndRun frontEnd(const std::vector<int16_t>& I, const std::vector<int16_t>& Q, uint32_t mode,
                     double rb, double fs) {
    CommonFun fe;
    fe.Reset();
    ExParamOut p = makeParam(rb, mode);
    HostRecord host(16);
    FrontEndRun run{};
    run.code = runFrontEnd(fe, p, I.data(), Q.data(), static_cast<uint32_t>(I.size()), &p,
                           &host.rec, fs, run.block);
    return run;
}

std::vector<int16_t> ramp(size_t n) {
    std::vector<int16_t> v(n);
    for (size_t k = 0; k < n; ++k) v[k] = static_cast<int16_t>((k * 37) % 2001 - 1000);
    return v;
}

}  // namespace

TEST(FrontEndPipeline, RateChangeOnlyForFamiliesAnalysedAtFourSamplesPerSymbol) {
    const std::vector<int16_t> I = ramp(20000), Q = ramp(20000);
    // FSK at 10 samples per symbol keeps the captured rate ...
    FrontEndRun fsk = frontEnd(I, Q, MOD_2FSK, 1000, 10000);
    ASSERT_EQ(fsk.code, 0);
    EXPECT_EQ(fsk.block.n, 20000u);
    EXPECT_EQ(fsk.block.fs, 10000.0);
    // ... BPSK is brought to four by the interpolator (about 0.4 n samples).
    FrontEndRun bpsk = frontEnd(I, Q, MOD_BPSK, 1000, 10000);
    ASSERT_EQ(bpsk.code, 0);
    EXPECT_EQ(bpsk.block.fs, 4000.0);
    EXPECT_NEAR(bpsk.block.n, 8000.0, 2.0);
    // Exactly four samples per symbol: neither stage runs.
    FrontEndRun four = frontEnd(I, Q, MOD_QPSK, 1000, 4000);
    EXPECT_EQ(four.block.n, 20000u);
    // Analog blocks keep their rate too.
    FrontEndRun am = frontEnd(I, Q, MOD_ANALOG_AM, 1000, 10000);
    EXPECT_EQ(am.block.n, 20000u);
}

TEST(FrontEndPipeline, WorkBufferHoldsEveryResampledSample) {
    // At 3.5 samples per symbol the resampler's fraction (rounded to 1e-9)
    // writes 18729 values where ceil(n * 4 / 3.5) is 18728.
    const std::vector<int16_t> I = ramp(16387), Q = ramp(16387);
    FrontEndRun run = frontEnd(I, Q, MOD_QPSK, 1000, 3500);
    ASSERT_EQ(run.code, 0);
    EXPECT_EQ(run.block.n, 18729u);
    EXPECT_GE(run.block.capacity, 18729);
    EXPECT_EQ(resample_output_count(16387, 4000, 3500), 18729);
}

TEST(FrontEndPipeline, SlowCapturesAreResampledAtAnyRatio) {
    const std::vector<int16_t> I = ramp(20000), Q = ramp(20000);
    for (double sps : {1.0, 1.2, 1.5, 1.9, 2.0, 2.5, 3.0, 3.5, 3.9}) {
        FrontEndRun run = frontEnd(I, Q, MOD_QPSK, 1000, 1000 * sps);
        ASSERT_EQ(run.code, 0) << sps;
        EXPECT_EQ(run.block.fs, 4000.0) << sps;
        EXPECT_NEAR(run.block.n, 20000 * 4 / sps, 1.0) << sps;
        EXPECT_LE(run.block.n, run.block.capacity) << sps;
    }
}

TEST(FrontEndPipeline, NonFiniteRatesAreRefusedAfterClearingTheRecord) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    std::vector<int16_t> I(20000, 5), Q(20000, -5);
    const int handle = VantrelObjCreatSelfEncode();
    struct Case {
        double rb, fsIn, fsMin;
        uint32_t mode;
        int code;
    };
    const Case cases[] = {
        {nan, 4000, 0, MOD_QPSK, -1},      {1000, nan, 0, MOD_QPSK, -1},
        {1000, nan, 0, MOD_ANALOG_FM, -1}, {1000, inf, 0, MOD_ANALOG_AM, -1},
        {nan, 4000, 0, MOD_ANALOG_AM, 0},  // analog ignores the symbol rate
        {1000, 4000, nan, MOD_QPSK, 0},    // fsMin is only compared
        {1000, inf, 0, MOD_QPSK, -1},      {inf, 4000, 0, MOD_QPSK, -1},
    };
    for (const Case& c : cases) {
        HostRecord host(40000);
        host.rec.snr = 55.0;
        ExParamOut p = makeParam(c.rb, c.mode);
        EXPECT_EQ(VantrelExcute(handle, I.data(), Q.data(), 20000, &p, false, false, &host.rec,
                                c.fsMin, c.fsIn),
                  c.code)
            << c.rb << " " << c.fsIn << " " << c.fsMin << " mode " << c.mode;
        EXPECT_TRUE(host.intact());
    }
    VantrelObjRelease(handle);
}

// Every mode code of the library through the entry, on a capture with known
// impairments: the return code of the family and the front-end figures.
class EveryMode : public ::testing::TestWithParam<int> {};

TEST_P(EveryMode, FrontEndFiguresMatchTheAppliedImpairments) {
    const int mode = GetParam();
    Config cfg;
    cfg.mode = mode;
    cfg.Rb = 20000.0;
    cfg.sps = 8.0;
    cfg.numSamples = 131072;
    cfg.seed = 5;
    cfg.carrierOffsetHz = 600.0;
    const bool analog = mode >= MOD_ANALOG_AM && mode <= MOD_ANALOG_I_B;
    (analog ? cfg.snrDb : cfg.esn0Db) = 30.0;
    cfg.gainImbalance = 1.05;
    cfg.quadSkew = 0.03;
    cfg.dcI = 150.0;
    cfg.dcQ = -80.0;
    cfg.rms = 5000.0;
    const Result capture = generate(cfg);
    HostRecord host(capture.I.size());
    const int code = analyseCapture(capture, host);
    const DisplayData& d = host.rec;
    std::printf("mode %2d: code %d freqOffset %.0f peakLevel %.2f snr %.2f iqOffset %.2f "
                "gain %.4f quad %.4f constLen %u\n",
                mode, code, double(d.freqOffset), double(d.peakLevel), double(d.snr),
                double(d.iqOffset), double(d.iqGainRatio), double(d.quadError), d.constLen);

    // Every family is demodulated now: every code of the table returns 0.
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(host.intact());
    if (analog) return;  // the analog captures carry their own impairment model

    // The I/Q figures are measured on the raw samples: the rail ratio and the
    // rail correlation of a random-symbol block scatter by about 1/sqrt(symbols)
    // (16384 symbols here, so about 0.01), and the DC estimate by the block's
    // own mean (about 3500 / sqrt(16384) = 28 raw units per rail; the
    // tolerance is a little over three of those).
    EXPECT_NEAR(double(d.iqGainRatio), 1.05, 0.03);
    EXPECT_NEAR(double(d.quadError), 0.03, 0.03);
    EXPECT_NEAR(double(d.iqOffset), std::hypot(150.0, 80.0), 100.0);
    EXPECT_TRUE(std::isfinite(double(d.snr)));
    if (mode == MOD_ASK) {
        // The keyed carrier's line is found by the peak search, within a bin.
        EXPECT_NEAR(double(d.freqOffset), 600.0, capture.fs / 16384 + 0.5);
    }
}

INSTANTIATE_TEST_SUITE_P(Codes, EveryMode, ::testing::Range(1, 19),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return "code" + std::to_string(info.param);
                         });
