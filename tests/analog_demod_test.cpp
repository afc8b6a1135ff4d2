// Analog demodulator on generated captures. Each capture is built from known
// modulation parameters and the figures are checked against those, with the
// estimator's known behaviour on a sinusoid worked out below.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "VantrelClass.h"
#include "test_support.h"

namespace {
constexpr double kPi = 3.14159265358979323846;

// For a sinusoid a(t) = c + d cos(wt) sampled uniformly over whole periods,
// the highest fifth of the samples are those with |wt| <= pi/5, whose mean of
// cos is sin(pi/5) / (pi/5); the lowest fifth mirror them. The AM depth
// (H - L) / (H + L) and the FM half-spread (H - L) / 2 therefore read the
// applied depth or deviation times this factor, 0.93549, not the peak.
const double kFifthMeanOfCos = std::sin(kPi / 5) / (kPi / 5);

template <class F>
std::vector<Complex> synth(int n, F sample) {
    std::vector<Complex> x(n);
    for (int i = 0; i < n; ++i) x[i] = sample(i);
    return x;
}

// A measured figure for the test report, with enough digits to quote.
std::string figure(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", v);
    return text;
}

Complex polar(double amp, double phase) {
    return Complex{amp * std::cos(phase), amp * std::sin(phase)};
}

// Frequency in Hz between consecutive samples of an interleaved I/Q trace,
// from the exact angle of y[i+1] conj(y[i]).
double pairFrequency(const double* iq, int i, double fs) {
    const double re = iq[2 * i + 2] * iq[2 * i] + iq[2 * i + 3] * iq[2 * i + 1];
    const double im = iq[2 * i + 3] * iq[2 * i] - iq[2 * i + 2] * iq[2 * i + 1];
    return std::atan2(im, re) * fs / (2 * kPi);
}

// Sum of the five trace counts, the shifted pairs counted once.
uint32_t traceSamples(const DisplayData& d) {
    return d.envTraceLen + d.freqTraceLen + d.phaseTraceLen + d.iTraceLen + d.shiftedIQLen / 2;
}

class Analog : public ::testing::Test {
protected:
    // Bandwidths far below an eighth of the rate leave the block unfiltered.
    int run(const std::vector<Complex>& x, uint32_t mode, double fs, double bandwidth) {
        initDisplay(&host.rec);
        return inst.demodANALOG(x.data(), static_cast<int>(x.size()), fs, bandwidth,
                                makeParam(0.0, mode), &host.rec);
    }
    VantrelClass inst;
    HostRecord host{70000};
};

// ------------------------------------------------------------- code 10

class AmDepth : public Analog, public ::testing::WithParamInterface<double> {};

TEST_P(AmDepth, ReadsTheAppliedDepthTimesTheFifthMeanFactor) {
    const double m = GetParam();
    const double fs = 48000, fmod = 100, fc = 2500, amp = 6000;
    // 100 whole modulation periods of 480 samples.
    auto x = synth(48000, [&](int i) {
        const double t = i / fs;
        return polar(amp * (1 + m * std::cos(2 * kPi * fmod * t)), 2 * kPi * fc * t + 0.3);
    });
    ASSERT_EQ(run(x, MOD_ANALOG_AM, fs, 1000.0), 0);
    const double depth = host.rec.amDepth;
    // 1e-4 covers the sampled (480 points per period) rather than continuous
    // mean of the top fifth; a depth without the factor would be 0.03 m off.
    EXPECT_NEAR(depth, m * kFifthMeanOfCos, 1e-4);
    RecordProperty("amDepth", figure(depth));
    ASSERT_EQ(host.rec.envTraceLen, 48000u);
    for (int i = 0; i < 48000; i += 997)
        EXPECT_NEAR(host.rec.envTrace[i], amp * (1 + m * std::cos(2 * kPi * fmod * i / fs)),
                    1e-8);
    EXPECT_EQ(host.rec.freqTraceLen, 0u);
    EXPECT_TRUE(host.intact());
}

INSTANTIATE_TEST_SUITE_P(Depths, AmDepth, ::testing::Values(0.0, 0.5, 1.0));

// ------------------------------------------------------------- code 11

TEST_F(Analog, FmDeviationFollowsTheAppliedDeviation) {
    const double fs = 48000, fmod = 50, dev = 600, amp = 9000;
    // Phase = 2pi fc t + (dev / fmod) sin(2pi fmod t): frequency fc + dev cos.
    // The carrier is at 0 Hz so the per-sample step stays small (<= 0.08 rad)
    // and the small-angle reading sin(step) is within 0.1 % of the step.
    auto x = synth(48000, [&](int i) {
        const double t = i / fs;
        return polar(amp, (dev / fmod) * std::sin(2 * kPi * fmod * t));
    });
    ASSERT_EQ(run(x, MOD_ANALOG_FM, fs, 2000.0), 0);
    const double peakDev = host.rec.fmPeakDev;
    RecordProperty("fmPeakDev", figure(peakDev));
    EXPECT_NEAR(peakDev, dev * kFifthMeanOfCos, dev * 2e-3);
    ASSERT_EQ(host.rec.freqTraceLen, 48000u);
    // The trace follows dev cos(2pi fmod t) half a sample late (the step
    // between i-1 and i), again within the small-angle error.
    for (int i = 1; i < 48000; i += 1009) {
        const double truth = dev * std::cos(2 * kPi * fmod * (i - 0.5) / fs);
        EXPECT_NEAR(host.rec.freqTrace[i], truth, 1.0) << i;
    }
}

TEST_F(Analog, ConstantToneGivesAFlatTraceAtItsOffset) {
    const double fs = 48000, offset = -1250;
    auto x = synth(5000, [&](int i) { return polar(4000, 2 * kPi * offset * i / fs + 1.0); });
    ASSERT_EQ(run(x, MOD_ANALOG_FM, fs, 500.0), 0);
    // Each value is the small-angle phase step, sin(2pi f / fs), in Hz.
    const double expected = std::sin(2 * kPi * offset / fs) * fs / (2 * kPi);
    EXPECT_NEAR(expected, offset, 0.005 * std::fabs(offset));
    ASSERT_EQ(host.rec.freqTraceLen, 5000u);
    for (int i = 0; i < 5000; ++i) ASSERT_NEAR(host.rec.freqTrace[i], expected, 1e-6) << i;
    const double peakDev = host.rec.fmPeakDev;
    EXPECT_NEAR(peakDev, 0.0, 1e-6);
}

TEST_F(Analog, FmStepIsNormalisedByTheCurrentSamplePowerOnly) {
    // Amplitude alternating 1, 2, 1, 2 with a constant step w: the cross
    // product a b sin(w) over b^2 reads (a / b) sin(w), i.e. 2 sin(w) into a
    // quiet sample and sin(w) / 2 into a loud one (a product of magnitudes in
    // the denominator would give sin(w) for both).
    const double fs = 10000, w = 0.05;
    auto x = synth(400, [&](int i) { return polar(i % 2 ? 2.0 : 1.0, w * i); });
    ASSERT_EQ(run(x, MOD_ANALOG_FM, fs, 100.0), 0);
    const double toHz = fs / (2 * kPi);
    for (int i = 1; i < 400; ++i) {
        const double expected = (i % 2 ? 0.5 : 2.0) * std::sin(w) * toHz;
        ASSERT_NEAR(host.rec.freqTrace[i], expected, 1e-9) << i;
    }
    EXPECT_EQ(host.rec.freqTrace[0], host.rec.freqTrace[1]);
    // Half the spread between 2 sin(w) and sin(w) / 2, in Hz.
    const double peakDev = host.rec.fmPeakDev;
    EXPECT_NEAR(peakDev, 0.75 * std::sin(w) * toHz, 1e-9);
}

TEST_F(Analog, ZeroPowerSampleReadsZeroHertz) {
    const double fs = 8000;
    auto x = synth(100, [&](int i) { return polar(100, 0.2 * i); });
    x[40] = Complex{0.0, 0.0};
    ASSERT_EQ(run(x, MOD_ANALOG_FM, fs, 100.0), 0);
    EXPECT_EQ(host.rec.freqTrace[40], 0.0);
    // The step out of the silent sample has no cross product either.
    EXPECT_EQ(host.rec.freqTrace[41], 0.0);
    EXPECT_NEAR(host.rec.freqTrace[0], std::sin(0.2) * fs / (2 * kPi), 1e-9);
}

// ------------------------------------------------------------- code 12

TEST_F(Analog, PhaseTraceIsTheAppliedPhaseWithoutTrend) {
    // A cosine phase symmetric about the block centre over whole periods is
    // orthogonal to every straight line, so removing the fitted line (the
    // carrier offset and the start phase) must leave it unchanged.
    const int n = 9600;
    const double fs = 48000, fc = 700, beta = 1.8, cycles = 12, c = (n - 1) / 2.0;
    std::vector<double> applied(n);
    auto x = synth(n, [&](int i) {
        applied[i] = beta * std::cos(2 * kPi * cycles * (i - c) / n);
        return polar(7000, 2 * kPi * fc * i / fs + 2.0 + applied[i]);
    });
    ASSERT_EQ(run(x, MOD_ANALOG_PM, fs, 800.0), 0);
    ASSERT_EQ(host.rec.phaseTraceLen, static_cast<uint32_t>(n));
    double worst = 0;
    for (int i = 0; i < n; ++i)
        worst = std::max(worst, std::fabs(host.rec.phaseTrace[i] - applied[i]));
    RecordProperty("pmResidual", figure(worst));
    EXPECT_LT(worst, 1e-9);
}

// ------------------------------------------------------------- code 13

struct ShiftCase {
    double fs;
    double toneHz;
    int n;
    double tolerance;  // Hz on the output tone
};

class CarrierShift : public Analog, public ::testing::WithParamInterface<ShiftCase> {};

TEST_P(CarrierShift, StrongestLineLandsAtOneKilohertz) {
    const ShiftCase c = GetParam();
    auto x = synth(c.n, [&](int i) { return polar(5000, 2 * kPi * c.toneHz * i / c.fs + 0.7); });
    ASSERT_EQ(run(x, MOD_ANALOG_SHIFT, c.fs, 50.0), 0);
    ASSERT_EQ(host.rec.shiftedIQLen, static_cast<uint32_t>(2 * c.n));
    double lo = 1e9, hi = -1e9;
    for (int i = 0; i + 1 < c.n; ++i) {
        const double f = pairFrequency(host.rec.shiftedIQ, i, c.fs);
        lo = std::min(lo, f);
        hi = std::max(hi, f);
    }
    RecordProperty("shiftedToneHz", figure(lo));
    EXPECT_NEAR(lo, 1000.0, c.tolerance);
    EXPECT_NEAR(hi, 1000.0, c.tolerance);
    // Amplitude and start phase are untouched by the mix.
    EXPECT_NEAR(host.rec.shiftedIQ[0], 5000 * std::cos(0.7), 1e-9);
    EXPECT_NEAR(host.rec.shiftedIQ[1], 5000 * std::sin(0.7), 1e-9);
    EXPECT_TRUE(host.intact());
}

INSTANTIATE_TEST_SUITE_P(
    Tones, CarrierShift,
    ::testing::Values(
        // 2 Hz bins: -2000 Hz is a bin, the shift is exactly +3000 Hz. A
        // short block is zero-padded, a long one read over 16384 samples.
        ShiftCase{32768, -2000, 5000, 1e-6}, ShiftCase{32768, -2000, 20000, 1e-6},
        ShiftCase{32768, 3000, 16384, 1e-6},
        // 2.93 Hz bins: the line is found to within half a bin and the shift
        // is rounded to whole hertz.
        ShiftCase{48000, -2000, 12000, 48000.0 / 16384 / 2 + 0.5}));

// ------------------------------------------------------- codes 14 and 15

class InPhase : public Analog, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(InPhase, CopiesTheRealPartOfEverySample) {
    auto x = synth(3000, [](int i) { return Complex{std::sin(0.01 * i) * 1234.5, -77.0 * i}; });
    ASSERT_EQ(run(x, GetParam(), 48000, 300.0), 0);
    ASSERT_EQ(host.rec.iTraceLen, 3000u);
    for (int i = 0; i < 3000; ++i) ASSERT_EQ(host.rec.iTrace[i], x[i].re) << i;
    EXPECT_EQ(host.rec.envTraceLen, 0u);
    EXPECT_EQ(host.rec.shiftedIQLen, 0u);
    EXPECT_TRUE(host.intact());
}

INSTANTIATE_TEST_SUITE_P(Codes, InPhase, ::testing::Values(14u, 15u));

// ------------------------------------------------------------ failures

TEST_F(Analog, RejectsBadArgumentsAndOtherCodesWithoutWriting) {
    auto x = synth(100, [](int i) { return polar(100, 0.1 * i); });
    const ExParamOut fm = makeParam(0.0, MOD_ANALOG_FM);
    initDisplay(&host.rec);
    EXPECT_EQ(inst.demodANALOG(nullptr, 100, 48000, 100, fm, &host.rec), -1);
    EXPECT_EQ(inst.demodANALOG(x.data(), 0, 48000, 100, fm, &host.rec), -1);
    EXPECT_EQ(inst.demodANALOG(x.data(), 100, 0, 100, fm, &host.rec), -1);
    EXPECT_EQ(inst.demodANALOG(x.data(), 100, 48000, -1, fm, &host.rec), -1);
    EXPECT_EQ(inst.demodANALOG(x.data(), 100, std::nan(""), 100, fm, &host.rec), -1);
    EXPECT_EQ(inst.demodANALOG(x.data(), 100, 48000, 100, fm, nullptr), -1);
    for (uint32_t mode : {0u, 4u, 9u, 16u, 99u})
        EXPECT_EQ(run(x, mode, 48000, 100), -1) << mode;
    // Also after the band filter has run.
    EXPECT_EQ(run(x, MOD_16QAM, 48000, 12000), -1);
    EXPECT_EQ(traceSamples(host.rec), 0u);
    EXPECT_TRUE(host.intact());
}

// ------------------------------------------------------ band-limit filter

// The band ratio bounds are exclusive: exactly an eighth or a half of the
// rate leaves the block as it is.
class RatioBound : public Analog, public ::testing::WithParamInterface<double> {};

TEST_P(RatioBound, LeavesTheBlockUnfiltered) {
    const double fs = 48000;
    auto x = synth(500, [](int i) { return Complex{(i % 7) - 3.0, 1.0}; });
    ASSERT_EQ(run(x, MOD_ANALOG_I_B, fs, GetParam() * fs), 0);
    ASSERT_EQ(host.rec.iTraceLen, 500u);
    for (int i = 0; i < 500; ++i) ASSERT_EQ(host.rec.iTrace[i], x[i].re);
}

INSTANTIATE_TEST_SUITE_P(Bounds, RatioBound, ::testing::Values(0.125, 0.5, 0.1, 0.7));

TEST_F(Analog, FilteredBlockKeepsNMinus32SamplesWithoutDelayCompensation) {
    // An impulse at p comes out as the symmetric pulse centred on p - 16:
    // the valid part of the convolution starts 16 samples into the block and
    // is deliberately not moved back.
    const int n = 200, p = 100;
    std::vector<Complex> x(n, Complex{0.0, 0.0});
    x[p] = Complex{1.0, 0.0};
    ASSERT_EQ(run(x, MOD_ANALOG_I_A, 48000, 0.25 * 48000), 0);
    ASSERT_EQ(host.rec.iTraceLen, static_cast<uint32_t>(n - 32));
    int peak = 0;
    double energy = 0;
    for (int i = 0; i < n - 32; ++i) {
        if (std::fabs(host.rec.iTrace[i]) > std::fabs(host.rec.iTrace[peak])) peak = i;
        energy += host.rec.iTrace[i] * host.rec.iTrace[i];
    }
    EXPECT_EQ(peak, p - 16);
    for (int d = 1; d <= 16; ++d)
        EXPECT_NEAR(host.rec.iTrace[peak - d], host.rec.iTrace[peak + d], 1e-7) << d;
    EXPECT_EQ(host.rec.iTrace[peak - 17], 0.0);
    EXPECT_EQ(host.rec.iTrace[peak + 17], 0.0);
    // The root-raised-cosine taps have unit energy (single precision).
    EXPECT_NEAR(energy, 1.0, 1e-6);
}

TEST_F(Analog, FilteredAmToneInsideThePassbandKeepsItsDepth) {
    // Roll-off 0.5 at four samples per symbol passes up to fs/16 (3000 Hz at
    // 48 kHz) nearly flat; a 1500 Hz carrier with 100 Hz AM stays inside.
    const double fs = 48000, m = 0.5;
    auto x = synth(48032, [&](int i) {
        const double t = i / fs;
        return polar(5000 * (1 + m * std::cos(2 * kPi * 100 * t)), 2 * kPi * 1500 * t);
    });
    ASSERT_EQ(run(x, MOD_ANALOG_AM, fs, 0.2 * fs), 0);
    ASSERT_EQ(host.rec.envTraceLen, 48000u);
    const double depth = host.rec.amDepth;
    RecordProperty("filteredAmDepth", figure(depth));
    EXPECT_NEAR(depth, m * kFifthMeanOfCos, 2e-3);
}

class ShortFiltered : public Analog, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(ShortFiltered, BlocksOf32OrFewerGiveEmptyTracesAndZeroFigures) {
    const uint32_t mode = GetParam();
    for (int n : {1, 20, 32}) {
        auto x = synth(n, [](int i) { return polar(1000, 0.3 * i); });
        // Stale figures and counts show whether the call wrote its own.
        host.rec.amDepth = 5.0;
        host.rec.fmPeakDev = 5.0;
        host.rec.envTraceLen = host.rec.freqTraceLen = host.rec.phaseTraceLen = 9;
        host.rec.iTraceLen = host.rec.shiftedIQLen = 9;
        ASSERT_EQ(inst.demodANALOG(x.data(), n, 48000, 12000, makeParam(0, mode), &host.rec), 0)
            << n;
        const double depth = host.rec.amDepth, dev = host.rec.fmPeakDev;
        EXPECT_EQ(depth, mode == MOD_ANALOG_AM ? 0.0 : 5.0);
        EXPECT_EQ(dev, mode == MOD_ANALOG_FM ? 0.0 : 5.0);
        const uint32_t own = mode == MOD_ANALOG_AM      ? host.rec.envTraceLen
                             : mode == MOD_ANALOG_FM    ? host.rec.freqTraceLen
                             : mode == MOD_ANALOG_PM    ? host.rec.phaseTraceLen
                             : mode == MOD_ANALOG_SHIFT ? host.rec.shiftedIQLen
                                                        : host.rec.iTraceLen;
        EXPECT_EQ(own, 0u) << n;
    }
    // One more sample than the filter length leaves one value.
    auto x = synth(33, [](int i) { return polar(1000, 0.3 * i); });
    ASSERT_EQ(run(x, mode, 48000, 12000), 0);
    EXPECT_EQ(traceSamples(host.rec), 1u);
    EXPECT_TRUE(host.intact());
}

INSTANTIATE_TEST_SUITE_P(Codes, ShortFiltered, ::testing::Values(10u, 11u, 12u, 13u, 14u));

}  // namespace
