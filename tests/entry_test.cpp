// The call entry: handle lookup, parameter defaults, validation boundaries and
// the debug capture files.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <iterator>
#include <limits>
#include <sstream>
#include <cstring>
#include <vector>

#include "VantrelClass.h"
#include "test_support.h"

namespace {

class Entry : public ::testing::Test {
protected:
    void SetUp() override { handle = VantrelObjCreatSelfEncode(); }
    void TearDown() override { VantrelObjRelease(handle); }

    // Runs one call on a silent block; the record's snr is preset so that a
    // call rejected at the entry (record untouched) can be told from one that
    // reached the analysis chain (record cleared first).
    int call(uint32_t len, double rb, uint32_t mode, double fsIn, double fsMin = 0.0,
             double rolloff = 0.35, bool dump = false) {
        std::vector<int16_t> I(len + 1, 0), Q(len + 1, 0);
        ExParamOut p = makeParam(rb, mode, rolloff);
        host.rec.snr = 77.0;
        return VantrelExcute(handle, I.data(), Q.data(), len, &p, false, dump, &host.rec, fsMin,
                             fsIn);
    }
    bool reachedChain() const { return host.rec.snr != 77.0; }
    const ExParamOut& instanceCopy() const { return VantrelObjCounter[handle]->exParam; }

    int handle = -1;
    HostRecord host{330000};
};

std::string readFile(const std::string& name) {
    std::ifstream f(name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

}  // namespace

TEST_F(Entry, UnknownHandleIsMinusFourAndCapturesNothing) {
    ScratchDir dir;
    std::vector<int16_t> I(20000, 1), Q(20000, 2);
    ExParamOut p = makeParam(1000, MOD_QPSK);
    EXPECT_EQ(VantrelExcute(handle + 1000, I.data(), Q.data(), 20000, &p, false, true,
                            &host.rec, 0, 4000),
              -4);
    EXPECT_FALSE(std::ifstream("./Vantrel_Parameter.txt").good());
    EXPECT_FALSE(std::ifstream("./Vantrel_IQData.bin").good());
}

TEST_F(Entry, NullPointersAreRejected) {
    std::vector<int16_t> I(20000, 0);
    ExParamOut p = makeParam(1000, MOD_QPSK);
    EXPECT_EQ(VantrelExcute(handle, I.data(), I.data(), 20000, &p, false, false, nullptr, 0, 4000), -1);
    EXPECT_EQ(VantrelExcute(handle, nullptr, I.data(), 20000, &p, false, false, &host.rec, 0, 4000), -1);
    EXPECT_EQ(VantrelExcute(handle, I.data(), I.data(), 20000, nullptr, false, false, &host.rec, 0, 4000), -1);
}

TEST_F(Entry, LengthLimitsApplyToEveryCode) {
    for (uint32_t mode : {5u, 12u, 0u, 19u}) {
        EXPECT_EQ(call(16383, 1000, mode, 4000), -1) << mode;
        EXPECT_FALSE(reachedChain());
        EXPECT_EQ(call(320001, 1000, mode, 4000), -1) << mode;
        EXPECT_FALSE(reachedChain());
        call(16384, 1000, mode, 4000);
        EXPECT_TRUE(reachedChain()) << mode;
    }
    call(320000, 1000, MOD_BPSK, 4000);
    EXPECT_TRUE(reachedChain());
}

TEST_F(Entry, BlockMustHold2000Symbols) {
    EXPECT_EQ(call(19999, 1, MOD_QPSK, 10), 1);  // r = 10
    EXPECT_FALSE(reachedChain());
    call(20000, 1, MOD_QPSK, 10);
    EXPECT_TRUE(reachedChain());
}

TEST_F(Entry, SamplesPerSymbolBetweenOneAnd64) {
    call(128000, 1000, MOD_QPSK, 64000);  // r = 64
    EXPECT_TRUE(reachedChain());
    EXPECT_EQ(call(128000, 1000, MOD_QPSK, 64000.001), -1);
    call(20000, 1000, MOD_QPSK, 1000);  // r = 1
    EXPECT_TRUE(reachedChain());
    EXPECT_EQ(call(20000, 1000, MOD_QPSK, 999.999), -1);
    EXPECT_EQ(call(20000, 0.5e-6, MOD_QPSK, 1000), -1);  // Rb below 1e-6
}

TEST_F(Entry, FsMinAboveFsInRejectsDigitalOnly) {
    EXPECT_EQ(call(20000, 1000, MOD_QPSK, 4000, 4001), -1);
    EXPECT_FALSE(reachedChain());
    EXPECT_EQ(call(20000, 1000, MOD_ANALOG_FM, 4000, 4001), 0);
    EXPECT_TRUE(reachedChain());
}

TEST_F(Entry, AnalogCodesSkipTheRateChecks) {
    EXPECT_EQ(call(20000, 0.0, MOD_ANALOG_AM, 4000), 0);
    EXPECT_TRUE(reachedChain());
    EXPECT_EQ(call(20000, 1000, MOD_ANALOG_I_B, 100), 0);  // r = 0.1 is fine for analog
}

TEST_F(Entry, RolloffOutsideOpenUnitIntervalDefaultsForDigitalOnly) {
    for (double r : {0.0, 1.0, -0.2, 7.0}) {
        call(20000, 1000, MOD_QPSK, 4000, 0, r);
        EXPECT_EQ(double(instanceCopy().rolloff), 0.35) << r;
        call(20000, 1000, MOD_ANALOG_PM, 4000, 0, r);
        EXPECT_EQ(double(instanceCopy().rolloff), r) << r;
    }
    call(20000, 1000, MOD_QPSK, 4000, 0, 0.22);
    EXPECT_EQ(double(instanceCopy().rolloff), 0.22);
    // A NaN roll-off fails both ordered tests and is kept as it is.
    call(20000, 1000, MOD_QPSK, 4000, 0, std::nan(""));
    EXPECT_TRUE(std::isnan(double(instanceCopy().rolloff)));
}

TEST_F(Entry, RejectedCallStillRewritesTheInstanceCopy) {
    EXPECT_EQ(call(100, 2500, MOD_BPSK, 4000), -1);
    EXPECT_EQ(double(instanceCopy().Rb), 2500.0);
    EXPECT_EQ(uint32_t(instanceCopy().mode), static_cast<uint32_t>(MOD_BPSK));
}

TEST_F(Entry, NonFiniteRatesPassTheOrderedTests) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    // None of these is rejected by the entry's comparisons; they reach the
    // analysis chain, which refuses them itself.
    call(20000, nan, MOD_QPSK, 4000);
    EXPECT_TRUE(reachedChain());
    call(20000, 1000, MOD_QPSK, nan);
    EXPECT_TRUE(reachedChain());
    call(20000, 1000, MOD_QPSK, 4000, nan);
    EXPECT_TRUE(reachedChain());
}

TEST_F(Entry, DebugCaptureIsWrittenForAcceptedAndRejectedCalls) {
    ScratchDir dir;
    const uint32_t n = 16383;  // rejected for its length
    std::vector<int16_t> I(n), Q(n);
    for (uint32_t k = 0; k < n; ++k) {
        I[k] = static_cast<int16_t>(k);
        Q[k] = static_cast<int16_t>(-static_cast<int>(k) - 1);
    }
    ExParamOut p = makeParam(1000, MOD_QPSK, 0.35, FILTER_RRC);
    EXPECT_EQ(VantrelExcute(handle, I.data(), Q.data(), n, &p, true, true, &host.rec, 0, 4000), -1);
    EXPECT_EQ(readFile("./Vantrel_Parameter.txt"),
              "inLen = 16383, fsIn = 4000.000000, Rb = 1000.000000,mode =  5,filterType= 1,  "
              "init=1 \n");
    std::string samples = readFile("./Vantrel_IQData.bin");
    ASSERT_EQ(samples.size(), 4u * n);
    std::vector<int16_t> back(2 * n);
    std::memcpy(back.data(), samples.data(), samples.size());
    EXPECT_EQ(back[0], 0);
    EXPECT_EQ(back[1], -1);
    EXPECT_EQ(back[2 * 500], 500);
    EXPECT_EQ(back[2 * 500 + 1], -501);

    // A second, accepted call rewrites the text file and appends the samples.
    std::vector<int16_t> I2(20000, 3), Q2(20000, 4);
    ExParamOut p2 = makeParam(2000, MOD_ANALOG_AM, 0.5, FILTER_GAUSS);
    EXPECT_EQ(VantrelExcute(handle, I2.data(), Q2.data(), 20000, &p2, false, true, &host.rec, 0, 48000), 0);
    EXPECT_EQ(readFile("./Vantrel_Parameter.txt"),
              "inLen = 20000, fsIn = 48000.000000, Rb = 2000.000000,mode =  10,filterType= 3,  "
              "init=0 \n");
    samples = readFile("./Vantrel_IQData.bin");
    ASSERT_EQ(samples.size(), 4u * n + 4u * 20000);
    int16_t tail[2];
    std::memcpy(tail, samples.data() + samples.size() - 4, 4);
    EXPECT_EQ(tail[0], 3);
    EXPECT_EQ(tail[1], 4);
}
