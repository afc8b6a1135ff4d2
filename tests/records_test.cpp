// Clearing a result record (the layout is pinned by the C99 layout test; the
// mode-code table is exercised code by code end to end).
#include <gtest/gtest.h>

#include <cstring>

#include "CommonFun.h"

TEST(Records, InitDisplayClearsCountsAndScalarsButKeepsPointersAndIqFigures) {
    DisplayData d;
    std::memset(&d, 0x5A, sizeof d);  // every byte non-zero
    double buffer[4];
    d.eye = buffer;
    d.iqOffset = 12.5, d.iqGainRatio = 1.25, d.quadError = -0.5;
    initDisplay(&d);
    EXPECT_EQ(d.eye, buffer);
    EXPECT_TRUE(d.iqOffset == 12.5 && d.iqGainRatio == 1.25 && d.quadError == -0.5);
    for (uint32_t len : {d.eyeLen, d.constLen, d.bitsLen, d.symbolsLen, d.evmLen,
                         d.phaseErrLen, d.magErrLen, d.phaseTraceLen, d.freqTraceLen,
                         d.envTraceLen, d.iTraceLen, d.shiftedIQLen})
        EXPECT_EQ(len, 0u);
    for (double v : {d.evmRms, d.evmPeak, d.phaseErrRms, d.phaseErrPeak, d.magErrRms,
                     d.magErrPeak, d.amDepth, d.fmPeakDev, d.freqOffset, d.peakLevel,
                     d.modDepth, d.freqDeviation, d.snr})
        EXPECT_EQ(v, 0.0);
}
