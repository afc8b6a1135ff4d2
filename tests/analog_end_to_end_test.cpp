// The six analog analyses through the public entry, on generated captures
// whose modulation is known.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>

#include "capture_runner.h"

namespace {

using vantrel::siggen::Config;
using vantrel::siggen::generate;
using vantrel::siggen::Result;

constexpr double kTwoPi = 6.283185307179586;

// The depth and deviation estimators average the top and bottom 20 % of the
// sorted trace. For a sinusoid those are the samples within pi/5 of each
// extreme, whose mean is sin(pi/5) / (pi/5) of the peak: the reported figure
// is this fraction of the applied one.
const double kTailMean = std::sin(3.141592653589793 / 5) / (3.141592653589793 / 5);

Result analogCapture(int mode, double fs, double carrierHz) {
    Config cfg;
    cfg.mode = mode;
    cfg.sps = 8.0;
    cfg.Rb = fs / cfg.sps;
    cfg.numSamples = 40000;
    cfg.seed = 3;
    cfg.toneHz = 1000.0;
    cfg.carrierOffsetHz = carrierHz;
    cfg.peak = 12000.0;
    return generate(cfg);
}

struct Analysis {
    int code;
    std::unique_ptr<HostRecord> host;
};

Analysis analyse(const Result& capture) {
    Analysis a{0, std::make_unique<HostRecord>(capture.I.size())};
    a.code = analyseCapture(capture, *a.host);
    EXPECT_EQ(a.code, 0);  // analog calls always succeed
    EXPECT_TRUE(a.host->intact());
    return a;
}

}  // namespace

TEST(AnalogEndToEnd, AmDepthFollowsTheAppliedDepth) {
    for (double depth : {0.0, 0.5, 1.0}) {
        Config c = analogCapture(MOD_ANALOG_AM, 48000.0, 0.0).config;
        c.amDepth = depth;
        Analysis a = analyse(generate(c));
        const DisplayData& d = a.host->rec;
        std::printf("AM depth %.2f: amDepth %.5f (expected %.5f)\n", depth, double(d.amDepth),
                    depth * kTailMean);
        EXPECT_NEAR(double(d.amDepth), depth * kTailMean, 0.005);
        EXPECT_EQ(d.envTraceLen, 40000u);
    }
}

TEST(AnalogEndToEnd, FmDeviationAndFrequencyTrace) {
    // A high sample rate keeps the per-sample phase step small, where the
    // cross-product discriminator reads sin(step) ~ step.
    Config c = analogCapture(MOD_ANALOG_FM, 480000.0, 0.0).config;
    c.numSamples = 48000;
    c.fmDeviationHz = 5000.0;
    Analysis a = analyse(generate(c));
    const DisplayData& d = a.host->rec;
    std::printf("FM deviation 5000 Hz: fmPeakDev %.1f Hz (expected %.1f), freqTraceLen %u\n",
                double(d.fmPeakDev), 5000.0 * kTailMean, d.freqTraceLen);
    EXPECT_NEAR(double(d.fmPeakDev), 5000.0 * kTailMean, 0.005 * 5000.0);
    ASSERT_EQ(d.freqTraceLen, 48000u);
    const auto [lo, hi] = std::minmax_element(d.freqTrace, d.freqTrace + d.freqTraceLen);
    EXPECT_NEAR(*hi - *lo, 2 * 5000.0, 100.0);
}

TEST(AnalogEndToEnd, ConstantToneGivesAFlatFrequencyTrace) {
    Result capture = analogCapture(MOD_ANALOG_FM, 48000.0, 0.0);
    Config c = capture.config;
    c.fmDeviationHz = 0.0;
    c.carrierOffsetHz = 1500.0;
    capture = generate(c);
    Analysis a = analyse(capture);
    const DisplayData& d = a.host->rec;
    // The front end has already removed its coarse offset estimate (the
    // spectral centroid, one bin high); what is left is a small constant
    // residual. Rounding the capture to int16 jitters each phase step by
    // about 1e-5 rad, a few tenths of a hertz at this rate.
    const double first = d.freqTrace[0];
    for (uint32_t k = 0; k < d.freqTraceLen; ++k) ASSERT_NEAR(d.freqTrace[k], first, 1.0);
    EXPECT_LT(double(d.fmPeakDev), 0.5);
    EXPECT_NEAR(1500.0 - double(d.freqOffset), first, 1.0);
}

TEST(AnalogEndToEnd, PhaseTraceIsTheAppliedPhaseWithoutTrend) {
    Result capture = analogCapture(MOD_ANALOG_PM, 48000.0, 700.0);
    Analysis a = analyse(capture);
    const DisplayData& d = a.host->rec;
    ASSERT_GT(d.phaseTraceLen, 39000u);
    const auto [lo, hi] = std::minmax_element(d.phaseTrace, d.phaseTrace + d.phaseTraceLen);
    std::printf("PM peak 1.0 rad: phaseTrace %.4f .. %.4f rad\n", *lo, *hi);
    EXPECT_NEAR(*hi, 1.0, 0.02);
    EXPECT_NEAR(*lo, -1.0, 0.02);
}

TEST(AnalogEndToEnd, CarrierShiftMovesTheToneTo1000Hz) {
    Result capture = analogCapture(MOD_ANALOG_SHIFT, 32768.0, -2000.0);
    Analysis a = analyse(capture);
    const DisplayData& d = a.host->rec;
    ASSERT_EQ(d.shiftedIQLen, 2 * capture.I.size());
    // Mean phase step of the shifted samples, in hertz.
    double sum = 0.0;
    const uint32_t n = d.shiftedIQLen / 2;
    for (uint32_t k = 1; k < n; ++k) {
        const double re0 = d.shiftedIQ[2 * k - 2], im0 = d.shiftedIQ[2 * k - 1];
        const double re1 = d.shiftedIQ[2 * k], im1 = d.shiftedIQ[2 * k + 1];
        sum += std::atan2(re0 * im1 - im0 * re1, re0 * re1 + im0 * im1);
    }
    const double hz = sum / (n - 1) / kTwoPi * capture.fs;
    std::printf("carrier at -2000 Hz: shifted tone at %.3f Hz\n", hz);
    EXPECT_NEAR(hz, 1000.0, 0.01);
}

TEST(AnalogEndToEnd, InPhaseCodesCopyTheRealPart) {
    for (int mode : {MOD_ANALOG_I_A, MOD_ANALOG_I_B}) {
        Result capture = analogCapture(mode, 48000.0, 0.0);
        Analysis a = analyse(capture);
        const DisplayData& d = a.host->rec;
        ASSERT_GT(d.iTraceLen, 0u);
        // The trace is the real part after the coarse offset removal, which
        // starts at phase zero: the first samples are the captured ones.
        for (uint32_t k = 0; k < 8; ++k) EXPECT_NEAR(d.iTrace[k], capture.I[k], 1.0) << k;
        for (uint32_t k = 0; k < d.iTraceLen; ++k)
            ASSERT_LE(std::fabs(d.iTrace[k]), 12000.0 * 1.0001 + 1);
    }
}
