// The six analog analyses through the public entry, on generated captures
// whose modulation is known.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>

#include "capture_runner.h"

namespace {

using vantrel::siggen::Config;
using vantrel::siggen::generate;
using vantrel::siggen::Result;

// The depth and deviation estimators average the top and bottom 20 % of the
// sorted trace. For a sinusoid those are the samples within pi/5 of each
// extreme, whose mean is sin(pi/5) / (pi/5) of the peak: the reported figure
// is this fraction of the applied one.
const double kTailMean = std::sin(3.141592653589793 / 5) / (3.141592653589793 / 5);

Result analogCapture(int mode, double fs, double carrierHz) {
    Config cfg = captureConfig(mode, 8.0, 40000, 3, fs / 8.0);
    cfg.toneHz = 1000.0;
    cfg.carrierOffsetHz = carrierHz;
    cfg.peak = 12000.0;
    return generate(cfg);
}

// One analysis on a fresh instance; analog calls always succeed.
struct Analysis {
    explicit Analysis(const Result& capture) : host(capture.I.size()) {
        EXPECT_EQ(analyseCapture(capture, host), 0);
        EXPECT_TRUE(host.intact());
    }
    HostRecord host;
    const DisplayData& d = host.rec;
};

}  // namespace

TEST(AnalogEndToEnd, AmDepthAndFmDeviationReadTheTailMeans) {
    for (double depth : {0.0, 0.5, 1.0}) {
        Config c = analogCapture(MOD_ANALOG_AM, 48000.0, 0.0).config;
        c.amDepth = depth;
        Analysis a(generate(c));
        EXPECT_NEAR(double(a.d.amDepth), depth * kTailMean, 0.005) << depth;
        EXPECT_EQ(a.d.envTraceLen, 40000u);
    }
    // A high sample rate keeps the per-sample phase step small, where the
    // cross-product discriminator reads sin(step) ~ step.
    Config c = analogCapture(MOD_ANALOG_FM, 480000.0, 0.0).config;
    c.numSamples = 48000;
    Analysis a(generate(c));
    EXPECT_NEAR(double(a.d.fmPeakDev), 5000.0 * kTailMean, 0.005 * 5000.0);
    ASSERT_EQ(a.d.freqTraceLen, 48000u);
    const auto [lo, hi] = std::minmax_element(a.d.freqTrace, a.d.freqTrace + a.d.freqTraceLen);
    EXPECT_NEAR(*hi - *lo, 2 * 5000.0, 100.0);
}

TEST(AnalogEndToEnd, ConstantToneGivesAFlatFrequencyTrace) {
    Config c = analogCapture(MOD_ANALOG_FM, 48000.0, 1500.0).config;
    c.fmDeviationHz = 0.0;
    Analysis a(generate(c));
    // The front end removed its coarse estimate (the centroid, one bin high);
    // a small constant residual is left, jittered by the int16 rounding.
    const double first = a.d.freqTrace[0];
    for (uint32_t k = 0; k < a.d.freqTraceLen; ++k) ASSERT_NEAR(a.d.freqTrace[k], first, 1.0);
    EXPECT_LT(double(a.d.fmPeakDev), 0.5);
    EXPECT_NEAR(1500.0 - double(a.d.freqOffset), first, 1.0);
}

TEST(AnalogEndToEnd, PhaseTraceIsTheAppliedPhaseWithoutTrend) {
    Analysis a(analogCapture(MOD_ANALOG_PM, 48000.0, 700.0));
    ASSERT_GT(a.d.phaseTraceLen, 39000u);
    const auto [lo, hi] = std::minmax_element(a.d.phaseTrace, a.d.phaseTrace + a.d.phaseTraceLen);
    EXPECT_NEAR(*hi, 1.0, 0.02);
    EXPECT_NEAR(*lo, -1.0, 0.02);
}

TEST(AnalogEndToEnd, CarrierShiftMovesTheToneTo1000Hz) {
    const Result capture = analogCapture(MOD_ANALOG_SHIFT, 32768.0, -2000.0);
    Analysis a(capture);
    ASSERT_EQ(a.d.shiftedIQLen, 2 * capture.I.size());
    double sum = 0.0;  // mean phase step of the shifted samples
    const uint32_t n = a.d.shiftedIQLen / 2;
    const double* s = a.d.shiftedIQ;
    for (uint32_t k = 1; k < n; ++k)
        sum += std::arg(std::complex<double>(s[2 * k], s[2 * k + 1]) /
                        std::complex<double>(s[2 * k - 2], s[2 * k - 1]));
    EXPECT_NEAR(sum / (n - 1) / (2 * M_PI) * capture.fs, 1000.0, 0.01);
}
