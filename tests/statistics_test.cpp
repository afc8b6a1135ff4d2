// Summary statistics over the last 800 symbols, through the instance member
// the driver calls.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "VantrelClass.h"

namespace {

constexpr double kPi = 3.141592653589793;

// Error arrays of the given lengths. Everything before the span start
// s = evmLen - 800 is huge (1e6, 3 rad) so that a misplaced span shows;
// from s on EVM is 1, magnitude alternates 3, -4 (mean square 12.5; the -4
// must never become the peak) and the phase is -1 degree.
DisplayData summarise(ModType family, uint32_t evmLen, uint32_t magLen, uint32_t phaseLen,
                  double phaseInSpan = -kPi / 180) {
    const uint32_t s = evmLen >= 800 ? evmLen - 800 : 0;
    std::vector<double> evm(evmLen), mag(magLen), phase(phaseLen);
    for (uint32_t k = 0; k < evmLen; ++k) evm[k] = k < s ? 1e6 : 1.0;
    for (uint32_t k = 0; k < magLen; ++k) mag[k] = k < s ? 1e6 : (k % 2 ? -4.0 : 3.0);
    for (uint32_t k = 0; k < phaseLen; ++k) phase[k] = k < s ? 3.0 : phaseInSpan;
    DisplayData d{};
    d.evm = evm.data(), d.evmLen = evmLen;
    d.magErr = mag.data(), d.magErrLen = magLen;
    d.phaseErr = phase.data(), d.phaseErrLen = phaseLen;
    // Whatever a demodulator left must be replaced.
    d.evmRms = d.evmPeak = d.magErrRms = d.magErrPeak = d.phaseErrRms = d.phaseErrPeak = 99.0;
    VantrelClass().calc_RMS_EVM(family, &d);
    return d;
}

// Every mean divides by 800 whatever the number of terms, and one start
// index, taken from the EVM count, serves all three arrays (unsigned), so a
// shorter array adds fewer or no terms and a longer one more.
TEST(LastSymbolStatistics, GatesSpansAndFamilies) {
    const double r = std::sqrt(12.5);
    const struct { ModType fam; uint32_t evm, mag, phase; double evmRms, magRms, magPeak, phRms, phPeak; } cases[] = {
        {MT_PSK, 799, 799, 799, 0, 0, 0, 0, 0},        // fewer than 800: all cleared
        {MT_PSK, 800, 800, 800, 1, r, 3, 1, -1},       // exactly 800: every value
        {MT_ANALOG, 2000, 2000, 2000, 0, 0, 0, 0, 0},  // analog refused
        {MT_QAM, 1500, 1500, 1500, 1, r, 3, 1, -1},    // last 800 only
        {MT_ASK, 900, 900, 900, 1, r, 3, 0, 0},        // no phase figures for ASK, FSK
        {MT_FSK, 900, 900, 900, 1, r, 3, 0, 0},
        {MT_PSK, 2000, 799, 2000, 1, 0, 0, 1, -1},     // magnitude too short: cleared
        {MT_PSK, 2000, 1500, 2000, 1, std::sqrt(300 * 12.5 / 800), 3, 1, -1},  // 300 terms
        {MT_PSK, 800, 1000, 1000, 1, std::sqrt(1000 * 12.5 / 800), 3, std::sqrt(1000 / 800.0), -1},
        // s = 1200 lies past both arrays: no terms. The phase extremes keep
        // their starting values -1e30 and 1e30, a magnitude tie that goes to
        // the minimum: a peak of 1e30.
        {MT_PSK, 2000, 1000, 1000, 1, 0, 0, 0, 1e30}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.fam << " " << c.evm << "/" << c.mag << "/" << c.phase);
        const DisplayData s = summarise(c.fam, c.evm, c.mag, c.phase);
        EXPECT_NEAR(double(s.evmRms), c.evmRms, 1e-12);
        EXPECT_EQ(double(s.evmPeak), c.evmRms);  // EVM is 0 or all ones
        EXPECT_NEAR(double(s.magErrRms), c.magRms, 1e-12);
        EXPECT_EQ(double(s.magErrPeak), c.magPeak);
        EXPECT_NEAR(double(s.phaseErrRms), c.phRms, 1e-12);
        EXPECT_NEAR(double(s.phaseErrPeak), c.phPeak, 1e-12);
    }
}

}  // namespace
