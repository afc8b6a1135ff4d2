// The boundary records as a C++ host sees them, and the two routines that
// belong to them: clearing a result record and mapping a mode code.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include "CommonFun.h"

TEST(Records, LayoutMatchesTheBinaryInterface) {
    EXPECT_EQ(sizeof(ExParamOut), 32u);
    EXPECT_EQ(offsetof(ExParamOut, Rb), 8u);
    EXPECT_EQ(offsetof(ExParamOut, mode), 16u);
    // A host with natural 8-byte alignment would put rolloff at 24.
    EXPECT_EQ(offsetof(ExParamOut, rolloff), 20u);
    EXPECT_EQ(offsetof(ExParamOut, filterType), 28u);
    EXPECT_EQ(sizeof(DisplayData), 280u);
    EXPECT_EQ(offsetof(DisplayData, constI), 12u);
    EXPECT_EQ(offsetof(DisplayData, amDepth), 140u);
    EXPECT_EQ(offsetof(DisplayData, iqOffset), 188u);
    EXPECT_EQ(offsetof(DisplayData, snr), 272u);
}

TEST(Records, DiscriminatorTypeMapsEveryCode) {
    struct Row {
        int code;
        ModType family;
        int order;
    };
    const Row table[] = {
        {1, MT_FSK, 2},     {2, MT_FSK, 4},     {3, MT_FSK, 2},     {4, MT_PSK, 2},
        {5, MT_PSK, 4},     {6, MT_PSK, 8},     {7, MT_QAM, 16},    {8, MT_ASK, 2},
        {9, MT_QAM, 64},    {10, MT_ANALOG, 0}, {11, MT_ANALOG, 0}, {12, MT_ANALOG, 0},
        {13, MT_ANALOG, 0}, {14, MT_ANALOG, 0}, {15, MT_ANALOG, 0}, {16, MT_QAM, 128},
        {17, MT_QAM, 256},  {18, MT_QAM, 32},   {0, MT_PSK, 1},     {19, MT_PSK, 1},
        {31, MT_PSK, 1},
    };
    // (Codes beyond the enumeration's range, negative ones included, are
    // mapped to 0 by the driver before they reach this routine; the sweep
    // through the entry covers them.)
    CommonFun cf;
    for (const Row& row : table) {
        ModType family = MT_ANALOG;
        int order = -99;
        cf.getDiscriminatorType(static_cast<modulationTypeOut>(row.code), &family, &order);
        EXPECT_EQ(family, row.family) << "code " << row.code;
        EXPECT_EQ(order, row.order) << "code " << row.code;
    }
}

TEST(Records, InitDisplayClearsCountsAndScalarsButKeepsPointersAndIqFigures) {
    DisplayData d;
    std::memset(&d, 0x5A, sizeof d);  // every byte non-zero
    double buffer[4];
    d.eye = buffer;
    d.iqOffset = 12.5;
    d.iqGainRatio = 1.25;
    d.quadError = -0.5;
    initDisplay(&d);
    EXPECT_EQ(d.eye, buffer);
    EXPECT_EQ(double(d.iqOffset), 12.5);
    EXPECT_EQ(double(d.iqGainRatio), 1.25);
    EXPECT_EQ(double(d.quadError), -0.5);
    for (uint32_t len : {d.eyeLen, d.constLen, d.bitsLen, d.symbolsLen, d.evmLen,
                         d.phaseErrLen, d.magErrLen, d.phaseTraceLen, d.freqTraceLen,
                         d.envTraceLen, d.iTraceLen, d.shiftedIQLen})
        EXPECT_EQ(len, 0u);
    for (double v : {d.evmRms, d.evmPeak, d.phaseErrRms, d.phaseErrPeak, d.magErrRms,
                     d.magErrPeak, d.amDepth, d.fmPeakDev, d.freqOffset, d.peakLevel,
                     d.modDepth, d.freqDeviation, d.snr})
        EXPECT_EQ(v, 0.0);
}
