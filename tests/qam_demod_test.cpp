// The 16/32/64-point QAM demodulator called directly: the minimum timing
// output and the record's counts. Decisions against the truth are proven end
// to end.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "VantrelClass.h"
#include "siggen.h"
#include "test_support.h"

namespace {

constexpr double kRb = 10000.0, kFs = 4 * kRb;

// Number of symbols the timing stage gives for the first n samples of x.
int timingSymbols(const std::vector<Complex>& x, int n) {
    CommonFun cf;
    std::vector<Complex> f(n), s(n);
    int l1 = n;
    cf.matchFilter(x.data(), n, kFs, makeParam(kRb, MOD_16QAM), f.data(), l1);
    int l2 = l1;
    cf.Gardner(f.data(), l1, kFs, kRb, 0.00541, 3.82e-6, s.data(), &l2);
    return l2;
}

// 1501 timing symbols are refused without touching the record; 1502 pass and
// leave K = 1502 - 500 - 500 - 4 symbols (five-tap equaliser), with the
// symbol count in symbolsLen and the bits of each symbol, bit k first.
TEST(DemodQam, MinimumTimingOutputAndTheRecordCounts) {
    vantrel::siggen::Config cfg;
    cfg.mode = MOD_16QAM;
    cfg.Rb = kRb;
    cfg.sps = 4.0;
    cfg.numSymbols = 1700;
    cfg.timingOffset = 0.23;
    cfg.carrierPhase = 0.3;
    cfg.esn0Db = 35.0;
    cfg.seed = 5;
    const auto g = vantrel::siggen::generate(cfg);
    std::vector<Complex> x;
    for (size_t i = 0; i < g.I.size(); ++i) x.push_back(Complex{double(g.I[i]), double(g.Q[i])});

    int n1501 = -1, n1502 = -1;
    for (int n = 4 * 1505; n < 4 * 1540 && n1502 < 0; ++n) {
        const int symbols = timingSymbols(x, n);
        if (symbols == 1501) n1501 = n;
        if (symbols == 1502) n1502 = n;
    }
    ASSERT_GT(n1501, 0) << "no length gives exactly 1501 symbols";
    ASSERT_GT(n1502, 0) << "no length gives exactly 1502 symbols";

    HostRecord host(4000);
    const DisplayData before = host.rec;
    VantrelClass inst;
    const ExParamOut p = makeParam(kRb, MOD_16QAM);
    EXPECT_EQ(inst.demodQAM(x.data(), n1501, kFs, p, &host.rec), -1);
    EXPECT_EQ(std::memcmp(&before, &host.rec, sizeof before), 0) << "failure wrote the record";

    ASSERT_EQ(inst.demodQAM(x.data(), n1502, kFs, p, &host.rec), 0);
    constexpr uint32_t K = 1502 - 500 - 500 - 4;
    EXPECT_EQ(host.rec.constLen, K);
    EXPECT_EQ(host.rec.symbolsLen, K);
    EXPECT_EQ(host.rec.bitsLen, 4 * K);
    EXPECT_EQ(host.rec.evmLen, K);
    EXPECT_EQ(host.rec.eyeLen, 4 * K - 16);
    for (uint32_t i = 0; i < K; ++i) {
        const uint32_t* b = host.rec.bits + 4 * i;
        ASSERT_EQ(b[0] + 2 * b[1] + 4 * b[2] + 8 * b[3], host.rec.symbols[i]) << i;
    }
    EXPECT_TRUE(host.intact());

    // A mode code outside the QAM family is refused.
    EXPECT_EQ(inst.demodQAM(x.data(), n1502, kFs, makeParam(kRb, MOD_QPSK), &host.rec), -1);
}

}  // namespace
