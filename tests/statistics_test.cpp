// Summary statistics over the last 800 symbols, driven through the instance
// member the driver calls.
#include <gtest/gtest.h>

#include <cmath>
#include <ostream>
#include <vector>

#include "VantrelClass.h"

namespace {

constexpr double kPi = 3.141592653589793;

// Host-side arrays and a record pointing at them.
struct ErrorArrays {
    std::vector<double> evm, mag, phase;
    DisplayData d{};

    ErrorArrays(uint32_t evmLen, uint32_t magLen, uint32_t phaseLen)
        : evm(evmLen, 0.0), mag(magLen, 0.0), phase(phaseLen, 0.0) {
        d.evm = evm.data();
        d.evmLen = evmLen;
        d.magErr = mag.data();
        d.magErrLen = magLen;
        d.phaseErr = phase.data();
        d.phaseErrLen = phaseLen;
        // What a demodulator might have left; every figure must be replaced.
        d.evmRms = d.evmPeak = d.magErrRms = d.magErrPeak = 99.0;
        d.phaseErrRms = d.phaseErrPeak = 99.0;
    }
};

struct Summary {
    double evmRms, evmPeak, magRms, magPeak, phaseRms, phasePeak;
};

Summary summarise(ErrorArrays& a, ModType family) {
    VantrelClass inst;
    inst.calc_RMS_EVM(family, &a.d);
    // Copy out of the packed record before comparing.
    return Summary{double(a.d.evmRms),     double(a.d.evmPeak),     double(a.d.magErrRms),
                   double(a.d.magErrPeak), double(a.d.phaseErrRms), double(a.d.phaseErrPeak)};
}

void expect_all_zero(const Summary& s) {
    EXPECT_EQ(s.evmRms, 0.0);
    EXPECT_EQ(s.evmPeak, 0.0);
    EXPECT_EQ(s.magRms, 0.0);
    EXPECT_EQ(s.magPeak, 0.0);
    EXPECT_EQ(s.phaseRms, 0.0);
    EXPECT_EQ(s.phasePeak, 0.0);
}

// sqrt(sum_{k=1..n} k^2 / 800) in closed form.
double rms_of_ramp(double n) { return std::sqrt(n * (n + 1) * (2 * n + 1) / 6.0 / 800.0); }

TEST(LastSymbolStatistics, FewerThan800SymbolsClearEverything) {
    ErrorArrays a(799, 799, 799);
    for (double& v : a.evm) v = 5.0;
    expect_all_zero(summarise(a, MT_PSK));
}

TEST(LastSymbolStatistics, AnalogIsRefusedWhateverItsArrays) {
    ErrorArrays a(2000, 2000, 2000);
    for (double& v : a.evm) v = 5.0;
    for (double& v : a.phase) v = 0.3;
    expect_all_zero(summarise(a, MT_ANALOG));
}

// Exactly 800 symbols: the span is the whole array. EVM 1..800 gives the
// closed-form ramp RMS and a peak of 800; a phase error of pi/4 everywhere is
// 45 degrees RMS and peak.
TEST(LastSymbolStatistics, ExactlyEightHundredUsesEveryValue) {
    ErrorArrays a(800, 800, 800);
    for (int k = 0; k < 800; ++k) {
        a.evm[k] = k + 1.0;
        a.mag[k] = 800.0 - k;
        a.phase[k] = kPi / 4;
    }
    const Summary s = summarise(a, MT_QAM);
    EXPECT_NEAR(s.evmRms, rms_of_ramp(800), 1e-9);
    EXPECT_EQ(s.evmPeak, 800.0);
    EXPECT_NEAR(s.magRms, rms_of_ramp(800), 1e-9);
    EXPECT_EQ(s.magPeak, 800.0);
    EXPECT_NEAR(s.phaseRms, 45.0, 1e-12);
    EXPECT_NEAR(s.phasePeak, 45.0, 1e-12);
}

// Only the last 800 EVM values count: a huge value just before the span and
// a ramp inside it.
TEST(LastSymbolStatistics, SpanStartsEightHundredFromTheEnd) {
    ErrorArrays a(1500, 1500, 1500);
    for (int k = 0; k < 700; ++k) {
        a.evm[k] = 1e6;
        a.mag[k] = 1e6;
        a.phase[k] = 3.0;
    }
    for (int k = 700; k < 1500; ++k) {
        a.evm[k] = k - 699.0;  // 1..800
        a.mag[k] = 2.0;
        a.phase[k] = -kPi / 180;  // -1 degree
    }
    const Summary s = summarise(a, MT_PSK);
    EXPECT_NEAR(s.evmRms, rms_of_ramp(800), 1e-9);
    EXPECT_EQ(s.evmPeak, 800.0);
    EXPECT_NEAR(s.magRms, 2.0, 1e-12);
    EXPECT_EQ(s.magPeak, 2.0);
    EXPECT_NEAR(s.phaseRms, 1.0, 1e-12);
    EXPECT_NEAR(s.phasePeak, -1.0, 1e-12);  // all negative: a negative peak
}

// The start index comes from the EVM count: a magnitude array shorter than
// it contributes nothing, one longer contributes more than 800 terms, still
// divided by 800. The -4 entries add their squares but never become the peak.
struct SpanCase {
    uint32_t evmLen, magLen;
    double expectRms;
    double expectPeak;
};

void PrintTo(const SpanCase& c, std::ostream* os) {
    *os << "evm" << c.evmLen << "_mag" << c.magLen;
}

class MagnitudeSpanTest : public ::testing::TestWithParam<SpanCase> {};

TEST_P(MagnitudeSpanTest, AlignedOnTheEvmCount) {
    const SpanCase c = GetParam();
    ErrorArrays a(c.evmLen, c.magLen, 0);
    for (double& v : a.evm) v = 1.0;
    for (uint32_t k = 0; k < c.magLen; ++k) a.mag[k] = (k % 2 == 0) ? 3.0 : -4.0;
    const Summary s = summarise(a, MT_PSK);
    EXPECT_NEAR(s.magRms, c.expectRms, 1e-12);
    EXPECT_EQ(s.magPeak, c.expectPeak);
    EXPECT_EQ(s.evmRms, 1.0);
}

INSTANTIATE_TEST_SUITE_P(
    Counts, MagnitudeSpanTest,
    ::testing::Values(
        // s = 1200 lies beyond a 1000-value array: no term at all.
        SpanCase{2000, 1000, 0.0, 0.0},
        // Too short: cleared by the length rule.
        SpanCase{2000, 799, 0.0, 0.0},
        // s = 1200: 300 terms of 9 and 16 -> sqrt(300 * 12.5 / 800).
        SpanCase{2000, 1500, std::sqrt(3750.0 / 800.0), 3.0},
        // s = 0 and 1000 terms: sqrt(1000 * 12.5 / 800), above the 800-term RMS.
        SpanCase{800, 1000, std::sqrt(12500.0 / 800.0), 3.0},
        // Equal counts: 800 terms.
        SpanCase{1234, 1234, std::sqrt(12.5), 3.0}));

// The phase span misses the array entirely: no term, the extremes keep their
// starting values -1e30 and 1e30, their magnitudes tie, and the tie goes to
// the minimum: a peak of 1e30 with an RMS of 0.
TEST(LastSymbolStatistics, EmptyPhaseSpanReportsTheUntouchedMinimum) {
    ErrorArrays a(2000, 2000, 1000);
    for (double& v : a.phase) v = 0.5;
    const Summary s = summarise(a, MT_QAM);
    EXPECT_EQ(s.phaseRms, 0.0);
    EXPECT_EQ(s.phasePeak, 1e30);
}

// The peak is the signed extreme with the larger magnitude; an exact tie goes
// to the negative one.
TEST(LastSymbolStatistics, PhasePeakIsTheSignedExtreme) {
    ErrorArrays a(800, 0, 800);
    for (int k = 0; k < 800; ++k) a.phase[k] = 0.01 * ((k % 7) - 3);  // -0.03 .. 0.03
    a.phase[100] = 0.2;
    a.phase[500] = -0.1;
    Summary s = summarise(a, MT_PSK);
    EXPECT_NEAR(s.phasePeak, 0.2 * 180.0 / kPi, 1e-12);

    a.phase[500] = -0.25;
    s = summarise(a, MT_PSK);
    EXPECT_NEAR(s.phasePeak, -0.25 * 180.0 / kPi, 1e-12);

    a.phase[500] = -0.2;  // |max| == |min|
    s = summarise(a, MT_PSK);
    EXPECT_NEAR(s.phasePeak, -0.2 * 180.0 / kPi, 1e-12);
}

// ASK and FSK have no meaningful phase error: both phase figures are 0 even
// with a full phase array, while EVM and magnitude are still summarised.
TEST(LastSymbolStatistics, AskAndFskGetNoPhaseFigures) {
    for (ModType fam : {MT_ASK, MT_FSK}) {
        ErrorArrays a(900, 900, 900);
        for (double& v : a.evm) v = 2.0;
        for (double& v : a.mag) v = 1.0;
        for (double& v : a.phase) v = 0.4;
        const Summary s = summarise(a, fam);
        EXPECT_EQ(s.phaseRms, 0.0) << fam;
        EXPECT_EQ(s.phasePeak, 0.0) << fam;
        EXPECT_EQ(s.evmRms, 2.0) << fam;
        EXPECT_EQ(s.magPeak, 1.0) << fam;
    }
}

// A record whose arrays were never set: the counts say 800 but the pointers
// are null. The figures come back 0 instead of a fault.
TEST(LastSymbolStatistics, NullArraysAreNotRead) {
    DisplayData d{};
    d.evmLen = d.magErrLen = d.phaseErrLen = 800;
    VantrelClass inst;
    inst.calc_RMS_EVM(MT_PSK, &d);
    EXPECT_EQ(double(d.evmRms), 0.0);
    EXPECT_EQ(double(d.phaseErrPeak), 0.0);
}

}  // namespace
