// The call entry and the registry: handles, validation boundaries, parameter
// defaults, non-finite rates, the debug capture files, and the front end's
// rate change and work-buffer sizing.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <vector>

#include "VantrelClass.h"
#include "driver.h"
#include "resampler.h"
#include "test_support.h"

namespace {

const double kNan = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();
constexpr int kAny = 99;  // reached the chain; the code depends on the block

class Entry : public ::testing::Test {
protected:
    void SetUp() override { handle = VantrelObjCreatSelfEncode(); }
    void TearDown() override { VantrelObjRelease(handle); }

    // One call on a constant block. The record's snr is preset so that a call
    // rejected at the entry (record untouched) can be told from one that
    // reached the analysis chain (record cleared first).
    int call(uint32_t len, double rb, uint32_t mode, double fsIn, double fsMin = 0.0,
             double rolloff = 0.35) {
        std::vector<int16_t> I(len + 1, 5), Q(len + 1, -5);
        ExParamOut p = makeParam(rb, mode, rolloff);
        host.rec.snr = 77.0;
        return VantrelExcute(handle, I.data(), Q.data(), len, &p, false, false, &host.rec, fsMin,
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

TEST(Registry, HandlesCountUpAreNeverReusedAndReleaseOnce) {
    const int base = objcount;
    const int a = VantrelObjCreatSelfEncode(), b = VantrelObjCreatSelfEncode();
    EXPECT_EQ(a, base);
    EXPECT_EQ(b, base + 1);
    EXPECT_EQ(VantrelObjReset(a), 0);
    EXPECT_EQ(VantrelObjRelease(a), 0);
    EXPECT_EQ(VantrelObjRelease(a), -1);
    EXPECT_EQ(VantrelObjReset(a), -1);
    EXPECT_EQ(VantrelObjCreatSelfEncode(), base + 2);  // a is not handed out again
    EXPECT_EQ(VantrelObjRelease(b), 0);
    EXPECT_EQ(VantrelObjRelease(base + 2), 0);
    char buf[40];
    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(GetALGVersion(buf), 26);
    EXPECT_STREQ(buf, "V1.0.0.202600811_X86_WIN64");
    EXPECT_EQ(buf[27], 'x');  // exactly 27 bytes written
}

TEST_F(Entry, UnknownHandleAndNullPointers) {
    std::vector<int16_t> I(20000, 0);
    ExParamOut p = makeParam(1000, MOD_QPSK);
    DisplayData* r = &host.rec;
    EXPECT_EQ(VantrelExcute(handle + 1000, I.data(), I.data(), 20000, &p, false, false, r, 0, 4000), -4);
    EXPECT_EQ(VantrelExcute(handle, I.data(), I.data(), 20000, &p, false, false, nullptr, 0, 4000), -1);
    EXPECT_EQ(VantrelExcute(handle, nullptr, I.data(), 20000, &p, false, false, r, 0, 4000), -1);
    EXPECT_EQ(VantrelExcute(handle, I.data(), I.data(), 20000, nullptr, false, false, r, 0, 4000), -1);
}

// Each row: the call, the code it returns, and whether it reached the chain.
TEST_F(Entry, ValidationBoundaries) {
    const struct { uint32_t len; double rb; uint32_t mode; double fsIn, fsMin; int code; bool reached; }
        rows[] = {
        {16383, 1000, MOD_QPSK, 4000, 0, -1, false},   {320001, 1000, MOD_QPSK, 4000, 0, -1, false},
        {16383, 1000, MOD_ANALOG_PM, 4000, 0, -1, false}, {320001, 1000, 0, 4000, 0, -1, false},
        {16384, 1000, 19, 4000, 0, kAny, true},          {320000, 1000, MOD_BPSK, 4000, 0, kAny, true},
        {19999, 1, MOD_QPSK, 10, 0, 1, false},          // fewer than 2000 symbols at r = 10
        {20000, 1, MOD_QPSK, 10, 0, kAny, true},
        {128000, 1000, MOD_QPSK, 64000, 0, kAny, true},   // r = 64
        {128000, 1000, MOD_QPSK, 64000.001, 0, -1, false},
        {20000, 1000, MOD_QPSK, 1000, 0, kAny, true},     // r = 1
        {20000, 1000, MOD_QPSK, 999.999, 0, -1, false},
        {20000, 0.5e-6, MOD_QPSK, 1000, 0, -1, false},  // Rb below 1e-6
        {20000, 1000, MOD_QPSK, 4000, 4001, -1, false}, // fsMin above fsIn: digital only
        {20000, 1000, MOD_QPSK, 4000, 4000, 0, true},
        {20000, 1000, MOD_ANALOG_FM, 4000, 4001, 0, true},
        {20000, 0.0, MOD_ANALOG_AM, 4000, 0, 0, true},  // analog skips the rate checks
        {20000, 1000, MOD_ANALOG_I_B, 100, 0, 0, true},
        // NaN rates pass the ordered tests and are refused by the chain after
        // it cleared the record (infinite ones give r = inf or 0 at the
        // entry); analog ignores the symbol rate and fsMin is only compared.
        {20000, kNan, MOD_QPSK, 4000, 0, -1, true},     {20000, 1000, MOD_QPSK, kNan, 0, -1, true},
        {20000, 1000, MOD_ANALOG_FM, kNan, 0, -1, true}, {20000, 1000, MOD_ANALOG_AM, kInf, 0, -1, true},
        {20000, kNan, MOD_ANALOG_AM, 4000, 0, 0, true}, {20000, 1000, MOD_QPSK, 4000, kNan, 0, true},
        {20000, 1000, MOD_QPSK, kInf, 0, -1, false},    {20000, kInf, MOD_QPSK, 4000, 0, -1, false},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::Message() << r.len << " Rb " << r.rb << " mode " << r.mode << " fs "
                                        << r.fsIn << " fsMin " << r.fsMin);
        const int code = call(r.len, r.rb, r.mode, r.fsIn, r.fsMin);
        if (r.code != kAny) {
            EXPECT_EQ(code, r.code);
        }
        EXPECT_EQ(reachedChain(), r.reached);
        EXPECT_TRUE(host.intact());
    }
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
    // A NaN roll-off fails both ordered tests and is kept as it is; a rejected
    // call still rewrites the instance copy.
    EXPECT_EQ(call(100, 2500, MOD_BPSK, 4000, 0, std::nan("")), -1);
    EXPECT_TRUE(std::isnan(double(instanceCopy().rolloff)));
    EXPECT_EQ(double(instanceCopy().Rb), 2500.0);
}

TEST_F(Entry, DebugCaptureIsWrittenForRejectedCallsToo) {
    ScratchDir dir;
    std::vector<int16_t> I(16383), Q(16383);
    for (uint32_t k = 0; k < 16383; ++k) I[k] = int16_t(k), Q[k] = int16_t(-int(k) - 1);
    ExParamOut p = makeParam(1000, MOD_QPSK, 0.35, FILTER_RRC);
    // An unknown handle writes nothing.
    EXPECT_EQ(VantrelExcute(handle + 1000, I.data(), Q.data(), 16383, &p, true, true, &host.rec, 0, 4000), -4);
    EXPECT_FALSE(std::ifstream("./Vantrel_Parameter.txt").good());
    EXPECT_EQ(VantrelExcute(handle, I.data(), Q.data(), 16383, &p, true, true, &host.rec, 0, 4000), -1);
    EXPECT_EQ(readFile("./Vantrel_Parameter.txt"),
              "inLen = 16383, fsIn = 4000.000000, Rb = 1000.000000,mode =  5,filterType= 1,  "
              "init=1 \n");
    const std::string samples = readFile("./Vantrel_IQData.bin");
    ASSERT_EQ(samples.size(), 4u * 16383);
    int16_t pair[2];  // sample 500, interleaved I, Q
    std::memcpy(pair, samples.data() + 4 * 500, sizeof pair);
    EXPECT_TRUE(pair[0] == 500 && pair[1] == -501);
    // An accepted call appends its samples and rewrites the text file; the
    // analyzer's replay test reads both back.
}

// FSK and analog keep the captured rate; the other families are brought to
// four samples per symbol, by the interpolator above and the resampler below
// (whose 1e-9 fraction for 3.5 writes 18729 values where ceil(n 4 / 3.5) is
// 18728: the work buffer must hold them).
TEST(FrontEndPipeline, RateChangeAndWorkBuffer) {
    const struct { uint32_t mode, n; double sps, fs, outLen; } rows[] = {
        {MOD_2FSK, 20000, 10, 10000, 20000},   {MOD_ANALOG_AM, 20000, 10, 10000, 20000},
        {MOD_BPSK, 20000, 10, 4000, 8000},     {MOD_QPSK, 20000, 4, 4000, 20000},
        {MOD_QPSK, 16387, 3.5, 4000, 18729},   {MOD_QPSK, 20000, 1, 4000, 80000},
        {MOD_QPSK, 20000, 1.2, 4000, 20000 / 0.3}, {MOD_QPSK, 20000, 1.9, 4000, 20000 * 4 / 1.9},
        {MOD_QPSK, 20000, 2.5, 4000, 32000},   {MOD_QPSK, 20000, 3.9, 4000, 20000 * 4 / 3.9}};
    for (const auto& r : rows) {
        std::vector<int16_t> I(r.n), Q(r.n);
        for (size_t k = 0; k < r.n; ++k) I[k] = Q[k] = int16_t((k * 37) % 2001 - 1000);
        CommonFun fe;
        fe.Reset();
        ExParamOut p = makeParam(1000, r.mode);
        HostRecord host(16);
        FrontEndBlock block;
        ASSERT_EQ(runFrontEnd(fe, p, I.data(), Q.data(), r.n, &p, &host.rec, 1000 * r.sps, block), 0);
        EXPECT_EQ(block.fs, r.fs) << r.mode << " sps " << r.sps;
        EXPECT_NEAR(block.n, r.outLen, r.sps == 10 ? 2.0 : (r.n == 16387 ? 0.0 : 1.0)) << r.sps;
        EXPECT_LE(block.n, block.capacity) << r.sps;
    }
    EXPECT_EQ(resample_output_count(16387, 4000, 3500), 18729);
}
